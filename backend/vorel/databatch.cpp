#include <vorel/databatch.h>

#include <algorithm>
#include <cstddef>
#include <utility>

namespace vorel {
namespace {

template <class T>
T* AllocateBlock(std::size_t n) {
  return new T[n];
}

template <class T>
T* CopyBlock(const T* source, std::size_t n) {
  if (source == nullptr) return nullptr;
  T* block = new T[n];
  std::copy(source, source + n, block);
  return block;
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
  try {
    _columns = AllocateBlock<double>(static_cast<std::size_t>(nColumns) * nRows);
    if (weight != nullptr) _weights = AllocateBlock<double>(nRows);
    if (regWeight != nullptr) _regWeights = AllocateBlock<double>(nRows);
    if (group != nullptr) _groups = AllocateBlock<unsigned>(nRows);
  } catch (...) {
    ReleaseBlocks();
    throw;
  }
}

DataBatch::~DataBatch() { ReleaseBlocks(); }

void DataBatch::ReleaseBlocks() noexcept {
  delete[] _columns;
  delete[] _weights;
  delete[] _regWeights;
  delete[] _groups;
  _columns = nullptr;
  _weights = nullptr;
  _regWeights = nullptr;
  _groups = nullptr;
}

DataBatch::DataBatch(const DataBatch& other)
    : _pWeight(other._pWeight),
      _pRegWeight(other._pRegWeight),
      _pGroup(other._pGroup),
      _maxRows(other._maxRows),
      _nColumns(other._nColumns),
      _nRows(other._nRows),
      _nGroups(other._nGroups) {
  try {
    _columns = CopyBlock(other._columns, static_cast<std::size_t>(_nColumns) * _maxRows);
    _weights = CopyBlock(other._weights, _maxRows);
    _regWeights = CopyBlock(other._regWeights, _maxRows);
    _groups = CopyBlock(other._groups, _maxRows);
  } catch (...) {
    ReleaseBlocks();
    throw;
  }
}

DataBatch& DataBatch::operator=(const DataBatch& other) {
  if (this != &other) {
    DataBatch copy(other);  // all allocation happens before this batch changes
    *this = std::move(copy);
  }
  return *this;
}

DataBatch::DataBatch(DataBatch&& other) noexcept
    : _weights(std::exchange(other._weights, nullptr)),
      _regWeights(std::exchange(other._regWeights, nullptr)),
      _columns(std::exchange(other._columns, nullptr)),
      _pWeight(other._pWeight),
      _pRegWeight(other._pRegWeight),
      _pGroup(other._pGroup),
      _groups(std::exchange(other._groups, nullptr)),
      _maxRows(std::exchange(other._maxRows, 0u)),
      _nColumns(std::exchange(other._nColumns, 0u)),
      _nRows(std::exchange(other._nRows, 0u)),
      _nGroups(other._nGroups) {}

DataBatch& DataBatch::operator=(DataBatch&& other) noexcept {
  if (this != &other) {
    ReleaseBlocks();
    _weights = std::exchange(other._weights, nullptr);
    _regWeights = std::exchange(other._regWeights, nullptr);
    _columns = std::exchange(other._columns, nullptr);
    _pWeight = other._pWeight;
    _pRegWeight = other._pRegWeight;
    _pGroup = other._pGroup;
    _groups = std::exchange(other._groups, nullptr);
    _maxRows = std::exchange(other._maxRows, 0u);
    _nColumns = std::exchange(other._nColumns, 0u);
    _nRows = std::exchange(other._nRows, 0u);
    _nGroups = other._nGroups;
  }
  return *this;
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

  // Scatter the row down the columns, four cells a turn.
  const std::size_t stride = _maxRows;
  double* cell = _columns + r;
  unsigned left = _nColumns;
  const double* value = row;
  for (; left >= 4; left -= 4, value += 4) {
    cell[0] = value[0];
    cell[stride] = value[1];
    cell[2 * stride] = value[2];
    cell[3 * stride] = value[3];
    cell += 4 * stride;
  }
  for (; left > 0; --left, ++value) {
    *cell = *value;
    cell += stride;
  }
  VOREL_ASSERT(cell < _columns+(_nColumns+1)*_maxRows);
  ++_nRows;
}

}  // namespace vorel
