// The command line of vorelstat and the run it asks for.
#pragma once

#include <CLI/CLI.hpp>
#include <cstddef>
#include <cstdio>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "rowparser.h"
#include "statpass.h"

namespace vorelstat {

struct PassState;
struct ReportOptions;

struct Options {
  std::string path;
  ColumnChoice choice;
  std::string groupRange;  // empty: no check
  std::string groupOrder = "sorted";
  std::size_t maxGroups = 100000;
  bool pairwise = false;
  bool listwise = false;
  std::optional<double> missingCode;
  std::vector<std::string> missingTexts{"empty", "NA", "NaN"};
  std::string nonNumeric = "error";
  int threads = 0;
  unsigned batchRows = 4096;
  std::size_t readSize = std::size_t{1} << 20;
  std::size_t maxLineLength = std::size_t{16} << 20;
  bool groupCovariance = false;
  std::string format = "table";
  std::string delimiter = "auto";
  std::string decimal = ".";
  bool noProgress = false;
  int ddof = 1;
  std::string weightKind = "frequency";
  std::vector<std::string> exclude;
  std::vector<std::string> sections{"all"};
  std::size_t blockSize = kDefaultBlockBytes;
  std::string blocks;  // FIRST:END of the grid, or everything
  bool finishOrder = false;
  std::string saveState;
  bool noPlacement = false;
  bool exchangeTiming = false;  // under MPI only
};

// `vorelstat merge STATE...`: the states to merge and how to print them.
struct MergeOptions {
  std::vector<std::string> states;
  std::string format = "table";
  std::vector<std::string> sections{"all"};
  std::string saveState;
};

void DefineOptions(CLI::App& app, Options& options);
void DefineMergeOptions(CLI::App& app, MergeOptions& options);

// The pass options that the options ask for. Throws UsageError.
PassOptions PassOptionsOf(const Options& options);
// How the report is to show the figures. Throws UsageError.
ReportOptions ReportOptionsOf(const Options& options);
// The cell rules that the options ask for. Throws UsageError.
CellRules MakeCellRules(const Options& options);
// The delimiter the option names, or 0 for "detect from the header". Throws UsageError.
char DelimiterOption(const std::string& text);

// The most value columns one run analyses: the library's whole-table
// matrices index their cells in 32 bits.
inline constexpr std::size_t kMostColumns = 65535;

// What a run settled on: the columns, those it passed over and why, and the
// pass's results.
struct ToolRun {
  RowLayout layout;
  std::vector<SkippedColumn> skipped;  // in header order
  PassResult pass;
};

// Runs the pass over a reader; RunPass unless the run is spread over processes.
using PassRunner =
    std::function<PassResult(ChunkReader&, const RowLayout&, const CellRules&, const PassOptions&)>;

// Reads the file: decides the columns, runs the pass (a second time when a
// column of the tool's choice showed text only during the first). Throws
// UsageError or DataError.
ToolRun RunPasses(const Options& options, bool progress, const PassRunner& runPass = RunPass);

// Reads the file and writes the report to `out`, which the caller checks for
// write errors, and with --save-state the pass's state. Throws UsageError or
// DataError before anything is written. `progress` enables the progress bar
// on standard error.
void RunTool(const Options& options, bool progress, std::FILE* out);

// Merges the states and writes the report, as RunTool does.
void RunMerge(const MergeOptions& options, std::FILE* out);

// Writes `state` to the file saveState unless that is empty, then the report
// of the state in `format`, with the sections named, to `out`.
void WriteStateReport(PassState&& state, const std::string& format,
                      const std::vector<std::string>& sections, const std::string& saveState,
                      std::FILE* out);

}  // namespace vorelstat
