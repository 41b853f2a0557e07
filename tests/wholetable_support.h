// Test data for the whole-table matrices: a table held row by row, and
// batches cut from any range of its rows.
#pragma once

#include <vorel/databatch.h>

#include <algorithm>
#include <cstddef>
#include <random>
#include <vector>

// A namespace of its own: the test executable holds other tables too.
namespace vorel::testing::wholetable {

class Table {
 public:
  Table(unsigned nCols, bool hasWeights, bool hasRegWeights)
      : _nCols(nCols), _hasWeights(hasWeights), _hasRegWeights(hasRegWeights) {}

  void AddRow(std::vector<double> cells, double weight = 1.0, double regWeight = 1.0) {
    _rows.push_back(std::move(cells));
    _weights.push_back(weight);
    _regWeights.push_back(regWeight);
  }

  unsigned NColumns() const { return _nCols; }
  std::size_t NRows() const { return _rows.size(); }
  double Cell(std::size_t row, unsigned col) const { return _rows[row][col]; }
  // Null when the table has no such column, as in a batch.
  const double* Weights() const { return _hasWeights ? _weights.data() : nullptr; }
  const double* RegWeights() const { return _hasRegWeights ? _regWeights.data() : nullptr; }

  // An empty batch of this table's shape with room for `capacity` rows (at least one).
  DataBatch EmptyBatch(std::size_t capacity) const {
    return DataBatch(_nCols, static_cast<unsigned>(std::max<std::size_t>(1, capacity)),
                     _hasWeights ? &_weight : nullptr, _hasRegWeights ? &_regWeight : nullptr,
                     nullptr);
  }
  // A batch holding rows [begin, end).
  DataBatch Batch(std::size_t begin, std::size_t end) const {
    DataBatch batch = EmptyBatch(end - begin);
    Fill(batch, begin, end);
    return batch;
  }
  // Clears batch and fills it with rows [begin, end); it must have room.
  void Fill(DataBatch& batch, std::size_t begin, std::size_t end) const {
    batch.Clear();
    for (std::size_t r = begin; r < end; ++r)
      Append(batch, r);
  }
  // Adds row r to a batch made by Batch().
  void Append(DataBatch& batch, std::size_t r) const {
    _weight = _weights[r];
    _regWeight = _regWeights[r];
    batch.AddRow(_rows[r].data());
  }

  // Column-major copies of the cells, for references written as loops.
  std::vector<double> Column(unsigned col, std::size_t begin, std::size_t end) const {
    std::vector<double> column;
    for (std::size_t r = begin; r < end; ++r)
      column.push_back(_rows[r][col]);
    return column;
  }

 private:
  unsigned _nCols;
  bool _hasWeights, _hasRegWeights;
  std::vector<std::vector<double>> _rows;
  std::vector<double> _weights, _regWeights;
  // A batch reads a row's weights through pointers to these at each AddRow.
  mutable double _weight = 0.0, _regWeight = 0.0;
};

// Random cells around `offset` with spread about 1; weights in [0.25, 4).
inline Table RandomTable(std::mt19937_64& rng, unsigned nCols, std::size_t nRows, bool hasWeights,
                         bool hasRegWeights, double offset = 0.0) {
  std::uniform_real_distribution<double> cell(-1, 1), weight(0.25, 4);
  Table table(nCols, hasWeights, hasRegWeights);
  for (std::size_t r = 0; r < nRows; ++r) {
    std::vector<double> cells(nCols);
    for (double& c : cells)
      c = offset + cell(rng);
    table.AddRow(std::move(cells), weight(rng), weight(rng));
  }
  return table;
}

}  // namespace vorel::testing::wholetable
