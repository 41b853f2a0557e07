// The wide-table example of the library guide (examples/widetable.h) against
// MatrixListwise over the same rows: bit for bit where the formulas agree, up
// to rounding elsewhere, exactly for a constant column.
#include <vorel/vorel.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <tuple>
#include <vector>

#include "test_support.h"
#include "widetable.h"

namespace vorel {
namespace {

using testing::SameBits;

constexpr int kColumns = 10;
const std::vector<int> kCuts = {0, 3, 4, 8, kColumns};  // parts of 3, 1, 4 and 2 columns

// Values far from 0 with a spread of about 50; column 5 is constant.
std::vector<std::vector<double>> RandomRows(unsigned seed, std::size_t n) {
  std::mt19937 random(seed);
  std::uniform_real_distribution<double> spread(-50.0, 50.0);
  std::vector<std::vector<double>> rows(n, std::vector<double>(kColumns));
  for (auto& row : rows)
    for (int c = 0; c < kColumns; ++c)
      row[c] = c == 5 ? 0.7 : 1e3 * (c + 1) + spread(random);
  return rows;
}

// The whole table in one matrix, over the same rows in batches of the same size.
MatrixListwise WholeTable(const std::vector<std::vector<double>>& rows, std::size_t batchRows) {
  MatrixListwise whole;
  DataBatch batch(kColumns, static_cast<unsigned>(batchRows), nullptr, nullptr, nullptr);
  for (std::size_t start = 0; start < rows.size(); start += batchRows) {
    batch.Clear();
    for (std::size_t r = start; r < std::min(rows.size(), start + batchRows); ++r)
      batch.AddRow(rows[r].data());
    whole += batch;
  }
  return whole;
}

bool SamePart(int x, int y) {
  return std::upper_bound(kCuts.begin(), kCuts.end(), x)
         == std::upper_bound(kCuts.begin(), kCuts.end(), y);
}

// Up to rounding: a thousand units in the last place of the figures'
// natural scale, the spread of the columns involved (sqrt of the sums of
// squares) for a cross-product, and that spread per unit weight for a mean.
// A wrong term in an update formula is off by far more than that.
void ExpectClose(const WideTable& wide, const MatrixListwise& whole) {
  const double eps = std::numeric_limits<double>::epsilon();
  const double rows = whole.RegWeightSum();
  for (int x = 0; x < kColumns; ++x) {
    const double spreadX = std::sqrt(whole.CCP(x, x));
    EXPECT_NEAR(wide.Mean(x), whole.Mean(x),
                1e3 * eps * (std::fabs(whole.Mean(x)) + spreadX / std::sqrt(rows)))
        << "mean " << x;
    for (int y = 0; y < kColumns; ++y) {
      const double scale = spreadX * std::sqrt(whole.CCP(y, y));
      EXPECT_NEAR(wide.CCP(x, y), whole.CCP(x, y), 1e3 * eps * scale) << x << "," << y;
    }
  }
  // The constant column: its mean exactly, all its sums exactly 0.
  EXPECT_EQ(wide.Mean(5), 0.7);
  for (int y = 0; y < kColumns; ++y)
    EXPECT_EQ(wide.CCP(5, y), 0.0);
}

// In one batch each cell is the same dot product of the same centred columns
// as in the whole table; without weights the products a * b and b * a are the
// same double, so the order of the factors in the rectangle does not matter
// either. With merges, the means and the cells of the S blocks go through the
// same update formula as the whole table, term for term, and stay
// bit-identical; the rectangle of an NS block weighs the first set's shift
// with the combined weight and its sums of squares use their own form of the
// update, so off the diagonal blocks the figures agree up to rounding.
TEST(WideTableExample, OneThreadGivesTheWholeTableBitForBitWhereTheFormulasAgree) {
  for (std::size_t nRows : {200u, 1000u}) {
    const auto rows = RandomRows(static_cast<unsigned>(nRows), nRows);
    WideProblem problem(rows, kCuts);
    Driver(&problem, 1);
    const MatrixListwise whole = WholeTable(rows, WideWorker::kBatchRows);
    const bool oneBatch = nRows <= WideWorker::kBatchRows;
    for (int x = 0; x < kColumns; ++x) {
      EXPECT_TRUE(SameBits(problem.result.Mean(x), whole.Mean(x))) << x;
      for (int y = 0; y < kColumns; ++y)
        if (oneBatch || SamePart(x, y)) {
          EXPECT_TRUE(SameBits(problem.result.CCP(x, y), whole.CCP(x, y))) << x << "," << y;
        }
    }
    ExpectClose(problem.result, whole);
  }
}

class WideTableExampleThreaded : public ::testing::TestWithParam<std::tuple<int, std::size_t>> {};

TEST_P(WideTableExampleThreaded, AnyNumberOfThreadsGivesTheWholeTable) {
  // The rows split among the workers as the threads happen to read them, so
  // only agreement up to rounding can be asked for. With fewer rows than a
  // batch, all workers but one merge blocks without rows, which change nothing.
  const auto [threads, nRows] = GetParam();
  const auto rows = RandomRows(13, nRows);
  WideProblem problem(rows, kCuts);
  Driver(&problem, threads);
  ExpectClose(problem.result, WholeTable(rows, nRows));
}

// Threads (0 takes the host's count) and rows.
INSTANTIATE_TEST_SUITE_P(ThreadsAndRows, WideTableExampleThreaded,
                         ::testing::Values(std::make_tuple(0, 3000u), std::make_tuple(2, 3000u),
                                           std::make_tuple(3, 1000u), std::make_tuple(8, 3000u),
                                           std::make_tuple(8, 100u)));

}  // namespace
}  // namespace vorel
