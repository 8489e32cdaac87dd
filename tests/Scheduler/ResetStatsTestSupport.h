// Helpers of the statistics reset tests: a task that counts its resets and
// may act in them, giving a task figures in every statistics field, reading
// the reset task, and ending a test without the scheduler and its reset task
// keeping each other alive.
#pragma once

#include "RootTestSupport.h"

#include <KestoSupport/TaskSchedulerTestAccess.h>

#include <Kesto/Scheduler/ResetStatsTask.h>

#include <functional>
#include <string>
#include <vector>

namespace KestoTest {

// A task whose handleResetStats() counts and runs what the test gives.
class ResetCountingTask : public TestTask {
public:
  using TestTask::TestTask;
  void handleResetStats() override {
    ++resets;
    if (onReset)
      onReset(*this);
  }
  unsigned resets = 0;
  std::function<void(ResetCountingTask&)> onReset;
};

inline Ptr<ResetCountingTask> resetCountingTaskIs(Ptr<TaskScheduler> s, const String& name,
                                                  TestTask::Body body = {},
                                                  TaskPriority p = TaskPriority::normal) {
  return Ptr<ResetCountingTask>(new ResetCountingTask(std::move(s), p, name, std::move(body)));
}

// Breaks the pair of a scheduler and its reset task when the test ends
// (declare it after the scheduler's Ptr, so it goes first).
class ReleaseResetTaskAtEnd {
public:
  explicit ReleaseResetTaskAtEnd(TaskScheduler& s) : s_(s) {}
  ~ReleaseResetTaskAtEnd() { TaskSchedulerTestAccess::resetStatsTaskRelease(s_); }

private:
  TaskScheduler& s_;
};

inline String resetTaskName(const TaskScheduler& s) {
  return String(std::string(s.schedulerName().view()) + ";ResetStats");
}

// The reset task of `s`, null before its first resetStats().
inline Ptr<TaskImpl> resetTaskOf(TaskScheduler& s) { return s.taskForTest(resetTaskName(s)); }

// The reset task, made by a first resetStats() whose walk is at once given
// a test yield ratio: `ratio` tasks per run. The walk has not run yet.
inline Ptr<TaskImpl> resetStatsWithRatio(TaskScheduler& s, unsigned char ratio) {
  s.resetStats();
  Ptr<TaskImpl> task = resetTaskOf(s);
  task->taskTestYieldRatioIs(ratio);
  return task;
}

// Every field that a reset clears holds something other than its reset
// value afterwards: two runs of 5 and 2 quanta on a manual clock (a
// violation of each kind, a run-time mark of 5 quanta), a scheduling latency
// of `latency`, work counts and a backlog. The task must be idle, its
// scheduler's loop free to run it; its body is replaced.
inline void giveFigures(TestTask& task, ManualClock& clock, TaskTimeDuration latency = std::chrono::milliseconds(7)) {
  const TaskTimeDuration quantum = std::chrono::milliseconds(task.taskQuantum().count());
  for (int spans : {5, 2}) {
    task.bodyIs([&clock, quantum, spans](TestTask& t) {
      clock.advance(quantum * spans);
      t.taskWorkCountInc(4);
      t.taskWorkPendingIs(9);
    });
    task.scheduleTask();
    clock.advance(latency);
    Platform::doEventLoop();
  }
  task.bodyIs({});
}

// Whether every field that a reset clears reads as cleared.
inline ::testing::AssertionResult statsCleared(const TaskStat& s) {
  std::vector<std::string> wrong;
  const auto check = [&](bool ok, const char* field) {
    if (!ok)
      wrong.push_back(field);
  };
  check(s.taskRunCount() == 0, "taskRunCount");
  check(s.taskTotalRunTime() == TaskTimeDuration(0), "taskTotalRunTime");
  check(s.firstTaskRunTimestamp() == TaskTimeStamp{}, "firstTaskRunTimestamp");
  check(s.lastTaskRunTimestamp() == TaskTimeStamp{}, "lastTaskRunTimestamp");
  check(s.taskWorkCountTotal() == 0, "taskWorkCountTotal");
  check(s.taskWorkCountDecayAvg() == 0.0f, "taskWorkCountDecayAvg");
  check(s.taskWorkCountHighWaterMark() == TaskStat::noValue, "taskWorkCountHighWaterMark");
  check(s.taskWorkPending() == 0, "taskWorkPending");
  check(s.taskWorkPendingHighWaterMark() == TaskStat::noValue, "taskWorkPendingHighWaterMark");
  check(s.taskQuantumViolation500() == 0, "taskQuantumViolation500");
  check(s.taskQuantumViolation200() == 0, "taskQuantumViolation200");
  check(s.taskRunTimeHighWaterMark() == TaskDurationMs(0), "taskRunTimeHighWaterMark");
  check(s.taskLastSchedulingLatency() == TaskDurationMs(0), "taskLastSchedulingLatency");
  check(s.taskSchedulingLatencyHighWaterMark() == TaskDurationMs(0), "taskSchedulingLatencyHighWaterMark");
  if (wrong.empty())
    return ::testing::AssertionSuccess();
  std::string text;
  for (const std::string& f : wrong)
    text += f + " ";
  return ::testing::AssertionFailure() << "not cleared: " << text;
}

} // namespace KestoTest
