// The listwise block matrices in a pass on a pool of threads: each worker adds
// its batches to a matrix of its own and merges it into the shared one
// through MatrixBase&, as a caller of Driver does.
#include <vorel/driver.h>
#include <vorel/nsmatrixlistwise.h>
#include <vorel/smatrixlistwise.h>

#include <cmath>
#include <functional>
#include <limits>
#include <memory>
#include <tuple>

#include "listwise_block_reference.h"
#include "test_support.h"

namespace vorel {
namespace {

using testing::BatchOf;
using testing::Table;
using testing::Weighting;

// Rows are handed out in batches of `batchRows` under the read lock; each
// worker's matrix comes from `makeMatrix`, and `shared` receives them all.
class BlockProblem : public ProblemBase {
 public:
  BlockProblem(const Table& table, std::size_t batchRows,
               std::function<std::unique_ptr<MatrixBase>()> makeMatrix, MatrixBase& shared)
      : _table(table), _batchRows(batchRows), _makeMatrix(std::move(makeMatrix)),
        _shared(shared) {}
  WorkerBase* CreateWorker() override;

 private:
  friend class BlockWorker;
  const Table& _table;
  std::size_t _batchRows;
  std::function<std::unique_ptr<MatrixBase>()> _makeMatrix;
  MatrixBase& _shared;
  std::size_t _next = 0;
};

class BlockWorker : public WorkerBase {
 public:
  explicit BlockWorker(BlockProblem& problem)
      : _problem(problem), _mine(problem._makeMatrix()),
        _batch(problem._table, 0, 0, problem._batchRows) {}
  bool ReadBatch() override {
    const std::size_t first = _problem._next;
    const std::size_t last = std::min(_problem._table.Rows(), first + _problem._batchRows);
    _problem._next = last;
    _batch.Fill(_problem._table, first, last);
    return last > first;
  }
  void ProcessBatch() override { *_mine += _batch.batch; }
  void MergeResult() override { _problem._shared += *_mine; }

 private:
  BlockProblem& _problem;
  std::unique_ptr<MatrixBase> _mine;
  BatchOf _batch;
};

WorkerBase* BlockProblem::CreateWorker() { return new BlockWorker(*this); }

// Values far from 0 with weights that are powers of two, so that the weight
// totals come out exact in any order of addition. Column 1 is constant.
Table ThreadTable(std::size_t nRows) {
  Table t = testing::RandomTable(2718, nRows, 7, Weighting::kBoth, false);
  const Table powers = testing::RandomTable(3141, nRows, 1, Weighting::kBoth, true);
  t.weights = powers.weights;
  t.regWeights = powers.regWeights;
  return t;
}

// The same rows in one batch, on this thread, as the figures to agree with.
template <class Matrix>
Matrix OneBatch(const Table& t, Matrix m) {
  BatchOf batch(t, 0, t.Rows(), t.Rows());
  m += batch.batch;
  return m;
}

// Counts, weight totals and extremes exactly; means and cross-products to a
// thousand units of rounding of the columns' spread; the constant column
// exactly.
template <class Matrix>
void ExpectAgree(const Matrix& m, const Matrix& one, bool (*hasCell)(int, int)) {
  ASSERT_EQ(m.NRows(), one.NRows());
  EXPECT_EQ(m.Col0(), one.Col0());
  EXPECT_EQ(m.Col1(), one.Col1());
  EXPECT_EQ(m.Col2(), one.Col2());
  EXPECT_EQ(m.WeightSum(), one.WeightSum());
  EXPECT_EQ(m.RegWeightSum(), one.RegWeightSum());
  const double eps = std::numeric_limits<double>::epsilon();
  for (int x = m.Col0(); x < m.Col2(); ++x) {
    EXPECT_EQ(m.Min(x), one.Min(x));
    EXPECT_EQ(m.Max(x), one.Max(x));
    const double spreadX = std::sqrt(one.CCP(x, x));
    EXPECT_NEAR(m.Mean(x), one.Mean(x),
                1e3 * eps * (std::fabs(one.Mean(x)) + spreadX / std::sqrt(one.RegWeightSum())));
    for (int y = m.Col0(); y < m.Col2(); ++y) {
      if (!hasCell(x, y)) continue;
      EXPECT_NEAR(m.CCP(x, y), one.CCP(x, y), 1e3 * eps * spreadX * std::sqrt(one.CCP(y, y)))
          << x << "," << y;
    }
  }
  EXPECT_EQ(m.Mean(1), 0.1);
  EXPECT_EQ(m.CCP(1, 1), 0.0);
}

class BlocksThreaded : public ::testing::TestWithParam<std::tuple<int, std::size_t, std::size_t>> {
};

TEST_P(BlocksThreaded, SMatrixListwiseMergesWorkersThroughTheBase) {
  const auto [threads, rows, batchRows] = GetParam();
  const Table t = ThreadTable(rows);
  // The shared matrix is built without bounds: the first worker's copy
  // brings the workers' bounds.
  SMatrixListwise shared;
  BlockProblem problem(t, batchRows, [] { return std::make_unique<SMatrixListwise>(1, 6); },
                       shared);
  Driver(&problem, threads);
  ExpectAgree(shared, OneBatch(t, SMatrixListwise(1, 6)), [](int, int) { return true; });
}

TEST_P(BlocksThreaded, NSMatrixListwiseMergesWorkersThroughTheBase) {
  const auto [threads, rows, batchRows] = GetParam();
  const Table t = ThreadTable(rows);
  NSMatrixListwise shared(0, 1, 2);  // other bounds: replaced by the first worker's
  BlockProblem problem(t, batchRows, [] { return std::make_unique<NSMatrixListwise>(0, 3, 7); },
                       shared);
  Driver(&problem, threads);
  ExpectAgree(shared, OneBatch(t, NSMatrixListwise(0, 3, 7)),
              [](int x, int y) { return x == y || (x < 3) != (y < 3); });
}

// Threads, rows, batch size. Three rows on eight threads leave most workers
// without a row: they merge empty matrices, which must change nothing.
INSTANTIATE_TEST_SUITE_P(
    ThreadsAndBatches, BlocksThreaded,
    ::testing::Values(std::make_tuple(1, 500, 7), std::make_tuple(2, 500, 1),
                      std::make_tuple(2, 500, 64), std::make_tuple(4, 500, 13),
                      std::make_tuple(8, 3, 1), std::make_tuple(8, 500, 500)));

}  // namespace
}  // namespace vorel
