// The root's trace lines, compared whole: handler, level, call site and
// text. Timers of the root's wheel run on a clock set by hand.
#include "RootTestSupport.h"

#include <KestoSupport/TraceCapture.h>

#include <Kesto/TimerWheel/TimerWheel.h>

#include <fmt/format.h>

#include <string>
#include <vector>

using namespace KestoTest;

namespace {

using Lines = std::vector<std::string>;

double wheelNow = 0.0;
double wheelClock() { return wheelNow; }

// A wheel timer's handler that schedules a task when it fires.
class ScheduleOnTimeout : public Platform::TimeoutHandler {
public:
  explicit ScheduleOnTimeout(TaskImpl& task) : task_(task) {}
  void timeout() override { task_.scheduleTask(); }

private:
  TaskImpl& task_;
};

// The two lines of runCriticalPriorityTasks() on the root named `root`.
Lines criticalRunLines(const char* root, const char* running, unsigned expired, unsigned ran) {
  return {traceLine(6, "TaskSchedulerRoot", "runCriticalPriorityTasks",
                    fmt::format("scheduler={}: while running {}", root, running)),
          traceLine(6, "TaskSchedulerRoot", "runCriticalPriorityTasks",
                    fmt::format("scheduler={}: expired {} timers, ran {} critical tasks", root, expired, ran))};
}

} // namespace

TEST(TaskSchedulerRoot, RequestWhileSuspendedTracesThatItIsIgnored) {
  Ptr<CountingRoot> r = CountingRoot::rootIs("quiet");
  r->suspendedIs(true);
  const Lines lines = traceLinesOf({8}, [&] {
    r->requestSchedulerRun();
  });
  EXPECT_EQ((Lines{traceLine(8, "TaskSchedulerRoot", "requestSchedulerRun",
                             "quiet: ignore requestSchedulerRun, scheduler is suspended")}),
            lines);
  EXPECT_FALSE(r->callbackControl()->pendingCallback());
  r->suspendedIs(false);
  Platform::doEventLoop();
  EXPECT_EQ(1u, r->passes);
}

TEST(TaskSchedulerRoot, ThreadSanitySwitchTracesAtLevelOne) {
  Ptr<CountingRoot> r = CountingRoot::rootIs("checked");
  ASSERT_FALSE(r->threadSanityDisabled());
  const Lines lines = traceLinesOf({1}, [&] {
    r->threadSanityDisabledIs(true);
    r->threadSanityDisabledIs(true);
    r->threadSanityDisabledIs(false);
    r->threadSanityDisabledIs(false);
  });
  EXPECT_EQ((Lines{
                traceLine(1, "TaskSchedulerRoot", "threadSanityDisabledIs", "checked: disable thread sanity checking"),
                traceLine(1, "TaskSchedulerRoot", "threadSanityDisabledIs", "checked: enable thread sanity checking"),
            }),
            lines);
}

TEST(TaskSchedulerRoot, CriticalRunFromATaskTracesTheRunningTaskAndWhatRan) {
  Ptr<CountingRoot> r = CountingRoot::rootIs("escape");
  Ptr<TestTask> first = rootTaskIs(r, TaskPriority::critical, "firstTest");
  Ptr<TestTask> second = rootTaskIs(r, TaskPriority::critical, "secondTest");
  Lines lines;
  Ptr<TestTask> worker = rootTaskIs(r, TaskPriority::normal, "worker", [&](TestTask&) {
    first->scheduleTask();
    second->scheduleTask();
    lines = traceLinesOf({6}, [&] { r->runCriticalPriorityTasks(); });
  });
  worker->scheduleTask();
  Platform::doEventLoop();
  EXPECT_EQ(criticalRunLines("escape", "worker", 0, 2), lines);
  EXPECT_EQ(1u, first->runs);
  EXPECT_EQ(1u, second->runs);
}

TEST(TaskSchedulerRoot, CriticalRunOutsideATaskTracesNoneAndTheExpiredTimers) {
  wheelNow = 1000.0;
  timerWheelClockIsForTest(wheelClock);
  {
    Ptr<CountingRoot> r = CountingRoot::rootIs("outside");
    Ptr<TestTask> critical = rootTaskIs(r, TaskPriority::critical, "timerDrivenTest");
    ScheduleOnTimeout firstHandler(*critical);
    ScheduleOnTimeout secondHandler(*critical);
    Ptr<Platform::TimerControl> firstTimer = Platform::getTimerControl(&firstHandler, r->timerWheel());
    Ptr<Platform::TimerControl> secondTimer = Platform::getTimerControl(&secondHandler, r->timerWheel());
    firstTimer->setTimeout(0.5);
    secondTimer->setTimeout(0.75);
    wheelNow = 1001.0;
    const Lines lines = traceLinesOf({6}, [&] { r->runCriticalPriorityTasks(); });
    // Both timers scheduled the one task; it ran once.
    EXPECT_EQ(criticalRunLines("outside", "<none>", 2, 1), lines);
    EXPECT_EQ(1u, critical->runs);
  }
  timerWheelClockIsForTest(nullptr);
}

TEST(TaskSchedulerRoot, ClearingTheHistoryTracesAtLevelTwo) {
  Ptr<CountingRoot> r = CountingRoot::rootIs("recorder");
  Ptr<TestTask> t = rootTaskIs(r, TaskPriority::normal, "t");
  ASSERT_LT(0u, r->historyEventCount());
  const Lines lines = traceLinesOf({2}, [&] {
    r->clearHistory();
  });
  EXPECT_EQ((Lines{traceLine(2, "TaskSchedulerHistory", "clearHistory", "recorder: history cleared")}), lines);
  EXPECT_EQ(0u, r->historyEventCount());
}
