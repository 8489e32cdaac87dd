// The two run modes of a group: multiple runs of a task within one parent
// run, or one run each with the temporary lists; the order in which what is
// left is served; and how virtual time switches between them.
//
// The scheduler's clock is a ManualClock here: each task moves it by hand,
// so a parent run's length in quanta is exact.
#include "GroupTestSupport.h"

#include <Kesto/Platform/Platform.h>

using namespace KestoTest;

namespace {
const TaskTimeDuration fiveMs = std::chrono::milliseconds(5);
const TaskTimeDuration tenMs = std::chrono::milliseconds(10);
} // namespace

TEST(TaskGroupRunMode, WithMultipleRunsOffASelfSchedulingTaskRunsOncePerParentRun) {
  ManualClock clock;
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  Ptr<TaskGroup> g = groupIs("g", r);
  g->tasksPermittedMultipleRunsIs(false);
  EXPECT_FALSE(g->tasksPermittedMultipleRunsInForce());
  Ptr<TestTask> t = rootTaskIs(g, TaskPriority::normal, "again", [&](TestTask& self) {
    clock.advance(fiveMs);
    if (self.runs < 10)
      self.scheduleTask();
  });
  t->scheduleTask();
  EXPECT_TRUE(r->handleSchedulerRun());
  EXPECT_EQ(1u, t->runs);
  // It waits on the persistent list, and the lists are back to normal.
  EXPECT_TRUE(t->onRunQueue());
  EXPECT_FALSE(g->taskRunQueue(TaskPriority::normal).usingTemporary());
  EXPECT_TRUE(g->parentTaskScheduled());
  Platform::doEventLoop();
  EXPECT_EQ(10u, t->runs);
  EXPECT_EQ(10u, g->parentTaskRunCount());
}

TEST(TaskGroupRunMode, WithMultipleRunsOnASelfSchedulingTaskRunsUntilTheParentsQuantumHasPassed) {
  ManualClock clock;
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  Ptr<TaskGroup> g = groupIs("g", r);
  EXPECT_TRUE(g->tasksPermittedMultipleRunsInForce());
  EXPECT_EQ(TaskDurationMs(20), g->taskGroupQuantum());
  Ptr<TestTask> t = rootTaskIs(g, TaskPriority::normal, "again", [&](TestTask& self) {
    clock.advance(fiveMs);
    if (self.runs < 10)
      self.scheduleTask();
  });
  t->scheduleTask();
  // 5 ms a run: the parent's 20 ms are used up after the fourth.
  EXPECT_TRUE(r->handleSchedulerRun());
  EXPECT_EQ(4u, t->runs);
  EXPECT_TRUE(g->parentTaskScheduled());
  EXPECT_TRUE(r->handleSchedulerRun());
  EXPECT_EQ(8u, t->runs);
  Platform::doEventLoop();
  EXPECT_EQ(10u, t->runs);
  EXPECT_EQ(3u, g->parentTaskRunCount());
  // Each parent run used its quantum once, without a violation.
  EXPECT_EQ(0u, g->parentTask()->getStats().taskQuantumViolation200());
}

TEST(TaskGroupRunMode, TasksLeftOnTheTemporaryListRunBeforeTasksScheduledDuringTheRun) {
  ManualClock clock;
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  Ptr<TaskGroup> g = groupIs("g", r);
  g->tasksPermittedMultipleRunsIs(false);
  RunLog log;
  Ptr<TestTask> e = rootTaskIs(g, TaskPriority::normal, "e");
  e->bodyIs([&](TestTask&) { log.names.push_back("e"); });
  Ptr<TestTask> a;
  a = rootTaskIs(g, TaskPriority::normal, "a", [&](TestTask& self) {
    log.names.push_back("a");
    clock.advance(tenMs);
    if (self.runs == 1) {
      // Both go behind c and d, which this run will not reach.
      self.scheduleTask();
      e->scheduleTask();
    }
  });
  auto tenMsTask = [&](const char* name) {
    return rootTaskIs(g, TaskPriority::normal, name, [&log, &clock, name](TestTask&) {
      log.names.push_back(name);
      clock.advance(tenMs);
    });
  };
  Ptr<TestTask> b = tenMsTask("b");
  Ptr<TestTask> c = tenMsTask("c");
  Ptr<TestTask> d = tenMsTask("d");
  for (TestTask* t : {a.get(), b.get(), c.get(), d.get()})
    t->scheduleTask();
  EXPECT_TRUE(r->handleSchedulerRun());
  EXPECT_EQ("a b", log.joined());
  Platform::doEventLoop();
  EXPECT_EQ("a b c d a e", log.joined());
  EXPECT_EQ(3u, g->parentTaskRunCount());
}

TEST(TaskGroupRunMode, TasksLeftWithMultipleRunsOnKeepTheirPlacesAheadOfLaterOnes) {
  ManualClock clock;
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  Ptr<TaskGroup> g = groupIs("g", r);
  RunLog log;
  Ptr<TestTask> e = rootTaskIs(g, TaskPriority::normal, "e");
  e->bodyIs([&](TestTask&) { log.names.push_back("e"); });
  Ptr<TestTask> a = rootTaskIs(g, TaskPriority::normal, "a", [&](TestTask& self) {
    log.names.push_back("a");
    clock.advance(tenMs);
    if (self.runs == 1) {
      self.scheduleTask();
      e->scheduleTask();
    }
  });
  Ptr<TestTask> b = rootTaskIs(g, TaskPriority::normal, "b", [&](TestTask&) {
    log.names.push_back("b");
    clock.advance(tenMs);
  });
  a->scheduleTask();
  b->scheduleTask();
  Platform::doEventLoop();
  // One list: a's second run and e come behind b, and run in the next
  // parent run.
  EXPECT_EQ("a b a e", log.joined());
  EXPECT_EQ(2u, g->parentTaskRunCount());
}

TEST(TaskGroupRunMode, ProcessWideSwitchStartsFalse) {
  EXPECT_FALSE(TaskSchedulerRoot::testAllowTaskGroupTasksPermittedMultipleRunsWithVirtualTime());
  {
    AllowMultipleRunsWithVirtualTime allow;
    EXPECT_TRUE(TaskSchedulerRoot::testAllowTaskGroupTasksPermittedMultipleRunsWithVirtualTime());
  }
  EXPECT_FALSE(TaskSchedulerRoot::testAllowTaskGroupTasksPermittedMultipleRunsWithVirtualTime());
}

TEST(TaskGroupRunMode, VirtualTimeTurnsMultipleRunsOffAtTheNextVirtualTimeCheck) {
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  Ptr<TaskGroup> g = groupIs("g", r);
  Ptr<TaskGroup> nested = groupIs("nested", g);
  {
    FastForwardOn ff;
    // Not before the root has looked.
    EXPECT_TRUE(g->tasksPermittedMultipleRunsInForce());
    r->virtualTimeCheck();
    EXPECT_FALSE(g->tasksPermittedMultipleRunsInForce());
    EXPECT_FALSE(nested->tasksPermittedMultipleRunsInForce());
    // What was asked for stays.
    EXPECT_TRUE(g->tasksPermittedMultipleRuns());
    // A group made meanwhile starts with the rule applied.
    EXPECT_FALSE(groupIs("bornVirtual", r)->tasksPermittedMultipleRunsInForce());
    // Asked again, reapplied: still off.
    g->tasksPermittedMultipleRunsIs(false);
    g->tasksPermittedMultipleRunsIs(true);
    EXPECT_FALSE(g->tasksPermittedMultipleRunsInForce());
  }
  r->virtualTimeCheck();
  EXPECT_TRUE(g->tasksPermittedMultipleRunsInForce());
  EXPECT_TRUE(nested->tasksPermittedMultipleRunsInForce());
}

TEST(TaskGroupRunMode, TestSwitchKeepsMultipleRunsUnderVirtualTime) {
  AllowMultipleRunsWithVirtualTime allow;
  FastForwardOn ff;
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  EXPECT_TRUE(r->virtualTime());
  Ptr<TaskGroup> g = groupIs("g", r);
  EXPECT_TRUE(g->tasksPermittedMultipleRunsInForce());
  // Asked off, off whatever the switch says.
  g->tasksPermittedMultipleRunsIs(false);
  EXPECT_FALSE(g->tasksPermittedMultipleRunsInForce());
  g->tasksPermittedMultipleRunsIs(true);
  EXPECT_TRUE(g->tasksPermittedMultipleRunsInForce());
  // Under virtual time the quantum is virtual: 5 ms a run, four runs a
  // parent run, as in real time.
  Ptr<TestTask> t = rootTaskIs(g, TaskPriority::normal, "virtualAgain", [&](TestTask& self) {
    Platform::fastForwardBy(0.005);
    if (self.runs < 8)
      self.scheduleTask();
  });
  t->scheduleTask();
  EXPECT_TRUE(r->handleSchedulerRun());
  EXPECT_EQ(4u, t->runs);
  Platform::doEventLoop();
  EXPECT_EQ(8u, t->runs);
}

TEST(TaskGroupRunMode, UnderVirtualTimeEachRunnableTaskRunsOncePerParentRun) {
  FastForwardOn ff;
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  Ptr<TaskGroup> g = groupIs("g", r);
  // The task never advances virtual time, so it would never use up the
  // parent's quantum; one run each keeps the parent run short.
  Ptr<TestTask> t = rootTaskIs(g, TaskPriority::normal, "spinner", [&](TestTask& self) {
    if (self.runs < 50)
      self.scheduleTask();
  });
  t->scheduleTask();
  Platform::doEventLoop();
  EXPECT_EQ(50u, t->runs);
  EXPECT_EQ(50u, g->parentTaskRunCount());
}

TEST(TaskGroupRunMode, ARunThatBeganWithMultipleRunsKeepsThemWhenVirtualTimeTurnsOn) {
  FastForwardOffAtExit ffOff;
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  Ptr<TaskGroup> g = groupIs("g", r);
  bool inForceDuringRun = true;
  Ptr<TestTask> t = rootTaskIs(g, TaskPriority::normal, "switcher", [&](TestTask& self) {
    if (self.runs == 1) {
      Platform::setFastForward(true);
      r->virtualTimeCheck();
      inForceDuringRun = g->tasksPermittedMultipleRunsInForce();
    }
    if (self.runs < 5)
      self.scheduleTask();
  });
  t->scheduleTask();
  EXPECT_TRUE(r->handleSchedulerRun());
  Platform::setFastForward(false);
  // The rule changed at once, but the run went on on the persistent list:
  // all five runs, in virtual time with no time passing, in one parent run.
  EXPECT_FALSE(inForceDuringRun);
  EXPECT_EQ(5u, t->runs);
  EXPECT_EQ(1u, g->parentTaskRunCount());
  EXPECT_FALSE(g->parentTaskScheduled());
  r->virtualTimeCheck();
  Platform::doEventLoop();
}

TEST(TaskGroupRunMode, ARunThatBeganWithOneRunEachKeepsItsTemporaryListsWhenVirtualTimeTurnsOff) {
  FastForwardOffAtExit ffOff;
  // The clock stands still: the parent run after the switch is limited by
  // the task's own count, not by the machine's speed.
  ManualClock clock;
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  Ptr<TaskGroup> g = groupIs("g", r);
  Platform::setFastForward(true);
  r->virtualTimeCheck();
  ASSERT_FALSE(g->tasksPermittedMultipleRunsInForce());
  bool inForceDuringRun = false;
  bool temporaryDuringRun = false;
  Ptr<TestTask> t = rootTaskIs(g, TaskPriority::normal, "switcher", [&](TestTask& self) {
    if (self.runs == 1) {
      Platform::setFastForward(false);
      r->virtualTimeCheck();
      inForceDuringRun = g->tasksPermittedMultipleRunsInForce();
      temporaryDuringRun = g->taskRunQueue(TaskPriority::normal).usingTemporary();
    }
    if (self.runs < 5)
      self.scheduleTask();
  });
  t->scheduleTask();
  EXPECT_TRUE(r->handleSchedulerRun());
  EXPECT_TRUE(inForceDuringRun);
  EXPECT_TRUE(temporaryDuringRun);
  // One run only, then the lists went back.
  EXPECT_EQ(1u, t->runs);
  EXPECT_FALSE(g->taskRunQueue(TaskPriority::normal).usingTemporary());
  EXPECT_TRUE(t->onRunQueue());
  EXPECT_TRUE(g->parentTaskScheduled());
  // The next parent run has multiple runs, in real time: the rest at once.
  Platform::doEventLoop();
  EXPECT_EQ(5u, t->runs);
  EXPECT_EQ(2u, g->parentTaskRunCount());
}
