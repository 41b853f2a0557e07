// The caller's data as the pass reads it: borrowed columns of any numeric
// type and layout, optional weights and group codes, and the rule that makes a
// cell missing. Nothing here owns the arrays; they outlive the pass.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace vorelpy {

enum class CellType {
  kFloat64,
  kFloat32,
  kInt8,
  kInt16,
  kInt32,
  kInt64,
  kUInt8,
  kUInt16,
  kUInt32,
  kUInt64,
  kBool
};

// One column: its first cell, the distance between cells in bytes, and how a
// cell is stored.
struct ColumnView {
  const char* first = nullptr;
  std::ptrdiff_t stride = 0;
  CellType type = CellType::kFloat64;
};

// Which cells are missing: NaN cells, or cells equal to a code.
struct MissingRule {
  bool nan = true;
  double code = 0.0;  // used when nan is false

  bool IsMissing(double x) const { return nan ? x != x : x == code; }
};

struct Table {
  std::vector<ColumnView> columns;
  std::size_t nRows = 0;
  const double* weights = nullptr;       // nRows contiguous values, or none
  const double* regWeights = nullptr;    // likewise
  const std::int64_t* groups = nullptr;  // nRows codes from 0, -1 for no group, or none
  MissingRule missing;
};

// Reads rows [first, first + n) of a table as doubles, row by row: a row of a
// C-ordered float64 array is read where it lies, float64 cells stored row by
// row with gaps are gathered row by row, and any other layout or type is read
// column by column (and converted) into a buffer.
class RowReader {
 public:
  explicit RowReader(const Table& table);

  // Makes rows [first, first + n) readable by Row, converting columns that are
  // not float64 once for the whole range.
  void Load(std::size_t first, std::size_t n);
  // Row r of the loaded range (0-based within it); valid until the next call.
  const double* Row(std::size_t r);
  // Writes the n loaded rows column by column: column c from
  // out + c * columnStride.
  void ToColumns(std::size_t n, double* out, std::size_t columnStride) const;

 private:
  const Table& _table;
  // Float64 rows one step apart: where row 0 starts, the step and each
  // column's offset in doubles; whether a row's cells are the columns in order.
  const double* _rows = nullptr;
  std::ptrdiff_t _rowStep = 0;
  std::vector<std::ptrdiff_t> _offsets;
  bool _rowInPlace = false;
  std::size_t _first = 0;
  std::vector<const double*> _cells;     // per column: cell 0 of the loaded range
  std::vector<std::ptrdiff_t> _strides;  // per column, in doubles
  std::vector<double> _converted;        // loaded range of the converted columns
  std::vector<double> _row;
};

}  // namespace vorelpy
