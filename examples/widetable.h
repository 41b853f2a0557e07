// A wide table in column blocks: S blocks on the diagonal, NS blocks off it,
// read in batches on a pool of threads and merged block by block.
#pragma once

#include <vorel/vorel.h>

#include <algorithm>
#include <cstddef>
#include <memory>
#include <utility>
#include <vector>

// The columns [0, cuts.back()) cut into parts [cuts[p], cuts[p + 1]).
class WideTable {
 public:
  explicit WideTable(std::vector<int> cuts) : _cuts(std::move(cuts)) {
    for (int p = 0; p < Parts(); ++p)  // on the diagonal: each part with itself
      _blocks.push_back(std::make_unique<vorel::SMatrixListwise>(_cuts[p], _cuts[p + 1]));
    for (int p = 0; p + 1 < Parts(); ++p)  // off it: each part with all later columns
      _blocks.push_back(
          std::make_unique<vorel::NSMatrixListwise>(_cuts[p], _cuts[p + 1], _cuts.back()));
  }

  // A listwise block centres its columns in the batch it is given, and blocks
  // overlap, so each block gets a copy of its own.
  void Add(const vorel::DataBatch& batch) {
    for (auto& block : _blocks) {
      vorel::DataBatch copy = batch;
      *block += copy;
    }
  }
  // Block by block, through the common interface.
  void Add(const WideTable& other) {
    for (std::size_t k = 0; k < _blocks.size(); ++k)
      *_blocks[k] += *other._blocks[k];
  }

  double Mean(int x) const { return Diagonal(Part(x)).Mean(x); }
  double CCP(int x, int y) const {
    if (x > y) std::swap(x, y);
    if (Part(x) == Part(y)) return Diagonal(Part(x)).CCP(x, y);
    return OffDiagonal(Part(x)).CCP(x, y);
  }

 private:
  int Parts() const { return static_cast<int>(_cuts.size()) - 1; }
  int Part(int x) const {
    return static_cast<int>(std::upper_bound(_cuts.begin(), _cuts.end(), x) - _cuts.begin()) - 1;
  }
  const vorel::SMatrixListwise& Diagonal(int p) const {
    return static_cast<const vorel::SMatrixListwise&>(*_blocks[p]);
  }
  const vorel::NSMatrixListwise& OffDiagonal(int p) const {
    return static_cast<const vorel::NSMatrixListwise&>(*_blocks[Parts() + p]);
  }

  std::vector<int> _cuts;
  std::vector<std::unique_ptr<vorel::MatrixBase>> _blocks;
};

// A pass on a pool of threads: each worker keeps a WideTable of its own rows.
class WideProblem : public vorel::ProblemBase {
 public:
  WideProblem(const std::vector<std::vector<double>>& table, const std::vector<int>& parts)
      : rows(table), cuts(parts), result(parts) {}
  vorel::WorkerBase* CreateWorker() override;

  const std::vector<std::vector<double>>& rows;  // the table, row by row
  std::size_t next = 0;                          // the next row to read
  const std::vector<int> cuts;
  WideTable result;
};

class WideWorker : public vorel::WorkerBase {
 public:
  explicit WideWorker(WideProblem& problem)
      : _problem(problem),
        _mine(problem.cuts),
        _batch(static_cast<unsigned>(problem.cuts.back()), kBatchRows, nullptr, nullptr, nullptr) {}

  bool ReadBatch() override {  // under the read lock
    _batch.Clear();
    while (_batch.NRows() < kBatchRows && _problem.next < _problem.rows.size())
      _batch.AddRow(_problem.rows[_problem.next++].data());
    return _batch.NRows() > 0;
  }
  void ProcessBatch() override { _mine.Add(_batch); }          // no lock
  void MergeResult() override { _problem.result.Add(_mine); }  // under the result lock

  static constexpr unsigned kBatchRows = 256;

 private:
  WideProblem& _problem;
  WideTable _mine;
  vorel::DataBatch _batch;
};

inline vorel::WorkerBase* WideProblem::CreateWorker() { return new WideWorker(*this); }
