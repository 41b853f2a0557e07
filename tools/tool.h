// The command line of vorelstat and the run it asks for.
#pragma once

#include <CLI/CLI.hpp>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "rowparser.h"

namespace vorelstat {

struct Options {
  std::string path;
  ColumnChoice choice;
  std::string groupRange = "0:999";
  bool pairwise = false;
  bool listwise = false;
  std::optional<double> missingCode;
  std::vector<std::string> missingTexts{"empty", "NA", "NaN"};
  std::string nonNumeric = "error";
  int threads = 0;
  unsigned batchRows = 4096;
  std::size_t readSize = std::size_t{1} << 20;
  std::string format = "table";
  std::string delimiter = "auto";
  bool noProgress = false;
};

void DefineOptions(CLI::App& app, Options& options);

// The cell rules that the options ask for. Throws UsageError.
CellRules MakeCellRules(const Options& options);
// The delimiter the option names, or 0 for "detect from the header". Throws UsageError.
char DelimiterOption(const std::string& text);

// Reads the file and returns the printed report. Throws UsageError or DataError.
// `progress` enables the progress bar on standard error.
std::string RunTool(const Options& options, bool progress);

}  // namespace vorelstat
