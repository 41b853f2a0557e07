#include "atomicfile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>

#include "errors.h"

namespace vorelstat {

namespace {

std::string Folder(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

[[noreturn]] void Fail(const std::string& path, const std::string& what, int error) {
  throw UsageError("cannot write " + path + ": " + what + " (" + std::strerror(error) + ")");
}

// Closes the descriptor and removes the temporary file unless kept.
class TemporaryFile {
 public:
  explicit TemporaryFile(const std::string& target) : _name(target + ".tmp-XXXXXX") {
    _fd = ::mkstemp(_name.data());
    if (_fd < 0) Fail(target, "cannot make a temporary file beside it", errno);
  }
  ~TemporaryFile() {
    if (_fd >= 0) ::close(_fd);
    if (!_kept) ::unlink(_name.c_str());
  }
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;

  int Fd() const { return _fd; }
  const std::string& Name() const { return _name; }
  // Closes the file; returns the error of close, or 0.
  int Close() {
    const int result = ::close(_fd);
    _fd = -1;
    return result == 0 ? 0 : errno;
  }
  void Keep() { _kept = true; }

 private:
  std::string _name;
  int _fd = -1;
  bool _kept = false;
};

void WriteAll(const std::string& path, int fd, std::span<const std::byte> bytes,
              const WriteCall& write) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = write ? write(fd, bytes.data() + done, bytes.size() - done)
                            : ::write(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0)
      Fail(path, "the write stopped after " + std::to_string(done) + " bytes", n < 0 ? errno : EIO);
    done += static_cast<std::size_t>(n);
  }
}

}  // namespace

void WriteFileAtomically(const std::string& path, std::span<const std::byte> bytes,
                         const WriteCall& write) {
  TemporaryFile temporary(path);
  WriteAll(path, temporary.Fd(), bytes, write);
  if (::fsync(temporary.Fd()) != 0) Fail(path, "fsync failed", errno);
  if (const int error = temporary.Close(); error != 0) Fail(path, "close failed", error);
  if (::rename(temporary.Name().c_str(), path.c_str()) != 0) Fail(path, "rename failed", errno);
  temporary.Keep();
  // The rename is in the folder's entries: flush them too. A folder that
  // cannot be opened for this leaves the file written all the same.
  const int folder = ::open(Folder(path).c_str(), O_RDONLY | O_DIRECTORY);
  if (folder >= 0) {
    ::fsync(folder);
    ::close(folder);
  }
}

std::vector<std::byte> ReadWholeFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw UsageError("cannot open " + path);
  std::vector<char> chars((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (in.bad()) throw UsageError("cannot read " + path);
  std::vector<std::byte> bytes(chars.size());
  if (!chars.empty()) std::memcpy(bytes.data(), chars.data(), chars.size());
  return bytes;
}

}  // namespace vorelstat
