// Size limits of the library's stores.
//
// A store that would outgrow what it can hold raises std::length_error with
// the text "vector<T> too long", the library's one wording for it; this file
// is the one place that throws it. The standard library never uses that text,
// so every size is checked here before anything is allocated.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <stdexcept>
#include <vector>

namespace vorel::internal {

[[noreturn]] inline void ThrowTooLong() { throw std::length_error("vector<T> too long"); }

// Throws unless a store of `count` elements fits a store of at most `maxCount`.
inline void CheckStoreSize(std::uint64_t count, std::uint64_t maxCount) {
  if (count > maxCount) ThrowTooLong();
}

// The number of doubles a table of `cells` cells takes, worked out in 64 bits.
// Tables are indexed by int, so a table that would outgrow that index (or a
// negative count, from a negative shape) is refused.
inline std::size_t CheckedTableCells(long long cells) {
  const auto limit = static_cast<long long>(
      std::min<std::size_t>(std::numeric_limits<int>::max(), std::vector<double>().max_size()));
  if (cells < 0 || cells > limit) ThrowTooLong();
  return static_cast<std::size_t>(cells);
}

}  // namespace vorel::internal
