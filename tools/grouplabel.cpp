#include "grouplabel.h"

#include <charconv>
#include <cmath>
#include <functional>

#include "numbertext.h"

namespace vorelstat {
namespace {

// Doubles hold every integer up to 2^53.
constexpr double kExactWhole = 9007199254740992.0;

// A leading '+' that from_chars does not take; "+-1" and "+" keep it.
std::string_view WithoutPlus(std::string_view cell) {
  if (cell.size() > 1 && cell[0] == '+' && cell[1] != '-') cell.remove_prefix(1);
  return cell;
}

bool ReadsWhole(std::string_view cell, long long& value) {
  const auto [ptr, ec] = std::from_chars(cell.data(), cell.data() + cell.size(), value);
  return ec == std::errc() && ptr == cell.data() + cell.size();
}

// A number read as the value columns read theirs, with the user's decimal point.
bool ReadsFinite(std::string_view cell, char decimalPoint, double& value) {
  return ReadNumberText(cell, decimalPoint, value) == NumberText::kNumber && std::isfinite(value);
}

// A number of either kind, for the sorted order; long double holds every
// 64-bit integer and every double exactly.
long double NumberOf(GroupLabel::Kind kind, long long whole, double real) {
  return kind == GroupLabel::Kind::kWhole ? static_cast<long double>(whole)
                                          : static_cast<long double>(real);
}

}  // namespace

void GroupLabel::Read(std::string_view cell, char decimalPoint) {
  const std::string_view number = WithoutPlus(cell);
  _text.clear();
  if (ReadsWhole(number, _whole)) {
    _kind = Kind::kWhole;
    return;
  }
  double value = 0.0;
  if (ReadsFinite(cell, decimalPoint, value)) {
    if (value == std::trunc(value) && std::fabs(value) <= kExactWhole) {
      _kind = Kind::kWhole;
      _whole = static_cast<long long>(value);
    } else {
      _kind = Kind::kReal;
      _real = value;
    }
    return;
  }
  _kind = Kind::kText;
  _text.assign(cell);
}

std::string GroupLabel::Display() const {
  switch (_kind) {
    case Kind::kWhole:
      return std::to_string(_whole);
    case Kind::kReal: {
      char text[32];
      const auto [end, ec] = std::to_chars(text, text + sizeof text, _real);
      return std::string(text, ec == std::errc() ? end : text);
    }
    case Kind::kText:
      break;
  }
  return _text;
}

bool GroupLabel::operator==(const GroupLabel& other) const {
  if (_kind != other._kind) return false;
  switch (_kind) {
    case Kind::kWhole:
      return _whole == other._whole;
    case Kind::kReal:
      return _real == other._real;
    case Kind::kText:
      break;
  }
  return _text == other._text;
}

bool GroupLabel::SortsBefore(const GroupLabel& a, const GroupLabel& b) {
  const bool aText = a._kind == Kind::kText;
  const bool bText = b._kind == Kind::kText;
  if (aText || bText) return !aText || (bText && a._text < b._text);
  return NumberOf(a._kind, a._whole, a._real) < NumberOf(b._kind, b._whole, b._real);
}

std::size_t GroupLabel::Hash::operator()(const GroupLabel& label) const {
  switch (label._kind) {
    case Kind::kWhole:
      return std::hash<long long>()(label._whole);
    case Kind::kReal:
      return std::hash<double>()(label._real);
    case Kind::kText:
      break;
  }
  return std::hash<std::string>()(label._text);
}

}  // namespace vorelstat
