// DataBatchByGroup: a batch for statistics by group.
//
// Rows arrive in any order of groups. The caller writes each row straight into
// the row-major block at Row(NRows()) and commits it with AddRow, which also
// reads the current weight, regression weight and group through the caller's
// pointers and counts the row in its group. SortByGroup then turns the rows
// over, with a counting sort that keeps the order of adding within a group,
// into column-major storage in which each group is one slice of every column:
// group g starts at the sum of groupCount(h) over h < g and holds groupCount(g)
// cells.
//
//   in the order of adding:  Row, RegWeights, Groups, Group
//   in group order:          Column, Weights (meaningful only after SortByGroup,
//                            and stale again after a later AddRow or Clear)
//
// NGroups() is the number of groups given to the constructor (valid group
// numbers are 0 to NGroups() - 1), not the largest group seen as in DataBatch.
// A batch does no arithmetic and tests no cell or weight. All memory but the
// scratch of SortByGroup is taken in the constructor.
//
// Copying: the copy constructor and operator= make deep copies of every block,
// so the target reads exactly as the source (its last sort included) and the
// two share nothing but the caller's three pointers. A moved-from batch may
// only be destroyed or assigned to.
//
// groupCount checks "group < _groupCounts.size()": a group below NGroups() on a
// batch that has groups. The vector is empty without groups, so the one test
// covers both requirements.
#pragma once

#include <vorel/ownedarray.h>
#include <vorelhost/assertion.h>

#include <cstddef>
#include <vector>

namespace vorel {

class DataBatchByGroup {
 public:
  // nColumns columns, a capacity of nRows rows and maxGroup groups. weight,
  // regWeight and group point at the caller's current values for the next row;
  // each may be null, and its stores exist exactly when it is not.
  DataBatchByGroup(unsigned nColumns, unsigned nRows, const double* weight, const double* regWeight,
                   const unsigned* group, unsigned maxGroup);

  // Start of row rowNum in the order of adding. Row(NRows()) is the free row
  // that the caller fills before AddRow.
  double* Row(unsigned rowNum) {
    VOREL_ASSERT(rowNum <= _nRows);
    return _rows.get() + static_cast<std::size_t>(rowNum) * _nColumns;
  }
  const double* Row(unsigned rowNum) const {
    VOREL_ASSERT(rowNum <= _nRows);
    return _rows.get() + static_cast<std::size_t>(rowNum) * _nColumns;
  }
  // Commits the row written at Row(NRows()), with the current weight,
  // regression weight and group. Requires a free row and a group below NGroups().
  void AddRow();
  // Brings the rows into group order in Column and Weights. Requires groups.
  // May run again after more rows: it rebuilds the whole order from scratch.
  void SortByGroup();
  // Forgets the rows and their group counts; the blocks are not touched.
  void Clear();

  unsigned NColumns() const { return _nColumns; }
  unsigned NRows() const { return _nRows; }
  unsigned NGroups() const { return _maxGroup; }
  bool HasWeights() const { return static_cast<bool>(_tmpWeights); }
  bool HasRegWeights() const { return static_cast<bool>(_regWeights); }

  // Start of column colNum in group order; stride between columns is the capacity.
  const double* Column(unsigned colNum) const {
    VOREL_ASSERT(colNum < _nColumns);
    return _columns.get() + static_cast<std::size_t>(colNum) * _maxRows;
  }
  double* Column(unsigned colNum) {
    VOREL_ASSERT(colNum < _nColumns);
    return _columns.get() + static_cast<std::size_t>(colNum) * _maxRows;
  }
  // Weights in group order; null without weights.
  const double* Weights() const { return _weights.get(); }
  double* Weights() { return _weights.get(); }
  // Regression weights and groups in the order of adding; null when absent.
  const double* RegWeights() const { return _regWeights.get(); }
  const unsigned* Groups() const { return _groups.get(); }
  // Group of row `row` in the order of adding; row must be below NRows().
  unsigned Group(unsigned row) const { return _groups[row]; }
  // Rows added so far in `group`.
  unsigned groupCount(unsigned group) const {
    VOREL_ASSERT(group < _groupCounts.size());
    return _groupCounts[group];
  }

  // Bytes one row takes, counting cells and weights once although this batch
  // keeps them twice; the same figure as DataBatch::RowSize.
  static unsigned RowSize(unsigned nColumns, bool hasWeights, bool hasRegWeights, bool hasGroups) {
    return 8u * (nColumns + unsigned{hasWeights} + unsigned{hasRegWeights})
           + 4u * unsigned{hasGroups};
  }

 private:
  std::size_t CellCount() const { return static_cast<std::size_t>(_nColumns) * _maxRows; }

  internal::OwnedArray<double> _weights;     // group order; none without weights
  internal::OwnedArray<double> _tmpWeights;  // order of adding; none without weights
  internal::OwnedArray<double> _regWeights;  // order of adding; none without them
  internal::OwnedArray<double> _rows;        // row r starts at r * _nColumns
  internal::OwnedArray<double> _columns;     // group order, stride _maxRows
  const double* _pWeight = nullptr;          // borrowed: the caller's current weight
  const double* _pRegWeight = nullptr;
  const unsigned* _pGroup = nullptr;
  internal::OwnedArray<unsigned> _groups;  // order of adding; none without groups
  unsigned _maxRows = 0;                   // capacity, and the stride of _columns
  unsigned _nColumns = 0;                  // also the stride of _rows
  unsigned _nRows = 0;
  unsigned _maxGroup = 0;              // groups are 0 to _maxGroup - 1
  std::vector<unsigned> _groupCounts;  // rows per group; empty without groups
};

}  // namespace vorel
