// Addressing of the triangular stores.
//
// A lower triangle is stored row after row. Without its diagonal, row k holds
// k cells and starts at k(k-1)/2; with its diagonal, row k holds k + 1 cells
// and starts at (k+1)k/2, the start of row k + 1 of the triangle without.
// Every table of the library is addressed through TriangleStart, in the
// integer width of its own indices.
#pragma once

#include <algorithm>
#include <concepts>

#include "storelimits.h"

namespace vorel::internal {

// k(k-1)/2 in the arithmetic of T: the cells of the first k rows of a
// triangle without diagonal, and the index where row k of it starts.
template <std::integral T>
constexpr T TriangleStart(T k) {
  return k * (k - 1) / 2;
}

// The cell of rows hi > lo of a triangle without diagonal.
template <std::integral T>
constexpr T CellBelowDiagonal(T hi, T lo) {
  return TriangleStart(hi) + lo;
}

// The cell of rows hi >= lo of a triangle with its diagonal.
template <std::integral T>
constexpr T CellOnOrBelowDiagonal(T hi, T lo) {
  return TriangleStart(hi + 1) + lo;
}

// The cell of two positions given in either order, the larger naming the row.
template <std::integral T>
constexpr T SymmetricCell(T a, T b, bool withDiagonal) {
  const T hi = std::max(a, b);
  const T lo = std::min(a, b);
  return withDiagonal ? CellOnOrBelowDiagonal(hi, lo) : CellBelowDiagonal(hi, lo);
}

}  // namespace vorel::internal

namespace vorel {

// k(k-1)/2 in int arithmetic, as every index of the block and discriminant
// tables is an int: callers keep k below 46341, where k(k-1) still fits.
constexpr int MatrixRowCount(int k) { return internal::TriangleStart(k); }

}  // namespace vorel

namespace vorel::internal {

// MatrixRowCount(k) for a triangle about to be allocated: refused as too long
// when k is negative or k(k-1) would not fit in an int, so that no index into
// the triangle can overflow later.
inline int CheckedMatrixRowCount(long long k) {
  if (k < 0 || k > 46341) ThrowTooLong();
  return MatrixRowCount(static_cast<int>(k));
}

}  // namespace vorel::internal
