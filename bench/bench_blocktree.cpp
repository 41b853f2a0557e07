// The price of reproducible bits: one Driver pass of a listwise matrix over
// 200,000 rows, merged in arrival order (each worker's own matrix, added to
// the shared one at the end) and along a BlockTree (a fresh matrix per block,
// merged by block index). Both read the same blocks of rows; the tree adds a
// fresh matrix and one merge per block, and the final sum.
#include <vorel/blocktree.h>
#include <vorel/databatch.h>
#include <vorel/driver.h>
#include <vorel/matrixlistwise.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <optional>
#include <vector>

#include "bench_support.h"

namespace vorel::bench {
namespace {

constexpr int kRows = 200000;

// The rows of the pass, row by row, made once per column count.
const std::vector<double>& RowMajorRows(int p) {
  static std::vector<double> rows;
  static int madeP = 0;
  if (madeP != p) {
    Table t = MakeTable(p, kRows, 0xb10cu);
    rows.resize(t.cells.size());
    for (int i = 0; i < kRows; ++i)
      for (int j = 0; j < p; ++j)
        rows[static_cast<std::size_t>(i) * p + j] = t.Column(j)[i];
    madeP = p;
  }
  return rows;
}

// ReadBatch claims the next block under the read lock (with the tree, its
// index too); the worker copies the block's rows in ProcessBatch, so that
// the pass is bound by the arithmetic rather than by the reading.
class BlockPass : public ProblemBase {
 public:
  BlockPass(int p, int blockRows, bool reproducible)
      : _p(p),
        _blockRows(blockRows),
        _reproducible(reproducible),
        _rows(RowMajorRows(p)),
        _tree([] { return MatrixListwise(); }) {}
  WorkerBase* CreateWorker() override { return new Worker(*this); }
  MatrixListwise Result() { return _reproducible ? _tree.Finish() : std::move(_shared); }

 private:
  class Worker : public WorkerBase {
   public:
    explicit Worker(BlockPass& pass)
        : _pass(pass),
          _batch(static_cast<unsigned>(pass._p), static_cast<unsigned>(pass._blockRows), nullptr,
                 nullptr, nullptr) {}
    bool ReadBatch() override {
      if (_pass._nextRow == kRows) return false;
      _first = _pass._nextRow;
      _pass._nextRow = std::min(kRows, _first + _pass._blockRows);
      if (_pass._reproducible) _block = _pass._tree.NextBlock();
      return true;
    }
    void ProcessBatch() override {
      _batch.Clear();
      const auto rowCells = static_cast<std::size_t>(_pass._p);
      const double* row = _pass._rows.data() + static_cast<std::size_t>(_first) * rowCells;
      const int end = std::min(kRows, _first + _pass._blockRows);
      for (int i = _first; i < end; ++i, row += rowCells)
        _batch.AddRow(row);
      if (!_pass._reproducible) {
        _matrix += _batch;
        return;
      }
      MatrixListwise block = _pass._tree.NewResult();
      block += _batch;
      _pass._tree.AddBlock(_block, std::move(block));
    }
    void MergeResult() override {
      if (!_pass._reproducible) _pass._shared += _matrix;
    }

   private:
    BlockPass& _pass;
    DataBatch _batch;
    MatrixListwise _matrix;
    int _first = 0;
    std::uint64_t _block = 0;
  };

  int _p, _blockRows;
  bool _reproducible;
  int _nextRow = 0;  // under the read lock
  const std::vector<double>& _rows;
  BlockTree<MatrixListwise> _tree;
  MatrixListwise _shared;
};

// Wall time, and the processor time of all threads of the process, which a
// loaded machine disturbs less.
struct TimedResult {
  double seconds;
  double cpuSeconds;
  MatrixListwise result;
};

TimedResult TimedPass(int threads, int p, int blockRows, bool reproducible) {
  BlockPass pass(p, blockRows, reproducible);
  const std::clock_t cpuStart = std::clock();
  const auto start = std::chrono::steady_clock::now();
  Driver(&pass, threads);
  MatrixListwise result = pass.Result();
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
  const double cpu = static_cast<double>(std::clock() - cpuStart) / CLOCKS_PER_SEC;
  return {took.count(), cpu, std::move(result)};
}

// The corrected cross-products, to compare two passes bit for bit.
std::vector<double> Products(const MatrixListwise& m) {
  std::vector<double> f;
  for (unsigned i = 0; i < m.NColumns(); ++i)
    for (unsigned j = 0; j <= i; ++j)
      f.push_back(m.CCP(i, j));
  return f;
}

// Arrival order against the tree, the passes taken in turn so that both see
// the same machine, alternately first. Counters: the best time of each (ms),
// `tree_cost`, the best tree time over the best arrival-order time, less one,
// and `tree_cpu_cost`, the same for the processor time of all threads. Reported
// time: the tree's pass. Checks that every tree pass has the same bits.
// Items are rows. Args: threads, p, rows a block.
void BM_BlockTreeCost(benchmark::State& state) {
  const int threads = static_cast<int>(state.range(0)), p = static_cast<int>(state.range(1));
  const int blockRows = static_cast<int>(state.range(2));
  RowMajorRows(p);
  double bestPlain = 1e300, bestTree = 1e300, bestPlainCpu = 1e300, bestTreeCpu = 1e300;
  std::optional<std::vector<double>> firstTree;
  bool same = true, counted = true;
  bool treeFirst = false;
  for (auto _ : state) {
    // Taken in turn, each second time the other way round.
    treeFirst = !treeFirst;
    std::optional<TimedResult> tree;
    if (treeFirst) tree = TimedPass(threads, p, blockRows, true);
    const TimedResult plain = TimedPass(threads, p, blockRows, false);
    if (!treeFirst) tree = TimedPass(threads, p, blockRows, true);
    counted = counted && plain.result.NRows() == kRows && tree->result.NRows() == kRows;
    const std::vector<double> products = Products(tree->result);
    if (!firstTree) firstTree = products;
    same =
        same && products.size() == firstTree->size()
        && std::memcmp(products.data(), firstTree->data(), products.size() * sizeof(double)) == 0;
    bestPlain = std::min(bestPlain, plain.seconds);
    bestTree = std::min(bestTree, tree->seconds);
    bestPlainCpu = std::min(bestPlainCpu, plain.cpuSeconds);
    bestTreeCpu = std::min(bestTreeCpu, tree->cpuSeconds);
    state.SetIterationTime(tree->seconds);
  }
  if (!Check(state, counted, "rows of the passes") || !Check(state, same, "tree bits")) return;
  state.counters["plain_ms"] = 1e3 * bestPlain;
  state.counters["tree_ms"] = 1e3 * bestTree;
  state.counters["tree_cost"] = bestTree / bestPlain - 1.0;
  state.counters["tree_cpu_cost"] = bestTreeCpu / bestPlainCpu - 1.0;
  SetRates(state, kRows, 8.0 * p * kRows);
}

}  // namespace

BENCHMARK(BM_BlockTreeCost)
    ->ArgsProduct({{1, 2}, {50}, {256, 4096}})
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace vorel::bench
