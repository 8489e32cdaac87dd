// What a process gets at load, observed in fresh child processes.
#include "ChildProcess.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>

using KestoTest::ChildResult;
using KestoTest::readWholeFile;
using KestoTest::runChild;
using KestoTest::TempPath;

namespace {

constexpr const char* defaultFlags = "true true false true true true false false\n";
constexpr const char* usage = "Usage:\n  TRACEFORMAT=field,field,...\nList of possible fields:\n  date\n  time\n  pid\n"
                              "  tid\n  handle\n  level\n  line-info\n  func-name\n";
// The helper's one trace line with the default prefix; date, time and
// thread id vary.
const std::regex defaultLine(R"(\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{1,6} \d+ KestoUtil 0 Child::run\(\) hello 7\n)");

bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

} // namespace

TEST(LoadSequence, DefaultsEnableLevelsZeroAndOneOfKestoHandlers) {
  ChildResult child = runChild({"dump"});
  ASSERT_TRUE(child.exitedWith(0)) << child.err;
  EXPECT_TRUE(contains(child.out, "Wildcard:\n    Kesto*/01\nHandlers:\n")) << child.out;
  for (const char* line : {"    KestoUtil/01\n", "    KestoTimerWheel/01\n", "    KestoPlugin/01\n",
                           "    KestoLibevent/01\n", "    KestoIntrusiveHashMap/01\n", "    TaskScheduler/\n",
                           "    Assert/\n"})
    EXPECT_TRUE(contains(child.out, line)) << line << child.out;
  EXPECT_EQ(child.err, "");
}

TEST(LoadSequence, TraceAddsToTheDefaultsAndCannotRemoveThem) {
  ChildResult child = runChild({"dump"}, {{"TRACE", "TaskScheduler/5,Kesto*/3,KestoUtil/"}});
  ASSERT_TRUE(child.exitedWith(0)) << child.err;
  EXPECT_TRUE(contains(child.out, "    TaskScheduler/5\n")) << child.out;
  EXPECT_TRUE(contains(child.out, "    Kesto*/013\n")) << child.out;
  EXPECT_TRUE(contains(child.out, "    KestoUtil/013\n")) << child.out;
  EXPECT_TRUE(contains(child.out, "    KestoPlugin/013\n")) << child.out;
  EXPECT_TRUE(contains(child.out, "    Assert/\n")) << child.out;
}

TEST(LoadSequence, TraceStarStarReachesEveryLibraryHandler) {
  ChildResult child = runChild({"dump"}, {{"TRACE", "*/*"}});
  ASSERT_TRUE(child.exitedWith(0)) << child.err;
  EXPECT_TRUE(contains(child.out, "    TaskScheduler/*\n")) << child.out;
  EXPECT_TRUE(contains(child.out, "    Assert/*\n")) << child.out;
  EXPECT_TRUE(contains(child.out, "    */*\n")) << child.out;
}

TEST(LoadSequence, DefaultFormatIsDateTimeTidHandleLevel) {
  ChildResult child = runChild({"trace"});
  ASSERT_TRUE(child.exitedWith(0)) << child.err;
  EXPECT_EQ(child.out, defaultFlags);
  EXPECT_TRUE(std::regex_match(child.err, defaultLine)) << child.err;
}

TEST(LoadSequence, CoreHooksAreInstalled) {
  ChildResult child = runChild({"hooks"});
  ASSERT_TRUE(child.exitedWith(0)) << child.err;
  EXPECT_EQ(child.out, "time=1\npresence=2\n");
}

TEST(LoadSequence, TraceFormatHelpKeepsTheDefault) {
  ChildResult child = runChild({"trace"}, {{"TRACEFORMAT", "help"}});
  ASSERT_TRUE(child.exitedWith(0)) << child.err;
  EXPECT_EQ(child.out, defaultFlags);
  ASSERT_EQ(child.err.substr(0, std::string(usage).size()), usage);
  EXPECT_TRUE(std::regex_match(child.err.substr(std::string(usage).size()), defaultLine)) << child.err;
}

TEST(LoadSequence, TraceFormatInvalidFieldKeepsTheDefault) {
  ChildResult child = runChild({"trace"}, {{"TRACEFORMAT", "date,foo"}});
  ASSERT_TRUE(child.exitedWith(0)) << child.err;
  EXPECT_EQ(child.out, defaultFlags);
  const std::string message = "foo is an invalid field in TRACEFORMAT\nSet TRACEFORMAT=help for more information\n";
  ASSERT_EQ(child.err.substr(0, message.size()), message);
  EXPECT_TRUE(std::regex_match(child.err.substr(message.size()), defaultLine)) << child.err;
}

TEST(LoadSequence, TraceFormatFieldsKeepTheirFixedOrder) {
  ChildResult child = runChild({"trace"}, {{"TRACEFORMAT", "level,date"}});
  ASSERT_TRUE(child.exitedWith(0)) << child.err;
  EXPECT_EQ(child.out, "true false false false false true false false\n");
  EXPECT_TRUE(std::regex_match(child.err, std::regex(R"(\d{4}-\d{2}-\d{2} 0 Child::run\(\) hello 7\n)")))
      << child.err;
}

TEST(LoadSequence, EmptyTraceFormatGivesNoPrefix) {
  ChildResult child = runChild({"trace"}, {{"TRACEFORMAT", ""}});
  ASSERT_TRUE(child.exitedWith(0)) << child.err;
  EXPECT_EQ(child.out, "false false false false false false false false\n");
  EXPECT_EQ(child.err, "Child::run() hello 7\n");
}

TEST(LoadSequence, UnopenableTraceFileIsReportedTwiceAndStderrIsUsed) {
  ChildResult child = runChild({"trace"}, {{"TRACEFILE", "/nonexistent/dir/x"}, {"TRACEFORMAT", "handle"}});
  ASSERT_TRUE(child.exitedWith(0)) << child.err;
  const std::string message = "Error opening TRACEFILE=/nonexistent/dir/x\nDefaulting to std::cerr for trace output\n";
  EXPECT_EQ(child.err, message + message + "KestoUtil Child::run() hello 7\n");
}

TEST(LoadSequence, TraceFileReceivesTheLines) {
  TempPath file("load");
  ChildResult child = runChild({"trace"}, {{"TRACEFILE", file.path().c_str()}, {"TRACEFORMAT", "level"}});
  ASSERT_TRUE(child.exitedWith(0)) << child.err;
  EXPECT_EQ(child.err, "");
  EXPECT_EQ(readWholeFile(file.path()), "0 Child::run() hello 7\n");
}
