// What the utility tests share: a scratch directory, a handler to trace to,
// a count of the process's descriptors, and a function run in a forked
// child.
//
// The tests run as root, for whom permission bits do not stop a read or a
// write. A path that must fail therefore fails for every user: a directory
// where a file is expected (EISDIR), a path through a regular file
// (ENOTDIR), a missing directory (ENOENT), /dev/full (ENOSPC), or a limit of
// the process lowered in a child (EMFILE, EFBIG).
#pragma once

#include <Kesto/EventKesto.h>

#include <KestoSupport/AssertMessage.h>
#include <KestoSupport/ChildProcess.h>
#include <KestoSupport/DescriptorExhaustion.h>
#include <KestoSupport/TraceCapture.h>

#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace KestoTest {

// A fresh directory under the temporary directory, removed with all it
// holds by the destructor.
class ScratchDir {
public:
  ScratchDir() {
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/kesto-util-XXXXXX";
    if (!::mkdtemp(pattern.data()))
      ADD_FAILURE() << "mkdtemp failed";
    path_ = pattern;
  }
  ~ScratchDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;

  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

private:
  std::string path_;
};

inline void writeFile(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
}

inline std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline mode_t modeOf(const std::string& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0)
    return mode_t(-1);
  return st.st_mode & 07777;
}

inline mode_t currentUmask() {
  const mode_t mask = ::umask(0);
  ::umask(mask);
  return mask;
}

// Puts back the umask it found.
class UmaskGuard {
public:
  explicit UmaskGuard(mode_t mask) : saved_(::umask(mask)) {}
  ~UmaskGuard() { ::umask(saved_); }

private:
  mode_t saved_;
};

// The number of open descriptors of the process.
inline int openDescriptorCount() {
  DIR* dir = ::opendir("/proc/self/fd");
  if (!dir)
    return -1;
  int count = 0;
  while (dirent* entry = ::readdir(dir))
    if (entry->d_name[0] != '.')
      ++count;
  ::closedir(dir);
  return count - 1; // the directory's own descriptor
}

// Lowers the soft limit of descriptors so that the next open fails with
// EMFILE: the limit is the lowest descriptor number that is not in use.
inline void exhaustDescriptors() {
  const int next = ::dup(0);
  if (next >= 0)
    ::close(next);
  rlimit limit{};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = rlim_t(next);
  ::setrlimit(RLIMIT_NOFILE, &limit);
}

// A handler named for the tests, with all levels off; TraceCapture turns
// on what a test reads.
inline Kesto::Ptr<Kesto::Platform::DebugHandler> testHandler() {
  return Kesto::Platform::getDebugHandler("UtilTest");
}

// A whole trace line as TraceCapture shows it.
inline std::string utilLine(const char* handler, unsigned level, const char* function, const std::string& text) {
  return std::string(handler) + " " + std::to_string(level) + " Kesto::Util::" + function + "() " + text;
}

// For a child that is meant to crash: the report of the crash (a
// sanitizer's, the terminate handler's) is not this test's output.
inline void silenceStandardError() {
  const int null = ::open("/dev/null", O_WRONLY);
  ::dup2(null, 2);
  ::close(null);
}

inline bool exitedWith(int status, int code) { return WIFEXITED(status) && WEXITSTATUS(status) == code; }

// The message of the RuntimeException that `body` throws, or "<no exception>".
template <typename Body>
std::string runtimeText(Body&& body) {
  try {
    body();
  } catch (const Kesto::RuntimeException& e) {
    return e.what();
  }
  return "<no exception>";
}

// The message of the AssertException that `body` throws, after its
// location ("Class::function() text"), or "<no exception>".
template <typename Body>
std::string assertMessageOf(Body&& body) {
  try {
    body();
  } catch (const Kesto::AssertException& e) {
    return assertMessage(e.what());
  }
  return "<no exception>";
}

} // namespace KestoTest
