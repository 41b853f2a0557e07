#include <vorel/databatch.h>
#include <vorel/matrixpairwise.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <stdexcept>
#include <vector>

#include "pairwise_reference.h"
#include "test_support.h"
#include "wholetable_support.h"

namespace vorel {
namespace {

using testing::SameBits;
using testing::wholetable::Table;
constexpr const char* kSource = "backend/vorel/matrixpairwise";
constexpr double kEps = std::numeric_limits<double>::epsilon();
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

MatrixPairwise Accumulated(const Table& t, double code, std::size_t begin, std::size_t end) {
  MatrixPairwise m(code);
  DataBatch batch = t.Batch(begin, end);
  m += batch;
  return m;
}

TEST(MatrixPairwise, NewMatrixAndPreconditions) {
  MatrixPairwise m(-99);
  EXPECT_EQ(m.NColumns(), 0u);
  EXPECT_EQ(m.NRows(), 0u);
  EXPECT_EQ(m.WeightSum(), 0.0);
  EXPECT_EQ(m.RegWeightSum(), 0.0);
  EXPECT_FALSE(m.HasRegWeights());
  EXPECT_EQ(m.MissingCode(), -99.0);
  EXPECT_VOREL_ASSERT(m.Var(0), "col < NColumns()", kSource);

  Table t(2, false, false), wide(3, false, false), withRw(2, false, true);
  t.AddRow({1, 2});
  wide.AddRow({1, 2, 3});
  withRw.AddRow({1, 2});
  DataBatch batch = t.Batch(0, 1), wideBatch = wide.Batch(0, 1), rwBatch = withRw.Batch(0, 1);
  m += batch;
  EXPECT_VOREL_ASSERT(m.Pair(2, 0), "row < NColumns()", kSource);
  EXPECT_VOREL_ASSERT(m.Pair(0, 2), "col < NColumns()", kSource);
  EXPECT_VOREL_ASSERT(m.Pair(1, 1), "row != col", kSource);
  EXPECT_VOREL_ASSERT(m += rwBatch, "_hasRegWeights == data.HasRegWeights()", kSource);
  EXPECT_VOREL_ASSERT(m += wideBatch, "_varStats.size() == nCols", kSource);
  const MatrixPairwise wider = Accumulated(wide, -99, 0, 1);
  const MatrixPairwise regWeighted = Accumulated(withRw, -99, 0, 1);
  EXPECT_VOREL_ASSERT(m += wider, "_varStats.size() == d._varStats.size()", kSource);
  EXPECT_VOREL_ASSERT(m += regWeighted, "_hasRegWeights == d._hasRegWeights", kSource);

  Table zero(2, true, false);
  zero.AddRow({1, 2}, 0);
  const MatrixPairwise barred = Accumulated(zero, -99, 0, 1);
  EXPECT_VOREL_ASSERT(barred.Var(0), "0. < WeightSum()", kSource);
  EXPECT_VOREL_ASSERT(barred.Pair(0, 1), "0. < WeightSum()", kSource);
}

TEST(MatrixPairwise, MissingCodeTable) {
  Table t(2, false, false);
  t.AddRow({1, 4});
  t.AddRow({2, -99});
  t.AddRow({-99, 8});
  const MatrixPairwise m = Accumulated(t, -99, 0, 3);
  EXPECT_EQ(m.NRows(), 3u);
  EXPECT_EQ(m.WeightSum(), 3.0);
  EXPECT_EQ(m.Var(0).NRows(), 2u);
  EXPECT_EQ(m.Var(0).Mean(), 1.5);
  EXPECT_EQ(m.Var(0).CSS(), 0.5);
  EXPECT_EQ(m.Var(1).NRows(), 2u);
  EXPECT_EQ(m.Var(1).Mean(), 6.0);
  EXPECT_EQ(m.Var(1).CSS(), 8.0);
  for (const PairStats p : {m.Pair(0, 1), m.Pair(1, 0)}) {
    EXPECT_EQ(p.NRows(), 1u);
    EXPECT_EQ(p.WeightSum(), 1.0);
    EXPECT_EQ(p.Mean0(), 4.0);  // column 0 of a pair is the higher column
    EXPECT_EQ(p.Mean1(), 1.0);
    EXPECT_EQ(p.CSS0(), 0.0);
    EXPECT_EQ(p.CSS1(), 0.0);
    EXPECT_EQ(p.CSCP(), 0.0);
  }
  // A NaN code compares equal to nothing: every cell counts.
  const MatrixPairwise all = Accumulated(t, kNaN, 0, 3);
  EXPECT_EQ(all.Pair(1, 0).NRows(), 3u);
  EXPECT_TRUE(std::isnan(all.MissingCode()));
}

TEST(MatrixPairwise, WeightedExamples) {
  Table t(1, true, true);
  t.AddRow({2}, 1, 2);
  t.AddRow({4}, 3, 1);
  const MatrixPairwise m = Accumulated(t, -99, 0, 2);
  EXPECT_EQ(m.WeightSum(), 4.0);
  EXPECT_EQ(m.RegWeightSum(), 5.0);
  EXPECT_TRUE(m.HasRegWeights());
  const VarStats v = m.Var(0);
  EXPECT_EQ(v.NRows(), 2u);
  EXPECT_EQ(v.WeightSum(), 4.0);
  EXPECT_EQ(v.RegWeightSum(), 5.0);
  EXPECT_NEAR(v.Mean(), 3.2, 2 * kEps * 3.2);
  EXPECT_NEAR(v.CSS(), 4.8, 4 * kEps * 4.8);

  Table r(1, false, true);
  for (double x : {1, 2, 3, 4, 5, 6})
    r.AddRow({x}, 1, 2);
  MatrixPairwise m2(-99);
  for (std::size_t begin : {0, 3}) {
    DataBatch batch = r.Batch(begin, begin + 3);
    m2 += batch;
    EXPECT_EQ(m2.RegWeightSum(), 2.0 * static_cast<double>(begin + 3));
  }
  EXPECT_EQ(m2.WeightSum(), 6.0);
  EXPECT_EQ(m2.Var(0).Mean(), 3.5);
}

TEST(MatrixPairwise, DeletionRules) {
  // Column 1 missing throughout; row 2 missing everywhere; a NaN cell in column 2.
  Table t(3, true, false);
  t.AddRow({1, -99, 5}, 1);
  t.AddRow({3, -99, kNaN}, 1);
  t.AddRow({-99, -99, -99}, 4);
  t.AddRow({5, -99, 7}, 2);
  MatrixPairwise m = Accumulated(t, -99, 0, 4);
  EXPECT_EQ(m.NRows(), 4u);
  EXPECT_EQ(m.WeightSum(), 8.0);
  EXPECT_EQ(m.RegWeightSum(), 8.0);
  EXPECT_EQ(m.Var(0).NRows(), 3u);
  EXPECT_EQ(m.Var(0).WeightSum(), 4.0);
  EXPECT_EQ(m.Var(0).Mean(), 3.5);
  const VarStats gone = m.Var(1);
  EXPECT_EQ(gone.NRows(), 0u);
  EXPECT_EQ(gone.WeightSum(), 0.0);
  EXPECT_EQ(gone.RegWeightSum(), 0.0);
  EXPECT_EQ(gone.Mean(), 0.0);
  EXPECT_EQ(gone.CSS(), 0.0);
  EXPECT_EQ(m.Pair(1, 0).NRows(), 0u);
  EXPECT_EQ(m.Var(2).NRows(), 3u);
  EXPECT_TRUE(std::isnan(m.Var(2).Mean()));
  // In the pair with the NaN column only that column's figures and CSCP are lost.
  const PairStats p = m.Pair(0, 2);
  EXPECT_EQ(p.NRows(), 3u);
  EXPECT_TRUE(std::isnan(p.Mean0()));
  EXPECT_TRUE(std::isnan(p.CSCP()));
  EXPECT_EQ(p.Mean1(), 3.5);
  EXPECT_EQ(p.CSS1(), 11.0);

  // A batch in which a column is missing throughout leaves its records alone.
  const double css = m.Var(0).CSS();
  Table more(3, true, false);
  more.AddRow({-99, 2, 2}, 1);
  DataBatch batch = more.Batch(0, 1);
  m += batch;
  EXPECT_EQ(m.NRows(), 5u);
  EXPECT_EQ(m.Var(0).NRows(), 3u);
  EXPECT_EQ(m.Var(0).CSS(), css);
  EXPECT_EQ(m.Pair(0, 2).NRows(), 3u);
  EXPECT_EQ(gone.NRows(), 1u);  // a view shows what later batches add
  EXPECT_EQ(m.Pair(2, 1).NRows(), 1u);
}

TEST(MatrixPairwise, ZeroWeightBatchesAndMatrices) {
  // All weights 0: rows counted, Var barred; a non-constant column's css is NaN
  // and its mean stays 0 until weight arrives, a constant one keeps css 0.
  Table t(2, true, false);
  t.AddRow({1, 3}, 0);
  t.AddRow({2, 3}, 0);
  t.AddRow({1, 3}, 1);
  MatrixPairwise m = Accumulated(t, -99, 0, 2);
  EXPECT_EQ(m.NRows(), 2u);
  EXPECT_EQ(m.WeightSum(), 0.0);
  MatrixPairwise copy(-1);
  copy += m;  // copied into an empty matrix like any other
  EXPECT_EQ(copy.NRows(), 2u);
  EXPECT_EQ(copy.MissingCode(), -99.0);

  DataBatch batch = t.Batch(0, 2);
  t.Fill(batch, 2, 3);
  m += batch;
  EXPECT_EQ(m.Var(0).Mean(), 1.0);
  EXPECT_TRUE(std::isnan(m.Var(0).CSS()));
  EXPECT_EQ(m.Var(1).Mean(), 3.0);
  EXPECT_EQ(m.Var(1).CSS(), 0.0);

  // A matrix with rows and weights totalling exactly 0 changes a filled one not at all.
  MatrixPairwise filled = Accumulated(t, -99, 2, 3);
  filled += copy;
  EXPECT_EQ(filled.NRows(), 1u);
  EXPECT_EQ(filled.Var(0).NRows(), 1u);
  // A batch of the same kind adds its rows to the table all the same.
  t.Fill(batch, 0, 2);
  filled += batch;
  EXPECT_EQ(filled.NRows(), 3u);
  EXPECT_EQ(filled.Var(1).NRows(), 3u);

  // The test is on the frequency weights, whatever the combined weights total.
  Table rw(1, true, true);
  rw.AddRow({5}, 1, 1);
  rw.AddRow({1}, 1, 1);
  rw.AddRow({2}, -1, 2);
  MatrixPairwise withRw = Accumulated(rw, -99, 0, 1);
  withRw += Accumulated(rw, -99, 1, 3);
  EXPECT_EQ(withRw.NRows(), 1u);
  EXPECT_EQ(withRw.Var(0).Mean(), 5.0);
}

TEST(MatrixPairwise, CopiesSelfAddAndPairOrder) {
  std::mt19937_64 rng(8);
  const Table t = testing::wholetable::RandomTable(rng, 4, 12, true, false);
  MatrixPairwise source = Accumulated(t, -99, 0, 6), copy(0);
  copy += source;
  MatrixPairwise constructed(source), assigned(5);
  assigned = source;
  assigned = assigned;
  source += Accumulated(t, -99, 6, 12);
  for (const MatrixPairwise* m : {&copy, &constructed, &assigned}) {
    EXPECT_EQ(m->NRows(), 6u);
    EXPECT_EQ(m->MissingCode(), -99.0);
    EXPECT_EQ(m->Pair(3, 1).NRows(), 6u);
  }
  // Pair(3, 1) and Pair(1, 3) are one record: column 3 first.
  const PairStats p = source.Pair(1, 3), q = source.Pair(3, 1);
  EXPECT_EQ(p.Mean0(), q.Mean0());
  EXPECT_NEAR(p.Mean0(), source.Var(3).Mean(), 1e-14);
  EXPECT_NEAR(p.Mean1(), source.Var(1).Mean(), 1e-14);

  const double cscp = copy.Pair(2, 0).CSCP(), mean = copy.Var(2).Mean();
  copy += copy;
  EXPECT_EQ(copy.NRows(), 12u);
  EXPECT_EQ(copy.Var(2).Mean(), mean);
  EXPECT_EQ(copy.Var(2).NRows(), 12u);
  EXPECT_EQ(copy.Pair(2, 0).CSCP(), 2 * cscp);
  EXPECT_EQ(copy.Pair(2, 0).RegWeightSum(), 2 * constructed.Pair(2, 0).RegWeightSum());

  MatrixPairwise moved(std::move(copy));
  copy = source;  // a moved-from matrix takes a new record
  EXPECT_EQ(copy.NRows(), 12u);
  // Row counts go on beyond 32 bits, in the table and in every record.
  for (int i = 0; i < 32; ++i)
    moved += moved;
  EXPECT_EQ(moved.NRows(), std::uint64_t{12} << 32);
  EXPECT_EQ(moved.Var(1).NRows(), std::uint64_t{12} << 32);
  EXPECT_EQ(moved.Pair(0, 1).NRows(), std::uint64_t{12} << 32);

  // One column: no pairs ever, batches and merges as usual.
  Table single(1, false, false);
  single.AddRow({2});
  MatrixPairwise one = Accumulated(single, -99, 0, 1);
  one += one;
  EXPECT_EQ(one.Var(0).NRows(), 2u);
  EXPECT_VOREL_ASSERT(one.Pair(0, 0), "row != col", kSource);
}

TEST(MatrixPairwise, TooManyColumnsForTheStore) {
  // (n - 1) n must fit 32 bits: 65,537 columns do not.
  DataBatch wide(65537, 1, nullptr, nullptr, nullptr);
  std::vector<double> row(65537, 1.0);
  wide.AddRow(row.data());
  MatrixPairwise m(-99);
  try {
    m += wide;
    ADD_FAILURE() << "no length_error";
  } catch (const std::length_error& e) {
    EXPECT_STREQ(e.what(), "vector<T> too long");
  }
  EXPECT_EQ(m.NColumns(), 0u);
}

// Random data with weights, regression weights, NaN cells and missing codes:
// every record of every batch and merge gives the bits of the written-out
// arithmetic, and the table sums those of plain row-order loops.
TEST(MatrixPairwise, BitsEqualWrittenOutArithmetic) {
  const unsigned seed = 9001;
  SCOPED_TRACE(seed);
  std::mt19937_64 rng(seed);
  const double code = -99;
  for (int pattern = 0; pattern < 4; ++pattern) {
    const bool hasW = pattern & 1, hasRw = pattern & 2;
    Table t(5, hasW, hasRw);
    std::uniform_real_distribution<double> cell(-2, 2), weight(0, 3);
    for (int r = 0; r < 50; ++r) {
      std::vector<double> cells(5);
      for (double& c : cells)
        c = rng() % 4 == 0 ? code : 100 + cell(rng);
      if (r == 31) cells[3] = kNaN;
      t.AddRow(cells, weight(rng), weight(rng));
    }
    // Two matrices of two batches each, the second merged into the first.
    MatrixPairwise m(code), other(code);
    std::vector<testing::RefVar> refVar(5), otherVar(5);
    std::vector<testing::RefPair> refPair(10), otherPair(10);
    double weightSum[2] = {0, 0}, regWeightSum[2] = {0, 0};
    const std::pair<int, int> splits[] = {{0, 17}, {17, 20}, {20, 41}, {41, 50}};
    for (auto [begin, end] : splits) {
      const bool first = begin < 20;
      DataBatch batch = t.Batch(begin, end);
      (first ? m : other) += batch;
      double batchWeight = 0, batchRegWeight = 0;
      for (int r = begin; r < end; ++r) {
        const double w = hasW ? t.Weights()[r] : 1.0;
        batchWeight += w;
        if (hasRw) batchRegWeight += w * t.RegWeights()[r];
      }
      double& ws = weightSum[first ? 0 : 1];
      double& rws = regWeightSum[first ? 0 : 1];
      ws += batchWeight;
      rws = hasRw ? rws + batchRegWeight : ws;
      for (unsigned c = 0, k = 0; c < 5; ++c) {
        const std::vector<double> xc = t.Column(c, begin, end);
        const int n = end - begin;
        const double* w = hasW ? t.Weights() + begin : nullptr;
        const double* rw = hasRw ? t.RegWeights() + begin : nullptr;
        testing::RefVarUpdate((first ? refVar : otherVar)[c],
                              testing::RefVarInit(xc.data(), w, rw, code, n));
        for (unsigned l = 0; l < c; ++l, ++k) {
          const std::vector<double> xl = t.Column(l, begin, end);
          testing::RefPairUpdate((first ? refPair : otherPair)[k],
                                 testing::RefPairInit(xc.data(), xl.data(), w, rw, code, n));
        }
      }
    }
    m += other;
    for (unsigned c = 0, k = 0; c < 5; ++c) {
      testing::RefVarUpdate(refVar[c], otherVar[c]);
      const VarStats v = m.Var(c);
      EXPECT_EQ(v.NRows(), refVar[c].nRows);
      EXPECT_TRUE(SameBits(v.WeightSum(), refVar[c].weightSum));
      EXPECT_TRUE(SameBits(v.RegWeightSum(), refVar[c].regWeightSum));
      EXPECT_TRUE(SameBits(v.Mean(), refVar[c].mean)) << c;
      EXPECT_TRUE(SameBits(v.CSS(), refVar[c].css)) << c;
      for (unsigned l = 0; l < c; ++l, ++k) {
        testing::RefPairUpdate(refPair[k], otherPair[k]);
        const PairStats p = m.Pair(l, c);
        const testing::RefPair& e = refPair[k];
        EXPECT_EQ(p.NRows(), e.nRows);
        EXPECT_TRUE(SameBits(p.RegWeightSum(), e.regWeightSum));
        EXPECT_TRUE(SameBits(p.Mean0(), e.mean0) && SameBits(p.Mean1(), e.mean1)) << c << l;
        EXPECT_TRUE(SameBits(p.CSS0(), e.css0) && SameBits(p.CSS1(), e.css1)) << c << l;
        EXPECT_TRUE(SameBits(p.CSCP(), e.cscp)) << c << l;
      }
    }
    EXPECT_EQ(m.NRows(), 50u);
    EXPECT_TRUE(SameBits(m.WeightSum(), weightSum[0] + weightSum[1]));
    EXPECT_TRUE(SameBits(m.RegWeightSum(), regWeightSum[0] + regWeightSum[1]));
  }
}

}  // namespace
}  // namespace vorel
