// The trace lines of tasks and of the run cycle, compared whole: handler,
// level, call site and text, in the order they are written. The clock is
// driven by hand, so run times and violation percentages are exact.
#include "SchedulerTestSupport.h"

#include <KestoSupport/TraceCapture.h>

#include <fmt/format.h>

#include <string>
#include <vector>

using namespace KestoTest;
using namespace std::chrono_literals;

namespace {

using Lines = std::vector<std::string>;

} // namespace

// --- a task's own lines -------------------------------------------------------------------------

TEST(Task, SchedulingUnschedulingAndRunningTraceAtLevelEight) {
  auto s = TestScheduler::rootIs("lines");
  auto t = taskIs(s, TaskPriority::normal, "worker");
  const std::string task = shown(*t);
  const Lines lines = traceLinesOf({8}, [&] {
    t->scheduleTask();
    t->unscheduleTask();
    t->scheduleTask();
    // Already queued: nothing more is said.
    t->scheduleTask();
    EXPECT_EQ(2u, s->drive());
  });
  EXPECT_EQ((Lines{
                traceLine(8, "Task", "scheduleTask", "Scheduled " + task),
                traceLine(8, "TaskScheduler", "schedulerHasRunnableTasksIs",
                          "lines: Scheduler has runnable tasks, request run"),
                traceLine(8, "Task", "unscheduleTaskPrivate", "Unscheduled " + task),
                traceLine(8, "Task", "scheduleTask", "Scheduled " + task),
                traceLine(8, "Task", "taskDoRun", "Running " + task),
                traceLine(8, "TaskScheduler", "_handleSchedulerRun", "lines: Scheduler completed task, request run"),
                traceLine(8, "TaskScheduler", "schedulerHasRunnableTasksIs", "lines: Scheduler idle"),
            }),
            lines);
  EXPECT_EQ(1u, t->runs);
}

TEST(Task, RunBelowTwiceTheQuantumTracesItsTimeAtLevelSeven) {
  ManualClock clock;
  auto s = TestScheduler::rootIs("timed");
  auto t = taskIs(s, TaskPriority::normal, "quick", [&](TestTask&) { clock.advance(39ms); });
  ASSERT_EQ(20u, t->taskQuantum().count());
  t->scheduleTask();
  const Lines lines = traceLinesOf({5, 7}, [&] {
    s->drive();
  });
  EXPECT_EQ((Lines{traceLine(7, "Task", "taskDoRun", "Ran " + shown(*t) + " used 39ms")}), lines);
  EXPECT_EQ(0u, t->getStats().taskQuantumViolation200());
}

TEST(Task, RunOfTwiceTheQuantumOrMoreTracesAViolationAtLevelFive) {
  ManualClock clock;
  auto s = TestScheduler::rootIs("timed");
  TaskTimeDuration runFor{0};
  auto t = taskIs(s, TaskPriority::normal, "slow", [&](TestTask&) { clock.advance(runFor); });
  const std::string task = shown(*t);
  const Lines lines = traceLinesOf({5, 7}, [&] {
    runFor = 40ms;
    t->scheduleTask();
    s->drive();
    t->taskQuantumIs(TaskDurationMs(1000));
    runFor = 3s;
    t->scheduleTask();
    s->drive();
  });
  // The percentage is of the quantum, truncated; the level-seven line is not
  // written for a violation.
  EXPECT_EQ((Lines{
                traceLine(5, "Task", "taskDoRun", "Ran " + task + " used 40ms 200% violation"),
                traceLine(5, "Task", "taskDoRun", "Ran " + task + " used 3000ms 300% violation"),
            }),
            lines);
  EXPECT_EQ(2u, t->getStats().taskQuantumViolation200());
}

TEST(Task, QuantumChangeTracesAtLevelFourOrAtLevelNineForTheDefault) {
  auto s = TestScheduler::rootIs("quantum");
  auto t = taskIs(s, TaskPriority::normal, "q");
  const std::string task = shown(*t);
  const Lines lines = traceLinesOf({4, 9}, [&] {
    t->taskQuantumIs(TaskDurationMs(50));
    t->taskQuantumIs(TaskDurationMs(50));
    t->taskQuantumIs(TaskDurationMs(20));
    t->taskQuantumNoCheckIs(TaskDurationMs(5000));
  });
  EXPECT_EQ((Lines{
                traceLine(4, "Task", "taskQuantumNoCheckIs", "Set quantum " + task + " to 50ms"),
                traceLine(9, "Task", "taskQuantumNoCheckIs", "Set quantum " + task + " to 20ms"),
                traceLine(4, "Task", "taskQuantumNoCheckIs", "Set quantum " + task + " to 5000ms"),
            }),
            lines);
}

TEST(Task, SuspensionTracesAtLevelOne) {
  auto s = TestScheduler::rootIs("suspension");
  auto t = taskIs(s, TaskPriority::low, "sleeper");
  const std::string task = shown(*t);
  const Lines lines = traceLinesOf({1}, [&] {
    t->taskSuspendedIs(true);
    t->taskSuspendedIs(true);
    t->scheduleTask();
    t->taskSuspendedIs(false);
    t->taskSuspendedIs(false);
  });
  EXPECT_EQ((Lines{
                traceLine(1, "Task", "taskSuspendedIs", "Suspend " + task),
                traceLine(1, "Task", "taskSuspendedIs", "Unsuspend " + task),
            }),
            lines);
  EXPECT_TRUE(t->onRunQueue());
  t->unscheduleTask();
}

// --- the scheduler's lines ----------------------------------------------------------------------

TEST(TaskScheduler, RegistrationAndUnregistrationTraceAtLevelFour) {
  auto s = TestScheduler::rootIs("registry");
  std::string task;
  const Lines lines = traceLinesOf({4}, [&] {
    auto t = taskIs(s, TaskPriority::high, "member");
    task = shown(*t);
  });
  EXPECT_EQ((Lines{
                traceLine(4, "TaskScheduler", "taskRegister", "registry: Register " + task),
                traceLine(4, "TaskScheduler", "taskUnregister", "registry: Unregister " + task),
            }),
            lines);
}

TEST(TaskScheduler, PassDuringSuspensionTracesSuspendedAtLevelEight) {
  auto s = TestScheduler::rootIs("held");
  auto t = taskIs(s, TaskPriority::normal, "waiting");
  t->scheduleTask();
  s->suspendedIs(true);
  const Lines lines = traceLinesOf({8}, [&] {
    EXPECT_FALSE(s->_handleSchedulerRun(TaskPriority::scavenge));
  });
  EXPECT_EQ((Lines{traceLine(8, "TaskScheduler", "_handleSchedulerRun", "held: Suspended")}), lines);
  EXPECT_EQ(0u, t->runs);
  s->suspendedIs(false);
  s->drive();
  EXPECT_EQ(1u, t->runs);
}
