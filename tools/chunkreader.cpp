#include "chunkreader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "errors.h"

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

// Bytes read at a time when looking for a line end near a cut.
constexpr std::size_t kWindow = 4096;

std::string SystemMessage(int error) { return std::strerror(error); }

// memchr and memrchr over [from, from + count), where count may be 0 and
// `from` then null.
const char* FindFirst(const char* from, std::size_t count, char c) {
  return count == 0 ? nullptr : static_cast<const char*>(std::memchr(from, c, count));
}

const char* FindLast(const char* from, std::size_t count, char c) {
  return count == 0 ? nullptr : static_cast<const char*>(::memrchr(from, c, count));
}

std::string_view StripLineEnd(std::string_view line) {
  if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  return line;
}

bool IsBlank(std::string_view line) { return StripLineEnd(line).empty(); }

// The first line of `text` that is not blank, if a whole one is there; with
// `atEnd`, a last line without line end counts too.
std::optional<std::string> FirstWholeLine(std::string_view text, bool atEnd, bool& found) {
  std::size_t lineStart = 0;
  for (;;) {
    const std::size_t lineEnd = text.find('\n', lineStart);
    if (lineEnd == std::string_view::npos) {
      found = atEnd;
      const std::string_view last = text.substr(lineStart);
      if (!atEnd || IsBlank(last)) return std::nullopt;
      return std::string(StripLineEnd(last));
    }
    const std::string_view line = text.substr(lineStart, lineEnd - lineStart);
    if (!IsBlank(line)) {
      found = true;
      return std::string(StripLineEnd(line));
    }
    lineStart = lineEnd + 1;
  }
}

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
      if (_ownsFd) ::close(_fd);
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
  return got;
}

void ChunkReader::ReadAt(std::uint64_t offset, std::size_t count, TextBuffer& into) const {
  count = static_cast<std::size_t>(
      std::min<std::uint64_t>(count, *_fileSize - std::min(offset, *_fileSize)));
  into.Resize(count);
  std::size_t got = 0;
  while (got < count) {
    const ssize_t n =
        ::pread(_fd, into.Data() + got, count - got, static_cast<off_t>(offset + got));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) throw DataError("cannot read " + _path + ": " + SystemMessage(errno));
    if (n == 0) throw DataError("cannot read " + _path + ": the file shrank while it was read");
    got += static_cast<std::size_t>(n);
  }
}

void ChunkReader::ReadHeader() {
  // Both ways read ahead from the start; what follows the header stays in
  // _window (regular file, for the peek) or _carry (stream).
  TextBuffer& head = Seekable() ? _window : _carry;
  std::size_t scanned = 0;
  const char* lineEnd = nullptr;
  for (bool atEnd = false; lineEnd == nullptr && !atEnd;) {
    if (Seekable()) {
      ReadAt(0, std::max(head.Size() * 2, kWindow), head);
      atEnd = head.Size() == *_fileSize;
    } else {
      ReadMore(head, _readSize);
      atEnd = _eof;
    }
    lineEnd = FindFirst(head.Data() + scanned, head.Size() - scanned, '\n');
    scanned = head.Size();
  }
  if (head.Size() == 0) throw DataError(_path + " is empty: it has not even a header line");
  const std::size_t headerBytes =
      lineEnd != nullptr ? static_cast<std::size_t>(lineEnd - head.Data()) + 1 : head.Size();
  std::string_view header = head.View().substr(0, headerBytes);
  if (!header.empty() && header.back() == '\n') header.remove_suffix(1);
  header = StripLineEnd(header);
  constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
  if (header.substr(0, kByteOrderMark.size()) == kByteOrderMark)
    header.remove_prefix(kByteOrderMark.size());
  if (header.empty()) throw DataError(_path + ", line 1: the header line is empty");
  _header.assign(header);
  _handedOut = headerBytes;
  if (!Seekable()) {
    const std::string rest(_carry.View().substr(headerBytes));
    _carry.Assign(rest);
  }
}

std::optional<std::string> ChunkReader::PeekFirstDataLine() {
  bool found = false;
  if (!Seekable()) {
    for (;;) {
      std::optional<std::string> line = FirstWholeLine(_carry.View(), _eof, found);
      if (found) return line;
      ReadMore(_carry, _readSize);
    }
  }
  TextBuffer ahead;
  for (std::size_t want = kWindow;; want *= 2) {
    ReadAt(_handedOut, want, ahead);
    const bool atEnd = _handedOut + ahead.Size() == *_fileSize;
    std::optional<std::string> line = FirstWholeLine(ahead.View(), atEnd, found);
    if (found) return line;
  }
}

std::uint64_t ChunkReader::CutAfter(std::uint64_t start) {
  const std::uint64_t fileSize = *_fileSize;
  const std::uint64_t end = start + _readSize;
  if (end >= fileSize) return fileSize;
  // The last line end before `end`, one window at a time going back.
  for (std::uint64_t windowEnd = end; windowEnd > start;) {
    const std::uint64_t windowStart =
        std::max(start, windowEnd - std::min<std::uint64_t>(kWindow, windowEnd));
    ReadAt(windowStart, static_cast<std::size_t>(windowEnd - windowStart), _window);
    const char* found = FindLast(_window.Data(), _window.Size(), '\n');
    if (found != nullptr)
      return windowStart + static_cast<std::uint64_t>(found - _window.Data()) + 1;
    windowEnd = windowStart;
  }
  // A line longer than the read size: its end, going forward.
  for (std::uint64_t windowStart = end; windowStart < fileSize; windowStart += kWindow) {
    ReadAt(windowStart, kWindow, _window);
    const char* found = FindFirst(_window.Data(), _window.Size(), '\n');
    if (found != nullptr)
      return windowStart + static_cast<std::uint64_t>(found - _window.Data()) + 1;
  }
  return fileSize;
}

bool ChunkReader::Next(Chunk& chunk) {
  if (!Seekable()) return NextFromStream(chunk);
  if (_handedOut >= *_fileSize) return false;
  const std::uint64_t cut = CutAfter(_handedOut);
  chunk.offset = _handedOut;
  chunk.size = cut - _handedOut;
  chunk.index = _nextIndex++;
  chunk.loaded = false;
  _handedOut = cut;
  return true;
}

void ChunkReader::Load(Chunk& chunk) const {
  if (chunk.loaded) return;
  ReadAt(chunk.offset, static_cast<std::size_t>(chunk.size), chunk.text);
  chunk.loaded = true;
}

bool ChunkReader::NextFromStream(Chunk& chunk) {
  if (_carry.Size() == 0 && _eof) return false;
  chunk.text.Assign(_carry.View());
  chunk.offset = _handedOut;
  _carry.Resize(0);

  // Bytes before `scanned` hold no line end: the carry is a partial line,
  // except straight after the header, where it may hold many.
  std::size_t scanned = 0;
  const char* lastLineEnd = nullptr;
  bool readAgain = chunk.text.Size() < _readSize;
  for (;;) {
    if (readAgain && !_eof) ReadMore(chunk.text, _readSize);
    const std::size_t size = chunk.text.Size();
    lastLineEnd = FindLast(chunk.text.Data() + scanned, size - scanned, '\n');
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
  chunk.size = chunk.text.Size();
  chunk.index = _nextIndex++;
  chunk.loaded = true;
  _handedOut += chunk.size;
  return true;
}

}  // namespace vorelstat
