#include "ChildProcess.h"
#include "TraceState.h"

#include <Kesto/EventKesto.h>

#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

using Kesto::Platform::setupKestoDebug;
using KestoTest::ChildResult;
using KestoTest::readWholeFile;
using KestoTest::runChild;
using KestoTest::stderrOf;
using KestoTest::TempPath;
using KestoTest::TraceFormatScope;

namespace {

void traceLine(const char* text) {
  Kesto::fmtrace(Kesto::Debug::kestoUtil, 0, "f.cpp", "fn", 1, nullptr, "{}", text);
}

// A FIFO at a fresh path, removed with the object.
class Fifo {
public:
  Fifo() : path_("fifo") {
    ::unlink(path_.path().c_str());
    made_ = ::mkfifo(path_.path().c_str(), 0600) == 0;
  }
  bool made() const { return made_; }
  const std::string& path() const { return path_.path(); }

private:
  TempPath path_;
  bool made_ = false;
};

// The read end, opened without waiting for a writer.
class FifoReader {
public:
  explicit FifoReader(const std::string& path) : fd_(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC)) {}
  ~FifoReader() {
    if (fd_ >= 0)
      ::close(fd_);
  }
  bool open() const { return fd_ >= 0; }

  // What the writers have written so far (they wrote and flushed whole
  // lines before this is called, so nothing is on its way).
  std::string available() const {
    std::string text;
    char buffer[4096];
    for (;;) {
      const ssize_t n = ::read(fd_, buffer, sizeof buffer);
      if (n > 0)
        text.append(buffer, std::size_t(n));
      else if (n < 0 && errno == EINTR)
        continue;
      else
        return text;
    }
  }

private:
  int fd_;
};

// The status flags of this process's descriptors open for writing on `path`.
std::vector<int> writerFlags(const std::string& path) {
  std::vector<int> flags;
  DIR* dir = ::opendir("/proc/self/fd");
  if (!dir)
    return flags;
  while (dirent* entry = ::readdir(dir)) {
    const int fd = std::atoi(entry->d_name);
    if (entry->d_name[0] == '.' || fd == ::dirfd(dir))
      continue;
    char target[PATH_MAX];
    const std::string link = std::string("/proc/self/fd/") + entry->d_name;
    const ssize_t n = ::readlink(link.c_str(), target, sizeof target - 1);
    if (n <= 0 || std::string(target, std::size_t(n)) != path)
      continue;
    const int f = ::fcntl(fd, F_GETFL);
    if (f >= 0 && (f & O_ACCMODE) == O_WRONLY)
      flags.push_back(f);
  }
  ::closedir(dir);
  return flags;
}

std::string openError(const std::string& path) {
  return "Error opening TRACEFILE=" + path + "\nDefaulting to std::cerr for trace output\n";
}

// Each test ends with TRACEFILE unset and the output back on stderr.
class TraceFileTest : public ::testing::Test {
protected:
  void TearDown() override {
    unsetenv("TRACEFILE");
    setupKestoDebug("");
  }
  TraceFormatScope format_{""};
};

} // namespace

TEST_F(TraceFileTest, LinesGoToTheNamedFile) {
  TempPath file("lines");
  setenv("TRACEFILE", file.path().c_str(), 1);
  setupKestoDebug("");
  EXPECT_EQ(stderrOf([] { traceLine("one"); }), "");
  EXPECT_EQ(readWholeFile(file.path()), "one\n");
}

TEST_F(TraceFileTest, SameNameAgainDoesNotTruncate) {
  TempPath file("again");
  setenv("TRACEFILE", file.path().c_str(), 1);
  setupKestoDebug("");
  traceLine("first");
  setupKestoDebug("");
  traceLine("second");
  EXPECT_EQ(readWholeFile(file.path()), "first\nsecond\n");
}

TEST_F(TraceFileTest, OpeningTruncates) {
  TempPath file("trunc");
  {
    std::FILE* f = std::fopen(file.path().c_str(), "w");
    std::fputs("old content\n", f);
    std::fclose(f);
  }
  setenv("TRACEFILE", file.path().c_str(), 1);
  setupKestoDebug("");
  traceLine("new");
  EXPECT_EQ(readWholeFile(file.path()), "new\n");
}

TEST_F(TraceFileTest, UnsettingClosesTheFile) {
  TempPath file("close");
  setenv("TRACEFILE", file.path().c_str(), 1);
  setupKestoDebug("");
  traceLine("in file");
  unsetenv("TRACEFILE");
  setupKestoDebug("");
  EXPECT_EQ(stderrOf([] { traceLine("on stderr"); }), "on stderr\n");
  EXPECT_EQ(readWholeFile(file.path()), "in file\n");
}

TEST_F(TraceFileTest, AnotherPathSwitchesFiles) {
  TempPath first("first"), second("second");
  setenv("TRACEFILE", first.path().c_str(), 1);
  setupKestoDebug("");
  traceLine("a");
  setenv("TRACEFILE", second.path().c_str(), 1);
  setupKestoDebug("");
  traceLine("b");
  EXPECT_EQ(readWholeFile(first.path()), "a\n");
  EXPECT_EQ(readWholeFile(second.path()), "b\n");
}

TEST_F(TraceFileTest, UnopenablePathFallsBackAndRetries) {
  setenv("TRACEFILE", "/nonexistent/dir/x", 1);
  const std::string message = "Error opening TRACEFILE=/nonexistent/dir/x\nDefaulting to std::cerr for trace output\n";
  EXPECT_EQ(stderrOf([] { setupKestoDebug(""); }), message);
  EXPECT_EQ(stderrOf([] { traceLine("still here"); }), "still here\n");
  // The name was forgotten, so the next call tries (and reports) again.
  EXPECT_EQ(stderrOf([] { setupKestoDebug(""); }), message);
}

TEST_F(TraceFileTest, UnsetVariableCreatesNoFile) {
  unsetenv("TRACEFILE");
  EXPECT_EQ(stderrOf([] { setupKestoDebug(""); }), "");
}

// TRACEFILE naming a FIFO. The file is opened at load, before main: a FIFO
// with no reader must be reported like any file that cannot be opened, never
// waited on; a FIFO with a reader receives the lines.

TEST(TraceFileFifoAtLoad, FifoWithNoReaderIsReportedTwiceAndTracesGoToStandardError) {
  Fifo fifo;
  ASSERT_TRUE(fifo.made()) << std::strerror(errno);
  ChildResult child = runChild({"trace"}, {{"TRACEFILE", fifo.path().c_str()}, {"TRACEFORMAT", "handle"}});
  ASSERT_FALSE(child.timedOut) << "the child hung at load on a FIFO with no reader";
  ASSERT_TRUE(child.exitedWith(0)) << child.err;
  EXPECT_EQ(child.err, openError(fifo.path()) + openError(fifo.path()) + "KestoUtil Child::run() hello 7\n");
  EXPECT_EQ(child.out, "false false false false true false false false\n");
}

TEST(TraceFileFifoAtLoad, FifoWithAReaderReceivesTheLines) {
  Fifo fifo;
  ASSERT_TRUE(fifo.made()) << std::strerror(errno);
  FifoReader reader(fifo.path());
  ASSERT_TRUE(reader.open()) << std::strerror(errno);
  ChildResult child = runChild({"trace"}, {{"TRACEFILE", fifo.path().c_str()}, {"TRACEFORMAT", "level"}});
  ASSERT_FALSE(child.timedOut);
  ASSERT_TRUE(child.exitedWith(0)) << child.err;
  EXPECT_EQ(child.err, "");
  EXPECT_EQ(reader.available(), "0 Child::run() hello 7\n");
}

TEST_F(TraceFileTest, FifoWithAReaderIsWrittenThroughABlockingDescriptor) {
  Fifo fifo;
  ASSERT_TRUE(fifo.made()) << std::strerror(errno);
  FifoReader reader(fifo.path());
  ASSERT_TRUE(reader.open()) << std::strerror(errno);
  setenv("TRACEFILE", fifo.path().c_str(), 1);
  EXPECT_EQ(stderrOf([] { setupKestoDebug(""); }), "");
  // The open did not wait; the writes that follow may.
  const std::vector<int> flags = writerFlags(fifo.path());
  ASSERT_EQ(flags.size(), 1u);
  EXPECT_EQ(flags[0] & O_NONBLOCK, 0);
  traceLine("through the fifo");
  EXPECT_EQ(reader.available(), "through the fifo\n");
  // Unsetting closes the writer.
  unsetenv("TRACEFILE");
  setupKestoDebug("");
  EXPECT_TRUE(writerFlags(fifo.path()).empty());
  EXPECT_EQ(stderrOf([] { traceLine("back"); }), "back\n");
}
