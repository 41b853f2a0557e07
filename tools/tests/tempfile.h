// Inputs for the tests: a regular file, or a named pipe fed by a thread; and
// the message of an error a test expects.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <thread>

namespace vorelstat::testing {

// The message of the E that f throws; a failure, and "", if it throws none.
template <class E, class F>
std::string MessageOf(F&& f) {
  try {
    f();
  } catch (const E& e) {
    return e.what();
  }
  ADD_FAILURE() << "nothing thrown";
  return "";
}

inline void WriteAll(int fd, const std::string& contents) {
  std::size_t written = 0;
  while (written < contents.size()) {
    const ssize_t n = ::write(fd, contents.data() + written, contents.size() - written);
    if (n <= 0) break;
    written += static_cast<std::size_t>(n);
  }
}

// A file with given contents that lives as long as the object.
class TempFile {
 public:
  explicit TempFile(const std::string& contents) {
    char name[] = "/tmp/vorelstat-test-XXXXXX";
    const int fd = ::mkstemp(name);
    if (fd < 0) throw std::runtime_error("mkstemp failed");
    _path = name;
    WriteAll(fd, contents);
    ::close(fd);
  }
  ~TempFile() { ::unlink(_path.c_str()); }
  TempFile(const TempFile&) = delete;
  TempFile& operator=(const TempFile&) = delete;

  const std::string& Path() const { return _path; }

 private:
  std::string _path;
};

// A named pipe that a thread fills with `contents` once a reader opens it.
// The reader must open the path before the object goes.
class TempPipe {
 public:
  explicit TempPipe(const std::string& contents) {
    char dir[] = "/tmp/vorelstat-pipe-XXXXXX";
    if (::mkdtemp(dir) == nullptr) throw std::runtime_error("mkdtemp failed");
    _dir = dir;
    _path = _dir + "/input";
    if (::mkfifo(_path.c_str(), 0600) != 0) throw std::runtime_error("mkfifo failed");
    _writer = std::thread([path = _path, contents] {
      const int fd = ::open(path.c_str(), O_WRONLY);
      if (fd < 0) return;
      WriteAll(fd, contents);
      ::close(fd);
    });
  }
  ~TempPipe() {
    _writer.join();
    ::unlink(_path.c_str());
    ::rmdir(_dir.c_str());
  }
  TempPipe(const TempPipe&) = delete;
  TempPipe& operator=(const TempPipe&) = delete;

  const std::string& Path() const { return _path; }

 private:
  std::string _dir, _path;
  std::thread _writer;
};

}  // namespace vorelstat::testing
