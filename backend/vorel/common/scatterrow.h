// One row of cells written down the columns of a column-major store.
//
// Internal to the library.
#pragma once

#include <cstddef>

namespace vorel::internal {

// Writes the nColumns cells of row into a column-major store, from cell on
// and stride apart, four a turn. Returns the place one stride behind the
// last cell written.
inline double* ScatterRow(const double* row, unsigned nColumns, double* cell, std::size_t stride) {
  unsigned left = nColumns;
  for (; left >= 4; left -= 4, row += 4) {
    cell[0] = row[0];
    cell[stride] = row[1];
    cell[2 * stride] = row[2];
    cell[3 * stride] = row[3];
    cell += 4 * stride;
  }
  for (; left > 0; --left, ++row) {
    *cell = *row;
    cell += stride;
  }
  return cell;
}

}  // namespace vorel::internal
