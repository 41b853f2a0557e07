// Files that are replaced whole or not at all.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <span>
#include <string>
#include <vector>

namespace vorelstat {

// The system's write(2), or a stand-in that a test makes fail.
using WriteCall = std::function<ssize_t(int fd, const void* data, std::size_t size)>;

// Writes bytes to path so that path holds either what it held before or all
// of bytes, never a torn file: the bytes go to a temporary file in the same
// folder, which is flushed to the disk (fsync) and then renamed over path;
// the folder is flushed too, so that the rename survives a crash. On any
// failure (a full disk, a folder that cannot be written) the temporary file
// is removed and UsageError names path and the reason.
void WriteFileAtomically(const std::string& path, std::span<const std::byte> bytes,
                         const WriteCall& write = {});

// The whole content of a file. Throws UsageError naming path.
std::vector<std::byte> ReadWholeFile(const std::string& path);

}  // namespace vorelstat
