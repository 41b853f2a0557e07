#include "table.h"

#include <algorithm>
#include <cstring>

namespace vorelpy {
namespace {

template <typename T>
void ConvertColumn(const char* first, std::ptrdiff_t stride, std::size_t n, double* out) {
  for (std::size_t r = 0; r < n; ++r) {
    T value;
    std::memcpy(&value, first + static_cast<std::ptrdiff_t>(r) * stride, sizeof value);
    out[r] = static_cast<double>(value);
  }
}

void Convert(const ColumnView& column, std::size_t first, std::size_t n, double* out) {
  const char* start = column.first + static_cast<std::ptrdiff_t>(first) * column.stride;
  switch (column.type) {
    case CellType::kFloat64:
      return ConvertColumn<double>(start, column.stride, n, out);
    case CellType::kFloat32:
      return ConvertColumn<float>(start, column.stride, n, out);
    case CellType::kInt8:
      return ConvertColumn<std::int8_t>(start, column.stride, n, out);
    case CellType::kInt16:
      return ConvertColumn<std::int16_t>(start, column.stride, n, out);
    case CellType::kInt32:
      return ConvertColumn<std::int32_t>(start, column.stride, n, out);
    case CellType::kInt64:
      return ConvertColumn<std::int64_t>(start, column.stride, n, out);
    case CellType::kUInt8:
      return ConvertColumn<std::uint8_t>(start, column.stride, n, out);
    case CellType::kUInt16:
      return ConvertColumn<std::uint16_t>(start, column.stride, n, out);
    case CellType::kUInt32:
      return ConvertColumn<std::uint32_t>(start, column.stride, n, out);
    case CellType::kUInt64:
      return ConvertColumn<std::uint64_t>(start, column.stride, n, out);
    case CellType::kBool:  // NumPy stores a bool as one byte, 0 or 1
      return ConvertColumn<std::uint8_t>(start, column.stride, n, out);
  }
}

// A float64 column whose cells can be read in place as doubles.
bool ReadableInPlace(const ColumnView& column) {
  return column.type == CellType::kFloat64
         && reinterpret_cast<std::uintptr_t>(column.first) % alignof(double) == 0
         && column.stride % static_cast<std::ptrdiff_t>(sizeof(double)) == 0;
}

// Column c starts c doubles after column 0 and every column steps one row
// by the same number of doubles: the rows are C-ordered.
const double* RowMajorStart(const Table& table) {
  const auto& columns = table.columns;
  const auto width = static_cast<std::ptrdiff_t>(columns.size() * sizeof(double));
  for (std::size_t c = 0; c < columns.size(); ++c) {
    if (!ReadableInPlace(columns[c]) || columns[c].stride != width
        || columns[c].first != columns[0].first + c * sizeof(double))
      return nullptr;
  }
  return reinterpret_cast<const double*>(columns[0].first);
}

}  // namespace

RowReader::RowReader(const Table& table)
    : _table(table),
      _rowMajor(RowMajorStart(table)),
      _cells(table.columns.size()),
      _strides(table.columns.size()),
      _row(table.columns.size()) {}

void RowReader::Load(std::size_t first, std::size_t n) {
  _first = first;
  if (_rowMajor != nullptr) return;
  std::size_t nConverted = 0;
  for (const ColumnView& column : _table.columns)
    nConverted += ReadableInPlace(column) ? 0 : 1;
  _converted.resize(nConverted * n);
  double* out = _converted.data();
  for (std::size_t c = 0; c < _table.columns.size(); ++c) {
    const ColumnView& column = _table.columns[c];
    if (ReadableInPlace(column)) {
      _cells[c] = reinterpret_cast<const double*>(
          column.first + static_cast<std::ptrdiff_t>(first) * column.stride);
      _strides[c] = column.stride / static_cast<std::ptrdiff_t>(sizeof(double));
    } else {
      Convert(column, first, n, out);
      _cells[c] = out;
      _strides[c] = 1;
      out += n;
    }
  }
}

const double* RowReader::Row(std::size_t r) {
  if (_rowMajor != nullptr) return _rowMajor + (_first + r) * _table.columns.size();
  const auto offset = static_cast<std::ptrdiff_t>(r);
  for (std::size_t c = 0; c < _row.size(); ++c)
    _row[c] = _cells[c][offset * _strides[c]];
  return _row.data();
}

void RowReader::ToColumns(std::size_t n, double* out, std::size_t columnStride) const {
  const std::size_t k = _table.columns.size();
  if (_rowMajor != nullptr) {
    // Eight rows at a time, so that each column receives whole cache lines.
    constexpr std::size_t kTile = 8;
    const double* rows = _rowMajor + _first * k;
    for (std::size_t r0 = 0; r0 < n; r0 += kTile) {
      const std::size_t tile = std::min(kTile, n - r0);
      for (std::size_t c = 0; c < k; ++c) {
        double* column = out + c * columnStride + r0;
        for (std::size_t i = 0; i < tile; ++i)
          column[i] = rows[(r0 + i) * k + c];
      }
    }
    return;
  }
  for (std::size_t c = 0; c < k; ++c) {
    double* column = out + c * columnStride;
    const double* cells = _cells[c];
    const std::ptrdiff_t stride = _strides[c];
    if (stride == 1) {
      std::copy(cells, cells + n, column);
      continue;
    }
    for (std::size_t r = 0; r < n; ++r)
      column[r] = cells[static_cast<std::ptrdiff_t>(r) * stride];
  }
}

}  // namespace vorelpy
