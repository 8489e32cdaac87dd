#include "SchedulerTestSupport.h"

#include <Kesto/Scheduler/TaskSchedulerQueueStats.h>
#include <Kesto/Scheduler/TaskStat.h>

using namespace KestoTest;

namespace {
TaskStat::TaskStatus status(bool running, bool suspended, bool schedSuspended, bool timer, bool timerRunning,
                            bool onQueue) {
  TaskStat::TaskStatus s;
  s.taskCurrentlyRunningIs(running);
  s.taskSuspendedIs(suspended);
  s.schedulerSuspendedIs(schedSuspended);
  s.taskTimerIs(timer);
  s.taskTimerRunningIs(timerRunning);
  s.taskOnRunQueueIs(onQueue);
  return s;
}

TaskStat statOf(const char* name, TaskPriority p, TaskStat::TaskStatus s) {
  TaskStat t;
  t.taskNameIs(name);
  t.taskPriorityIs(p);
  t.taskStatusIs(s);
  return t;
}
} // namespace

TEST(TaskStat, EmptyRecord) {
  TaskStat t;
  EXPECT_TRUE(t.taskName().empty());
  EXPECT_TRUE(t.taskKey().isNull());
  EXPECT_EQ(t.taskPriority(), TaskPriority::absolute);
  EXPECT_EQ(t.taskStatus().bits(), 0);
  EXPECT_EQ(t.taskRunCount(), 0u);
  EXPECT_EQ(t.taskWorkCountHighWaterMark(), TaskStat::noValue);
  EXPECT_EQ(t.taskWorkPendingHighWaterMark(), TaskStat::noValue);
  EXPECT_EQ(t.taskCompletedCount(), 0u);
}

TEST(TaskStat, StatusBitsHaveTheirPositions) {
  TaskStat::TaskStatus s;
  s.taskTimerIs(true);
  EXPECT_EQ(s.bits(), 1u);
  s.taskOnRunQueueIs(true);
  EXPECT_EQ(s.bits(), 1u | 4u);
  s.schedulerSuspendedIs(true);
  EXPECT_EQ(s.bits(), 1u | 4u | 64u);
  s.taskTimerIs(false);
  EXPECT_EQ(s.bits(), 4u | 64u);
  s.taskIsTaskGroupIs(true);
  s.taskSuspendedIs(true);
  s.taskCurrentlyRunningIs(true);
  s.taskTimerRunningIs(true);
  EXPECT_EQ(s.bits(), 0x7e);
  EXPECT_TRUE(s.taskIsTaskGroup());
}

TEST(TaskStat, StatusStringRunningOutranksEverything) {
  EXPECT_EQ(statOf("t", TaskPriority::high, status(true, true, true, true, true, true)).taskStatusString(), "*H");
  EXPECT_EQ(statOf("t", TaskPriority::high, status(false, true, true, true, true, false)).taskStatusString(), "Sh");
  EXPECT_EQ(statOf("t", TaskPriority::low, status(false, false, true, true, true, true)).taskStatusString(), "XL");
  EXPECT_EQ(statOf("t", TaskPriority::normal, status(false, false, false, true, true, false)).taskStatusString(),
            "Tn");
  EXPECT_EQ(statOf("t", TaskPriority::normal, status(false, false, false, true, false, true)).taskStatusString(),
            "tN");
  EXPECT_EQ(statOf("t", TaskPriority::scavenge, status(false, false, false, false, true, false)).taskStatusString(),
            " s");
  EXPECT_EQ(statOf("t", TaskPriority::critical, status(false, false, false, false, false, true)).taskStatusString(),
            " C");
}

TEST(TaskStat, FoldAddsTakesAndKeeps) {
  TaskStat a = statOf("x", TaskPriority::high, status(false, false, false, false, false, false));
  int objA = 0, objB = 0;
  a.taskKeyIs(TaskKey(&objA));
  a.taskRunInc(3);
  a.taskTotalRunTimeInc(std::chrono::milliseconds(5));
  a.firstTaskRunTimestampIs(TaskTimeStamp(std::chrono::seconds(1)));
  a.lastTaskRunTimestampIs(TaskTimeStamp(std::chrono::seconds(2)));
  a.taskWorkCountTotalInc(10);
  a.taskWorkCountDecayAvgIs(1.5f);
  a.taskWorkCountHighWaterMarkIs(7);
  a.taskWorkPendingIs(4);
  a.taskWorkPendingHighWaterMarkIs(9);
  a.taskQuantumViolation500Inc(1);
  a.taskQuantumViolation200Inc(2);
  a.taskRunTimeHighWaterMarkIs(TaskDurationMs(30));
  a.taskLastSchedulingLatencyIs(TaskDurationMs(3));
  a.taskSchedulingLatencyHighWaterMarkIs(TaskDurationMs(8));
  a.taskCompletedCountIs(1);

  TaskStat b = statOf("x", TaskPriority::low, status(false, true, false, false, false, false));
  b.taskKeyIs(TaskKey(&objB));
  b.taskRunInc(4);
  b.taskTotalRunTimeInc(std::chrono::milliseconds(6));
  b.firstTaskRunTimestampIs(TaskTimeStamp(std::chrono::seconds(5)));
  b.lastTaskRunTimestampIs(TaskTimeStamp(std::chrono::seconds(6)));
  b.taskWorkCountTotalInc(1);
  b.taskWorkCountDecayAvgIs(0.25f);
  b.taskWorkCountHighWaterMarkIs(12);
  b.taskWorkPendingIs(2);
  b.taskWorkPendingHighWaterMarkIs(5);
  b.taskQuantumViolation500Inc(3);
  b.taskQuantumViolation200Inc(4);
  b.taskRunTimeHighWaterMarkIs(TaskDurationMs(20));
  b.taskLastSchedulingLatencyIs(TaskDurationMs(1));
  b.taskSchedulingLatencyHighWaterMarkIs(TaskDurationMs(11));
  b.taskCompletedCountIs(17);

  a += b;
  EXPECT_EQ(a.taskRunCount(), 7u);
  EXPECT_EQ(a.taskTotalRunTime(), std::chrono::milliseconds(11));
  EXPECT_EQ(a.taskWorkCountTotal(), 11u);
  EXPECT_EQ(a.taskQuantumViolation500(), 4u);
  EXPECT_EQ(a.taskQuantumViolation200(), 6u);
  EXPECT_FLOAT_EQ(a.taskWorkCountDecayAvg(), 0.25f);
  EXPECT_EQ(a.taskWorkPending(), 2u);
  EXPECT_EQ(a.taskLastSchedulingLatency().count(), 1u);
  EXPECT_TRUE(a.taskStatus().taskSuspended());
  EXPECT_EQ(a.taskWorkCountHighWaterMark(), 12u);
  EXPECT_EQ(a.taskWorkPendingHighWaterMark(), 9u);
  EXPECT_EQ(a.taskRunTimeHighWaterMark().count(), 30u);
  EXPECT_EQ(a.taskSchedulingLatencyHighWaterMark().count(), 11u);
  // One more task, whatever the other record's count.
  EXPECT_EQ(a.taskCompletedCount(), 2u);
  // Identity and timestamps stay those of the first task folded.
  EXPECT_EQ(a.taskKey(), TaskKey(&objA));
  EXPECT_EQ(a.taskPriority(), TaskPriority::high);
  EXPECT_EQ(a.firstTaskRunTimestamp(), TaskTimeStamp(std::chrono::seconds(1)));
  EXPECT_EQ(a.lastTaskRunTimestamp(), TaskTimeStamp(std::chrono::seconds(2)));
}

TEST(TaskStat, FoldHighWaterMarksRespectNoValue) {
  TaskStat empty;
  empty.taskNameIs("n");
  TaskStat zero;
  zero.taskNameIs("n");
  zero.taskWorkCountHighWaterMarkIs(0);
  zero.taskWorkPendingHighWaterMarkIs(0);
  // An empty record folded with a zero stays at "no value".
  empty += zero;
  EXPECT_EQ(empty.taskWorkCountHighWaterMark(), TaskStat::noValue);
  EXPECT_EQ(empty.taskWorkPendingHighWaterMark(), TaskStat::noValue);
  // A real value replaces "no value"; "no value" never replaces a value.
  TaskStat three;
  three.taskNameIs("n");
  three.taskWorkCountHighWaterMarkIs(3);
  empty += three;
  EXPECT_EQ(empty.taskWorkCountHighWaterMark(), 3u);
  TaskStat none;
  none.taskNameIs("n");
  empty += none;
  EXPECT_EQ(empty.taskWorkCountHighWaterMark(), 3u);
}

TEST(TaskStat, FoldingDifferentNamesFailsDifferentPrioritiesDoNot) {
  TaskStat a = statOf("alpha", TaskPriority::high, {});
  TaskStat b = statOf("beta", TaskPriority::high, {});
  EXPECT_NE(assertText([&] { a += b; }).find("alpha != beta"), std::string::npos);
  TaskStat c = statOf("alpha", TaskPriority::scavenge, {});
  a += c;
  EXPECT_EQ(a.taskCompletedCount(), 1u);
}

TEST(TaskSchedulerPriorityStats, AddsCountsOfEqualPriorities) {
  TaskSchedulerPriorityStats a{TaskPriority::normal, 1, 2, 3, 4};
  TaskSchedulerPriorityStats b{TaskPriority::normal, 10, 20, 30, 40};
  a += b;
  EXPECT_EQ(a.runnableTasks, 11u);
  EXPECT_EQ(a.idleTasks, 22u);
  EXPECT_EQ(a.completedTasks, 33u);
  EXPECT_EQ(a.totalRunCount, 44u);
  TaskSchedulerPriorityStats c{TaskPriority::low, 0, 0, 0, 0};
  EXPECT_NE(assertText([&] { a += c; }).find("normal != low"), std::string::npos);
}

TEST(TaskSchedulerQueueStats, AddsExistingAndCopiesNew) {
  TaskSchedulerQueueStats a, b;
  a.emplace(TaskPriority::high, TaskSchedulerPriorityStats{TaskPriority::high, 1, 1, 1, 1});
  b.emplace(TaskPriority::high, TaskSchedulerPriorityStats{TaskPriority::high, 2, 2, 2, 2});
  b.emplace(TaskPriority::low, TaskSchedulerPriorityStats{TaskPriority::low, 5, 6, 7, 8});
  a += b;
  ASSERT_EQ(a.size(), 2u);
  EXPECT_EQ(a.at(TaskPriority::high).runnableTasks, 3u);
  EXPECT_EQ(a.at(TaskPriority::low).totalRunCount, 8u);
  EXPECT_EQ(a.begin()->first, TaskPriority::high);
}
