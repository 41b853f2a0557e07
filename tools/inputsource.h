// The bytes of an input read one after the other, decompressed on the way
// when the input is compressed.
//
// gzip and zstd input is recognised by its first bytes, whatever the file's
// name, and decompressed here with zlib and libzstd, a bounded buffer at a
// time: memory stays a few megabytes whatever the size of the input.
// A gzip file of several members (as `cat a.gz b.gz` or pigz make) and a zstd
// file of several frames read as the concatenation of their contents.
// Compressed input that ends before its last member or frame does, or whose
// data is corrupt, is an error that says so; so is a gzip member followed by
// bytes that are no gzip member.
//
// With more than one thread, the zstd frames and the BGZF gzip members (those
// that state their compressed length) are found without decompressing them
// and decompressed on a pool of threads, their contents handed out in file
// order (frames.h), a bounded number of them ahead of the reader. Any other
// gzip member can only be found by inflating the one before it: such input,
// and everything from the first frame or member larger than 64 MiB on, is
// decompressed serially. Either way the bytes handed out and the errors are
// those of the serial path, an error in one piece coming after the content of
// the pieces before it.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

namespace vorelstat {

enum class Compression { kNone, kGzip, kZstd };

// The compression that the first bytes of an input announce; kNone for
// anything else. Four bytes are enough to tell.
Compression CompressionOf(std::string_view head);
// "gzip" or "zstd"; "" for kNone.
const char* CompressionName(Compression compression);

class ByteSource {
 public:
  virtual ~ByteSource() = default;
  // Reads up to `count` bytes (count > 0) into `into`; returns how many came,
  // 0 only at the end of the input. Throws DataError naming `path` on a read
  // error, truncated or corrupt data.
  virtual std::size_t Read(char* into, std::size_t count) = 0;
};

struct OpenedSource {
  Compression compression = Compression::kNone;
  std::unique_ptr<ByteSource> source;
};

// Reads the first bytes of the open descriptor `fd` to tell its compression,
// and makes the source that hands out its bytes from there on, those first
// bytes included: plain for kNone, else decompressed on `threads` threads
// where the format allows (1: serially). With `readAhead`, compressed input that is
// decompressed serially is decompressed ahead on a thread of its own, a few
// megabytes at most; only for descriptors whose reads always come back (a
// regular file). Does not own `fd`. Throws DataError naming `path` on a read
// error.
OpenedSource OpenByteSource(int fd, std::string path, bool readAhead, unsigned threads);
// The bytes of `fd` from where it stands, as they are, whatever they look like.
std::unique_ptr<ByteSource> OpenPlainSource(int fd, std::string path);

}  // namespace vorelstat
