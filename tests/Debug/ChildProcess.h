// Runs the helper program in a child process with a chosen environment and
// collects its exit status, standard output and standard error.
//
// A child that hangs (at load, say) must fail its test rather than hang the
// suite: each child gets a time limit, far beyond what a healthy one needs on
// a loaded machine, after which it is killed and reported as timed out. The
// parent learns of the child's end without polling: the child holds the write
// end of a pipe, which closes when it exits, however it exits.
#pragma once

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

extern char** environ;

namespace KestoTest {

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

// Waits for the end of the child that holds the write end of `lifeline`,
// until `deadline`. False if the deadline came first.
inline bool awaitChildEnd(int lifeline, std::chrono::steady_clock::time_point deadline) {
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0)
      return false;
    pollfd p{lifeline, POLLIN, 0};
    const int ready = ::poll(&p, 1, int(left.count()));
    if (ready < 0 && errno == EINTR)
      continue;
    if (ready <= 0)
      return false; // the deadline, or poll failing: either way, stop waiting
    char byte;
    // Nothing is ever written: readable means end of file, the child is gone.
    if (::read(lifeline, &byte, 1) <= 0)
      return true;
  }
}

inline constexpr std::chrono::seconds childTimeLimit{120};

// Runs `program` with `args`. `env` adds or replaces variables; a variable
// mapped to nullptr is removed. TRACE, TRACEFORMAT and TRACEFILE of the
// test's own environment never reach the child unless given here.
inline ChildResult runProgram(const std::string& program, const std::vector<std::string>& args,
                              const std::map<std::string, const char*>& env = {},
                              std::chrono::seconds timeLimit = childTimeLimit) {
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

  TempPath outFile("out"), errFile("err");
  int lifeline[2];
  if (::pipe2(lifeline, O_CLOEXEC) != 0) {
    ADD_FAILURE() << "pipe2: " << std::strerror(errno);
    return {};
  }
  const auto deadline = std::chrono::steady_clock::now() + timeLimit;
  pid_t pid = fork();
  if (pid == 0) {
    int out = ::open(outFile.path().c_str(), O_WRONLY | O_TRUNC);
    int err = ::open(errFile.path().c_str(), O_WRONLY | O_TRUNC);
    ::dup2(out, 1);
    ::dup2(err, 2);
    // The write end stays open across exec, for the life of the child.
    ::fcntl(lifeline[1], F_SETFD, 0);
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
    ::execve(program.c_str(), argv.data(), envp.data());
    _exit(127);
  }
  ::close(lifeline[1]);
  ChildResult result;
  if (!awaitChildEnd(lifeline[0], deadline)) {
    result.timedOut = true;
    ::kill(pid, SIGKILL);
  }
  ::close(lifeline[0]);
  ::waitpid(pid, &result.status, 0);
  result.out = readWholeFile(outFile.path());
  result.err = readWholeFile(errFile.path());
  return result;
}

// runProgram() of the trace helper program.
inline ChildResult runChild(const std::vector<std::string>& args,
                            const std::map<std::string, const char*>& env = {},
                            std::chrono::seconds timeLimit = childTimeLimit) {
  return runProgram(KESTO_TRACE_CHILD, args, env, timeLimit);
}

} // namespace KestoTest
