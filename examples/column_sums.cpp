// A pass of its own on a pool of threads: the sums of the columns of a table.
// The thread count is the first argument, 0 (the host's) if none is given.
#include <vorel/databatch.h>
#include <vorel/driver.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <vector>

// Sums every column of a row-major table.
class ColumnSums : public vorel::ProblemBase {
 public:
  ColumnSums(const std::vector<double>& rows, unsigned nColumns)
      : totals(nColumns, 0.0), _rows(rows), _nColumns(nColumns) {}

  // Batches of as many rows as half the host's budget holds.
  vorel::WorkerBase* CreateWorker() override {
    const unsigned rowBytes = vorel::DataBatch::RowSize(_nColumns, false, false, false);
    return new Worker(*this, std::max(1u, static_cast<unsigned>(_cacheBytes) / 2 / rowBytes));
  }

  std::vector<double> totals;  // the shared result, touched only in MergeResult

 private:
  class Worker : public vorel::WorkerBase {
   public:
    Worker(ColumnSums& p, unsigned batchRows)
        : _p(p),
          _batch(p._nColumns, batchRows, nullptr, nullptr, nullptr),
          _capacity(batchRows),
          _sums(p._nColumns, 0.0) {}

    bool ReadBatch() override {  // under the read lock
      _batch.Clear();
      while (_batch.NRows() < _capacity && _p._next < _p._rows.size()) {
        _batch.AddRow(&_p._rows[_p._next]);
        _p._next += _p._nColumns;
      }
      return _batch.NRows() > 0;
    }
    void ProcessBatch() override {  // no lock: own objects only
      for (unsigned c = 0; c < _p._nColumns; ++c)
        for (unsigned r = 0; r < _batch.NRows(); ++r)
          _sums[c] += _batch.Column(c)[r];
    }
    void MergeResult() override {  // under the result lock
      for (unsigned c = 0; c < _p._nColumns; ++c)
        _p.totals[c] += _sums[c];
    }

   private:
    ColumnSums& _p;
    vorel::DataBatch _batch;
    unsigned _capacity;
    std::vector<double> _sums;
  };

  const std::vector<double>& _rows;
  unsigned _nColumns;
  std::size_t _next = 0;  // the shared source, touched only in ReadBatch
};

int main(int argc, char** argv) {
  std::vector<double> rows{1, 2, 3, 4, 5, 6};  // three rows of two columns
  ColumnSums problem(rows, 2);
  vorel::Driver(&problem, argc > 1 ? std::atoi(argv[1]) : 0);
  std::printf("column sums: %g %g\n", problem.totals[0], problem.totals[1]);
}
