// A task group's construction, its wake-up through the parent task, the run
// of its tasks inside the parent task, the parent task's work figures, and
// the order in which a group and its parent task go.
#include "GroupTestSupport.h"

#include <KestoSupport/AssertMessage.h>

#include <Kesto/Platform/Platform.h>

using namespace KestoTest;

// --- construction -----------------------------------------------------------------------

TEST(TaskGroup, ConstructionRegistersTheGroupWithTheRootAndItsParentTaskWithTheParent) {
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  r->defaultTaskQuantumIs(TaskDurationMs(35));
  Ptr<TaskGroup> g = groupIs("g", r, TaskPriority::high, TaskGroupPriorityEnforcement::onlyAllowRegularPriorities);
  EXPECT_EQ(1u, r->taskGroupCount());
  EXPECT_EQ(g.get(), r->findSchedulerForTest("g"));
  EXPECT_EQ(r.get(), g->rootScheduler());
  EXPECT_EQ(r.get(), g->taskSchedulerRoot());
  EXPECT_EQ(r.get(), g->parentScheduler());
  EXPECT_EQ(r->taskSchedulerHistory().get(), g->taskSchedulerHistory().get());
  EXPECT_EQ(TaskPriority::high, g->taskGroupPriority());
  EXPECT_EQ(TaskGroupPriorityEnforcement::onlyAllowRegularPriorities, g->priorityEnforcement());
  // The parent's default quantum becomes the group's and the parent task's.
  EXPECT_EQ(TaskDurationMs(35), g->defaultTaskQuantum());
  EXPECT_EQ(TaskDurationMs(35), g->taskGroupQuantum());
  EXPECT_TRUE(g->tasksPermittedMultipleRuns());
  EXPECT_TRUE(g->tasksPermittedMultipleRunsInForce());
  EXPECT_FALSE(g->taskGroupForceYieldInTest());
  EXPECT_FALSE(g->taskGroupSuspended());

  // The parent task is a task of the root like any other.
  Ptr<TaskImpl> parent = r->taskForTest("TaskGroup;g");
  ASSERT_TRUE(parent);
  EXPECT_EQ(g->parentTask().get(), parent.get());
  EXPECT_EQ(g.get(), g->parentTask()->taskGroup());
  EXPECT_EQ(TaskPriority::high, parent->taskPriority());
  EXPECT_EQ(1u, r->tasksPerPriority(TaskPriority::high));
  EXPECT_TRUE(parent->isTaskGroup());
  EXPECT_TRUE(parent->getStats().taskStatus().taskIsTaskGroup());
  EXPECT_FALSE(g->parentTaskScheduled());
  EXPECT_EQ(0u, g->parentTaskRunCount());
  EXPECT_EQ("create H TaskGroup;g", historyLines(*r).front());
  // Creating a group runs nothing.
  Platform::doEventLoop();
  EXPECT_EQ(0u, r->passes);
}

TEST(TaskGroup, GroupOfAGroupTakesTheRootAndTheHistoryOfItsParent) {
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  Ptr<TaskGroup> outer = groupIs("outer", r);
  outer->defaultTaskQuantumIs(TaskDurationMs(7));
  Ptr<TaskGroup> inner = groupIs("inner", outer, TaskPriority::low);
  EXPECT_EQ(2u, r->taskGroupCount());
  EXPECT_EQ(r.get(), inner->rootScheduler());
  EXPECT_EQ(outer.get(), inner->parentScheduler());
  EXPECT_EQ(r->taskSchedulerHistory().get(), inner->taskSchedulerHistory().get());
  EXPECT_EQ(TaskDurationMs(7), inner->defaultTaskQuantum());
  EXPECT_EQ(TaskDurationMs(7), inner->taskGroupQuantum());
  // The inner parent task lives in the outer group, not in the root.
  EXPECT_TRUE(outer->taskForTest("TaskGroup;inner"));
  EXPECT_FALSE(r->taskForTest("TaskGroup;inner"));
  // Two parent tasks: the outer one in the root, the inner one in the outer group.
  EXPECT_EQ(2u, r->totalRegisteredTaskCount());
}

TEST(TaskGroup, RefusedParentTaskLeavesNoGroupBehind) {
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  Ptr<TaskGroup> outer = groupIs("strict", r, TaskPriority::high, TaskGroupPriorityEnforcement::sameAsGroupPriority);
  const std::string text = assertMessage(assertText([&] { groupIs("refused", outer, TaskPriority::normal); }));
  EXPECT_EQ("TaskGroup::validateTaskPriority() priorityEnforcement=sameAsGroupPriority taskPriority=normal "
            "taskGroupPriority=high",
            text);
  EXPECT_EQ(1u, r->taskGroupCount());
  EXPECT_EQ(nullptr, r->findSchedulerForTest("refused"));
  EXPECT_EQ(0u, outer->registeredTaskCount());
}

// --- wake-up and run -------------------------------------------------------------------------

TEST(TaskGroup, SchedulingATaskOfTheGroupSchedulesTheParentTaskAndTheLoopRunsItInside) {
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  Ptr<TaskGroup> g = groupIs("g", r);
  TaskImpl* runningInGroup = nullptr;
  TaskImpl* runningInRoot = nullptr;
  Ptr<TestTask> t = rootTaskIs(g, TaskPriority::normal, "inGroup", [&](TestTask&) {
    runningInGroup = g->currentlyRunningTask().get();
    runningInRoot = r->currentlyRunningTask().get();
  });
  t->scheduleTask();
  EXPECT_TRUE(g->schedulerHasRunnableTasks());
  EXPECT_TRUE(g->parentTaskScheduled());
  EXPECT_TRUE(r->callbackControl()->pendingCallback());
  Platform::doEventLoop();
  EXPECT_EQ(1u, t->runs);
  EXPECT_EQ(1u, g->parentTaskRunCount());
  // Two anchors nest: the root's for the parent task, the group's for its task.
  EXPECT_EQ(t.get(), runningInGroup);
  EXPECT_EQ(g->parentTask().get(), runningInRoot);
  EXPECT_FALSE(g->currentlyRunningTask());
  EXPECT_FALSE(g->parentTaskScheduled());
  EXPECT_FALSE(g->schedulerHasRunnableTasks());
  EXPECT_FALSE(g->schedulerBusy());
  // One pass ran the parent task, one found the root empty.
  EXPECT_EQ(2u, r->passes);
  EXPECT_EQ(1u, r->runTaskCount(TaskPriority::normal));
  EXPECT_EQ(1u, g->runTaskCount(TaskPriority::normal));
}

TEST(TaskGroup, ParentTaskCountsItsPassesAsWorkAndWhatIsLeftAsPending) {
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  Ptr<TaskGroup> g = groupIs("g", r);
  g->tasksPermittedMultipleRunsIs(false);
  Ptr<TestTask> late = rootTaskIs(g, TaskPriority::low, "late");
  Ptr<TestTask> a = rootTaskIs(g, TaskPriority::normal, "a", [&](TestTask&) { late->scheduleTask(); });
  Ptr<TestTask> b = rootTaskIs(g, TaskPriority::normal, "b");
  a->scheduleTask();
  b->scheduleTask();
  EXPECT_TRUE(r->handleSchedulerRun());
  // Passes: a, b, and the one that found the temporary lists empty.
  TaskStat stat = g->parentTask()->getStats();
  EXPECT_EQ(3u, stat.taskWorkCountTotal());
  EXPECT_EQ(1u, stat.taskWorkPending());
  EXPECT_EQ(0u, late->runs);
  // What waits keeps the group and its parent task runnable.
  EXPECT_TRUE(g->schedulerHasRunnableTasks());
  EXPECT_TRUE(g->parentTaskScheduled());
  Platform::doEventLoop();
  EXPECT_EQ(1u, late->runs);
  stat = g->parentTask()->getStats();
  EXPECT_EQ(5u, stat.taskWorkCountTotal());
  EXPECT_EQ(0u, stat.taskWorkPending());
  EXPECT_EQ(1u, stat.taskWorkPendingHighWaterMark());
  EXPECT_EQ(2u, g->parentTaskRunCount());
}

TEST(TaskGroup, GroupRunFromTestIsOneParentRunNow) {
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  Ptr<TaskGroup> g = groupIs("g", r);
  Ptr<TestTask> t = rootTaskIs(g, TaskPriority::normal, "t");
  t->scheduleTask();
  g->taskGroupRunFromTest();
  EXPECT_EQ(1u, t->runs);
  EXPECT_EQ(1u, g->parentTaskRunCount());
  EXPECT_FALSE(g->parentTaskScheduled());
  Platform::doEventLoop();
  EXPECT_EQ(1u, g->parentTaskRunCount());
}

TEST(TaskGroup, GroupQuantumIsTheParentTasksAndIsCheckedLikeAnyQuantum) {
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  Ptr<TaskGroup> g = groupIs("g", r);
  g->taskGroupQuantumIs(TaskDurationMs(1000));
  EXPECT_EQ(TaskDurationMs(1000), g->parentTask()->taskQuantum());
  EXPECT_EQ("Task::taskQuantumIs() Quantum: 1001ms",
            assertMessage(assertText([&] { g->taskGroupQuantumIs(TaskDurationMs(1001)); })));
  g->taskGroupQuantumNoCheckIs(TaskDurationMs(5000));
  EXPECT_EQ(TaskDurationMs(5000), g->taskGroupQuantum());
  // The tasks of the group keep their own quantum, from the group's default.
  Ptr<TestTask> t = rootTaskIs(g, TaskPriority::normal, "t");
  EXPECT_EQ(TaskDurationMs(20), t->taskQuantum());
}

TEST(TaskGroup, StatusOfATaskShowsASuspendedSchedulerAnywhereAboveIt) {
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  Ptr<TaskGroup> outer = groupIs("outer", r);
  Ptr<TaskGroup> inner = groupIs("inner", outer);
  Ptr<TestTask> t = rootTaskIs(inner, TaskPriority::normal, "deep");
  EXPECT_FALSE(t->taskStatus().schedulerSuspended());
  outer->taskGroupSuspendedIs(true);
  EXPECT_TRUE(t->taskStatus().schedulerSuspended());
  EXPECT_FALSE(t->taskStatus().taskSuspended());
  // The inner parent task is a task of the suspended outer group.
  EXPECT_TRUE(inner->parentTask()->taskStatus().schedulerSuspended());
  EXPECT_TRUE(inner->parentTask()->taskStatus().taskIsTaskGroup());
  outer->taskGroupSuspendedIs(false);
  EXPECT_FALSE(t->taskStatus().schedulerSuspended());
  Platform::doEventLoop();
}

// --- destruction ----------------------------------------------------------------------------------

TEST(TaskGroup, DestroyingTheGroupUnregistersItAndItsParentTask) {
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  Ptr<TaskGroup> g = groupIs("g", r);
  {
    Ptr<TestTask> t = rootTaskIs(g, TaskPriority::normal, "t");
    t->scheduleTask();
    Platform::doEventLoop();
  }
  EXPECT_EQ(1u, g->refCount());
  g = nullptr;
  EXPECT_EQ(0u, r->taskGroupCount());
  EXPECT_EQ(0u, r->registeredTaskCount());
  EXPECT_EQ(0u, r->tasksPerPriority(TaskPriority::normal));
  // The parent task folded its figures into the root's completed record.
  const TaskStat completed = r->completedTaskStatForTest("TaskGroup;g");
  EXPECT_EQ(1u, completed.taskCompletedCount());
  EXPECT_EQ(1u, completed.taskRunCount());
  EXPECT_EQ("delete N TaskGroup;g", historyLines(*r).front());
}

TEST(TaskGroup, TasksHoldTheirGroupSoAGroupWithTasksStays) {
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  Ptr<TaskGroup> g = groupIs("g", r);
  TaskGroup* raw = g.get();
  Ptr<TestTask> t = rootTaskIs(g, TaskPriority::normal, "holder");
  g = nullptr;
  EXPECT_EQ(1u, r->taskGroupCount());
  t->scheduleTask();
  Platform::doEventLoop();
  EXPECT_EQ(1u, t->runs);
  EXPECT_EQ(1u, raw->parentTaskRunCount());
  t = nullptr;
  EXPECT_EQ(0u, r->taskGroupCount());
}

TEST(TaskGroup, ParentTaskHeldBeyondItsGroupRunsAsNothingAndNoLongerClaimsAGroup) {
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  Ptr<TaskGroup> g = groupIs("g", r);
  Ptr<TaskImpl> parent = r->taskForTest("TaskGroup;g");
  g = nullptr;
  EXPECT_EQ(0u, r->taskGroupCount());
  // The group cleared the back pointer before it let go of the task.
  EXPECT_EQ("TaskGroup::isTaskGroup() TaskGroup is non-null",
            assertMessage(assertText([&] { (void)parent->isTaskGroup(); })));
  parent->scheduleTask();
  Platform::doEventLoop();
  EXPECT_EQ(1u, parent->taskRunCount());
  EXPECT_FALSE(parent->onRunQueue());
  EXPECT_EQ(1u, r->registeredTaskCount());
  parent = nullptr;
  EXPECT_EQ(0u, r->registeredTaskCount());
}
