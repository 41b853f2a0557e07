#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "chunkreader.h"
#include "errors.h"
#include "tempfile.h"

namespace vorelstat {
namespace {

using testing::TempFile;
using testing::TempPipe;

struct ReadBack {
  std::string header;
  std::vector<Chunk> chunks;
  std::string joined;
};

ReadBack ReadAll(ChunkReader& reader) {
  ReadBack back;
  back.header = reader.Header();
  Chunk chunk;
  while (reader.Next(chunk)) {
    reader.Load(chunk);
    EXPECT_EQ(chunk.text.Size(), chunk.size);
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

ReadBack ReadAll(const std::string& path, std::size_t readSize) {
  ChunkReader reader(path, readSize);
  return ReadAll(reader);
}

const std::vector<std::string> kBodies = {
    "1,2\n3,4\n5,6\n",
    "1,2\r\n3,4\r\n",
    "1,2\n3,4",                                                          // no line end at the end
    "1,2\n\n\n3,4\n",                                                    // blank lines
    "1," + std::string(9000, '7') + "\n2,3\n4," + std::string(90, '8'),  // lines longer than a read
    "",                                                                  // header only
};

// A regular file is cut by the serial stage and read by the threads; a pipe
// is read by the serial stage. Both must give the same chunks' text.
class ChunkReaderSplit
    : public ::testing::TestWithParam<std::tuple<bool, std::size_t, std::size_t>> {};

// Whatever the read size, the chunks put back together are the file behind
// the header, each chunk lies where its offset says, and only the last chunk
// may end without a line end.
TEST_P(ChunkReaderSplit, ChunksAreWholeLinesThatRebuildTheFile) {
  const auto [pipe, bodyIndex, readSize] = GetParam();
  const std::string& body = kBodies[bodyIndex];
  const std::string header = "a,b\n";
  ReadBack back;
  if (pipe) {
    TempPipe input(header + body);
    back = ReadAll(input.Path(), readSize);
  } else {
    TempFile input(header + body);
    back = ReadAll(input.Path(), readSize);
  }
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
                         ::testing::Combine(::testing::Bool(), ::testing::Range<std::size_t>(0, 6),
                                            ::testing::Values(1, 2, 3, 7, 64, 5000, 1 << 20)));

// Threads load their chunks in any order; each gets its own bytes.
TEST(ChunkReader, ChunksLoadInAnyOrder) {
  std::string body;
  for (int i = 0; i < 500; ++i)
    body += std::to_string(i) + ",x\n";
  TempFile file("a,b\n" + body);
  ChunkReader reader(file.Path(), 64);
  std::vector<Chunk> chunks(1);
  while (reader.Next(chunks.back()))
    chunks.emplace_back();
  chunks.pop_back();
  ASSERT_GT(chunks.size(), 10u);
  std::string joined;
  for (auto k = chunks.size(); k-- > 0;)
    reader.Load(chunks[k]);
  for (const Chunk& chunk : chunks)
    joined += chunk.text.View();
  EXPECT_EQ(joined, body);
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
  TempPipe emptyPipe("");
  EXPECT_THROW(ChunkReader(emptyPipe.Path(), 64), DataError);
  TempFile blankHeader("\n1,2\n");
  EXPECT_THROW(ChunkReader(blankHeader.Path(), 64), DataError);
  EXPECT_THROW(ChunkReader("/nonexistent/vorelstat/file.csv", 64), UsageError);
  EXPECT_THROW(ChunkReader("/tmp", 64), UsageError);
}

TEST(ChunkReader, PeekSkipsBlankLinesAndLeavesTheRowInTheInput) {
  const std::string body = "\r\n" + std::string(5000, '\n') + "1,2\r\n3,4\n";
  for (bool pipe : {false, true}) {
    SCOPED_TRACE(pipe ? "pipe" : "file");
    std::optional<TempFile> file;
    std::optional<TempPipe> fifo;
    const std::string& path =
        pipe ? fifo.emplace("a,b\n" + body).Path() : file.emplace("a,b\n" + body).Path();
    ChunkReader reader(path, 1);
    EXPECT_EQ(reader.PeekFirstDataLine(), std::optional<std::string>("1,2"));
    EXPECT_EQ(ReadAll(reader).joined, body);
  }
}

TEST(ChunkReader, PeekOnHeaderOnlyFileFindsNothing) {
  TempFile file("a,b\n\n");
  ChunkReader reader(file.Path(), 64);
  EXPECT_EQ(reader.PeekFirstDataLine(), std::nullopt);
  TempFile last("a,b\n\n5,6");
  EXPECT_EQ(ChunkReader(last.Path(), 64).PeekFirstDataLine(), std::optional<std::string>("5,6"));
}

TEST(ChunkReader, HeaderLongerThanAWindow) {
  std::string header;
  for (int i = 0; i < 2000; ++i)
    header += (i ? "," : "") + std::string("c") + std::to_string(i);
  TempFile file(header + "\n1\n");
  ChunkReader reader(file.Path(), 8);
  EXPECT_EQ(reader.Header(), header);
  EXPECT_EQ(ReadAll(reader).joined, "1\n");
}

}  // namespace
}  // namespace vorelstat
