// SMatrixPairwise: statistics of one block of columns with pairwise deletion
// of missing values.
//
// For the block [Col0(), Col2()) it keeps one VarStat per column and one
// PairStat per pair of columns. A row counts for a column when that column's
// cell does not compare equal to the missing code, and for a pair when neither
// cell does; a NaN cell is kept (and makes its figures NaN), a NaN missing code
// drops nothing. Beside these records the matrix totals every row it was
// given, missing cells or not: NRows(), WeightSum(), RegWeightSum().
//
// Each batch is reduced column by column and pair by pair to a temporary
// record, which is folded into the long-lived one by the update formula of
// VarStat and PairStat; two matrices merge the same way, record by record.
// The batch is only read, so one batch can go into several matrices.
//
// Pairs: for columns hi > lo, Pair(hi, lo) and Pair(lo, hi) are the same
// object, whose first variable (Mean0, CSS0) is the later column hi and whose
// second variable (Mean1, CSS1) is lo. The pair's figures cover only the rows
// where both cells are present, so its Mean0 in general differs from
// Var(hi).Mean().
//
// Bounds. Built without bounds, the block covers every column of the first
// batch with rows: Col2() is 0 until then and that batch's NColumns() after.
// Built with bounds, the caller keeps 0 <= col0 < col2 <= NColumns() of every
// batch; they are not checked here, but a column outside the batch fails the
// batch's own column check, and a block of negative size is refused with
// std::length_error at the first batch. Col1() always equals Col0().
//
// Reading. NRows(), WeightSum(), RegWeightSum(), HasRegWeights(),
// MissingCode(), NColumns() and the bounds can be read at any time and are 0
// (false, the code built with) on an empty matrix. Var and Pair take column
// numbers of the batches and require 0. < WeightSum(), which fails on an empty
// matrix and after rows whose weights total 0, a negative amount or NaN. They
// return the matrix's own long-lived records, valid as long as the matrix and
// showing every later batch or merge. A column missing throughout reads the
// empty record: NRows() 0, Mean() 0, Min() MinInitial, Max() MaxInitial.
//
// Merging (operator+= with a MatrixBase&): other must be an SMatrixPairwise
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
struct SMatrixPairwiseData;
extern template class internal::RecordHandle<SMatrixPairwiseData>;

class SMatrixPairwise : public MatrixBase {
 public:
  // Covers every column of its first batch with rows.
  explicit SMatrixPairwise(double missingCode);
  // Covers the columns [col0, col2).
  SMatrixPairwise(double missingCode, int col0, int col2);

  // Every row given, missing cells or not; 0 while empty. No precondition.
  int NRows() const override;
  using MatrixBase::operator+=;
  MatrixBase& operator+=(MatrixBase& other) override;
  // Adds a batch; a batch without rows changes nothing, not even Col2(). Every
  // batch of a matrix has regression weights, or none has.
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
  // Columns of the block once filled; 0 while empty.
  int NColumns() const;

  // The record of column col. Requires Col0() <= col < Col2() and 0. < WeightSum().
  VarStat& Var(int col) const;
  // The record of the pair of columns row and col, in either order; its first
  // variable is the later column. Requires both in the block, row != col and
  // 0. < WeightSum().
  PairStat& Pair(int row, int col) const;

 private:
  internal::RecordHandle<SMatrixPairwiseData> _my;
};

}  // namespace vorel
