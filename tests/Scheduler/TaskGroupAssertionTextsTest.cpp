// The invariant checks at the end of a parent run, and the temporary list's
// check at its start, each provoked by a state that no sequence of ordinary
// calls produces, with the whole text after the location.
#include "GroupTestSupport.h"

#include <KestoSupport/AssertMessage.h>
#include <KestoSupport/TaskSchedulerTestAccess.h>

#include <Kesto/Platform/Platform.h>

using namespace KestoTest;

TEST(TaskGroupAssertionTexts, SuspendedParentTaskOnTheQueueAtTheEndOfARunFails) {
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  Ptr<TaskGroup> g = groupIs("g", r);
  Ptr<TestTask> a = rootTaskIs(g, TaskPriority::normal, "a", [&](TestTask&) {
    g->taskGroupSuspendedIs(true);
    TaskSchedulerTestAccess::enqueueIs(*r, *g->parentTask());
  });
  a->scheduleTask();
  EXPECT_EQ("TaskGroup::parentRun() TaskGroup parentTask should not be scheduled when suspended.",
            assertMessage(assertText([&] { g->taskGroupRunFromTest(); })));
  EXPECT_TRUE(g->parentTask()->onRunQueue());
  g->parentTask()->unscheduleTask();
  g->taskGroupSuspendedIs(false);
  Platform::doEventLoop();
}

TEST(TaskGroupAssertionTexts, RunnableTasksWithMultipleRunsAndNoParentTaskScheduledFails) {
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  Ptr<TaskGroup> g = groupIs("g", r);
  Ptr<TestTask> a = rootTaskIs(g, TaskPriority::normal, "a");
  a->scheduleTask();
  // Every pass of the run is refused, so none schedules the parent task.
  r->suspendedIs(true);
  EXPECT_EQ("TaskGroup::parentRun() TaskGroup parentTask should be scheduled.",
            assertMessage(assertText([&] { g->taskGroupRunFromTest(); })));
  EXPECT_FALSE(g->parentTaskScheduled());
  EXPECT_TRUE(a->onRunQueue());
  r->suspendedIs(false);
  a->unscheduleTask();
  Platform::doEventLoop();
}

TEST(TaskGroupAssertionTexts, RunnableTasksWithMultipleRunsAndTheFlagClearFails) {
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  Ptr<TaskGroup> g = groupIs("g", r);
  Ptr<TestTask> b = rootTaskIs(g, TaskPriority::normal, "b");
  Ptr<TestTask> a = rootTaskIs(g, TaskPriority::normal, "a", [&](TestTask&) {
    b->scheduleTask();
    TaskSchedulerTestAccess::schedulerHasRunnableTasksFieldIs(*g, false);
  });
  a->scheduleTask();
  EXPECT_EQ("TaskGroup::parentRun() The TaskGroup should have runnable tasks",
            assertMessage(assertText([&] { g->taskGroupRunFromTest(); })));
  EXPECT_TRUE(g->parentTaskScheduled());
  EXPECT_EQ(1u, g->runnableTaskCount());
  b->unscheduleTask();
  g->parentTask()->unscheduleTask();
  Platform::doEventLoop();
}

TEST(TaskGroupAssertionTexts, TemporaryListNotEmptyAtTheStartOfAOneRunEachRunFails) {
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  Ptr<TaskGroup> g = groupIs("g", r);
  g->tasksPermittedMultipleRunsIs(false);
  Ptr<TestTask> a = rootTaskIs(g, TaskPriority::normal, "a");
  a->scheduleTask();
  g->taskRunQueue(TaskPriority::normal).movePersistentToTemporary();
  EXPECT_EQ("TaskScheduler::movePersistentToTemporary() The temporary run queue should always be empty at this point",
            assertMessage(assertText([&] { g->taskGroupRunFromTest(); })));
  EXPECT_EQ(0u, a->runs);
  // Put every queue back as it was and let the task run.
  for (unsigned p = 0; p < TaskScheduler::priorityCount; ++p)
    if (g->taskRunQueue(TaskPriority(p)).usingTemporary())
      g->taskRunQueue(TaskPriority(p)).moveTemporaryToPersistent();
  EXPECT_TRUE(a->onRunQueue());
  g->parentTask()->scheduleTask();
  Platform::doEventLoop();
  EXPECT_EQ(1u, a->runs);
}
