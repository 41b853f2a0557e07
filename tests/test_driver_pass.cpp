// A real pass: workers read rows into a DataBatch, sum its columns with the
// kernels, and merge their sums. On dyadic data no addition rounds, so every
// split into batches and threads must give the very same totals.
#include <vorel/databatch.h>
#include <vorel/driver.h>

#include <tuple>
#include <vector>

#include "columnkernels.h"
#include "test_support.h"

namespace vorel {
namespace {

constexpr unsigned kColumns = 3;
constexpr unsigned kRows = 5000;

// Small integers and halves, and power-of-two weights.
double Cell(unsigned row, unsigned column) {
  return static_cast<double>((row * (7 + column)) % 41) * (column == 2 ? 0.5 : 1.0) - 20.0;
}
double Weight(unsigned row) { return row % 3 == 0 ? 0.5 : (row % 3 == 1 ? 1.0 : 4.0); }

struct Totals {
  double sums[kColumns] = {};
  double weighted[kColumns] = {};
  double weight = 0.0;
  double rows = 0.0;
};

class SummingProblem : public ProblemBase {
 public:
  explicit SummingProblem(unsigned batchRows) : _batchRows(batchRows) {}
  WorkerBase* CreateWorker() override { return new Worker(*this); }

  Totals totals;  // reached only in MergeResult

 private:
  class Worker : public WorkerBase {
   public:
    explicit Worker(SummingProblem& p)
        : _p(p), _batch(kColumns, p._batchRows, &_weight, nullptr, nullptr) {}

    // Fills the batch from the shared row source; a short last batch is
    // reported with true, the end by the next call.
    bool ReadBatch() override {
      _batch.Clear();
      double row[kColumns];
      while (_batch.NRows() < _p._batchRows && _p._nextRow < kRows) {
        const unsigned r = _p._nextRow++;
        for (unsigned c = 0; c < kColumns; ++c) row[c] = Cell(r, c);
        _weight = Weight(r);
        _batch.AddRow(row);
      }
      return _batch.NRows() > 0;
    }

    void ProcessBatch() override {
      const int n = static_cast<int>(_batch.NRows());
      for (unsigned c = 0; c < kColumns; ++c) {
        _mine.sums[c] += SumValues(_batch.Column(c), n);
        _mine.weighted[c] += DotProduct(_batch.Column(c), _batch.Weights(), n);
      }
      _mine.weight += SumWeights(_batch.Weights(), n);
      _mine.rows += SumWeights(nullptr, n);
    }

    void MergeResult() override {
      Totals& all = _p.totals;
      for (unsigned c = 0; c < kColumns; ++c) {
        all.sums[c] += _mine.sums[c];
        all.weighted[c] += _mine.weighted[c];
      }
      all.weight += _mine.weight;
      all.rows += _mine.rows;
    }

   private:
    SummingProblem& _p;
    double _weight = 0.0;
    DataBatch _batch;
    Totals _mine;
  };

  unsigned _batchRows;
  unsigned _nextRow = 0;  // the row source, reached only in ReadBatch
};

Totals Reference() {
  Totals t;
  for (unsigned r = 0; r < kRows; ++r) {
    for (unsigned c = 0; c < kColumns; ++c) {
      t.sums[c] += Cell(r, c);
      t.weighted[c] += Cell(r, c) * Weight(r);
    }
    t.weight += Weight(r);
    t.rows += 1.0;
  }
  return t;
}

class DriverPass : public ::testing::TestWithParam<std::tuple<int, unsigned>> {};

TEST_P(DriverPass, SameTotalsOnAnyNumberOfThreads) {
  const auto [threads, batchRows] = GetParam();
  SummingProblem problem(batchRows);
  Driver(&problem, threads);
  const Totals expected = Reference();
  const Totals& got = problem.totals;
  EXPECT_EQ(got.rows, static_cast<double>(kRows));
  EXPECT_TRUE(testing::SameBits(got.weight, expected.weight));
  for (unsigned c = 0; c < kColumns; ++c) {
    EXPECT_TRUE(testing::SameBits(got.sums[c], expected.sums[c])) << "column " << c;
    EXPECT_TRUE(testing::SameBits(got.weighted[c], expected.weighted[c])) << "column " << c;
  }
}

INSTANTIATE_TEST_SUITE_P(ThreadsAndBatchSizes, DriverPass,
                         ::testing::Combine(::testing::Values(1, 2, 3, 8),
                                            ::testing::Values(1u, 7u, 64u, 5000u)));

}  // namespace
}  // namespace vorel
