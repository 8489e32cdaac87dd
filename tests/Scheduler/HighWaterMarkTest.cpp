// The high-water marks of tasks and schedulers, taken on every path that
// feeds them: a task's scheduling latency when it leaves its queue by a run
// or by unscheduling, its run time in whole milliseconds, its work marks,
// which start with no value, and the scheduler's slip from a pass and from
// the test hook that records a run as a pass.
#include "SchedulerTestSupport.h"

#include <functional>
#include <utility>

using namespace KestoTest;
using namespace std::chrono_literals;

TEST(HighWaterMark, LatencyCountsWhetherTheTaskRunsOrIsUnscheduled) {
  ManualClock clock;
  auto s = TestScheduler::rootIs();
  auto t = taskIs(s, TaskPriority::normal, "waiter");
  // Waits `d` on the queue, leaves it through `leave`; the last latency and
  // the mark, in milliseconds.
  const auto waitThen = [&](TaskTimeDuration d, const std::function<void()>& leave) {
    t->scheduleTask();
    clock.advance(d);
    leave();
    const TaskStat st = t->getStats();
    return std::make_pair(st.taskLastSchedulingLatency().count(), st.taskSchedulingLatencyHighWaterMark().count());
  };
  const auto unschedule = [&] { t->unscheduleTask(); };
  const auto run = [&] { EXPECT_TRUE(s->_handleSchedulerRun(TaskPriority::scavenge)); };
  // The test hook takes the task off its queue before it runs it.
  const auto runFromTest = [&] { t->taskRunFromTest(); };
  // Unscheduled after 7ms: a latency all the same.
  EXPECT_EQ(std::make_pair(7u, 7u), waitThen(7ms, unschedule));
  EXPECT_EQ(std::make_pair(2u, 7u), waitThen(2ms, run));
  EXPECT_EQ(std::make_pair(9u, 9u), waitThen(9ms, runFromTest));
  EXPECT_EQ(std::make_pair(12u, 12u), waitThen(12ms, unschedule));
  EXPECT_EQ(std::make_pair(0u, 12u), waitThen(0ms, runFromTest));
  EXPECT_EQ(3u, t->runs);
}

TEST(HighWaterMark, RunTimeMarkKeepsWholeMilliseconds) {
  ManualClock clock;
  auto s = TestScheduler::rootIs();
  TaskTimeDuration cost = 3900us;
  auto t = taskIs(s, TaskPriority::normal, "runner", [&](TestTask&) { clock.advance(cost); });
  const auto runFor = [&](TaskTimeDuration d) {
    cost = d;
    t->scheduleTask();
    EXPECT_TRUE(s->_handleSchedulerRun(TaskPriority::scavenge));
    return t->getStats().taskRunTimeHighWaterMark().count();
  };
  EXPECT_EQ(3u, runFor(3900us));
  // Longer, but not by a whole millisecond.
  EXPECT_EQ(3u, runFor(3999999ns));
  EXPECT_EQ(4u, runFor(4ms));
  EXPECT_EQ(4u, runFor(1ms));
  EXPECT_EQ(4u, runFor(0ns));
  EXPECT_EQ(3900us + 3999999ns + 4ms + 1ms, t->getStats().taskTotalRunTime());
}

TEST(HighWaterMark, WorkMarksStartWithNoValueAndKeepTheGreatest) {
  auto s = TestScheduler::rootIs();
  auto t = taskIs(s, TaskPriority::normal, "worker");
  EXPECT_EQ(TaskStat::noValue, t->getStats().taskWorkPendingHighWaterMark());
  EXPECT_EQ(TaskStat::noValue, t->getStats().taskWorkCountHighWaterMark());
  // A first zero is a value.
  t->taskWorkPendingIs(0);
  t->taskWorkCountInc(0);
  EXPECT_EQ(0u, t->getStats().taskWorkPendingHighWaterMark());
  EXPECT_EQ(0u, t->getStats().taskWorkCountHighWaterMark());
  t->taskWorkPendingIs(5);
  t->taskWorkCountInc(5);
  t->taskWorkPendingIs(3);
  t->taskWorkCountInc(3);
  EXPECT_EQ(5u, t->getStats().taskWorkPendingHighWaterMark());
  EXPECT_EQ(5u, t->getStats().taskWorkCountHighWaterMark());
  // A count beyond 32 bits is greater than any mark; the mark keeps its low
  // 32 bits.
  t->taskWorkCountInc((1ul << 32) + 4);
  EXPECT_EQ(4u, t->getStats().taskWorkCountHighWaterMark());
}

TEST(HighWaterMark, SlipIsKeptToTheNanosecondByPassesAndRecordedRuns) {
  ManualClock clock;
  auto s = TestScheduler::rootIs();
  auto t = taskIs(s, TaskPriority::normal, "t");
  t->scheduleTask();
  clock.advance(8ms);
  ASSERT_TRUE(s->_handleSchedulerRun(TaskPriority::scavenge));
  EXPECT_EQ(8ms, s->maxSchedulerSlip());
  // The recorded run starts a pass of its own: 1ns longer raises the mark.
  clock.advance(8ms + 1ns);
  t->taskRunAndRecordFromTest();
  EXPECT_EQ(8ms + 1ns, s->maxSchedulerSlip());
  EXPECT_EQ(ManualClock::now(), s->schedulerRunStart());
  clock.advance(1ms);
  t->taskRunAndRecordFromTest();
  EXPECT_EQ(8ms + 1ns, s->maxSchedulerSlip());
}
