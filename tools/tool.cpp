#include "tool.h"

#include <charconv>
#include <cmath>
#include <limits>

#include "chunkreader.h"
#include "errors.h"
#include "progress.h"
#include "report.h"
#include "statpass.h"

namespace vorelstat {

void DefineOptions(CLI::App& app, Options& o) {
  app.add_option("file", o.path, "Delimited text file with a header row (- for standard input)")
      ->required();
  app.add_option("-c,--columns", o.choice.columns,
                 "Columns to analyse, by name, comma-separated (default: every column whose first "
                 "cell is numeric, other than the weight and group columns)")
      ->delimiter(',');
  app.add_option("-w,--weight", o.choice.weight, "Frequency weight column");
  app.add_option("-r,--reg-weight", o.choice.regWeight,
                 "Regression weight column, multiplied into the weight for means and sums");
  app.add_option("-g,--group", o.choice.group, "Group column: whole-number group codes");
  app.add_option("--group-range", o.groupRange, "Range LO:HI of the group codes")
      ->capture_default_str();
  auto* pairwise =
      app.add_flag("-p,--pairwise", o.pairwise,
                   "Pairwise deletion: each figure uses the rows where its cells are present");
  auto* listwise =
      app.add_flag("-l,--listwise", o.listwise,
                   "Listwise deletion (default): a row with a missing cell is left out");
  pairwise->excludes(listwise);
  app.add_option_function<double>(
      "-m,--missing-code", [&o](const double& code) { o.missingCode = code; },
      "Numeric code that marks a missing cell (compared exactly)");
  app.add_option("--missing-text", o.missingTexts,
                 "Cell texts that count as missing, comma-separated; 'empty' is the empty cell, "
                 "'none' makes none count")
      ->capture_default_str()
      ->delimiter(',');
  app.add_option("--non-numeric", o.nonNumeric,
                 "What a cell that is not a number does: error (report file, line and column) or "
                 "missing")
      ->capture_default_str()
      ->check(CLI::IsMember({"error", "missing"}));
  app.add_option("-j,--threads", o.threads, "Threads (default: the host's count)")
      ->check(CLI::Range(0, 1024));
  app.add_option("-b,--batch-size", o.batchRows, "Rows per batch")
      ->capture_default_str()
      ->check(CLI::Range(1u, 100000000u));
  app.add_option("--read-size", o.readSize,
                 "Bytes the reader hands a thread at a time (suffixes k, M, G)")
      ->capture_default_str()
      ->transform(CLI::AsSizeValue(false))
      ->check(CLI::Range(std::size_t{1}, std::size_t{1} << 32));
  app.add_option("-f,--format", o.format, "Output format: table, csv or json")
      ->capture_default_str()
      ->check(CLI::IsMember({"table", "csv", "json"}));
  app.add_option("-d,--delimiter", o.delimiter,
                 "Field delimiter: auto (from the header), ',', ';', tab, or any one character")
      ->capture_default_str();
  app.add_flag("--no-progress", o.noProgress, "Never draw the progress bar");
}

char DelimiterOption(const std::string& text) {
  if (text == "auto") return 0;
  if (text == "tab" || text == "\\t" || text == "\t") return '\t';
  if (text == "comma") return ',';
  if (text == "semicolon") return ';';
  if (text.size() == 1 && text[0] != '"' && text[0] != '\n' && text[0] != '\r') return text[0];
  throw UsageError(
      "--delimiter takes auto, tab or one character other than a quote or line end, not \"" + text
      + "\"");
}

namespace {

long long ParseGroupBound(const std::string& text, const std::string& whole) {
  long long value = 0;
  const auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (ec != std::errc() || ptr != text.data() + text.size()) {
    throw UsageError("--group-range takes LO:HI with whole numbers, not \"" + whole + "\"");
  }
  return value;
}

// The first row's values, with 0 for a cell that is missing or not finite;
// all 0 when the row does not parse (the pass will report it).
std::vector<double> FirstRowValues(const RowLayout& layout, const CellRules& rules,
                                   const std::string& line) {
  RowParser parser(layout, rules);
  ParsedRow row;
  LineError error;
  std::vector<double> values(layout.NValues(), 0.0);
  if (!parser.Parse(line, row, error)) return values;
  for (std::size_t c = 0; c < values.size(); ++c) {
    // Compared exactly, on purpose: that is what makes a cell missing.
    if (row.values[c] != rules.missingCode && std::isfinite(row.values[c]))
      values[c] = row.values[c];
  }
  return values;
}

}  // namespace

CellRules MakeCellRules(const Options& o) {
  CellRules rules;
  for (const std::string& text : o.missingTexts) {
    if (text == "none") {
      rules.missingTexts.clear();
    } else {
      rules.missingTexts.push_back(text == "empty" ? std::string() : text);
    }
  }
  // Without a code of the user's, missing cells are stored as the lowest
  // double, which no sensible data holds.
  rules.missingCode = o.missingCode.value_or(std::numeric_limits<double>::lowest());
  rules.nonNumericIsMissing = o.nonNumeric == "missing";
  const std::size_t colon = o.groupRange.find(':');
  if (colon == std::string::npos) {
    throw UsageError("--group-range takes LO:HI, not \"" + o.groupRange + "\"");
  }
  rules.groupLo = ParseGroupBound(o.groupRange.substr(0, colon), o.groupRange);
  rules.groupHi = ParseGroupBound(o.groupRange.substr(colon + 1), o.groupRange);
  constexpr long long kMostGroups = 1000000;
  if (rules.groupHi < rules.groupLo || rules.groupHi - rules.groupLo >= kMostGroups) {
    throw UsageError("--group-range LO:HI needs LO <= HI and at most " + std::to_string(kMostGroups)
                     + " codes, not \"" + o.groupRange + "\"");
  }
  return rules;
}

std::string RunTool(const Options& o, bool progress) {
  const CellRules rules = MakeCellRules(o);
  const char delimiterOption = DelimiterOption(o.delimiter);
  ChunkReader reader(o.path, o.readSize);
  const char delimiter = delimiterOption != 0 ? delimiterOption : DetectDelimiter(reader.Header());
  RowLayout layout;
  std::optional<std::string> firstRow;
  try {
    std::vector<std::string> header = SplitLine(reader.Header(), delimiter);
    firstRow = reader.PeekFirstDataLine();
    layout = MakeLayout(std::move(header), delimiter, o.choice, firstRow, rules);
  } catch (const UsageError& e) {
    throw UsageError(o.path + ": " + e.what());
  } catch (const DataError& e) {
    throw DataError(o.path + ", line 1: " + e.what());
  }

  ProgressBar bar(progress, reader.FileSize());
  PassOptions passOptions;
  passOptions.pairwise = o.pairwise;
  passOptions.threads = o.threads;
  passOptions.batchRows = o.batchRows;
  passOptions.onProgress = [&bar](std::uint64_t bytes) { bar.Update(bytes); };
  if (layout.groupField && firstRow)
    passOptions.groupShift = FirstRowValues(layout, rules, *firstRow);
  const PassResult pass = RunPass(reader, layout, rules, passOptions);
  bar.Finish();

  const Report report = MakeReport(o.path, layout, rules, pass);
  if (o.format == "csv") return FormatCsv(report);
  if (o.format == "json") return FormatJson(report);
  return FormatTable(report);
}

}  // namespace vorelstat
