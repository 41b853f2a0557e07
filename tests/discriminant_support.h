// Rows with groups and weights for the tests of the discriminant tables.
#pragma once

#include <vorel/databatch.h>
#include <vorel/databatchbygroup.h>
#include <vorel/driver.h>

#include <algorithm>
#include <cstddef>
#include <functional>
#include <memory>
#include <random>
#include <vector>

namespace vorel::testing {

// Rows of nVar cells, each with a group and a weight, kept row by row.
struct GroupedRows {
  int nVar = 0;
  std::vector<unsigned> groups;
  std::vector<double> weights;
  std::vector<double> cells;  // row r starts at r * nVar

  std::size_t size() const { return groups.size(); }
  const double* Row(std::size_t r) const { return cells.data() + r * nVar; }
  double Cell(std::size_t r, int var) const { return cells[r * nVar + var]; }
  void Add(unsigned group, double weight, std::vector<double> row) {
    groups.push_back(group);
    weights.push_back(weight);
    cells.insert(cells.end(), row.begin(), row.end());
  }
};

// nRows rows whose groups are drawn from usedGroups. Dyadic rows hold small
// integers and power-of-two weights, so that no sum of them rounds, in any
// order; other rows hold values of both signs with fractional weights, some 0.
inline GroupedRows RandomRows(unsigned seed, int nVar, std::size_t nRows,
                              const std::vector<unsigned>& usedGroups, bool dyadic) {
  std::mt19937 engine(seed);
  std::uniform_int_distribution<std::size_t> pickGroup(0, usedGroups.size() - 1);
  std::uniform_int_distribution<int> smallInt(-8, 8);
  std::uniform_int_distribution<int> powerOfTwo(-1, 2);
  std::uniform_real_distribution<double> value(-50.0, 50.0);
  std::uniform_real_distribution<double> weight(0.0, 3.0);
  GroupedRows rows;
  rows.nVar = nVar;
  for (std::size_t r = 0; r < nRows; ++r) {
    std::vector<double> row(nVar);
    for (double& cell : row)
      cell = dyadic ? smallInt(engine) : value(engine);
    double w = 0.0;
    if (dyadic) {
      const int power = powerOfTwo(engine);
      w = power < 0 ? 0.5 : static_cast<double>(1 << power);
    } else {
      w = r % 7 == 3 ? 0.0 : weight(engine);
    }
    rows.Add(usedGroups[pickGroup(engine)], w, std::move(row));
  }
  return rows;
}

// A copy of rows in which every row weighs something, so that no batch of
// them can total zero and drop out.
inline GroupedRows WithoutZeroWeights(GroupedRows rows) {
  for (double& w : rows.weights)
    if (w == 0.0) w = 1.0;
  return rows;
}

inline void AddRowTo(DataBatch& batch, const GroupedRows& rows, std::size_t r) {
  batch.AddRow(rows.Row(r));
}
inline void AddRowTo(DataBatchByGroup& batch, const GroupedRows& rows, std::size_t r) {
  std::copy(rows.Row(r), rows.Row(r) + rows.nVar, batch.Row(batch.NRows()));
  batch.AddRow();
}
inline void PrepareBatch(DataBatch&) {}
inline void PrepareBatch(DataBatchByGroup& batch) { batch.SortByGroup(); }

// One pass of Driver over `rows`: each worker takes up to `capacity` rows a
// batch under the read lock, adds the batch to a matrix of its own (a copy of
// `prototype`) and merges that into `result` at the end.
template <class Matrix, class Batch>
class RowsProblem : public ProblemBase {
 public:
  // A batch whose weights and groups are read from the two variables given.
  using MakeBatch = std::function<std::unique_ptr<Batch>(const double*, const unsigned*)>;

  RowsProblem(const GroupedRows& rows, unsigned capacity, const Matrix& prototype, Matrix& result,
              MakeBatch makeBatch)
      : _rows(rows),
        _capacity(capacity),
        _prototype(prototype),
        _result(result),
        _makeBatch(std::move(makeBatch)) {}

  WorkerBase* CreateWorker() override { return new Worker(*this); }

 private:
  class Worker : public WorkerBase {
   public:
    explicit Worker(RowsProblem& problem)
        : _problem(problem),
          _matrix(problem._prototype),
          _batch(problem._makeBatch(&_weight, &_group)) {}

    bool ReadBatch() override {
      _batch->Clear();
      while (_batch->NRows() < _problem._capacity && _problem._next < _problem._rows.size()) {
        const std::size_t r = _problem._next++;
        _weight = _problem._rows.weights[r];
        _group = _problem._rows.groups[r];
        AddRowTo(*_batch, _problem._rows, r);
      }
      return _batch->NRows() > 0;
    }
    void ProcessBatch() override {
      PrepareBatch(*_batch);
      _matrix += *_batch;
    }
    void MergeResult() override { _problem._result += _matrix; }

   private:
    RowsProblem& _problem;
    double _weight = 0.0;
    unsigned _group = 0;
    Matrix _matrix;
    std::unique_ptr<Batch> _batch;
  };

  const GroupedRows& _rows;
  const unsigned _capacity;
  const Matrix& _prototype;
  Matrix& _result;
  MakeBatch _makeBatch;
  std::size_t _next = 0;  // next row to read; only under the read lock
};

}  // namespace vorel::testing
