// Re-entrant changes to a group from inside its own tasks: the last outside
// reference dropped, the group destroyed while its parent task runs,
// suspension and resumption, and peers destroyed or moved while they wait on
// a temporary list. Each must leave the lists and counts consistent (and is
// run under AddressSanitizer in the sanitizer build).
#include "GroupTestSupport.h"

#include <Kesto/Platform/Platform.h>

#include <memory>

using namespace KestoTest;

namespace {

// Notes, when it is destroyed, what the root was running at that moment:
// captured by a busy callback, it goes with the group's callback map.
struct DestructionWitness {
  TaskSchedulerRoot* root;
  std::string* runningAtDestruction;
  bool* parentRunningAtDestruction;
  ~DestructionWitness() {
    const Ptr<TaskImpl>& running = root->currentlyRunningTask();
    *runningAtDestruction = running ? std::string(running->taskName().view()) : "<none>";
    *parentRunningAtDestruction = running && running->taskCurrentlyRunning();
  }
};

} // namespace

TEST(TaskGroupReentrancy, ATaskThatDropsTheLastOutsideReferenceToItsGroupKeepsItAlive) {
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  Ptr<TaskGroup> g = groupIs("g", r);
  TaskGroup* raw = g.get();
  Ptr<TestTask> t = rootTaskIs(g, TaskPriority::normal, "dropper", [&](TestTask& self) {
    if (self.runs == 1) {
      g = nullptr;
      self.scheduleTask();
    }
  });
  t->scheduleTask();
  Platform::doEventLoop();
  // The task's own reference carried the group on, through a second run.
  EXPECT_EQ(2u, t->runs);
  EXPECT_EQ(1u, r->taskGroupCount());
  EXPECT_EQ(1u, raw->refCount());
  t = nullptr;
  EXPECT_EQ(0u, r->taskGroupCount());
  EXPECT_EQ(0u, r->registeredTaskCount());
}

TEST(TaskGroupReentrancy, AGroupWhoseLastTaskDropsEverythingGoesWhileItsParentTaskIsStillRunning) {
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  Ptr<TaskGroup> g = groupIs("g", r);
  std::string runningAtDestruction;
  bool parentRunningAtDestruction = false;
  g->registerBusyCallback(nullptr, [witness = std::make_shared<DestructionWitness>(DestructionWitness{
                                        r.get(), &runningAtDestruction, &parentRunningAtDestruction})] {});
  unsigned groupsDuringRun = 0;
  Ptr<TestTask> t;
  t = rootTaskIs(g, TaskPriority::normal, "lastOne", [&](TestTask&) {
    g = nullptr;
    t = nullptr;
    // Held by this run and by the parent run.
    groupsDuringRun = r->taskGroupCount();
  });
  t->scheduleTask();
  Platform::doEventLoop();
  EXPECT_EQ(1u, groupsDuringRun);
  // The group went at the end of its parent run, inside it.
  EXPECT_EQ("TaskGroup;g", runningAtDestruction);
  EXPECT_TRUE(parentRunningAtDestruction);
  EXPECT_EQ(0u, r->taskGroupCount());
  // Then the parent task went when the root's anchor let go of it.
  EXPECT_EQ(0u, r->registeredTaskCount());
  EXPECT_FALSE(r->currentlyRunningTask());
  EXPECT_EQ(1u, r->completedTaskStatForTest("TaskGroup;g").taskCompletedCount());
  EXPECT_FALSE(r->schedulerHasRunnableTasks());
}

TEST(TaskGroupReentrancy, AnInnerGroupGoesWhileTheOuterParentTaskRuns) {
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  Ptr<TaskGroup> outer = groupIs("outer", r);
  Ptr<TaskGroup> inner = groupIs("inner", outer);
  std::string runningAtDestruction;
  bool parentRunningAtDestruction = false;
  inner->registerBusyCallback(nullptr, [witness = std::make_shared<DestructionWitness>(DestructionWitness{
                                            r.get(), &runningAtDestruction, &parentRunningAtDestruction})] {});
  Ptr<TestTask> t;
  t = rootTaskIs(inner, TaskPriority::normal, "lastOne", [&](TestTask&) {
    inner = nullptr;
    t = nullptr;
  });
  Ptr<TestTask> after = rootTaskIs(outer, TaskPriority::normal, "after");
  t->scheduleTask();
  after->scheduleTask();
  Platform::doEventLoop();
  EXPECT_EQ("TaskGroup;outer", runningAtDestruction);
  EXPECT_TRUE(parentRunningAtDestruction);
  EXPECT_EQ(1u, r->taskGroupCount());
  EXPECT_EQ(1u, after->runs);
  EXPECT_EQ(1u, outer->registeredTaskCount());
  EXPECT_EQ(1u, outer->completedTaskStatForTest("TaskGroup;inner").taskCompletedCount());
}

TEST(TaskGroupReentrancy, AGroupSuspendedAndResumedFromInsideOneOfItsTasksGoesOn) {
  for (bool multipleRuns : {true, false}) {
    SCOPED_TRACE(multipleRuns ? "multiple runs" : "one run each");
    Ptr<CountingRoot> r = CountingRoot::rootIs();
    Ptr<TaskGroup> g = groupIs("g", r);
    g->tasksPermittedMultipleRunsIs(multipleRuns);
    RunLog log;
    Ptr<TestTask> a = rootTaskIs(g, TaskPriority::normal, "a", [&](TestTask&) {
      log.names.push_back("a");
      g->taskGroupSuspendedIs(true);
      g->taskGroupSuspendedIs(false);
    });
    Ptr<TestTask> b = rootTaskIs(g, TaskPriority::normal, "b", log.append("b"));
    a->scheduleTask();
    b->scheduleTask();
    Platform::doEventLoop();
    EXPECT_EQ("a b", log.joined());
    // Unsuspension scheduled the parent task again while it ran: one more
    // run that finds nothing, at most.
    EXPECT_LE(g->parentTaskRunCount(), 2u);
    EXPECT_FALSE(g->parentTaskScheduled());
    EXPECT_FALSE(g->taskGroupSuspended());
    EXPECT_FALSE(g->schedulerHasRunnableTasks());
    EXPECT_EQ(0u, g->runnableTaskCount());
  }
}

TEST(TaskGroupReentrancy, APeerDestroyedOnTheTemporaryListLeavesIt) {
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  Ptr<TaskGroup> g = groupIs("g", r);
  g->tasksPermittedMultipleRunsIs(false);
  RunLog log;
  Ptr<TestTask> b = rootTaskIs(g, TaskPriority::normal, "b", log.append("b"));
  Ptr<TestTask> a = rootTaskIs(g, TaskPriority::normal, "a", [&](TestTask&) {
    log.names.push_back("a");
    b = nullptr;
  });
  Ptr<TestTask> c = rootTaskIs(g, TaskPriority::normal, "c", log.append("c"));
  a->scheduleTask();
  b->scheduleTask();
  c->scheduleTask();
  Platform::doEventLoop();
  EXPECT_EQ("a c", log.joined());
  EXPECT_EQ(0u, g->runnableTaskCount());
  EXPECT_EQ(1u, g->parentTaskRunCount());
}

TEST(TaskGroupReentrancy, APeerMovedToAnotherPriorityFromTheTemporaryListWaitsForTheNextRun) {
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  Ptr<TaskGroup> g = groupIs("g", r);
  g->tasksPermittedMultipleRunsIs(false);
  RunLog log;
  Ptr<TestTask> b = rootTaskIs(g, TaskPriority::normal, "b", log.append("b"));
  Ptr<TestTask> a = rootTaskIs(g, TaskPriority::normal, "a", [&](TestTask&) {
    log.names.push_back("a");
    // Off the temporary list, onto the persistent list of high.
    b->taskPriorityIs(TaskPriority::high);
  });
  Ptr<TestTask> c = rootTaskIs(g, TaskPriority::normal, "c", log.append("c"));
  a->scheduleTask();
  b->scheduleTask();
  c->scheduleTask();
  EXPECT_TRUE(r->handleSchedulerRun());
  EXPECT_EQ("a c", log.joined());
  EXPECT_TRUE(b->onRunQueue());
  EXPECT_FALSE(g->taskRunQueue(TaskPriority::high).usingTemporary());
  Platform::doEventLoop();
  EXPECT_EQ("a c b", log.joined());
  EXPECT_EQ(2u, g->parentTaskRunCount());
}

TEST(TaskGroupReentrancy, AGroupMadeAndDroppedInsideAnotherGroupsTaskLeavesNothingQueued) {
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  Ptr<TaskGroup> outer = groupIs("outer", r);
  unsigned innerRuns = 0;
  bool innerParentQueued = false;
  Ptr<TestTask> maker = rootTaskIs(outer, TaskPriority::normal, "maker", [&](TestTask&) {
    Ptr<TaskGroup> inner = groupIs("transient", outer);
    Ptr<TestTask> t = rootTaskIs(inner, TaskPriority::normal, "t", [&](TestTask&) { ++innerRuns; });
    t->scheduleTask();
    innerParentQueued = inner->parentTaskScheduled();
    // The task, then the group, then its parent task go, which takes it off
    // the outer group's queue.
  });
  maker->scheduleTask();
  Platform::doEventLoop();
  EXPECT_TRUE(innerParentQueued);
  EXPECT_EQ(0u, innerRuns);
  EXPECT_EQ(1u, r->taskGroupCount());
  EXPECT_EQ(1u, outer->registeredTaskCount());
  EXPECT_EQ(0u, outer->runnableTaskCount());
  EXPECT_FALSE(outer->parentTaskScheduled());
  EXPECT_EQ(1u, outer->completedTaskStatForTest("TaskGroup;transient").taskCompletedCount());
}
