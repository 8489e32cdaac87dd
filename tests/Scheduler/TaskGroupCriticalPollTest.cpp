// A parent task whose quantum is above 20 ms hands the thread to the root's
// critical tasks during its run: first after 20 ms, then every 10 ms,
// timed by the time-stamp counter.
//
// The poll is timed in real ticks, so these tests spend real time: a group
// task busy-waits on the counter past the deadline. The scheduler's clock is
// a ManualClock that stands still, so that the parent task never yields on
// time and the only thing that can run the critical task mid-run is the poll.
#include "GroupTestSupport.h"

#include <Kesto/Core/Rdtsc.h>
#include <Kesto/Platform/Platform.h>

#include <vector>

using namespace KestoTest;

namespace {

void busyWaitSeconds(double seconds) {
  const U64 until = Rdtsc::ticks() + Rdtsc::secondsToTicks(seconds);
  while (Rdtsc::ticks() < until) {
  }
}

// Runs a group with two tasks: the first schedules a critical task of the
// root and holds the thread for 25 ms, the second notes whether the
// critical task has run by then. Returns that note.
bool criticalRanBetweenGroupTasks(TaskDurationMs parentQuantum, unsigned* criticalStarts) {
  ManualClock clock;
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  Ptr<TaskGroup> g = groupIs("g", r);
  g->taskGroupQuantumIs(parentQuantum);
  Ptr<TestTask> critical = rootTaskIs(r, TaskPriority::critical, "criticalTest");
  Ptr<TestTask> holder = rootTaskIs(g, TaskPriority::normal, "holder", [&](TestTask&) {
    critical->scheduleTask();
    busyWaitSeconds(0.025);
  });
  bool ranBetween = false;
  Ptr<TestTask> observer =
      rootTaskIs(g, TaskPriority::normal, "observer", [&](TestTask&) { ranBetween = critical->runs == 1; });
  holder->scheduleTask();
  observer->scheduleTask();
  Platform::doEventLoop();
  EXPECT_EQ(1u, critical->runs);
  EXPECT_EQ(1u, observer->runs);
  EXPECT_EQ(1u, g->parentTaskRunCount());
  *criticalStarts = historyCount(*r, TaskSchedulerEventType::schedulerRunCriticalStart);
  return ranBetween;
}

} // namespace

TEST(TaskGroupCriticalPoll, ParentQuantumOfExactly20MsMeansNoCriticalPolling) {
  unsigned starts = 99;
  // The critical task waits for the root's next pass, after the parent run.
  EXPECT_FALSE(criticalRanBetweenGroupTasks(TaskDurationMs(20), &starts));
  EXPECT_EQ(0u, starts);
}

TEST(TaskGroupCriticalPoll, ParentQuantumOf21MsMeansPolling) {
  unsigned starts = 0;
  EXPECT_TRUE(criticalRanBetweenGroupTasks(TaskDurationMs(21), &starts));
  EXPECT_EQ(1u, starts);
}

TEST(TaskGroupCriticalPoll, PollsAreAtLeast10MsApartAfterTheFirst20) {
  ManualClock clock;
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  Ptr<TaskGroup> g = groupIs("g", r);
  g->taskGroupQuantumIs(TaskDurationMs(100));
  std::vector<U64> criticalTicks;
  Ptr<TestTask> critical = rootTaskIs(r, TaskPriority::critical, "criticalTest",
                                      [&](TestTask&) { criticalTicks.push_back(Rdtsc::ticks()); });
  U64 runStart = 0;
  U64 runEnd = 0;
  // 45 passes of 1 ms each, in one parent run: the clock stands still.
  Ptr<TestTask> worker = rootTaskIs(g, TaskPriority::normal, "worker", [&](TestTask& self) {
    if (self.runs == 1)
      runStart = Rdtsc::ticks();
    if (!critical->onRunQueue())
      critical->scheduleTask();
    busyWaitSeconds(0.001);
    if (self.runs < 45)
      self.scheduleTask();
    else
      runEnd = Rdtsc::ticks();
  });
  worker->scheduleTask();
  Platform::doEventLoop();
  EXPECT_EQ(45u, worker->runs);
  EXPECT_EQ(1u, g->parentTaskRunCount());
  // At least one poll within the run; the last scheduling is served after.
  ASSERT_GE(criticalTicks.size(), 2u);
  const U64 first = Rdtsc::secondsToTicks(0.02);
  const U64 next = Rdtsc::secondsToTicks(0.01);
  // The deadline is set just before the first pass, a few microseconds
  // before runStart: allow one pass's length for that.
  EXPECT_GE(criticalTicks[0] - runStart + Rdtsc::secondsToTicks(0.001), first);
  for (std::size_t i = 1; i + 1 < criticalTicks.size(); ++i)
    EXPECT_GE(criticalTicks[i] - criticalTicks[i - 1], next) << "poll " << i;
  // No more polls than 20 ms and then one per 10 ms fit in the run as long
  // as it really took (at least 45 ms, more if the machine was busy).
  const U64 maxPolls = 1 + (runEnd - runStart - first) / next;
  EXPECT_LE(criticalTicks.size() - 1, maxPolls);
}

TEST(TaskGroupCriticalPoll, NestedGroupPollsTheRootsCriticalTasks) {
  ManualClock clock;
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  Ptr<TaskGroup> outer = groupIs("outer", r);
  Ptr<TaskGroup> inner = groupIs("inner", outer);
  inner->taskGroupQuantumIs(TaskDurationMs(21));
  Ptr<TestTask> critical = rootTaskIs(r, TaskPriority::critical, "criticalTest");
  TaskImpl* rootRunningAfter = nullptr;
  Ptr<TestTask> holder = rootTaskIs(inner, TaskPriority::normal, "holder", [&](TestTask&) {
    critical->scheduleTask();
    busyWaitSeconds(0.025);
  });
  bool ranBetween = false;
  Ptr<TestTask> observer = rootTaskIs(inner, TaskPriority::normal, "observer", [&](TestTask&) {
    ranBetween = critical->runs == 1;
    rootRunningAfter = r->currentlyRunningTask().get();
  });
  holder->scheduleTask();
  observer->scheduleTask();
  Platform::doEventLoop();
  EXPECT_TRUE(ranBetween);
  // The root's running task, the outer parent task, was put back after.
  EXPECT_EQ(outer->parentTask().get(), rootRunningAfter);
  EXPECT_EQ(0u, runningCriticalTaskCount());
}
