// Suspending a group as a whole: its trace, the parent task leaving the
// parent's queue while the group's tasks keep their places, the stop after
// the task that suspended it, and the one run at unsuspension.
#include "GroupTestSupport.h"

#include <KestoSupport/TraceCapture.h>

#include <Kesto/Platform/Platform.h>

using namespace KestoTest;

TEST(TaskGroupSuspend, SuspendingTracesAndTakesTheParentTaskOffTheQueueWhileTasksKeepTheirPlaces) {
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  Ptr<TaskGroup> g = groupIs("g", r);
  Ptr<TestTask> t = rootTaskIs(g, TaskPriority::normal, "waiting");
  t->scheduleTask();
  ASSERT_TRUE(g->parentTaskScheduled());
  {
    TraceCapture trace({1});
    g->taskGroupSuspendedIs(true);
    EXPECT_EQ(traceLine(1, "TaskGroup", "taskGroupSuspendedIs", "g: Suspended=true"),
              trace.onlyLineWith("Suspended="));
    // The parent task's own suspension follows the group's line.
    EXPECT_EQ(traceLine(1, "Task", "taskSuspendedIs", "Suspend " + shown(*g->parentTask())),
              trace.onlyLineWith("Suspend "));
  }
  EXPECT_TRUE(g->suspended());
  EXPECT_TRUE(g->taskGroupSuspended());
  EXPECT_FALSE(g->parentTaskScheduled());
  EXPECT_TRUE(t->onRunQueue());
  EXPECT_EQ(1u, g->runnableTaskCount());
  Platform::doEventLoop();
  EXPECT_EQ(0u, t->runs);
  EXPECT_EQ(0u, g->parentTaskRunCount());
  {
    TraceCapture trace({1});
    g->taskGroupSuspendedIs(false);
    EXPECT_EQ(traceLine(1, "TaskGroup", "taskGroupSuspendedIs", "g: Suspended=false"),
              trace.onlyLineWith("Suspended="));
  }
  EXPECT_TRUE(g->parentTaskScheduled());
  Platform::doEventLoop();
  EXPECT_EQ(1u, t->runs);
}

TEST(TaskGroupSuspend, UnchangedValueDoesNothingAndSuspendedIsIsTheSame) {
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  Ptr<TaskGroup> g = groupIs("g", r);
  {
    TraceCapture trace({1});
    g->taskGroupSuspendedIs(false);
    EXPECT_TRUE(trace.lines().empty());
  }
  g->suspendedIs(true);
  EXPECT_TRUE(g->taskGroupSuspended());
  EXPECT_TRUE(g->suspended());
  const unsigned events = r->historyEventCount();
  {
    TraceCapture trace({1});
    g->suspendedIs(true);
    g->taskGroupSuspendedIs(true);
    EXPECT_TRUE(trace.lines().empty());
  }
  EXPECT_EQ(events, r->historyEventCount());
  g->suspendedIs(false);
  EXPECT_FALSE(g->taskGroupSuspended());
  Platform::doEventLoop();
}

TEST(TaskGroupSuspend, UnsuspendingGivesTheGroupOneRunEvenWithNothingToDo) {
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  Ptr<TaskGroup> g = groupIs("g", r);
  g->taskGroupSuspendedIs(true);
  g->taskGroupSuspendedIs(false);
  EXPECT_TRUE(g->parentTaskScheduled());
  Platform::doEventLoop();
  EXPECT_EQ(1u, g->parentTaskRunCount());
  // The run found nothing: no pass, nothing left.
  EXPECT_EQ(0u, g->parentTask()->getStats().taskWorkCountTotal());
  EXPECT_FALSE(g->parentTaskScheduled());
  EXPECT_FALSE(g->schedulerHasRunnableTasks());
}

TEST(TaskGroupSuspend, TasksOfASuspendedGroupYieldAtOnce) {
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  Ptr<TaskGroup> g = groupIs("g", r);
  bool before = true;
  bool after = false;
  Ptr<TestTask> t = rootTaskIs(g, TaskPriority::normal, "poller", [&](TestTask& self) {
    self.taskQuantumIs(TaskDurationMs(1000));
    before = self.taskShouldYield();
    g->taskGroupSuspendedIs(true);
    after = self.taskShouldYield();
  });
  t->scheduleTask();
  Platform::doEventLoop();
  EXPECT_FALSE(before);
  EXPECT_TRUE(after);
  g->taskGroupSuspendedIs(false);
  Platform::doEventLoop();
}

namespace {

// Three tasks a, b, c; a suspends the group. Whatever the mode, b and c wait
// for the unsuspension.
void suspendedDuringATasksRunStopsAfterIt(bool multipleRuns) {
  SCOPED_TRACE(multipleRuns ? "multiple runs" : "one run each");
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  Ptr<TaskGroup> g = groupIs("g", r);
  g->tasksPermittedMultipleRunsIs(multipleRuns);
  RunLog log;
  Ptr<TestTask> a = rootTaskIs(g, TaskPriority::normal, "a", [&](TestTask&) {
    log.names.push_back("a");
    g->taskGroupSuspendedIs(true);
  });
  Ptr<TestTask> b = rootTaskIs(g, TaskPriority::normal, "b", log.append("b"));
  Ptr<TestTask> c = rootTaskIs(g, TaskPriority::normal, "c", log.append("c"));
  a->scheduleTask();
  b->scheduleTask();
  c->scheduleTask();
  Platform::doEventLoop();
  EXPECT_EQ("a", log.joined());
  EXPECT_EQ(1u, g->parentTaskRunCount());
  EXPECT_FALSE(g->parentTaskScheduled());
  EXPECT_EQ(2u, g->runnableTaskCount());
  EXPECT_FALSE(g->taskRunQueue(TaskPriority::normal).usingTemporary());
  // b and c went back to the persistent list in their order.
  EXPECT_EQ(2u, g->parentTask()->getStats().taskWorkPending());
  g->taskGroupSuspendedIs(false);
  Platform::doEventLoop();
  EXPECT_EQ("a b c", log.joined());
}

} // namespace

TEST(TaskGroupSuspend, AGroupSuspendedDuringATasksRunStopsAfterThatTask) {
  suspendedDuringATasksRunStopsAfterIt(true);
  suspendedDuringATasksRunStopsAfterIt(false);
}

TEST(TaskGroupSuspend, SuspendingTheRootStopsTheGroupsPassesToo) {
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  Ptr<TaskGroup> outer = groupIs("outer", r);
  Ptr<TaskGroup> inner = groupIs("inner", outer);
  RunLog log;
  Ptr<TestTask> a = rootTaskIs(inner, TaskPriority::normal, "a", [&](TestTask&) {
    log.names.push_back("a");
    r->suspendedIs(true);
  });
  Ptr<TestTask> b = rootTaskIs(inner, TaskPriority::normal, "b", log.append("b"));
  a->scheduleTask();
  b->scheduleTask();
  Platform::doEventLoop();
  // The inner pass after a is refused, and the nested parent runs end.
  EXPECT_EQ("a", log.joined());
  EXPECT_EQ(1u, inner->parentTaskRunCount());
  EXPECT_GE(historyCount(*r, TaskSchedulerEventType::schedulerRunIgnoredWhileSuspended), 1u);
  r->suspendedIs(false);
  Platform::doEventLoop();
  EXPECT_EQ("a b", log.joined());
}
