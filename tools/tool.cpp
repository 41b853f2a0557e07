#include "tool.h"

#include <unistd.h>
#include <vorelhost/placement.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <thread>
#include <tuple>
#include <utility>

#include "atomicfile.h"
#include "chunkreader.h"
#include "errors.h"
#include "passstate.h"
#include "progress.h"
#include "report.h"
#include "statpass.h"

namespace vorelstat {
namespace {

void AddSectionsOption(CLI::App& app, std::vector<std::string>& sections) {
  app.add_option("--sections", sections,
                 "What the report prints besides its head, comma-separated: columns, covariance, "
                 "correlation, pairs, groups, pooled, or all")
      ->capture_default_str()
      ->delimiter(',');
}

}  // namespace

void DefineOptions(CLI::App& app, Options& o) {
  app.add_option("file", o.path,
                 "Delimited text file with a header row, plain or compressed with gzip or zstd "
                 "(- for standard input)")
      ->required();
  app.add_option("-c,--columns", o.choice.columns,
                 "Columns to analyse, by name, comma-separated (default: every named column whose "
                 "cells are all numbers or missing, other than the weight and group columns)")
      ->delimiter(',');
  app.add_option("-w,--weight", o.choice.weight,
                 "Weight column: frequency weights unless --weight-kind says analytic");
  app.add_option("-r,--reg-weight", o.choice.regWeight,
                 "Regression weight column, multiplied into the weight for means and sums");
  app.add_option("-g,--group", o.choice.group,
                 "Group column: labels of any kind, numbers (1 and 1.0 are one group) or texts");
  app.add_option("--group-range", o.groupRange,
                 "Range LO:HI that every group must be a whole number within (default: no check)");
  app.add_option("--group-order", o.groupOrder,
                 "Order of the groups in the report: sorted (numbers by value, then texts) or "
                 "first (as they first appear in the file)")
      ->capture_default_str()
      ->check(CLI::IsMember({"sorted", "first"}));
  app.add_option("--max-groups", o.maxGroups,
                 "The most distinct groups; a group column with more is an error")
      ->capture_default_str()
      ->check(CLI::Range(std::size_t{1}, std::size_t{100000000}));
  app.add_flag("--group-covariance", o.groupCovariance,
               "Also each group's own standard deviations and covariance matrix");
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
  app.add_option("-b,--batch-size", o.batchRows,
                 "Rows per batch with --finish-order (the block grid batches 4,096 rows)")
      ->capture_default_str()
      ->check(CLI::Range(1u, 100000000u));
  app.add_option("--read-size", o.readSize,
                 "Bytes the reader hands a thread at a time (suffixes k, M, G)")
      ->capture_default_str()
      ->transform(CLI::AsSizeValue(false))
      ->check(CLI::Range(std::size_t{1}, std::size_t{1} << 32));
  app.add_option("--max-line-length", o.maxLineLength,
                 "Longest line accepted, in bytes (suffixes k, M, G); a longer line is an error")
      ->capture_default_str()
      ->transform(CLI::AsSizeValue(false))
      ->check(CLI::Range(std::size_t{1}, std::size_t{1} << 32));
  app.add_option("-f,--format", o.format, "Output format: table, csv or json")
      ->capture_default_str()
      ->check(CLI::IsMember({"table", "csv", "json"}));
  app.add_option("-d,--delimiter", o.delimiter,
                 "Field delimiter: auto (from the header), ',', ';', tab, or any one character")
      ->capture_default_str();
  app.add_option("--decimal", o.decimal,
                 "Decimal point of the numbers: . or , (then the delimiter is not a comma)")
      ->capture_default_str()
      ->check(CLI::IsMember({".", ","}));
  app.add_flag("--no-progress", o.noProgress, "Never draw the progress bar");
  app.add_option("--ddof", o.ddof,
                 "Degrees of freedom taken from the weight total in the divisor of variances and "
                 "covariances: 1 for the sample divisor W - 1, 0 for the population divisor W")
      ->capture_default_str()
      ->check(CLI::Range(0, 1000000));
  app.add_option("--weight-kind", o.weightKind,
                 "What the --weight column means: frequency (a row of weight w stands for w rows, "
                 "divisor W - ddof) or analytic (a reliability such as 1/variance, divisor "
                 "W - ddof * sum(w^2) / W), as NumPy's fweights and aweights")
      ->capture_default_str()
      ->check(CLI::IsMember({"frequency", "analytic"}));
  app.add_option("--exclude", o.exclude, "Columns to leave out, by name, comma-separated")
      ->delimiter(',');
  app.add_option("--block-size", o.blockSize,
                 "Bytes of a block of the grid that fixes the order of every sum (suffixes k, "
                 "M, G); another size rounds differently")
      ->capture_default_str()
      ->transform(CLI::AsSizeValue(false))
      ->check(CLI::Range(std::size_t{1}, std::size_t{1} << 40));
  app.add_option("--blocks", o.blocks,
                 "Read only blocks FIRST to END-1 of the grid (FIRST: to the end), a part of "
                 "the file whose state merges with the others'");
  app.add_flag("--finish-order", o.finishOrder,
               "Merge the threads' results as they finish, in batches of --batch-size rows: "
               "the last bits may then vary from run to run");
  app.add_option("--save-state", o.saveState,
                 "Also write the state of the pass to this file, for vorelstat merge");
  app.add_flag("--no-placement", o.noPlacement,
               "Leave the threads where the system puts them, instead of spreading them over "
               "the CPUs the process may use");
  AddSectionsOption(app, o.sections);
}

void DefineMergeOptions(CLI::App& app, MergeOptions& o) {
  app.add_option("states", o.states, "State files written by --save-state")->required();
  app.add_option("-f,--format", o.format, "Output format: table, csv or json")
      ->capture_default_str()
      ->check(CLI::IsMember({"table", "csv", "json"}));
  AddSectionsOption(app, o.sections);
  app.add_option("--save-state", o.saveState, "Also write the merged state to this file");
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

// The blocks FIRST:END (or FIRST:) of --blocks.
std::pair<std::uint64_t, std::uint64_t> ParseBlocks(const std::string& text) {
  const auto bad = [&text] {
    return UsageError("--blocks takes FIRST:END or FIRST: with whole numbers, FIRST < END, not \""
                      + text + "\"");
  };
  const std::size_t colon = text.find(':');
  if (colon == std::string::npos) throw bad();
  const auto number = [&](std::string_view digits, std::uint64_t& value) {
    const auto [ptr, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
    if (digits.empty() || ec != std::errc() || ptr != digits.data() + digits.size()) throw bad();
  };
  std::uint64_t first = 0, end = ChunkReader::kNoEnd;
  number(std::string_view(text).substr(0, colon), first);
  if (colon + 1 < text.size()) number(std::string_view(text).substr(colon + 1), end);
  if (end <= first) throw bad();
  return {first, end};
}

long long ParseGroupBound(const std::string& text, const std::string& whole) {
  long long value = 0;
  const auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (ec != std::errc() || ptr != text.data() + text.size()) {
    throw UsageError("--group-range takes LO:HI with whole numbers, not \"" + whole + "\"");
  }
  return value;
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
  rules.userMissingCode = o.missingCode.has_value();
  if (std::isnan(rules.missingCode)) {
    throw UsageError(
        "--missing-code must be a number: NaN equals nothing, so it would mark no cell missing "
        "(to count NaN text as missing, give it to --missing-text)");
  }
  rules.nonNumericIsMissing = o.nonNumeric == "missing";
  rules.decimalPoint = o.decimal.front();
  rules.checkGroupRange = !o.groupRange.empty();
  if (!rules.checkGroupRange) return rules;
  const std::size_t colon = o.groupRange.find(':');
  if (colon == std::string::npos) {
    throw UsageError("--group-range takes LO:HI, not \"" + o.groupRange + "\"");
  }
  rules.groupLo = ParseGroupBound(o.groupRange.substr(0, colon), o.groupRange);
  rules.groupHi = ParseGroupBound(o.groupRange.substr(colon + 1), o.groupRange);
  if (rules.groupHi < rules.groupLo) {
    throw UsageError("--group-range LO:HI needs LO <= HI, not \"" + o.groupRange + "\"");
  }
  return rules;
}

namespace {

// Bytes of the input that decide which of the tool's columns hold text before
// the pass; a column that shows text only later costs a second pass.
constexpr std::size_t kTypingWindow = std::size_t{1} << 20;

std::string TextReason(std::uint64_t line, const std::string& cell) {
  return "holds text (line " + std::to_string(line) + ": " + NotANumber(cell) + ")";
}

// The columns that hold text in the lines ahead of the pass.
std::vector<SkippedColumn> TextColumnsAhead(ChunkReader& reader, const RowLayout& layout,
                                            const CellRules& rules) {
  std::vector<SkippedColumn> found;
  std::vector<bool> seen(layout.NValues(), false);
  std::uint64_t lines = 0;
  RowParser parser(layout, rules);
  ParsedRow row;
  LineError error;
  const std::string_view ahead = reader.PeekAhead(kTypingWindow);
  const char* end = ahead.data() + ahead.size();
  RecordEnd record;
  for (const char* p = ahead.data(); p != end; p = record.next) {
    const std::uint64_t line = reader.HeaderLine() + 1 + lines;
    // A line that does not parse is the pass's to report.
    const bool parsed = parser.ParseRecord(p, end, row, error, record);
    lines += 1 + record.lineEndsInside;
    if (!parsed || record.blank) continue;
    for (const TextCell& cell : row.texts) {
      if (seen[cell.slot]) continue;
      seen[cell.slot] = true;
      found.push_back({layout.valueFields[cell.slot], TextReason(line, cell.text)});
    }
  }
  return found;
}

// The delimiter of the pass: the option's, or the header's. A decimal comma
// rules out the comma, which a header without one gives up for a semicolon.
char PassDelimiter(char option, const std::string& header, char decimalPoint) {
  const char delimiter = option != 0 ? option : DetectDelimiter(header);
  if (decimalPoint != ',' || delimiter != ',') return delimiter;
  if (option == 0 && header.find(',') == std::string::npos) return ';';
  throw UsageError(
      "--decimal , cannot go with ',' as the delimiter: numbers such as 1,5 would "
      "split in two; give the delimiter with -d (';' as R's write.csv2 writes)");
}

std::string Megabytes(double bytes) {
  return std::to_string(static_cast<long long>(bytes / 1e6)) + " MB";
}

// The threads a pass runs on: --threads, or the host's count.
unsigned ThreadCount(const Options& o) {
  return o.threads > 0 ? static_cast<unsigned>(o.threads)
                       : std::max(1u, std::thread::hardware_concurrency());
}

// Refuses a run whose figures cannot fit in this machine's memory, before it
// starts: they grow as the square of the columns, for every thread.
void CheckSize(const RowLayout& layout, const Options& o, const std::string& path) {
  const std::size_t k = layout.NValues();
  if (k > kMostColumns) {
    throw UsageError(path + ": " + std::to_string(k) + " columns to analyse; vorelstat analyses "
                     "at most " + std::to_string(kMostColumns) + " at once: name fewer with --columns");
  }
  const double threads = ThreadCount(o);
  const double cells = static_cast<double>(k) * (static_cast<double>(k) + 1.0) / 2.0;
  // A listwise matrix is a triangle of doubles, and each worker makes a second
  // one per batch; a pairwise matrix holds a record of 64 bytes per pair, and
  // each worker keeps the extremes of both columns of each pair.
  double perWorker = o.pairwise ? 64.0 * cells + 32.0 * cells : 16.0 * cells;
  if (layout.groupField) perWorker += 24.0 * cells;
  const double total = (threads + 1.0) * perWorker;
  const double physical = static_cast<double>(::sysconf(_SC_PHYS_PAGES))
                          * static_cast<double>(::sysconf(_SC_PAGE_SIZE));
  if (physical > 0.0 && total > physical) {
    throw UsageError(path + ": the figures of " + std::to_string(k) + " columns on "
                     + std::to_string(static_cast<int>(threads)) + " threads need about "
                     + Megabytes(total) + ", more than this machine's " + Megabytes(physical)
                     + "; name fewer columns with --columns"
                     + (o.pairwise ? ", use listwise deletion" : "") + " or fewer --threads");
  }
}

}  // namespace

namespace {

// The header fields that --exclude names, each with its reason.
std::vector<SkippedColumn> ExcludedColumns(const std::vector<std::string>& header,
                                           const std::vector<std::string>& names) {
  std::vector<SkippedColumn> excluded;
  for (const std::string& name : names) {
    const auto found = std::find(header.begin(), header.end(), name);
    if (found == header.end()) {
      throw UsageError("--exclude names \"" + name + "\", which the header lacks");
    }
    excluded.push_back({static_cast<std::size_t>(found - header.begin()), "left out by --exclude"});
  }
  return excluded;
}

// The user's choice of columns less those excluded.
ColumnChoice WithoutExcluded(ColumnChoice choice, const std::vector<std::string>& exclude) {
  if (choice.columns.empty()) return choice;
  std::erase_if(choice.columns, [&exclude](const std::string& name) {
    return std::find(exclude.begin(), exclude.end(), name) != exclude.end();
  });
  if (choice.columns.empty()) throw UsageError("--exclude leaves none of the --columns");
  return choice;
}

std::vector<SkippedColumn> Joined(std::vector<SkippedColumn> a,
                                  const std::vector<SkippedColumn>& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// What the weights mean and the degrees of freedom, checked against the columns.
void CheckConventions(const Options& o) {
  if (o.weightKind != "analytic") return;
  if (o.choice.weight.empty()) {
    throw UsageError("--weight-kind analytic needs the weight column, named with --weight");
  }
  if (!o.choice.regWeight.empty()) {
    throw UsageError(
        "--weight-kind analytic cannot be combined with --reg-weight: the weights of a row "
        "are then its --weight alone");
  }
}

}  // namespace

PassOptions PassOptionsOf(const Options& o) {
  PassOptions passOptions;
  passOptions.pairwise = o.pairwise;
  passOptions.threads = o.threads;
  passOptions.batchRows = o.batchRows;
  passOptions.groupCovariance = o.groupCovariance;
  passOptions.weightSquares = o.weightKind == "analytic";
  passOptions.groupsInFileOrder = o.groupOrder == "first";
  passOptions.mostGroups = o.maxGroups;
  passOptions.blockBytes = o.blockSize;
  if (!o.blocks.empty())
    std::tie(passOptions.firstBlock, passOptions.endBlock) = ParseBlocks(o.blocks);
  passOptions.finishOrder = o.finishOrder;
  passOptions.keepForest = !o.saveState.empty();
  if (o.finishOrder && passOptions.keepForest)
    throw UsageError("--save-state needs the block grid, which --finish-order leaves");
  return passOptions;
}

ToolRun RunPasses(const Options& o, bool progress, const PassRunner& runPass) {
  CheckConventions(o);
  const CellRules rules = MakeCellRules(o);
  const char delimiterOption = DelimiterOption(o.delimiter);
  // Columns of the tool's choice found to hold text; each pass that finds
  // more is run again without them.
  std::vector<SkippedColumn> textColumns;
  // Whether a pass found a chunk cut inside quotes: the next cuts outside them.
  bool cutOutsideQuotes = false;
  for (bool looked = false;; looked = true) {
    // zstd frames and BGZF members are decompressed on as many threads as parse.
    ChunkReader reader(o.path, o.readSize, o.maxLineLength, ThreadCount(o));
    const char delimiter = PassDelimiter(delimiterOption, reader.Header(), rules.decimalPoint);
    RowLayout layout;
    std::vector<SkippedColumn> skipped;
    try {
      std::vector<std::string> header = SplitLine(reader.Header(), delimiter);
      const std::vector<SkippedColumn> excluded = ExcludedColumns(header, o.exclude);
      const ColumnChoice choice = WithoutExcluded(o.choice, o.exclude);
      std::vector<SkippedColumn> passOver = Joined(excluded, textColumns);
      skipped = passOver;
      layout = MakeLayout(std::move(header), delimiter, choice, passOver, &skipped);
      if (layout.typedByContent && !looked) {
        textColumns = TextColumnsAhead(reader, layout, rules);
        passOver = Joined(excluded, textColumns);
        skipped = passOver;
        layout = MakeLayout(std::move(layout.names), delimiter, choice, passOver, &skipped);
      }
    } catch (const UsageError& e) {
      throw UsageError(o.path + ": " + e.what());
    } catch (const DataError& e) {
      throw DataError(o.path + ", line " + std::to_string(reader.HeaderLine()) + ": " + e.what());
    }
    CheckSize(layout, o, o.path);

    ProgressBar bar(progress, reader.FileSize());
    PassOptions passOptions = PassOptionsOf(o);
    passOptions.onProgress = [&bar](std::uint64_t bytes) { bar.Update(bytes); };
    if (cutOutsideQuotes) {
      reader.CutOutsideQuotes(delimiter);
    } else {
      reader.FollowQuotes(delimiter);
    }
    PassResult pass;
    try {
      pass = runPass(reader, layout, rules, passOptions);
    } catch (const CutInsideQuotes&) {
      cutOutsideQuotes = true;
      continue;
    }
    bar.Finish();

    if (pass.textColumns.empty()) {
      std::sort(skipped.begin(), skipped.end(),
                [](const SkippedColumn& a, const SkippedColumn& b) { return a.field < b.field; });
      return {std::move(layout), std::move(skipped), std::move(pass)};
    }
    const TextColumn& first = pass.textColumns.front();
    const std::string& name = layout.names[layout.valueFields[first.slot]];
    if (!reader.Rereadable()) {
      throw DataError(o.path + ", line " + std::to_string(first.line) + ": column \"" + name
                      + "\" looked numeric in the first lines but "
                      + NotANumber(first.text, rules.decimalPoint)
                      + "; input that cannot be read twice needs its numeric columns named "
                        "with --columns");
    }
    for (const TextColumn& column : pass.textColumns) {
      textColumns.push_back(
          {layout.valueFields[column.slot], TextReason(column.line, column.text)});
    }
  }
}

namespace {

void WriteReport(const Report& report, const std::string& format, std::FILE* out) {
  if (format == "csv") {
    WriteCsv(report, out);
  } else if (format == "json") {
    WriteJson(report, out);
  } else {
    WriteTable(report, out);
  }
}

void SaveStateFile(const std::string& path, const PassState& state) {
  const std::vector<std::byte> bytes = SaveState(state);
  WriteFileAtomically(path, bytes);
}

}  // namespace

ReportOptions ReportOptionsOf(const Options& o) {
  ReportOptions reportOptions;
  reportOptions.groupCovariance = o.groupCovariance;
  reportOptions.ddof = o.ddof;
  reportOptions.weightKind =
      o.weightKind == "analytic" ? figures::WeightKind::kAnalytic : figures::WeightKind::kFrequency;
  reportOptions.sections = ParseSections(o.sections);
  return reportOptions;
}

void RunTool(const Options& o, bool progress, std::FILE* out) {
  if (o.noPlacement) vorelhost::SetPlacementShare({false, 0, 1});
  PassOptions passOptions = PassOptionsOf(o);
  const ReportOptions reportOptions = ReportOptionsOf(o);
  ToolRun run = RunPasses(o, progress);
  if (!o.saveState.empty()) {
    SaveStateFile(o.saveState, StateOfPass(o.path, run.layout, MakeCellRules(o), passOptions,
                                           reportOptions, o.exclude, run.skipped, run.pass));
  }
  const Report report(o.path, run.layout, run.pass, run.skipped, reportOptions);
  WriteReport(report, o.format, out);
}

void WriteStateReport(PassState&& state, const std::string& format,
                      const std::vector<std::string>& sections, const std::string& saveState,
                      std::FILE* out) {
  if (!saveState.empty()) SaveStateFile(saveState, state);
  ReportOptions reportOptions = ReportOptionsOf(state);
  reportOptions.sections = ParseSections(sections);
  StateReport merged = ReportOfState(std::move(state));
  const Report report(merged.name, merged.layout, merged.pass, merged.skipped, reportOptions);
  WriteReport(report, format, out);
}

void RunMerge(const MergeOptions& o, std::FILE* out) {
  std::optional<PassState> merged;
  for (const std::string& path : o.states) {
    PassState state = LoadState(ReadWholeFile(path), path);
    if (merged) {
      MergeState(*merged, std::move(state), path);
    } else {
      merged.emplace(std::move(state));
    }
  }
  WriteStateReport(std::move(*merged), o.format, o.sections, o.saveState, out);
}

}  // namespace vorelstat
