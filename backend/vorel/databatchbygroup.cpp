#include <vorel/databatchbygroup.h>

#include <cstddef>
#include <vector>

#include "common/scatterrow.h"

namespace vorel {
namespace {

// The expressions are reported as written.
// clang-format off
void CheckBothWeightBlocks(const double* _weights, const double* _tmpWeights) {
  VOREL_ASSERT(_weights!=0&&_tmpWeights!=0);
}

inline void CheckRowStart(const double* source, const double* _rows, unsigned _nColumns,
                          std::size_t i) {
  VOREL_ASSERT(source == _rows+_nColumns*i);
}
// clang-format on

}  // namespace

DataBatchByGroup::DataBatchByGroup(unsigned nColumns, unsigned nRows, const double* weight,
                                   const double* regWeight, const unsigned* group,
                                   unsigned maxGroup)
    : _pWeight(weight),
      _pRegWeight(regWeight),
      _pGroup(group),
      _maxRows(nRows),
      _nColumns(nColumns),
      _maxGroup(maxGroup) {
  VOREL_ASSERT(0 < nColumns);
  VOREL_ASSERT(0 < nRows);
  _rows = internal::OwnedArray<double>(CellCount());
  _columns = internal::OwnedArray<double>(CellCount());
  if (weight != nullptr) {
    _weights = internal::OwnedArray<double>(_maxRows);
    _tmpWeights = internal::OwnedArray<double>(_maxRows);
  }
  if (regWeight != nullptr) _regWeights = internal::OwnedArray<double>(_maxRows);
  if (group != nullptr) {
    _groups = internal::OwnedArray<unsigned>(_maxRows);
    _groupCounts.assign(maxGroup, 0u);
  }
}

void DataBatchByGroup::AddRow() {
  VOREL_ASSERT(_nRows < _maxRows);
  const unsigned r = _nRows;
  if (_pWeight != nullptr) _tmpWeights[r] = *_pWeight;
  if (_pRegWeight != nullptr) _regWeights[r] = *_pRegWeight;
  if (_pGroup != nullptr) {
    const unsigned tmpGroupVal = *_pGroup;
    // Refused before it is stored or counted.
    // clang-format off
    VOREL_ASSERT(tmpGroupVal<_maxGroup);
    // clang-format on
    _groups[r] = tmpGroupVal;
    ++_groupCounts[tmpGroupVal];
  }
  ++_nRows;
}

void DataBatchByGroup::Clear() {
  _nRows = 0;
  for (unsigned& count : _groupCounts)
    count = 0;
}

void DataBatchByGroup::SortByGroup() {
  // clang-format off
  VOREL_ASSERT(_pGroup!=0);
  // clang-format on

  // start[g]: the next free position of group g in group order.
  std::vector<unsigned> start(_maxGroup, 0u);
  for (unsigned g = 1; g < _maxGroup; ++g)
    start[g] = start[g - 1] + _groupCounts[g - 1];

  const bool withWeights = static_cast<bool>(_tmpWeights);
  if (withWeights) CheckBothWeightBlocks(_weights.get(), _tmpWeights.get());

  const std::size_t stride = _maxRows;
  const double* source = _rows.get();
  for (std::size_t i = 0; i < _nRows; ++i) {
    const unsigned p = start[_groups[i]]++;
    if (withWeights) _weights[p] = _tmpWeights[i];
    CheckRowStart(source, _rows.get(), _nColumns, i);

    // The row goes down the columns at position p.
    internal::ScatterRow(source, _nColumns, _columns.get() + p, stride);
    source += _nColumns;
  }
}

}  // namespace vorel
