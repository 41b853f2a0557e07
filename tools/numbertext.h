// Reading a decimal number where the cursor stands, with the results of
// strtod in the C locale on every text accepted.
//
// Accepted: an optional sign ('+' only when a digit, a decimal point or "inf"
// follows), digits with at most one decimal point (the point or the comma the
// user chose), an optional exponent, and "inf" or "infinity" in any case. A
// number too small for a double reads as what it rounds to (0 or a
// subnormal); one too large is kTooLarge. "nan" in any form is kNotANumber: no
// figure could use it. Hexadecimal numbers are not read: "0x10" stops after
// the 0.
#pragma once

#include <fast_float/fast_float.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace vorelstat {

enum class NumberText { kNumber, kNotANumber, kTooLarge };

struct NumberAt {
  const char* end;  // one past the number; where it started when there is none
  NumberText kind;
};

inline bool IsDigitChar(char c) { return static_cast<unsigned char>(c - '0') < 10; }

namespace plain {

inline constexpr std::uint64_t kPow10Int[] = {1,
                                              10,
                                              100,
                                              1000,
                                              10000,
                                              100000,
                                              1000000,
                                              10000000,
                                              100000000,
                                              1000000000,
                                              10000000000,
                                              100000000000,
                                              1000000000000,
                                              10000000000000,
                                              100000000000000,
                                              1000000000000000,
                                              10000000000000000,
                                              100000000000000000,
                                              1000000000000000000};

// Powers of ten that a double holds exactly.
inline constexpr double kExactPowersOfTen[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                               1e8,  1e9,  1e10, 1e11, 1e12, 1e13, 1e14, 1e15,
                                               1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};

// The leading digits of eight bytes read little-endian: how many there are
// (0 to 8) and their value.
struct DigitRun {
  unsigned count;
  std::uint64_t value;
};

[[gnu::always_inline]] inline DigitRun EightDigitsAt(const char* p) {
  std::uint64_t bytes = 0;
  std::memcpy(&bytes, p, sizeof bytes);
  constexpr std::uint64_t kOnes = 0x0101010101010101;
  const std::uint64_t digits = bytes ^ (kOnes * '0');  // 0..9 in the bytes that are digits
  // The top bit of each byte that is not a digit: its value is 10 or more.
  const std::uint64_t notDigit =
      (((digits & (kOnes * 0x7F)) + kOnes * (0x80 - 10)) | digits) & (kOnes * 0x80);
  const unsigned count = notDigit == 0 ? 8 : static_cast<unsigned>(__builtin_ctzll(notDigit)) / 8;
  if (count == 0) return {0, 0};
  // The digits to the top bytes, zeros below them; then pairs, fours, eights.
  std::uint64_t v = digits << (8 * (8 - count));
  v = (v * 10 + (v >> 8)) & 0x00FF00FF00FF00FF;
  v = (v * 100 + (v >> 16)) & 0x0000FFFF0000FFFF;
  v = (v * 10000 + (v >> 32)) & 0x00000000FFFFFFFF;
  return {count, v};
}

// A plain decimal at `p`: an optional '-', digits, and a decimal point with
// digits, nineteen digits at most, exact as a double (at most 2^53) and with
// at most 22 decimals, so that one correctly rounded division gives what
// strtod gives. Eight bytes are read at a time, so 40 must be readable. Returns
// nullptr when the text is anything else.
[[gnu::always_inline]] inline const char* ReadPlainDecimal(const char* p, char decimalPoint,
                                                           double& value) {
  const bool negative = *p == '-';
  const char* q = p + (negative ? 1 : 0);
  DigitRun whole = EightDigitsAt(q);
  q += whole.count;
  if (whole.count == 8) {
    const DigitRun more = EightDigitsAt(q);
    if (more.count == 8) return nullptr;
    whole.value = whole.value * kPow10Int[more.count] + more.value;
    whole.count += more.count;
    q += more.count;
  }
  DigitRun fraction{0, 0};
  if (*q == decimalPoint) {
    fraction = EightDigitsAt(q + 1);
    if (fraction.count == 8) {
      const DigitRun more = EightDigitsAt(q + 9);
      if (more.count == 8) return nullptr;
      fraction.value = fraction.value * kPow10Int[more.count] + more.value;
      fraction.count += more.count;
    }
    q += 1 + fraction.count;
  }
  const unsigned count = whole.count + fraction.count;
  if (count == 0 || count > 19 || *q == 'e' || *q == 'E') return nullptr;
  const std::uint64_t mantissa = whole.value * kPow10Int[fraction.count] + fraction.value;
  if (mantissa > (std::uint64_t{1} << 53)) return nullptr;
  const double magnitude = static_cast<double>(mantissa) / kExactPowersOfTen[fraction.count];
  value = negative ? -magnitude : magnitude;
  return q;
}

// Text that ReadPlainDecimal may read past a number.
inline constexpr std::ptrdiff_t kPlainReach = 40;

}  // namespace plain

// Reads the longest number at the start of [first, last) into `value`.
inline NumberAt ReadNumberAt(const char* first, const char* last, char decimalPoint,
                             double& value) {
  if (last - first >= plain::kPlainReach) {
    const char* end = plain::ReadPlainDecimal(first, decimalPoint, value);
    if (end != nullptr) return {end, NumberText::kNumber};
  }
  const char* start = first;
  if (first != last && *first == '+' && last - first > 1 && first[1] != '-' && first[1] != '+') {
    ++first;
  }
  const fast_float::parse_options options(fast_float::chars_format::general, decimalPoint);
  const auto result = fast_float::from_chars_advanced(first, last, value, options);
  if (result.ec != std::errc()) return {start, NumberText::kNotANumber};
  if (std::isnan(value)) return {result.ptr, NumberText::kNotANumber};
  if (std::isinf(value)) {
    // Digits that overflow, as opposed to the word "inf".
    const char* digits = first + (*first == '-' ? 1 : 0);
    if (IsDigitChar(*digits) || *digits == decimalPoint) return {result.ptr, NumberText::kTooLarge};
  }
  return {result.ptr, NumberText::kNumber};
}

// The whole of `text` as one number.
inline NumberText ReadNumberText(std::string_view text, char decimalPoint, double& value) {
  const char* last = text.data() + text.size();
  const NumberAt at = ReadNumberAt(text.data(), last, decimalPoint, value);
  if (at.end != last) return NumberText::kNotANumber;
  return at.kind;
}

}  // namespace vorelstat
