// Parsing of a delimited text line into the numbers of one row.
//
// Fields are split at the delimiter. A field that starts with a double quote
// runs to the closing quote, with "" standing for one quote inside, line ends
// included. Spaces and tabs around a field are ignored. A record ends at the
// first line end outside quotes ("\r\n" or "\n").
//
// Rows are read where the cursor stands: a number is converted straight from
// the text and its end is the field's end, so most cells are looked at once.
// Anything unusual (quotes, text, missing texts other than the empty cell)
// takes the field-by-field path, and a record that fails is read again by the
// plain line parser, which words the error.
//
// Every field has one role: analysed value, frequency weight, regression
// weight, group, or skipped. Cells are read as follows:
//   - a cell whose text is one of the missing texts is missing;
//   - otherwise it is read as a decimal double with the results of strtod
//     (numbertext.h: "inf" included, a leading '+' allowed, the decimal point
//     or the decimal comma the user chose); a value equal to the missing code is
//     missing too. A number too small for a double reads as what it rounds to
//     (0 or a subnormal); one too large is an error. "nan" is not a number:
//     no figure could use it;
//   - anything else is not a number: an error, or missing when the user asked
//     for that. In a column chosen by the tool (no --columns), it marks the
//     column as text instead, and the pass leaves the column out.
// A weight must be finite and not negative: the library would enter a
// negative or NaN weight unchanged into every sum, so the tool refuses it. A
// group is any label (grouplabel.h); with the range check it must be a whole
// number within the group range.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "grouplabel.h"

namespace vorelstat {

enum class FieldRole : std::uint8_t { kSkip, kValue, kWeight, kRegWeight, kGroup };

struct CellRules {
  std::vector<std::string> missingTexts;  // after trimming; "" is the empty cell
  double missingCode = 0.0;               // what a missing cell is stored as
  // Whether the user chose the code. If not, it is a value no data should
  // hold, and a cell that holds it is refused rather than taken as missing.
  bool userMissingCode = true;
  bool nonNumericIsMissing = false;
  char decimalPoint = '.';  // or ','
  // Whether a group must be a whole number within [groupLo, groupHi].
  bool checkGroupRange = true;
  long long groupLo = 0;
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
  // The value columns were chosen by the tool: a cell that is not a number
  // marks its column as text instead of failing the row.
  bool typedByContent = false;
  unsigned NValues() const { return static_cast<unsigned>(valueFields.size()); }
};

// A field of the header that the tool passed over, and why.
struct SkippedColumn {
  std::size_t field = 0;
  std::string reason;
};

// What the user asked for, by column name.
struct ColumnChoice {
  std::vector<std::string> columns;  // empty: every numeric column
  std::string weight, regWeight, group;
};

// A cell of text in a column that the tool chose (typedByContent).
struct TextCell {
  unsigned slot = 0;
  std::string text;  // the cell, cut short for messages
};

struct ParsedRow {
  std::vector<double> values;  // NValues() cells; a missing cell holds the missing code
  unsigned nMissing = 0;       // missing value cells (text cells included)
  unsigned nCoerced = 0;       // cells of this row that were not numbers, taken as missing
  double weight = 1.0;
  double regWeight = 1.0;
  bool weightMissing = false;  // either weight is missing
  bool groupMissing = false;
  GroupLabel group;
  std::vector<TextCell> texts;  // typedByContent only: the row's text cells
};

struct LineError {
  static constexpr std::size_t kWholeLine = static_cast<std::size_t>(-1);
  std::size_t field = kWholeLine;  // 0-based header field, or kWholeLine
  std::string message;
  bool openQuote = false;  // a quoted field ran to the end of the text
};

// Where a record ended.
struct RecordEnd {
  const char* next = nullptr;        // one past its line end, or the end of the text
  std::size_t length = 0;            // its bytes without the line end
  std::uint64_t lineEndsInside = 0;  // line ends inside its quoted fields
  bool blank = false;                // an empty line: no record at all
};

// The delimiter that occurs most often in the header outside quotes: comma,
// tab or semicolon, comma on a tie or when there is none.
char DetectDelimiter(std::string_view header);

// The fields of one line, unquoted and trimmed. For the header only; rows go
// through RowParser::Parse.
std::vector<std::string> SplitLine(std::string_view line, char delimiter);

// Assigns roles. Throws UsageError for a name the header lacks or a column
// named twice, DataError for a name that appears twice in the header. With no
// columns named, takes every field that is none of the named weight and group
// fields and has a name, minus the fields in `skip`; fields without a name are
// added to `skipped`. Throws UsageError when no column is left.
RowLayout MakeLayout(std::vector<std::string> header, char delimiter, const ColumnChoice& choice,
                     const std::vector<SkippedColumn>& skip = {},
                     std::vector<SkippedColumn>* skipped = nullptr);

// The message for a cell that is not a number: the text, and a hint where one helps.
std::string NotANumber(std::string_view cell, char decimalPoint = '.');

class RowParser {
 public:
  RowParser(const RowLayout& layout, const CellRules& rules);

  // Parses one line without its line end into `row`. On bad input returns
  // false with `error` set; `row` is then unspecified.
  bool Parse(std::string_view line, ParsedRow& row, LineError& error);

  // Parses the record that starts at `p` and ends at the first line end
  // outside quotes or at `end`, and says in `record` where it ended, also
  // when it fails. A blank line fills no row.
  bool ParseRecord(const char* p, const char* end, ParsedRow& row, LineError& error,
                   RecordEnd& record);

 private:
  enum class CellKind { kNumber, kMissing, kBad, kOutOfRange, kReserved };
  enum class Cursor { kTaken, kElsewhere };
  void ResetRow(ParsedRow& row) const;
  // A number field read at the cursor: a plain number or an empty missing
  // cell, leaving `p` at the delimiter or line end after it. Anything else is
  // kElsewhere, with `p` unmoved.
  Cursor TakeNumberAt(FieldRole role, std::size_t field, const char*& p, const char* end,
                      ParsedRow& row) const;
  // A plain decimal into a value or weight; false for a negative weight.
  bool TakePlain(FieldRole role, std::size_t field, double value, ParsedRow& row) const;
  void TakeMissing(FieldRole role, std::size_t field, ParsedRow& row) const;
  // The fields of a record from `p`, at the cursor; `record` gets its end.
  // False for anything that needs the error worded.
  bool ParseFields(const char* p, const char* end, ParsedRow& row, LineError& error,
                   RecordEnd& record);
  // A field that the cursor path does not take: quoted, text, or a missing
  // text. Leaves `p` at the delimiter or line end after it.
  bool TakeField(std::size_t field, const char*& p, const char* end, ParsedRow& row,
                 RecordEnd& record, LineError& error);
  // Reads the record from `p` again with the line parser, for its error.
  bool Explain(const char* p, const char* end, ParsedRow& row, LineError& error, RecordEnd& record);
  bool ParseLine(std::string_view line, ParsedRow& row, LineError& error);
  CellKind ReadNumber(std::string_view cell, double& value) const;
  bool CellError(std::size_t field, CellKind kind, std::string_view cell, const char* what,
                 LineError& error) const;
  bool IsMissingText(std::string_view cell) const;
  bool TakeCell(std::size_t field, std::string_view cell, ParsedRow& row, LineError& error);
  bool TakeWeight(std::size_t field, std::string_view cell, double& weight, ParsedRow& row,
                  LineError& error);
  bool TakeGroup(std::size_t field, std::string_view cell, ParsedRow& row, LineError& error);

  const RowLayout& _layout;
  const CellRules& _rules;
  std::size_t _nFields;
  bool _numericMissingText = false;  // a missing text starts like a number
  bool _emptyIsMissing = false;      // the empty cell is a missing text
  bool _plainValues = false;         // a plain decimal is never a missing text
  std::string _unquoted;             // scratch for a quoted field
};

}  // namespace vorelstat
