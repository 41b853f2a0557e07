// Addressing and sizing of the triangular and grouped stores, shared by the
// block and discriminant tables.
//
// Internal to the library.
#pragma once

#include <algorithm>
#include <cstddef>
#include <limits>
#include <stdexcept>
#include <vector>

namespace vorel {

// k(k-1)/2: the cells of the first k rows of a lower triangle without
// diagonal, and so the index where row k of such a triangle starts. The cell
// of rows i > j is MatrixRowCount(i) + j. In int arithmetic, as every index of
// these tables is an int: callers keep k below 46341, where k(k-1) still fits.
constexpr int MatrixRowCount(int k) { return k * (k - 1) / 2; }

// MatrixRowCount(k) for a triangle about to be allocated: std::length_error
// "vector<T> too long" when k is negative or k(k-1) would not fit in an int,
// so that no index into the triangle can overflow later.
inline int CheckedMatrixRowCount(long long k) {
  if (k < 0 || k > 46341) throw std::length_error("vector<T> too long");
  return MatrixRowCount(static_cast<int>(k));
}

// The number of doubles a table of `cells` cells takes, worked out in 64 bits.
// Tables are indexed by int, so a table that would outgrow that index (or a
// negative count, from a negative shape) is refused with the error a vector
// gives when it would outgrow itself.
inline std::size_t CheckedTableCells(long long cells) {
  const auto limit = static_cast<long long>(
      std::min<std::size_t>(std::numeric_limits<int>::max(), std::vector<double>().max_size()));
  if (cells < 0 || cells > limit) throw std::length_error("vector<T> too long");
  return static_cast<std::size_t>(cells);
}

}  // namespace vorel
