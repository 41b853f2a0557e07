#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>
#include <zlib.h>
#include <zstd.h>

#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "frames.h"
#include "inputsource.h"
#include "tempfile.h"

namespace vorelstat {
namespace {

using testing::TempFile;

// Text that compresses as data files do, different for every seed.
std::string Text(std::size_t size, unsigned seed) {
  std::mt19937 random(seed);
  std::string text;
  while (text.size() < size)
    text += std::to_string(random() % 100000) + (random() % 8 ? "," : "\n");
  text.resize(size);
  return text;
}

struct ZstdOptions {
  bool declareSize = true;
  bool checksum = false;
  int level = 3;
};

std::string ZstdFrame(std::string_view content, ZstdOptions options = {}) {
  ZSTD_CCtx* context = ZSTD_createCCtx();
  ZSTD_CCtx_setParameter(context, ZSTD_c_compressionLevel, options.level);
  ZSTD_CCtx_setParameter(context, ZSTD_c_checksumFlag, options.checksum ? 1 : 0);
  std::string frame(ZSTD_compressBound(content.size()), '\0');
  ZSTD_outBuffer out{frame.data(), frame.size(), 0};
  ZSTD_inBuffer in{content.data(), content.size(), 0};
  // Streamed in more than one call, a frame does not declare its content size.
  if (!options.declareSize) {
    while (in.pos < in.size)
      ZSTD_compressStream2(context, &out, &in, ZSTD_e_continue);
  }
  while (ZSTD_compressStream2(context, &out, &in, ZSTD_e_end) != 0) {
  }
  ZSTD_freeCCtx(context);
  frame.resize(out.pos);
  return frame;
}

std::string LittleEndianBytes(std::uint64_t value, std::size_t width) {
  std::string bytes;
  for (std::size_t i = 0; i < width; ++i)
    bytes += static_cast<char>(value >> (8 * i) & 0xFF);
  return bytes;
}

std::string SkippableFrame(std::string_view payload) {
  return LittleEndianBytes(0x184D2A53, 4) + LittleEndianBytes(payload.size(), 4)
         + std::string(payload);
}

// `content` deflated by zlib; `windowBits` as deflateInit2 takes them
// (negative: no header, 16 + 15: a gzip member).
std::string Deflated(std::string_view content, int windowBits) {
  z_stream z{};
  deflateInit2(&z, 6, Z_DEFLATED, windowBits, 8, Z_DEFAULT_STRATEGY);
  std::string deflated(deflateBound(&z, static_cast<uLong>(content.size())) + 32, '\0');
  z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(content.data()));
  z.avail_in = static_cast<uInt>(content.size());
  z.next_out = reinterpret_cast<Bytef*>(deflated.data());
  z.avail_out = static_cast<uInt>(deflated.size());
  deflate(&z, Z_FINISH);
  deflated.resize(z.total_out);
  deflateEnd(&z);
  return deflated;
}

// A gzip member with the BGZF extra field that states its size; `content`
// must deflate to less than 64 KiB.
std::string BgzfMember(std::string_view content) {
  const std::string deflated = Deflated(content, -MAX_WBITS);
  const std::size_t size = 18 + deflated.size() + 8;
  const uLong crc =
      crc32(0, reinterpret_cast<const Bytef*>(content.data()), static_cast<uInt>(content.size()));
  return std::string("\x1F\x8B\x08\x04\0\0\0\0\0\xFF\x06\0BC\x02\0", 16)
         + LittleEndianBytes(size - 1, 2) + deflated + LittleEndianBytes(crc, 4)
         + LittleEndianBytes(content.size(), 4);
}

TEST(FrameFinding, SkippableFramesGarbageAndLargeDeclaredSizes) {
  const std::string skippable = SkippableFrame("index");
  EXPECT_EQ(FindZstdFrame(skippable + "x").kind, PieceExtent::kSkippable);
  EXPECT_EQ(FindZstdFrame(skippable).size, skippable.size());
  EXPECT_EQ(FindZstdFrame(std::string_view(skippable).substr(0, 9)).kind, PieceExtent::kNeedMore);
  EXPECT_EQ(FindZstdFrame("not a frame").kind, PieceExtent::kUnknown);
  std::string reserved = ZstdFrame("abc");
  reserved[4] = static_cast<char>(reserved[4] | 0x08);
  EXPECT_EQ(FindZstdFrame(reserved).kind, PieceExtent::kUnknown);
  // A header declaring 1 GiB says so before any block is read.
  const std::string header =
      LittleEndianBytes(0xFD2FB528, 4) + "\xC0\x50" + LittleEndianBytes(std::uint64_t{1} << 30, 8);
  const PieceExtent large = FindZstdFrame(header);
  EXPECT_EQ(large.kind, PieceExtent::kNeedMore);
  EXPECT_EQ(large.contentBound, std::uint64_t{1} << 30);
}

TEST(FrameFinding, BgzfMembersAndOtherGzip) {
  const std::string content = Text(30000, 3);
  const std::string member = BgzfMember(content);
  const PieceExtent extent = FindBgzfMember(member + BgzfMember(""));
  EXPECT_EQ(extent.kind, PieceExtent::kPiece);
  EXPECT_EQ(extent.size, member.size());
  EXPECT_EQ(extent.contentBound, content.size());
  EXPECT_EQ(FindBgzfMember(std::string_view(member).substr(0, 11)).kind, PieceExtent::kNeedMore);
  EXPECT_EQ(FindBgzfMember(std::string_view(member).substr(0, member.size() - 1)).kind,
            PieceExtent::kNeedMore);
  // No extra field, or one without the block size: found only by inflating.
  std::string plain = member;
  plain[3] = 0;
  EXPECT_EQ(FindBgzfMember(plain).kind, PieceExtent::kUnknown);
  std::string otherField = member;
  otherField[12] = 'X';
  EXPECT_EQ(FindBgzfMember(otherField).kind, PieceExtent::kUnknown);
}

// An input file, or pipe, opened as the tool opens it, with `threads` threads.
class Opened {
 public:
  Opened(const std::string& bytes, unsigned threads, bool readAhead = true, bool pipe = false)
      : _file(bytes, pipe), _fd(::open(_file.Path().c_str(), O_RDONLY | O_CLOEXEC)) {
    source = OpenByteSource(_fd, _file.Path(), readAhead, threads).source;
  }
  ~Opened() {
    source.reset();
    ::close(_fd);
  }
  Opened(const Opened&) = delete;
  Opened& operator=(const Opened&) = delete;

  // What the source hands out, `readSize` bytes a call, until the end.
  std::string ReadAll(std::size_t readSize) {
    std::string all;
    std::vector<char> buffer(readSize);
    for (std::size_t n; (n = source->Read(buffer.data(), readSize)) != 0;)
      all.append(buffer.data(), n);
    return all;
  }

  std::unique_ptr<ByteSource> source;

 private:
  TempFile _file;
  int _fd;
};

struct Pieces {
  std::string file;
  std::string content;
};

// Frames of sizes from 0 to a few tens of kilobytes with skippable frames
// among them, or BGZF members.
Pieces ManyPieces(bool zstd, std::size_t count) {
  Pieces pieces;
  std::mt19937 random(11);
  for (std::size_t i = 0; i < count; ++i) {
    const std::string content =
        Text(random() % 3 == 0 ? random() % 50 : random() % 40000, static_cast<unsigned>(i));
    if (zstd && i % 7 == 3) pieces.file += SkippableFrame(std::string(i, 's'));
    pieces.file += zstd ? ZstdFrame(content, {i % 2 == 0, i % 3 == 0, 1}) : BgzfMember(content);
    pieces.content += content;
  }
  return pieces;
}

class ThreadedPieceSource : public ::testing::TestWithParam<bool> {
 protected:
  bool Zstd() const { return GetParam(); }
};

TEST_P(ThreadedPieceSource, ManyPiecesComeOutInOrderForEveryThreadCountAndReadSize) {
  const Pieces pieces = ManyPieces(Zstd(), 120);
  for (unsigned threads : {1u, 2u, 3u, 8u}) {
    for (std::size_t readSize : {std::size_t{1}, std::size_t{777}, std::size_t{1} << 20}) {
      Opened opened(pieces.file, threads, readSize != 777);
      EXPECT_EQ(opened.ReadAll(readSize), pieces.content) << threads << " " << readSize;
    }
  }
  Opened pipe(pieces.file, 3, false, true);
  EXPECT_EQ(pipe.ReadAll(4096), pieces.content);
}

TEST_P(ThreadedPieceSource, ThePiecesAfterOnesTheFormatCannotSplitAreReadSerially) {
  const Pieces pieces = ManyPieces(Zstd(), 10);
  // A zstd frame larger than a piece may be, or a gzip member without the
  // block size, between pieces that could be split.
  const std::string middle =
      Zstd() ? std::string(std::size_t{65} << 20, 'a') + Text(1000, 5) : Text(300000, 5);
  const std::string file =
      pieces.file
      + (Zstd() ? ZstdFrame(middle, {true, false, 1}) : Deflated(middle, 16 + MAX_WBITS))
      + pieces.file;
  Opened opened(file, 2);
  const std::string all = opened.ReadAll(1 << 16);
  EXPECT_TRUE(all == pieces.content + middle + pieces.content);
}

TEST_P(ThreadedPieceSource, EarlyDestructionJoinsEveryThread) {
  const Pieces pieces = ManyPieces(Zstd(), 200);
  for (std::size_t readBytes : {std::size_t{0}, std::size_t{1}, std::size_t{100000}}) {
    Opened opened(pieces.file, 3);
    std::string some(readBytes, '\0');
    for (std::size_t got = 0; got < readBytes;)
      got += opened.source->Read(some.data() + got, readBytes - got);
    EXPECT_EQ(some, pieces.content.substr(0, readBytes));
  }
}

INSTANTIATE_TEST_SUITE_P(Formats, ThreadedPieceSource, ::testing::Values(true, false),
                         [](const auto& test) { return test.param ? "zstd" : "bgzf"; });

}  // namespace
}  // namespace vorelstat
