#include <gtest/gtest.h>

#include <cmath>
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

  bool Parse(const std::string& line) { return parser.Parse(line, row, error); }

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
  ASSERT_TRUE(f.Parse("r1,2,3,1.5,-2e3")) << f.error.message;
  EXPECT_EQ(f.row.values, (std::vector<double>{-2000.0, 1.5}));
  EXPECT_EQ(f.row.weight, 3.0);
  EXPECT_EQ(f.row.group.Whole(), 2);
  EXPECT_EQ(f.row.nMissing, 0u);
  ASSERT_TRUE(f.Parse("r2, 3 ,\"0.25\", +7 ,.5")) << f.error.message;
  EXPECT_EQ(f.row.values, (std::vector<double>{0.5, 7.0}));
  EXPECT_EQ(f.row.weight, 0.25);
  EXPECT_EQ(f.row.group.Whole(), 3);
}

TEST(RowParser, MissingTextsAndCodeBecomeTheCode) {
  Fixture f;
  ASSERT_TRUE(f.Parse("r,1,1,NA,")) << f.error.message;
  EXPECT_EQ(f.row.values, (std::vector<double>{kCode, kCode}));
  EXPECT_EQ(f.row.nMissing, 2u);
  ASSERT_TRUE(f.Parse("r,1,1,-999,-999.0000")) << f.error.message;
  EXPECT_EQ(f.row.nMissing, 2u);
  // Infinity is a value; NaN, when it is no missing text, is not a number.
  ASSERT_TRUE(f.Parse("r,1,1,-inf,inf")) << f.error.message;
  EXPECT_EQ(f.row.nMissing, 0u);
  EXPECT_EQ(f.row.values, (std::vector<double>{std::numeric_limits<double>::infinity(),
                                               -std::numeric_limits<double>::infinity()}));
  EXPECT_FALSE(f.Parse("r,1,1,NaN,1"));
  EXPECT_EQ(f.error.message,
            "cell \"NaN\" is not a number (add it to --missing-text to count it "
            "as missing)");
}

// What the message says of a cell: the real cause, and a hint where one helps.
TEST(RowParser, CellsOutOfRangeOrInAForeignForm) {
  Fixture f;
  const struct {
    const char* cell;
    const char* message;
  } cases[] = {
      {"1e400", "cell \"1e400\" is beyond the range of a double (about 1.8e308)"},
      {"-1e999", "cell \"-1e999\" is beyond the range of a double (about 1.8e308)"},
      {"\"5,1\"",
       "cell \"5,1\" is not a number (a decimal comma? numbers are read with a "
       "decimal point, or with --decimal , with a comma)"},
      {"0x1p3", "cell \"0x1p3\" is not a number (hexadecimal numbers are not read)"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.cell);
    EXPECT_FALSE(f.Parse(std::string("r,1,1,2,") + c.cell));
    EXPECT_EQ(f.error.field, 4u);
    EXPECT_EQ(f.error.message, c.message);
  }
  // Too small for a double: what it rounds to, a subnormal or 0.
  ASSERT_TRUE(f.Parse("r,1,1,1e-400,-4.9e-324")) << f.error.message;
  EXPECT_EQ(f.row.values[0], -4.9e-324);
  EXPECT_EQ(f.row.values[1], 0.0);
}

TEST(RowParser, TheToolsOwnMissingCodeIsRefusedAsData) {
  CellRules rules = Rules();
  rules.missingCode = std::numeric_limits<double>::lowest();
  rules.userMissingCode = false;
  Fixture f({"x"}, ',', {{"x"}, "", "", ""}, rules);
  EXPECT_FALSE(f.Parse("-1.7976931348623157e308"));
  EXPECT_NE(f.error.message.find("--missing-code"), std::string::npos);
}

// In columns the tool chose, text marks the column instead of failing the row.
TEST(RowParser, TextInColumnsChosenByContent) {
  Fixture f({"id", "x", "w"}, ',', {{}, "w", "", ""}, Rules());
  ASSERT_TRUE(f.layout.typedByContent);
  ASSERT_TRUE(f.Parse("A7,NA,2")) << f.error.message;
  ASSERT_EQ(f.row.texts.size(), 1u);
  EXPECT_EQ(f.row.texts[0].slot, 0u);
  EXPECT_EQ(f.row.texts[0].text, "A7");
  EXPECT_EQ(f.row.nMissing, 2u);
  ASSERT_TRUE(f.Parse("8,1.5,2"));
  EXPECT_TRUE(f.row.texts.empty());
  EXPECT_FALSE(f.Parse("8,1e400,2")) << "out of range is no text";
  EXPECT_FALSE(f.Parse("8,1,two")) << "a weight is never text";
}

TEST(RowParser, MissingTextsThatLookLikeNumbers) {
  CellRules rules = Rules();
  rules.missingTexts = {".", "-", "-9"};
  Fixture f({"a", "b", "c", "d"}, ',', {}, rules);
  ASSERT_TRUE(f.Parse(".,-,-9,-9.5")) << f.error.message;
  EXPECT_EQ(f.row.nMissing, 3u);
  EXPECT_EQ(f.row.values[3], -9.5);
}

TEST(RowParser, BadCellNamesItsField) {
  Fixture f;
  EXPECT_FALSE(f.Parse("r,1,1,abc,2"));
  EXPECT_EQ(f.error.field, 3u);
  EXPECT_EQ(f.error.message, "cell \"abc\" is not a number");
  for (const char* bad : {"1.5x", "--1", "+-1", "5e", "0x10", "\"1 2\""}) {
    SCOPED_TRACE(bad);
    EXPECT_FALSE(f.Parse(std::string("r,1,1,2,") + bad));
  }
}

TEST(RowParser, EmptyCellIsAnErrorWhenItDoesNotCountAsMissing) {
  CellRules rules = Rules();
  rules.missingTexts = {"NA"};
  Fixture f({"x"}, ',', {{"x"}, "", "", ""}, rules);
  EXPECT_FALSE(f.Parse(" "));
  EXPECT_EQ(f.error.field, 0u);
}

TEST(RowParser, LenientModeCountsBadCellsAsMissing) {
  Fixture f(true);
  ASSERT_TRUE(f.Parse("r,x,abc,oops,1")) << f.error.message;
  EXPECT_EQ(f.row.nCoerced, 3u);
  EXPECT_EQ(f.row.nMissing, 1u);
  EXPECT_EQ(f.row.values[1], kCode);
  EXPECT_TRUE(f.row.weightMissing);
  EXPECT_TRUE(f.row.groupMissing);
}

TEST(RowParser, WrongFieldCountWinsOverABadCell) {
  Fixture f;
  EXPECT_FALSE(f.Parse("r,1,1,2"));
  EXPECT_EQ(f.error.field, LineError::kWholeLine);
  EXPECT_EQ(f.error.message, "the line has 4 fields, the header has 5");
  EXPECT_FALSE(f.Parse("r,1,1,2,3,4"));
  EXPECT_EQ(f.error.message, "the line has 6 fields, the header has 5");
  // Shifted cells would fail as "not a number" first; the count is the real fault.
  EXPECT_FALSE(f.Parse("r,1,1,text,2,3"));
  EXPECT_EQ(f.error.message, "the line has 6 fields, the header has 5");
  EXPECT_FALSE(f.Parse("r,1,1,\"2,3"));
  EXPECT_EQ(f.error.field, 3u);
  EXPECT_NE(f.error.message.find("no closing quote"), std::string::npos);
  // An open quote past the header's last field names no field of the header.
  EXPECT_FALSE(f.Parse("r,1,1,2,3,\"x"));
  EXPECT_EQ(f.error.field, LineError::kWholeLine);
  EXPECT_NE(f.error.message.find("more fields than the header's 5"), std::string::npos);
}

TEST(RowParser, WeightsMustBeFiniteAndNotNegative) {
  Fixture f;
  EXPECT_FALSE(f.Parse("r,1,-1,2,3"));
  EXPECT_EQ(f.error.field, 2u);
  EXPECT_NE(f.error.message.find("is negative"), std::string::npos);
  EXPECT_FALSE(f.Parse("r,1,NaN,2,3"));
  EXPECT_FALSE(f.Parse("r,1,inf,2,3"));
  EXPECT_FALSE(f.Parse("r,1,heavy,2,3"));
  EXPECT_NE(f.error.message.find("not a number"), std::string::npos);
  ASSERT_TRUE(f.Parse("r,1,0,2,3"));
  EXPECT_FALSE(f.row.weightMissing);
  ASSERT_TRUE(f.Parse("r,1,NA,2,3"));
  EXPECT_TRUE(f.row.weightMissing);
  ASSERT_TRUE(f.Parse("r,1,-999,2,3"))
      << "the missing code marks a missing weight, not a negative one";
  EXPECT_TRUE(f.row.weightMissing);
}

TEST(RowParser, GroupsAreWholeNumbersInTheRange) {
  for (bool lenient : {false, true}) {
    SCOPED_TRACE(lenient ? "lenient" : "strict");
    Fixture f(lenient);
    EXPECT_FALSE(f.Parse("r,4,1,2,3")) << "out of range is an error even when lenient";
    EXPECT_EQ(f.error.field, 1u);
    EXPECT_EQ(f.error.message,
              "group 4 is outside the group range 1..3 (set the range with --group-range)");
    EXPECT_FALSE(f.Parse("r,0,1,2,3"));
    ASSERT_TRUE(f.Parse("r,+3,1,2,3"));
    EXPECT_EQ(f.row.group.Whole(), 3);
    ASSERT_TRUE(f.Parse("r,,1,2,3"));
    EXPECT_TRUE(f.row.groupMissing);
    ASSERT_TRUE(f.Parse("r,2.0,1,2,3")) << "a whole number written as a decimal";
    EXPECT_EQ(f.row.group.Whole(), 2);
    EXPECT_EQ(f.Parse("r,2.5,1,2,3"), lenient);
    EXPECT_EQ(f.Parse("r,two,1,2,3"), lenient);
  }
}

TEST(MakeLayout, DefaultColumnsAreTheNamedOnesNotSkipped) {
  std::vector<SkippedColumn> skipped;
  const RowLayout layout = MakeLayout({"id", "g", "w", "x", "", "y"}, ',', {{}, "w", "", "g"},
                                      {{0, "holds text"}}, &skipped);
  ASSERT_EQ(layout.NValues(), 2u);
  EXPECT_EQ(layout.names[layout.valueFields[0]], "x");
  EXPECT_EQ(layout.names[layout.valueFields[1]], "y");
  EXPECT_EQ(layout.roles[0], FieldRole::kSkip);
  EXPECT_EQ(layout.roles[1], FieldRole::kGroup);
  EXPECT_EQ(layout.roles[2], FieldRole::kWeight);
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

// What a parse gave, for comparing two parses of the same cells.
std::string Outcome(bool parsed, const ParsedRow& row, const LineError& error) {
  if (!parsed) return "error " + std::to_string(error.field) + ": " + error.message;
  std::string text = "row";
  for (double value : row.values) {
    std::uint64_t bits = 0;
    std::memcpy(&bits, &value, sizeof bits);
    text += " " + std::to_string(bits);
  }
  text += " missing " + std::to_string(row.nMissing) + " coerced " + std::to_string(row.nCoerced);
  // A missing weight's value means nothing.
  text += row.weightMissing ? " w ?" : " w " + std::to_string(row.weight);
  text += " g " + std::to_string(static_cast<int>(row.group.GetKind())) + " " + row.group.Display()
          + (row.groupMissing ? "?" : "");
  for (const TextCell& cell : row.texts)
    text += " text " + std::to_string(cell.slot) + "=" + cell.text;
  return text;
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
        ASSERT_EQ(Outcome(parsed1, row1, error1), Outcome(parsed2, row2, error2));
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
    bool blank;
    std::uint64_t lineEndsInside;
    std::vector<double> values;
    const char* group;
  } expected[] = {
      {false, 2, {1, 2}, "a,\nb"},   {true, 0, {}, ""},
      {false, 0, {3, 4}, "a"},       {false, 2, {5, 6}, "1"},
      {false, 0, {7, 8}, "x \"y\""},
  };
  const char* p = text.data();
  const char* end = p + text.size();
  for (const auto& want : expected) {
    RecordEnd record;
    ASSERT_TRUE(f.parser.ParseRecord(p, end, f.row, f.error, record)) << f.error.message;
    EXPECT_EQ(record.blank, want.blank);
    EXPECT_EQ(record.lineEndsInside, want.lineEndsInside);
    if (!want.blank) {
      EXPECT_EQ(f.row.values, want.values);
      EXPECT_EQ(f.row.group.Display(), want.group);
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

TEST(RowParser, DecimalComma) {
  CellRules rules = Rules();
  rules.decimalPoint = ',';
  Fixture f({"x", "y", "z"}, ';', {{"x", "y", "z"}, "", "", ""}, rules);
  ASSERT_TRUE(f.Parse("1,5;-0,25;\"3\"")) << f.error.message;
  EXPECT_EQ(f.row.values, (std::vector<double>{1.5, -0.25, 3.0}));
  EXPECT_FALSE(f.Parse("1,5;2.5;3"));
  EXPECT_EQ(f.error.field, 1u);
  EXPECT_EQ(f.error.message,
            "cell \"2.5\" is not a number (a decimal point? with --decimal , numbers are read "
            "with a decimal comma)");
}

// Group labels read their numbers with the decimal comma too: "1,0" is group
// 1, as R's write.csv2 writes a numeric code.
TEST(RowParser, DecimalCommaGroupLabels) {
  CellRules rules = Rules();
  rules.decimalPoint = ',';
  rules.checkGroupRange = false;
  Fixture f({"g", "x"}, ';', {{"x"}, "", "", "g"}, rules);
  const struct {
    const char* line;
    GroupLabel::Kind kind;
    const char* shown;
  } cases[] = {
      {"1,0;1", GroupLabel::Kind::kWhole, "1"},    {"\"1,0\";1", GroupLabel::Kind::kWhole, "1"},
      {"-2,5;1", GroupLabel::Kind::kReal, "-2.5"}, {"2.5;1", GroupLabel::Kind::kText, "2.5"},
      {"a;b;1", GroupLabel::Kind::kText, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    const bool parsed = f.Parse(c.line);
    ASSERT_EQ(parsed, *c.shown != '\0') << f.error.message;
    if (parsed) {
      EXPECT_EQ(f.row.group.GetKind(), c.kind);
      EXPECT_EQ(f.row.group.Display(), c.shown);
    }
  }
}

}  // namespace
}  // namespace vorelstat
