// NSMatrixPairwise: statistics of a block of columns split in two, with
// pairwise deletion of missing values.
//
// The block [Col0(), Col2()) is split at Col1() into a first set
// [Col0(), Col1()) and a second set [Col1(), Col2()). The matrix keeps one
// VarStat per column of the whole block and one PairStat for each column of
// the first set with each column of the second set: a rectangle. Pairs within
// one set are not held; an SMatrixPairwise over each set holds them, so the
// three blocks together cover every pair of [Col0(), Col2()).
//
// A row counts for a column when that column's cell does not compare equal to
// the missing code, and for a pair when neither cell does; a NaN cell is kept
// (and makes its figures NaN), a NaN missing code drops nothing. Beside these
// records the matrix totals every row it was given, missing cells or not:
// NRows(), WeightSum(), RegWeightSum().
//
// Each batch is reduced column by column, then pair by pair, to temporary
// records, which are folded into the long-lived ones by the update formula of
// VarStat and PairStat; two matrices merge the same way, record by record. The
// batch is only read, so one batch can go into several matrices.
//
// Pairs: for a column a of the first set and b of the second, Pair(a, b) and
// Pair(b, a) are the same object, whose first variable (Mean0, CSS0) is a, the
// earlier column, and whose second variable (Mean1, CSS1) is b. The pair's
// figures cover only the rows where both cells are present.
//
// Bounds are fixed at construction. The caller keeps col0 < col1 < col2 <=
// NColumns() of every batch; they are not checked here, but a column outside
// the batch fails the batch's own column check.
//
// Reading. NRows(), WeightSum(), RegWeightSum(), HasRegWeights(),
// MissingCode(), NColumns() and the bounds can be read at any time; NColumns()
// is 0 until the first batch with rows. Var and Pair take column numbers of
// the batches and require 0. < WeightSum(), which fails on an empty matrix and
// after rows whose weights total 0, a negative amount or NaN. They return the
// matrix's own long-lived records, valid as long as the matrix and showing
// every later batch or merge. Pair also asserts, beyond the column checks,
// that one column lies in each set: two columns of one set have no record.
//
// Merging (operator+= with a MatrixBase&): other must be an NSMatrixPairwise
// (the assertion "d != nullptr" fails otherwise) and is only read. An other without rows changes
// nothing. An empty target becomes a deep copy of other, bounds and missing
// code included. Otherwise both must have the same number of columns and
// agree in having regression weights; an other whose WeightSum() is exactly 0
// then changes nothing, its rows included. A matrix may be added to itself.
//
// Copying: the copy constructor and operator= make deep copies, every record
// duplicated; moves hand the record over, and a moved-from matrix may only be
// destroyed or assigned to.
//
// Threads: none inside. A matrix belongs to one thread at a time; even two
// batches for one matrix must follow one another, since they share its
// scratch.
#pragma once

#include <vorel/matrixbase.h>
#include <vorel/recordhandle.h>
#include <vorel/statrecords.h>

namespace vorel {

class DataBatch;
struct NSMatrixPairwiseData;
extern template class internal::RecordHandle<NSMatrixPairwiseData>;

class NSMatrixPairwise : public MatrixBase {
 public:
  // The first set [col0, col1) and the second set [col1, col2).
  NSMatrixPairwise(double missingCode, int col0, int col1, int col2);

  // Every row given, missing cells or not; 0 while empty. No precondition.
  int NRows() const override;
  using MatrixBase::operator+=;
  MatrixBase& operator+=(MatrixBase& other) override;
  // Adds a batch; a batch without rows changes nothing. Every batch of a
  // matrix has regression weights, or none has.
  MatrixBase& operator+=(DataBatch& data) override;

  // Readable at any time, without preconditions; on an empty matrix each
  // gives 0 (false for HasRegWeights), the missing code and the bounds as
  // constructed.
  // Total frequency weight of every row given (the row count without weights).
  double WeightSum() const;
  // Total combined weight of every row given; WeightSum() without regression weights.
  double RegWeightSum() const;
  bool HasRegWeights() const;
  double MissingCode() const;
  int Col0() const;
  int Col1() const;
  int Col2() const;
  // Columns of the whole block once filled; 0 while empty.
  int NColumns() const;

  // The record of column col, of either set. Requires Col0() <= col < Col2()
  // and 0. < WeightSum().
  VarStat& Var(int col) const;
  // The record of the pair of columns row and col, in either order; its first
  // variable is the column of the first set. Requires both in the block,
  // row != col, 0. < WeightSum(), and one column in each set.
  PairStat& Pair(int row, int col) const;

 private:
  internal::RecordHandle<NSMatrixPairwiseData> _my;
};

}  // namespace vorel
