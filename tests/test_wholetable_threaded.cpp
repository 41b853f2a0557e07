// The whole-table matrices through Driver: the same rows in one batch and in
// many, on 1 to 8 threads, agree up to rounding, and exactly where nothing
// rounds: counts, sums of power-of-two weights, and a constant column of the
// listwise matrix.
#include <vorel/databatch.h>
#include <vorel/matrixlistwise.h>
#include <vorel/matrixpairwise.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <tuple>
#include <vector>

#include "table_support.h"
#include "test_support.h"

namespace vorel {
namespace {

using namespace testing::tables;
constexpr unsigned kCols = 5;

struct Matrices {
  MatrixListwise listwise;         // the complete rows
  MatrixPairwise pairwise{kCode};  // every row
};

// Rounding of sums of n terms of size `scale`, with room for the merges.
double Tolerance(double n, double scale) {
  return 16 * n * std::numeric_limits<double>::epsilon() * scale;
}

// The size of the terms behind a corrected sum of squares: css + weight x
// mean^2. A pair record's means are not exact even for a constant column (an
// empty record takes weight x mean / weight), so neither are its sums.
double RawSquares(double css, double weight, double mean) { return css + weight * mean * mean; }

class WholeTableThreaded : public ::testing::TestWithParam<std::tuple<int, std::size_t>> {};

TEST_P(WholeTableThreaded, SplitsAgreeWithOneBatch) {
  const auto [threads, batchRows] = GetParam();
  Table t = RandomTable(1234, kCols, 400, true, true, 0.125, 0.0, /*dyadic=*/true), complete;
  for (std::size_t r = 0; r < t.rows.size(); ++r) {
    t.rows[r][3] = 0.1;
    if (std::count(t.rows[r].begin(), t.rows[r].end(), kCode) != 0) continue;
    complete.rows.push_back(t.rows[r]);
    complete.w.push_back(t.w[r]);
    complete.rw.push_back(t.rw[r]);
  }
  Matrices whole, split;
  DataBatch allRows = MakeBatch(t, 0, t.rows.size());
  DataBatch completeRows = MakeBatch(complete, 0, complete.rows.size());
  whole.pairwise += allRows;
  whole.listwise += completeRows;
  std::vector<DataBatch> all = Split(t, batchRows), full = Split(complete, batchRows);
  RunPass(
      threads, all.size(), [] { return Matrices{}; },
      [&](Matrices& m, std::size_t i) {
        m.pairwise += all[i];
        if (i < full.size()) m.listwise += full[i];
      },
      [&](Matrices& m, const std::vector<std::size_t>&) {
        split.listwise += m.listwise;
        split.pairwise += m.pairwise;
      });

  const MatrixListwise& a = whole.listwise;
  const MatrixListwise& b = split.listwise;
  ASSERT_GT(a.NRows(), 100u);
  EXPECT_EQ(b.NRows(), a.NRows());
  EXPECT_EQ(b.WeightSum(), a.WeightSum());
  EXPECT_EQ(b.RegWeightSum(), a.RegWeightSum());
  const double n = static_cast<double>(a.NRows());
  for (unsigned i = 0; i < kCols; ++i) {
    EXPECT_NEAR(b.Mean(i), a.Mean(i), Tolerance(n, 1.0)) << i;
    for (unsigned j = 0; j <= i; ++j)
      EXPECT_NEAR(b.CCP(i, j), a.CCP(i, j), Tolerance(n, std::sqrt(a.CCP(i, i) * a.CCP(j, j))))
          << i << "," << j;
  }
  EXPECT_EQ(b.Mean(3), 0.1);
  EXPECT_EQ(b.CCP(3, 3), 0.0);
  EXPECT_EQ(b.CCP(3, 1), 0.0);

  const MatrixPairwise& p = whole.pairwise;
  const MatrixPairwise& q = split.pairwise;
  EXPECT_EQ(q.NRows(), t.rows.size());
  EXPECT_EQ(q.WeightSum(), p.WeightSum());
  EXPECT_EQ(q.RegWeightSum(), p.RegWeightSum());
  for (unsigned i = 0; i < kCols; ++i) {
    const VarStats u = p.Var(i), v = q.Var(i);
    EXPECT_EQ(v.NRows(), u.NRows());
    EXPECT_EQ(v.RegWeightSum(), u.RegWeightSum());
    EXPECT_NEAR(v.Mean(), u.Mean(), Tolerance(n, 1.0));
    EXPECT_NEAR(v.CSS(), u.CSS(), Tolerance(n, RawSquares(u.CSS(), u.RegWeightSum(), u.Mean())));
    for (unsigned j = 0; j < i; ++j) {
      const PairStats x = p.Pair(i, j), y = q.Pair(j, i);
      EXPECT_EQ(y.NRows(), x.NRows());
      EXPECT_EQ(y.WeightSum(), x.WeightSum());
      EXPECT_NEAR(y.Mean0(), x.Mean0(), Tolerance(n, 1.0));
      EXPECT_NEAR(y.Mean1(), x.Mean1(), Tolerance(n, 1.0));
      const double raw0 = RawSquares(x.CSS0(), x.RegWeightSum(), x.Mean0());
      const double raw1 = RawSquares(x.CSS1(), x.RegWeightSum(), x.Mean1());
      EXPECT_NEAR(y.CSS0(), x.CSS0(), Tolerance(n, raw0));
      EXPECT_NEAR(y.CSS1(), x.CSS1(), Tolerance(n, raw1));
      EXPECT_NEAR(y.CSCP(), x.CSCP(), Tolerance(n, std::sqrt(raw0 * raw1)));
    }
  }
}

INSTANTIATE_TEST_SUITE_P(ThreadsAndBatchSizes, WholeTableThreaded,
                         ::testing::Combine(::testing::Values(1, 2, 4, 8),
                                            ::testing::Values(std::size_t{1}, std::size_t{7},
                                                              std::size_t{64})));

}  // namespace
}  // namespace vorel
