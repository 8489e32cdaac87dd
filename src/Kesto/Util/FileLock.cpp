#include <Kesto/Util/FileLock.h>

#include <Kesto/Core/System.h>
#include <Kesto/Debug/Trace.h>
#include <Kesto/Util/FileUtil.h>

#include "Util/UmaskScope.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace Kesto {

namespace {

constexpr const char* lockClass = "FileLock";

String lockFilePath(const String& dir, const String& filename) {
  return dir.empty() ? filename : String(fmt::format("{}/{}", dir, filename));
}

// A lock request for the whole file: l_whence SEEK_SET, l_start 0 and
// l_len 0 reach to any end. l_pid must be 0 for an open-file-description
// lock.
struct flock wholeFile(short type) noexcept {
  struct flock request {};
  request.l_type = type;
  return request;
}

} // namespace

FileLock::FileLock(Platform::DebugHandler& handler, const String& dir, const String& filename)
    : Debuggable(handler), dir_(dir), file_(lockFilePath(dir, filename)) {
  KESTO_ASSERT_H(*this, filename.find('/') == String::npos, lockClass, "unexpected '/' in filename: {}", filename);
}

FileLock::~FileLock() {
  KESTO_TRACE(*this, 5, lockClass, "file:{}", file_);
  if (fd_ >= 0)
    release();
}

bool FileLock::lock(bool allowReentry) {
  KESTO_TRACE(*this, 5, lockClass, "file:{}", file_);
  const int pid = ::getpid();
  if (allowReentry && ownerPid_ == pid) {
    KESTO_TRACE(*this, 5, lockClass, "re-entry held by pid:{} on file:{}", pid, file_);
    return true;
  }
  const bool madePath = Util::mkpath(dir_.data(), 0777) >= 0 || errno == EEXIST;
  KESTO_ASSERT_H(*this, madePath, lockClass, "unexpected mkpath() error {}: {}", dir_, strerror(errno));
  int fd;
  {
    Util::UmaskScope umaskZero;
    fd = ::open(file_.data(), O_RDWR | O_CREAT, 0666);
  }
  if (fd < 0) {
    KESTO_TRACE(*this, 1, lockClass, "error: could not open lock file:{} {}", file_, strerror(errno));
    return false;
  }
  struct flock request = wholeFile(F_WRLCK);
  if (::fcntl(fd, cmd_F_OFD_SETLK(), &request) != 0) {
    const int error = errno;
    ::close(fd);
    KESTO_ASSERT_H(*this, error == EAGAIN, lockClass, "unexpected error: {} file:{}", strerror(error), file_);
    KESTO_TRACE(*this, 1, lockClass, "error: conflicting lock held on file:{}", file_);
    return false;
  }
  if (::fcntl(fd, F_SETFD, FD_CLOEXEC) != 0) {
    const int error = errno;
    ::close(fd);
    KESTO_ASSERT_H(*this, false, lockClass, "unexpected error:{} file:{}", strerror(error), file_);
  }
  KESTO_TRACE(*this, 5, lockClass, "acquired lock on file:{}", file_);
  fd_ = fd;
  ownerPid_ = pid;
  return true;
}

void FileLock::release() {
  KESTO_TRACE(*this, 5, lockClass, "file:{}", file_);
  KESTO_ASSERT_H(*this, fd_ >= 0, lockClass, "attempting to release a lock that is not currently held. File:{}",
                 file_);
  const int pid = ::getpid();
  // The child shares the open file description: its unlock would be the
  // parent's.
  KESTO_ASSERT_H(*this, pid == ownerPid_, lockClass, "called from child process:{} of owner pid:{}", pid,
                 ownerPid_);
  struct flock request = wholeFile(F_UNLCK);
  const bool unlocked = ::fcntl(fd_, cmd_F_OFD_SETLK(), &request) != -1;
  KESTO_ASSERT_H(*this, unlocked, lockClass, "unexpected error: {} file:{} fd:{}", strerror(errno), file_, fd_);
  closeFd();
  ownerPid_ = -1;
  KESTO_TRACE(*this, 5, lockClass, "released lock on file:{}", file_);
}

void FileLock::closeFd() {
  KESTO_TRACE(*this, 5, lockClass, "file:{} fd:{}", file_, fd_);
  if (fd_ < 0) {
    KESTO_TRACE(*this, 5, lockClass, "no active fd: nothing to do");
    return;
  }
  if (::close(fd_) != 0)
    KESTO_TRACE(*this, 1, lockClass, "error: {} file:{} fd:{}", strerror(errno), file_, fd_);
  else
    KESTO_TRACE(*this, 5, lockClass, "closed fd for file:{}", file_);
  fd_ = -1;
}

} // namespace Kesto
