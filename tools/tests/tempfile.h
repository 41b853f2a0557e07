// A file with given contents that lives as long as the object.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>

namespace vorelstat::testing {

class TempFile {
 public:
  explicit TempFile(const std::string& contents) {
    char name[] = "/tmp/vorelstat-test-XXXXXX";
    const int fd = ::mkstemp(name);
    if (fd < 0) throw std::runtime_error("mkstemp failed");
    _path = name;
    std::size_t written = 0;
    while (written < contents.size()) {
      const ssize_t n = ::write(fd, contents.data() + written, contents.size() - written);
      if (n <= 0) break;
      written += static_cast<std::size_t>(n);
    }
    ::close(fd);
    if (written != contents.size()) throw std::runtime_error("write failed");
  }
  ~TempFile() { ::unlink(_path.c_str()); }
  TempFile(const TempFile&) = delete;
  TempFile& operator=(const TempFile&) = delete;

  const std::string& Path() const { return _path; }

 private:
  std::string _path;
};

}  // namespace vorelstat::testing
