#include "TraceState.h"

#include <Kesto/EventKesto.h>

#include <gtest/gtest.h>

#include <regex>
#include <string>

using Kesto::Ptr;
using Kesto::Platform::DebugHandler;
using Kesto::Platform::getDebugHandler;
using KestoTest::assertionText;
using KestoTest::AssertSwitches;
using KestoTest::stderrOf;
using KestoTest::TraceFormatScope;

TEST(Trace, TraceStrWritesLocationClassAndFunction) {
  EXPECT_EQ(Kesto::fmtracestr(true, "DirNode", "a/b/File.cpp", "readEntry", 123, "x={}", 5),
            "a/b/File.cpp:123: DirNode::readEntry() x=5");
  EXPECT_EQ(Kesto::fmtracestr(false, "DirNode", "File.cpp", "readEntry", 1, "text"), "DirNode::readEntry() text");
}

TEST(Trace, NullClassNameGivesTheTextAlone) {
  EXPECT_EQ(Kesto::fmtracestr(false, nullptr, "File.cpp", "readEntry", 1, "just {}", "text"), "just text");
  TraceFormatScope format("");
  Ptr<DebugHandler> handler = getDebugHandler("ZqNullClass");
  const std::string err = stderrOf([&] { Kesto::fmtrace(handler, 4, "f.cpp", "fn", 9, nullptr, "bare {}", 1); });
  EXPECT_EQ(err, "bare 1\n");
}

TEST(Trace, EmptyClassNameGivesFunctionAndText) {
  EXPECT_EQ(Kesto::fmtracestr(false, "", "File.cpp", "readEntry", 1, "text"), "readEntry() text");
  TraceFormatScope format("");
  Ptr<DebugHandler> handler = getDebugHandler("ZqEmptyClass");
  const std::string err = stderrOf([&] { Kesto::fmtrace(handler, 4, "f.cpp", "fn", 9, "", "bare"); });
  EXPECT_EQ(err, "fn() bare\n");
}

TEST(Trace, FmtraceWritesWhateverTheMask) {
  TraceFormatScope format("handle,level");
  Ptr<DebugHandler> handler = getDebugHandler("ZqNoMask");
  ASSERT_EQ(handler->levels, 0);
  const std::string err = stderrOf([&] { Kesto::fmtrace(handler, 7, "f.cpp", "fn", 9, "C", "v={}", 3.5); });
  EXPECT_EQ(err, "ZqNoMask 7 C::fn() v=3.5\n");
}

TEST(Trace, MacroTestsTheBitBeforeEvaluatingArguments) {
  TraceFormatScope format("");
  Ptr<DebugHandler> handler = getDebugHandler("ZqMacro");
  int evaluated = 0;
  auto count = [&] { return ++evaluated; };
  std::string err = stderrOf([&] { KESTO_TRACE(handler, 5, "C", "n={}", count()); });
  EXPECT_EQ(evaluated, 0);
  EXPECT_EQ(err, "");
  handler->enabledIs(5, true);
  err = stderrOf([&] { KESTO_TRACE(handler, 5, "C", "n={}", count()); });
  EXPECT_EQ(evaluated, 1);
  // The site is inside the capturing lambda.
  EXPECT_EQ(err, "C::operator()() n=1\n");
}

TEST(Trace, MacroReportsANullHandler) {
  AssertSwitches switches;
  switches.silence();
  Ptr<DebugHandler> none;
  const std::string text = assertionText([&] { KESTO_TRACE(none, 1, "C", "never"); });
  EXPECT_NE(text.find("null Ptr"), std::string::npos) << text;
}

TEST(Trace, AssertionSilencedThrowsAndWritesNothing) {
  AssertSwitches switches;
  Kesto::forceTraceOnAssertIs(false);
  Kesto::throwOnAssertFailIs(true);
  std::string text;
  const std::string err = stderrOf([&] {
    text = assertionText([] { Kesto::fmassert("Cls", "dir/File.cpp", "fn", 77, "broken {}", 1); });
  });
  EXPECT_EQ(text, "dir/File.cpp:77: Cls::fn() broken 1");
  EXPECT_EQ(err, "");
}

TEST(Trace, AssertionAtSilentHandlerStillWrites) {
  AssertSwitches switches;
  Kesto::throwOnAssertFailIs(true);
  Kesto::forceTraceOnAssertIs(true);
  TraceFormatScope format("handle,level");
  Ptr<DebugHandler> handler = getDebugHandler("ZqSilent");
  ASSERT_EQ(handler->levels, 0);
  std::string text;
  const std::string err = stderrOf([&] {
    text = assertionText([&] { Kesto::fmassert(handler, "Cls", "dir/File.cpp", "fn", 77, "broken"); });
  });
  EXPECT_EQ(text, "dir/File.cpp:77: Cls::fn() broken");
  EXPECT_EQ(err, "ZqSilent 0 dir/File.cpp:77: Cls::fn() broken\n");
}

TEST(Trace, AssertionIsWrittenWhenNobodyReportsIt) {
  AssertSwitches switches;
  Kesto::throwOnAssertFailIs(false);
  Kesto::forceTraceOnAssertIs(false);
  TraceFormatScope format("handle");
  const std::string err = stderrOf([&] {
    assertionText([] { Kesto::fmassert("Cls", "File.cpp", "fn", 1, "x"); });
  });
  EXPECT_EQ(err, "Assert File.cpp:1: Cls::fn() x\n");
}

TEST(Trace, AssertMacroFormatsOnlyOnFailure) {
  AssertSwitches switches;
  switches.silence();
  int evaluated = 0;
  auto count = [&] { return ++evaluated; };
  KESTO_ASSERT(evaluated == 0, "C", "n={}", count());
  EXPECT_EQ(evaluated, 0);
  const std::string text = assertionText([&] { KESTO_ASSERT(evaluated == 1, "C", "n={}", count()); });
  EXPECT_EQ(evaluated, 1);
  EXPECT_NE(text.find("TraceTest.cpp:"), std::string::npos);
  EXPECT_NE(text.find(": C::operator()() n=1"), std::string::npos) << text;
}

TEST(Trace, DebugAndAssertPrefixesLocation) {
  AssertSwitches switches;
  Kesto::throwOnAssertFailIs(true);
  Kesto::forceTraceOnAssertIs(true);
  TraceFormatScope format("level");
  Kesto::Platform::DebugStream stream;
  stream << "value " << 1.0 / 3.0;
  std::string text;
  const std::string err = stderrOf([&] {
    text = assertionText([&] { Kesto::debugAndAssert(stream, "File.cpp", "fn", 12); });
  });
  EXPECT_EQ(text, "File.cpp:fn:12: value 0.333333333333");
  EXPECT_EQ(err, "0 File.cpp:fn:12: value 0.333333333333\n");

  Kesto::forceTraceOnAssertIs(false);
  Ptr<DebugHandler> handler = getDebugHandler("ZqDebugAndAssert");
  const std::string quiet = stderrOf([&] {
    text = assertionText([&] { Kesto::debugAndAssert(*handler, stream, "F.cpp", "g", 3); });
  });
  EXPECT_EQ(text, "F.cpp:g:3: value 0.333333333333");
  EXPECT_EQ(quiet, "");
}

TEST(Trace, VfmthrowTracesOnlyWhenTheLevelIsOn) {
  TraceFormatScope format("level");
  Ptr<DebugHandler> handler = getDebugHandler("ZqThrow");
  Kesto::String text;
  std::string err = stderrOf([&] { text = Kesto::vfmthrow(handler, 0, "Util", "F.cpp", "open", 5, "no {}", "file"); });
  EXPECT_EQ(text, "Util::open() no file");
  EXPECT_EQ(err, "");
  handler->enabledIs(0, true);
  err = stderrOf([&] { text = Kesto::vfmthrow(handler, 0, "Util", "F.cpp", "open", 5, "no {}", "file"); });
  EXPECT_EQ(text, "Util::open() no file");
  EXPECT_EQ(err, "0 Util::open() no file\n");
}

TEST(Trace, ThrowMacroRaisesRuntimeExceptionWithoutLocation) {
  Ptr<DebugHandler> handler = getDebugHandler("ZqThrowMacro");
  try {
    KESTO_THROW(handler, "Kesto::Util", "bad {}", 42);
    FAIL() << "no exception";
  } catch (const Kesto::RuntimeException& e) {
    EXPECT_STREQ(e.what(), "Kesto::Util::TestBody() bad 42");
  }
}

TEST(Trace, ForceTraceOnAssertStartsTrue) {
  // Nothing in this suite leaves it changed: each test restores it.
  EXPECT_TRUE(Kesto::forceTraceOnAssert());
}

TEST(Trace, DumpWritesTheStreamWhateverTheMask) {
  TraceFormatScope format("handle,level");
  Ptr<DebugHandler> handler = getDebugHandler("ZqDump");
  Kesto::Platform::DebugStream stream;
  stream << "dumped " << 2;
  const std::string err = stderrOf([&] { handler->dump(stream, 6, "F.cpp", "fn", 1); });
  EXPECT_EQ(err, "ZqDump 6 dumped 2\n");
}
