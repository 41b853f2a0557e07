// The whole-table matrices run through Driver: the same rows in one batch and
// in many, on 1 to 8 threads, agree up to rounding, and exactly where nothing
// rounds: counts, sums of power-of-two weights, and a constant column of the
// listwise matrix.
#include <vorel/databatch.h>
#include <vorel/driver.h>
#include <vorel/matrixlistwise.h>
#include <vorel/matrixpairwise.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <tuple>
#include <vector>

#include "test_support.h"
#include "wholetable_support.h"

namespace vorel {
namespace {

using testing::wholetable::Table;
constexpr double kCode = -99;
constexpr unsigned kCols = 5;

// Cells near 0 with spread 1, a constant column 3, about one cell in eight
// missing; weights and regression weights powers of two, so their sums are exact.
Table MakeTable(std::size_t nRows) {
  std::mt19937_64 rng(1234);
  std::uniform_real_distribution<double> cell(-1, 1);
  const double powers[] = {0.25, 0.5, 1, 2, 4};
  Table t(kCols, true, true);
  for (std::size_t r = 0; r < nRows; ++r) {
    std::vector<double> cells(kCols);
    for (double& c : cells)
      c = rng() % 8 == 0 ? kCode : cell(rng);
    cells[3] = 0.1;
    t.AddRow(cells, powers[rng() % 5], powers[rng() % 5]);
  }
  return t;
}

// Each worker reads the next rows into two batches, every row for the pairwise
// matrix and the complete rows for the listwise one, and adds them to its own
// matrices; at the end it adds those to the problem's.
class TableProblem : public ProblemBase {
 public:
  TableProblem(const Table& table, std::size_t batchRows) : _table(table), _batchRows(batchRows) {}

  WorkerBase* CreateWorker() override { return new Worker(*this); }

  MatrixListwise listwise;
  MatrixPairwise pairwise{kCode};

 private:
  class Worker : public WorkerBase {
   public:
    explicit Worker(TableProblem& problem)
        : _problem(problem),
          _allRows(problem._batchRows, problem._table),
          _completeRows(problem._batchRows, problem._table) {}

    bool ReadBatch() override {
      const Table& t = _problem._table;
      if (_problem._next == t.NRows()) return false;
      const std::size_t end = std::min(_problem._next + _problem._batchRows, t.NRows());
      _allRows.Fill(_problem._next, end, false);
      _completeRows.Fill(_problem._next, end, true);
      _problem._next = end;
      return true;
    }
    void ProcessBatch() override {
      _pairwise += _allRows.batch;
      _listwise += _completeRows.batch;
    }
    void MergeResult() override {
      _problem.listwise += _listwise;
      _problem.pairwise += _pairwise;
    }

   private:
    // A batch of the table's rows [begin, end), or of the complete ones among them.
    struct Rows {
      Rows(std::size_t capacity, const Table& t) : table(t), batch(t.EmptyBatch(capacity)) {}
      void Fill(std::size_t begin, std::size_t end, bool completeOnly) {
        batch.Clear();
        for (std::size_t r = begin; r < end; ++r) {
          bool complete = true;
          for (unsigned c = 0; c < kCols; ++c)
            complete = complete && table.Cell(r, c) != kCode;
          if (!completeOnly || complete) table.Append(batch, r);
        }
      }
      const Table& table;
      DataBatch batch;
    };

    TableProblem& _problem;
    Rows _allRows, _completeRows;
    MatrixListwise _listwise;
    MatrixPairwise _pairwise{kCode};
  };

  const Table& _table;
  const std::size_t _batchRows;
  std::size_t _next = 0;  // the next row to read; touched only under the read lock
};

// Rounding of sums of n terms of size `scale`, with room for the merges.
double Tolerance(double n, double scale) {
  return 16 * n * std::numeric_limits<double>::epsilon() * scale;
}

// The size of the terms behind a corrected sum of squares: the sum of squares
// about zero, css + weight x mean^2. A pair record's means are not exact even
// for a constant column (an empty record takes weight x mean / weight), so its
// corrected sums are only as exact as this.
double RawSquares(double css, double weight, double mean) { return css + weight * mean * mean; }

class WholeTableThreaded : public ::testing::TestWithParam<std::tuple<int, std::size_t>> {};

TEST_P(WholeTableThreaded, SplitsAgreeWithOneBatch) {
  const auto [threads, batchRows] = GetParam();
  const std::size_t nRows = 400;
  const Table t = MakeTable(nRows);
  TableProblem whole(t, nRows), split(t, batchRows);
  Driver(&whole, 1);
  Driver(&split, threads);

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
  EXPECT_EQ(q.NRows(), nRows);
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
