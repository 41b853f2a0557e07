#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "chunkreader.h"
#include "errors.h"
#include "tempfile.h"

namespace vorelstat {
namespace {

using testing::MessageOf;
using testing::TempFile;

struct ReadBack {
  std::string header;
  std::vector<Chunk> chunks;
  std::string joined;
};

// Every chunk, handed out first and then loaded last first, as threads may
// load them in any order.
ReadBack ReadAll(ChunkReader& reader) {
  ReadBack back{reader.Header(), {}, ""};
  Chunk chunk;
  while (reader.Next(chunk))
    back.chunks.push_back(std::exchange(chunk, Chunk()));
  EXPECT_FALSE(reader.Next(chunk)) << "the end is final";
  for (auto k = back.chunks.size(); k-- > 0;)
    reader.Load(back.chunks[k]);
  for (const Chunk& loaded : back.chunks) {
    EXPECT_EQ(loaded.text.Size(), loaded.size);
    back.joined += loaded.text.View();
  }
  return back;
}

// Where each record of `body` starts: after each line end, or after each one
// outside quotes.
std::vector<std::size_t> RecordStarts(const std::string& body, bool quotes) {
  std::vector<std::size_t> starts;
  QuoteState state;
  const char* begin = body.data();
  const char* end = begin + body.size();
  for (const char* p = begin; p != end;) {
    starts.push_back(static_cast<std::size_t>(p - begin));
    if (std::find(p, end, '\n') == end) break;
    p = (quotes ? NextLineEndOutsideQuotes(p, end, ',', state) : std::find(p, end, '\n')) + 1;
  }
  return starts;
}

// A part of the grid: the records that start in blocks [first, end), quoted
// line ends included where the reader follows quotes, from a file cut at
// line ends, at guesses or outside quotes and from a pipe alike, each chunk
// the blocks after the one before. A guessed cut is the record start that
// following the quotes gives, or else it is marked as a guess, which the
// pass finds out.
TEST(ChunkReader, PartsOfTheGridHoldTheirRecords) {
  std::string lines, quoted;
  for (int i = 0; i < 200; ++i)
    lines +=
        std::to_string(i * 37) + "," + std::string(static_cast<std::size_t>(i % 13), 'x') + "\n";
  for (int i = 0; i < 60; ++i) {
    quoted += std::to_string(i) + ",\"note " + std::to_string(i) + "\nsays \"\"hi\"\",\n\",";
    quoted += (i % 7 == 0 ? "\"\n\n\"" : std::to_string(i * 3)) + "\r\n";
  }
  const std::string bodies[] = {
      lines,
      quoted,
      "1,2\r\n3,4\r\n",
      "1,2\n3,4",        // no line end at the end
      "1,2\n\n\n3,4\n",  // blank lines
      "1," + std::string(9000, '7') + "\n2,3\n4,"
          + std::string(90, '8'),  // lines longer than a read
      "",                          // header only
  };
  enum class Way { kFile, kPipe, kFileGuessing, kFileOutsideQuotes, kPipeFollowingQuotes };
  const std::string header = "a,b,c\n";
  constexpr std::uint64_t kNoEnd = ChunkReader::kNoEnd;
  for (const std::string& body : bodies) {
    for (Way way : {Way::kFile, Way::kPipe, Way::kFileGuessing, Way::kFileOutsideQuotes,
                    Way::kPipeFollowingQuotes}) {
      const bool quotes = way != Way::kFile && way != Way::kPipe;
      const std::vector<std::size_t> starts = RecordStarts(body, quotes);
      // The first record start at or after `offset`.
      const auto startFrom = [&](std::uint64_t offset) -> std::uint64_t {
        const auto it = std::lower_bound(starts.begin(), starts.end(), offset);
        return it == starts.end() ? body.size() : *it;
      };
      for (auto [blockBytes, readSize] : {std::pair<std::uint64_t, std::size_t>{50, 120},
                                          {1, 1},
                                          {7, 5},
                                          {16, 1000},
                                          {3, 2},
                                          {64, 64},
                                          {5000, 7},
                                          {1 << 20, 1 << 20}}) {
        for (auto [first, end] :
             {std::pair<std::uint64_t, std::uint64_t>{0, 3}, {5, 9}, {60, kNoEnd}, {0, kNoEnd}}) {
          SCOPED_TRACE("body " + body.substr(0, 10) + ", way "
                       + std::to_string(static_cast<int>(way)) + ", block bytes "
                       + std::to_string(blockBytes) + ", read size " + std::to_string(readSize)
                       + ", blocks " + std::to_string(first) + " to " + std::to_string(end));
          const TempFile input(header + body,
                               way == Way::kPipe || way == Way::kPipeFollowingQuotes);
          ChunkReader reader(input.Path(), readSize);
          if (way == Way::kFileOutsideQuotes) {
            reader.CutOutsideQuotes(',');
          } else if (quotes) {
            reader.FollowQuotes(',');
          }
          // Unset, the grid is the read size and the part the whole input.
          if (first != 0 || end != kNoEnd || blockBytes != readSize)
            reader.SetGrid(blockBytes, first, end);
          const ReadBack back = ReadAll(reader);
          EXPECT_EQ(back.header, "a,b,c");
          const auto boundary = [&, bytes = blockBytes](std::uint64_t block) {
            return block >= body.size() / bytes + 1 ? body.size() : block * bytes;
          };
          std::uint64_t offset = startFrom(boundary(first));
          std::uint64_t block = first;
          for (std::size_t k = 0; k < back.chunks.size(); ++k) {
            const Chunk& chunk = back.chunks[k];
            EXPECT_EQ(chunk.index, k);
            EXPECT_EQ(chunk.firstBlock, block);
            EXPECT_LT(chunk.firstBlock, chunk.endBlock);
            block = chunk.endBlock;
            ASSERT_EQ(chunk.offset, header.size() + offset);
            const std::uint64_t cut = chunk.offset + chunk.text.Size() - header.size();
            if (cut != startFrom(boundary(chunk.endBlock))) {
              EXPECT_EQ(way, Way::kFileGuessing) << "only a guess may miss a record's end";
              EXPECT_TRUE(chunk.cutGuessed);
              break;
            }
            offset = cut;
          }
          if (way == Way::kFileGuessing) continue;
          const std::uint64_t blocks = (body.size() + blockBytes - 1) / blockBytes;
          EXPECT_EQ(block, std::max(first, std::min(end, blocks)))
              << "every block of the part, and no more";
          const std::uint64_t from = startFrom(boundary(first));
          EXPECT_EQ(back.joined, body.substr(from, startFrom(boundary(end)) - from));
        }
      }
    }
  }
}

// The header: blank lines before it skipped and counted, a byte order mark
// and a carriage return taken off, longer than a read window whole, and
// without a line end the whole input; the lines after it stay for the
// chunks, whether a file or a pipe.
TEST(ChunkReader, TheHeaderLine) {
  std::string wide;
  for (int i = 0; i < 2000; ++i)
    wide += (i ? ",c" : "c") + std::to_string(i);
  const struct {
    std::string before, header, body;
  } cases[] = {
      {"\n\r\n", "a,b\n", "1,2\r\n\n3,4\n5,6"},
      {"\xEF\xBB\xBF", "x;y\r\n", "1;2\r\n"},
      {"", "only,a,header", ""},
      {"", wide + "\n", "1\n"},
  };
  for (const auto& c : cases) {
    for (bool pipe : {false, true}) {
      SCOPED_TRACE(c.header.substr(0, 20) + (pipe ? " pipe" : " file"));
      const TempFile input(c.before + c.header + c.body, pipe);
      ChunkReader reader(input.Path(), 1);
      EXPECT_EQ(reader.Header(), c.header.substr(0, c.header.find_first_of("\r\n")));
      EXPECT_EQ(reader.HeaderLine(), 1 + std::count(c.before.begin(), c.before.end(), '\n'));
      EXPECT_EQ(reader.Rereadable(), !pipe);
      // Whole lines only, the last one counting at the end.
      EXPECT_EQ(reader.PeekAhead(9),
                c.body.size() <= 9 ? c.body : c.body.substr(0, c.body.rfind('\n', 8) + 1));
      EXPECT_EQ(reader.PeekAhead(1000), c.body);
      EXPECT_EQ(ReadAll(reader).joined, c.body);
    }
  }
}

// Input that is no delimited text is named for what it is. (An empty file or
// pipe, a missing file, a folder and cut gzip and zstd data: end to end, with
// their messages and exit codes.)
TEST(ChunkReader, RefusesWhatIsNoDelimitedText) {
  const struct {
    std::string contents;
    const char* says;
  } cases[] = {
      {"BZh91AY&SY", "is compressed (bzip2)"},
      {"\xFF\xFE"
       "a\0,\0b\0",
       "is UTF-16 text"},
      {std::string("a,b\0c\n1,2\n", 11), "holds a byte 0"},
      {"a,b\r1,2\r3,4\r", "carriage return alone"},
      {"\n\r\n\n", "holds only blank lines"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.says);
    const TempFile file(c.contents);
    const std::string what = MessageOf<DataError>([&] { ChunkReader(file.Path(), 64); });
    EXPECT_NE(what.find(c.says), std::string::npos) << what;
  }
}

// No line may pass the limit: in the header, in a regular file's chunk cut, or
// in a stream, so that no input makes the reader hold more.
TEST(ChunkReader, LinesLongerThanTheLimitAreRefused) {
  const std::string longLine(300, '7');
  for (bool pipe : {false, true}) {
    SCOPED_TRACE(pipe ? "pipe" : "file");
    for (const std::string& text : {longLine + "\n1\n", "a\n1\n" + longLine + "\n2\n"}) {
      const TempFile input(text, pipe);
      const std::string what = MessageOf<DataError>([&] {
        ChunkReader reader(input.Path(), 16, 100);
        ReadAll(reader);
      });
      EXPECT_NE(what.find("longer than 100 bytes, the limit of --max-line-length"),
                std::string::npos)
          << what;
    }
  }
  const TempFile fits("a\n" + longLine + "\n");
  ChunkReader reader(fits.Path(), 16, 300);
  EXPECT_EQ(ReadAll(reader).joined, longLine + "\n");
}

// Files under /proc say they hold 0 bytes; they are read as streams.
TEST(ChunkReader, ProcFilesAreReadToTheEnd) {
  ChunkReader reader("/proc/self/status", 64);
  EXPECT_EQ(reader.Header().substr(0, 5), "Name:");
  EXPECT_FALSE(reader.Rereadable());
  EXPECT_FALSE(ReadAll(reader).joined.empty());
}

// The first line end outside quotes, from a line start; a quote opens a
// field only at its start, and "" inside quotes is one quote.
TEST(NextLineEndOutsideQuotes, FindsTheRecordEnd) {
  const struct {
    std::string text;
    char delimiter;
    std::size_t lineEnd;  // npos: none
    std::uint64_t inside;
  } cases[] = {
      {"1,2\n3", ',', 3, 0},
      {"\"a\nb\",2\nx", ',', 7, 1},
      {" \t\"a\n\"\"\n\" ,2\n", ',', 12, 2},  // padding before the quote
      {"5\",x\n", ',', 4, 0},                 // a quote after text is text
      {"a;\"b\n\";c\n", ';', 8, 1},
      {"a,\"b\n\";c\n", ';', 4, 0},  // after a comma, not the delimiter: text
      {"\"open\n\n", ',', std::string::npos, 2},
      {"\"x\"\"\n\"\n", ',', 6, 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    // Whole, and cut in two at every place with the state carried over.
    for (std::size_t split = 0; split <= c.text.size(); ++split) {
      SCOPED_TRACE("split at " + std::to_string(split));
      const char* begin = c.text.data();
      const char* end = begin + c.text.size();
      QuoteState state;
      std::uint64_t inside = 0;
      const char* found =
          NextLineEndOutsideQuotes(begin, begin + split, c.delimiter, state, &inside);
      if (found == nullptr)
        found = NextLineEndOutsideQuotes(begin + split, end, c.delimiter, state, &inside);
      EXPECT_EQ(found == nullptr ? std::string::npos : static_cast<std::size_t>(found - begin),
                c.lineEnd);
      EXPECT_EQ(inside, c.inside);
    }
  }
}

}  // namespace
}  // namespace vorelstat
