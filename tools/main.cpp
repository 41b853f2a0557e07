// vorelstat: per-column statistics, covariance and correlation, and figures by
// group, from one pass over a delimited text file on vorel's Driver; and
// `vorelstat merge STATE...`, the report of states that passes saved.
//
// Exit codes: 0 success; 1 bad data (the file is empty, a line or cell is
// malformed, a weight is negative, a group is out of range, reading failed, a
// state is damaged); 2 bad usage (unknown option, bad value, a file that cannot
// be opened or written, a column the header lacks, states that do not fit
// together). The report is written once the pass has succeeded, so a failure
// of the pass leaves standard output empty.
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <iostream>
#include <new>

#include "errors.h"
#include "tool.h"

namespace {

// Runs `run` and turns its failures into messages and exit codes.
int Reporting(const std::function<void()>& run) {
  using namespace vorelstat;
  // The report is written as it is made; a large buffer keeps the writes few.
  static char buffer[1 << 16];
  std::setvbuf(stdout, buffer, _IOFBF, sizeof buffer);
  try {
    run();
  } catch (const UsageError& e) {
    std::cerr << "vorelstat: " << e.what() << "\n";
    return kExitBadUsage;
  } catch (const DataError& e) {
    std::cerr << "vorelstat: " << e.what() << "\n";
    return kExitBadData;
  } catch (const std::bad_alloc&) {
    std::cerr << "vorelstat: out of memory\n";
    return kExitBadData;
  } catch (const std::exception& e) {
    std::cerr << "vorelstat: " << e.what() << "\n";
    return kExitBadData;
  }
  if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
    std::perror("vorelstat: writing the report");
    return kExitBadData;
  }
  return kExitSuccess;
}

int Parse(CLI::App& app, int argc, char** argv) {
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == 0) return app.exit(e);  // --help, --version
    std::cerr << app.get_name() << ": " << e.what() << "\nRun with --help for more information.\n";
    return vorelstat::kExitBadUsage;
  }
  return -1;
}

// vorelstat merge STATE...: the report of the merged states.
int Merge(int argc, char** argv) {
  using namespace vorelstat;
  CLI::App app{
      "Merges the states that vorelstat --save-state wrote and prints the report of "
      "one pass over all their inputs.",
      "vorelstat merge"};
  app.footer(
      "Exit codes: 0 success, 1 bad data (a damaged state, a part missing), 2 bad usage "
      "(states whose columns or options differ, a file that cannot be read).");
  MergeOptions options;
  DefineMergeOptions(app, options);
  if (const int code = Parse(app, argc, argv); code >= 0) return code;
  return Reporting([&] { RunMerge(options, stdout); });
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1 && std::strcmp(argv[1], "merge") == 0) return Merge(argc - 1, argv + 1);
  using namespace vorelstat;
  CLI::App app{
      "Statistics of the numeric columns of a delimited text file, in one pass on "
      "a pool of threads.",
      "vorelstat"};
  app.set_version_flag("-V,--version", std::string("vorelstat ") + VORELSTAT_VERSION);
  app.footer(
      "Exit codes: 0 success, 1 bad data, 2 bad usage. 'vorelstat merge --help' tells "
      "how to merge saved states.");
  Options options;
  DefineOptions(app, options);
  if (const int code = Parse(app, argc, argv); code >= 0) return code;
  return Reporting(
      [&] { RunTool(options, !options.noProgress && ::isatty(STDERR_FILENO) == 1, stdout); });
}
