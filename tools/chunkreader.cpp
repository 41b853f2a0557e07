#include "chunkreader.h"

#include "errors.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace vorelstat {

void TextBuffer::Reserve(std::size_t capacity) {
  if (capacity <= _capacity) return;
  const std::size_t grown = std::max(capacity, _capacity + _capacity / 2);
  std::unique_ptr<char[]> bigger(new char[grown]);
  if (_size != 0) std::memcpy(bigger.get(), _data.get(), _size);
  _data = std::move(bigger);
  _capacity = grown;
}

void TextBuffer::Resize(std::size_t size) {
  Reserve(size);
  _size = size;
}

void TextBuffer::Assign(std::string_view text) {
  _size = 0;
  Append(text);
}

void TextBuffer::Append(std::string_view text) {
  Reserve(_size + text.size());
  if (!text.empty()) std::memcpy(_data.get() + _size, text.data(), text.size());
  _size += text.size();
}

namespace {

std::string SystemMessage(int error) { return std::strerror(error); }

std::string_view StripLineEnd(std::string_view line) {
  if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  return line;
}

bool IsBlank(std::string_view line) { return StripLineEnd(line).empty(); }

}  // namespace

ChunkReader::ChunkReader(const std::string& path, std::size_t readSize)
    : _path(path), _readSize(std::max<std::size_t>(readSize, 1)) {
  if (path == "-") {
    _fd = STDIN_FILENO;
  } else {
    _fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (_fd < 0) throw UsageError("cannot open " + path + ": " + SystemMessage(errno));
    _ownsFd = true;
  }
  struct stat info {};
  if (::fstat(_fd, &info) == 0) {
    if (S_ISDIR(info.st_mode)) {
      ::close(_fd);
      throw UsageError("cannot read " + path + ": it is a directory");
    }
    if (S_ISREG(info.st_mode)) {
      _fileSize = static_cast<std::uint64_t>(info.st_size);
      ::posix_fadvise(_fd, 0, 0, POSIX_FADV_SEQUENTIAL);
    }
  }
  try {
    ReadHeader();
  } catch (...) {
    if (_ownsFd) ::close(_fd);
    throw;
  }
}

ChunkReader::~ChunkReader() {
  if (_ownsFd) ::close(_fd);
}

std::size_t ChunkReader::ReadMore(TextBuffer& into, std::size_t count) {
  const std::size_t start = into.Size();
  into.Reserve(start + count);
  std::size_t got = 0;
  while (got < count && !_eof) {
    const ssize_t n = ::read(_fd, into.Data() + start + got, count - got);
    if (n < 0) {
      if (errno == EINTR) continue;
      const int error = errno;
      into.Resize(start + got);
      throw DataError("cannot read " + _path + ": " + SystemMessage(error));
    }
    if (n == 0) _eof = true;
    got += static_cast<std::size_t>(n);
  }
  into.Resize(start + got);
  _bytesRead += got;
  return got;
}

void ChunkReader::ReadHeader() {
  std::size_t scanned = 0;
  const char* lineEnd = nullptr;
  while (lineEnd == nullptr && !_eof) {
    ReadMore(_carry, _readSize);
    lineEnd = static_cast<const char*>(
        std::memchr(_carry.Data() + scanned, '\n', _carry.Size() - scanned));
    scanned = _carry.Size();
  }
  if (_carry.Size() == 0) throw DataError(_path + " is empty: it has not even a header line");
  const std::size_t headerBytes =
      lineEnd != nullptr ? static_cast<std::size_t>(lineEnd - _carry.Data()) + 1 : _carry.Size();
  std::string_view header = StripLineEnd(_carry.View().substr(0, lineEnd ? headerBytes - 1 : headerBytes));
  constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
  if (header.substr(0, kByteOrderMark.size()) == kByteOrderMark) header.remove_prefix(kByteOrderMark.size());
  if (header.empty()) throw DataError(_path + ", line 1: the header line is empty");
  _header.assign(header);
  const std::string rest(_carry.View().substr(headerBytes));
  _carry.Assign(rest);
  _carryOffset = headerBytes;
}

std::optional<std::string> ChunkReader::PeekFirstDataLine() {
  std::size_t lineStart = 0;
  for (;;) {
    const std::string_view text = _carry.View();
    const std::size_t lineEnd = text.find('\n', lineStart);
    if (lineEnd == std::string_view::npos) {
      if (_eof) {
        const std::string_view last = text.substr(lineStart);
        if (IsBlank(last)) return std::nullopt;
        return std::string(StripLineEnd(last));
      }
      ReadMore(_carry, _readSize);
      continue;
    }
    const std::string_view line = text.substr(lineStart, lineEnd - lineStart);
    if (!IsBlank(line)) return std::string(StripLineEnd(line));
    lineStart = lineEnd + 1;
  }
}

bool ChunkReader::Next(Chunk& chunk) {
  if (_carry.Size() == 0 && _eof) return false;
  chunk.text.Assign(_carry.View());
  chunk.offset = _carryOffset;
  _carry.Resize(0);

  // Bytes before `scanned` hold no line end: the carry is a partial line,
  // except straight after the header, where it may hold many.
  std::size_t scanned = 0;
  const char* lastLineEnd = nullptr;
  bool readAgain = chunk.text.Size() < _readSize;
  for (;;) {
    if (readAgain && !_eof) ReadMore(chunk.text, _readSize);
    const std::size_t size = chunk.text.Size();
    lastLineEnd = static_cast<const char*>(::memrchr(chunk.text.Data() + scanned, '\n', size - scanned));
    if (lastLineEnd != nullptr || _eof) break;
    scanned = size;
    readAgain = true;
  }
  if (lastLineEnd != nullptr) {
    const std::size_t keep = static_cast<std::size_t>(lastLineEnd - chunk.text.Data()) + 1;
    _carry.Assign(chunk.text.View().substr(keep));
    chunk.text.Resize(keep);
  }
  if (chunk.text.Size() == 0) return false;
  chunk.index = _nextIndex++;
  _carryOffset = chunk.offset + chunk.text.Size();
  return true;
}

}  // namespace vorelstat
