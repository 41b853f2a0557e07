// OwnedArray: a fixed-size heap array that its holder owns by value.
//
// Copies are deep, moves hand the cells over and leave the source empty
// (size 0, no cells), so a class that holds its stores in OwnedArray members
// needs no copy, move or destructor of its own. The cells are not cleared
// when the array is made: a store that is written before it is read pays
// nothing for it. A copy takes the bytes, so cells never written are copied
// without being read as values.
//
// Internal to the library: it appears in public headers only as the type of
// private members.
#pragma once

#include <cstddef>
#include <cstring>
#include <memory>
#include <type_traits>
#include <utility>

namespace vorel::internal {

template <class T>
class OwnedArray {
  static_assert(std::is_trivially_copyable_v<T>, "cells are copied as bytes");

 public:
  OwnedArray() = default;
  // size cells, not cleared.
  explicit OwnedArray(std::size_t size)
      : _cells(std::make_unique_for_overwrite<T[]>(size)), _size(size) {}

  // A copy of an array without cells has none either; a copy of an array of
  // zero cells is an array of zero cells.
  OwnedArray(const OwnedArray& other) {
    if (!other._cells) return;
    *this = OwnedArray(other._size);
    if (_size != 0) std::memcpy(_cells.get(), other._cells.get(), _size * sizeof(T));
  }
  OwnedArray& operator=(const OwnedArray& other) {
    if (this != &other) *this = OwnedArray(other);  // every allocation before this changes
    return *this;
  }
  OwnedArray(OwnedArray&& other) noexcept
      : _cells(std::move(other._cells)), _size(std::exchange(other._size, 0)) {}
  OwnedArray& operator=(OwnedArray&& other) noexcept {
    _cells = std::move(other._cells);
    _size = std::exchange(other._size, 0);
    return *this;
  }
  ~OwnedArray() = default;

  // Null while the array has no cells: made empty, or moved from.
  T* get() { return _cells.get(); }
  const T* get() const { return _cells.get(); }
  std::size_t size() const { return _size; }
  // Whether the array has cells, which it has from its sizing on even when
  // their count is 0.
  explicit operator bool() const { return _cells != nullptr; }
  T& operator[](std::size_t i) { return _cells[i]; }
  const T& operator[](std::size_t i) const { return _cells[i]; }

 private:
  std::unique_ptr<T[]> _cells;
  std::size_t _size = 0;
};

}  // namespace vorel::internal
