// The wide-table example of the library guide (examples/widetable.h) against
// MatrixListwise over the same rows: bit for bit where the formulas agree, up
// to rounding elsewhere, exactly for a constant column.
#include <vorel/vorel.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "table_support.h"
#include "widetable.h"

namespace vorel {
namespace {

using testing::SameBits;
using testing::tables::Table;

constexpr int kColumns = 10;
const std::vector<int> kCuts = {0, 3, 4, 8, kColumns};  // parts of 3, 1, 4 and 2 columns

// Values far from 0 with a spread of about 50; column 5 is constant.
Table RandomRows(unsigned seed, std::size_t n) {
  Table t = testing::tables::RandomTable(seed, kColumns, n, false, false);
  for (std::vector<double>& row : t.rows)
    for (int c = 0; c < kColumns; ++c)
      row[c] = c == 5 ? 0.7 : 1e3 * (c + 1) + 50 * row[c];
  return t;
}

bool SamePart(int x, int y) {
  return std::upper_bound(kCuts.begin(), kCuts.end(), x)
         == std::upper_bound(kCuts.begin(), kCuts.end(), y);
}

// In one batch each cell is the same dot product of the same centred columns
// as in the whole table; without weights a * b and b * a are the same double.
// With merges, the means and the cells of the S blocks go through the same
// update formula as the whole table, term for term; the rectangle of an NS
// block weighs the first set's shift with the combined weight and its sums of
// squares use their own form of the update, so off the diagonal blocks the
// figures agree with one batch of all rows up to rounding: a thousand units in the last place of
// their natural scale (the spread of the columns for a cross-product, and that spread per unit
// weight for a mean). A wrong term is off by far more. On several threads the rows split as the
// threads happen to read them.
TEST(WideTableExampleThreaded, GivesTheWholeTable) {
  const double eps = std::numeric_limits<double>::epsilon();
  for (const auto& [threads, nRows] : {std::pair{1, 200u}, {1, 1000u}, {3, 1000u}, {8, 3000u}}) {
    SCOPED_TRACE(::testing::Message() << threads << " threads, " << nRows << " rows");
    const Table t = RandomRows(nRows, nRows);
    WideProblem problem(t.rows, kCuts);
    Driver(&problem, threads);
    const WideTable& wide = problem.result;
    MatrixListwise whole, one;  // in the example's batches, and in one batch
    for (DataBatch& batch : testing::tables::Split(t, WideWorker::kBatchRows))
      whole += batch;
    for (DataBatch& batch : testing::tables::Split(t, nRows))
      one += batch;
    const bool oneBatch = nRows <= WideWorker::kBatchRows;
    for (int x = 0; x < kColumns; ++x) {
      const double spreadX = std::sqrt(one.CCP(x, x));
      if (threads == 1) {
        EXPECT_PRED2(SameBits, wide.Mean(x), whole.Mean(x)) << x;
      }
      EXPECT_NEAR(wide.Mean(x), one.Mean(x),
                  1e3 * eps * (std::fabs(one.Mean(x)) + spreadX / std::sqrt(nRows)))
          << x;
      for (int y = 0; y < kColumns; ++y) {
        if (threads == 1 && (oneBatch || SamePart(x, y))) {
          EXPECT_PRED2(SameBits, wide.CCP(x, y), whole.CCP(x, y)) << x << "," << y;
        }
        EXPECT_NEAR(wide.CCP(x, y), one.CCP(x, y), 1e3 * eps * spreadX * std::sqrt(one.CCP(y, y)))
            << x << "," << y;
      }
      EXPECT_EQ(wide.CCP(5, x), 0.0);
    }
    EXPECT_EQ(wide.Mean(5), 0.7);
  }
}

}  // namespace
}  // namespace vorel
