// The body that the two listwise column blocks share: the record's fields,
// the reduction of a first batch and the skeleton of the merge. The shape of
// the cross-product store (the triangle of SMatrixListwise, the rectangle of
// NSMatrixListwise) is the part each block writes itself, with its checks, in
// its own source file, so that a breached check reports that file.
//
// Block is the derived record (SMatrixListwiseData, NSMatrixListwiseData). It
// provides
//   void CheckFirstBatch(const DataBatch&)      "!_xp" and the bounds, settling
//                                               them where the block may;
//   std::size_t CellCount() const               cells of _xp, checked;
//   void SizeOwnStores()                        stores beyond the shared ones;
//   void FillCells(const ColumnBlock&, const double* w, int rows)
//                                               centres the block's columns and
//                                               fills _xp from them;
//   void CheckMerge(const Block& d) const       the preconditions of Merge;
//   void JoinCells(const Block& d, double* newMeans, double a, double b)
//                                               the joined extremes, means and
//                                               cells, the old means unchanged.
//
// Internal to the library.
#pragma once

#include <vorel/databatch.h>
#include <vorel/initialextremes.h>
#include <vorel/ownedarray.h>

#include <algorithm>
#include <cstddef>
#include <vector>

#include "kernels/columnkernels.h"
#include "kernels/crossproducts.h"
#include "meansscratch.h"
#include "updateformula.h"

namespace vorel::internal {

struct BlockBounds {
  int col0;
  int col1;
  int col2;
};

template <class Block>
class ListwiseBlockData {
 public:
  explicit ListwiseBlockData(BlockBounds bounds)
      : _col0(bounds.col0), _col1(bounds.col1), _col2(bounds.col2) {}

  // Empty until the first batch or merge with rows fills _xp.
  bool Empty() const { return !_xp; }
  Block EmptyOfSameShape() const { return Block(BlockBounds{_col0, _col1, _col2}); }
  int NColumns() const { return static_cast<int>(_means.size()); }
  // The position in the stores of batch column c.
  std::size_t Position(int c) const { return static_cast<std::size_t>(c - _col0); }

  // Reduces the first batch into this empty record; centres the batch's block
  // columns in place and, with both kinds of weight, makes its Weights() the
  // combined weights.
  void Accumulate(DataBatch& data) {
    Block& self = AsBlock();
    self.CheckFirstBatch(data);
    const int rows = static_cast<int>(data.NRows());
    _hasRegWeights = data.RegWeights() != nullptr;
    _nRows = rows;

    const int nCols = _col2 - _col0;
    const std::size_t nCells = self.CellCount();
    _means.assign(static_cast<std::size_t>(nCols), 0.0);
    _mins.assign(static_cast<std::size_t>(nCols), MinInitial);
    _maxs.assign(static_cast<std::size_t>(nCols), MaxInitial);
    self.SizeOwnStores();
    _xp = OwnedArray<double>(nCells);  // every cell is written below

    // The frequency weights are totalled before they become the combined weights.
    _weightSum = SumWeights(data.Weights(), rows);
    // Only the first operand is written: the regression weights are just read.
    const double* w = MultiplyInPlace(data.Weights(), const_cast<double*>(data.RegWeights()), rows);
    _regWeightSum = _hasRegWeights ? SumValues(w, rows) : _weightSum;

    // Means and extremes (of the cells as added) in one sweep over each column.
    const ColumnBlock block = BatchColumns(data, static_cast<unsigned>(_col0), nCols);
    ColumnPass(block, w, _regWeightSum, rows, _means.data(), _mins.data(), _maxs.data());
    self.FillCells(block, w, rows);
  }

  // Folds d into this filled record; d is only read and may be this record.
  void Merge(const Block& d) {
    Block& self = AsBlock();
    self.CheckMerge(d);
    // Exactly zero frequency weight: nothing of d counts, not even its rows.
    if (d._weightSum == 0.0) return;

    const double a = _regWeightSum;
    const double b = d._regWeightSum;
    MeansScratch scratch(_means.size());
    double* newMeans = scratch.data();
    self.JoinCells(d, newMeans, a, b);

    // Only now: the cells above read the old means.
    std::copy(newMeans, newMeans + _means.size(), _means.begin());
    _weightSum += d._weightSum;
    _regWeightSum = a + b;
    _nRows += d._nRows;
  }

  double _weightSum = 0.0;     // frequency weight of all rows
  double _regWeightSum = 0.0;  // combined weight of all rows
  int _nRows = 0;
  std::vector<double> _means;  // one per block column; empty while empty
  std::vector<double> _mins;   // of the cells as added, whatever their weight
  std::vector<double> _maxs;
  int _col0;
  int _col1;
  int _col2;
  OwnedArray<double> _xp;  // corrected cross-products; no cells while empty
  bool _hasRegWeights = false;

 protected:
  // The extremes and the joined mean of block position k, into newMeans[k].
  JoinedMean JoinColumn(const Block& d, std::size_t k, double* newMeans, double a, double b) {
    _maxs[k] = JoinMaximumKeepingTies(_maxs[k], d._maxs[k]);
    _mins[k] = JoinMinimumKeepingTies(_mins[k], d._mins[k]);
    const JoinedMean m = JoinMeans(_means[k], a, d._means[k], b);
    newMeans[k] = m.mean;
    return m;
  }

  // The cells of one row of a cross-product store, from its first cell on:
  // count cells against the block positions first to first + count - 1.
  void JoinRow(const Block& d, const double* newMeans, std::size_t first, RowFactors row,
               std::size_t count, int& xpindex) {
    for (std::size_t c = 0; c < count; ++c, ++xpindex) {
      const std::size_t m = first + c;
      const auto cell = static_cast<std::size_t>(xpindex);
      _xp[cell] = JoinCell(newMeans[m], _means[m], d._means[m], row, d._xp[cell], _xp[cell]);
    }
  }

  CrossProductJob JobOver(const ColumnBlock& block, const double* w, int rows) {
    CrossProductJob job;
    job.cols = block;
    job.weights = w;
    job.nRows = rows;
    job.centre = _means.data();
    return job;
  }

 private:
  Block& AsBlock() { return static_cast<Block&>(*this); }
};

}  // namespace vorel::internal
