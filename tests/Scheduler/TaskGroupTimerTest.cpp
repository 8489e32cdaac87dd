// Timers in a group count upward: a group is one timer in its parent, from
// its first running timer to its last, through any depth of nesting.
#include "GroupTestSupport.h"
#include "TimerTaskTestSupport.h"

#include <KestoSupport/AssertMessage.h>

#include <Kesto/Platform/Platform.h>

using namespace KestoTest;

TEST(TaskGroupTimer, TimersCountUpwardOnlyAtTheZeroOneSteps) {
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  Ptr<TaskGroup> outer = groupIs("outer", r);
  Ptr<TaskGroup> inner = groupIs("inner", outer);
  const TaskTimeStamp now = taskClockNow();
  inner->timerRunningInc(now);
  EXPECT_EQ(1u, inner->timerRunningCount());
  EXPECT_EQ(1u, outer->timerRunningCount());
  EXPECT_EQ(1u, r->timerRunningCount());
  EXPECT_TRUE(inner->schedulerBusy());
  EXPECT_TRUE(outer->schedulerBusy());
  EXPECT_TRUE(r->schedulerBusy());
  inner->timerRunningInc(now);
  outer->timerRunningInc(now);
  EXPECT_EQ(2u, inner->timerRunningCount());
  // The inner group is one timer, the outer's own is the second.
  EXPECT_EQ(2u, outer->timerRunningCount());
  EXPECT_EQ(1u, r->timerRunningCount());
  inner->timerRunningDec(now);
  EXPECT_EQ(2u, outer->timerRunningCount());
  inner->timerRunningDec(now);
  EXPECT_EQ(0u, inner->timerRunningCount());
  EXPECT_FALSE(inner->schedulerBusy());
  EXPECT_EQ(1u, outer->timerRunningCount());
  EXPECT_EQ(1u, r->timerRunningCount());
  outer->timerRunningDec(now);
  EXPECT_EQ(0u, r->timerRunningCount());
  EXPECT_FALSE(r->schedulerBusy());
}

TEST(TaskGroupTimer, DecrementingAtZeroFailsAndLeavesTheParentAlone) {
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  Ptr<TaskGroup> g = groupIs("g", r);
  r->timerRunningInc(taskClockNow());
  EXPECT_EQ("TaskScheduler::doTimerRunningDec() timerRunningCount_ > 0",
            assertMessage(assertText([&] { g->timerRunningDec(taskClockNow()); })));
  EXPECT_EQ(1u, r->timerRunningCount());
  r->timerRunningDec(taskClockNow());
}

TEST(TaskGroupTimer, TimerTaskInANestedGroupKeepsEveryDomainAboveBusyUntilItFires) {
  FastForwardOn ff;
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  Ptr<TaskGroup> outer = groupIs("outer", r);
  Ptr<TaskGroup> inner = groupIs("inner", outer);
  Ptr<TestTimerTask> t = timerTaskIs(inner, "sleeper");
  t->scheduleTaskDelay(60.0);
  EXPECT_EQ(1u, inner->timerRunningCount());
  EXPECT_EQ(1u, outer->timerRunningCount());
  EXPECT_EQ(1u, r->timerRunningCount());
  EXPECT_TRUE(r->schedulerBusy());
  Platform::doEventLoop(120.0);
  EXPECT_EQ(1u, t->runs);
  EXPECT_EQ(0u, inner->timerRunningCount());
  EXPECT_EQ(0u, outer->timerRunningCount());
  EXPECT_EQ(0u, r->timerRunningCount());
  EXPECT_FALSE(r->schedulerBusy());
}
