#include <Kesto/Util/FileUtil.h>

#include <Kesto/Core/Exception.h>
#include <Kesto/Core/System.h>
#include <Kesto/Debug/Trace.h>

#include "Util/UmaskScope.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <exception>
#include <fstream>
#include <string>

namespace Kesto::Util {

namespace {

constexpr const char* utilClass = "Kesto::Util";

// A path as trace lines show it; fmt refuses a null pointer.
const char* shown(const char* path) noexcept { return path ? path : "(null)"; }

// A path as the system calls get it: a null path is the empty one, which
// names no file. (The C library declares the path arguments non-null, so
// the compiler may drop a test for null made after such a call; the test is
// made here, before it.)
const char* sysPath(const char* path) noexcept { return path ? path : ""; }

} // namespace

String fileRead(Platform::DebugHandler& handler, const char* path, bool traceFailure) noexcept {
  try {
    std::ifstream in;
    if (path)
      in.open(path);
    if (!in.is_open()) {
      if (traceFailure)
        KESTO_TRACE(handler, 5, utilClass, "unable to open file {}", shown(path));
      return String();
    }
    // Reading up to the first NUL is reading to the end and cutting there,
    // without holding the rest. A read error (EISDIR of a directory) comes
    // out of the file buffer as an exception, which the stream turns into
    // its bad bit; end of file sets the fail bit too when nothing was read,
    // which is no failure.
    std::string text;
    std::getline(in, text, '\0');
    if (in.bad() || (in.fail() && !in.eof()))
      KESTO_TRACE(handler, 1, utilClass, "failed to read from {}", shown(path));
    else
      KESTO_TRACE(handler, 5, utilClass, "read {} '{}'", shown(path), text);
    return String(text);
  } catch (const std::exception& e) {
    if (traceFailure)
      KESTO_TRACE(handler, 5, utilClass, "unable to open file {}. Caught std::exception: {}", shown(path), e.what());
    return String();
  }
}

void fileWrite(Platform::DebugHandler& handler, const char* path, std::string_view text, bool ignoreFailure) {
  bool failed = false;
  int fd;
  {
    UmaskScope umaskZero;
    fd = ::open(sysPath(path), O_RDWR | O_CREAT | O_TRUNC, 0666);
  }
  if (fd < 0) {
    KESTO_TRACE(handler, 0, utilClass, "unable to open {} reason:{}", shown(path), strerror(errno));
    failed = true;
  } else {
    const ssize_t written = ::write(fd, text.data(), text.size());
    if (written < 0) {
      KESTO_TRACE(handler, 0, utilClass, "unable to write to {} reason:{}", shown(path), strerror(errno));
      failed = true;
    } else if (static_cast<std::size_t>(written) < text.size()) {
      KESTO_TRACE(handler, 0, utilClass, "wrote:{} bytes to file:{} but wanted to write:{}", written, shown(path),
                  text.size());
    }
    if (::close(fd) != 0) {
      KESTO_TRACE(handler, 0, utilClass, "unable to close fd:{} reason:{}", fd, strerror(errno));
      failed = true;
    }
  }
  // The message is the data that was to be written, not the failure, which
  // the trace has told.
  if (failed && !ignoreFailure)
    RuntimeException::throwException(String(text));
}

bool touch(Platform::DebugHandler& handler, const char* path) {
  int fd;
  {
    UmaskScope umaskZero;
    fd = ::open(sysPath(path), O_WRONLY | O_CREAT, 0666);
  }
  if (fd < 0) {
    KESTO_TRACE(handler, 0, utilClass, "unable to open {} reason: {}", shown(path), strerror(errno));
    return false;
  }
  if (::close(fd) != 0) {
    KESTO_TRACE(handler, 0, utilClass, "unable to close fd:{} reason:{}", fd, strerror(errno));
    return false;
  }
  return true;
}

bool fileExists(Platform::DebugHandler& handler, const char* path) {
  struct stat st;
  const int result = ::stat(sysPath(path), &st);
  KESTO_TRACE(handler, 5, utilClass, "checking if {} exists, stat result: {}", shown(path), result);
  return result == 0;
}

bool fileRemove(Platform::DebugHandler& handler, const char* path) {
  if (::unlink(sysPath(path)) == 0) {
    KESTO_TRACE(handler, 5, utilClass, "removed file {}", shown(path));
    return true;
  }
  if (errno == ENOENT)
    return true;
  KESTO_TRACE(handler, 0, utilClass, "unlink() error {}: {}", shown(path), strerror(errno));
  return false;
}

unsigned long fileSize(Platform::DebugHandler& handler, const char* path) {
  struct stat st;
  if (::stat(sysPath(path), &st) != 0) {
    KESTO_TRACE(handler, 5, utilClass, "unable to stat file {}: {}", shown(path), strerror(errno));
    return 0;
  }
  return static_cast<unsigned long>(st.st_size);
}

unsigned long fileSize(Platform::DebugHandler& handler, int fd) {
  struct stat st;
  if (::fstat(fd, &st) != 0) {
    KESTO_TRACE(handler, 5, utilClass, "unable to fstat fd {}: {}", fd, strerror(errno));
    return 0;
  }
  return static_cast<unsigned long>(st.st_size);
}

int truncate(Platform::DebugHandler& handler, const char* path, int fd, unsigned long length) {
  // A length beyond off_t's range turns negative and is refused (EINVAL).
  const int result = ::ftruncate(fd, static_cast<off_t>(length));
  if (result < 0)
    KESTO_TRACE(handler, 0, utilClass, "size:{} error: {}: {}", length, shown(path), strerror(errno));
  return result;
}

unsigned long fileSizeHelper(unsigned long entries, unsigned long entrySize, unsigned long headerSize) {
  unsigned long product;
  unsigned long sum;
  const bool productOverflows = __builtin_mul_overflow(entries, entrySize, &product);
  const bool sumOverflows = __builtin_add_overflow(product, headerSize, &sum);
  if (productOverflows || sumOverflows)
    KESTO_THROW(*Debug::kestoUtil, utilClass, "fileSizeHelper overflow, entries:{} entrySize:{} xResult:{} endResult:{}",
                entries, entrySize, product, sum);
  return sum;
}

int mkpath(const char* path, unsigned int mode) {
  KESTO_TRACE(*Debug::kestoUtil, 9, utilClass, "creating path: {} mode: {:o}", shown(path), mode);
  if (!path) {
    errno = EFAULT;
    return -1;
  }
  UmaskScope umaskZero;
  if (::mkdir(path, mode) == 0 || errno == EEXIST)
    return 0;
  if (errno != ENOENT)
    return -1;
  const std::string_view text(path);
  const std::size_t slash = text.rfind('/');
  // Without a '/' the path is its own parent (see the header).
  const std::string parent(slash == std::string_view::npos ? text : text.substr(0, slash));
  const int result = mkpath(parent.c_str(), mode);
  if (result != 0)
    return result;
  if (::mkdir(path, mode) != 0 && errno != EEXIST)
    return -1;
  ::chmod(path, mode);
  return 0;
}

int trimpath(const char* absolutePath, std::string_view trailingPath) {
  const std::string_view absolute(absolutePath ? absolutePath : "");
  KESTO_ASSERT_H(*Debug::kestoUtil, !absolute.empty(), utilClass, "absolute path is empty");
  KESTO_ASSERT_H(*Debug::kestoUtil, absolute[0] == '/', utilClass, "absolute path is not absolute");
  KESTO_ASSERT_H(*Debug::kestoUtil, !trailingPath.empty(), utilClass, "trailing path is empty");
  KESTO_ASSERT_H(*Debug::kestoUtil, trailingPath.size() < absolute.size(), utilClass,
                 "trailing path longer than absolute path");
  KESTO_ASSERT_H(*Debug::kestoUtil, absolute.ends_with(trailingPath), utilClass,
                 "trailing path is not a terminal substring of absolute path");
  const std::size_t base = absolute.size() - trailingPath.size();
  std::string current(absolute);
  for (;;) {
    KESTO_TRACE(*Debug::kestoUtil, 9, utilClass, "removing dir {}", current);
    if (::rmdir(current.c_str()) != 0 && errno != ENOENT) {
      KESTO_TRACE(*Debug::kestoUtil, 5, utilClass, "rmdir() error {} reason: {}", current, strerror(errno));
      return -1;
    }
    const std::size_t slash = current.rfind('/');
    if (slash == std::string::npos || slash <= base)
      break;
    current.resize(slash);
  }
  KESTO_TRACE(*Debug::kestoUtil, 5, utilClass, "removed sub-tree {} from absolute path {}", trailingPath, absolute);
  return 0;
}

String getCwd(Platform::DebugHandler& handler) {
  char buffer[4096];
  if (!::getcwd(buffer, sizeof buffer))
    KESTO_THROW(handler, utilClass, "getcwd() failed:{}", strerror(errno));
  return String(buffer);
}

} // namespace Kesto::Util
