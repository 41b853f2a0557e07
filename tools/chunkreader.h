// ChunkReader: the serial stage of a pass. It cuts a delimited text file into
// chunks of whole lines and does nothing else: no field is looked at, no line
// is counted. Parsing is left to the threads that receive the chunks.
//
// Chunks are cut on a grid of blocks fixed by the input alone: with a block
// size of B bytes, block k holds the lines that start in bytes [k B, (k + 1) B)
// counted from the first byte after the header. A chunk holds the lines of a
// run of whole blocks, about readSize bytes (at least one block), so that
// what a block holds never depends on the read size, on the way the input is
// read or on the threads. A block may hold no line (one long line can span
// several). No line may be longer than maxLine bytes: past that the reader
// stops with an error, so that memory is at most one chunk of
// max(readSize, B) + maxLine bytes per thread, whatever the input.
//
// Two ways of reading, chosen by the input:
//   - a regular file: Next only finds the cut, reading a small window before
//     it, and the thread that takes the chunk reads its bytes with Load
//     (pread), so that copying the file runs side by side on all threads;
//   - a pipe or terminal: Next reads the bytes itself, keeping the partial
//     last line for the next chunk, and Load has nothing left to do.
//
// The header is the first line that is not blank. It is read at construction,
// with a UTF-8 byte order mark and a carriage return stripped, and is not part
// of any chunk. gzip and zstd input is read as a stream and decompressed on
// the way (inputsource.h). Input that is no delimited text is refused there
// with what it is: other compressed data, UTF-16, bytes 0, line ends of
// carriage returns alone.
// A regular file that reports size 0 (as files under /proc do) is read as a
// stream.
//
// Quoted fields may hold line ends; a record then runs on to the first line
// end outside quotes, and "line" above means record: a block holds the
// records that start in it. A regular file is cut at the first line end after
// a boundary without looking at quotes: the thread that parses the chunk
// before the cut finds out whether the cut fell inside quotes (its last field
// is then still open; Chunk::cutGuessed), and the pass is run again with
// CutOutsideQuotes. Where no cut falls inside quotes, both ways cut at the
// same record starts, so that the blocks are the same. With CutOutsideQuotes,
// and for a stream once FollowQuotes is called, the serial stage reads the
// bytes and follows the quotes from the first byte after the header; a
// stretch without any quote needs no closer look. A part of a regular file
// that starts past block 0 follows them likewise up to its first cut, reading
// the bytes before it once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "errors.h"
#include "inputsource.h"

namespace vorelstat {

// A pass met a chunk whose guessed cut fell inside quotes; it is to be run
// again with ChunkReader::CutOutsideQuotes.
struct CutInsideQuotes : DataError {
  using DataError::DataError;
};

// A growable block of chars that is never cleared: reading into it costs no
// zero fill.
class TextBuffer {
 public:
  const char* Data() const { return _data.get(); }
  char* Data() { return _data.get(); }
  std::size_t Size() const { return _size; }
  std::string_view View() const { return {_data.get(), _size}; }
  // Keeps the first Size() bytes and makes room for at least `capacity`.
  void Reserve(std::size_t capacity);
  void Resize(std::size_t size);
  void Assign(std::string_view text);
  void Append(std::string_view text);

 private:
  std::unique_ptr<char[]> _data;
  std::size_t _size = 0;
  std::size_t _capacity = 0;
};

struct Chunk {
  TextBuffer text;           // whole lines, each ending in '\n' except perhaps the file's last
  std::uint64_t offset = 0;  // byte offset of the chunk in the file
  std::uint64_t size = 0;    // bytes of the chunk
  std::uint64_t index = 0;   // 0 for the first chunk after the header
  // The blocks of the grid whose lines the chunk holds: [firstBlock, endBlock).
  std::uint64_t firstBlock = 0;
  std::uint64_t endBlock = 0;
  bool loaded = false;  // whether `text` holds the bytes yet
  // Cut at a line end before the end of the input that may lie inside quotes.
  bool cutGuessed = false;
};

// Where a scan of delimited text stands: outside quotes, inside a quoted
// field, or inside one just after a quote (which closes the field unless a
// second quote follows). A quote opens a field only at its start, spaces and
// tabs before it allowed; elsewhere it is text.
struct QuoteState {
  enum Where : std::uint8_t { kOutside, kInside, kInsideAfterQuote };
  Where where = kOutside;
  bool atFieldStart = true;  // outside: only padding since the last delimiter or line start
};

// The next line end outside quotes in [from, end), `state` being the state
// at `from` (a line start: the default). Returns that '\n', or nullptr with
// `state` then the state at `end`. Adds the line ends passed inside quotes to
// `lineEndsInQuotes` when it is given.
const char* NextLineEndOutsideQuotes(const char* from, const char* end, char delimiter,
                                     QuoteState& state, std::uint64_t* lineEndsInQuotes = nullptr);

class ChunkReader {
 public:
  // Opens `path`, "-" meaning standard input, and reads the header.
  // Throws UsageError when the file cannot be opened, DataError when it is
  // empty or cannot be read.
  static constexpr std::size_t kDefaultMaxLine = std::size_t{16} << 20;

  ChunkReader(const std::string& path, std::size_t readSize, std::size_t maxLine = kDefaultMaxLine);
  ~ChunkReader();
  ChunkReader(const ChunkReader&) = delete;
  ChunkReader& operator=(const ChunkReader&) = delete;

  const std::string& Path() const { return _path; }
  const std::string& Header() const { return _header; }
  // Line number of the header in the file, 1 unless blank lines precede it.
  std::uint64_t HeaderLine() const { return _headerLine; }
  // The whole lines that follow the header, as many as fit in about `limit`
  // bytes (a last line without line end included at the end of the input).
  // They stay in the input: the chunks have them. The view lives until the
  // next call of Next or PeekAhead.
  std::string_view PeekAhead(std::size_t limit);
  std::size_t MaxLine() const { return _maxLine; }
  // Whether the input can be read again from the start (a regular file,
  // compressed or not).
  bool Rereadable() const;

  // Cuts chunks on a grid of blocks of blockBytes bytes (by default the read
  // size) and hands out only the blocks [firstBlock, endBlock) of it. Call it
  // before the first Next.
  void SetGrid(std::uint64_t blockBytes, std::uint64_t firstBlock = 0,
               std::uint64_t endBlock = kNoEnd);
  static constexpr std::uint64_t kNoEnd = ~std::uint64_t{0};
  // Offset of the first byte after the header: where block 0 starts.
  std::uint64_t DataStart() const { return _dataStart; }

  // Tells the quotes, fields being split at `delimiter`: a stream is cut
  // only at line ends outside quotes, and so is the first cut of a part of a
  // regular file. Call it before the first Next.
  void FollowQuotes(char delimiter);
  // As FollowQuotes, and every cut of a regular file too, which the serial
  // stage then reads as a stream.
  void CutOutsideQuotes(char delimiter);

  // The serial stage: cuts the next chunk; false once the input is spent.
  // Throws DataError on a read error.
  bool Next(Chunk& chunk);
  // The parallel stage: reads the chunk's bytes into its text, if Next did
  // not. Safe on several threads at once, each with its own chunk. Throws
  // DataError on a read error or when the file shrank.
  void Load(Chunk& chunk) const;

  // The line ends between the header and the first chunk: those of the
  // blocks before a part, so that a part names lines as the whole file does.
  // A stream counts them as they pass; a regular file reads them again only
  // when asked (a bad line or a text column needs them), once. Call it after
  // the first Next.
  std::uint64_t LineEndsBeforeFirstChunk();

  // Bytes handed out in chunks so far, the header included.
  std::uint64_t BytesRead() const { return _handedOut; }
  // Size of a regular file; nothing for a pipe or terminal.
  std::optional<std::uint64_t> FileSize() const { return _fileSize; }

 private:
  bool Seekable() const { return _fileSize.has_value(); }
  // Stream input: appends up to `count` bytes; returns how many came.
  std::size_t ReadMore(TextBuffer& into, std::size_t count);
  // Regular file: reads [offset, offset + count) clipped to the file into `into`.
  void ReadAt(std::uint64_t offset, std::size_t count, TextBuffer& into) const;
  // Offset of the grid's boundary before block `block`, saturating.
  std::uint64_t Boundary(std::uint64_t block) const;
  // The number of blocks that hold the bytes up to `end`, the input's end.
  std::uint64_t BlocksUpTo(std::uint64_t end) const;
  // The first line start at or after `offset` (the input's end if none).
  std::uint64_t LineStartFile(std::uint64_t offset);
  std::uint64_t LineStartStream(std::uint64_t offset);
  // As LineStartStream, a line start being a record start: from _quotesAt on,
  // the quotes are followed up to the first line end outside them.
  std::uint64_t RecordStartStream(std::uint64_t offset);
  // Stream input: the bytes to read so that _carry reaches index `at`.
  std::size_t BytesToReach(std::uint64_t at) const;
  // Stream input: carries the quotes' state from _quotesAt to `offset`.
  void FollowQuotesTo(std::uint64_t offset);
  // Regular file: reads on from `offset` as a stream.
  void ReadAsStreamFrom(std::uint64_t offset);
  // Stream input: drops the bytes before the line that holds `offset - 1`,
  // following the quotes over them when they are told.
  void DropBefore(std::uint64_t offset);
  // Regular file, a part that starts past block 0: its first record start,
  // found by reading the bytes before it as a stream.
  std::uint64_t FirstRecordStartFile(std::uint64_t offset);
  // The end block of the chunk that starts at the next block.
  std::uint64_t ChunkEndBlock() const;
  void HandOut(Chunk& chunk, std::uint64_t cut, std::uint64_t endBlock);
  // Reads the first bytes and opens the stream source, decompressing if need be.
  void OpenInput();
  void ReadHeader();
  // Refuses input that is no delimited text, from its first bytes.
  void CheckStart(std::string_view head) const;
  // `quoted`: the line holds a quote, which may be one left open.
  [[noreturn]] void LineTooLong(std::uint64_t offset, bool quoted = false) const;
  bool NextFromStream(Chunk& chunk);
  // Stream input: the line ends dropped so far and those in _carry before `start`.
  std::uint64_t LineEndsDroppedTo(std::uint64_t start) const;

  std::string _path;
  int _fd = -1;
  bool _ownsFd = false;
  std::size_t _readSize;
  std::size_t _maxLine;
  std::optional<std::uint64_t> _fileSize;
  std::string _header;
  std::uint64_t _headerLine = 1;
  TextBuffer _ahead;  // regular file: the bytes of PeekAhead
  std::uint64_t _nextIndex = 0;
  std::uint64_t _dataStart = 0;
  std::uint64_t _blockBytes;
  std::uint64_t _nextBlock = 0;
  std::uint64_t _lastBlock = kNoEnd;
  bool _started = false;                // the first chunk was cut
  std::uint64_t _handedOut = 0;         // the next chunk starts here
  TextBuffer _window;                   // regular file: scratch of the cuts and the header
  std::optional<char> _quoteDelimiter;  // set by FollowQuotes or CutOutsideQuotes
  bool _everyCutOutsideQuotes = false;  // set by CutOutsideQuotes
  // Following the quotes in the serial stage: their state at offset _quotesAt.
  std::uint64_t _quotesAt = 0;
  QuoteState _quotes;
  bool _regularFile = false;
  Compression _compression = Compression::kNone;
  // Stream input, and a regular file cut outside quotes.
  std::unique_ptr<ByteSource> _source;
  bool _eof = false;
  TextBuffer _carry;  // bytes read but not yet handed out
  std::uint64_t _firstChunkStart = 0;
  std::uint64_t _lineEndsDropped = 0;                 // by DropBefore
  std::optional<std::uint64_t> _lineEndsBeforeFirst;  // known once counted
};

}  // namespace vorelstat
