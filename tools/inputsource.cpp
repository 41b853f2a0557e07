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
#include <thread>
#include <vector>

#include "errors.h"

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

  // Hands `head` out again before the bytes that follow it.
  void PutBack(std::string head) {
    _head = std::move(head);
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

OpenedSource OpenByteSource(int fd, std::string path, bool readAhead) {
  DescriptorReader in(fd, std::move(path));
  std::string head = in.ReadHead(kCompressionMagicSize);
  OpenedSource opened{CompressionOf(head), nullptr};
  in.PutBack(std::move(head));
  switch (opened.compression) {
    case Compression::kGzip:
      opened.source = std::make_unique<GzipSource>(std::move(in));
      break;
    case Compression::kZstd:
      opened.source = std::make_unique<ZstdSource>(std::move(in));
      break;
    case Compression::kNone:
      opened.source = std::make_unique<PlainSource>(std::move(in));
      return opened;
  }
  if (readAhead) opened.source = std::make_unique<ReadAheadSource>(std::move(opened.source));
  return opened;
}

std::unique_ptr<ByteSource> OpenPlainSource(int fd, std::string path) {
  return std::make_unique<PlainSource>(DescriptorReader(fd, std::move(path)));
}

}  // namespace vorelstat
