// The label of a group as a cell of the group column gives it: a whole
// number, another number, or a text.
//
// Cells that mean the same number are one group: "1", "1.0", "+1" and "1e0"
// (pandas writes an integer column with missing cells as "1.0"). A whole
// number is kept exactly as a 64-bit integer when it is written as one; a
// number written with a fraction or an exponent is read as a double and taken
// as whole when it is whole and within 2^53, where doubles hold every
// integer. Any other cell, "inf" and "nan" among them, is a text, compared
// byte for byte.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace vorelstat {

class GroupLabel {
 public:
  enum class Kind : std::uint8_t { kWhole, kReal, kText };

  // Reads a group cell, trimmed and unquoted, numbers written with
  // `decimalPoint` ('.' or ','). Keeps the text's storage, so that reading a
  // label per row costs no allocation once the longest label has been seen.
  void Read(std::string_view cell, char decimalPoint = '.');

  Kind GetKind() const { return _kind; }
  bool IsWhole() const { return _kind == Kind::kWhole; }
  // The number of a whole label.
  long long Whole() const { return _whole; }
  // The label as the report prints it: a whole number in decimal, another
  // number as the shortest text that reads back as it, a text as it is.
  std::string Display() const;

  bool operator==(const GroupLabel& other) const;

  // The sorted order: numbers first, by value, then texts, byte for byte.
  static bool SortsBefore(const GroupLabel& a, const GroupLabel& b);

  struct Hash {
    std::size_t operator()(const GroupLabel& label) const;
  };

 private:
  Kind _kind = Kind::kWhole;
  long long _whole = 0;
  double _real = 0.0;
  std::string _text;
};

}  // namespace vorelstat
