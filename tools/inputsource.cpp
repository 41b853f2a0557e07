#include "inputsource.h"

#include <unistd.h>
#include <zlib.h>
#include <zstd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <exception>
#include <mutex>
#include <new>
#include <optional>
#include <thread>
#include <vector>

#include "errors.h"
#include "frames.h"

namespace vorelstat {
namespace {

// Compressed bytes read at a time.
constexpr std::size_t kCompressedBuffer = std::size_t{256} << 10;

constexpr std::string_view kGzipMagic = "\x1F\x8B";
constexpr std::string_view kZstdMagic = "\x28\xB5\x2F\xFD";
constexpr std::size_t kCompressionMagicSize = 4;

// Raw bytes of the descriptor, those read ahead first.
class DescriptorReader {
 public:
  DescriptorReader(int fd, std::string path) : _fd(fd), _path(std::move(path)) {}

  // Hands `bytes` out again before those not yet handed out.
  void PutBack(std::string bytes) {
    bytes.append(_head, _served);
    _head = std::move(bytes);
    _served = 0;
  }

  const std::string& Path() const { return _path; }

  // Reads up to `count` bytes, fewer only at the end of the input.
  std::string ReadHead(std::size_t count) {
    std::string head(count, '\0');
    std::size_t got = 0;
    for (std::size_t n = 1; got < count && n != 0; got += n)
      n = Read(head.data() + got, count - got);
    head.resize(got);
    return head;
  }

  std::size_t Read(char* into, std::size_t count) {
    if (_served < _head.size()) {
      const std::size_t n = std::min(count, _head.size() - _served);
      std::memcpy(into, _head.data() + _served, n);
      _served += n;
      if (_served == _head.size()) {
        std::string().swap(_head);
        _served = 0;
      }
      return n;
    }
    for (;;) {
      const ssize_t n = ::read(_fd, into, count);
      if (n >= 0) return static_cast<std::size_t>(n);
      if (errno != EINTR) throw DataError("cannot read " + _path + ": " + std::strerror(errno));
    }
  }

 private:
  int _fd;
  std::string _path;
  std::string _head;
  std::size_t _served = 0;
};

class PlainSource : public ByteSource {
 public:
  explicit PlainSource(DescriptorReader in) : _in(std::move(in)) {}
  std::size_t Read(char* into, std::size_t count) override { return _in.Read(into, count); }

 private:
  DescriptorReader _in;
};

[[noreturn]] void Truncated(const std::string& path, const char* format) {
  throw DataError(path + ": the " + std::string(format)
                  + " data ends before its end mark: the file is truncated");
}

[[noreturn]] void Corrupt(const std::string& path, const char* format, const char* why) {
  throw DataError(path + ": corrupt " + std::string(format) + " data ("
                  + (why != nullptr ? why : "no reason given") + ")");
}

// gzip members one after the other, each inflated with zlib.
class GzipSource : public ByteSource {
 public:
  explicit GzipSource(DescriptorReader in)
      : _in(std::move(in)), _buffer(new char[kCompressedBuffer]) {
    // 16 + the largest window: gzip headers only.
    if (inflateInit2(&_z, 16 + MAX_WBITS) != Z_OK) throw std::bad_alloc();
  }
  ~GzipSource() override { inflateEnd(&_z); }
  GzipSource(const GzipSource&) = delete;
  GzipSource& operator=(const GzipSource&) = delete;

  std::size_t Read(char* into, std::size_t count) override {
    _z.next_out = reinterpret_cast<Bytef*>(into);
    _z.avail_out = static_cast<uInt>(std::min<std::size_t>(count, 1u << 30));
    const uInt asked = _z.avail_out;
    for (;;) {
      if (_z.avail_in == 0 && !_eof) Refill();
      if (_z.avail_in == 0 && _eof && !_inMember) return 0;
      _inMember = true;
      const int status = inflate(&_z, Z_NO_FLUSH);
      if (status == Z_STREAM_END) {
        inflateReset(&_z);
        _inMember = false;
      } else if (status == Z_MEM_ERROR) {
        throw std::bad_alloc();
      } else if (status != Z_OK && status != Z_BUF_ERROR) {
        Corrupt(_in.Path(), "gzip", _z.msg);
      }
      const std::size_t produced = asked - _z.avail_out;
      if (produced != 0) return produced;
      // Nothing came, and nothing more will: the member is cut short.
      if (_z.avail_in == 0 && _eof && _inMember) Truncated(_in.Path(), "gzip");
    }
  }

 private:
  void Refill() {
    const std::size_t n = _in.Read(_buffer.get(), kCompressedBuffer);
    _eof = n == 0;
    _z.next_in = reinterpret_cast<Bytef*>(_buffer.get());
    _z.avail_in = static_cast<uInt>(n);
  }

  DescriptorReader _in;
  std::unique_ptr<char[]> _buffer;
  z_stream _z{};
  bool _eof = false;
  bool _inMember = false;  // a member has begun and not ended
};

// zstd frames one after the other.
class ZstdSource : public ByteSource {
 public:
  explicit ZstdSource(DescriptorReader in)
      : _in(std::move(in)), _buffer(new char[kCompressedBuffer]), _stream(ZSTD_createDStream()) {
    if (_stream == nullptr) throw std::bad_alloc();
  }
  ~ZstdSource() override { ZSTD_freeDStream(_stream); }
  ZstdSource(const ZstdSource&) = delete;
  ZstdSource& operator=(const ZstdSource&) = delete;

  std::size_t Read(char* into, std::size_t count) override {
    ZSTD_outBuffer out{into, count, 0};
    for (;;) {
      if (_input.pos == _input.size && !_eof) Refill();
      if (_input.pos == _input.size && _eof && !_inFrame) return 0;
      const std::size_t left = ZSTD_decompressStream(_stream, &out, &_input);
      if (ZSTD_isError(left)) Corrupt(_in.Path(), "zstd", ZSTD_getErrorName(left));
      // 0: the frame is decoded and flushed.
      _inFrame = left != 0;
      if (out.pos != 0) return out.pos;
      if (_input.pos == _input.size && _eof && _inFrame) Truncated(_in.Path(), "zstd");
    }
  }

 private:
  void Refill() {
    const std::size_t n = _in.Read(_buffer.get(), kCompressedBuffer);
    _eof = n == 0;
    _input = ZSTD_inBuffer{_buffer.get(), n, 0};
  }

  DescriptorReader _in;
  std::unique_ptr<char[]> _buffer;
  ZSTD_DStream* _stream;
  ZSTD_inBuffer _input{nullptr, 0, 0};
  bool _eof = false;
  bool _inFrame = false;
};

// Reads another source ahead on a thread of its own, at most kBlocks blocks,
// so that decompression runs beside the threads that parse. Only over input
// whose reads always come back (a regular file), so that the thread stops
// when the reader is destroyed early.
class ReadAheadSource : public ByteSource {
 public:
  explicit ReadAheadSource(std::unique_ptr<ByteSource> inner)
      : _inner(std::move(inner)), _thread([this] { Run(); }) {}
  ~ReadAheadSource() override {
    {
      const std::lock_guard<std::mutex> lock(_mutex);
      _stop = true;
    }
    _changed.notify_all();
    _thread.join();
  }
  ReadAheadSource(const ReadAheadSource&) = delete;
  ReadAheadSource& operator=(const ReadAheadSource&) = delete;

  std::size_t Read(char* into, std::size_t count) override {
    std::unique_lock<std::mutex> lock(_mutex);
    _changed.wait(lock, [this] { return !_full.empty() || _done; });
    if (_full.empty()) {
      if (_error) std::rethrow_exception(_error);
      return 0;
    }
    Block& block = _full.front();
    const std::size_t n = std::min(count, block.size - block.taken);
    std::memcpy(into, block.data.get() + block.taken, n);
    block.taken += n;
    if (block.taken == block.size) {
      _spare.push_back(std::move(block.data));
      _full.pop_front();
      _changed.notify_all();
    }
    return n;
  }

 private:
  static constexpr std::size_t kBlock = std::size_t{1} << 20;
  static constexpr std::size_t kBlocks = 4;

  struct Block {
    std::unique_ptr<char[]> data;
    std::size_t size = 0;
    std::size_t taken = 0;
  };

  void Run() {
    try {
      for (bool atEnd = false; !atEnd;) {
        std::unique_ptr<char[]> data;
        {
          std::unique_lock<std::mutex> lock(_mutex);
          _changed.wait(lock, [this] { return _stop || _full.size() < kBlocks; });
          if (_stop) return;
          if (!_spare.empty()) {
            data = std::move(_spare.back());
            _spare.pop_back();
          }
        }
        if (!data) data.reset(new char[kBlock]);
        std::size_t size = 0;
        for (std::size_t n = 1; size < kBlock && n != 0; size += n)
          n = _inner->Read(data.get() + size, kBlock - size);
        atEnd = size < kBlock;
        {
          const std::lock_guard<std::mutex> lock(_mutex);
          if (size != 0) _full.push_back({std::move(data), size, 0});
          _done = atEnd;
        }
        _changed.notify_all();
      }
    } catch (...) {
      {
        const std::lock_guard<std::mutex> lock(_mutex);
        _error = std::current_exception();
        _done = true;
      }
      _changed.notify_all();
    }
  }

  std::unique_ptr<ByteSource> _inner;  // read by the thread only
  std::mutex _mutex;
  std::condition_variable _changed;
  std::deque<Block> _full;
  std::vector<std::unique_ptr<char[]>> _spare;
  bool _done = false;  // the thread has read all it will
  bool _stop = false;  // the reader is going away
  std::exception_ptr _error;
  std::thread _thread;  // last: starts once the rest is made
};

// A serial decompressor of the rest of `in`, read ahead on a thread of its own
// when `readAhead`.
std::unique_ptr<ByteSource> SerialSource(Compression compression, DescriptorReader in,
                                         bool readAhead) {
  std::unique_ptr<ByteSource> source;
  if (compression == Compression::kGzip) {
    source = std::make_unique<GzipSource>(std::move(in));
  } else {
    source = std::make_unique<ZstdSource>(std::move(in));
  }
  if (readAhead) source = std::make_unique<ReadAheadSource>(std::move(source));
  return source;
}

// Decompresses one zstd frame into the `capacity` bytes at `into`; returns
// the size of its content.
std::size_t DecompressZstdFrame(std::string_view frame, char* into, std::size_t capacity,
                                const std::string& path) {
  // One context a thread, kept between the frames it decompresses.
  thread_local const std::unique_ptr<ZSTD_DCtx, decltype(&ZSTD_freeDCtx)> context(ZSTD_createDCtx(),
                                                                                  ZSTD_freeDCtx);
  if (context == nullptr) throw std::bad_alloc();
  const std::size_t size =
      ZSTD_decompressDCtx(context.get(), into, capacity, frame.data(), frame.size());
  if (ZSTD_isError(size)) Corrupt(path, "zstd", ZSTD_getErrorName(size));
  return size;
}

// Inflates one BGZF gzip member into the `capacity` bytes at `into`, its
// ISIZE; returns the size of its content.
std::size_t InflateBgzfMember(std::string_view member, char* into, std::size_t capacity,
                              const std::string& path) {
  z_stream z{};
  if (inflateInit2(&z, 16 + MAX_WBITS) != Z_OK) throw std::bad_alloc();
  z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(member.data()));
  z.avail_in = static_cast<uInt>(member.size());
  z.next_out = reinterpret_cast<Bytef*>(into);
  z.avail_out = static_cast<uInt>(capacity);
  const int status = inflate(&z, Z_FINISH);
  const bool whole = status == Z_STREAM_END && z.avail_in == 0;
  const char* why = z.msg;
  if (why == nullptr) {
    why = z.avail_out == 0 && status != Z_STREAM_END
              ? "incorrect length check"
              : "the member does not end where its BGZF block size says";
  }
  const std::size_t size = capacity - z.avail_out;
  inflateEnd(&z);
  if (status == Z_MEM_ERROR) throw std::bad_alloc();
  if (!whole) Corrupt(path, "gzip", why);
  return size;
}

// Thrown by a batch of pieces that fails: the content of the pieces before
// the one that failed, and its error.
struct PartialContent {
  std::string content;
  std::exception_ptr error;
};

// Frames or BGZF members decompressed on a pool of threads and handed out in
// order. The first piece whose extent cannot be told without decompressing
// it (any gzip member that is not BGZF, damaged or cut headers, bytes after
// the last piece) or that is larger than kLargestPiece, and all that follows
// it, go through the serial source instead, which reports what is wrong
// there as it would from the start of the file. Small pieces go to the pool
// in batches of about kBatch bytes of content. At most kInFlightEach bytes of
// content a thread, and kInFlight in all, are decompressed ahead of the
// reader.
class PieceSource : public ByteSource {
 public:
  PieceSource(Compression compression, DescriptorReader in, unsigned threads, bool readAhead)
      : _compression(compression),
        _path(in.Path()),
        _in(std::move(in)),
        _readAhead(readAhead),
        _threads(threads),
        _inFlightMost(std::min(kInFlight, kInFlightEach * threads)) {}

  std::size_t Read(char* into, std::size_t count) override {
    while (_taken == _content.size()) {
      if (!NextContent()) return _serial ? _serial->Read(into, count) : 0;
    }
    const std::size_t n = std::min(count, _content.size() - _taken);
    std::memcpy(into, _content.data() + _taken, n);
    _taken += n;
    return n;
  }

 private:
  static constexpr std::uint64_t kLargestPiece = std::uint64_t{64} << 20;
  static constexpr std::uint64_t kInFlight = std::uint64_t{128} << 20;
  static constexpr std::uint64_t kInFlightEach = std::uint64_t{16} << 20;
  static constexpr std::uint64_t kBatch = std::uint64_t{1} << 20;

  struct Piece {
    std::string bytes;
    PieceExtent extent;
  };

  // Replaces the content handed out by that of the next batch of pieces;
  // false once no piece is left to the pool.
  bool NextContent() {
    if (_failed) std::rethrow_exception(_failed);
    _inFlight -= _contentBound;
    _contentBound = 0;
    SubmitAhead();
    if (_bounds.empty()) return false;
    _contentBound = _bounds.front();
    _bounds.pop_front();
    _taken = 0;
    try {
      _content = _pool->TakeNext();
    } catch (PartialContent& partial) {
      // That content first, then the error.
      _content = std::move(partial.content);
      _failed = partial.error;
    } catch (...) {
      _content.clear();
      _failed = std::current_exception();
      throw;
    }
    return true;
  }

  // Hands the pieces to the pool, in batches, as far as the bounds allow.
  void SubmitAhead() {
    for (;;) {
      std::vector<Piece> batch;
      std::uint64_t bound = 0;
      while (bound < kBatch) {
        if (!_next && !_split) _next = NextPiece();
        if (!_next) break;
        const std::uint64_t more = _next->extent.contentBound;
        const bool first = _bounds.empty() && batch.empty();
        if (!first && _inFlight + bound + more > _inFlightMost) break;
        bound += more;
        batch.push_back(std::move(*_next));
        _next.reset();
      }
      if (batch.empty()) return;
      if (!_pool) _pool = std::make_unique<OrderedPool>(_threads);
      _pool->Submit([batch = std::move(batch), bound, compression = _compression, path = _path] {
        return Decompressed(batch, bound, compression, path);
      });
      _bounds.push_back(bound);
      _inFlight += bound;
    }
  }

  // The contents of `batch` one after the other; PartialContent when a piece fails.
  static std::string Decompressed(const std::vector<Piece>& batch, std::uint64_t bound,
                                  Compression compression, const std::string& path) {
    std::string content(bound, '\0');
    std::size_t size = 0;
    for (const Piece& piece : batch) {
      try {
        const std::size_t capacity = piece.extent.contentBound;
        size += compression == Compression::kZstd
                    ? DecompressZstdFrame(piece.bytes, content.data() + size, capacity, path)
                    : InflateBgzfMember(piece.bytes, content.data() + size, capacity, path);
      } catch (const DataError&) {
        content.resize(size);
        throw PartialContent{std::move(content), std::current_exception()};
      }
    }
    content.resize(size);
    return content;
  }

  // The next piece with content, skipping those without; none once the
  // input ends or the rest is left to the serial source.
  std::optional<Piece> NextPiece() {
    for (;;) {
      const std::string_view pending = std::string_view(_buffer).substr(_start);
      const PieceExtent extent =
          _compression == Compression::kZstd ? FindZstdFrame(pending) : FindBgzfMember(pending);
      const bool small = extent.size <= kLargestPiece && extent.contentBound <= kLargestPiece;
      if (extent.kind == PieceExtent::kNeedMore && small && pending.size() <= kLargestPiece) {
        if (Refill()) continue;
        if (_start == _buffer.size()) {  // the input ends after a whole piece
          _split = true;
          return std::nullopt;
        }
      } else if (extent.kind != PieceExtent::kUnknown && small) {
        Piece piece{std::string(pending.substr(0, extent.size)), extent};
        _start += extent.size;
        if (extent.kind == PieceExtent::kPiece) return piece;
        continue;
      }
      LeaveRestToSerial();
      return std::nullopt;
    }
  }

  // Reads more compressed bytes after those pending; false at the end of the input.
  bool Refill() {
    _buffer.erase(0, _start);
    _start = 0;
    const std::size_t had = _buffer.size();
    _buffer.resize(had + kCompressedBuffer);
    const std::size_t n = _in.Read(_buffer.data() + had, kCompressedBuffer);
    _buffer.resize(had + n);
    return n != 0;
  }

  void LeaveRestToSerial() {
    _in.PutBack(_buffer.substr(_start));
    std::string().swap(_buffer);
    _start = 0;
    _split = true;
    _serial = SerialSource(_compression, std::move(_in), _readAhead);
  }

  Compression _compression;
  std::string _path;
  DescriptorReader _in;  // until the rest is left to the serial source
  bool _readAhead;
  unsigned _threads;
  std::uint64_t _inFlightMost;
  std::string _buffer;  // compressed bytes read, those from _start on not yet split off
  std::size_t _start = 0;
  bool _split = false;                // no more pieces for the pool
  std::optional<Piece> _next;         // split off, waiting for room in the pool
  std::deque<std::uint64_t> _bounds;  // content bounds of the batches in the pool, in order
  std::uint64_t _inFlight = 0;        // their sum, and that of the content handed out
  std::string _content;               // that of the batch handed out
  std::uint64_t _contentBound = 0;
  std::size_t _taken = 0;
  std::exception_ptr _failed;
  std::unique_ptr<ByteSource> _serial;  // the rest after the pieces, if any
  std::unique_ptr<OrderedPool> _pool;   // made at the first piece; last, joined first
};

}  // namespace

Compression CompressionOf(std::string_view head) {
  if (head.substr(0, kGzipMagic.size()) == kGzipMagic) return Compression::kGzip;
  if (head.substr(0, kZstdMagic.size()) == kZstdMagic) return Compression::kZstd;
  return Compression::kNone;
}

const char* CompressionName(Compression compression) {
  switch (compression) {
    case Compression::kGzip:
      return "gzip";
    case Compression::kZstd:
      return "zstd";
    case Compression::kNone:
      break;
  }
  return "";
}

OpenedSource OpenByteSource(int fd, std::string path, bool readAhead, unsigned threads) {
  DescriptorReader in(fd, std::move(path));
  std::string head = in.ReadHead(kCompressionMagicSize);
  OpenedSource opened{CompressionOf(head), nullptr};
  in.PutBack(std::move(head));
  if (opened.compression == Compression::kNone) {
    opened.source = std::make_unique<PlainSource>(std::move(in));
  } else if (threads > 1) {
    opened.source =
        std::make_unique<PieceSource>(opened.compression, std::move(in), threads, readAhead);
  } else {
    opened.source = SerialSource(opened.compression, std::move(in), readAhead);
  }
  return opened;
}

std::unique_ptr<ByteSource> OpenPlainSource(int fd, std::string path) {
  return std::make_unique<PlainSource>(DescriptorReader(fd, std::move(path)));
}

}  // namespace vorelstat
