// The two kinds of failure the tool reports, and the exit code of each.
//
// A UsageError is something wrong with the command line or with how it fits
// the file (a column name the header lacks, a file that cannot be opened). A
// DataError is something wrong inside the file. main turns them into exit
// codes 2 and 1; nothing is written to standard output once either is raised.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>

namespace vorelstat {

inline constexpr int kExitSuccess = 0;
inline constexpr int kExitBadData = 1;
inline constexpr int kExitBadUsage = 2;

struct UsageError : std::runtime_error {
  explicit UsageError(const std::string& message) : std::runtime_error(message) {}
};

struct DataError : std::runtime_error {
  explicit DataError(const std::string& message) : std::runtime_error(message) {}
};

// A bad line, its message made of `before`, the line number and `after`. A
// pass over a part of a file counts lines from the part's start; whoever
// knows the lines before the part makes the message for the file again.
struct LineDataError : DataError {
  LineDataError(std::string textBefore, std::uint64_t lineNumber, std::string textAfter)
      : DataError(textBefore + std::to_string(lineNumber) + textAfter),
        before(std::move(textBefore)),
        line(lineNumber),
        after(std::move(textAfter)) {}
  std::string before;
  std::uint64_t line;
  std::string after;
};

}  // namespace vorelstat
