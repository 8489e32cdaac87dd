#include "Debug/TraceFile.h"
#include <Kesto/Debug/Loco.h>

#include <ext/stdio_filebuf.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>

#include <fcntl.h>
#include <unistd.h>

namespace Kesto::Debug::Impl {

namespace {

// The descriptor of `path` opened for output with truncation, or -1.
//
// The open itself must never wait: it runs at load, before main, and a FIFO
// with no reader (or a device that waits for a line) would block it for good.
// So it is made with O_NONBLOCK, which opens a FIFO that has a reader at once
// and refuses one that has none (ENXIO); the refusal is then reported like
// any path that cannot be opened. Refusing every file that is not regular
// would also turn away what users do name here on purpose: a FIFO that a
// reader is waiting on, /dev/stderr, /dev/null, a terminal. Once open the
// descriptor goes back to blocking writes, so a slow reader slows the writer
// down instead of losing lines.
int openTraceFile(const char* path) {
  int fd;
  do
    fd = ::open(path, O_WRONLY | O_CREAT | O_TRUNC | O_NONBLOCK, 0666);
  while (fd < 0 && errno == EINTR);
  if (fd < 0)
    return -1;
  const int flags = ::fcntl(fd, F_GETFL);
  if (flags < 0 || ::fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) < 0) {
    ::close(fd);
    return -1;
  }
  return fd;
}

struct TraceFile {
  std::string name;
  // Owns the descriptor and closes it; null while no file is in use.
  std::unique_ptr<__gnu_cxx::stdio_filebuf<char>> buffer;
  std::ostream stream{nullptr};

  bool isOpen() const { return buffer != nullptr; }

  bool open(const char* path) {
    const int fd = openTraceFile(path);
    if (fd < 0)
      return false;
    buffer = std::make_unique<__gnu_cxx::stdio_filebuf<char>>(fd, std::ios::out, BUFSIZ);
    stream.rdbuf(buffer.get());
    return true;
  }

  void close() {
    if (buffer) {
      stream.flush();
      stream.rdbuf(nullptr);
      buffer.reset();
    }
    stream.clear();
  }
};

TraceFile& traceFile() {
  static TraceFile* const file = new TraceFile;
  return *file;
}

} // namespace

void applyTraceFile() {
  Platform::Loco::Guard guard;
  TraceFile& file = traceFile();
  const char* path = std::getenv("TRACEFILE");
  if (path && file.name == path) {
    // Loading runs this twice; the second call must not truncate what the
    // first one opened.
    if (file.isOpen())
      return;
  } else {
    file.close();
    file.name.clear();
    if (!path)
      return;
  }
  file.name = path;
  if (!file.open(path)) {
    std::cerr << "Error opening TRACEFILE=" << path << "\nDefaulting to std::cerr for trace output\n";
    std::cerr.flush();
    // Forgotten, so that the next call tries again.
    file.name.clear();
    file.close();
  }
}

std::ostream& traceTarget() {
  TraceFile& file = traceFile();
  if (file.isOpen())
    return file.stream;
  return std::cerr;
}

bool traceFileOpen() {
  Platform::Loco::Guard guard;
  return traceFile().isOpen();
}

} // namespace Kesto::Debug::Impl
