// The pairwise-deletion family: VarStat and PairStat, MatrixPairwise,
// SMatrixPairwise and NSMatrixPairwise on hand-worked cases, and the three
// matrices against the plain-loop reference, bit for bit: in merges, and at
// every kernel level on wide blocks.
#include <vorel/databatch.h>
#include <vorel/matrixpairwise.h>
#include <vorel/nsmatrixpairwise.h>
#include <vorel/smatrixpairwise.h>
#include <vorel/statrecords.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <random>
#include <type_traits>
#include <utility>
#include <vector>

#include "kernel_levels.h"
#include "pairwise_reference.h"
#include "table_support.h"
#include "test_support.h"

namespace vorel {
namespace {

using namespace testing::tables;
using namespace testing::pairwise;
using testing::SameBits;
using Values = std::vector<double>;
constexpr double kEps = std::numeric_limits<double>::epsilon();
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr const char* kPairwise = "backend/vorel/matrixpairwise";
constexpr const char* kS = "backend/vorel/smatrixpairwise";
constexpr const char* kNS = "backend/vorel/nsmatrixpairwise";

// Missing cells, zero weights and NaN; batches of them merged into records
// are checked bit for bit through the matrices below.
TEST(VarStat, MissingZeroWeightAndNaNRules) {
  WorkArea work;
  work.missingCode = -99;
  const double x[] = {1, 2, 6}, allMissing[] = {-99, -99}, zeros[] = {0, 0, 0};
  VarStat s, z;
  s.Init(x, nullptr, nullptr, work, 3);
  const VarStatData before = s.Data();
  z.Init(allMissing, nullptr, nullptr, work, 2);
  EXPECT_EQ(VarFields(z), VarFields(VarStat()));
  s.Update(z);
  EXPECT_EQ(std::memcmp(&before, &s.Data(), sizeof before), 0);
  // Rows of zero total weight: mean and sums stay, the rows count, the
  // extremes join. A constant column is its own mean with any weights.
  const double high[] = {50, 50}, same[] = {0.1, 0.1, 0.1}, cancel[] = {1, -2, 1};
  z.Init(high, zeros, nullptr, work, 2);
  s.Update(z);
  EXPECT_EQ(VarFields(s), (Values{5, 3, 3, before.mean, before.css, 1, 50}));
  z.Init(same, cancel, nullptr, work, 3);
  EXPECT_EQ(VarFields(z), (Values{3, 0, 0, 0.1, 0, 0.1, 0.1}));
  // NaN is a value, not missing; -0.0 equals a code of 0.0.
  const double withNaN[] = {1, kNaN, -99}, zeroes[] = {-0.0, 0.0, 1};
  z.Init(withNaN, nullptr, nullptr, work, 3);
  EXPECT_EQ(z.NRows(), 2);
  EXPECT_TRUE(std::isnan(z.Mean()) && std::isnan(z.CSS()));
  work.missingCode = 0.0;
  z.Init(zeroes, nullptr, nullptr, work, 3);
  EXPECT_EQ(z.NRows(), 1);
  // A row where only the second cell is missing leaves the pair for both.
  work.missingCode = -9;
  const double p0[] = {1, 2, 3}, p1[] = {5, -9, 7};
  PairStat p;
  p.Init(p0, p1, nullptr, nullptr, work, 3);
  EXPECT_EQ(PairFields(p), (Values{2, 2, 2, 2, 6, 2, 2, 2}));
}

TEST(StatRecords, HandlesOwnTheirRecords) {
  WorkArea work;
  const double x[] = {1, 2, 4};
  VarStat a;
  a.Init(x, nullptr, nullptr, work, 3);
  VarStat b(a), d;
  std::unique_ptr<VarStat> c(a.Copy());
  d = a;
  const VarStat& self = d;
  d = self;
  a.Init(x, nullptr, nullptr, work, 1);
  for (const VarStat* copy : {&b, c.get(), &d})
    EXPECT_EQ(copy->Max(), 4.0);
  VarStat moved(std::move(b));
  EXPECT_EQ(moved.NRows(), 3);
  b = a;  // a moved-from handle takes a new record when assigned to
  EXPECT_EQ(b.NRows(), 1);

  PairStat p(new PairStatData{2, 2, 2, 1, 1, 0, 0, 0}), q;
  q = p;
  std::unique_ptr<PairStat> r(p.Copy());
  p.Data().nRows = 7;
  EXPECT_EQ(q.NRows() + r->NRows(), 4);
}

MatrixPairwise Accumulated(const Table& t, std::size_t begin, std::size_t end) {
  MatrixPairwise m(-99);
  DataBatch batch = MakeBatch(t, begin, end);
  m += batch;
  return m;
}

TEST(MatrixPairwise, NewMatrixAndPreconditions) {
  MatrixPairwise m(-99);
  EXPECT_VOREL_ASSERT(m.Var(0), "col < NColumns()", kPairwise);
  const Table wide{{{1, 2, 3}}};
  DataBatch batch = MakeBatch(Table{{{1, 2}}}, 0, 1), wideBatch = MakeBatch(wide, 0, 1);
  m += batch;
  EXPECT_VOREL_ASSERT(m.Pair(2, 0), "row < NColumns()", kPairwise);
  EXPECT_VOREL_ASSERT(m.Pair(0, 2), "col < NColumns()", kPairwise);
  EXPECT_VOREL_ASSERT(m.Pair(1, 1), "row != col", kPairwise);
  EXPECT_VOREL_ASSERT(m += wideBatch, "_varStats.size() == nCols", kPairwise);
  EXPECT_VOREL_ASSERT(m += Accumulated(wide, 0, 1), "_varStats.size() == d._varStats.size()",
                      kPairwise);
  // (n - 1) n must fit 32 bits: 65,537 columns do not.
  MatrixPairwise fresh(-99);
  DataBatch tooWide = MakeBatch(Table{{Values(65537, 1.0)}}, 0, 1);
  ExpectVectorTooLong([&] { fresh += tooWide; });
  EXPECT_EQ(fresh.NColumns(), 0u);
}

TEST(MatrixPairwise, WorkedExamplesAndDeletionRules) {
  const MatrixPairwise w = Accumulated(Table{{{2}, {4}}, {1, 3}, {2, 1}}, 0, 2);
  const Values fields = VarFields(w.Var(0));
  EXPECT_EQ(Values(fields.begin(), fields.begin() + 3), (Values{2, 4, 5}));
  EXPECT_NEAR(w.Var(0).Mean(), 3.2, 2 * kEps * 3.2);
  EXPECT_NEAR(w.Var(0).CSS(), 4.8, 4 * kEps * 4.8);

  // Column 1 missing throughout until the last row; row 2 missing everywhere.
  const Table d{{{1, -99, 5}, {3, -99, 6}, {-99, -99, -99}, {5, -99, 7}, {-99, 2, 2}}};
  MatrixPairwise m = Accumulated(d, 0, 4);
  const VarStats gone = m.Var(1);
  EXPECT_EQ(VarFields(gone), Values(5, 0.0));
  DataBatch batch = MakeBatch(d, 4, 5);
  m += batch;
  EXPECT_EQ(gone.NRows(), 1u);  // a view shows what later batches add
  for (int i = 0; i < 32; ++i)
    m += m;  // counts go on beyond 32 bits, everywhere
  EXPECT_EQ(m.NRows(), std::uint64_t{5} << 32);
  EXPECT_EQ(m.Var(0).NRows(), std::uint64_t{3} << 32);
  EXPECT_EQ(m.Pair(1, 2).NRows(), std::uint64_t{1} << 32);
}

TEST(MatrixPairwise, ZeroWeightRules) {
  // All weights 0: rows counted, Var barred; a non-constant column's css is
  // NaN until weight arrives, a constant one keeps css 0.
  const Table z{{{1, 3}, {2, 3}, {1, 3}}, {0, 0, 1}};
  MatrixPairwise zero = Accumulated(z, 0, 2);
  EXPECT_EQ(zero.NRows(), 2u);
  EXPECT_VOREL_ASSERT(zero.Pair(1, 0), "0. < WeightSum()", kPairwise);
  DataBatch last = MakeBatch(z, 2, 3);
  zero += last;
  EXPECT_EQ(zero.Var(0).Mean(), 1.0);
  EXPECT_TRUE(std::isnan(zero.Var(0).CSS()));
  EXPECT_EQ(VarFields(zero.Var(1)), (Values{3, 1, 1, 3, 0}));
  // A merged matrix is tested on its frequency weights, whatever its combined
  // weights total.
  const Table rw{{{5}, {1}, {2}}, {1, 1, -1}, {1, 1, 2}};
  MatrixPairwise withRw = Accumulated(rw, 0, 1);
  withRw += Accumulated(rw, 1, 3);
  EXPECT_EQ(withRw.NRows(), 1u);
}

TEST(SMatrixPairwise, BoundsPairsAndPreconditions) {
  SMatrixPairwise m(-1.0), s(-1.0, 1, 4), wider(-1.0, 0, 4), backwards(-1.0, 3, 1);
  DataBatch five = MakeBatch(Table{{{0, 1, 2, 3, 4}, {1, 2, 3, 4, 5}}}, 0, 2);
  for (SMatrixPairwise* target : {&m, &s, &wider})
    *target += five;
  EXPECT_EQ(m.Col1(), 0);
  EXPECT_EQ(m.Col2(), 5);
  // The later column is the pair's first variable, in either order.
  EXPECT_EQ(&m.Pair(3, 1), &m.Pair(1, 3));
  EXPECT_EQ(m.Pair(3, 1).Mean0(), 3.5);
  EXPECT_VOREL_ASSERT(s.Var(4), "col < Col2() && col >= Col0()", kS);
  EXPECT_VOREL_ASSERT(s.Var(0), "col < Col2() && col >= Col0()", kS);
  EXPECT_VOREL_ASSERT(s.Pair(0, 2), "row < _my->_col2 && row >= _my->_col0", kS);
  EXPECT_VOREL_ASSERT(s.Pair(2, 4), "col < _my->_col2 && col >= _my->_col0", kS);
  EXPECT_VOREL_ASSERT(s.Pair(3, 3), "row != col", kS);
  EXPECT_VOREL_ASSERT(s += wider, "_varStats.size() == d._varStats.size()", kS);
  ExpectVectorTooLong([&] { backwards += five; });  // a block of negative size
  EXPECT_EQ(backwards.NColumns(), 0);
  SMatrixPairwise one(-1.0, 1, 2);  // a block of one column
  one += five;
  EXPECT_EQ(one.NColumns(), 1);
}

TEST(NSMatrixPairwise, WorkedRectangleAndPreconditions) {
  NSMatrixPairwise m(-1.0, 1, 3, 6);
  Table t;  // cell (r, c) is 10 c + r; column 4 is missing in row 0
  for (double r = 0; r < 3; ++r)
    t.rows.push_back({r, 10 + r, 20 + r, 30 + r, r == 0 ? -1 : 40 + r, 50 + r});
  DataBatch batch = MakeBatch(t, 0, 3);
  m += batch;
  EXPECT_EQ(m.Var(5).Mean(), 51.0);
  // The first set's column is the pair's first variable, in either order.
  EXPECT_EQ(&m.Pair(4, 2), &m.Pair(2, 4));
  EXPECT_EQ(PairFields(m.Pair(4, 2)), (Values{2, 2, 2, 21.5, 41.5, 0.5, 0.5, 0.5}));

  EXPECT_VOREL_ASSERT(m.Var(0), "col < Col2() && col >= Col0()", kNS);
  EXPECT_VOREL_ASSERT(m.Pair(2, 2), "row != col", kNS);
  EXPECT_VOREL_ASSERT(m.Pair(6, 2), "row < _my->_col2 && row >= _my->_col0", kNS);
  EXPECT_VOREL_ASSERT(m.Pair(2, 0), "col < _my->_col2 && col >= _my->_col0", kNS);
  // Two columns of one set have no record.
  EXPECT_VOREL_ASSERT(m.Pair(3, 4), "lo < _my->_col1 && hi >= _my->_col1", kNS);
  EXPECT_VOREL_ASSERT(m.Pair(2, 1), "lo < _my->_col1 && hi >= _my->_col1", kNS);
  NSMatrixPairwise narrower(-1.0, 1, 3, 5);
  narrower += batch;
  EXPECT_VOREL_ASSERT(m += narrower, "_varStats.size() == d._varStats.size()", kNS);
}

// Each matrix over three columns, its reference and its source.
template <class M>
struct Kind {
  static constexpr bool kIsNS = std::is_same_v<M, NSMatrixPairwise>;
  static constexpr const char* kSource =
      std::is_same_v<M, MatrixPairwise> ? kPairwise : (kIsNS ? kNS : kS);
  static M Make(double code) {
    if constexpr (kIsNS)
      return M(code, 0, 1, 3);
    else
      return M(code);
  }
  static RefBlock Ref(double code) { return kIsNS ? NSBlock(code, 0, 1, 3) : SBlock(code, 0, 3); }
};

template <class M>
class PairwiseMatrices : public ::testing::Test {};
using PairwiseTypes = ::testing::Types<MatrixPairwise, SMatrixPairwise, NSMatrixPairwise>;
TYPED_TEST_SUITE(PairwiseMatrices, PairwiseTypes);

// A batch without rows changes nothing. Regression weights must be in every
// batch and merge or none.
TYPED_TEST(PairwiseMatrices, EmptyBatchesAndRegressionWeights) {
  using K = Kind<TypeParam>;
  TypeParam m = K::Make(-99), rw = K::Make(-99);
  DataBatch empty(3, 1, nullptr, nullptr, nullptr);
  m += empty;
  EXPECT_EQ(m.NColumns(), 0);
  DataBatch plain = MakeBatch(Table{{{1, 4, -99}}}, 0, 1);
  DataBatch weighted = MakeBatch(Table{{Values(3, 1.0)}, {}, {2.0}}, 0, 1);
  m += plain;
  rw += weighted;
  EXPECT_VOREL_ASSERT(m += weighted, "_hasRegWeights == data.HasRegWeights()", K::kSource);
  EXPECT_VOREL_ASSERT(m += rw, "_hasRegWeights == d._hasRegWeights", K::kSource);
}

// A matrix whose weights total 0 is ignored by a filled matrix, rows and all,
// but copied whole by an empty one.
TYPED_TEST(PairwiseMatrices, ZeroWeightMerges) {
  using K = Kind<TypeParam>;
  const Table t{{{1, 8, 5}, {2, 3, 5}, {4, -1, 0}, {1, 2, 3}, {3, 3, 6}}, {1, 2, 1, 0, 0}};
  DataBatch batch = MakeBatch(t, 0, 3), zero = MakeBatch(t, 3, 5);
  TypeParam m = K::Make(-1), zeroSum = K::Make(-1), empty = K::Make(7);
  RefBlock ref = K::Ref(-1), zeroRef = K::Ref(-1);
  m += batch;
  zeroSum += zero;
  ref.Add(batch);
  zeroRef.Add(zero);
  EXPECT_VOREL_ASSERT(zeroSum.Var(0), "0. < WeightSum()", K::kSource);
  m += zeroSum;
  ref.Merge(zeroRef);
  ExpectSameBlock(m, ref);
  empty += zeroSum;
  ExpectSameBlock(empty, zeroRef);
  EXPECT_EQ(empty.MissingCode(), -1.0);
}

// Batches of 7 rows into two matrices, one merged into the other, against the
// reference, for every weighting and a NaN code: a row missing everywhere,
// column 1 missing in whole batches, a NaN cell, a zero and a negative weight.
// The whole-table matrix agrees with one batch of all rows up to rounding (the
// column with the NaN aside); added to itself, a matrix doubles every sum and
// count and keeps its means.
TYPED_TEST(PairwiseMatrices, MergesMatchTheReference) {
  using K = Kind<TypeParam>;
  for (int weighting = 0; weighting < 4; ++weighting) {
    for (const double code : {kCode, kNaN}) {
      SCOPED_TRACE(::testing::Message() << "weighting " << weighting << ", code " << code);
      Table t = RandomTable(20240611 + weighting, 3, 60, weighting & 1, weighting & 2, 0.2);
      t.rows[2].assign(3, kCode);
      for (int r = 0; r < 14; ++r)
        t.rows[r][1] = kCode;
      t.rows[17][2] = kNaN;
      if (!t.w.empty()) {
        t.w[6] = 0.0;
        t.w[11] = -1.5;
      }
      TypeParam first = K::Make(code), second = K::Make(code);
      RefBlock a = K::Ref(code), b = K::Ref(code);
      std::size_t i = 0;
      for (DataBatch& batch : Split(t, 7)) {
        (i < 4 ? first : second) += batch;
        (i++ < 4 ? a : b).Add(batch);
      }
      first += second;
      a.Merge(b);
      ExpectSameBlock(first, a);
      if constexpr (std::is_same_v<TypeParam, MatrixPairwise>) {
        MatrixPairwise one(code);
        DataBatch all = MakeBatch(t, 0, t.rows.size());
        one += all;
        EXPECT_EQ(one.NRows(), first.NRows());
        const double rounding = 64 * 60 * kEps;
        for (unsigned c = 0; c < 2; ++c) {
          EXPECT_NEAR(first.Var(c).Mean(), one.Var(c).Mean(), rounding) << c;
          EXPECT_NEAR(first.Var(c).CSS(), one.Var(c).CSS(), rounding * one.Var(c).CSS()) << c;
        }
        const PairStats p = one.Pair(1, 0), q = first.Pair(0, 1);
        EXPECT_NEAR(q.CSCP(), p.CSCP(), rounding * std::sqrt(p.CSS0() * p.CSS1()));
      }
      first += first;
      a.Merge(RefBlock(a));
      ExpectSameBlock(first, a);
    }
  }
}

// Rows of p cells of many magnitudes with signed zeros, subnormals and
// leading runs (column c starts with c % 4 equal cells), with weights (one
// row in 37 weighs 0) and regression weights.
Table WideRows(int p, std::size_t n, unsigned seed) {
  Table t = RandomTable(seed, static_cast<unsigned>(p), n, true, true);
  std::mt19937_64 rng(seed);
  std::uniform_int_distribution<int> kind(0, 99), scale(-12, 12);
  for (std::size_t i = 0; i < n; ++i) {
    for (int c = 0; c < p; ++c) {
      const int k = kind(rng);
      double& x = t.rows[i][c];
      x = i < static_cast<std::size_t>(c % 4) ? 1.75
          : k < 2                             ? (k == 0 ? -0.0 : 3e-312)
                                              : std::ldexp(x, scale(rng)) + 0.5 * c;
    }
    if (i % 37 == 5) t.w[i] = 0.0;
  }
  return t;
}

class WideBlocks : public testing::AtEveryKernelLevel {};

// The classes take complete columns and pairs from the blocked pass and the
// others from the masked pass over all pairs or, when only a few pairs have
// missing cells (one column, in the larger set of a lopsided block), from
// their own reduction; every way the records are the reference's, bit for
// bit, past the narrow kernel's eight columns and the tile edges, over
// several chunks of rows. Column c has missing cells when c % 3 == 1 (at row
// 0, at the last row, at one row inside or a run in the middle), or with
// `few` only one column has some: the last, the first variable of each of
// its pairs, or the first, the second variable of each of its pairs.
TEST_P(WideBlocks, EveryPathMatchesThePerPairReference) {
  for (int p : {5, 14, 27}) {
    for (int variant = 0; variant < 4; ++variant) {
      const bool regWeights = variant % 2 == 1, few = variant >= 2;
      const int n = 517;
      SCOPED_TRACE(::testing::Message() << "seed " << p + 200 << ", p " << p
                                        << (regWeights ? ", regression weights" : "")
                                        << (few ? ", one column with missing cells" : ""));
      Table t = WideRows(p, n, static_cast<unsigned>(p + 200));
      if (!regWeights) t.rw.clear();
      const int fewColumn = regWeights ? 0 : p - 1;
      for (int c = few ? fewColumn : 1; c < p; c += few ? p : 3)
        for (int i = 0; i < n; ++i)
          if (c % 4 == 0   ? i == 0
              : c % 4 == 1 ? i == n - 1
              : c % 4 == 2 ? i == 200 + c % 8
                           : i >= n / 3 && i < n / 3 + 9)
            t.rows[i][c] = kCode;
      DataBatch batch = MakeBatch(t, 0, t.rows.size());
      // Lopsided sets, the column with missing cells in the larger: so few
      // pairs have missing cells that they take the per-pair path.
      const int split = fewColumn == 0 ? p - 2 : 2;
      MatrixPairwise m(kCode);
      SMatrixPairwise s(kCode, 1, p);
      NSMatrixPairwise ns(kCode, 0, p / 2, p), lopsided(kCode, 0, split, p);
      RefBlock refM = SBlock(kCode, 0, p), refS = SBlock(kCode, 1, p),
               refNS = NSBlock(kCode, 0, p / 2, p), refLopsided = NSBlock(kCode, 0, split, p);
      m += batch;
      s += batch;
      ns += batch;
      lopsided += batch;
      for (RefBlock* ref : {&refM, &refS, &refNS, &refLopsided})
        ref->Add(batch);
      ExpectSameBlock(m, refM);
      ExpectSameBlock(s, refS);
      ExpectSameBlock(ns, refNS);
      ExpectSameBlock(lopsided, refLopsided);
    }
  }
}

VOREL_AT_EVERY_KERNEL_LEVEL(WideBlocks);

}  // namespace
}  // namespace vorel
