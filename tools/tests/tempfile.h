// Inputs for the tests: a regular file, or a named pipe fed by a thread, in a
// folder of its own; and the message of an error a test expects.
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

// A file with given contents that lives as long as the object; or, as a
// pipe, a named pipe that a thread fills once a reader opens it (the reader
// must open it before the object goes).
class TempFile {
 public:
  explicit TempFile(const std::string& contents, bool pipe = false) {
    char folder[] = "/tmp/vorelstat-test-XXXXXX";
    if (::mkdtemp(folder) == nullptr) throw std::runtime_error("mkdtemp failed");
    _folder = folder;
    _path = _folder + "/input";
    if (pipe && ::mkfifo(_path.c_str(), 0600) != 0) {
      ::rmdir(folder);
      throw std::runtime_error("mkfifo failed");
    }
    const auto write = [path = _path, contents] {
      const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT, 0600);
      if (fd < 0) return;
      for (std::size_t done = 0; done < contents.size();) {
        const ssize_t n = ::write(fd, contents.data() + done, contents.size() - done);
        if (n <= 0) break;
        done += static_cast<std::size_t>(n);
      }
      ::close(fd);
    };
    if (pipe) {
      _writer = std::thread(write);
    } else {
      write();
    }
  }
  ~TempFile() {
    if (_writer.joinable()) _writer.join();
    ::unlink(_path.c_str());
    ::rmdir(_folder.c_str());
  }
  TempFile(const TempFile&) = delete;
  TempFile& operator=(const TempFile&) = delete;

  const std::string& Path() const { return _path; }

 private:
  std::string _folder;
  std::string _path;
  std::thread _writer;
};

}  // namespace vorelstat::testing
