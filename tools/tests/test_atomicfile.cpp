// State files are replaced whole or not at all.

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

#include "atomicfile.h"
#include "errors.h"
#include "tempfile.h"

namespace vorelstat {
namespace {

std::vector<std::byte> BytesOf(const std::string& text) {
  std::vector<std::byte> bytes;
  for (char c : text)
    bytes.push_back(static_cast<std::byte>(c));
  return bytes;
}

TEST(AtomicFile, WritesAndReplacesWholeFiles) {
  testing::TempFolder folder;
  const std::string path = folder / "a.state";
  WriteFileAtomically(path, BytesOf("first"));
  EXPECT_EQ(ReadWholeFile(path), BytesOf("first"));
  WriteFileAtomically(path, BytesOf("second, longer"));
  EXPECT_EQ(ReadWholeFile(path), BytesOf("second, longer"));
  EXPECT_EQ(folder.Entries(), std::vector<std::string>{"a.state"});
}

// A write that stops half way (a full disk) leaves the old file as it was
// and no temporary file behind.
TEST(AtomicFile, AWriteFailingHalfWayLeavesTheOldFile) {
  testing::TempFolder folder;
  const std::string path = folder / "a.state";
  WriteFileAtomically(path, BytesOf("good old state"));
  const std::vector<std::byte> fresh(1000, std::byte{7});
  std::size_t written = 0;
  const WriteCall halfThenFull = [&](int fd, const void* data, std::size_t size) -> ssize_t {
    if (written >= fresh.size() / 2) {
      errno = ENOSPC;
      return -1;
    }
    const std::size_t n = std::min(size, fresh.size() / 2 - written);
    written += n;
    return ::write(fd, data, n);
  };
  const std::string what =
      testing::MessageOf<UsageError>([&] { WriteFileAtomically(path, fresh, halfThenFull); });
  EXPECT_NE(what.find(path), std::string::npos) << what;
  EXPECT_NE(what.find("after 500 bytes"), std::string::npos) << what;
  EXPECT_NE(what.find(std::strerror(ENOSPC)), std::string::npos) << what;
  EXPECT_EQ(ReadWholeFile(path), BytesOf("good old state"));
  EXPECT_EQ(folder.Entries(), std::vector<std::string>{"a.state"});
}

TEST(AtomicFile, AFolderThatIsMissingIsNamed) {
  EXPECT_THROW(WriteFileAtomically("/nonexistent-folder/a.state", BytesOf("x")), UsageError);
  EXPECT_THROW(ReadWholeFile("/nonexistent-folder/a.state"), UsageError);
}

}  // namespace
}  // namespace vorelstat
