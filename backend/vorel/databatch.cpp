#include <vorel/databatch.h>

#include <cstddef>

#include "common/scatterrow.h"

namespace vorel {
namespace {

// Every cell written lies before the end of the store. The expression is
// reported as written.
inline void CheckCellInStore(const double* cell, const double* _columns, unsigned _nColumns,
                             unsigned _maxRows) {
  // clang-format off
  VOREL_ASSERT(cell < _columns+(_nColumns+1)*_maxRows);
  // clang-format on
}

}  // namespace

DataBatch::DataBatch(unsigned nColumns, unsigned nRows, const double* weight,
                     const double* regWeight, const unsigned* group)
    : _pWeight(weight),
      _pRegWeight(regWeight),
      _pGroup(group),
      _maxRows(nRows),
      _nColumns(nColumns) {
  VOREL_ASSERT(0 < nColumns);
  VOREL_ASSERT(0 < nRows);
  _columns = internal::OwnedArray<double>(static_cast<std::size_t>(nColumns) * nRows);
  if (weight != nullptr) _weights = internal::OwnedArray<double>(nRows);
  if (regWeight != nullptr) _regWeights = internal::OwnedArray<double>(nRows);
  if (group != nullptr) _groups = internal::OwnedArray<unsigned>(nRows);
}

void DataBatch::AddRow(const double* row) {
  VOREL_ASSERT(_nRows < _maxRows);
  const unsigned r = _nRows;
  if (_pWeight != nullptr) _weights[r] = *_pWeight;
  if (_pRegWeight != nullptr) _regWeights[r] = *_pRegWeight;
  if (_pGroup != nullptr) {
    const unsigned group = *_pGroup;
    _groups[r] = group;
    if (group > _nGroups) _nGroups = group;
  }

  const double* cell = internal::ScatterRow(row, _nColumns, _columns.get() + r, _maxRows);
  CheckCellInStore(cell, _columns.get(), _nColumns, _maxRows);
  ++_nRows;
}

}  // namespace vorel
