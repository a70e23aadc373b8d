// fuzz_support.h: what the file-reader fuzz targets share: the input bytes
// written to a file of their own, and std::cout silenced around a call.
#pragma once

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <sstream>
#include <string>

namespace fuzzsupport {

// A temporary file holding the bytes; removed with the object.
class TempFile {
public:
  TempFile(const uint8_t* data, size_t size) {
    char name[] = "/tmp/velm3d-fuzz-XXXXXX";
    const int fd = mkstemp(name);
    if (fd < 0) std::abort();
    for (size_t done = 0; done < size;) {
      const ssize_t n = write(fd, data + done, size - done);
      if (n <= 0) std::abort();
      done += static_cast<size_t>(n);
    }
    close(fd);
    path = name;
  }
  ~TempFile() { unlink(path.c_str()); }
  TempFile(const TempFile&) = delete;
  TempFile& operator=(const TempFile&) = delete;

  std::string path;
};

// Sends std::cout into a string while it lives.
class QuietCout {
public:
  QuietCout() : pSaved(std::cout.rdbuf(captured.rdbuf())) {}
  ~QuietCout() {
    std::cout.rdbuf(pSaved);
    std::cout.clear();
  }
  QuietCout(const QuietCout&) = delete;
  QuietCout& operator=(const QuietCout&) = delete;

private:
  std::ostringstream captured;
  std::streambuf* pSaved;
};

} // namespace fuzzsupport
