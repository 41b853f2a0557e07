#include <vorel/databatchbygroup.h>

#include <cstring>
#include <utility>

namespace vorel {
namespace {

template <class T>
T* NewBlock(std::size_t n) {
  return new T[n];
}

// Copies the bytes, so that cells never written (a batch takes its blocks
// uncleared) are copied without being read as values.
template <class T>
void CopyBytes(T* target, const T* source, std::size_t n) {
  if (source != nullptr) std::memcpy(target, source, n * sizeof(T));
}

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
  AllocateBlocks(weight != nullptr, regWeight != nullptr, group != nullptr);
  if (group != nullptr) _groupCounts.assign(maxGroup, 0u);
}

DataBatchByGroup::~DataBatchByGroup() { ReleaseBlocks(); }

void DataBatchByGroup::AllocateBlocks(bool withWeights, bool withRegWeights, bool withGroups) {
  try {
    _rows = NewBlock<double>(CellCount());
    _columns = NewBlock<double>(CellCount());
    if (withWeights) {
      _weights = NewBlock<double>(_maxRows);
      _tmpWeights = NewBlock<double>(_maxRows);
    }
    if (withRegWeights) _regWeights = NewBlock<double>(_maxRows);
    if (withGroups) _groups = NewBlock<unsigned>(_maxRows);
  } catch (...) {
    ReleaseBlocks();
    throw;
  }
}

void DataBatchByGroup::ReleaseBlocks() noexcept {
  delete[] _weights;
  delete[] _tmpWeights;
  delete[] _regWeights;
  delete[] _rows;
  delete[] _columns;
  delete[] _groups;
  _weights = nullptr;
  _tmpWeights = nullptr;
  _regWeights = nullptr;
  _rows = nullptr;
  _columns = nullptr;
  _groups = nullptr;
}

void DataBatchByGroup::CopyBlocksFrom(const DataBatchByGroup& other) {
  CopyBytes(_rows, other._rows, CellCount());
  CopyBytes(_columns, other._columns, CellCount());
  CopyBytes(_weights, other._weights, _maxRows);
  CopyBytes(_tmpWeights, other._tmpWeights, _maxRows);
  CopyBytes(_regWeights, other._regWeights, _maxRows);
  CopyBytes(_groups, other._groups, _maxRows);
}

DataBatchByGroup::DataBatchByGroup(const DataBatchByGroup& other)
    : _pWeight(other._pWeight),
      _pRegWeight(other._pRegWeight),
      _pGroup(other._pGroup),
      _maxRows(other._maxRows),
      _nColumns(other._nColumns),
      _nRows(other._nRows),
      _maxGroup(other._maxGroup),
      _groupCounts(other._groupCounts) {
  if (other._rows == nullptr) return;  // a moved-from source has no blocks to copy
  AllocateBlocks(other._tmpWeights != nullptr, other._regWeights != nullptr,
                 other._groups != nullptr);
  CopyBlocksFrom(other);
}

DataBatchByGroup& DataBatchByGroup::operator=(const DataBatchByGroup& other) {
  if (this != &other) {
    DataBatchByGroup copy(other);  // all allocation happens before this batch changes
    *this = std::move(copy);
  }
  return *this;
}

DataBatchByGroup::DataBatchByGroup(DataBatchByGroup&& other) noexcept
    : _weights(std::exchange(other._weights, nullptr)),
      _tmpWeights(std::exchange(other._tmpWeights, nullptr)),
      _regWeights(std::exchange(other._regWeights, nullptr)),
      _rows(std::exchange(other._rows, nullptr)),
      _columns(std::exchange(other._columns, nullptr)),
      _pWeight(other._pWeight),
      _pRegWeight(other._pRegWeight),
      _pGroup(other._pGroup),
      _groups(std::exchange(other._groups, nullptr)),
      _maxRows(std::exchange(other._maxRows, 0u)),
      _nColumns(std::exchange(other._nColumns, 0u)),
      _nRows(std::exchange(other._nRows, 0u)),
      _maxGroup(std::exchange(other._maxGroup, 0u)),
      _groupCounts(std::exchange(other._groupCounts, {})) {}

DataBatchByGroup& DataBatchByGroup::operator=(DataBatchByGroup&& other) noexcept {
  if (this != &other) {
    ReleaseBlocks();
    _weights = std::exchange(other._weights, nullptr);
    _tmpWeights = std::exchange(other._tmpWeights, nullptr);
    _regWeights = std::exchange(other._regWeights, nullptr);
    _rows = std::exchange(other._rows, nullptr);
    _columns = std::exchange(other._columns, nullptr);
    _pWeight = other._pWeight;
    _pRegWeight = other._pRegWeight;
    _pGroup = other._pGroup;
    _groups = std::exchange(other._groups, nullptr);
    _maxRows = std::exchange(other._maxRows, 0u);
    _nColumns = std::exchange(other._nColumns, 0u);
    _nRows = std::exchange(other._nRows, 0u);
    _maxGroup = std::exchange(other._maxGroup, 0u);
    _groupCounts = std::exchange(other._groupCounts, {});
  }
  return *this;
}

void DataBatchByGroup::AddRow() {
  VOREL_ASSERT(_nRows < _maxRows);
  const unsigned r = _nRows;
  if (_pWeight != nullptr) _tmpWeights[r] = *_pWeight;
  if (_pRegWeight != nullptr) _regWeights[r] = *_pRegWeight;
  if (_pGroup != nullptr) {
    const unsigned tmpGroupVal = *_pGroup;
    // Refused before it is stored or counted.
    VOREL_ASSERT(tmpGroupVal<_maxGroup);
    _groups[r] = tmpGroupVal;
    ++_groupCounts[tmpGroupVal];
  }
  ++_nRows;
}

void DataBatchByGroup::Clear() {
  _nRows = 0;
  for (unsigned& count : _groupCounts) count = 0;
}

void DataBatchByGroup::SortByGroup() {
  VOREL_ASSERT(_pGroup!=0);

  // start[g]: the next free position of group g in group order.
  std::vector<unsigned> start(_maxGroup, 0u);
  for (unsigned g = 1; g < _maxGroup; ++g) start[g] = start[g - 1] + _groupCounts[g - 1];

  const bool withWeights = _tmpWeights != nullptr;
  if (withWeights) VOREL_ASSERT(_weights!=0&&_tmpWeights!=0);

  const std::size_t stride = _maxRows;
  const double* source = _rows;
  for (std::size_t i = 0; i < _nRows; ++i) {
    const unsigned p = start[_groups[i]]++;
    if (withWeights) _weights[p] = _tmpWeights[i];
    VOREL_ASSERT(source == _rows+_nColumns*i);

    // Scatter the row down the columns at position p, four cells a turn.
    double* cell = _columns + p;
    unsigned left = _nColumns;
    for (; left >= 4; left -= 4, source += 4) {
      cell[0] = source[0];
      cell[stride] = source[1];
      cell[2 * stride] = source[2];
      cell[3 * stride] = source[3];
      cell += 4 * stride;
    }
    for (; left > 0; --left, ++source) {
      *cell = *source;
      cell += stride;
    }
  }
}

}  // namespace vorel
