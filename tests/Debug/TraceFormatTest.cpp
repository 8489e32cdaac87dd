#include "TraceState.h"

#include <Kesto/EventKesto.h>

#include <gtest/gtest.h>

#include <string>

using Kesto::Platform::printAllTraceFormat;
using Kesto::Platform::setTraceFormat;
using KestoTest::stderrOf;
using KestoTest::stdoutOf;
using KestoTest::TraceFormatScope;

namespace {

std::string flags() {
  return stdoutOf([] { printAllTraceFormat(); });
}

constexpr const char* usage = "Usage:\n  TRACEFORMAT=field,field,...\nList of possible fields:\n  date\n  time\n  pid\n"
                              "  tid\n  handle\n  level\n  line-info\n  func-name\n";

} // namespace

TEST(TraceFormat, PrintAllListsTheEightFlagsInOrder) {
  TraceFormatScope format("date,pid,level,func-name");
  EXPECT_EQ(flags(), "true false true false false true false true\n");
  setTraceFormat("time,tid,handle,line-info");
  EXPECT_EQ(flags(), "false true false true true false true false\n");
}

TEST(TraceFormat, HelpPrintsUsageAndKeepsTheFormat) {
  TraceFormatScope format("pid,tid");
  EXPECT_EQ(stderrOf([] { setTraceFormat("help"); }), usage);
  EXPECT_EQ(flags(), "false false true true false false false false\n");
}

TEST(TraceFormat, InvalidFieldKeepsTheFormatWhole) {
  TraceFormatScope format("handle");
  EXPECT_EQ(stderrOf([] { setTraceFormat("date,foo"); }),
            "foo is an invalid field in TRACEFORMAT\nSet TRACEFORMAT=help for more information\n");
  EXPECT_EQ(flags(), "false false false false true false false false\n");
}

TEST(TraceFormat, FormatReplacesThePreviousOne) {
  TraceFormatScope format("date,time,tid,handle,level");
  setTraceFormat("pid");
  EXPECT_EQ(flags(), "false false true false false false false false\n");
}

TEST(TraceFormat, EmptyItemsVanish) {
  TraceFormatScope format(",,level,,");
  EXPECT_EQ(flags(), "false false false false false true false false\n");
}

TEST(TraceFormat, EmptyTextTurnsEverythingOff) {
  TraceFormatScope format("date,time");
  setTraceFormat("");
  EXPECT_EQ(flags(), "false false false false false false false false\n");
}

TEST(TraceFormat, NullWithoutEnvironmentChangesNothing) {
  TraceFormatScope format("tid");
  const char* saved = std::getenv("TRACEFORMAT");
  std::string keep = saved ? saved : "";
  unsetenv("TRACEFORMAT");
  setTraceFormat(nullptr);
  EXPECT_EQ(flags(), "false false false true false false false false\n");
  setenv("TRACEFORMAT", "level", 1);
  setTraceFormat(nullptr);
  EXPECT_EQ(flags(), "false false false false false true false false\n");
  if (saved)
    setenv("TRACEFORMAT", keep.c_str(), 1);
  else
    unsetenv("TRACEFORMAT");
}

TEST(TraceFormat, ClearTurnsEveryFlagOff) {
  TraceFormatScope format("date,time,pid,tid,handle,level,line-info,func-name");
  EXPECT_EQ(flags(), "true true true true true true true true\n");
  Kesto::Platform::clearTraceFormat();
  EXPECT_EQ(flags(), "false false false false false false false false\n");
}
