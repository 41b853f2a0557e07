#include "chunkreader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "errors.h"
#include "inputsource.h"
#include "textscan.h"

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

std::uint64_t LineEnds(std::string_view text) {
  return static_cast<std::uint64_t>(std::count(text.begin(), text.end(), '\n'));
}

// The one place that says where a line ends: the first line end in
// [from, from + count), or null.
const char* FindLineEnd(const char* from, std::size_t count) {
  return FindFirst(from, count, '\n');
}

std::string_view StripLineEnd(std::string_view line) {
  if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  return line;
}

bool IsBlank(std::string_view line) { return StripLineEnd(line).empty(); }

// Formats that are not delimited text, by the bytes they start with.
struct Signature {
  std::string_view bytes;
  const char* what;
};

constexpr Signature kSignatures[] = {
    {"\x1F\x8B", "compressed (gzip)"},
    {"\x28\xB5\x2F\xFD", "compressed (zstd)"},
    {"BZh", "compressed (bzip2)"},
    {"\xFD"
     "7zXZ",
     "compressed (xz)"},
    {"PK\x03\x04", "a zip archive"},
    {"\xFF\xFE", "UTF-16 text"},
    {"\xFE\xFF", "UTF-16 text"},
};

// Whether the quote at `quote` opens a field: only padding lies between it and
// a delimiter before it, or between it and `segment`, where the field-start
// state `atSegmentStart` holds.
bool OpensField(const char* segment, const char* quote, bool atSegmentStart, char delimiter) {
  const char* k = quote;
  while (k != segment && IsPadding(k[-1], delimiter))
    --k;
  return k == segment ? atSegmentStart : k[-1] == delimiter;
}

// Carries `state`, the state of the quotes at `p`, over [p, end).
void AdvanceQuotes(const char* p, const char* end, char delimiter, QuoteState& state) {
  const auto count = static_cast<std::size_t>(end - p);
  // Outside quotes and with no quote ahead, only the last line end matters.
  if (state.where == QuoteState::kOutside && FindFirst(p, count, '"') == nullptr) {
    if (const char* last = FindLast(p, count, '\n'); last != nullptr) {
      p = last + 1;
      state = QuoteState();
    }
    state.atFieldStart = OpensField(p, end, state.atFieldStart, delimiter);
    return;
  }
  while (const char* found = NextLineEndOutsideQuotes(p, end, delimiter, state))
    p = found + 1;
}

}  // namespace

const char* NextLineEndOutsideQuotes(const char* from, const char* end, char delimiter,
                                     QuoteState& state, std::uint64_t* lineEndsInQuotes) {
  const char* p = from;
  for (;;) {
    if (state.where == QuoteState::kInsideAfterQuote) {
      if (p == end) return nullptr;
      if (*p == '"') {
        ++p;
        state.where = QuoteState::kInside;
      } else {
        state = {QuoteState::kOutside, false};
      }
    }
    if (state.where == QuoteState::kInside) {
      const char* quote = FindFirst(p, static_cast<std::size_t>(end - p), '"');
      const char* stop = quote != nullptr ? quote : end;
      if (lineEndsInQuotes != nullptr)
        *lineEndsInQuotes += static_cast<std::uint64_t>(std::count(p, stop, '\n'));
      if (quote == nullptr) return nullptr;
      p = quote + 1;
      state.where = QuoteState::kInsideAfterQuote;
      continue;
    }
    const char* hit = FindEither(p, end, '\n', '"');
    if (hit == nullptr) {
      state.atFieldStart = OpensField(p, end, state.atFieldStart, delimiter);
      return nullptr;
    }
    if (*hit == '\n') {
      state = {};
      return hit;
    }
    state = {OpensField(p, hit, state.atFieldStart, delimiter) ? QuoteState::kInside
                                                               : QuoteState::kOutside,
             false};
    p = hit + 1;
  }
}

ChunkReader::ChunkReader(const std::string& path, std::size_t readSize, std::size_t maxLine)
    : _path(path),
      _readSize(std::max<std::size_t>(readSize, 1)),
      _maxLine(std::max<std::size_t>(maxLine, 1)),
      _blockBytes(_readSize) {
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
    // Files under /proc and /sys say 0 bytes and have more: read them as a stream.
    _regularFile = S_ISREG(info.st_mode);
    if (S_ISREG(info.st_mode) && info.st_size > 0) {
      _fileSize = static_cast<std::uint64_t>(info.st_size);
      ::posix_fadvise(_fd, 0, 0, POSIX_FADV_SEQUENTIAL);
    }
  }
  try {
    OpenInput();
    ReadHeader();
  } catch (...) {
    if (_ownsFd) ::close(_fd);
    throw;
  }
}

ChunkReader::~ChunkReader() {
  if (_ownsFd) ::close(_fd);
}

void ChunkReader::OpenInput() {
  OpenedSource opened = OpenByteSource(_fd, _path, _regularFile);
  _compression = opened.compression;
  // Compressed input is read as a stream, whatever holds it.
  if (_compression != Compression::kNone) _fileSize.reset();
  if (!Seekable()) _source = std::move(opened.source);
}

bool ChunkReader::Rereadable() const {
  return Seekable() || (_compression != Compression::kNone && _ownsFd && _regularFile);
}

std::size_t ChunkReader::ReadMore(TextBuffer& into, std::size_t count) {
  const std::size_t start = into.Size();
  into.Reserve(start + count);
  std::size_t got = 0;
  try {
    while (got < count && !_eof) {
      const std::size_t n = _source->Read(into.Data() + start + got, count - got);
      if (n == 0) _eof = true;
      got += n;
    }
  } catch (...) {
    into.Resize(start + got);
    throw;
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

void ChunkReader::CheckStart(std::string_view head) const {
  for (const Signature& signature : kSignatures) {
    if (head.substr(0, signature.bytes.size()) == signature.bytes) {
      std::string message = _path + " is " + signature.what + ", not delimited text";
      if (std::string_view(signature.what).substr(0, 10) == "compressed") {
        // gzip and zstd are taken off before the text is looked at: seen
        // here, they were compressed twice.
        message += _compression != Compression::kNone
                       ? " inside its " + std::string(CompressionName(_compression))
                             + " compression; decompress it once first"
                       : "; decompress it first (gzip and zstd are read directly, others not)";
      }
      throw DataError(message);
    }
  }
}

void ChunkReader::LineTooLong(std::uint64_t offset, bool quoted) const {
  // Following quotes, a record runs on to the closing quote.
  const char* hint = quoted ? " (or a quote is left open there)" : "";
  throw DataError(_path + ": the line at byte " + std::to_string(offset) + " is longer than "
                  + std::to_string(_maxLine) + " bytes, the limit of --max-line-length" + hint);
}

void ChunkReader::ReadHeader() {
  // Both ways read ahead from the start; what follows the header stays in
  // _window (regular file) or _carry (stream).
  TextBuffer& head = Seekable() ? _window : _carry;
  std::size_t lineStart = 0;  // the first line not yet known to be blank
  std::size_t scanned = 0;
  bool checked = false;
  std::optional<std::size_t> lineEnd;
  for (bool atEnd = false; !lineEnd;) {
    if (atEnd) break;
    if (Seekable()) {
      ReadAt(0, std::max(head.Size() * 2, kWindow), head);
      atEnd = head.Size() == *_fileSize;
    } else {
      ReadMore(head, _readSize);
      atEnd = _eof;
    }
    const std::string_view text = head.View();
    if (!checked && (text.size() >= 8 || atEnd)) {
      CheckStart(text);
      checked = true;
    }
    const std::size_t from = scanned;
    for (const char* found;
         (found = FindFirst(text.data() + scanned, text.size() - scanned, '\n')) != nullptr;) {
      const auto end = static_cast<std::size_t>(found - text.data());
      scanned = end + 1;
      if (!IsBlank(text.substr(lineStart, end - lineStart))) {
        lineEnd = end;
        break;
      }
      lineStart = end + 1;
      ++_headerLine;
    }
    if (!lineEnd) scanned = text.size();
    const std::size_t upTo = lineEnd ? *lineEnd : text.size();
    if (FindFirst(text.data() + from, upTo - from, '\0') != nullptr) {
      throw DataError(_path + " holds a byte 0 before its header ends: it is not a text file");
    }
    if (!lineEnd && text.size() - lineStart > _maxLine) LineTooLong(lineStart);
  }
  if (head.Size() == lineStart) {
    throw DataError(head.Size() == 0 ? _path + " is empty: it has not even a header line"
                                     : _path + " holds only blank lines: it has no header");
  }
  const std::size_t headerEnd = lineEnd ? *lineEnd + 1 : head.Size();
  std::string_view header = head.View().substr(lineStart, headerEnd - lineStart);
  if (!header.empty() && header.back() == '\n') header.remove_suffix(1);
  header = StripLineEnd(header);
  if (header.size() > _maxLine) LineTooLong(lineStart);
  if (header.find('\r') != std::string_view::npos) {
    throw DataError(_path + ": its lines end in a carriage return alone (old Mac style); "
                            "convert the line ends to \\n first, e.g. with tr '\\r' '\\n'");
  }
  constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
  if (header.substr(0, kByteOrderMark.size()) == kByteOrderMark)
    header.remove_prefix(kByteOrderMark.size());
  if (header.empty()) throw DataError(_path + ", line 1: the header line is empty");
  _header.assign(header);
  _handedOut = headerEnd;
  _dataStart = headerEnd;
  if (!Seekable()) {
    const std::string rest(_carry.View().substr(headerEnd));
    _carry.Assign(rest);
  }
}

std::string_view ChunkReader::PeekAhead(std::size_t limit) {
  std::string_view text;
  bool atEnd = false;
  if (Seekable()) {
    ReadAt(_handedOut, limit, _ahead);
    text = _ahead.View();
    atEnd = _handedOut + text.size() >= *_fileSize;
  } else {
    while (_carry.Size() < limit && !_eof)
      ReadMore(_carry, limit - _carry.Size());
    text = _carry.View().substr(0, std::min(limit, _carry.Size()));
    atEnd = _eof && text.size() == _carry.Size();
  }
  if (atEnd) return text;
  const std::size_t last = text.rfind('\n');
  return last == std::string_view::npos ? std::string_view() : text.substr(0, last + 1);
}

void ChunkReader::SetGrid(std::uint64_t blockBytes, std::uint64_t firstBlock,
                          std::uint64_t endBlock) {
  _blockBytes = std::max<std::uint64_t>(blockBytes, 1);
  _nextBlock = firstBlock;
  _lastBlock = endBlock;
}

std::uint64_t ChunkReader::Boundary(std::uint64_t block) const {
  if (block >= (~std::uint64_t{0} - _dataStart) / _blockBytes) return ~std::uint64_t{0};
  return _dataStart + block * _blockBytes;
}

std::uint64_t ChunkReader::BlocksUpTo(std::uint64_t end) const {
  const std::uint64_t bytes = end - std::min(end, _dataStart);
  return bytes / _blockBytes + (bytes % _blockBytes != 0 ? 1 : 0);
}

std::uint64_t ChunkReader::ChunkEndBlock() const {
  const std::uint64_t blocks = std::max<std::uint64_t>(1, _readSize / _blockBytes);
  return _nextBlock + std::min(blocks, _lastBlock - _nextBlock);
}

std::uint64_t ChunkReader::LineStartFile(std::uint64_t offset) {
  const std::uint64_t fileSize = *_fileSize;
  if (offset <= _dataStart) return _dataStart;
  if (offset >= fileSize) return fileSize;
  // The line end at or after offset - 1, one window at a time.
  for (std::uint64_t windowStart = offset - 1; windowStart < fileSize; windowStart += kWindow) {
    if (windowStart + 1 - offset > _maxLine) LineTooLong(offset);
    ReadAt(windowStart, kWindow, _window);
    const char* found = FindLineEnd(_window.Data(), _window.Size());
    if (found == nullptr) continue;
    const std::uint64_t lineEnd = windowStart + static_cast<std::uint64_t>(found - _window.Data());
    if (lineEnd + 1 - offset > _maxLine) LineTooLong(offset);
    return lineEnd + 1;
  }
  if (fileSize - offset > _maxLine) LineTooLong(offset);
  return fileSize;
}

std::uint64_t ChunkReader::LineStartStream(std::uint64_t offset) {
  if (_quoteDelimiter) return RecordStartStream(offset);
  // _carry holds the input from _handedOut on, which is a line start.
  if (offset <= _handedOut) return _handedOut;
  const std::uint64_t from = offset - 1 - _handedOut;  // where the line end may be, in _carry
  for (;;) {
    if (_carry.Size() > from) {
      const char* found = FindLineEnd(_carry.Data() + from, _carry.Size() - from);
      const std::size_t end =
          found != nullptr ? static_cast<std::size_t>(found - _carry.Data()) : _carry.Size();
      if (end - from > _maxLine) LineTooLong(offset);
      if (found != nullptr) return _handedOut + end + 1;
    }
    if (_eof) return _handedOut + _carry.Size();
    ReadMore(_carry, BytesToReach(from));
  }
}

std::size_t ChunkReader::BytesToReach(std::uint64_t at) const {
  const std::uint64_t missing = at + 1 - std::min<std::uint64_t>(at + 1, _carry.Size());
  return static_cast<std::size_t>(std::max<std::uint64_t>(missing, _readSize));
}

void ChunkReader::FollowQuotesTo(std::uint64_t offset) {
  const char* carry = _carry.Data();
  AdvanceQuotes(carry + (_quotesAt - _handedOut), carry + (offset - _handedOut), *_quoteDelimiter,
                _quotes);
  _quotesAt = offset;
}

std::uint64_t ChunkReader::RecordStartStream(std::uint64_t offset) {
  // _carry holds the input from _handedOut on, which is a record start, and
  // the quotes' state is known at _quotesAt, at or after it.
  if (offset <= _handedOut) return _handedOut;
  const std::uint64_t target = offset - 1;  // where the line end may be
  for (;;) {
    const std::uint64_t available = _handedOut + _carry.Size();
    if (_quotesAt < target) FollowQuotesTo(std::min(target, available));
    if (_quotesAt >= target) {
      const char* carry = _carry.Data();
      const char* found = NextLineEndOutsideQuotes(
          carry + (_quotesAt - _handedOut), carry + _carry.Size(), *_quoteDelimiter, _quotes);
      _quotesAt =
          found != nullptr ? _handedOut + static_cast<std::uint64_t>(found - carry) : available;
      if (_quotesAt - target > _maxLine) LineTooLong(offset, true);
      if (found != nullptr) return ++_quotesAt;
    }
    if (_eof) return available;
    ReadMore(_carry, BytesToReach(target - _handedOut));
  }
}

void ChunkReader::DropBefore(std::uint64_t offset) {
  while (_handedOut + _carry.Size() + 1 < offset && !_eof) {
    if (_quoteDelimiter) FollowQuotesTo(_handedOut + _carry.Size());
    _lineEndsDropped += LineEnds(_carry.View());
    _handedOut += _carry.Size();
    _carry.Resize(0);
    ReadMore(_carry,
             static_cast<std::size_t>(std::min<std::uint64_t>(offset - 1 - _handedOut, _readSize)));
  }
}

void ChunkReader::ReadAsStreamFrom(std::uint64_t offset) {
  if (::lseek(_fd, static_cast<off_t>(offset), SEEK_SET) < 0)
    throw DataError("cannot read " + _path + ": " + SystemMessage(errno));
  _source = OpenPlainSource(_fd, _path);
  _carry.Resize(0);
  _eof = false;
}

std::uint64_t ChunkReader::FirstRecordStartFile(std::uint64_t offset) {
  // Whether a byte lies inside quotes depends on every byte before it.
  ReadAsStreamFrom(_handedOut);
  DropBefore(offset);
  const std::uint64_t start = RecordStartStream(offset);
  _lineEndsBeforeFirst = LineEndsDroppedTo(start);
  _source.reset();
  _carry.Resize(0);
  return start;
}

void ChunkReader::FollowQuotes(char delimiter) {
  _quoteDelimiter = delimiter;
  _quotesAt = _handedOut;
  _quotes = QuoteState();
}

void ChunkReader::CutOutsideQuotes(char delimiter) {
  FollowQuotes(delimiter);
  _everyCutOutsideQuotes = true;
  // A regular file is read as a stream from the first byte after the header.
  if (Seekable()) ReadAsStreamFrom(_handedOut);
}

void ChunkReader::HandOut(Chunk& chunk, std::uint64_t cut, std::uint64_t endBlock) {
  chunk.offset = _handedOut;
  chunk.size = cut - _handedOut;
  chunk.index = _nextIndex++;
  chunk.firstBlock = _nextBlock;
  chunk.endBlock = endBlock;
  _nextBlock = endBlock;
  _handedOut = cut;
}

bool ChunkReader::Next(Chunk& chunk) {
  if (!Seekable() || _everyCutOutsideQuotes) return NextFromStream(chunk);
  if (!_started) {
    const std::uint64_t first = Boundary(_nextBlock);
    const bool followQuotes = _quoteDelimiter && first > _dataStart && first < *_fileSize;
    _handedOut = followQuotes ? FirstRecordStartFile(first) : LineStartFile(first);
    if (_handedOut == _dataStart) _lineEndsBeforeFirst = 0;
    _firstChunkStart = _handedOut;
    _started = true;
  }
  const std::uint64_t endBlock = std::min(ChunkEndBlock(), BlocksUpTo(*_fileSize));
  if (_nextBlock >= endBlock) return false;
  // A first record found by following the quotes may start past the boundary.
  const std::uint64_t boundary = Boundary(endBlock);
  const std::uint64_t cut = boundary <= _handedOut ? _handedOut : LineStartFile(boundary);
  HandOut(chunk, cut, endBlock);
  chunk.loaded = false;
  chunk.cutGuessed = cut < *_fileSize;
  return true;
}

void ChunkReader::Load(Chunk& chunk) const {
  if (chunk.loaded) return;
  ReadAt(chunk.offset, static_cast<std::size_t>(chunk.size), chunk.text);
  chunk.loaded = true;
}

bool ChunkReader::NextFromStream(Chunk& chunk) {
  if (!_started) {
    // A part that starts further on: the bytes before it are dropped as they come.
    const std::uint64_t first = Boundary(_nextBlock);
    DropBefore(first);
    const std::uint64_t start = LineStartStream(first);
    _lineEndsBeforeFirst = LineEndsDroppedTo(start);
    _firstChunkStart = start;
    const std::string rest(_carry.View().substr(static_cast<std::size_t>(start - _handedOut)));
    _carry.Assign(rest);
    _handedOut = start;
    _started = true;
  }
  std::uint64_t endBlock = ChunkEndBlock();
  if (_nextBlock >= endBlock) return false;
  const std::uint64_t cut = LineStartStream(Boundary(endBlock));
  if (_eof && cut == _handedOut + _carry.Size()) endBlock = std::min(endBlock, BlocksUpTo(cut));
  if (_nextBlock >= endBlock) return false;
  const auto size = static_cast<std::size_t>(cut - _handedOut);
  chunk.text.Assign(_carry.View().substr(0, size));
  const std::string rest(_carry.View().substr(size));
  _carry.Assign(rest);
  HandOut(chunk, cut, endBlock);
  chunk.loaded = true;
  chunk.cutGuessed = false;
  return true;
}

std::uint64_t ChunkReader::LineEndsDroppedTo(std::uint64_t start) const {
  return _lineEndsDropped
         + LineEnds(_carry.View().substr(0, static_cast<std::size_t>(start - _handedOut)));
}

std::uint64_t ChunkReader::LineEndsBeforeFirstChunk() {
  if (!_lineEndsBeforeFirst) {
    std::uint64_t count = 0;
    for (std::uint64_t at = _dataStart; at < _firstChunkStart; at += _readSize) {
      ReadAt(at,
             static_cast<std::size_t>(std::min<std::uint64_t>(_readSize, _firstChunkStart - at)),
             _window);
      count += LineEnds(_window.View());
    }
    _lineEndsBeforeFirst = count;
  }
  return *_lineEndsBeforeFirst;
}

}  // namespace vorelstat
