#include <vorel/databatch.h>
#include <vorel/matrixlistwise.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

#include "listwise_block_reference.h"
#include "table_support.h"
#include "test_support.h"

namespace vorel {
namespace {

using namespace testing::tables;
using testing::SameBits;
constexpr const char* kSource = "backend/vorel/matrixlistwise";
constexpr double kEps = std::numeric_limits<double>::epsilon();
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

TEST(MatrixListwise, NewMatrixAndPreconditions) {
  MatrixListwise m;
  EXPECT_EQ(m.NColumns(), 0u);
  EXPECT_EQ(m.NRows(), 0u);
  EXPECT_EQ(m.WeightSum(), 0.0);
  EXPECT_EQ(m.RegWeightSum(), 0.0);
  EXPECT_FALSE(m.HasRegWeights());
  EXPECT_VOREL_ASSERT(m.Mean(0), "col < NColumns()", kSource);
  EXPECT_VOREL_ASSERT(m.CCP(0, 0), "row < NColumns()", kSource);
  // Weights totalling 0: the figures exist but are barred.
  DataBatch batch = MakeBatch(Table{{{1, 2}, {3, 4}}, {1, -1}}, 0, 2);
  m += batch;
  EXPECT_EQ(m.NRows(), 2u);
  EXPECT_VOREL_ASSERT(m.Mean(1), "0. < WeightSum()", kSource);
  EXPECT_VOREL_ASSERT(m.CCP(0, 2), "col < NColumns()", kSource);
  EXPECT_VOREL_ASSERT(m.CCP(1, 0), "0. < WeightSum()", kSource);
  DataBatch wide = MakeBatch(Table{{{1, 2, 3}}}, 0, 1);
  DataBatch regWeighted = MakeBatch(Table{{{1, 2}}, {}, {1}}, 0, 1);
  EXPECT_VOREL_ASSERT(m += wide, "_means.size() == d._means.size()", kSource);
  EXPECT_VOREL_ASSERT(m += regWeighted, "_hasRegWeights == d._hasRegWeights", kSource);
  // (n + 1) n / 2 cells are indexed in 32 bits: 65,536 columns do not fit.
  MatrixListwise fresh;
  DataBatch tooWide = MakeBatch(Table{{std::vector<double>(65536, 1.0)}}, 0, 1);
  ExpectVectorTooLong([&] { fresh += tooWide; });
  EXPECT_EQ(fresh.NColumns(), 0u);
}

TEST(MatrixListwise, WorkedExamples) {
  const Table t{{{1}, {2}, {3}, {5}, {7}}};
  DataBatch first = MakeBatch(t, 0, 3), second = MakeBatch(t, 3, 5);
  MatrixListwise m;
  m += first;
  EXPECT_EQ(m.Mean(0), 2.0);
  EXPECT_EQ(m.CCP(0, 0), 2.0);
  m += second;
  // The decimal figures are rounded: 23.2 comes out one unit in the last place above.
  EXPECT_NEAR(m.CCP(0, 0), 23.2, 4 * kEps * 23.2);
  EXPECT_NEAR(m.Mean(0), 3.6, 4 * kEps * 3.6);
  EXPECT_EQ(m.WeightSum(), 5.0);
  EXPECT_EQ(m.RegWeightSum(), 5.0);
  EXPECT_EQ(m.NRows(), 5u);
  // Adding spends the batch: weights combined, regression weights as they
  // were, columns centred on the batch's means.
  DataBatch batch = MakeBatch(Table{{{1, 10}, {3, 10}}, {2, 3}, {0.5, 2}}, 0, 2);
  MatrixListwise w;
  w += batch;
  EXPECT_EQ(w.WeightSum(), 5.0);
  EXPECT_EQ(w.RegWeightSum(), 7.0);
  EXPECT_TRUE(w.HasRegWeights());
  EXPECT_EQ(std::vector<double>(batch.Weights(), batch.Weights() + 2), (std::vector<double>{1, 6}));
  EXPECT_EQ(batch.RegWeights()[1], 2.0);
  EXPECT_EQ(batch.Column(0)[0], 1.0 - w.Mean(0));
  EXPECT_EQ(batch.Column(1)[1], 0.0);
  EXPECT_EQ(w.Mean(1), 10.0);
  // A NaN cell makes its column's mean and every cross-product of it NaN.
  DataBatch withNaN = MakeBatch(Table{{{1, kNaN}, {2, 3}}}, 0, 2);
  MatrixListwise n;
  n += withNaN;
  EXPECT_TRUE(std::isnan(n.Mean(1)) && std::isnan(n.CCP(1, 0)) && std::isnan(n.CCP(1, 1)));
  EXPECT_EQ(n.CCP(0, 0), 0.5);
}

TEST(MatrixListwise, EmptyZeroWeightAndSelfInputs) {
  const Table t{{{5}, {1}, {7}, {9}, {1}, {3}}, {1, 2, -2, 1, 1, 1}, {1, 1, 2, -1, 1, 1}};
  DataBatch empty = MakeBatch(t, 0, 0), one = MakeBatch(t, 0, 1);
  MatrixListwise m, blank;
  m += empty;
  m += blank;
  EXPECT_EQ(m.NColumns(), 0u);
  EXPECT_FALSE(m.HasRegWeights());
  m += one;
  m += empty;
  m += blank;
  EXPECT_EQ(m.NRows(), 1u);
  EXPECT_EQ(m.CCP(0, 0), 0.0);
  // Frequency weights totalling exactly 0 are ignored by a filled matrix,
  // whatever the combined weights total, but counted as a first batch.
  DataBatch zero = MakeBatch(t, 1, 3), zeroAgain = MakeBatch(t, 1, 3);
  m += zero;
  EXPECT_EQ(m.NRows(), 1u);
  MatrixListwise fresh;
  fresh += zeroAgain;
  EXPECT_EQ(fresh.NRows(), 2u);
  // Combined weights cancelling across the two sides: the means stay this side's.
  DataBatch cancel = MakeBatch(t, 3, 4);
  m += cancel;
  EXPECT_EQ(m.RegWeightSum(), 0.0);
  EXPECT_EQ(m.Mean(0), 5.0);

  DataBatch rest = MakeBatch(t, 4, 6);
  MatrixListwise moved;
  moved += rest;   // 1, 3
  moved += moved;  // the sums double, the means stay
  EXPECT_EQ(moved.RegWeightSum(), 4.0);
  EXPECT_EQ(moved.Mean(0), 2.0);
  EXPECT_EQ(moved.CCP(0, 0), 4.0);
  for (int i = 0; i < 32; ++i)
    moved += moved;  // row counts go on beyond 32 bits
  EXPECT_EQ(moved.NRows(), std::uint64_t{4} << 32);
  EXPECT_EQ(moved.CCP(0, 0), 0x4p32);
}

// Values near 1e9 with spread near 1: the textbook formula loses every digit,
// the centred sums keep all but a few.
TEST(MatrixListwise, LargeOffsetKeepsAccuracy) {
  static_assert(std::numeric_limits<long double>::digits >= 64, "needs an extended oracle");
  const Table t = RandomTable(4242, 2, 1000, true, false, 0.0, 1e9);
  MatrixListwise m;
  for (DataBatch& batch : Split(t, 100))
    m += batch;
  long double total = 0, sum0 = 0, sum1 = 0, css = 0, cp = 0;
  double rawSum = 0, rawSq = 0;
  for (std::size_t i = 0; i < 1000; ++i) {
    total += static_cast<long double>(t.w[i]);
    sum0 += static_cast<long double>(t.w[i]) * static_cast<long double>(t.rows[i][0]);
    sum1 += static_cast<long double>(t.w[i]) * static_cast<long double>(t.rows[i][1]);
    rawSum += t.w[i] * t.rows[i][0];
    rawSq += t.w[i] * t.rows[i][0] * t.rows[i][0];
  }
  const long double mean0 = sum0 / total, mean1 = sum1 / total;
  for (std::size_t i = 0; i < 1000; ++i) {
    const auto w = static_cast<long double>(t.w[i]);
    const auto x0 = static_cast<long double>(t.rows[i][0]);
    const auto x1 = static_cast<long double>(t.rows[i][1]);
    css += w * (x0 - mean0) * (x0 - mean0);
    cp += w * (x0 - mean0) * (x1 - mean1);
  }
  const double textbook = rawSq - rawSum * rawSum / static_cast<double>(total);
  EXPECT_GT(std::fabs(textbook - static_cast<double>(css)), static_cast<double>(css));
  // Each merge moves means near 1e9, exact to a unit in their last place; the
  // between-means terms scale that by about sqrt(CSS x weight).
  const double tolerance = std::sqrt(static_cast<double>(css * total)) * kEps * 1e9;
  EXPECT_LT(tolerance, 1e-6 * static_cast<double>(css));
  EXPECT_NEAR(m.CCP(0, 0), static_cast<double>(css), tolerance);
  EXPECT_NEAR(m.CCP(1, 0), static_cast<double>(cp), tolerance);
  EXPECT_NEAR(m.Mean(0), static_cast<double>(mean0), 4 * kEps * 1e9);
}

// Batches of 7 rows dealt in turn to three matrices, then merged: the bits of
// the written-out arithmetic doing the same, for every weighting. The merge
// agrees with one batch of all rows up to rounding, and exactly in a constant
// column.
TEST(MatrixListwise, MergesMatchTheReferenceAndOneBatch) {
  for (int weighting = 0; weighting < 4; ++weighting) {
    SCOPED_TRACE(::testing::Message() << "weighting " << weighting);
    Table t = RandomTable(31337, 6, 160, weighting & 1, weighting & 2, 0.0, 50.0);
    for (std::vector<double>& row : t.rows)
      row[3] = 0.1;
    MatrixListwise parts[3], split;
    testing::listwise::RefBlock refs[3], ref;
    std::size_t i = 0;
    for (DataBatch& batch : Split(t, 7)) {
      parts[i % 3] += batch;
      const std::size_t begin = 7 * i;
      testing::listwise::Merge(
          refs[i++ % 3],
          testing::listwise::ReduceRows(t, begin, std::min(begin + 7, t.rows.size()), 0, 6));
    }
    for (int k = 0; k < 3; ++k) {
      split += parts[k];
      testing::listwise::Merge(ref, refs[k]);
    }
    testing::listwise::ExpectSameBits(split, ref, 0);

    MatrixListwise whole;
    DataBatch all = MakeBatch(t, 0, t.rows.size());
    whole += all;
    EXPECT_EQ(whole.NRows(), split.NRows());
    const double rounding = 16 * 160 * kEps;  // of sums of 160 terms, with room for the merges
    EXPECT_NEAR(split.WeightSum(), whole.WeightSum(), rounding * 4 * 160);
    for (unsigned c = 0; c < 6; ++c) {
      EXPECT_NEAR(split.Mean(c), whole.Mean(c), 51 * rounding) << c;
      for (unsigned d = 0; d <= c; ++d)
        EXPECT_NEAR(split.CCP(c, d), whole.CCP(c, d),
                    rounding * std::sqrt(whole.CCP(c, c) * whole.CCP(d, d)))
            << c << "," << d;
    }
    EXPECT_EQ(split.Mean(3), 0.1);
    EXPECT_EQ(split.CCP(3, 3), 0.0);
    EXPECT_EQ(split.CCP(3, 1), 0.0);
  }
}

}  // namespace
}  // namespace vorel
