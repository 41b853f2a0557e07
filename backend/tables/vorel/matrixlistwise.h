// MatrixListwise: weighted row count, column means and corrected
// cross-products of all columns of a batch, with listwise deletion.
//
// Every row that reaches the matrix counts for every column (rows with missing
// values are dropped before the batch is filled; no missing code is looked
// at). Each batch is reduced on its own, means first and then the products of
// its centred columns, and folded into what has been gathered by an update
// formula on means and corrected sums; the same update joins the matrices of
// different workers. No sum of raw products is ever kept, so a column of one
// repeated value keeps that value exactly as its mean and exactly 0.0 as its
// cross-products, and the split of the rows into batches and threads changes
// nothing but rounding.
//
// Weights. Means and cross-products weigh each row by its combined weight,
// weight x regression weight, a factor the batch lacks counting as 1.
// WeightSum() totals the frequency weights (the row count without weights);
// RegWeightSum() totals the combined weights and equals WeightSum() when the
// batches carry no regression weights.
//
// Adding a batch spends it: its columns are left centred on the batch's own
// means, and with both weights and regression weights its Weights() hold the
// combined weights. Clear and refill it before the next use. An empty batch is
// left untouched and changes nothing.
//
// Arithmetic faults are not tested: a NaN cell makes its column's mean and
// every cross-product of that column NaN; a first batch whose combined weights
// total 0 leaves NaN means in its non-constant columns. A batch or matrix whose
// frequency weights total exactly 0, added to a filled matrix, changes nothing,
// its rows included.
//
// Limits: row counts are 64-bit. The store holds (n + 1) n / 2 cells, indexed
// in 32 bits; a batch of more than 65,535 columns raises std::length_error
// ("vector<T> too long") before anything changes. Failed allocations raise
// std::bad_alloc.
//
// Ownership: the handle owns its record. The copy constructor
// and operator= copy it deeply (operator= is self-assignment safe and leaves
// the target as it was if an allocation fails); moves transfer it, and a
// moved-from matrix may only be destroyed or assigned to.
//
// No locks: one thread at a time per matrix.
#pragma once

#include <vorel/recordhandle.h>

#include <cstdint>

namespace vorel {

class DataBatch;
struct MatrixListwiseData;
extern template class internal::RecordHandle<MatrixListwiseData>;

class MatrixListwise {
 public:
  // An empty matrix: no columns, no rows, both sums 0.0, no regression weights.
  MatrixListwise();

  // Adds a batch and spends it (see above). Once filled, every batch must have
  // the matrix's number of columns and regression weights exactly if it has.
  MatrixListwise& operator+=(DataBatch& data);
  // Adds the result of another matrix, which is not changed and may be *this.
  // Into an empty matrix this is an independent copy.
  MatrixListwise& operator+=(const MatrixListwise& d);

  // Readable at any time; 0 while empty.
  unsigned NColumns() const;
  std::uint64_t NRows() const;
  double WeightSum() const;
  bool HasRegWeights() const;
  double RegWeightSum() const;

  // The weighted mean of column col. Requires "col < NColumns()" and
  // "0. < WeightSum()" (false for 0, negative sums and NaN).
  double Mean(unsigned col) const;
  // The corrected cross-product of two columns, a sum not divided by anything;
  // CCP(i, j) == CCP(j, i) and CCP(i, i) is the corrected sum of squares.
  // Requires "row < NColumns()", "col < NColumns()" and "0. < WeightSum()".
  double CCP(unsigned row, unsigned col) const;

 private:
  internal::RecordHandle<MatrixListwiseData> _my;
};

}  // namespace vorel
