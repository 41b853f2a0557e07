// Means, variances and correlations of a small survey, listwise and pairwise,
// from a pass on a pool of threads.
#include <vorel/vorel.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdlib>
#include <iomanip>
#include <iostream>
#include <ostream>
#include <vector>

namespace example {

constexpr double kMissing = -99.0;  // the survey's code for "no answer"
using Row = std::array<double, 3>;

// The caller's problem: the rows to read, and the two result matrices into
// which every worker adds its own at the end.
class SurveyProblem : public vorel::ProblemBase {
 public:
  explicit SurveyProblem(const std::vector<Row>& rows) : _rows(rows) {}
  vorel::WorkerBase* CreateWorker() override;

  vorel::MatrixListwise listwise;            // complete rows only
  vorel::MatrixPairwise pairwise{kMissing};  // every row, missing cells left out

 private:
  friend class SurveyWorker;
  const std::vector<Row>& _rows;
  std::size_t _next = 0;  // the next row to read; ReadBatch runs under Driver's read lock
};

class SurveyWorker : public vorel::WorkerBase {
 public:
  explicit SurveyWorker(SurveyProblem& problem) : _problem(problem) {}

  // The next few rows: all of them for the pairwise matrix, and the complete
  // ones for the listwise matrix too (listwise deletion is the caller's job).
  bool ReadBatch() override {
    _all.Clear();
    _complete.Clear();
    while (_problem._next < _problem._rows.size() && _all.NRows() < kBatchRows) {
      const Row& row = _problem._rows[_problem._next++];
      _all.AddRow(row.data());
      if (std::find(row.begin(), row.end(), kMissing) == row.end()) _complete.AddRow(row.data());
    }
    return _all.NRows() > 0;
  }
  // No lock: each worker has its own batches and matrices.
  void ProcessBatch() override {
    _pairwise += _all;       // only reads the batch
    _listwise += _complete;  // centres the batch in place: it is spent
  }
  // Under Driver's result lock, once per worker.
  void MergeResult() override {
    _problem.listwise += _listwise;
    _problem.pairwise += _pairwise;
  }

 private:
  static constexpr unsigned kBatchRows = 2;
  SurveyProblem& _problem;
  vorel::DataBatch _all{3, kBatchRows, nullptr, nullptr, nullptr};
  vorel::DataBatch _complete{3, kBatchRows, nullptr, nullptr, nullptr};
  vorel::MatrixListwise _listwise;
  vorel::MatrixPairwise _pairwise{kMissing};
};

vorel::WorkerBase* SurveyProblem::CreateWorker() { return new SurveyWorker(*this); }

// Runs the pass and prints means, variances (divisor n - 1) and correlations.
void Summarise(const std::vector<Row>& rows, int nThreads, std::ostream& out) {
  SurveyProblem problem(rows);
  vorel::Driver(&problem, nThreads);
  out << std::fixed << std::setprecision(4);

  const vorel::MatrixListwise& lw = problem.listwise;
  out << "listwise: " << lw.NRows() << " complete rows\n";
  if (lw.WeightSum() > 0.) {  // Mean and CCP require it
    for (unsigned i = 0; i < lw.NColumns(); ++i)
      out << "  column " << i << ": mean " << lw.Mean(i) << ", variance "
          << lw.CCP(i, i) / (lw.WeightSum() - 1) << "\n";
    for (unsigned i = 0; i < lw.NColumns(); ++i)
      for (unsigned j = 0; j < i; ++j)
        out << "  r(" << i << ", " << j
            << ") = " << lw.CCP(i, j) / std::sqrt(lw.CCP(i, i) * lw.CCP(j, j)) << "\n";
  }

  const vorel::MatrixPairwise& pw = problem.pairwise;
  out << "pairwise: " << pw.NRows() << " rows\n";
  if (pw.WeightSum() > 0.) {  // Var and Pair require it
    for (unsigned i = 0; i < pw.NColumns(); ++i) {
      const vorel::VarStats v = pw.Var(i);
      out << "  column " << i << ": " << v.NRows() << " rows, mean " << v.Mean() << ", variance "
          << v.CSS() / (v.WeightSum() - 1) << "\n";
    }
    for (unsigned i = 0; i < pw.NColumns(); ++i)
      for (unsigned j = 0; j < i; ++j) {
        // Each pair has its own rows, means and sums: those where both are present.
        const vorel::PairStats p = pw.Pair(i, j);
        out << "  r(" << i << ", " << j << ") = " << p.CSCP() / std::sqrt(p.CSS0() * p.CSS1())
            << " over " << p.NRows() << " rows\n";
      }
  }
}

}  // namespace example

// The survey's rows (x, y, z); the thread count is the first argument, 0 (the
// host's) if none is given.
int main(int argc, char** argv) {
  const std::vector<example::Row> rows = {
      {1, 2, 1}, {2, 4, -99}, {3, 5, 2}, {4, 4, 3}, {5, 5, 5}, {6, -99, 8},
  };
  example::Summarise(rows, argc > 1 ? std::atoi(argv[1]) : 0, std::cout);
}
