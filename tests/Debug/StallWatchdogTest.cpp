// The stall watchdog on a real root, a real CPU-time timer and its signal.
//
// The stalls here are real: a task spins on the CPU, since only consumed CPU
// time moves the watchdog's clock. Each spin is bounded by what it waits for
// (the watchdog having seen it, or a wall-clock length), never by a sleep.
#include <Kesto/Debug/DebugHandler.h>
#include <Kesto/Debug/StallWatchdog.h>
#include <Kesto/Platform/Platform.h>
#include <Kesto/Report/SnapshotTimeline.h>
#include <Kesto/Scheduler/TaskGroup.h>
#include <Kesto/Scheduler/TaskSchedulerRoot.h>

#include <KestoSupport/TestScheduler.h>
#include <KestoSupport/TimelineDocument.h>
#include <KestoSupport/TraceCapture.h>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <time.h>

#include <atomic>
#include <chrono>
#include <string>
#include <vector>

using namespace Kesto;
using KestoTest::TestTask;

namespace {

std::chrono::nanoseconds threadCpuTime() {
  timespec ts{};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return std::chrono::seconds(ts.tv_sec) + std::chrono::nanoseconds(ts.tv_nsec);
}

Ptr<TestTask> taskOn(const Ptr<TaskSchedulerRoot>& root, const char* name, TestTask::Body body) {
  return Ptr<TestTask>(new TestTask(root, TaskPriority::normal, name, std::move(body)));
}

Platform::DebugHandler& watchdogTraceHandler() {
  static Ptr<Platform::DebugHandler> handler = Platform::getDebugHandler("KestoStallWatchdog");
  return *handler;
}

} // namespace

// The name the backtrace must show: kept out of line and exported from the
// test program (ENABLE_EXPORTS), so that the frame resolves to it.
//
// Spins for at least `wall` of real time and `cpu` of the thread's CPU time,
// and until `watchdog` (if given) has handled `signals` signals. The kernel
// checks a thread's CPU timers at its tick, and only while the thread is on
// a CPU at that moment: on a machine shared with other work, signals come
// later than the CPU time alone says, so a test that needs them waits for
// them. A bound of 20 s turns a signal that never comes into a failure.
extern "C" [[gnu::noinline]] void kestoTestSpinningFunction(std::chrono::milliseconds wall,
                                                             std::chrono::milliseconds cpu,
                                                             const StallWatchdog* watchdog, U64 signals) {
  const auto start = std::chrono::steady_clock::now();
  const auto cpuStart = threadCpuTime();
  while (std::chrono::steady_clock::now() - start < wall || threadCpuTime() - cpuStart < cpu ||
         (watchdog && watchdog->signalCount() < signals)) {
    if (std::chrono::steady_clock::now() - start > std::chrono::seconds(20))
      break;
    asm volatile("" ::: "memory");
  }
}

TEST(StallWatchdog, TaskSpinningPastThresholdGivesOneReportWithItsFunctionInTheBacktrace) {
  Ptr<TaskSchedulerRoot> root = schedulerRootKestoNonShared("stallroot");
  Ptr<StallWatchdog> watchdog = StallWatchdog::StallWatchdogIs(root, std::chrono::milliseconds(50), 10);
  // At least 4 signals during the run, so that later signals of the same
  // stall are there to be ignored.
  auto spinner = taskOn(root, "spinner", [&watchdog](TestTask&) {
    kestoTestSpinningFunction(std::chrono::milliseconds(300), std::chrono::milliseconds(150), watchdog.get(), 4);
  });
  KestoTest::TraceCapture capture({1}, watchdogTraceHandler());
  spinner->scheduleTask();
  Platform::doEventLoop();
  const auto reports = capture.linesWith("stall: task");
  ASSERT_EQ(reports.size(), 1u) << capture.text();
  EXPECT_NE(reports[0].find("KestoStallWatchdog 1 StallWatchdog::writePendingReport() stall: task spinner of "
                            "scheduler stallroot priority normal ran for at least "),
            std::string::npos)
      << reports[0];
  EXPECT_NE(reports[0].find("(threshold 50ms)"), std::string::npos) << reports[0];
  const auto frames = capture.linesWith("stall backtrace #");
  EXPECT_GE(frames.size(), 3u);
  bool spinFound = false;
  for (const auto& frame : frames)
    spinFound = spinFound || frame.find("kestoTestSpinningFunction") != std::string::npos;
  EXPECT_TRUE(spinFound) << capture.text();
  EXPECT_EQ(watchdog->stallCount(), 1u);
  EXPECT_EQ(watchdog->reportCount(), 1u);
  EXPECT_EQ(watchdog->suppressedCount(), 0u);
  // Several periods went by during the one stall: one report all the same.
  EXPECT_GE(watchdog->signalCount(), 4u);
}

TEST(StallWatchdog, StalledRunReportsElapsedTimeUpdatedPastTheThreshold) {
  Ptr<TaskSchedulerRoot> root = schedulerRootKestoNonShared("stallroot");
  Ptr<StallWatchdog> watchdog = StallWatchdog::StallWatchdogIs(root, std::chrono::milliseconds(20), 10);
  auto spinner = taskOn(root, "long", [&watchdog](TestTask&) {
    kestoTestSpinningFunction(std::chrono::milliseconds(200), std::chrono::milliseconds(120), watchdog.get(), 12);
  });
  KestoTest::TraceCapture capture({1}, watchdogTraceHandler());
  spinner->scheduleTask();
  Platform::doEventLoop();
  const auto reports = capture.linesWith("stall: task long");
  ASSERT_EQ(reports.size(), 1u) << capture.text();
  // First seen at 20 to 40 ms; the later signals of the same run carried
  // the time forward. Signals come at most one per 10 ms of CPU time, and
  // wall time runs at least as fast: the 12th came at 120 ms or later.
  const auto at = reports[0].find("at least ");
  ASSERT_NE(at, std::string::npos);
  const long ms = std::stol(reports[0].substr(at + 9));
  EXPECT_NE(reports[0].find("ms (threshold 20ms)", at), std::string::npos) << reports[0];
  EXPECT_GE(ms, 100) << reports[0];
}

TEST(StallWatchdog, IdleRootWithWatchdogReceivesNoSignalInOneSecond) {
  Ptr<TaskSchedulerRoot> root = schedulerRootKestoNonShared("idleroot");
  Ptr<StallWatchdog> watchdog = StallWatchdog::StallWatchdogIs(root, std::chrono::milliseconds(10), 10);
  const auto start = std::chrono::steady_clock::now();
  // The loop waits in the kernel for one second of real time: the thread
  // consumes next to no CPU time, and its CPU-time timer never expires.
  Platform::doEventLoop(1.0);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(990));
  EXPECT_EQ(watchdog->signalCount(), 0u);
  // The same watchdog does count signals once the thread works: runs of
  // 1 ms of CPU each, none of them long enough to be a stall, until two
  // signals came (at most 20,000 runs).
  U64 left = 20000;
  auto busy = taskOn(root, "busy", [&left, &watchdog](TestTask& t) {
    kestoTestSpinningFunction(std::chrono::milliseconds(0), std::chrono::milliseconds(1), nullptr, 0);
    if (--left && watchdog->signalCount() < 2)
      t.scheduleTask();
  });
  busy->scheduleTask();
  Platform::doEventLoop();
  EXPECT_GE(watchdog->signalCount(), 2u);
}

TEST(StallWatchdog, RateLimitHoldsUnderHundredStallingTasks) {
  Ptr<TaskSchedulerRoot> root = schedulerRootKestoNonShared("rateroot");
  constexpr U32 perMinute = 3;
  Ptr<StallWatchdog> watchdog = StallWatchdog::StallWatchdogIs(root, std::chrono::milliseconds(8), perMinute);
  std::vector<Ptr<TestTask>> tasks;
  for (int i = 0; i < 100; ++i) {
    tasks.push_back(taskOn(root, "staller", [&watchdog](TestTask&) {
      // Spins until the watchdog has seen this run stall; a bound of 10 s
      // turns a watchdog that never sees it into a failure, not a hang.
      const U64 before = watchdog->stallCount();
      const auto start = std::chrono::steady_clock::now();
      while (watchdog->stallCount() == before && std::chrono::steady_clock::now() - start < std::chrono::seconds(10))
        asm volatile("" ::: "memory");
    }));
  }
  KestoTest::TraceCapture capture({1}, watchdogTraceHandler());
  for (auto& t : tasks)
    t->scheduleTask();
  Platform::doEventLoop();
  EXPECT_EQ(watchdog->stallCount(), 100u);
  EXPECT_EQ(watchdog->reportCount(), perMinute);
  EXPECT_EQ(watchdog->suppressedCount(), 100u - perMinute);
  EXPECT_EQ(capture.linesWith("stall: task staller").size(), perMinute) << capture.text();
}

TEST(StallWatchdog, ShortRunsAreNeverReported) {
  Ptr<TaskSchedulerRoot> root = schedulerRootKestoNonShared("shortroot");
  // 100 ms: far beyond what a 1 ms run takes even when other processes
  // preempt it, since a preempted run is held all the same and would count.
  Ptr<StallWatchdog> watchdog = StallWatchdog::StallWatchdogIs(root, std::chrono::milliseconds(100), 10);
  U64 left = 20000;
  // Runs of 1 ms of CPU each until the timer has fired 8 times (every 50 ms
  // of CPU), at most 20,000 runs: the thread is busy throughout, but no
  // single run comes near the threshold.
  auto chain = taskOn(root, "short", [&left, &watchdog](TestTask& t) {
    kestoTestSpinningFunction(std::chrono::milliseconds(0), std::chrono::milliseconds(1), nullptr, 0);
    if (--left && watchdog->signalCount() < 8)
      t.scheduleTask();
  });
  chain->scheduleTask();
  Platform::doEventLoop();
  EXPECT_GE(watchdog->signalCount(), 8u);
  EXPECT_EQ(watchdog->stallCount(), 0u);
  EXPECT_EQ(watchdog->reportCount(), 0u);
}

TEST(StallWatchdog, SecondWatchdogOnOneRootIsRefused) {
  Ptr<TaskSchedulerRoot> root = schedulerRootKestoNonShared("oneroot");
  Ptr<StallWatchdog> first = StallWatchdog::StallWatchdogIs(root, std::chrono::milliseconds(50), 1);
  EXPECT_THROW(StallWatchdog::StallWatchdogIs(root, std::chrono::milliseconds(50), 1), RuntimeException);
  first = nullptr;
  // Disarmed with its last reference: the root takes a new one.
  EXPECT_NO_THROW(StallWatchdog::StallWatchdogIs(root, std::chrono::milliseconds(50), 1));
}

namespace {

// A task that spins until the watchdog has seen its run stall; a bound of
// 10 s turns a watchdog that never sees it into a failure, not a hang.
Ptr<TestTask> stallingTask(const Ptr<TaskSchedulerRoot>& root, const std::string& name,
                           const Ptr<StallWatchdog>& watchdog) {
  return taskOn(root, name.c_str(), [&watchdog](TestTask&) {
    const U64 before = watchdog->stallCount();
    const auto start = std::chrono::steady_clock::now();
    while (watchdog->stallCount() == before && std::chrono::steady_clock::now() - start < std::chrono::seconds(10))
      asm volatile("" ::: "memory");
  });
}

} // namespace

TEST(StallWatchdog, StallInsideNestedGroupsNamesTheGroupsParentTaskAndTheTaskRunningInside) {
  Ptr<TaskSchedulerRoot> root = schedulerRootKestoNonShared("grouproot");
  Ptr<TaskGroup> outer = TaskGroup::TaskGroupIs("outer", TaskPriority::normal,
                                                TaskGroupPriorityEnforcement::onlyAllowRegularPriorities, root);
  Ptr<TaskGroup> inner = TaskGroup::TaskGroupIs("inner", TaskPriority::normal,
                                                TaskGroupPriorityEnforcement::onlyAllowRegularPriorities, outer);
  Ptr<StallWatchdog> watchdog = StallWatchdog::StallWatchdogIs(root, std::chrono::milliseconds(20), 10);
  Ptr<TestTask> worker(new TestTask(inner, TaskPriority::high, "worker", [&watchdog](TestTask&) {
    kestoTestSpinningFunction(std::chrono::milliseconds(0), std::chrono::milliseconds(0), watchdog.get(), 4);
  }));
  KestoTest::TraceCapture capture({1}, watchdogTraceHandler());
  worker->scheduleTask();
  Platform::doEventLoop();
  ASSERT_EQ(watchdog->stallCount(), 1u);
  // The root's running task is the outer group's parent task; the thread is
  // held by the worker two groups down.
  const auto reports = capture.linesWith("stall: task");
  ASSERT_EQ(reports.size(), 1u) << capture.text();
  EXPECT_NE(reports[0].find("stall: task TaskGroup;outer of scheduler grouproot priority normal"), std::string::npos)
      << reports[0];
  const auto inside = capture.linesWith("stall: inside it");
  ASSERT_EQ(inside.size(), 1u) << capture.text();
  EXPECT_NE(inside[0].find("stall: inside it task worker of scheduler inner priority high was running"),
            std::string::npos)
      << inside[0];
}

TEST(StallWatchdog, StallOutsideAnyGroupHasNoInsideLine) {
  Ptr<TaskSchedulerRoot> root = schedulerRootKestoNonShared("plainroot");
  Ptr<StallWatchdog> watchdog = StallWatchdog::StallWatchdogIs(root, std::chrono::milliseconds(20), 10);
  auto spinner = stallingTask(root, "alone", watchdog);
  KestoTest::TraceCapture capture({1}, watchdogTraceHandler());
  spinner->scheduleTask();
  Platform::doEventLoop();
  ASSERT_EQ(capture.linesWith("stall: task alone").size(), 1u) << capture.text();
  EXPECT_TRUE(capture.linesWith("stall: inside it").empty()) << capture.text();
}

// The steady clock plus an offset the test moves forward: the scheduler and
// the watchdog's signal handler read it, so the offset is a lock-free atomic.
class OffsetClock {
public:
  OffsetClock() { taskClockFnIs(&OffsetClock::read); }
  ~OffsetClock() {
    taskClockFnIs(nullptr);
    offsetNs_.store(0);
  }
  OffsetClock(const OffsetClock&) = delete;
  OffsetClock& operator=(const OffsetClock&) = delete;
  void advance(std::chrono::nanoseconds d) { offsetNs_.fetch_add(d.count()); }

private:
  static TaskTimeStamp read() noexcept {
    return TaskTimeStamp(TaskTimeDuration(steadyClockNanos() + offsetNs_.load(std::memory_order_relaxed)));
  }
  static inline std::atomic<I64> offsetNs_{0};
  static_assert(std::atomic<I64>::is_always_lock_free);
};

TEST(StallWatchdog, FirstReportOfTheNextMinuteSaysHowManyStallsTheLimitLeftOut) {
  OffsetClock clock;
  Ptr<TaskSchedulerRoot> root = schedulerRootKestoNonShared("minuteroot");
  Ptr<StallWatchdog> watchdog = StallWatchdog::StallWatchdogIs(root, std::chrono::milliseconds(8), 1);
  std::vector<Ptr<TestTask>> tasks;
  // One report a minute: "first" is reported, "second" and "third" are left
  // out; a minute later "fourth" is reported and says so.
  for (const char* name : {"first", "second", "third"})
    tasks.push_back(stallingTask(root, name, watchdog));
  tasks.push_back(taskOn(root, "minuteLater", [&clock](TestTask&) { clock.advance(std::chrono::seconds(61)); }));
  tasks.push_back(stallingTask(root, "fourth", watchdog));
  KestoTest::TraceCapture capture({1}, watchdogTraceHandler());
  for (auto& t : tasks)
    t->scheduleTask();
  Platform::doEventLoop();
  ASSERT_EQ(watchdog->stallCount(), 4u);
  EXPECT_EQ(watchdog->reportCount(), 2u);
  EXPECT_EQ(watchdog->suppressedCount(), 2u);
  const auto reports = capture.linesWith("stall: task");
  ASSERT_EQ(reports.size(), 2u) << capture.text();
  EXPECT_NE(reports[0].find("stall: task first of scheduler minuteroot"), std::string::npos) << reports[0];
  EXPECT_NE(reports[1].find("stall: task fourth of scheduler minuteroot"), std::string::npos) << reports[1];
  const auto leftOut = capture.linesWith("earlier stalls not reported");
  ASSERT_EQ(leftOut.size(), 1u) << capture.text();
  EXPECT_NE(leftOut[0].find("stall: 2 earlier stalls not reported (at most 1 reports per minute)"), std::string::npos)
      << leftOut[0];
  // It comes with the report of "fourth", after the first report's lines.
  const std::string text = capture.text();
  EXPECT_LT(text.find("stall: task first"), text.find("earlier stalls not reported"));
}

TEST(StallWatchdog, ThresholdBeyondADayIsRefusedAndANegativeOneIsRaisedToTheLeast) {
  Ptr<TaskSchedulerRoot> root = schedulerRootKestoNonShared("hostileroot");
  for (const auto threshold : {StallWatchdog::maxThreshold + std::chrono::milliseconds(1),
                               std::chrono::milliseconds::max()}) {
    try {
      StallWatchdog::StallWatchdogIs(root, threshold, 1);
      ADD_FAILURE() << "no exception for " << threshold.count();
    } catch (const RuntimeException& e) {
      EXPECT_NE(std::string(e.what()).find(fmt::format("threshold {}ms is beyond 86400000ms", threshold.count())),
                std::string::npos)
          << e.what();
    }
  }
  // Nothing was armed by the refusals: the root takes a watchdog, at the
  // longest threshold and then, once that is gone, at a negative one.
  Ptr<StallWatchdog> longest = StallWatchdog::StallWatchdogIs(root, StallWatchdog::maxThreshold, 1);
  EXPECT_EQ(longest->threshold(), StallWatchdog::maxThreshold);
  longest = nullptr;
  Ptr<StallWatchdog> negative =
      StallWatchdog::StallWatchdogIs(root, std::chrono::milliseconds::min(), 0);
  EXPECT_EQ(negative->threshold(), std::chrono::milliseconds(2));
}

TEST(StallWatchdog, KeptStallsIncludeThoseTheRateLimitLeftOutOldestFirst) {
  Ptr<TaskSchedulerRoot> root = schedulerRootKestoNonShared("keptroot");
  Ptr<StallWatchdog> watchdog = StallWatchdog::StallWatchdogIs(root, std::chrono::milliseconds(8), 1);
  std::vector<Ptr<TestTask>> tasks;
  for (const char* name : {"first", "second", "third"})
    tasks.push_back(stallingTask(root, name, watchdog));
  KestoTest::TraceCapture capture({1}, watchdogTraceHandler());
  for (auto& t : tasks)
    t->scheduleTask();
  Platform::doEventLoop();
  ASSERT_EQ(watchdog->stallCount(), 3u);
  const std::vector<StallWatchdog::Stall> stalls = watchdog->stalls();
  ASSERT_EQ(stalls.size(), 3u);
  const char* names[] = {"first", "second", "third"};
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(stalls[i].taskName.view(), names[i]);
    EXPECT_EQ(stalls[i].schedulerName.view(), "keptroot");
    EXPECT_EQ(stalls[i].priority, TaskPriority::normal);
    EXPECT_EQ(stalls[i].task, TaskKey(static_cast<const TaskImpl*>(tasks[i].get())));
    // The run's own start, as the task's statistics have it.
    EXPECT_EQ(stalls[i].runStart, tasks[i]->getStats().lastTaskRunTimestamp());
    EXPECT_GE(stalls[i].elapsed, std::chrono::milliseconds(8));
    // One report a minute: only the first went to the trace.
    EXPECT_EQ(stalls[i].reported, i == 0) << i;
  }
  EXPECT_EQ(watchdog->stallsNotKept(), 0u);
}

TEST(StallWatchdog, KeepsTheLastSixteenStalls) {
  Ptr<TaskSchedulerRoot> root = schedulerRootKestoNonShared("ringroot");
  Ptr<StallWatchdog> watchdog = StallWatchdog::StallWatchdogIs(root, std::chrono::milliseconds(8), 100);
  std::vector<Ptr<TestTask>> tasks;
  for (int i = 0; i < 18; ++i)
    tasks.push_back(stallingTask(root, "st" + std::to_string(100 + i), watchdog));
  // The 18 reports go to the capture, not to the test's standard error.
  KestoTest::TraceCapture capture({1}, watchdogTraceHandler());
  for (auto& t : tasks)
    t->scheduleTask();
  Platform::doEventLoop();
  ASSERT_EQ(watchdog->stallCount(), 18u);
  const std::vector<StallWatchdog::Stall> stalls = watchdog->stalls();
  ASSERT_EQ(stalls.size(), StallWatchdog::keptStallCount);
  for (unsigned i = 0; i < StallWatchdog::keptStallCount; ++i)
    EXPECT_EQ(stalls[i].taskName.view(), "st" + std::to_string(102 + i));
}

TEST(StallWatchdog, StallAppearsInTheTimelineAsAStallSpanOverItsRun) {
  Ptr<TaskSchedulerRoot> root = schedulerRootKestoNonShared("spanroot");
  Ptr<StallWatchdog> watchdog = StallWatchdog::StallWatchdogIs(root, std::chrono::milliseconds(50), 10);
  auto spinner = taskOn(root, "spinner", [&watchdog](TestTask&) {
    kestoTestSpinningFunction(std::chrono::milliseconds(120), std::chrono::milliseconds(60), watchdog.get(), 3);
  });
  KestoTest::TraceCapture capture({1}, watchdogTraceHandler());
  spinner->scheduleTask();
  Platform::doEventLoop();
  ASSERT_EQ(watchdog->stallCount(), 1u);
  const auto snapshot =
      root->snapshot(String(), true, true, true, String(), TaskScheduler::displayOrderNotSpecified);
  ASSERT_EQ(static_cast<const TaskSchedulerSnapshotImpl&>(*snapshot).stalls.size(), 1u);
  const KestoTest::TimelineDocument t = KestoTest::parseTimeline(snapshotTimelineToString(snapshot));
  ASSERT_TRUE(t.parsed) << t.error;
  const auto stalls = t.where("X", "stall");
  const auto runs = t.where("X", "run", "spinner");
  ASSERT_EQ(stalls.size(), 1u);
  ASSERT_EQ(runs.size(), 1u);
  const KestoTest::TimelineEvent& stall = stalls[0];
  EXPECT_EQ(stall.name, "stall: spinner");
  EXPECT_EQ(stall.cname, "terrible");
  EXPECT_EQ(stall.tid, t.tid("spanroot"));
  EXPECT_EQ(stall.args.at("task"), "spinner");
  EXPECT_EQ(stall.args.at("scheduler"), "spanroot");
  EXPECT_EQ(stall.args.at("reported"), "true");
  // The span starts with the run and lies inside it, past the threshold.
  EXPECT_EQ(stall.ts, runs[0].ts);
  EXPECT_GE(std::stod(stall.dur), 50'000.0);
  EXPECT_LE(std::stod(stall.dur), std::stod(runs[0].dur));
}
