// DiscriminantMatrix: raw weighted sums by group for a discriminant analysis.
//
// For each group g and variable i it keeps
//   sumW(g)      = sum of w            over the rows of group g
//   sumX1(g, i)  = sum of w * x_i      over the rows of group g
//   sumX2(g, i)  = sum of (w * x_i) * x_i over the rows of group g
// and over all rows together, for every pair of different variables,
//   TSSP(i, j)   = sum of (w * x_i) * x_j.
// w is the row's frequency weight (1 when the batch has none); regression
// weights play no part. Nothing is centred and no value counts as missing, so
// partial results join by plain addition, cell by cell. Each sum runs in row
// order within a batch; each batch is totalled on its own and its totals are
// then added to what the matrix holds.
//
// Batches are plain DataBatch objects that carry a group number for every row;
// group numbers go straight into the tables. The caller guarantees that the
// batch has groups and that every group is below NGroup(): neither is tested,
// as that would cost a test per row. The batch is only read. Grouped batches
// (DataBatchByGroup) are ignored by this class.
//
// An object is empty until its first batch with rows, or its first merge with
// an object that has rows; then it holds all its tables at their full size
// for good. A default-constructed object has no shape (NGroup() and NVar()
// are 0) and can only be the target of a merge, from which it takes its shape.
//
// Reading: NRows(), WeightSum(), NVar() and NGroup() can be read at any time
// and are 0 on an empty object. sumW, sumX1, sumX2 and TSSP require
// 0. < WeightSum(), which fails on an empty object and after rows whose
// weights total zero, a negative amount or NaN.
//
// The diagonal, TSSP(i, i), is the total sum of squares of variable i over
// all rows: the sum of sumX2(g, i) over the groups g = 0, 1, ..., NGroup()-1,
// added in that order from 0.0. So TSSP(i, j) reads as the whole symmetric
// matrix of total sums of squares and products, which is what a discriminant
// analysis takes apart into its between- and within-group parts; the store
// itself has no diagonal, and this is the only value it works out on reading.
//
// Copying: the copy constructor and operator= make deep copies; the moves
// hand the record over, and a moved-from object may only be destroyed or
// assigned to.
#pragma once

#include <vorel/matrixbase.h>
#include <vorel/recordhandle.h>

namespace vorel {

class DataBatch;
struct DiscriminantMatrixData;
extern template class internal::RecordHandle<DiscriminantMatrixData>;

class DiscriminantMatrix : public MatrixBase {
 public:
  // No shape: only the target of a merge.
  DiscriminantMatrix();
  // nGroup groups (numbered 0 to nGroup-1) and nVar variables, the columns of
  // every batch. Nothing is tested or allocated until the first batch.
  DiscriminantMatrix(int nGroup, int nVar);

  // Rows accumulated so far; a merged object whose weights totalled 0 and a
  // later batch whose weights total 0 add none.
  int NRows() const override;
  // Adds other, which must be a DiscriminantMatrix (the assertion
  // "d != nullptr" fails otherwise), by addition; an empty target becomes a deep copy of other,
  // shape and all. An other without rows changes nothing. other is only read.
  MatrixBase& operator+=(MatrixBase& other) override;
  using MatrixBase::operator+=;
  // Adds a batch of NVar() columns with groups; a batch without rows changes
  // nothing. The batch is only read.
  MatrixBase& operator+=(DataBatch& data) override;

  // Readable at any time, without preconditions: total weight of all rows
  // accumulated (0 while empty), and the shape (0 and 0 on a default-made
  // object until its first merge).
  double WeightSum() const;
  int NVar() const;
  int NGroup() const;

  // Each accessor below checks its group and variable numbers and requires
  // "0. < WeightSum()", so an empty object answers none.
  // Total weight of group c.
  double sumW(int c) const;
  // Weighted sum of variable var over the rows of group group.
  double sumX1(int group, int var) const;
  // Weighted sum of squares of variable var over the rows of group group.
  double sumX2(int group, int var) const;
  // Weighted sum of products of variables row and col over all rows, in
  // either order; for row == col the total sum of squares (see above).
  double TSSP(int row, int col) const;

 private:
  internal::RecordHandle<DiscriminantMatrixData> _my;
};

}  // namespace vorel
