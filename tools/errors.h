// The two kinds of failure the tool reports, and the exit code of each.
//
// A UsageError is something wrong with the command line or with how it fits
// the file (a column name the header lacks, a file that cannot be opened). A
// DataError is something wrong inside the file. main turns them into exit
// codes 2 and 1; nothing is written to standard output once either is raised.
#pragma once

#include <stdexcept>
#include <string>

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

}  // namespace vorelstat
