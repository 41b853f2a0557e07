// DataBatch: a column-major store that carries a block of rows from a caller
// to the matrices.
//
// The caller appends rows one at a time with AddRow; cell (c, r) is kept at
// index c * maxRows + r, so every column is contiguous and columns lie exactly
// maxRows cells apart however few rows are held. Beside the cells a batch may
// hold one weight, one regression weight and one group number per row, read at
// each AddRow through pointers to the caller's current values.
//
// A batch does no arithmetic and tests no value: NaN, missing codes, zero and
// negative weights pass through unchanged. All memory is taken in the
// constructor; AddRow allocates nothing.
//
// Copying: the copy constructor and operator= make deep copies, so each batch
// owns its own blocks; the borrowed pointers are shared, as they belong to the
// caller anyway. A moved-from batch may only be destroyed or assigned to.
#pragma once

#include <vorel/ownedarray.h>
#include <vorelhost/assertion.h>

namespace vorel {

class DataBatch {
 public:
  // nColumns columns and a capacity of nRows rows. weight, regWeight and group
  // point at the caller's current values for the next row; each may be null,
  // and a store for it exists exactly when it is not.
  DataBatch(unsigned nColumns, unsigned nRows, const double* weight, const double* regWeight,
            const unsigned* group);

  // Appends one row of NColumns() cells given in column order, together with
  // the current weight, regression weight and group. Requires a free row.
  void AddRow(const double* row);
  // Forgets the rows; cells stay in place until overwritten and NGroups() is kept.
  void Clear() { _nRows = 0; }

  unsigned NColumns() const { return _nColumns; }
  unsigned NRows() const { return _nRows; }
  // The largest group number added since construction (0 when none or only
  // group 0 was seen), not a count of distinct groups.
  unsigned NGroups() const { return _nGroups; }
  bool HasWeights() const { return static_cast<bool>(_weights); }
  bool HasRegWeights() const { return static_cast<bool>(_regWeights); }

  // Start of column colNum; NRows() cells of it are valid.
  const double* Column(unsigned colNum) const {
    VOREL_ASSERT(colNum < _nColumns);
    return _columns.get() + static_cast<std::size_t>(colNum) * _maxRows;
  }
  double* Column(unsigned colNum) {
    VOREL_ASSERT(colNum < _nColumns);
    return _columns.get() + static_cast<std::size_t>(colNum) * _maxRows;
  }
  // Null when the batch was built without the matching pointer.
  const double* Weights() const { return _weights.get(); }
  double* Weights() { return _weights.get(); }
  const double* RegWeights() const { return _regWeights.get(); }
  const unsigned* Groups() const { return _groups.get(); }

  // Bytes one row takes in a batch, for callers sizing their batches.
  static unsigned RowSize(unsigned nColumns, bool hasWeights, bool hasRegWeights, bool hasGroups) {
    return 8u * (nColumns + unsigned{hasWeights} + unsigned{hasRegWeights})
           + 4u * unsigned{hasGroups};
  }

 private:
  internal::OwnedArray<double> _weights;     // none without weights
  internal::OwnedArray<double> _regWeights;  // none without regression weights
  internal::OwnedArray<double> _columns;     // _nColumns x _maxRows cells
  const double* _pWeight = nullptr;          // borrowed: the caller's current weight
  const double* _pRegWeight = nullptr;
  const unsigned* _pGroup = nullptr;
  internal::OwnedArray<unsigned> _groups;  // none without groups
  unsigned _maxRows = 0;                   // capacity, and the stride between columns
  unsigned _nColumns = 0;
  unsigned _nRows = 0;
  unsigned _nGroups = 0;  // largest group number seen
};

}  // namespace vorel
