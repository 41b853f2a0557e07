// DiscIndividualMatrix: raw weighted sums and cross-products, group by group,
// for a discriminant analysis.
//
// For each group g it keeps the lower triangle, diagonal included, of the
// cross-product matrix of the variables with a column of ones behind them:
// with n = NVar(), w a row's frequency weight (1 when the batch has none) and
// sums over the rows of group g,
//
//   entry i(i+1)/2 + j, 0 <= j <= i < n    sum of (w * x_i) * x_j
//   entry n(n+1)/2 + i, 0 <= i < n         sum of w * x_i
//   entry n(n+1)/2 + n                     sum of w
//
// countMatrix = (n+1)(n+2)/2 entries per group. Regression weights play no
// part; nothing is centred and no value counts as missing, so partial results
// join by plain addition, cell by cell. Within a batch each sum runs over the
// group's rows in the order they were added; each batch is totalled on its own
// and its totals are then added to what the matrix holds. WeightSum() is the
// batch's weights totalled in group order.
//
// Batches are DataBatchByGroup objects on which the caller has called
// SortByGroup. The caller also keeps their NGroups() at or below NGroup():
// neither is tested, and a batch with fewer groups leaves the higher ones
// alone. Plain DataBatch objects are refused by an assertion.
//
// An object is empty until its first batch with rows, or its first merge with
// an object that has rows; then it holds its table at full size for good. A
// default-constructed object has no shape (NGroup() and NVar() are 0) and can
// only be the target of a merge, from which it takes its shape.
//
// Reading: NRows(), WeightSum(), NVar() and NGroup() can be read at any time
// and are 0 on an empty object. Both TSSP forms require 0. < WeightSum(),
// which fails on an empty object and after rows whose weights total zero, a
// negative amount or NaN.
//
// TSSP(row, col, groupVal) addresses that triangle by variable numbers: row
// and col run from 0 to NVar(), where NVar() stands for the column of ones,
// and either order gives the same entry, hi(hi+1)/2 + lo with hi and lo the
// larger and the smaller. So TSSP(i, j, g) is the sum of (w * x_i) * x_j
// (the diagonal for i == j), TSSP(NVar(), i, g) the sum of w * x_i and
// TSSP(NVar(), NVar(), g) the total weight of the group: every entry can be
// read as a cell of one symmetric (NVar()+1) x (NVar()+1) matrix. (The other
// reading, with a variable i at i+1 and row 0 reaching no variable, was
// rejected: it maps (0, 0) and (1, 0) onto the same entry and leaves the sums
// reachable only by index.)
//
// Copying: the copy constructor and operator= make deep copies; the moves
// hand the record over, and a moved-from object may only be destroyed or
// assigned to.
#pragma once

#include <vorel/matrixbase.h>
#include <vorel/recordhandle.h>
#include <vorelhost/assertion.h>

namespace vorel {

class DataBatch;
class DataBatchByGroup;
struct DiscIndividualMatrixData;
extern template class internal::RecordHandle<DiscIndividualMatrixData>;

class DiscIndividualMatrix : public MatrixBase {
 public:
  // No shape: only the target of a merge.
  DiscIndividualMatrix();
  // nGroup groups (numbered 0 to nGroup-1) and nVar variables, the columns of
  // every batch. Nothing is tested or allocated until the first batch.
  DiscIndividualMatrix(int nGroup, int nVar);

  // Rows accumulated so far; a merged object whose weights totalled 0 and a
  // later batch whose weights total 0 add none.
  int NRows() const override;
  // Adds other, which must be a DiscIndividualMatrix (the assertion
  // "d != nullptr" fails otherwise), by addition; an empty target becomes a deep copy of other,
  // shape and all. An other without rows changes nothing. other is only read.
  MatrixBase& operator+=(MatrixBase& other) override;
  // Adds a sorted grouped batch of NVar() columns; a batch without rows changes
  // nothing. The batch is only read.
  MatrixBase& operator+=(DataBatchByGroup& data) override;
  // Not for ungrouped batches: always fails its assertion and changes nothing.
  MatrixBase& operator+=(DataBatch& data) override {
    static_cast<void>(data);
    VOREL_ASSERT(false);
    return *this;
  }

  // Readable at any time, without preconditions: total weight of all rows
  // accumulated (0 while empty), and the shape (0 and 0 on a default-made
  // object until its first merge).
  double WeightSum() const;
  int NVar() const;
  int NGroup() const;

  // Both TSSP forms check their numbers and require "0. < WeightSum()", so an
  // empty object answers neither.

  // Entry tsspIndex (0 to countMatrix-1, laid out as above) of group groupVal.
  double TSSP(int tsspIndex, int groupVal) const;
  // Entry of row and col (each 0 to NVar(), NVar() being the column of ones)
  // of group groupVal; TSSP(row, col, g) equals TSSP(col, row, g).
  double TSSP(int row, int col, int groupVal) const;

 private:
  internal::RecordHandle<DiscIndividualMatrixData> _my;
};

}  // namespace vorel
