#include "SchedulerTestSupport.h"

using namespace KestoTest;

namespace {
bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }
} // namespace

TEST(CurrentlyRunningTaskAnchor, HoldsTheTaskForTheRun) {
  auto s = TestScheduler::rootIs();
  TaskImpl* seen = nullptr;
  U32 refsDuring = 0;
  auto t = taskIs(s, TaskPriority::normal, "held", [&](TestTask& me) {
    seen = s->currentlyRunningTask().get();
    refsDuring = me.refCount();
  });
  U32 refsBefore = t->refCount();
  t->scheduleTask();
  s->_handleSchedulerRun(TaskPriority::scavenge);
  EXPECT_EQ(seen, t.get());
  EXPECT_EQ(refsDuring, refsBefore + 1);
  EXPECT_EQ(t->refCount(), refsBefore);
  EXPECT_FALSE(s->currentlyRunningTask());
}

TEST(CurrentlyRunningTaskAnchor, OpeningOverARunningTaskFails) {
  auto s = TestScheduler::rootIs();
  auto other = taskIs(s, TaskPriority::normal, "other");
  auto t = taskIs(s, TaskPriority::normal, "t");
  s->currentlyRunningTaskForTest(other);
  std::string text = assertText([&] { TaskScheduler::CurrentlyRunningTaskAnchor anchor(*s, *t); });
  EXPECT_TRUE(contains(text, fmt::format("currentlyRunningTask_ is not NULL {}", DisplayPointer(other.get()))));
  s->currentlyRunningTaskForTest(nullptr);
}

TEST(CurrentlyRunningTaskAnchor, ClosingOverAnotherTaskFails) {
  auto s = TestScheduler::rootIs();
  auto other = taskIs(s, TaskPriority::normal, "other");
  auto t = taskIs(s, TaskPriority::normal, "swapper");
  t->bodyIs([&](TestTask&) { s->currentlyRunningTaskForTest(other); });
  t->scheduleTask();
  std::string text = assertText([&] { s->_handleSchedulerRun(TaskPriority::scavenge); });
  EXPECT_TRUE(contains(text, fmt::format("currentlyRunningTask_ != task_ {} != {}", DisplayPointer(other.get()),
                                         DisplayPointer(t.get()))));
  s->currentlyRunningTaskForTest(nullptr);
}

TEST(CurrentlyRunningTaskAnchor, CriticalTaskSetsTheProcessWideGuard) {
  auto s = TestScheduler::rootIs();
  EXPECT_EQ(assertNotRunningCriticalTaskFn, nullptr);
  EXPECT_EQ(runningCriticalTaskCount(), 0u);
  unsigned countDuring = 0;
  void (*fnDuring)() = nullptr;
  std::string text;
  auto c = taskIs(s, TaskPriority::critical, "criticalTest", [&](TestTask&) {
    countDuring = runningCriticalTaskCount();
    fnDuring = assertNotRunningCriticalTaskFn;
    text = assertText([] { assertNotRunningCriticalTaskFn(); });
  });
  c->scheduleTask();
  s->_handleSchedulerRun(TaskPriority::scavenge);
  EXPECT_EQ(countDuring, 1u);
  EXPECT_EQ(fnDuring, &doAssertNotRunningCriticalTask);
  EXPECT_TRUE(contains(text, "Disallowed operation while in running critical task"));
  EXPECT_EQ(assertNotRunningCriticalTaskFn, nullptr);
  EXPECT_EQ(runningCriticalTaskCount(), 0u);
  doAssertNotRunningCriticalTask();  // outside: passes
}

TEST(CurrentlyRunningTaskAnchor, NormalTaskLeavesTheGuardAlone) {
  auto s = TestScheduler::rootIs();
  void (*fnDuring)() = &doAssertNotRunningCriticalTask;
  auto t = taskIs(s, TaskPriority::normal, "n", [&](TestTask&) {
    fnDuring = assertNotRunningCriticalTaskFn;
    doAssertNotRunningCriticalTask();
  });
  t->scheduleTask();
  s->_handleSchedulerRun(TaskPriority::scavenge);
  EXPECT_EQ(fnDuring, nullptr);
}

TEST(CurrentlyRunningTaskAnchor, NestedCriticalRunOnOneThreadFails) {
  // A second scheduler on the same thread starting a critical task while one
  // runs: the thread's running-critical flag is already set.
  auto outer = TestScheduler::rootIs("outer");
  auto inner = TestScheduler::rootIs("inner");
  auto innerTask = taskIs(inner, TaskPriority::critical, "innerTest");
  std::string text;
  auto outerTask = taskIs(outer, TaskPriority::critical, "outerTest", [&](TestTask&) {
    innerTask->scheduleTask();
    text = assertText([&] { inner->_handleSchedulerRun(TaskPriority::scavenge); });
  });
  outerTask->scheduleTask();
  outer->_handleSchedulerRun(TaskPriority::scavenge);
  EXPECT_TRUE(contains(text, "running=1"));
  EXPECT_EQ(runningCriticalTaskCount(), 0u);
  EXPECT_EQ(assertNotRunningCriticalTaskFn, nullptr);
  EXPECT_EQ(innerTask->runs, 0u);
}

TEST(CurrentlyRunningTaskAnchor, TwoThreadsRunningCriticalTasksShareTheCount) {
  auto s = TestScheduler::rootIs();
  std::atomic<int> stage{0};
  unsigned countSeenByOther = 0;
  std::thread other;
  auto c = taskIs(s, TaskPriority::critical, "mainTest", [&](TestTask&) {
    other = std::thread([&] {
      auto s2 = TestScheduler::rootIs("second");
      auto c2 = taskIs(s2, TaskPriority::critical, "secondTest", [&](TestTask&) {
        countSeenByOther = runningCriticalTaskCount();
      });
      c2->scheduleTask();
      s2->_handleSchedulerRun(TaskPriority::scavenge);
      stage = 1;
    });
    other.join();
    // The other thread's end left the pointer in place for this one.
    EXPECT_EQ(assertNotRunningCriticalTaskFn, &doAssertNotRunningCriticalTask);
  });
  c->scheduleTask();
  s->_handleSchedulerRun(TaskPriority::scavenge);
  EXPECT_EQ(stage.load(), 1);
  EXPECT_EQ(countSeenByOther, 2u);
  EXPECT_EQ(assertNotRunningCriticalTaskFn, nullptr);
}
