// Finding bytes in delimited text sixteen at a time.
#pragma once

#include <cstddef>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace vorelstat {

// The first byte in [p, end) equal to `a` or `b`, or nullptr.
inline const char* FindEither(const char* p, const char* end, char a, char b) {
#if defined(__SSE2__)
  const __m128i wantA = _mm_set1_epi8(a);
  const __m128i wantB = _mm_set1_epi8(b);
  for (; end - p >= 16; p += 16) {
    const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
    const __m128i hits = _mm_or_si128(_mm_cmpeq_epi8(bytes, wantA), _mm_cmpeq_epi8(bytes, wantB));
    const int mask = _mm_movemask_epi8(hits);
    if (mask != 0) return p + __builtin_ctz(static_cast<unsigned>(mask));
  }
#endif
  for (; p < end; ++p) {
    if (*p == a || *p == b) return p;
  }
  return nullptr;
}

// Spaces and tabs around a field are not part of it, unless one is the delimiter.
inline bool IsPadding(char c, char delimiter) { return (c == ' ' || c == '\t') && c != delimiter; }

}  // namespace vorelstat
