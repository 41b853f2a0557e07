// ChunkReader: the serial stage of a pass. It cuts a delimited text file into
// chunks of whole lines and does nothing else: no field is looked at, no line
// is counted. Parsing is left to the threads that receive the chunks.
//
// Each chunk holds about readSize bytes read from the file plus the partial
// line left over from the chunk before, cut at its last line end; a line
// longer than readSize makes its chunk longer, so a chunk holds at least one
// whole line unless the file ends without a line end. Memory is therefore one
// chunk per thread, whatever the size of the file.
//
// The first line is the header. It is read at construction, with a UTF-8 byte
// order mark and a carriage return stripped, and is not part of any chunk.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace vorelstat {

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
  std::uint64_t offset = 0;  // byte offset of text[0] in the file
  std::uint64_t index = 0;   // 0 for the first chunk after the header
};

class ChunkReader {
 public:
  // Opens `path`, "-" meaning standard input, and reads the header.
  // Throws UsageError when the file cannot be opened, DataError when it is
  // empty or cannot be read.
  ChunkReader(const std::string& path, std::size_t readSize);
  ~ChunkReader();
  ChunkReader(const ChunkReader&) = delete;
  ChunkReader& operator=(const ChunkReader&) = delete;

  const std::string& Path() const { return _path; }
  const std::string& Header() const { return _header; }
  // The line after the header, without its line end, or nothing when the
  // file has no second line. It stays in the input: the first chunk has it.
  std::optional<std::string> PeekFirstDataLine();

  // Fills `chunk` with the next whole lines; false once the input is spent.
  // Throws DataError on a read error.
  bool Next(Chunk& chunk);

  std::uint64_t BytesRead() const { return _bytesRead; }
  // Size of a regular file; nothing for a pipe or terminal.
  std::optional<std::uint64_t> FileSize() const { return _fileSize; }

 private:
  // Appends up to `count` bytes from the file; returns how many came.
  std::size_t ReadMore(TextBuffer& into, std::size_t count);
  void ReadHeader();

  std::string _path;
  int _fd = -1;
  bool _ownsFd = false;
  std::size_t _readSize;
  bool _eof = false;
  std::string _header;
  TextBuffer _carry;  // a partial line waiting for the next chunk
  std::uint64_t _carryOffset = 0;
  std::uint64_t _bytesRead = 0;
  std::uint64_t _nextIndex = 0;
  std::optional<std::uint64_t> _fileSize;
};

}  // namespace vorelstat
