// A reproducible pass over two columns, one of them with a large offset: the
// same bits on any number of threads (the first argument, 0 if none is given:
// the host's count), other bits for another block size.
#include <vorel/vorel.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>
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

// Rows drawn from a fixed engine: 1e8 plus a spread of 1, and a small column.
std::vector<example::Row> Rows() {
  std::mt19937_64 engine(15);
  const auto unit = [&engine] { return static_cast<double>(engine() >> 11) * 0x1p-52 - 1.0; };
  std::vector<example::Row> rows(10000);
  for (example::Row& row : rows)
    row = {1e8 + unit(), 1e-3 * unit()};
  return rows;
}

int main(int argc, char** argv) {
  const int threads = argc > 1 ? std::atoi(argv[1]) : 0;
  const std::vector<example::Row> rows = Rows();
  for (const unsigned blockRows : {64u, 100u}) {
    const vorel::MatrixListwise m = example::Pass(rows, blockRows, threads);
    std::printf("blocks of %u rows: means %.17g %.17g, CCP(0, 0) %.17g, CCP(0, 1) %.17g\n",
                blockRows, m.Mean(0), m.Mean(1), m.CCP(0, 0), m.CCP(0, 1));
  }
}
