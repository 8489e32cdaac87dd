// Running the kesto command and the example agent as separate processes,
// as an operator would.
//
// Each test that needs an agent starts its own copy of the example agent
// under a name of its own: the agent names its endpoint after the kernel's
// name of its process, which is the name it was started by, so a symbolic
// link "kd<test pid>-<n>" to the program gives an agent that no other test
// (or a concurrent ctest) can be confused with. The test waits for the
// agent's "Serving for" line on its standard output: from then on the agent
// serves in real time until the test ends it.
#pragma once

#include <KestoSupport/ChildProcess.h>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <ctime>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace KestoTest {

inline ChildResult runKesto(const std::vector<std::string>& args, const std::function<void()>& inChild = {}) {
  return runProgram(KESTO_COMMAND, args, {}, childTimeLimit, inChild);
}

inline std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);)
    lines.push_back(line);
  return lines;
}

// A directory under the temporary directory, removed with what it holds.
class TempDir {
public:
  TempDir() {
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/kesto-cmd-XXXXXX";
    if (::mkdtemp(pattern.data()))
      path_ = pattern;
  }
  ~TempDir() {
    if (!path_.empty())
      std::system(fmt::format("rm -rf '{}'", path_).c_str());
  }
  const std::string& path() const { return path_; }

private:
  std::string path_;
};

// The example agent under a name of its own, serving until destroyed.
class DemoAgent {
public:
  // `virtualSeconds` of fast-forwarded scenario come first, so that the
  // report has figures; `inChild` runs in the agent's process before exec.
  explicit DemoAgent(const std::string& virtualSeconds = "600", const std::function<void()>& inChild = {})
      : name_(fmt::format("kd{}-{}", ::getpid(), nextNumber())), started_(std::time(nullptr)) {
    const std::string link = dir_.path() + "/" + name_;
    if (::symlink(KESTO_DEMO_AGENT, link.c_str()) != 0) {
      ADD_FAILURE() << "symlink " << link << ": " << std::strerror(errno);
      return;
    }
    // Ten minutes of serving: far beyond any test; the destructor ends it.
    program_ = std::make_unique<BackgroundProgram>(link, std::vector<std::string>{"0.05", virtualSeconds, "--serve",
                                                                                  "600"},
                                                   std::map<std::string, const char*>{}, inChild);
    ready_ = program_->awaitLine("Serving for").has_value();
    if (!ready_)
      ADD_FAILURE() << "the agent did not start serving; its output:\n"
                    << program_->output() << "\nits errors:\n"
                    << program_->errors();
  }

  bool ready() const { return ready_; }
  pid_t pid() const { return program_ ? program_->pid() : -1; }
  std::string pidText() const { return std::to_string(pid()); }
  const std::string& name() const { return name_; }
  std::string label() const { return fmt::format("{} (pid {})", name_, pid()); }
  std::time_t started() const { return started_; }
  std::string errors() const { return program_ ? program_->errors() : ""; }

private:
  static int nextNumber() {
    static int number = 0;
    return ++number;
  }

  TempDir dir_;
  std::string name_;
  std::time_t started_;
  std::unique_ptr<BackgroundProgram> program_;
  bool ready_ = false;
};

// Waits for a condition that nothing signals (what a terminal shows, say):
// checks it every 20 ms until the time limit. True if it came true.
inline bool eventually(const std::function<bool()>& condition, std::chrono::seconds timeLimit = std::chrono::seconds(60)) {
  const auto deadline = std::chrono::steady_clock::now() + timeLimit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline)
      return false;
    ::poll(nullptr, 0, 20);
  }
  return true;
}

inline std::size_t countOf(const std::string& text, const std::string& part) {
  std::size_t count = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size()))
    ++count;
  return count;
}

} // namespace KestoTest
