#include <gtest/gtest.h>

#include <charconv>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "errors.h"
#include "rowparser.h"

namespace vorelstat {
namespace {

constexpr double kCode = -999.0;

CellRules Rules(bool lenient = false) {
  CellRules rules;
  rules.missingTexts = {"", "NA"};
  rules.missingCode = kCode;
  rules.nonNumericIsMissing = lenient;
  rules.groupLo = 1;
  rules.groupHi = 3;
  return rules;
}

// The shortest text that reads back as the same double.
std::string Exact(double value) {
  char text[32];
  return std::string(text, std::to_chars(text, text + sizeof text, value).ptr);
}

// What a parse gave, as one line: the error and its field; or the values
// (the missing code among them), the weight and the group ('?' when missing;
// a group of text in quotes), the counts of missing and coerced cells and
// the text cells.
std::string Outcome(const RowLayout& layout, bool parsed, const ParsedRow& row,
                    const LineError& error) {
  if (!parsed) {
    const bool wholeLine = error.field == LineError::kWholeLine;
    return (wholeLine ? std::string("line") : "field " + std::to_string(error.field)) + ": "
           + error.message;
  }
  std::string text;
  for (double value : row.values)
    text += (text.empty() ? "" : " ") + Exact(value);
  if (layout.weightField) text += " | w " + (row.weightMissing ? "?" : Exact(row.weight));
  if (layout.groupField) {
    const bool quoted = row.group.GetKind() == GroupLabel::Kind::kText;
    text += " | g "
            + (row.groupMissing ? "?"
               : quoted         ? "'" + row.group.Display() + "'"
                                : row.group.Display());
  }
  if (row.nMissing != 0) text += " | missing " + std::to_string(row.nMissing);
  if (row.nCoerced != 0) text += " | coerced " + std::to_string(row.nCoerced);
  for (const TextCell& cell : row.texts)
    text += " | text " + std::to_string(cell.slot) + "=" + cell.text;
  return text;
}

// A parser of lines under `header`; by default the header "id,g,w,x,y" with y
// analysed before x, so that slots differ from fields.
struct Fixture {
  explicit Fixture(bool lenient = false)
      : Fixture({"id", "g", "w", "x", "y"}, ',', {{"y", "x"}, "w", "", "g"}, Rules(lenient)) {}
  Fixture(std::vector<std::string> header, char delimiter, const ColumnChoice& choice,
          const CellRules& cellRules)
      : rules(cellRules),
        layout(MakeLayout(std::move(header), delimiter, choice)),
        parser(layout, rules) {}

  // Parses `line` and compares the outcome; one that ends in "..." is compared
  // up to there.
  void Expect(const std::string& line, std::string outcome) {
    SCOPED_TRACE(line);
    std::string got = Outcome(layout, parser.Parse(line, row, error), row, error);
    if (outcome.ends_with("...")) {
      outcome.resize(outcome.size() - 3);
      got.resize(std::min(got.size(), outcome.size()));
    }
    EXPECT_EQ(got, outcome);
  }

  CellRules rules;
  RowLayout layout;
  RowParser parser;
  ParsedRow row;
  LineError error;
};

TEST(DetectDelimiter, MostFrequentOutsideQuotes) {
  EXPECT_EQ(DetectDelimiter("a,b,c"), ',');
  EXPECT_EQ(DetectDelimiter("a\tb\tc"), '\t');
  EXPECT_EQ(DetectDelimiter("a;b;c"), ';');
  EXPECT_EQ(DetectDelimiter("\"a,b\";c"), ';');
  EXPECT_EQ(DetectDelimiter("single"), ',');
  EXPECT_EQ(DetectDelimiter("a,b;c"), ',');
}

TEST(SplitLine, QuotesSpacesAndEmptyFields) {
  EXPECT_EQ(SplitLine(" a , \"b,c\" ,\"say \"\"hi\"\"\",,", ','),
            (std::vector<std::string>{"a", "b,c", "say \"hi\"", "", ""}));
  EXPECT_EQ(SplitLine("", ','), (std::vector<std::string>{""}));
  EXPECT_EQ(SplitLine("x\ty z\t", '\t'), (std::vector<std::string>{"x", "y z", ""}));
  EXPECT_THROW(SplitLine("\"open,b", ','), DataError);
  EXPECT_THROW(SplitLine("\"a\"b,c", ','), DataError);
}

TEST(RowParser, ReadsNumbersIntoTheirSlots) {
  Fixture f;
  f.Expect("r1,2,3,1.5,-2e3", "-2000 1.5 | w 3 | g 2");
  f.Expect("r2, 3 ,\"0.25\", +7 ,.5", "0.5 7 | w 0.25 | g 3");
  // Too small for a double: what it rounds to, a subnormal or 0.
  f.Expect("r,1,1,1e-400,-4.9e-324", "-5e-324 0 | w 1 | g 1");
}

TEST(RowParser, MissingTextsAndCodeBecomeTheCode) {
  Fixture f;
  f.Expect("r,1,1,NA,", "-999 -999 | w 1 | g 1 | missing 2");
  f.Expect("r,1,1,-999,-999.0000", "-999 -999 | w 1 | g 1 | missing 2");
  // Infinity is a value; NaN, when it is no missing text, is not a number.
  f.Expect("r,1,1,-inf,inf", "inf -inf | w 1 | g 1");
  f.Expect("r,1,1,NaN,1",
           "field 3: cell \"NaN\" is not a number (add it to --missing-text to count it as "
           "missing)");
  // Missing texts that look like numbers.
  CellRules rules = Rules();
  rules.missingTexts = {".", "-", "-9"};
  Fixture numeric({"a", "b", "c", "d"}, ',', {}, rules);
  numeric.Expect(".,-,-9,-9.5", "-999 -999 -999 -9.5 | missing 3");
}

// What the message says of a cell: the real cause, and a hint where one helps.
TEST(RowParser, BadCellsAreNamedWithTheirCause) {
  Fixture f;
  f.Expect("r,1,1,abc,2", "field 3: cell \"abc\" is not a number");
  f.Expect("r,1,1,2,\"1 2\"", "field 4: cell \"1 2\" is not a number");
  f.Expect("r,1,1,2,1e400",
           "field 4: cell \"1e400\" is beyond the range of a double (about 1.8e308)");
  f.Expect("r,1,1,2,-1e999",
           "field 4: cell \"-1e999\" is beyond the range of a double (about 1.8e308)");
  f.Expect("r,1,1,2,\"5,1\"",
           "field 4: cell \"5,1\" is not a number (a decimal comma? numbers are read with a "
           "decimal point, or with --decimal , with a comma)");
  f.Expect("r,1,1,2,0x1p3",
           "field 4: cell \"0x1p3\" is not a number (hexadecimal numbers are not read)");
  // Without an empty missing text, or with the tool's own code as data.
  CellRules rules = Rules();
  rules.missingTexts = {"NA"};
  rules.missingCode = std::numeric_limits<double>::lowest();
  rules.userMissingCode = false;
  Fixture single({"x"}, ',', {{"x"}, "", "", ""}, rules);
  single.Expect(" ", "field 0: cell is empty...");
  single.Expect("-1.7976931348623157e308",
                "field 0: cell \"-1.7976931348623157e308\" equals the lowest double, which marks "
                "missing cells inside the tool; give --missing-code a value the data does not "
                "hold");
}

// In columns the tool chose, text marks the column instead of failing the row.
TEST(RowParser, TextInColumnsChosenByContent) {
  Fixture f({"id", "x", "w"}, ',', {{}, "w", "", ""}, Rules());
  ASSERT_TRUE(f.layout.typedByContent);
  f.Expect("A7,NA,2", "-999 -999 | w 2 | missing 2 | text 0=A7");
  f.Expect("8,1.5,2", "8 1.5 | w 2");
  f.Expect("8,1e400,2", "field 1: cell \"1e400\" is beyond...");
  f.Expect("8,1,two", "field 2: weight \"two\" is not a number");
}

TEST(RowParser, LenientModeCountsBadCellsAsMissing) {
  Fixture f(true);
  f.Expect("r,x,abc,oops,1", "1 -999 | w ? | g ? | missing 1 | coerced 3");
}

TEST(RowParser, WrongFieldCountWinsOverABadCell) {
  Fixture f;
  f.Expect("r,1,1,2", "line: the line has 4 fields, the header has 5");
  f.Expect("r,1,1,2,3,4", "line: the line has 6 fields, the header has 5");
  // Shifted cells would fail as "not a number" first; the count is the real fault.
  f.Expect("r,1,1,text,2,3", "line: the line has 6 fields, the header has 5");
  f.Expect("r,1,1,\"2,3", "field 3: ...");
  // An open quote past the header's last field names no field of the header.
  f.Expect("r,1,1,2,3,\"x", "line: the line has more fields than the header's 5, and ...");
}

TEST(RowParser, WeightsMustBeFiniteAndNotNegative) {
  Fixture f;
  f.Expect("r,1,-1,2,3", "field 2: weight \"-1\" is negative...");
  f.Expect("r,1,NaN,2,3", "field 2: weight \"NaN\" is not a number");
  f.Expect("r,1,inf,2,3", "field 2: weight \"inf\" is not finite");
  f.Expect("r,1,heavy,2,3", "field 2: weight \"heavy\" is not a number");
  f.Expect("r,1,0,2,3", "3 2 | w 0 | g 1");
  f.Expect("r,1,NA,2,3", "3 2 | w ? | g 1");
  // The missing code marks a missing weight, not a negative one.
  f.Expect("r,1,-999,2,3", "3 2 | w ? | g 1");
}

// Out of the range is an error even when lenient; not a whole number only
// when strict.
TEST(RowParser, GroupsAreWholeNumbersInTheRange) {
  for (bool lenient : {false, true}) {
    SCOPED_TRACE(lenient ? "lenient" : "strict");
    Fixture f(lenient);
    f.Expect("r,4,1,2,3",
             "field 1: group 4 is outside the group range 1..3 (set the range with "
             "--group-range)");
    f.Expect("r,0,1,2,3", "field 1: group 0 is outside...");
    f.Expect("r,+3,1,2,3", "3 2 | w 1 | g 3");
    f.Expect("r,,1,2,3", "3 2 | w 1 | g ?");
    f.Expect("r,2.0,1,2,3", "3 2 | w 1 | g 2");
    f.Expect("r,2.5,1,2,3",
             lenient ? "3 2 | w 1 | g ? | coerced 1"
                     : "field 1: group \"2.5\" is not a whole number, as --group-range asks");
    f.Expect("r,two,1,2,3", lenient ? "3 2 | w 1 | g ? | coerced 1" : "field 1: group \"two\"...");
  }
}

TEST(MakeLayout, DefaultColumnsAreTheNamedOnesNotSkipped) {
  std::vector<SkippedColumn> skipped;
  const RowLayout layout = MakeLayout({"id", "g", "w", "x", "", "y"}, ',', {{}, "w", "", "g"},
                                      {{0, "holds text"}}, &skipped);
  EXPECT_EQ(layout.valueFields, (std::vector<std::size_t>{3, 5}));
  using enum FieldRole;
  EXPECT_EQ(layout.roles, (std::vector<FieldRole>{kSkip, kGroup, kWeight, kValue, kSkip, kValue}));
  ASSERT_EQ(skipped.size(), 1u);
  EXPECT_EQ(skipped[0].field, 4u);
  EXPECT_EQ(skipped[0].reason, "the header gives it no name");
  EXPECT_THROW(MakeLayout({"id"}, ',', {}, {{0, "holds text"}}), UsageError);
}

TEST(MakeLayout, RefusesNamesThatDoNotFit) {
  EXPECT_THROW(MakeLayout({"a", "b"}, ',', {{"c"}, "", "", ""}), UsageError);
  EXPECT_THROW(MakeLayout({"a", "b"}, ',', {{"a"}, "z", "", ""}), UsageError);
  EXPECT_THROW(MakeLayout({"a", "b"}, ',', {{"a", "a"}, "", "", ""}), UsageError);
  EXPECT_THROW(MakeLayout({"a", "b"}, ',', {{"a"}, "b", "", "b"}), UsageError);
  EXPECT_THROW(MakeLayout({"a", "b"}, ',', {{"a"}, "a", "", ""}), UsageError);
  EXPECT_THROW(MakeLayout({"a", "a"}, ',', {{"a"}, "", "", ""}), DataError);
}

// Quoting a cell that holds no quote changes nothing, but takes it off the
// cursor path: random rows read both ways must agree cell for cell, error
// for error.
TEST(RowParser, TheCursorPathReadsAsTheFieldPath) {
  std::vector<std::string> cells = {
      "1.5",  "-368.9202", "1e5", "-0",   "+7",  ".5",       "5.",    " 2.25", "3 ",
      "",     " ",         "NA",  "NaN",  "nan", "inf",      "-inf",  "-999",  "abc",
      "1.5x", "1e400",     "-2",  "0x10", "1;5", "4.9e-324", "1e-400"};
  for (const char* wide :
       {"12345678901234567890", "99999999999999999999.5", "-1.7976931348623157e308"})
    cells.push_back(wide);
  const std::vector<std::string> groups = {"0",      "1",     "2.0", "+3", "2.5",
                                           "setosa", " a b ", "",    "NA"};
  std::mt19937_64 random(7);
  for (bool lenient : {false, true}) {
    for (const bool typed : {false, true}) {
      CellRules rules = Rules(lenient);
      rules.checkGroupRange = !typed;
      const RowLayout layout =
          typed ? MakeLayout({"id", "g", "w", "x", "y"}, ',', {{}, "w", "", "g"})
                : MakeLayout({"id", "g", "w", "x", "y"}, ',', {{"y", "x"}, "w", "", "g"});
      RowParser parser(layout, rules);
      for (int k = 0; k < 4000; ++k) {
        std::vector<std::string> row = {"r", groups[random() % groups.size()]};
        for (int c = 0; c < 3; ++c)
          row.push_back(cells[random() % cells.size()]);
        std::string plain, quoted;
        for (std::size_t c = 0; c < row.size(); ++c) {
          plain += (c != 0 ? "," : "") + row[c];
          quoted += (c != 0 ? ",\"" : "\"") + row[c] + "\"";
        }
        SCOPED_TRACE(plain);
        // Cells follow in the text, so that the cursor path reads every number.
        const std::string text = plain + "\n" + std::string(64, '7') + "\n";
        ParsedRow row1, row2;
        LineError error1, error2;
        RecordEnd record;
        const bool parsed1 =
            parser.ParseRecord(text.data(), text.data() + text.size(), row1, error1, record);
        EXPECT_EQ(record.next, text.data() + plain.size() + 1);
        const bool parsed2 = parser.Parse(quoted, row2, error2);
        ASSERT_EQ(Outcome(layout, parsed1, row1, error1), Outcome(layout, parsed2, row2, error2));
      }
    }
  }
}

TEST(RowParser, RecordsWithLineEndsInsideQuotes) {
  CellRules rules = Rules();
  rules.checkGroupRange = false;
  Fixture f({"note", "g", "x", "y"}, ',', {{"x", "y"}, "", "", "g"}, rules);
  const std::string text =
      "\"two\nlines\",\"a,\nb\",1,2\r\n"
      "\r\n"
      "plain,a,3,4\n"
      " \"say \"\"a\nb\"\"\n\" ,\" 1.0\",5,\"6\"\n"
      "last,\"x \"\"y\"\"\",7,8";
  const struct {
    std::uint64_t lineEndsInside;
    const char* outcome;  // nullptr: a blank line
  } expected[] = {
      {2, "1 2 | g 'a,\nb'"},   {0, nullptr}, {0, "3 4 | g 'a'"}, {2, "5 6 | g 1"},
      {0, "7 8 | g 'x \"y\"'"},
  };
  const char* p = text.data();
  const char* end = p + text.size();
  for (const auto& want : expected) {
    RecordEnd record;
    const bool parsed = f.parser.ParseRecord(p, end, f.row, f.error, record);
    EXPECT_EQ(record.blank, want.outcome == nullptr);
    EXPECT_EQ(record.lineEndsInside, want.lineEndsInside);
    if (want.outcome != nullptr) {
      EXPECT_EQ(Outcome(f.layout, parsed, f.row, f.error), want.outcome);
    }
    p = record.next;
  }
  EXPECT_EQ(p, end);
}

// A quote still open at the end of the text is told apart from other faults:
// at a guessed chunk cut it means the cut was wrong, not the data.
TEST(RowParser, AnOpenQuoteAtTheEndIsFlagged) {
  Fixture f({"note", "x"}, ',', {{"x"}, "", "", ""}, Rules());
  const struct {
    std::string text;
    bool openQuote;
    const char* message;
  } cases[] = {
      {"\"open\n,1\n2,3\n", true, "no closing quote"},
      {"x,\"1\nmore", true, "no closing quote"},
      {"\"a\"b,1\n", false, "text follows the closing quote"},
      {"a,5\"\n", false, "is not a number"},  // a quote inside a field is text
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    f.error = {};
    RecordEnd record;
    const char* end = c.text.data() + c.text.size();
    EXPECT_FALSE(f.parser.ParseRecord(c.text.data(), end, f.row, f.error, record));
    EXPECT_EQ(f.error.openQuote, c.openQuote);
    EXPECT_NE(f.error.message.find(c.message), std::string::npos) << f.error.message;
    if (c.openQuote) {
      EXPECT_EQ(record.next, end);
    }
  }
}

// With the decimal comma, group labels read their numbers with it too: "1,0"
// is group 1, as R's write.csv2 writes a numeric code.
TEST(RowParser, DecimalComma) {
  CellRules rules = Rules();
  rules.decimalPoint = ',';
  rules.checkGroupRange = false;
  Fixture f({"g", "x", "y"}, ';', {{"x", "y"}, "", "", "g"}, rules);
  f.Expect("1,0;1,5;-0,25", "1.5 -0.25 | g 1");
  f.Expect("\"1,0\";\"3\";1", "3 1 | g 1");
  f.Expect("-2,5;1;1", "1 1 | g -2.5");
  f.Expect("2.5;1;1", "1 1 | g '2.5'");
  f.Expect("1;1,5;2.5",
           "field 2: cell \"2.5\" is not a number (a decimal point? with --decimal , numbers are "
           "read with a decimal comma)");
}

}  // namespace
}  // namespace vorelstat
