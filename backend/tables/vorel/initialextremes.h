// The start values of every running minimum and maximum in the library.
//
// They are the doubles nearest to +-1.79e308, deliberately not the largest
// finite double: an empty record reports exactly these values, and callers
// recognise "no value seen" by them.
#pragma once

namespace vorel {

inline constexpr double MinInitial = 1.79e308;
inline constexpr double MaxInitial = -1.79e308;

}  // namespace vorel
