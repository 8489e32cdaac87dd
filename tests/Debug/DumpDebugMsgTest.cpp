#include "TraceState.h"

#include <Kesto/Core/System.h>
#include <Kesto/EventKesto.h>

#include <gtest/gtest.h>

#include <unistd.h>

#include <regex>
#include <string>

using Kesto::Ptr;
using Kesto::Platform::DebugHandler;
using Kesto::Platform::dumpDebugMsg;
using Kesto::Platform::getDebugHandler;
using KestoTest::stderrOf;
using KestoTest::TraceFormatScope;

TEST(DumpDebugMsg, DefaultLayout) {
  TraceFormatScope format("date,time,tid,handle,level");
  Ptr<DebugHandler> handler = getDebugHandler("ZqLayout");
  const std::string line = stderrOf([&] { dumpDebugMsg("Class::function() text", 1, *handler, "f", "g", 2); });
  const std::regex expected(R"(\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.(0|[1-9]\d{0,5}) (\d+) ZqLayout 1 )"
                            R"(Class::function\(\) text\n)");
  std::smatch match;
  ASSERT_TRUE(std::regex_match(line, match, expected)) << line;
  EXPECT_EQ(match[2].str(), std::to_string(Kesto::gettid()));
}

TEST(DumpDebugMsg, FieldsFollowTheFixedOrder) {
  TraceFormatScope format("func-name,line-info,level,handle,tid,pid");
  Ptr<DebugHandler> handler = getDebugHandler("ZqOrder");
  const std::string line = stderrOf([&] { dumpDebugMsg("text", 3, *handler, "/a/b/File.cpp", "fn", 44); });
  EXPECT_EQ(line, std::to_string(getpid()) + " " + std::to_string(Kesto::gettid()) +
                      " ZqOrder 3 File.cpp:44 fn text\n");
}

TEST(DumpDebugMsg, LevelAndDateGiveTheDateFirst) {
  TraceFormatScope format("level,date");
  Ptr<DebugHandler> handler = getDebugHandler("ZqLevelDate");
  const std::string line = stderrOf([&] { dumpDebugMsg("text", 5, *handler, "f", "g", 1); });
  EXPECT_TRUE(std::regex_match(line, std::regex(R"(\d{4}-\d{2}-\d{2} 5 text\n)"))) << line;
}

TEST(DumpDebugMsg, EmptyFormatHasNoPrefix) {
  TraceFormatScope format("");
  Ptr<DebugHandler> handler = getDebugHandler("ZqBare");
  EXPECT_EQ(stderrOf([&] { dumpDebugMsg("text", 5, *handler, "f", "g", 1); }), "text\n");
}

TEST(DumpDebugMsg, TimeHasUnpaddedMicroseconds) {
  TraceFormatScope format("time");
  Ptr<DebugHandler> handler = getDebugHandler("ZqTime");
  const std::string line = stderrOf([&] { dumpDebugMsg("t", 0, *handler, "f", "g", 1); });
  EXPECT_TRUE(std::regex_match(line, std::regex(R"(\d{2}:\d{2}:\d{2}\.(0|[1-9]\d{0,5}) t\n)"))) << line;
}

TEST(DumpDebugMsg, NullFileLosesTheRestOfThePrefixOnly) {
  TraceFormatScope format("level,line-info,func-name");
  Ptr<DebugHandler> handler = getDebugHandler("ZqNullFile");
  EXPECT_EQ(stderrOf([&] { dumpDebugMsg("text", 2, *handler, nullptr, "fn", 1); }), "2 text\n");
  EXPECT_EQ(stderrOf([&] { dumpDebugMsg("text", 2, *handler, "x.cpp", nullptr, 1); }), "2 x.cpp:1 text\n");
}

TEST(DumpDebugMsg, HandlerNameIsTheRegisteredName) {
  TraceFormatScope format("handle");
  Ptr<DebugHandler> handler;
  stderrOf([&] { handler = getDebugHandler("ZqNamed*"); });
  EXPECT_EQ(stderrOf([&] { dumpDebugMsg("t", 0, *handler, "f", "g", 1); }), "ZqNamed t\n");
}
