// vorelstat: per-column statistics, covariance and correlation, and figures by
// group, from one pass over a delimited text file on vorel's Driver.
//
// Exit codes: 0 success; 1 bad data (the file is empty, a line or cell is
// malformed, a weight is negative, a group is out of range, reading failed);
// 2 bad usage (unknown option, bad value, a file that cannot be opened, a
// column the header lacks). The report is written once the pass has succeeded,
// so a failure of the pass leaves standard output empty.
#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <new>

#include "errors.h"
#include "tool.h"

int main(int argc, char** argv) {
  using namespace vorelstat;
  CLI::App app{
      "Statistics of the numeric columns of a delimited text file, in one pass on "
      "a pool of threads.",
      "vorelstat"};
  app.set_version_flag("-V,--version", std::string("vorelstat ") + VORELSTAT_VERSION);
  app.footer("Exit codes: 0 success, 1 bad data, 2 bad usage.");
  Options options;
  DefineOptions(app, options);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == 0) return app.exit(e);  // --help, --version
    std::cerr << "vorelstat: " << e.what() << "\nRun with --help for more information.\n";
    return kExitBadUsage;
  }

  // The report is written as it is made; a large buffer keeps the writes few.
  static char buffer[1 << 16];
  std::setvbuf(stdout, buffer, _IOFBF, sizeof buffer);
  try {
    RunTool(options, !options.noProgress && ::isatty(STDERR_FILENO) == 1, stdout);
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
