// TaskStat: a copyable statistics record of one task.
//
// A live task gives one through getStats(); a scheduler folds the records of
// finished tasks of one stats name into one "completed" record with
// operator+=. Reports read these records only, never live tasks, so a record
// is a plain value: its name is a String (deduplicated when it came from a
// task, so copying is free), everything else is numbers.
//
// Empty record: empty name, null key, priority `absolute`, empty status,
// zeros, and the two work high-water marks at "no value" (all ones).
#pragma once

#include <Kesto/Common/Export.h>

#include <Kesto/Scheduler/TaskPriority.h>
#include <Kesto/Scheduler/TaskTypes.h>

namespace Kesto {

class KESTO_EXPORT TaskStat {
public:
  // What a task is doing, as a set of 8 bits.
  class TaskStatus {
  public:
    enum Bit : U8 {
      taskTimerBit = 1u << 0,
      taskTimerRunningBit = 1u << 1,
      taskOnRunQueueBit = 1u << 2,
      taskCurrentlyRunningBit = 1u << 3,
      taskSuspendedBit = 1u << 4,
      taskIsTaskGroupBit = 1u << 5,
      schedulerSuspendedBit = 1u << 6,
    };

    constexpr TaskStatus() noexcept = default;
    constexpr explicit TaskStatus(U8 bits) noexcept : bits_(bits) {}

    U8 bits() const noexcept { return bits_; }

    bool taskTimer() const noexcept { return bits_ & taskTimerBit; }
    bool taskTimerRunning() const noexcept { return bits_ & taskTimerRunningBit; }
    bool taskOnRunQueue() const noexcept { return bits_ & taskOnRunQueueBit; }
    bool taskCurrentlyRunning() const noexcept { return bits_ & taskCurrentlyRunningBit; }
    bool taskSuspended() const noexcept { return bits_ & taskSuspendedBit; }
    bool taskIsTaskGroup() const noexcept { return bits_ & taskIsTaskGroupBit; }
    bool schedulerSuspended() const noexcept { return bits_ & schedulerSuspendedBit; }

    void taskTimerIs(bool v) noexcept { set(taskTimerBit, v); }
    void taskTimerRunningIs(bool v) noexcept { set(taskTimerRunningBit, v); }
    void taskOnRunQueueIs(bool v) noexcept { set(taskOnRunQueueBit, v); }
    void taskCurrentlyRunningIs(bool v) noexcept { set(taskCurrentlyRunningBit, v); }
    void taskSuspendedIs(bool v) noexcept { set(taskSuspendedBit, v); }
    void taskIsTaskGroupIs(bool v) noexcept { set(taskIsTaskGroupBit, v); }
    void schedulerSuspendedIs(bool v) noexcept { set(schedulerSuspendedBit, v); }

    friend bool operator==(TaskStatus a, TaskStatus b) noexcept { return a.bits_ == b.bits_; }

  private:
    void set(U8 bit, bool v) noexcept { bits_ = v ? U8(bits_ | bit) : U8(bits_ & ~bit); }
    U8 bits_ = 0;
  };
  static_assert(sizeof(TaskStatus) == 1);

  static constexpr U32 noValue = ~U32(0);

  TaskStat() = default;

  // --- accessors, in field order ----------------------------------------
  const String& taskName() const noexcept { return taskName_; }
  void taskNameIs(const String& name) { taskName_ = name; }
  TaskKey taskKey() const noexcept { return taskKey_; }
  void taskKeyIs(TaskKey key) noexcept { taskKey_ = key; }
  TaskPriority taskPriority() const noexcept { return taskPriority_; }
  void taskPriorityIs(TaskPriority p) noexcept { taskPriority_ = p; }
  TaskStatus taskStatus() const noexcept { return taskStatus_; }
  void taskStatusIs(TaskStatus s) noexcept { taskStatus_ = s; }
  U64 taskRunCount() const noexcept { return taskRunCount_; }
  void taskRunInc(U64 n) noexcept { taskRunCount_ += n; }
  TaskTimeDuration taskTotalRunTime() const noexcept { return taskTotalRunTime_; }
  void taskTotalRunTimeInc(TaskTimeDuration d) noexcept { taskTotalRunTime_ += d; }
  TaskTimeStamp firstTaskRunTimestamp() const noexcept { return firstTaskRunTimestamp_; }
  void firstTaskRunTimestampIs(TaskTimeStamp t) noexcept { firstTaskRunTimestamp_ = t; }
  TaskTimeStamp lastTaskRunTimestamp() const noexcept { return lastTaskRunTimestamp_; }
  void lastTaskRunTimestampIs(TaskTimeStamp t) noexcept { lastTaskRunTimestamp_ = t; }
  U64 taskWorkCountTotal() const noexcept { return taskWorkCountTotal_; }
  void taskWorkCountTotalInc(U64 n) noexcept { taskWorkCountTotal_ += n; }
  float taskWorkCountDecayAvg() const noexcept { return taskWorkCountDecayAvg_; }
  void taskWorkCountDecayAvgIs(float v) noexcept { taskWorkCountDecayAvg_ = v; }
  U32 taskWorkCountHighWaterMark() const noexcept { return taskWorkCountHighWaterMark_; }
  void taskWorkCountHighWaterMarkIs(U32 v) noexcept { taskWorkCountHighWaterMark_ = v; }
  U32 taskWorkPending() const noexcept { return taskWorkPending_; }
  void taskWorkPendingIs(U32 v) noexcept { taskWorkPending_ = v; }
  U32 taskWorkPendingHighWaterMark() const noexcept { return taskWorkPendingHighWaterMark_; }
  void taskWorkPendingHighWaterMarkIs(U32 v) noexcept { taskWorkPendingHighWaterMark_ = v; }
  U32 taskQuantumViolation500() const noexcept { return taskQuantumViolation500_; }
  void taskQuantumViolation500Inc(U32 n) noexcept { taskQuantumViolation500_ += n; }
  U32 taskQuantumViolation200() const noexcept { return taskQuantumViolation200_; }
  void taskQuantumViolation200Inc(U32 n) noexcept { taskQuantumViolation200_ += n; }
  TaskDurationMs taskRunTimeHighWaterMark() const noexcept { return taskRunTimeHighWaterMark_; }
  void taskRunTimeHighWaterMarkIs(TaskDurationMs d) noexcept { taskRunTimeHighWaterMark_ = d; }
  TaskDurationMs taskLastSchedulingLatency() const noexcept { return taskLastSchedulingLatency_; }
  void taskLastSchedulingLatencyIs(TaskDurationMs d) noexcept { taskLastSchedulingLatency_ = d; }
  TaskDurationMs taskSchedulingLatencyHighWaterMark() const noexcept { return taskSchedulingLatencyHighWaterMark_; }
  void taskSchedulingLatencyHighWaterMarkIs(TaskDurationMs d) noexcept { taskSchedulingLatencyHighWaterMark_ = d; }
  U32 taskCompletedCount() const noexcept { return taskCompletedCount_; }
  void taskCompletedCountInc(U32 n) noexcept { taskCompletedCount_ += n; }
  void taskCompletedCountIs(U32 n) noexcept { taskCompletedCount_ = n; }

  // Two characters: activity (`*` running, `S` suspended, `X` scheduler
  // suspended, `T`/`t` timer running or not, blank) and the priority letter,
  // upper case when on a run queue, lower case otherwise.
  String taskStatusString() const;

  // Folds the record of a finished task of the same name into this one.
  TaskStat& operator+=(const TaskStat& other);

private:
  String taskName_;
  TaskKey taskKey_;
  TaskPriority taskPriority_ = TaskPriority::absolute;
  TaskStatus taskStatus_;
  U64 taskRunCount_ = 0;
  TaskTimeDuration taskTotalRunTime_{0};
  TaskTimeStamp firstTaskRunTimestamp_{};
  TaskTimeStamp lastTaskRunTimestamp_{};
  U64 taskWorkCountTotal_ = 0;
  float taskWorkCountDecayAvg_ = 0.0f;
  U32 taskWorkCountHighWaterMark_ = noValue;
  U32 taskWorkPending_ = 0;
  U32 taskWorkPendingHighWaterMark_ = noValue;
  U32 taskQuantumViolation500_ = 0;
  U32 taskQuantumViolation200_ = 0;
  TaskDurationMs taskRunTimeHighWaterMark_{0};
  TaskDurationMs taskLastSchedulingLatency_{0};
  TaskDurationMs taskSchedulingLatencyHighWaterMark_{0};
  U32 taskCompletedCount_ = 0;
};

} // namespace Kesto
