// vorelstat: per-column statistics, covariance and correlation, and figures by
// group, from one pass over a delimited text file on vorel's Driver.
//
// Exit codes: 0 success; 1 bad data (the file is empty, a line or cell is
// malformed, a weight is negative, a group is out of range, reading failed);
// 2 bad usage (unknown option, bad value, a file that cannot be opened, a
// column the header lacks). On failure nothing is written to standard output.
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
    const int code = app.exit(e);
    return code == 0 ? kExitSuccess : kExitBadUsage;
  }

  std::string output;
  try {
    output = RunTool(options, !options.noProgress && ::isatty(STDERR_FILENO) == 1);
  } catch (const UsageError& e) {
    std::cerr << "vorelstat: " << e.what() << "\n";
    return kExitBadUsage;
  } catch (const DataError& e) {
    std::cerr << "vorelstat: " << e.what() << "\n";
    return kExitBadData;
  } catch (const std::bad_alloc&) {
    std::cerr << "vorelstat: out of memory; try a smaller --batch-size or --read-size, or fewer "
                 "--threads\n";
    return kExitBadData;
  } catch (const std::exception& e) {
    std::cerr << "vorelstat: " << e.what() << "\n";
    return kExitBadData;
  }
  if (std::fwrite(output.data(), 1, output.size(), stdout) != output.size()
      || std::fflush(stdout) != 0) {
    std::perror("vorelstat: writing the report");
    return kExitBadData;
  }
  return kExitSuccess;
}
