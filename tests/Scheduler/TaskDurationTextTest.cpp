// The durations a task hands out (its quantum, its scheduling latencies and
// its run-time high-water mark, all unsigned 32-bit milliseconds) go into
// durationToString and the formatters as they come, up to the largest value.
#include "SchedulerTestSupport.h"

#include <KestoSupport/AssertMessage.h>

#include <fmt/format.h>

#include <cstdint>
#include <string>

using namespace KestoTest;
using namespace std::chrono_literals;
using Kesto::durationToString;

TEST(TaskDurationText, QuantumAsTheTaskGivesIt) {
  auto s = TestScheduler::rootIs();
  auto t = taskIs(s, TaskPriority::normal, "quantum");
  EXPECT_EQ(durationToString(t->taskQuantum()), "20ms");
  t->taskQuantumIs(TaskDurationMs(1000));
  EXPECT_EQ(durationToString(t->taskQuantum()), "1000ms");
  t->taskQuantumNoCheckIs(TaskDurationMs(90000));
  EXPECT_EQ(durationToString(t->taskQuantum()), "90s");
  t->taskQuantumNoCheckIs(TaskDurationMs(std::uint32_t(INT32_MAX) + 1));
  EXPECT_EQ(durationToString(t->taskQuantum()), "35791min");
  t->taskQuantumNoCheckIs(TaskDurationMs::max());
  EXPECT_EQ(durationToString(t->taskQuantum()), "71582min");
  EXPECT_EQ(fmt::format("{}", t->taskQuantum()), "71582min");
}

TEST(TaskDurationText, RefusedQuantumIsNamedAsItWasGiven) {
  auto s = TestScheduler::rootIs();
  auto t = taskIs(s, TaskPriority::normal, "refused");
  EXPECT_EQ(assertMessage(assertText([&] { t->taskQuantumIs(TaskDurationMs(1001)); })),
            "Task::taskQuantumIs() Quantum: 1001ms");
  // Above the signed range: still a duration of some 71582 minutes, not a
  // negative one.
  EXPECT_EQ(assertMessage(assertText([&] { t->taskQuantumIs(TaskDurationMs::max()); })),
            "Task::taskQuantumIs() Quantum: 71582min");
  EXPECT_EQ(assertMessage(assertText([&] { t->taskQuantumNoCheckIs(TaskDurationMs(0)); })),
            "Task::taskQuantumNoCheckIs() Quantum: 0ns");
}

TEST(TaskDurationText, LatencyAndRunTimeHighWaterMarkAsTheStatisticsGiveThem) {
  ManualClock clock;
  auto s = TestScheduler::rootIs();
  TaskTimeDuration cost = 3500us;
  auto t = taskIs(s, TaskPriority::normal, "stats", [&](TestTask&) { clock.advance(cost); });
  auto runAfter = [&](TaskTimeDuration wait) {
    t->scheduleTask();
    clock.advance(wait);
    ASSERT_TRUE(s->_handleSchedulerRun(TaskPriority::scavenge));
  };

  runAfter(12ms);
  TaskStat st = t->getStats();
  EXPECT_EQ(durationToString(st.taskLastSchedulingLatency()), "12ms");
  EXPECT_EQ(durationToString(st.taskSchedulingLatencyHighWaterMark()), "12ms");
  EXPECT_EQ(durationToString(st.taskRunTimeHighWaterMark()), "3ms");

  cost = 2h;
  runAfter(90s);
  st = t->getStats();
  EXPECT_EQ(durationToString(st.taskLastSchedulingLatency()), "90s");
  EXPECT_EQ(durationToString(st.taskRunTimeHighWaterMark()), "120min");

  // Beyond what 32 bits of milliseconds hold (some 49.7 days): the
  // statistics keep the largest value, which reads as such.
  cost = 24h * 60;
  runAfter(24h * 50);
  st = t->getStats();
  EXPECT_EQ(st.taskLastSchedulingLatency(), TaskDurationMs::max());
  EXPECT_EQ(durationToString(st.taskLastSchedulingLatency()), "71582min");
  EXPECT_EQ(durationToString(st.taskSchedulingLatencyHighWaterMark()), "71582min");
  EXPECT_EQ(durationToString(st.taskRunTimeHighWaterMark()), "71582min");
  EXPECT_EQ(fmt::format("{} {}", st.taskLastSchedulingLatency(), st.taskRunTimeHighWaterMark()),
            "71582min 71582min");
}
