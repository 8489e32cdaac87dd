#include <Kesto/Scheduler/TaskSchedulerQueueStats.h>
#include <Kesto/Scheduler/TaskStat.h>
#include <Kesto/Debug/Trace.h>

#include "Scheduler/HighWaterMark.h"

#include <cctype>

namespace Kesto {

String TaskStat::taskStatusString() const {
  char s[2];
  // Running outranks suspension, which outranks the scheduler's suspension;
  // all of them outrank the timer state.
  if (taskStatus_.taskCurrentlyRunning())
    s[0] = '*';
  else if (taskStatus_.taskSuspended())
    s[0] = 'S';
  else if (taskStatus_.schedulerSuspended())
    s[0] = 'X';
  else if (taskStatus_.taskTimer())
    s[0] = taskStatus_.taskTimerRunning() ? 'T' : 't';
  else
    s[0] = ' ';
  char c = taskPriority_.oneChar();
  s[1] = taskStatus_.taskOnRunQueue() ? c : char(std::tolower(static_cast<unsigned char>(c)));
  return String(std::string_view(s, 2));
}

namespace {
// A high-water mark of "no value" (all ones) in `theirs` leaves ours alone;
// otherwise theirs wins if greater, our "no value" counting as 0.
U32 foldMark(U32 ours, U32 theirs) noexcept {
  if (theirs == TaskStat::noValue)
    return ours;
  U32 base = ours == TaskStat::noValue ? 0 : ours;
  return theirs > base ? theirs : ours;
}
} // namespace

TaskStat& TaskStat::operator+=(const TaskStat& other) {
  KESTO_ASSERT(taskName_ == other.taskName_, "TaskStat", "{} != {}", taskName_, other.taskName_);
  taskRunCount_ += other.taskRunCount_;
  taskTotalRunTime_ += other.taskTotalRunTime_;
  taskWorkCountTotal_ += other.taskWorkCountTotal_;
  taskQuantumViolation500_ += other.taskQuantumViolation500_;
  taskQuantumViolation200_ += other.taskQuantumViolation200_;
  taskWorkCountDecayAvg_ = other.taskWorkCountDecayAvg_;
  taskWorkPending_ = other.taskWorkPending_;
  taskLastSchedulingLatency_ = other.taskLastSchedulingLatency_;
  taskStatus_ = other.taskStatus_;
  taskWorkCountHighWaterMark_ = foldMark(taskWorkCountHighWaterMark_, other.taskWorkCountHighWaterMark_);
  taskWorkPendingHighWaterMark_ = foldMark(taskWorkPendingHighWaterMark_, other.taskWorkPendingHighWaterMark_);
  raiseHighWaterMark(taskRunTimeHighWaterMark_, other.taskRunTimeHighWaterMark_);
  raiseHighWaterMark(taskSchedulingLatencyHighWaterMark_, other.taskSchedulingLatencyHighWaterMark_);
  // One more task folded in, whatever the other record says it holds.
  taskCompletedCount_ += 1;
  return *this;
}

TaskSchedulerPriorityStats& TaskSchedulerPriorityStats::operator+=(const TaskSchedulerPriorityStats& other) {
  KESTO_ASSERT(priority == other.priority, "TaskSchedulerPriorityStats", "{} != {}", priority, other.priority);
  runnableTasks += other.runnableTasks;
  idleTasks += other.idleTasks;
  completedTasks += other.completedTasks;
  totalRunCount += other.totalRunCount;
  return *this;
}

TaskSchedulerQueueStats& TaskSchedulerQueueStats::operator+=(const TaskSchedulerQueueStats& other) {
  for (const auto& [priority, stats] : other) {
    auto it = find(priority);
    if (it != end())
      it->second += stats;
    else
      emplace(priority, stats);
  }
  return *this;
}

} // namespace Kesto
