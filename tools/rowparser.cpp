#include "rowparser.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "chunkreader.h"
#include "errors.h"
#include "numbertext.h"
#include "textscan.h"

namespace vorelstat {
namespace {

bool IsSpace(char c) { return c == ' ' || c == '\t'; }

bool StartsLikeNumber(char c) { return (c >= '0' && c <= '9') || c == '-' || c == '+' || c == '.'; }

std::string_view Trim(std::string_view text) {
  while (!text.empty() && IsSpace(text.front()))
    text.remove_prefix(1);
  while (!text.empty() && IsSpace(text.back()))
    text.remove_suffix(1);
  return text;
}

// The text of a quoted field from `q`, just after its opening quote, into
// `into`, with "" as one quote; returns the position after the closing quote,
// or nullptr when there is none before `end`.
const char* Unquote(const char* q, const char* end, std::string& into) {
  into.clear();
  for (;;) {
    const void* found = std::memchr(q, '"', static_cast<std::size_t>(end - q));
    if (found == nullptr) return nullptr;
    const char* quote = static_cast<const char*>(found);
    into.append(q, quote);
    if (quote + 1 == end || quote[1] != '"') return quote + 1;
    into.push_back('"');
    q = quote + 2;
  }
}

// Reads the field that starts at p and leaves p at the delimiter after it or
// at `end`. A quoted field is unquoted into `scratch`, which `cell` then views.
// Returns false, with `problem` set, for a malformed quoted field.
bool NextField(const char*& p, const char* end, char delimiter, std::string& scratch,
               std::string_view& cell, const char*& problem) {
  const char* start = p;
  while (start != end && IsSpace(*start) && *start != delimiter)
    ++start;
  if (start == end || *start != '"') {
    const void* found = std::memchr(p, delimiter, static_cast<std::size_t>(end - p));
    const char* stop = found != nullptr ? static_cast<const char*>(found) : end;
    cell = Trim(std::string_view(p, static_cast<std::size_t>(stop - p)));
    p = stop;
    return true;
  }
  const char* q = Unquote(start + 1, end, scratch);
  if (q == nullptr) {
    problem = "a quoted field has no closing quote";
    return false;
  }
  while (q != end && IsSpace(*q) && *q != delimiter)
    ++q;
  if (q != end && *q != delimiter) {
    problem = "text follows the closing quote of a field";
    return false;
  }
  cell = Trim(scratch);
  p = q;
  return true;
}

// Number of fields of a line, for the error path only.
std::size_t CountFields(std::string_view line, char delimiter) {
  std::string scratch;
  const char* p = line.data();
  const char* end = p + line.size();
  std::size_t count = 0;
  for (;;) {
    std::string_view cell;
    const char* problem = nullptr;
    if (!NextField(p, end, delimiter, scratch, cell, problem)) return count + 1;
    ++count;
    if (p == end) return count;
    ++p;
  }
}

std::string Quoted(std::string_view text) {
  constexpr std::size_t kShown = 40;
  std::string shown(text.substr(0, kShown));
  if (text.size() > kShown) shown += "...";
  return "\"" + shown + "\"";
}

// Digits, one `point`, digits: a number written with that decimal point.
bool LooksLikeDecimal(std::string_view cell, char point) {
  const std::size_t at = cell.find(point);
  if (at == std::string_view::npos || at == 0 || at + 1 == cell.size()) return false;
  if (cell.find(point, at + 1) != std::string_view::npos) return false;
  std::string_view digits = cell;
  if (digits.front() == '-' || digits.front() == '+') digits.remove_prefix(1);
  return std::all_of(digits.begin(), digits.end(),
                     [point](char c) { return IsDigitChar(c) || c == point; });
}

std::string JoinNames(const std::vector<std::string>& names) {
  std::string joined;
  for (const std::string& name : names) {
    if (!joined.empty()) joined += ", ";
    joined += name;
  }
  return joined;
}

}  // namespace

std::string NotANumber(std::string_view cell, char decimalPoint) {
  if (cell.empty()) return "cell is empty, and empty cells do not count as missing";
  std::string message = "cell " + Quoted(cell) + " is not a number";
  if (decimalPoint == '.' && LooksLikeDecimal(cell, ',')) {
    message +=
        " (a decimal comma? numbers are read with a decimal point, or with --decimal , with a "
        "comma)";
  } else if (decimalPoint == ',' && LooksLikeDecimal(cell, '.')) {
    message += " (a decimal point? with --decimal , numbers are read with a decimal comma)";
  } else if (cell.size() > 2 && (cell.substr(0, 2) == "0x" || cell.substr(0, 3) == "-0x")) {
    message += " (hexadecimal numbers are not read)";
  } else {
    double value = 0.0;
    const auto [ptr, ec] = std::from_chars(cell.data(), cell.data() + cell.size(), value);
    if (ec == std::errc() && ptr == cell.data() + cell.size() && std::isnan(value))
      message += " (add it to --missing-text to count it as missing)";
  }
  return message;
}

char DetectDelimiter(std::string_view header) {
  std::size_t commas = 0, tabs = 0, semicolons = 0;
  bool quoted = false;
  for (char c : header) {
    if (c == '"') quoted = !quoted;
    if (quoted) continue;
    commas += c == ',';
    tabs += c == '\t';
    semicolons += c == ';';
  }
  if (tabs > commas && tabs >= semicolons) return '\t';
  if (semicolons > commas && semicolons > tabs) return ';';
  return ',';
}

std::vector<std::string> SplitLine(std::string_view line, char delimiter) {
  std::vector<std::string> fields;
  std::string scratch;
  const char* p = line.data();
  const char* end = p + line.size();
  for (;;) {
    std::string_view cell;
    const char* problem = nullptr;
    if (!NextField(p, end, delimiter, scratch, cell, problem)) throw DataError(problem);
    fields.emplace_back(cell);
    if (p == end) return fields;
    ++p;
  }
}

namespace {

std::size_t FindColumn(const std::vector<std::string>& names, const std::string& name) {
  std::vector<std::size_t> hits;
  for (std::size_t i = 0; i < names.size(); ++i) {
    if (names[i] == name) hits.push_back(i);
  }
  if (hits.empty()) {
    throw UsageError("the header has no column \"" + name
                     + "\"; its columns are: " + JoinNames(names));
  }
  if (hits.size() > 1) {
    throw DataError("the header names column \"" + name + "\" twice (fields "
                    + std::to_string(hits[0] + 1) + " and " + std::to_string(hits[1] + 1) + ")");
  }
  return hits.front();
}

const char* RoleName(FieldRole role) {
  switch (role) {
    case FieldRole::kValue:
      return "an analysed column";
    case FieldRole::kWeight:
      return "the weight column";
    case FieldRole::kRegWeight:
      return "the regression weight column";
    case FieldRole::kGroup:
      return "the group column";
    case FieldRole::kSkip:
      break;
  }
  return "unused";
}

void AssignRole(RowLayout& layout, std::size_t field, FieldRole role) {
  if (layout.roles[field] != FieldRole::kSkip) {
    throw UsageError("column \"" + layout.names[field] + "\" is named as " + RoleName(role)
                     + " and already as " + RoleName(layout.roles[field]));
  }
  layout.roles[field] = role;
  if (role == FieldRole::kValue) {
    layout.slots[field] = layout.NValues();
    layout.valueFields.push_back(field);
  }
}

}  // namespace

RowLayout MakeLayout(std::vector<std::string> header, char delimiter, const ColumnChoice& choice,
                     const std::vector<SkippedColumn>& skip, std::vector<SkippedColumn>* skipped) {
  RowLayout layout;
  layout.delimiter = delimiter;
  layout.names = std::move(header);
  layout.roles.assign(layout.names.size(), FieldRole::kSkip);
  layout.slots.assign(layout.names.size(), 0);
  if (!choice.weight.empty()) {
    layout.weightField = FindColumn(layout.names, choice.weight);
    AssignRole(layout, *layout.weightField, FieldRole::kWeight);
  }
  if (!choice.regWeight.empty()) {
    layout.regWeightField = FindColumn(layout.names, choice.regWeight);
    AssignRole(layout, *layout.regWeightField, FieldRole::kRegWeight);
  }
  if (!choice.group.empty()) {
    layout.groupField = FindColumn(layout.names, choice.group);
    AssignRole(layout, *layout.groupField, FieldRole::kGroup);
  }
  if (!choice.columns.empty()) {
    for (const std::string& name : choice.columns) {
      AssignRole(layout, FindColumn(layout.names, name), FieldRole::kValue);
    }
    return layout;
  }
  layout.typedByContent = true;
  std::vector<bool> passOver(layout.names.size(), false);
  for (const SkippedColumn& column : skip)
    passOver[column.field] = true;
  for (std::size_t field = 0; field < layout.names.size(); ++field) {
    if (layout.roles[field] != FieldRole::kSkip || passOver[field]) continue;
    if (layout.names[field].empty()) {
      if (skipped != nullptr) skipped->push_back({field, "the header gives it no name"});
      continue;
    }
    AssignRole(layout, field, FieldRole::kValue);
  }
  if (layout.NValues() == 0) {
    throw UsageError(
        "no numeric column found (every column holds text or has no name); name the columns "
        "with --columns");
  }
  return layout;
}

RowParser::RowParser(const RowLayout& layout, const CellRules& rules)
    : _layout(layout), _rules(rules), _nFields(layout.names.size()) {
  for (const std::string& text : rules.missingTexts) {
    if (!text.empty() && StartsLikeNumber(text.front())) _numericMissingText = true;
    if (text.empty()) _emptyIsMissing = true;
  }
  _plainValues = !_numericMissingText;
}

bool RowParser::IsMissingText(std::string_view cell) const {
  for (const std::string& text : _rules.missingTexts) {
    if (text.size() == cell.size() && std::memcmp(text.data(), cell.data(), cell.size()) == 0) {
      return true;
    }
  }
  return false;
}

RowParser::CellKind RowParser::ReadNumber(std::string_view cell, double& value) const {
  // Most cells start with a digit or a minus, and most missing texts do not:
  // then the texts need no comparing.
  const bool mayBeText = cell.empty() || _numericMissingText || !StartsLikeNumber(cell.front());
  if (mayBeText && IsMissingText(cell)) return CellKind::kMissing;
  switch (ReadNumberText(cell, _rules.decimalPoint, value)) {
    case NumberText::kNotANumber:
      return CellKind::kBad;
    case NumberText::kTooLarge:
      return CellKind::kOutOfRange;
    case NumberText::kNumber:
      break;
  }
  // The missing code is compared exactly, on purpose.
  if (value == _rules.missingCode) {
    return _rules.userMissingCode ? CellKind::kMissing : CellKind::kReserved;
  }
  return CellKind::kNumber;
}

// The error of a cell that could not be taken; `what` names its role.
bool RowParser::CellError(std::size_t field, CellKind kind, std::string_view cell, const char* what,
                          LineError& error) const {
  std::string message;
  switch (kind) {
    case CellKind::kOutOfRange:
      message = std::string(what) + " " + Quoted(cell)
                + " is beyond the range of a double (about 1.8e308)";
      break;
    case CellKind::kReserved:
      message = std::string(what) + " " + Quoted(cell)
                + " equals the lowest double, which marks missing cells inside the tool; give "
                  "--missing-code a value the data does not hold";
      break;
    default:
      message = std::string(what) == "cell"
                    ? NotANumber(cell, _rules.decimalPoint)
                    : std::string(what) + " " + Quoted(cell) + " is not a number";
      break;
  }
  error = {field, std::move(message)};
  return false;
}

bool RowParser::TakeWeight(std::size_t field, std::string_view cell, double& weight, ParsedRow& row,
                           LineError& error) {
  const CellKind kind = ReadNumber(cell, weight);
  switch (kind) {
    case CellKind::kMissing:
      row.weightMissing = true;
      return true;
    case CellKind::kBad:
    case CellKind::kOutOfRange:
    case CellKind::kReserved:
      if (_rules.nonNumericIsMissing) {
        row.weightMissing = true;
        ++row.nCoerced;
        return true;
      }
      return CellError(field, kind, cell, "weight", error);
    case CellKind::kNumber:
      break;
  }
  if (weight < 0.0) {
    error = {field, "weight " + Quoted(cell) +
                        " is negative; the library would enter it unchanged into every sum, so "
                        "the tool refuses negative weights"};
    return false;
  }
  if (std::isinf(weight)) {
    error = {field, "weight " + Quoted(cell) + " is not finite"};
    return false;
  }
  return true;
}

bool RowParser::TakeGroup(std::size_t field, std::string_view cell, ParsedRow& row,
                          LineError& error) {
  if (IsMissingText(cell)) {
    row.groupMissing = true;
    return true;
  }
  row.group.Read(cell, _rules.decimalPoint);
  if (!_rules.checkGroupRange) return true;
  if (!row.group.IsWhole()) {
    if (_rules.nonNumericIsMissing) {
      row.groupMissing = true;
      ++row.nCoerced;
      return true;
    }
    error = {field, "group " + Quoted(cell) + " is not a whole number, as --group-range asks"};
    return false;
  }
  const long long code = row.group.Whole();
  if (code < _rules.groupLo || code > _rules.groupHi) {
    error = {field, "group " + std::to_string(code) + " is outside the group range "
                        + std::to_string(_rules.groupLo) + ".." + std::to_string(_rules.groupHi)
                        + " (set the range with --group-range)"};
    return false;
  }
  return true;
}

bool RowParser::TakeCell(std::size_t field, std::string_view cell, ParsedRow& row,
                         LineError& error) {
  switch (_layout.roles[field]) {
    case FieldRole::kSkip:
      return true;
    case FieldRole::kWeight:
      return TakeWeight(field, cell, row.weight, row, error);
    case FieldRole::kRegWeight:
      return TakeWeight(field, cell, row.regWeight, row, error);
    case FieldRole::kGroup:
      return TakeGroup(field, cell, row, error);
    case FieldRole::kValue:
      break;
  }
  const unsigned slot = _layout.slots[field];
  double& value = row.values[slot];
  const CellKind kind = ReadNumber(cell, value);
  switch (kind) {
    case CellKind::kNumber:
      return true;
    case CellKind::kMissing:
      break;
    case CellKind::kBad:
      if (_layout.typedByContent) {
        constexpr std::size_t kKept = 60;
        row.texts.push_back({slot, std::string(cell.substr(0, kKept))});
        break;
      }
      [[fallthrough]];
    case CellKind::kOutOfRange:
    case CellKind::kReserved:
      if (!_rules.nonNumericIsMissing) return CellError(field, kind, cell, "cell", error);
      ++row.nCoerced;
      break;
  }
  value = _rules.missingCode;
  ++row.nMissing;
  return true;
}

bool RowParser::ParseLine(std::string_view line, ParsedRow& row, LineError& error) {
  ResetRow(row);

  const char* p = line.data();
  const char* end = p + line.size();
  std::size_t field = 0;
  bool ok = true;
  for (;;) {
    std::string_view cell;
    const char* problem = nullptr;
    if (!NextField(p, end, _layout.delimiter, _unquoted, cell, problem)) {
      if (field < _nFields) {
        error = {field, problem};
      } else {
        error = {LineError::kWholeLine, "the line has more fields than the header's "
                                            + std::to_string(_nFields) + ", and " + problem};
      }
      return false;
    }
    if (field < _nFields && !TakeCell(field, cell, row, error)) {
      ok = false;
      break;
    }
    ++field;
    if (p == end) break;
    ++p;
  }
  // A wrong number of fields shifts the cells, so it is the error to report
  // even when a cell failed first.
  const std::size_t nFields = ok ? field : CountFields(line, _layout.delimiter);
  if (nFields != _nFields) {
    error = {LineError::kWholeLine, "the line has " + std::to_string(nFields)
                                        + " fields, the header has " + std::to_string(_nFields)};
    return false;
  }
  return ok;
}

namespace {

// Whether `p` stands at the end of a field: a delimiter, a line end, or the end.
bool AtFieldEnd(const char* p, const char* end, char delimiter) {
  if (p == end || *p == delimiter || *p == '\n') return true;
  return *p == '\r' && (p + 1 == end || p[1] == '\n');
}

const char* SkipPadding(const char* p, const char* end, char delimiter) {
  while (p != end && IsPadding(*p, delimiter))
    ++p;
  return p;
}

}  // namespace

void RowParser::ResetRow(ParsedRow& row) const {
  row.values.resize(_layout.NValues());
  row.nMissing = 0;
  row.nCoerced = 0;
  row.weight = 1.0;
  row.regWeight = 1.0;
  row.weightMissing = false;
  row.groupMissing = false;
  row.texts.clear();
}

bool RowParser::Parse(std::string_view line, ParsedRow& row, LineError& error) {
  const char* end = line.data() + line.size();
  RecordEnd record;
  if (ParseFields(line.data(), end, row, error, record) && record.next == end) return true;
  return ParseLine(line, row, error);
}

bool RowParser::ParseRecord(const char* p, const char* end, ParsedRow& row, LineError& error,
                            RecordEnd& record) {
  record = RecordEnd();
  const char* lineEnd = p;
  if (lineEnd != end && *lineEnd == '\r') ++lineEnd;
  if (lineEnd == end || *lineEnd == '\n') {
    record.next = lineEnd == end ? end : lineEnd + 1;
    record.blank = true;
    return true;
  }
  if (ParseFields(p, end, row, error, record)) return true;
  return Explain(p, end, row, error, record);
}

RowParser::Cursor RowParser::TakeNumberAt(FieldRole role, std::size_t field, const char*& p,
                                          const char* end, ParsedRow& row) const {
  const char delimiter = _layout.delimiter;
  if (p == end || _numericMissingText || !StartsLikeNumber(*p)) {
    if (!_emptyIsMissing || !AtFieldEnd(p, end, delimiter)) return Cursor::kElsewhere;
    TakeMissing(role, field, row);
    return Cursor::kTaken;
  }
  double value = 0.0;
  const NumberAt at = ReadNumberAt(p, end, _rules.decimalPoint, value);
  if (at.kind != NumberText::kNumber) return Cursor::kElsewhere;
  const char* after = SkipPadding(at.end, end, delimiter);
  if (!AtFieldEnd(after, end, delimiter)) return Cursor::kElsewhere;
  // The missing code is compared exactly, on purpose.
  if (value == _rules.missingCode) {
    if (!_rules.userMissingCode) return Cursor::kElsewhere;
    TakeMissing(role, field, row);
  } else if (role == FieldRole::kValue) {
    row.values[_layout.slots[field]] = value;
  } else {
    if (value < 0.0 || std::isinf(value)) return Cursor::kElsewhere;
    (role == FieldRole::kWeight ? row.weight : row.regWeight) = value;
  }
  p = after;
  return Cursor::kTaken;
}

bool RowParser::TakePlain(FieldRole role, std::size_t field, double value, ParsedRow& row) const {
  if (role == FieldRole::kValue) {
    row.values[_layout.slots[field]] = value;
    return true;
  }
  // A plain decimal is finite; a negative weight needs its error worded.
  if (value < 0.0) return false;
  (role == FieldRole::kWeight ? row.weight : row.regWeight) = value;
  return true;
}

void RowParser::TakeMissing(FieldRole role, std::size_t field, ParsedRow& row) const {
  if (role == FieldRole::kValue) {
    row.values[_layout.slots[field]] = _rules.missingCode;
    ++row.nMissing;
  } else {
    row.weightMissing = true;
  }
}

bool RowParser::TakeField(std::size_t field, const char*& p, const char* end, ParsedRow& row,
                          RecordEnd& record, LineError& error) {
  const char delimiter = _layout.delimiter;
  std::string_view cell;
  if (p != end && *p == '"') {
    const char* q = Unquote(p + 1, end, _unquoted);
    if (q == nullptr) return false;
    record.lineEndsInside += static_cast<std::uint64_t>(std::count(p, q, '\n'));
    q = SkipPadding(q, end, delimiter);
    if (!AtFieldEnd(q, end, delimiter)) return false;
    cell = Trim(_unquoted);
    p = q;
  } else {
    const char* stop = FindEither(p, end, delimiter, '\n');
    if (stop == nullptr) stop = end;
    // A carriage return before the line end belongs to the line end.
    if (stop != p && stop[-1] == '\r' && (stop == end || *stop == '\n')) --stop;
    cell = Trim(std::string_view(p, static_cast<std::size_t>(stop - p)));
    p = stop;
  }
  return TakeCell(field, cell, row, error);
}

bool RowParser::ParseFields(const char* p, const char* end, ParsedRow& row, LineError& error,
                            RecordEnd& record) {
  ResetRow(row);
  const char* const start = p;
  const char delimiter = _layout.delimiter;
  for (std::size_t field = 0;; ++field) {
    if (field == _nFields) return false;
    // The common cell first: a plain decimal in a value or weight column,
    // right up against its delimiter or line end.
    const FieldRole role = _layout.roles[field];
    if (_plainValues && end - p >= plain::kPlainReach && role != FieldRole::kSkip
        && role != FieldRole::kGroup) {
      double value = 0.0;
      const char* after = plain::ReadPlainDecimal(p, _rules.decimalPoint, value);
      if (after != nullptr && (*after == delimiter || *after == '\n') && value != _rules.missingCode
          && TakePlain(role, field, value, row)) {
        p = after;
        if (*p == delimiter) {
          ++p;
          continue;
        }
        if (field + 1 != _nFields) return false;
        record.length = static_cast<std::size_t>(p - start);
        record.next = p + 1;
        return true;
      }
    }
    p = SkipPadding(p, end, delimiter);
    const bool numeric =
        role == FieldRole::kValue || role == FieldRole::kWeight || role == FieldRole::kRegWeight;
    if (!numeric || TakeNumberAt(role, field, p, end, row) != Cursor::kTaken) {
      if (!TakeField(field, p, end, row, record, error)) return false;
    }
    if (p != end && *p == delimiter) {
      ++p;
      continue;
    }
    if (field + 1 != _nFields) return false;
    record.length = static_cast<std::size_t>(p - start);
    if (p != end && *p == '\r') ++p;
    record.next = p == end ? end : p + 1;
    return true;
  }
}

bool RowParser::Explain(const char* p, const char* end, ParsedRow& row, LineError& error,
                        RecordEnd& record) {
  QuoteState state;
  record.lineEndsInside = 0;
  const char* lineEnd =
      NextLineEndOutsideQuotes(p, end, _layout.delimiter, state, &record.lineEndsInside);
  record.next = lineEnd != nullptr ? lineEnd + 1 : end;
  std::string_view line(p, static_cast<std::size_t>((lineEnd != nullptr ? lineEnd : end) - p));
  if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  record.length = line.size();
  const bool parsed = ParseLine(line, row, error);
  if (!parsed) error.openQuote = lineEnd == nullptr && state.where == QuoteState::kInside;
  return parsed;
}

}  // namespace vorelstat
