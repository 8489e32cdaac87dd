// The terminate handler, observed in child processes that end by it.
#include "ChildProcess.h"

#include <gtest/gtest.h>

#include <csignal>
#include <string>

using KestoTest::ChildResult;
using KestoTest::runChild;

namespace {
bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }
// A line of Backtrace::pretty().
bool hasBacktrace(const std::string& text) { return contains(text, "\n#0 ") && contains(text, "\n#1 "); }
} // namespace

TEST(TerminateHandler, KestoExceptionPrintsNoBacktrace) {
  ChildResult child = runChild({"throw-kesto"});
  EXPECT_TRUE(child.killedBy(SIGABRT));
  EXPECT_EQ(child.err,
            "terminate called after throwing an instance of 'Kesto::RuntimeException'\n  what(): kesto failure\n");
}

TEST(TerminateHandler, StdExceptionPrintsABacktraceAtVerbosityOne) {
  ChildResult child = runChild({"throw-std"});
  EXPECT_TRUE(child.killedBy(SIGABRT));
  const std::string head =
      "terminate called after throwing an instance of 'std::runtime_error'\n  what(): std failure\n";
  ASSERT_EQ(child.err.substr(0, head.size()), head) << child.err;
  EXPECT_TRUE(hasBacktrace(child.err.substr(head.size() - 1))) << child.err;
}

TEST(TerminateHandler, OtherExceptionPrintsTypeAndBacktrace) {
  ChildResult child = runChild({"throw-int"});
  EXPECT_TRUE(child.killedBy(SIGABRT));
  const std::string head = "terminate called after throwing an instance of 'int'\n";
  ASSERT_EQ(child.err.substr(0, head.size()), head) << child.err;
  EXPECT_FALSE(contains(child.err, "what()"));
  EXPECT_TRUE(hasBacktrace(child.err.substr(head.size() - 1))) << child.err;
}

TEST(TerminateHandler, TerminateWithoutExceptionPrintsOnlyABacktrace) {
  ChildResult child = runChild({"terminate"});
  EXPECT_TRUE(child.killedBy(SIGABRT));
  EXPECT_FALSE(contains(child.err, "terminate called"));
  EXPECT_EQ(child.err.substr(0, 1), "\n");
  EXPECT_TRUE(hasBacktrace(child.err)) << child.err;
}
