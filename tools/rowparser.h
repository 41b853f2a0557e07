// Parsing of a delimited text line into the numbers of one row.
//
// Fields are split at the delimiter. A field that starts with a double quote
// runs to the closing quote, with "" standing for one quote inside; a line end
// inside quotes is not supported, since the reader cuts the file at line ends.
// Spaces and tabs around a field are ignored.
//
// Every field has one role: analysed value, frequency weight, regression
// weight, group, or skipped. Cells are read as follows:
//   - a cell whose text is one of the missing texts is missing;
//   - otherwise it is read with std::from_chars as a double ("nan" and "inf"
//     included, a leading '+' allowed); a value equal to the missing code is
//     missing too;
//   - anything else is an error, or missing when the user asked for that.
// A weight must be finite and not negative: the library would enter a
// negative or NaN weight unchanged into every sum, so the tool refuses it. A
// group must be a whole number within the group range; a group outside the
// range is always an error, as the discriminant tables index by it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vorelstat {

enum class FieldRole : std::uint8_t { kSkip, kValue, kWeight, kRegWeight, kGroup };

struct CellRules {
  std::vector<std::string> missingTexts;  // after trimming; "" is the empty cell
  double missingCode = 0.0;               // what a missing cell is stored as
  bool nonNumericIsMissing = false;
  long long groupLo = 0;  // group codes lo..hi are stored as 0..hi-lo
  long long groupHi = 0;
};

// Which fields play which role; built from the header and the options.
struct RowLayout {
  char delimiter = ',';
  std::vector<std::string> names;        // the header's fields
  std::vector<FieldRole> roles;          // one per header field
  std::vector<unsigned> slots;           // for value fields, the value's index
  std::vector<std::size_t> valueFields;  // header field of each value, in value order
  std::optional<std::size_t> weightField, regWeightField, groupField;
  unsigned NValues() const { return static_cast<unsigned>(valueFields.size()); }
};

// What the user asked for, by column name.
struct ColumnChoice {
  std::vector<std::string> columns;  // empty: every numeric column
  std::string weight, regWeight, group;
};

struct ParsedRow {
  std::vector<double> values;  // NValues() cells; a missing cell holds the missing code
  unsigned nMissing = 0;       // missing value cells
  unsigned nCoerced = 0;       // cells of this row that were not numbers, taken as missing
  double weight = 1.0;
  double regWeight = 1.0;
  bool weightMissing = false;  // either weight is missing
  bool groupMissing = false;
  unsigned group = 0;  // group code minus groupLo
};

struct LineError {
  static constexpr std::size_t kWholeLine = static_cast<std::size_t>(-1);
  std::size_t field = kWholeLine;  // 0-based header field, or kWholeLine
  std::string message;
};

// The delimiter that occurs most often in the header outside quotes: comma,
// tab or semicolon, comma on a tie or when there is none.
char DetectDelimiter(std::string_view header);

// The fields of one line, unquoted and trimmed. For the header and the first
// row only; the hot path is RowParser::Parse.
std::vector<std::string> SplitLine(std::string_view line, char delimiter);

// Assigns roles. Throws UsageError for a name the header lacks or a column
// named twice, DataError for a name that appears twice in the header. With no
// columns named, takes every field that is none of the named weight and group
// fields and whose cell in `firstRow` is a number or missing.
RowLayout MakeLayout(std::vector<std::string> header, char delimiter, const ColumnChoice& choice,
                     const std::optional<std::string>& firstRow, const CellRules& rules);

class RowParser {
 public:
  RowParser(const RowLayout& layout, const CellRules& rules);

  // Parses one line without its line end into `row`. On bad input returns
  // false with `error` set; `row` is then unspecified.
  bool Parse(std::string_view line, ParsedRow& row, LineError& error);

 private:
  enum class CellKind { kNumber, kMissing, kBad };
  CellKind ReadNumber(std::string_view cell, double& value) const;
  bool IsMissingText(std::string_view cell) const;
  bool TakeCell(std::size_t field, std::string_view cell, ParsedRow& row, LineError& error);
  bool TakeWeight(std::size_t field, std::string_view cell, double& weight, ParsedRow& row,
                  LineError& error);
  bool TakeGroup(std::size_t field, std::string_view cell, ParsedRow& row, LineError& error);

  const RowLayout& _layout;
  const CellRules& _rules;
  std::size_t _nFields;
  bool _numericMissingText = false;  // a missing text starts like a number
  std::string _unquoted;             // scratch for a quoted field
};

}  // namespace vorelstat
