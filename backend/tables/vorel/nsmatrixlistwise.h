// NSMatrixListwise: listwise statistics of one set of columns against another.
//
// The block [Col0(), Col2()) is split at Col1() into a first set [Col0(),
// Col1()) and a second set [Col1(), Col2()). For every column of the block it
// gathers the mean, the smallest and largest value and the corrected sum of
// squares; for each column of the first set with each column of the second it
// gathers the corrected cross-product: a rectangle, not a triangle. Pairs
// within one set are not kept; an S block over each set covers them, which is
// how a wide table is split among workers (see the blocks section of the
// README). Listwise: every row counts for every column, so rows with a missing
// value must be dropped before they reach the batch.
//
// Each batch is reduced on its own: the block's columns are centred in place
// on the batch's means, and the products of the centred columns are taken.
// Every later batch, and every other matrix added with operator+=(MatrixBase&),
// is folded in by an update formula on means and corrected sums alone, so a
// column of one repeated value keeps that value exactly as its mean, and with
// positive weights the split into batches and threads changes nothing but
// rounding.
//
// Weights: a row's weight is its frequency weight times its regression weight
// (a factor the batch lacks counts as 1). WeightSum() totals the frequency
// weights (the row count without them); RegWeightSum() totals the combined
// weights and is the figure every mean and cross-product is weighed with.
//
// The three bounds are fixed at construction and checked at the first batch
// with rows, not before; every batch must hold the block's columns, and all
// batches must agree in having regression weights or not.
//
// A batch given to operator+= is spent: the block's columns are centred and,
// with both kinds of weight, Weights() becomes the combined weights. Clear and
// refill it. An empty batch changes nothing. A grouped batch is ignored.
//
// Accessors take batch column numbers. Mean, Min and CCP require
// "0. < WeightSum()", which is false for a sum of 0, a negative sum and NaN;
// Max does not, and on a matrix that saw no rows it returns MaxInitial.
//
// Copying a matrix copies its record deeply; moves take the record over and
// leave the source without one (it may then only be destroyed or assigned to).
// operator+=(MatrixBase&) with an object of another class fails the assertion
// "d != nullptr". CCP of two different columns of one set, which have no cell,
// fails "lo < _my->_col1 && hi >= _my->_col1". The rectangle is indexed by
// int: more than 2^31 - 1 cells raise std::length_error ("vector<T> too long")
// at the first batch.
#pragma once

#include <vorel/matrixbase.h>
#include <vorel/recordhandle.h>

namespace vorel {

class DataBatch;
class NSMatrixListwiseData;
extern template class internal::RecordHandle<NSMatrixListwiseData>;

class NSMatrixListwise : public MatrixBase {
 public:
  // A block over the batch columns [col0, col2), split at col1; the bounds
  // must satisfy col0 < col1 < col2.
  NSMatrixListwise(int col0, int col1, int col2);

  using MatrixBase::operator+=;
  // Adds a batch; centres the block's columns in the batch itself.
  MatrixBase& operator+=(DataBatch& data) override;
  // Merges another NSMatrixListwise, which is only read. Into a matrix that is
  // still empty this is a deep copy of `other`, its bounds included.
  MatrixBase& operator+=(MatrixBase& other) override;

  // Readable at any time, without preconditions; on an empty matrix each
  // gives 0 (false for HasRegWeights) and the bounds as constructed.
  // Rows accumulated.
  int NRows() const override;
  // Sum of the frequency weights.
  double WeightSum() const;
  // Sum of the combined weights; equals WeightSum() without regression weights.
  double RegWeightSum() const;
  bool HasRegWeights() const;
  int Col0() const;
  int Col1() const;
  int Col2() const;
  // Col2() - Col0() once filled; 0 while empty.
  int NColumns() const;

  // Column c is a batch column number; each accessor requires
  // "c < _my->_col2 && c >= _my->_col0" (both columns for CCP), and all but
  // Max require "0. < WeightSum()" too, so an empty matrix answers none.
  // Weighted mean of column c.
  double Mean(int c) const;
  // Smallest cell of column c, whatever its weight.
  double Min(int c) const;
  // Largest cell of column c, whatever its weight; MaxInitial while empty.
  double Max(int c) const;
  // CCP(c, c): the corrected sum of squares of c. For two different columns,
  // in either order, the corrected cross-product; one of them must lie in
  // each set ("lo < _my->_col1 && hi >= _my->_col1"). A sum, not divided by
  // anything.
  double CCP(int row, int col) const;

 private:
  internal::RecordHandle<NSMatrixListwiseData> _my;
};

}  // namespace vorel
