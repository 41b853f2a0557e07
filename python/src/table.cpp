#include "table.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <type_traits>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

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

// The cells of the table lie row by row: every column is float64 with the same
// step from row to row, and each row's cells lie within one such step (a
// C-ordered array, a slice of its columns, a DataFrame of one float64 block).
// Then the offsets of the columns from the row's first cell, in doubles.
std::optional<std::vector<std::ptrdiff_t>> RowOffsets(const Table& table) {
  const auto& columns = table.columns;
  const std::ptrdiff_t step = columns[0].stride;
  if (step <= static_cast<std::ptrdiff_t>(sizeof(double))) return std::nullopt;
  const char* lowest = columns[0].first;
  const char* highest = columns[0].first;
  for (const ColumnView& column : columns) {
    if (!ReadableInPlace(column) || column.stride != step) return std::nullopt;
    lowest = std::min(lowest, column.first);
    highest = std::max(highest, column.first);
  }
  if (highest - lowest >= step) return std::nullopt;
  std::vector<std::ptrdiff_t> offsets;
  for (const ColumnView& column : columns)
    offsets.push_back((column.first - lowest) / static_cast<std::ptrdiff_t>(sizeof(double)));
  return offsets;
}

// Eight rows of k cells, step doubles apart, written into columns columnStride
// apart: two rows by two columns at a time in vector registers where the
// machine has them, cell by cell otherwise. Only copies, so the same bits.
void TransposeTile(const double* rows, std::ptrdiff_t step, std::size_t k, double* out,
                   std::size_t columnStride) {
  constexpr std::size_t kRows = 8;
  std::size_t c = 0;
#if defined(__SSE2__)
  for (; c + 2 <= k; c += 2) {
    double* left = out + c * columnStride;
    double* right = left + columnStride;
    for (std::size_t r = 0; r < kRows; r += 2) {
      const double* upper = rows + static_cast<std::ptrdiff_t>(r) * step + c;
      const __m128d a = _mm_loadu_pd(upper);
      const __m128d b = _mm_loadu_pd(upper + step);
      _mm_storeu_pd(left + r, _mm_unpacklo_pd(a, b));
      _mm_storeu_pd(right + r, _mm_unpackhi_pd(a, b));
    }
  }
#endif
  for (; c < k; ++c) {
    for (std::size_t r = 0; r < kRows; ++r)
      out[c * columnStride + r] = rows[static_cast<std::ptrdiff_t>(r) * step + c];
  }
}

}  // namespace

RowReader::RowReader(const Table& table)
    : _table(table),
      _cells(table.columns.size()),
      _strides(table.columns.size()),
      _row(table.columns.size()) {
  if (std::optional<std::vector<std::ptrdiff_t>> offsets = RowOffsets(table)) {
    _offsets = std::move(*offsets);
    const char* lowest = table.columns[0].first;
    for (const ColumnView& column : table.columns)
      lowest = std::min(lowest, column.first);
    _rows = reinterpret_cast<const double*>(lowest);
    _rowStep = table.columns[0].stride / static_cast<std::ptrdiff_t>(sizeof(double));
    _rowInPlace = _rowStep == static_cast<std::ptrdiff_t>(_offsets.size());
    for (std::size_t c = 0; c < _offsets.size(); ++c)
      _rowInPlace &= _offsets[c] == static_cast<std::ptrdiff_t>(c);
  }
}

void RowReader::Load(std::size_t first, std::size_t n) {
  _first = first;
  if (_rows != nullptr) return;
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
  if (_rows != nullptr) {
    const double* row = _rows + static_cast<std::ptrdiff_t>(_first + r) * _rowStep;
    if (_rowInPlace) return row;
    for (std::size_t c = 0; c < _row.size(); ++c)
      _row[c] = row[_offsets[c]];
    return _row.data();
  }
  const auto offset = static_cast<std::ptrdiff_t>(r);
  for (std::size_t c = 0; c < _row.size(); ++c)
    _row[c] = _cells[c][offset * _strides[c]];
  return _row.data();
}

void RowReader::ToColumns(std::size_t n, double* out, std::size_t columnStride) const {
  const std::size_t k = _table.columns.size();
  if (_rows != nullptr) {
    // Eight rows at a time, so that each column receives whole cache lines;
    // a tile of a fixed size, so that its loop is laid out flat.
    constexpr std::size_t kTile = 8;
    const auto copyTile = [&](std::size_t r0, auto tile) {
      const double* rows = _rows + static_cast<std::ptrdiff_t>(_first + r0) * _rowStep;
      for (std::size_t c = 0; c < k; ++c) {
        double* column = out + c * columnStride + r0;
        const double* cells = rows + _offsets[c];
        for (std::size_t i = 0; i < tile; ++i)
          column[i] = cells[static_cast<std::ptrdiff_t>(i) * _rowStep];
      }
    };
    std::size_t r0 = 0;
    for (; r0 + kTile <= n; r0 += kTile) {
      if (_rowInPlace) {
        TransposeTile(_rows + static_cast<std::ptrdiff_t>(_first + r0) * _rowStep, _rowStep, k,
                      out + r0, columnStride);
        continue;
      }
      copyTile(r0, std::integral_constant<std::size_t, kTile>());
    }
    if (r0 < n) copyTile(r0, n - r0);
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
