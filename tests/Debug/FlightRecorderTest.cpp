// The flight recorder: real processes that die inside a task, and the dump
// their parent reads.
//
// Each child is the helper program debug_recorder_child, started with
// ASAN_OPTIONS and TSAN_OPTIONS both handle_segv=0:handle_sigbus=0:
// handle_sigfpe=0. In a build with AddressSanitizer (or ThreadSanitizer) the
// sanitizer would otherwise own SIGSEGV, report the fault itself and exit
// with status 1 (66); with its handlers off, the recorder's handler is the
// one the application has, which is what these tests check. In other builds
// the variables are read by nobody.
#include <Kesto/Debug/DebugHandler.h>
#include <Kesto/Debug/FlightRecorder.h>
#include <Kesto/Platform/Platform.h>
#include <Kesto/Scheduler/TaskSchedulerRoot.h>

#include <KestoSupport/TestScheduler.h>
#include <KestoSupport/TraceCapture.h>

#include "ChildProcess.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <stdlib.h>

#include <algorithm>
#include <string>
#include <vector>

using namespace Kesto;
using KestoTest::ChildResult;

namespace {

constexpr const char* sanitizerOptions = "handle_segv=0:handle_sigbus=0:handle_sigfpe=0";
const std::string prefix = "KestoFlightRecorder: ";

ChildResult runRecorderChild(const char* mode, const char* recorderFile = nullptr) {
  return KestoTest::runProgram(KESTO_RECORDER_CHILD, {mode},
                               {{"ASAN_OPTIONS", sanitizerOptions},
                                {"TSAN_OPTIONS", sanitizerOptions},
                                {FlightRecorder::fileEnvironmentVariable, recorderFile}});
}

// The dump's lines, without the prefix, in the order written.
std::vector<std::string> dumpLines(const std::string& text) {
  std::vector<std::string> lines;
  std::size_t at = 0;
  while (at < text.size()) {
    std::size_t end = text.find('\n', at);
    if (end == std::string::npos)
      end = text.size();
    const std::string line = text.substr(at, end - at);
    if (line.rfind(prefix, 0) == 0)
      lines.push_back(line.substr(prefix.size()));
    at = end + 1;
  }
  return lines;
}

// The history lines ("  -12us run start N crasher") reduced to their event
// and identifier, oldest first.
std::vector<std::string> historyEvents(const std::vector<std::string>& lines, const std::string& root) {
  std::vector<std::string> events;
  bool in = false;
  for (const auto& line : lines) {
    if (line.rfind("root " + root + " history ", 0) == 0) {
      in = true;
      continue;
    }
    if (!in)
      continue;
    if (line.rfind("  ", 0) != 0)
      break;
    const std::size_t us = line.find("us ");
    events.push_back(us == std::string::npos ? line : line.substr(us + 3));
  }
  return events;
}

// `wanted` appear in `events` in this order, the last of them last of all.
void expectEndsInOrder(const std::vector<std::string>& events, const std::vector<std::string>& wanted) {
  std::size_t from = 0;
  for (const auto& w : wanted) {
    std::size_t i = from;
    while (i < events.size() && events[i] != w)
      ++i;
    ASSERT_LT(i, events.size()) << "missing in order: " << w;
    from = i + 1;
  }
  EXPECT_EQ(events.back(), wanted.back());
}

std::size_t countOf(const std::vector<std::string>& lines, const std::string& part) {
  std::size_t n = 0;
  for (const auto& l : lines)
    n += l.find(part) != std::string::npos;
  return n;
}

const std::vector<std::string> warmupThenCrasher = {"schedule H warmup", "run start H warmup", "run end H warmup",
                                                     "schedule N crasher", "run start N crasher"};

} // namespace

TEST(FlightRecorder, NullDereferenceInTaskDumpsTaskAndHistoryAndDiesBySigsegv) {
  const ChildResult child = runRecorderChild("segv");
  ASSERT_FALSE(child.timedOut);
  EXPECT_TRUE(child.killedBy(SIGSEGV)) << "status " << child.status << "\n" << child.err;
  const auto lines = dumpLines(child.err);
  ASSERT_FALSE(lines.empty()) << child.err;
  EXPECT_EQ(lines[0].rfind("signal 11 SIGSEGV code ", 0), 0u) << lines[0];
  EXPECT_NE(lines[0].find(" address 0x0000000000000000 pid "), std::string::npos) << lines[0];
  EXPECT_EQ(countOf(lines, "root main running task crasher scheduler main priority normal for "), 1u) << child.err;
  EXPECT_EQ(countOf(lines, "run started and not ended"), 0u) << child.err;
  expectEndsInOrder(historyEvents(lines, "main"), warmupThenCrasher);
  EXPECT_EQ(lines.back(), "end");
}

TEST(FlightRecorder, AbortInTaskDumpsTaskAndDiesBySigabrt) {
  const ChildResult child = runRecorderChild("abort");
  ASSERT_FALSE(child.timedOut);
  EXPECT_TRUE(child.killedBy(SIGABRT)) << "status " << child.status << "\n" << child.err;
  const auto lines = dumpLines(child.err);
  ASSERT_FALSE(lines.empty()) << child.err;
  EXPECT_EQ(lines[0].rfind("signal 6 SIGABRT code ", 0), 0u) << lines[0];
  EXPECT_EQ(countOf(lines, "root main running task crasher scheduler main priority normal for "), 1u) << child.err;
  expectEndsInOrder(historyEvents(lines, "main"), warmupThenCrasher);
}

TEST(FlightRecorder, FailedAssertionInTaskDumpsAtTerminateAndDiesBySigabrt) {
  const ChildResult child = runRecorderChild("assert");
  ASSERT_FALSE(child.timedOut);
  EXPECT_TRUE(child.killedBy(SIGABRT)) << "status " << child.status << "\n" << child.err;
  const auto lines = dumpLines(child.err);
  ASSERT_FALSE(lines.empty()) << child.err;
  EXPECT_EQ(lines[0].rfind("terminate pid ", 0), 0u) << lines[0];
  // The assertion's own line and the terminate handler's text still come.
  EXPECT_NE(child.err.find("mode.empty() with mode assert"), std::string::npos) << child.err;
  EXPECT_NE(child.err.find("terminate called after throwing an instance of"), std::string::npos) << child.err;
  EXPECT_EQ(countOf(lines, "root main run started and not ended: N crasher"), 1u) << child.err;
  expectEndsInOrder(historyEvents(lines, "main"), warmupThenCrasher);
  // One dump: the abort() that follows the terminate handler is not dumped
  // again.
  EXPECT_EQ(std::count(lines.begin(), lines.end(), std::string("end")), 1u);
}

TEST(FlightRecorder, ExceptionThrownOutOfTaskExecuteDumpsAndDiesBySigabrt) {
  const ChildResult child = runRecorderChild("throw");
  ASSERT_FALSE(child.timedOut);
  EXPECT_TRUE(child.killedBy(SIGABRT)) << "status " << child.status << "\n" << child.err;
  const auto lines = dumpLines(child.err);
  ASSERT_FALSE(lines.empty()) << child.err;
  EXPECT_EQ(lines[0].rfind("terminate pid ", 0), 0u) << lines[0];
  EXPECT_NE(child.err.find("what(): thrown out of the task"), std::string::npos) << child.err;
  // The exception unwound the run before terminate: no running task, but
  // the run that never ended is named.
  EXPECT_EQ(countOf(lines, "root main no task running"), 1u) << child.err;
  EXPECT_EQ(countOf(lines, "root main run started and not ended: N crasher"), 1u) << child.err;
  expectEndsInOrder(historyEvents(lines, "main"), warmupThenCrasher);
}

TEST(FlightRecorder, HandlerInstalledBeforeRecorderIsCalledAfterTheDump) {
  const ChildResult child = runRecorderChild("chain");
  ASSERT_FALSE(child.timedOut);
  EXPECT_TRUE(child.killedBy(SIGSEGV)) << "status " << child.status << "\n" << child.err;
  const std::size_t end = child.err.find(prefix + "end\n");
  const std::size_t application = child.err.find("application handler called");
  ASSERT_NE(end, std::string::npos) << child.err;
  ASSERT_NE(application, std::string::npos) << child.err;
  EXPECT_LT(end, application);
}

TEST(FlightRecorder, SecondFaultInChainedHandlerEndsTheProcessWithoutHangOrSecondDump) {
  const ChildResult child = runRecorderChild("chain-abort");
  ASSERT_FALSE(child.timedOut);
  EXPECT_TRUE(child.killedBy(SIGABRT)) << "status " << child.status << "\n" << child.err;
  const auto lines = dumpLines(child.err);
  EXPECT_EQ(std::count(lines.begin(), lines.end(), std::string("end")), 1u) << child.err;
  EXPECT_EQ(countOf(lines, "signal "), 1u) << child.err;
}

TEST(FlightRecorder, DumpGoesToFileNamedByEnvironment) {
  KestoTest::TempPath file("recorder");
  const ChildResult child = runRecorderChild("segv", file.path().c_str());
  ASSERT_FALSE(child.timedOut);
  EXPECT_TRUE(child.killedBy(SIGSEGV)) << "status " << child.status;
  EXPECT_TRUE(dumpLines(child.err).empty()) << child.err;
  const auto lines = dumpLines(KestoTest::readWholeFile(file.path()));
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(countOf(lines, "root main running task crasher "), 1u);
  expectEndsInOrder(historyEvents(lines, "main"), warmupThenCrasher);
}

TEST(FlightRecorder, DumpNowFromTaskNamesItAndWritesHistoryNewestLast) {
  KestoTest::TempPath file("recorder-now");
  ::setenv(FlightRecorder::fileEnvironmentVariable, file.path().c_str(), 1);
  FlightRecorder::enabledIs(true);
  ::unsetenv(FlightRecorder::fileEnvironmentVariable);
  EXPECT_TRUE(FlightRecorder::enabled());
  EXPECT_NE(FlightRecorder::descriptor(), 2);
  Ptr<TaskSchedulerRoot> root = schedulerRootKestoNonShared("nowroot");
  Ptr<KestoTest::TestTask> first(new KestoTest::TestTask(root, TaskPriority::low, "first"));
  Ptr<KestoTest::TestTask> dumper(
      new KestoTest::TestTask(root, TaskPriority::normal, "dumper", [](KestoTest::TestTask&) { FlightRecorder::dumpNow(); }));
  first->scheduleTask();
  dumper->scheduleTask();
  Platform::doEventLoop();
  FlightRecorder::enabledIs(false);
  EXPECT_FALSE(FlightRecorder::enabled());
  EXPECT_EQ(FlightRecorder::descriptor(), -1);

  const auto lines = dumpLines(KestoTest::readWholeFile(file.path()));
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines[0].rfind("request pid ", 0), 0u) << lines[0];
  EXPECT_EQ(countOf(lines, "root nowroot running task dumper scheduler nowroot priority normal for "), 1u);
  // Picked by priority: dumper ran first, first waits on its queue.
  expectEndsInOrder(historyEvents(lines, "nowroot"),
                    {"schedule L first", "schedule N dumper", "run start N dumper"});
}

TEST(FlightRecorder, UnopenableFileFallsBackToStandardErrorWithTrace) {
  ::setenv(FlightRecorder::fileEnvironmentVariable, "/nonexistent/dir/recorder", 1);
  KestoTest::TraceCapture capture({0}, *Debug::kestoUtil);
  FlightRecorder::enabledIs(true);
  ::unsetenv(FlightRecorder::fileEnvironmentVariable);
  EXPECT_EQ(FlightRecorder::descriptor(), 2);
  FlightRecorder::enabledIs(false);
  EXPECT_EQ(capture.linesWith("cannot open KESTO_FLIGHT_RECORDER_FILE=/nonexistent/dir/recorder: ").size(), 1u)
      << capture.text();
}
