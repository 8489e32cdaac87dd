// Runs a program in a child process with a chosen environment and collects
// its exit status, standard output and standard error; or starts one in the
// background (an agent, say) and reads its standard output line by line.
//
// A child that hangs (at load, say) must fail its test rather than hang the
// suite: each child gets a time limit, far beyond what a healthy one needs on
// a loaded machine, after which it is killed and reported as timed out. The
// parent learns of the child's end without polling, from a pidfd, which
// becomes readable when the process ends, however it ends. (A pipe whose
// write end the child holds would do too, but not for a child that leaves a
// daemon behind, such as a tmux client starting its server: the daemon
// would hold the pipe open long after the child's end.)
#pragma once

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

extern char** environ;

namespace KestoTest {

// Runs `body` in a forked child, which ends with what `body` returns as its
// exit status, and returns the raw wait status. Nothing of the child's
// GoogleTest state reaches the parent: the child reports by its status
// only. A child that hangs is killed by its alarm after a minute; no core
// file is written for a child that crashes.
template <typename Body>
int statusOfChild(Body&& body) {
  std::fflush(nullptr);
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::alarm(60);
    rlimit noCore{0, 0};
    ::setrlimit(RLIMIT_CORE, &noCore);
    int code = 1;
    try {
      code = body();
    } catch (...) {
      code = 99;
    }
    std::fflush(nullptr);
    ::_exit(code);
  }
  int status = -1;
  ::waitpid(pid, &status, 0);
  return status;
}

struct ChildResult {
  int status = -1; // raw wait status
  bool timedOut = false; // killed at the time limit
  std::string out;
  std::string err;

  bool exitedWith(int code) const { return WIFEXITED(status) && WEXITSTATUS(status) == code; }
  bool killedBy(int signal) const { return WIFSIGNALED(status) && WTERMSIG(status) == signal; }
};

inline std::string readWholeFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// A fresh path under the temporary directory, removed by the destructor.
class TempPath {
public:
  explicit TempPath(const char* stem) {
    char pattern[256];
    std::snprintf(pattern, sizeof pattern, "%s/kesto-%s-XXXXXX", tmpDir(), stem);
    int fd = mkstemp(pattern);
    if (fd >= 0)
      ::close(fd);
    path_ = pattern;
  }
  ~TempPath() { ::unlink(path_.c_str()); }
  const std::string& path() const { return path_; }

private:
  static const char* tmpDir() {
    const char* dir = std::getenv("TMPDIR");
    return dir && *dir ? dir : "/tmp";
  }
  std::string path_;
};

// Waits for the end of the child whose pidfd is `pidfd`, until `deadline`.
// False if the deadline came first.
inline bool awaitChildEnd(int pidfd, std::chrono::steady_clock::time_point deadline) {
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0)
      return false;
    pollfd p{pidfd, POLLIN, 0};
    const int ready = ::poll(&p, 1, int(left.count()));
    if (ready < 0 && errno == EINTR)
      continue;
    return ready > 0; // readable: the child has ended; else the deadline, or poll failing
  }
}

inline constexpr std::chrono::seconds childTimeLimit{120};

// The environment of a child: the test's own, with `env` added or replaced
// (a variable mapped to nullptr is removed). TRACE, TRACEFORMAT and TRACEFILE
// of the test's own environment never reach the child unless given here.
inline std::vector<std::string> childEnvironment(const std::map<std::string, const char*>& env) {
  std::map<std::string, const char*> given = env;
  for (const char* name : {"TRACE", "TRACEFORMAT", "TRACEFILE"})
    given.emplace(name, nullptr);
  std::vector<std::string> entries;
  for (char** e = environ; *e; ++e) {
    std::string entry(*e);
    std::string name = entry.substr(0, entry.find('='));
    if (!given.count(name))
      entries.push_back(entry);
  }
  for (const auto& [name, value] : given)
    if (value)
      entries.push_back(name + "=" + value);
  return entries;
}

// In the child: runs `inChild` (a namespace to enter, say; it may _exit),
// then replaces the child by `program`. Never returns.
[[noreturn]] inline void execChild(const std::string& program, const std::vector<std::string>& args,
                                   std::vector<std::string> entries, const std::function<void()>& inChild) {
  if (inChild)
    inChild();
  std::vector<char*> argv;
  std::string programCopy = program;
  argv.push_back(programCopy.data());
  std::vector<std::string> argsCopy = args;
  for (std::string& a : argsCopy)
    argv.push_back(a.data());
  argv.push_back(nullptr);
  std::vector<char*> envp;
  for (std::string& e : entries)
    envp.push_back(e.data());
  envp.push_back(nullptr);
  ::execve(programCopy.c_str(), argv.data(), envp.data());
  _exit(127);
}

// Runs `program` with `args` to its end (or the time limit) and collects
// what it wrote.
inline ChildResult runProgram(const std::string& program, const std::vector<std::string>& args,
                              const std::map<std::string, const char*>& env = {},
                              std::chrono::seconds timeLimit = childTimeLimit,
                              const std::function<void()>& inChild = {}) {
  std::vector<std::string> entries = childEnvironment(env);
  TempPath outFile("out"), errFile("err");
  const auto deadline = std::chrono::steady_clock::now() + timeLimit;
  pid_t pid = fork();
  if (pid == 0) {
    int out = ::open(outFile.path().c_str(), O_WRONLY | O_TRUNC);
    int err = ::open(errFile.path().c_str(), O_WRONLY | O_TRUNC);
    ::dup2(out, 1);
    ::dup2(err, 2);
    execChild(program, args, std::move(entries), inChild);
  }
  ChildResult result;
  if (pid < 0) {
    ADD_FAILURE() << "fork: " << std::strerror(errno);
    return result;
  }
  // The child is not reaped before waitpid below, so the pid still names it.
  const int pidfd = int(::syscall(SYS_pidfd_open, pid, 0));
  if (pidfd < 0) {
    ADD_FAILURE() << "pidfd_open: " << std::strerror(errno);
  } else {
    if (!awaitChildEnd(pidfd, deadline)) {
      result.timedOut = true;
      ::kill(pid, SIGKILL);
    }
    ::close(pidfd);
  }
  ::waitpid(pid, &result.status, 0);
  result.out = readWholeFile(outFile.path());
  result.err = readWholeFile(errFile.path());
  return result;
}

// A program running in the background, its standard output on a pipe to
// the test and its standard error in a file. The destructor kills it (if
// still running) and reaps it, also when the test fails.
class BackgroundProgram {
public:
  BackgroundProgram(const std::string& program, const std::vector<std::string>& args,
                    const std::map<std::string, const char*>& env = {}, const std::function<void()>& inChild = {})
      : errFile_("bgerr") {
    std::vector<std::string> entries = childEnvironment(env);
    int out[2];
    if (::pipe2(out, O_CLOEXEC) != 0) {
      ADD_FAILURE() << "pipe2: " << std::strerror(errno);
      return;
    }
    pid_ = fork();
    if (pid_ == 0) {
      int err = ::open(errFile_.path().c_str(), O_WRONLY | O_TRUNC);
      ::dup2(out[1], 1);
      ::dup2(err, 2);
      execChild(program, args, std::move(entries), inChild);
    }
    ::close(out[1]);
    out_ = out[0];
  }
  ~BackgroundProgram() {
    if (pid_ > 0 && !reaped_) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, &status_, 0);
    }
    if (out_ >= 0)
      ::close(out_);
  }
  BackgroundProgram(const BackgroundProgram&) = delete;
  BackgroundProgram& operator=(const BackgroundProgram&) = delete;

  pid_t pid() const { return pid_; }

  // Reads standard output until a line that starts with `prefix` (returned
  // without its newline), the end of the output or the time limit (nothing
  // then). Lines before it are kept in output().
  std::optional<std::string> awaitLine(const std::string& prefix, std::chrono::seconds timeLimit = childTimeLimit) {
    const auto deadline = std::chrono::steady_clock::now() + timeLimit;
    for (;;) {
      std::size_t start = 0;
      for (std::size_t end; (end = pending_.find('\n', start)) != std::string::npos; start = end + 1) {
        const std::string line = pending_.substr(start, end - start);
        if (line.rfind(prefix, 0) == 0) {
          output_ += pending_.substr(0, end + 1);
          pending_.erase(0, end + 1);
          return line;
        }
      }
      const auto left =
          std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0)
        return std::nullopt;
      pollfd p{out_, POLLIN, 0};
      const int ready = ::poll(&p, 1, int(left.count()));
      if (ready < 0 && errno == EINTR)
        continue;
      if (ready <= 0)
        return std::nullopt;
      char buffer[4096];
      const ssize_t n = ::read(out_, buffer, sizeof buffer);
      if (n <= 0)
        return std::nullopt; // the program ended without the line
      pending_.append(buffer, std::size_t(n));
    }
  }

  // Sends `signal` and waits for the end; the raw wait status.
  int stop(int signal = SIGTERM) {
    if (pid_ > 0 && !reaped_) {
      ::kill(pid_, signal);
      ::waitpid(pid_, &status_, 0);
      reaped_ = true;
    }
    return status_;
  }

  const std::string& output() const { return output_; }
  std::string errors() const { return readWholeFile(errFile_.path()); }

private:
  TempPath errFile_;
  pid_t pid_ = -1;
  int out_ = -1;
  int status_ = -1;
  bool reaped_ = false;
  std::string pending_;
  std::string output_;
};

} // namespace KestoTest
