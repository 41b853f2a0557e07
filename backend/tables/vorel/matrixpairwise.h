// MatrixPairwise: statistics of all columns of a batch with pairwise deletion
// of missing values.
//
// For each column the matrix holds a VarStatsData over the rows whose cell in
// that column is not missing; for each unordered pair of columns a
// PairStatsData over the rows where neither cell is missing, with its own row
// count, weight sums, means and corrected sums. A cell is missing when it
// compares equal to the missing code the matrix was built with, and only then:
// a NaN cell is a value (its column's figures become NaN), a NaN code drops
// nothing, and a zero weight drops nothing. The table's own NRows(),
// WeightSum() and RegWeightSum() count every row added, missing or not.
//
// Each batch is reduced column by column and pair by pair, in two passes over
// a compressed copy of the kept cells, and folded into the long-lived records
// by an update formula on means and corrected sums; the same update joins the
// matrices of different workers. The batch is only read.
//
// Pair order: in every pair record column 0 is the column with the higher
// number and column 1 the one with the lower, whichever way Pair() is asked.
//
// Limits: row counts are 64-bit. The pair records are indexed in 32 bits, so a
// batch of more than 65,536 columns raises std::length_error ("vector<T> too
// long"); failed allocations raise std::bad_alloc. Nothing is rolled back: an
// exception out of operator+= leaves a matrix without a usable result.
//
// Ownership: the handle owns its record. The copy constructor
// and operator= copy it deeply, missing code included (operator= is
// self-assignment safe and leaves the target as it was if an allocation
// fails); moves transfer it, and a moved-from matrix may only be destroyed or
// assigned to. Views from Var and Pair point into the record: they show what
// later batches add and die with the matrix (or with its record, when another
// matrix is assigned to it).
//
// No locks: one thread at a time per matrix; views may be read once no thread
// is adding to it.
#pragma once

#include <vorel/recordhandle.h>
#include <vorel/statrecords.h>

#include <cstdint>

namespace vorel {

class DataBatch;
struct MatrixPairwiseData;
extern template class internal::RecordHandle<MatrixPairwiseData>;

// Statistics of one column over the rows where it is not missing. All zero
// while the column has no rows.
struct VarStatsData {
  std::uint64_t nRows = 0;    // rows whose cell is not missing
  double weightSum = 0.0;     // their frequency weight (their count without weights)
  double regWeightSum = 0.0;  // their combined weight; weightSum without regression weights
  double mean = 0.0;          // mean under the combined weight
  double css = 0.0;           // sum of combined weight x (x - mean)^2

  // Replaces every field by the statistics of the n rows of x whose cell is not
  // work.missingCode.
  void Init(const double* x, const double* weights, const double* regWeights, WorkArea& work,
            unsigned n);
  // Folds o into this record; o may be this record. A record without rows
  // changes nothing.
  void Update(const VarStatsData& o);
};

// Statistics of one pair over the rows where neither cell is missing; column 0
// is the pair's higher-numbered column.
struct PairStatsData {
  std::uint64_t nRows = 0;
  double weightSum = 0.0;
  double regWeightSum = 0.0;
  double mean0 = 0.0;
  double mean1 = 0.0;
  double css0 = 0.0;
  double css1 = 0.0;
  double cscp = 0.0;  // sum of combined weight x (x0 - mean0) x (x1 - mean1)

  void Init(const double* x0, const double* x1, const double* weights, const double* regWeights,
            WorkArea& work, unsigned n);
  void Update(const PairStatsData& o);
};

// A view on a column record; it does not own the record and is as good as it.
class VarStats {
 public:
  explicit VarStats(VarStatsData* data) : _my(data) {}
  VarStats(const VarStats&) = default;
  VarStats& operator=(const VarStats&) = default;

  std::uint64_t NRows() const { return _my->nRows; }
  double WeightSum() const { return _my->weightSum; }
  double RegWeightSum() const { return _my->regWeightSum; }
  double Mean() const { return _my->mean; }
  double CSS() const { return _my->css; }

 private:
  VarStatsData* _my;
};

// A view on a pair record: Mean0 and CSS0 belong to the higher-numbered column.
class PairStats {
 public:
  explicit PairStats(PairStatsData* data) : _my(data) {}
  PairStats(const PairStats&) = default;
  PairStats& operator=(const PairStats&) = default;

  std::uint64_t NRows() const { return _my->nRows; }
  double WeightSum() const { return _my->weightSum; }
  double RegWeightSum() const { return _my->regWeightSum; }
  double Mean0() const { return _my->mean0; }
  double Mean1() const { return _my->mean1; }
  double CSS0() const { return _my->css0; }
  double CSS1() const { return _my->css1; }
  double CSCP() const { return _my->cscp; }

 private:
  PairStatsData* _my;
};

class MatrixPairwise {
 public:
  // An empty matrix whose cells equal to missingCode are missing.
  explicit MatrixPairwise(const double& missingCode);

  // Adds a batch, which is only read. Once filled, every batch must have the
  // matrix's number of columns and regression weights exactly if it has. An
  // empty batch changes nothing.
  MatrixPairwise& operator+=(DataBatch& data);
  // Adds the result of another matrix, which is not changed and may be *this.
  // Into an empty matrix this is an independent copy, d's missing code with it;
  // otherwise this matrix keeps its own code. A d whose frequency weights total
  // exactly 0 changes a filled matrix not at all.
  MatrixPairwise& operator+=(const MatrixPairwise& d);

  // Readable at any time; 0 while empty.
  unsigned NColumns() const;
  std::uint64_t NRows() const;
  double WeightSum() const;
  bool HasRegWeights() const;
  double RegWeightSum() const;
  double MissingCode() const;

  // The record of column col. Requires "col < NColumns()" and "0. < WeightSum()"
  // (the table's sum; false for 0, negative sums and NaN). A column without
  // rows of its own reads all zeros.
  VarStats Var(unsigned col) const;
  // The record of the pair of two different columns, in either order. Requires
  // "row < NColumns()", "col < NColumns()", "row != col" and "0. < WeightSum()".
  PairStats Pair(unsigned row, unsigned col) const;

 private:
  internal::RecordHandle<MatrixPairwiseData> _my;
};

}  // namespace vorel
