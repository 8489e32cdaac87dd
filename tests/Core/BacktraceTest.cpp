#include <Kesto/Core/Backtrace.h>

#include <gtest/gtest.h>

using Kesto::Backtrace;

TEST(Backtrace, CapturesAtConstructionByDefault) {
  Backtrace trace;
  EXPECT_GT(trace.frameCount(), 1);
  const Kesto::String text = trace.pretty();
  EXPECT_TRUE(text.startsWith("#0 "));
  // One line per frame.
  int lines = 1;
  for (char c : text.view())
    lines += c == '\n';
  EXPECT_EQ(lines, trace.frameCount());
}

TEST(Backtrace, EmptyUntilCaptured) {
  Backtrace trace(false);
  EXPECT_EQ(trace.frameCount(), 0);
  EXPECT_TRUE(trace.pretty().empty());
  trace.capture();
  EXPECT_GT(trace.frameCount(), 0);
}

TEST(Backtrace, NamesLibraryFunctionsDemangled) {
  // Backtrace::capture is an exported function of the library; a stack taken
  // inside it is not, but prettyFrames names any exported frame it is given.
  void* frames[] = {reinterpret_cast<void*>(&Backtrace::verbosity)};
  const Kesto::String text = Backtrace::prettyFrames(frames, 1);
  EXPECT_NE(text.find("Kesto::Backtrace::verbosity()"), Kesto::String::npos) << text;
  EXPECT_TRUE(Backtrace::prettyFrames(frames, 0).empty());
}

TEST(Backtrace, VerbosityStartsAtOneAndIsSettable) {
  EXPECT_EQ(Backtrace::verbosity(), 1);
  Backtrace::verbosityIs(0);
  EXPECT_EQ(Backtrace::verbosity(), 0);
  Backtrace::verbosityIs(1);
  EXPECT_EQ(Backtrace::verbosity(), 1);
}
