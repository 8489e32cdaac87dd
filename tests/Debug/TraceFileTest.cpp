#include "ChildProcess.h"
#include "TraceState.h"

#include <Kesto/EventKesto.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

using Kesto::Platform::setupKestoDebug;
using KestoTest::readWholeFile;
using KestoTest::stderrOf;
using KestoTest::TempPath;
using KestoTest::TraceFormatScope;

namespace {

void traceLine(const char* text) {
  Kesto::fmtrace(Kesto::Debug::kestoUtil, 0, "f.cpp", "fn", 1, nullptr, "{}", text);
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
