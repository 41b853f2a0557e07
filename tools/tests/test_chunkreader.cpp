#include "chunkreader.h"
#include "errors.h"
#include "tempfile.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

namespace vorelstat {
namespace {

using testing::TempFile;

struct ReadBack {
  std::string header;
  std::vector<Chunk> chunks;
  std::string joined;
};

ReadBack ReadAll(const std::string& path, std::size_t readSize) {
  ChunkReader reader(path, readSize);
  ReadBack back;
  back.header = reader.Header();
  Chunk chunk;
  while (reader.Next(chunk)) {
    back.joined += chunk.text.View();
    Chunk copy;
    copy.text.Assign(chunk.text.View());
    copy.offset = chunk.offset;
    copy.index = chunk.index;
    back.chunks.push_back(std::move(copy));
  }
  EXPECT_FALSE(reader.Next(chunk)) << "the end is final";
  return back;
}

const std::vector<std::string> kBodies = {
    "1,2\n3,4\n5,6\n",
    "1,2\r\n3,4\r\n",
    "1,2\n3,4",                                          // no line end at the end
    "1,2\n\n\n3,4\n",                                    // blank lines
    "1," + std::string(300, '7') + "\n2,3\n4," + std::string(90, '8'),  // lines longer than a read
    "",                                                  // header only
};

class ChunkReaderSplit
    : public ::testing::TestWithParam<std::tuple<std::size_t, std::size_t>> {};

// Whatever the read size, the chunks put back together are the file behind
// the header, each chunk lies where its offset says, and only the last chunk
// may end without a line end.
TEST_P(ChunkReaderSplit, ChunksAreWholeLinesThatRebuildTheFile) {
  const auto [bodyIndex, readSize] = GetParam();
  const std::string& body = kBodies[bodyIndex];
  const std::string header = "a,b\n";
  TempFile file(header + body);
  const ReadBack back = ReadAll(file.Path(), readSize);
  EXPECT_EQ(back.header, "a,b");
  EXPECT_EQ(back.joined, body);
  std::uint64_t offset = header.size();
  for (std::size_t k = 0; k < back.chunks.size(); ++k) {
    const Chunk& chunk = back.chunks[k];
    SCOPED_TRACE("chunk " + std::to_string(k));
    EXPECT_EQ(chunk.index, k);
    EXPECT_EQ(chunk.offset, offset);
    ASSERT_GT(chunk.text.Size(), 0u);
    if (k + 1 < back.chunks.size()) {
      EXPECT_EQ(chunk.text.View().back(), '\n');
    }
    offset += chunk.text.Size();
  }
}

INSTANTIATE_TEST_SUITE_P(BodiesAndReadSizes, ChunkReaderSplit,
                         ::testing::Combine(::testing::Range<std::size_t>(0, 6),
                                            ::testing::Values(1, 2, 3, 7, 64, 1 << 20)));

TEST(ChunkReader, ManySmallReadsGiveManyChunks) {
  std::string body;
  for (int i = 0; i < 100; ++i) body += std::to_string(i) + "," + std::to_string(i * i) + "\n";
  TempFile file("a,b\n" + body);
  EXPECT_GE(ReadAll(file.Path(), 16).chunks.size(), 20u);
  EXPECT_EQ(ReadAll(file.Path(), 1 << 20).chunks.size(), 1u);
}

TEST(ChunkReader, HeaderLosesByteOrderMarkAndCarriageReturn) {
  TempFile file("\xEF\xBB\xBFx;y\r\n1;2\r\n");
  ChunkReader reader(file.Path(), 2);
  EXPECT_EQ(reader.Header(), "x;y");
  EXPECT_EQ(reader.FileSize(), 13u);
}

TEST(ChunkReader, HeaderWithoutLineEndIsTheWholeFile) {
  TempFile file("only,a,header");
  const ReadBack back = ReadAll(file.Path(), 4);
  EXPECT_EQ(back.header, "only,a,header");
  EXPECT_TRUE(back.chunks.empty());
}

TEST(ChunkReader, RefusesWhatCannotBeRead) {
  TempFile empty("");
  EXPECT_THROW(ChunkReader(empty.Path(), 64), DataError);
  TempFile blankHeader("\n1,2\n");
  EXPECT_THROW(ChunkReader(blankHeader.Path(), 64), DataError);
  EXPECT_THROW(ChunkReader("/nonexistent/vorelstat/file.csv", 64), UsageError);
  EXPECT_THROW(ChunkReader("/tmp", 64), UsageError);
}

TEST(ChunkReader, PeekSkipsBlankLinesAndLeavesTheRowInTheInput) {
  TempFile file("a,b\n\r\n\n1,2\r\n3,4\n");
  ChunkReader reader(file.Path(), 1);
  EXPECT_EQ(reader.PeekFirstDataLine(), std::optional<std::string>("1,2"));
  Chunk chunk;
  std::string joined;
  while (reader.Next(chunk)) joined += chunk.text.View();
  EXPECT_EQ(joined, "\r\n\n1,2\r\n3,4\n");
}

TEST(ChunkReader, PeekOnHeaderOnlyFileFindsNothing) {
  TempFile file("a,b\n\n");
  ChunkReader reader(file.Path(), 64);
  EXPECT_EQ(reader.PeekFirstDataLine(), std::nullopt);
}

}  // namespace
}  // namespace vorelstat
