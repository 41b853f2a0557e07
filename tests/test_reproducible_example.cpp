// The worked example of the reproducible pass, compiled so that it cannot
// rot. Keep the code between the markers the same as in
// docs/reproducible.md.
#include <cstring>
#include <random>

#include "test_support.h"

// ---- example begins
#include <vorel/vorel.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace example {

using Row = std::array<double, 2>;

// The rows, and the tree that every block goes to. blockRows fixes the grid:
// block k is rows [k * blockRows, (k + 1) * blockRows).
class ReproducibleProblem : public vorel::ProblemBase {
 public:
  ReproducibleProblem(const std::vector<Row>& rows, unsigned blockRows)
      : _rows(rows), _blockRows(blockRows) {}
  vorel::WorkerBase* CreateWorker() override;

  vorel::BlockTree<vorel::MatrixListwise> tree{[] { return vorel::MatrixListwise(); }};

 private:
  friend class BlockWorker;
  const std::vector<Row>& _rows;
  const unsigned _blockRows;
  std::size_t _next = 0;  // the next row to read; ReadBatch runs under Driver's read lock
};

class BlockWorker : public vorel::WorkerBase {
 public:
  explicit BlockWorker(ReproducibleProblem& problem)
      : _problem(problem), _batch(2, problem._blockRows, nullptr, nullptr, nullptr) {}

  // Under the read lock: the next block's rows, and its index with them.
  bool ReadBatch() override {
    ReproducibleProblem& p = _problem;
    if (p._next == p._rows.size()) return false;
    _batch.Clear();
    const std::size_t end = std::min(p._rows.size(), p._next + p._blockRows);
    for (; p._next < end; ++p._next)
      _batch.AddRow(p._rows[p._next].data());
    _block = p.tree.NextBlock();
    return true;
  }
  // No lock: the block into a fresh result, which goes to the tree.
  void ProcessBatch() override {
    vorel::MatrixListwise result = _problem.tree.NewResult();
    result += _batch;
    _problem.tree.AddBlock(_block, std::move(result));
  }
  void MergeResult() override {}  // the tree holds everything already

 private:
  ReproducibleProblem& _problem;
  vorel::DataBatch _batch;
  std::uint64_t _block = 0;
};

vorel::WorkerBase* ReproducibleProblem::CreateWorker() { return new BlockWorker(*this); }

// The same bits for any thread count.
vorel::MatrixListwise Pass(const std::vector<Row>& rows, unsigned blockRows, int threads) {
  ReproducibleProblem problem(rows, blockRows);
  vorel::Driver(&problem, threads);
  return problem.tree.Finish();
}

}  // namespace example
// ---- example ends

namespace {

std::vector<example::Row> Rows() {
  std::mt19937_64 engine(15);
  std::uniform_real_distribution<double> unit(-1.0, 1.0);
  std::vector<example::Row> rows(10000);
  for (example::Row& row : rows)
    row = {1e8 + unit(engine), 1e-3 * unit(engine)};
  return rows;
}

std::array<double, 4> Figures(const vorel::MatrixListwise& m) {
  return {m.Mean(0), m.Mean(1), m.CCP(0, 0), m.CCP(0, 1)};
}

bool SameBits(const std::array<double, 4>& a, const std::array<double, 4>& b) {
  return std::memcmp(a.data(), b.data(), sizeof a) == 0;
}

// The example's promise, and what it does not promise: another block size
// rounds otherwise (which shows that these rows feel the order of merges).
TEST(ReproducibleExampleThreaded, SameBitsForAnyThreadCountNotForAnyBlockSize) {
  const std::vector<example::Row> rows = Rows();
  const std::array<double, 4> oneThread = Figures(example::Pass(rows, 64, 1));
  for (const int threads : {2, 3, 8})
    EXPECT_PRED2(SameBits, Figures(example::Pass(rows, 64, threads)), oneThread) << threads;
  EXPECT_FALSE(SameBits(Figures(example::Pass(rows, 100, 1)), oneThread));
}

}  // namespace
