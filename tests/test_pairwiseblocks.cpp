// SMatrixPairwise and NSMatrixPairwise on hand-worked cases, and all three
// pairwise matrices against the plain-loop reference, bit for bit: merges and
// copies, and passes through Driver.
#include <vorel/databatch.h>
#include <vorel/initialextremes.h>
#include <vorel/matrixpairwise.h>
#include <vorel/nsmatrixpairwise.h>
#include <vorel/smatrixpairwise.h>

#include <limits>
#include <tuple>
#include <typeinfo>
#include <utility>
#include <vector>

#include "pairwise_reference.h"
#include "table_support.h"
#include "test_support.h"

namespace vorel {
namespace {

using namespace testing::tables;
using namespace testing::pairwise;
using testing::SameBits;
using Values = std::vector<double>;
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr const char* kS = "backend/vorel/smatrixpairwise";
constexpr const char* kNS = "backend/vorel/nsmatrixpairwise";

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
  NSMatrixPairwise stranger(-1.0, 1, 2, 4);
  stranger += five;
  EXPECT_THROW(s += stranger, std::bad_cast);
  // A block of one column has no pairs.
  SMatrixPairwise one(-1.0, 1, 2);
  one += five;
  EXPECT_EQ(one.NColumns(), 1);
  EXPECT_VOREL_ASSERT(one.Pair(1, 2), "col < _my->_col2 && col >= _my->_col0", kS);
}

TEST(NSMatrixPairwise, WorkedRectangleAndPreconditions) {
  NSMatrixPairwise m(-1.0, 1, 3, 6);
  Table t;  // cell (r, c) is 10 c + r; column 4 is missing in row 0
  for (double r = 0; r < 3; ++r)
    t.rows.push_back({r, 10 + r, 20 + r, 30 + r, r == 0 ? -1 : 40 + r, 50 + r});
  DataBatch batch = MakeBatch(t, 0, 3);
  m += batch;
  EXPECT_EQ(m.NColumns(), 5);
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

// Each matrix over three columns, and its reference.
template <class M>
struct Kind;
template <>
struct Kind<MatrixPairwise> {
  static constexpr const char* kSource = "backend/vorel/matrixpairwise";
  static MatrixPairwise Make(double code) { return MatrixPairwise(code); }
  static RefBlock Ref(double code) { return SBlock(code, 0, 3); }
};
template <>
struct Kind<SMatrixPairwise> {
  static constexpr const char* kSource = kS;
  static SMatrixPairwise Make(double code) { return SMatrixPairwise(code); }
  static RefBlock Ref(double code) { return SBlock(code, 0, 3); }
};
template <>
struct Kind<NSMatrixPairwise> {
  static constexpr const char* kSource = kNS;
  static NSMatrixPairwise Make(double code) { return NSMatrixPairwise(code, 0, 1, 3); }
  static RefBlock Ref(double code) { return NSBlock(code, 0, 1, 3); }
};

template <class M>
class PairwiseMatrices : public ::testing::Test {};
using PairwiseTypes = ::testing::Types<MatrixPairwise, SMatrixPairwise, NSMatrixPairwise>;
TYPED_TEST_SUITE(PairwiseMatrices, PairwiseTypes);

// A batch without rows changes nothing; columns missing throughout keep the
// empty record. Regression weights must be in every batch and merge or none.
TYPED_TEST(PairwiseMatrices, WorkedTableAndRegressionWeights) {
  using K = Kind<TypeParam>;
  TypeParam m = K::Make(-99), rw = K::Make(-99), rwOther = K::Make(-99);
  DataBatch empty(3, 1, nullptr, nullptr, nullptr);
  m += empty;
  EXPECT_EQ(m.NColumns(), 0);
  DataBatch batch = MakeBatch(Table{{{1, 4, -99}, {2, -99, -99}, {-99, 8, -99}}}, 0, 3);
  m += batch;
  EXPECT_EQ(m.WeightSum(), 3.0);
  EXPECT_EQ(m.RegWeightSum(), 3.0);
  EXPECT_PRED2(SameFields, VarFields(m.Var(0)), (Values{2, 2, 2, 1.5, 0.5, 1, 2}));
  EXPECT_PRED2(SameFields, VarFields(m.Var(1)), (Values{2, 2, 2, 6, 8, 4, 8}));
  EXPECT_PRED2(SameFields, VarFields(m.Var(2)), (Values{0, 0, 0, 0, 0, MinInitial, MaxInitial}));
  EXPECT_EQ(PairFields(m.Pair(0, 2)), Values(8, 0.0));
  // Batches of 3 rows with regression weight 2 and no weights: 3 and 6 each.
  const Table ones{{Values(3, 1.0), Values(3, 2.0), Values(3, 6.0)}, {}, Values(3, 2.0)};
  for (TypeParam* target : {&rw, &rw, &rwOther}) {
    DataBatch b = MakeBatch(ones, 0, 3);
    *target += b;
  }
  EXPECT_EQ(rw.WeightSum(), 6.0);
  EXPECT_EQ(rw.RegWeightSum(), 12.0);
  rw += rwOther;
  EXPECT_PRED2(SameFields, VarFields(rw.Var(1)), (Values{9, 9, 18, 3, 84, 1, 6}));
  DataBatch weighted = MakeBatch(ones, 0, 1);
  EXPECT_VOREL_ASSERT(m += weighted, "_hasRegWeights == data.HasRegWeights()", K::kSource);
  EXPECT_VOREL_ASSERT(m += rw, "_hasRegWeights == d._hasRegWeights", K::kSource);
}

// A matrix whose weights total 0 is ignored by a filled matrix, rows and all,
// but copied whole by an empty one. Copies are deep; moves hand over.
TYPED_TEST(PairwiseMatrices, ZeroWeightMergesCopiesAndMoves) {
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

  TypeParam copy(m), assigned = K::Make(-1), adopted = K::Make(-1);
  assigned = m;
  adopted += m;
  const TypeParam& alias = assigned;
  assigned = alias;
  RefBlock twice = ref;
  twice.Add(batch);
  for (TypeParam* c : {&copy, &assigned, &adopted}) {
    *c += batch;
    ExpectSameBlock(*c, twice);
  }
  ExpectSameBlock(m, ref);
  TypeParam moved(std::move(m));
  assigned = std::move(moved);
  ExpectSameBlock(assigned, ref);
  moved = copy;  // a moved-from matrix takes an assignment
  ExpectSameBlock(moved, twice);
}

// threads, weighting (bit 0 weights, bit 1 regression weights), rows per batch, missing code
using Schedule = std::tuple<int, int, unsigned, double>;
class PairwiseBlocksThreaded : public ::testing::TestWithParam<Schedule> {};

// Whatever batches each worker takes and in whatever order the workers merge,
// the shared matrices equal a replay of exactly that in the reference. The
// workers' S matrices have no bounds and take [0, 7) from their first batch;
// the shared one has [1, 6) until the first merge copies a worker's whole.
TEST_P(PairwiseBlocksThreaded, DriverEqualsReplayOfItsSchedule) {
  const auto [nThreads, weighting, batchRows, code] = GetParam();
  // A row missing everywhere, column 3 missing in rows 0-8 (whole batches of
  // it, for small batches), a NaN, a zero and a negative weight.
  Table t = RandomTable(20240611, 7, 160, weighting & 1, weighting & 2, 0.2);
  t.rows[2].assign(7, kCode);
  for (int r = 0; r < 9; ++r)
    t.rows[r][3] = kCode;
  t.rows[17][5] = kNaN;
  if (!t.w.empty()) {
    t.w[6] = 0.0;
    t.w[11] = -1.5;
  }
  std::vector<DataBatch> batches = Split(t, batchRows);
  struct Matrices {
    MatrixPairwise whole;
    SMatrixPairwise s;
    NSMatrixPairwise ns;
  } shared{MatrixPairwise(code), SMatrixPairwise(code, 1, 6), NSMatrixPairwise(code, 0, 2, 7)};
  std::vector<std::vector<std::size_t>> merged;
  RunPass(
      nThreads, batches.size(),
      [&] {
        return Matrices{MatrixPairwise(code), SMatrixPairwise(code),
                        NSMatrixPairwise(code, 0, 2, 7)};
      },
      [&](Matrices& m, std::size_t i) {
        m.whole += batches[i];
        m.s += batches[i];
        m.ns += batches[i];
      },
      [&](Matrices& m, const std::vector<std::size_t>& taken) {
        shared.whole += m.whole;
        shared.s += m.s;
        shared.ns += m.ns;
        merged.push_back(taken);
      });

  RefBlock whole = SBlock(code, 0, 7), s = SBlock(code, 1, 6), ns = NSBlock(code, 0, 2, 7);
  for (const auto& taken : merged) {
    RefBlock w = SBlock(code, 0, 7), wns = NSBlock(code, 0, 2, 7);
    for (std::size_t i : taken) {
      w.Add(batches[i]);
      wns.Add(batches[i]);
    }
    whole.Merge(w);
    s.Merge(w);
    ns.Merge(wns);
  }
  EXPECT_EQ(shared.s.Col2(), 7);
  // Added to itself, a matrix doubles every sum and count and keeps its means.
  for (int round = 0; round < 2; ++round) {
    ExpectSameBlock(shared.whole, whole);
    ExpectSameBlock(shared.s, s);
    ExpectSameBlock(shared.ns, ns);
    shared.whole += shared.whole;
    shared.s += shared.s;
    shared.ns += shared.ns;
    for (RefBlock* ref : {&whole, &s, &ns})
      ref->Merge(RefBlock(*ref));
  }
  // The batches were only read.
  for (std::size_t r = 0; r < t.rows.size(); ++r)
    for (unsigned c = 0; c < 7; ++c)
      EXPECT_PRED2(SameBits, batches[r / batchRows].Column(c)[r % batchRows], t.rows[r][c]);
}

INSTANTIATE_TEST_SUITE_P(Schedules, PairwiseBlocksThreaded,
                         ::testing::Combine(::testing::Values(1, 2, 4, 8),
                                            ::testing::Values(0, 1, 2, 3),
                                            ::testing::Values(1u, 7u, 64u),
                                            ::testing::Values(kCode, kNaN)));

}  // namespace
}  // namespace vorel
