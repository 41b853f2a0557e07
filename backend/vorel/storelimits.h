// Size limits of the library's stores.
//
// A store that would outgrow what it can hold raises std::length_error with
// the text "vector<T> too long", the library's one wording for it. The
// standard library never uses that text, so it is thrown here.
#pragma once

#include <cstdint>
#include <stdexcept>

namespace vorel {

[[noreturn]] inline void ThrowTooLong() { throw std::length_error("vector<T> too long"); }

// Throws unless a store of `count` elements fits a store of at most `maxCount`.
inline void CheckStoreSize(std::uint64_t count, std::uint64_t maxCount) {
  if (count > maxCount) ThrowTooLong();
}

}  // namespace vorel
