// TaskImpl: a task with a run queue place, a quantum and run statistics.
//
// A task runs one taskExecute() at a time, to completion; nothing preempts
// it. Long work polls taskShouldYield(), returns, and schedules itself again.
// This class does the bookkeeping of one run (taskDoRun: latency, run time,
// quantum violations, high-water marks, history), the yield decision in its
// three modes (real time, virtual time, test ratio), suspension, priority
// change and the work counters. Run queues and the choice of the next task
// belong to TaskScheduler.
//
// Ownership: see _TaskBase. The scheduler's lists link the task through the
// two link members below and hold no reference; during a run the scheduler's
// currentlyRunningTask_ holds one, so a task may drop its last outside
// reference inside taskExecute() and still finish the run.
//
// Allocation: construction deduplicates the name (may allocate once) and
// registers the task (may allocate map entries); scheduling, running and
// unscheduling allocate nothing.
//
// Thread: the thread of the scheduler's root; every queue operation checks it.
#pragma once

#include <Kesto/Common/Export.h>

#include <Kesto/ZuIntrusive/SafeHookAssert.h>

#include <Kesto/Scheduler/TaskBase.h>
#include <Kesto/Scheduler/TaskStat.h>
#include <Kesto/ZuIntrusive/BookmarkList.h>

#include <boost/intrusive/list_hook.hpp>

namespace Kesto {

class KESTO_EXPORT TaskImpl : public _TaskBase {
public:
  static constexpr U32 taskMagicNumberConstructed = 1119771390u; // 0x42BE5AFE
  static constexpr U32 taskMagicNumberDestroyed = 0xDEADDEADu;
  static constexpr TaskDurationMs maxTaskQuantum{1000};

  using RunQueueLink =
      boost::intrusive::list_member_hook<boost::intrusive::link_mode<boost::intrusive::safe_link>>;

  // --- virtual operations, in slot order ----------------------------------
  void taskStatsNameIs(String name) override;
  bool taskScheduled() const override;
  bool taskShouldYield() const override;
  void taskWorkCountInc(unsigned long n) override;
  void taskWorkPendingIs(unsigned int n) override;
  ~TaskImpl() override;
  virtual void scheduleTask();
  virtual void taskRunFromTest();
  virtual TaskStat::TaskStatus taskStatus() const;
  virtual void taskExecute() = 0;
  // True for the task that runs a task group inside its parent scheduler.
  virtual bool isTaskGroup() const { return false; }

  // --- scheduling ---------------------------------------------------------
  void unscheduleTask();
  bool onRunQueue() const noexcept { return runQueueLink_.is_linked(); }

  // --- inside a run -------------------------------------------------------
  TaskTimeDuration taskCurrentRunTime() const;
  bool taskCurrentlyRunning() const noexcept { return taskCurrentlyRunning_; }

  // --- settings -----------------------------------------------------------
  // At most maxTaskQuantum; takes effect at the next taskShouldYield().
  void taskQuantumIs(TaskDurationMs quantum);
  // Any non-zero quantum; for the library's own reports and for tests.
  void taskQuantumNoCheckIs(TaskDurationMs quantum);
  TaskDurationMs taskQuantum() const noexcept { return taskQuantum_; }
  void taskPriorityIs(TaskPriority priority);
  void taskSuspendedIs(bool suspended);
  bool taskSuspended() const noexcept { return taskSuspended_; }
  void includeInCompletedTaskIs(bool include) noexcept { includeInCompletedTask_ = include; }
  bool includeInCompletedTask() const noexcept { return includeInCompletedTask_; }

  // --- reading ------------------------------------------------------------
  Ptr<TaskScheduler> taskScheduler() const;
  TaskStat getStats() const;
  U64 taskRunCount() const noexcept { return taskRunCount_; }
  U8 taskShouldYieldMode() const noexcept { return taskShouldYieldMode_; }
  U32 taskMagicNumber() const noexcept { return taskMagicNumber_; }
  TaskTimeStamp taskScheduleTime() const noexcept { return taskScheduleTime_; }
  // Start of the current run, or of the last one when not running.
  TaskTimeStamp lastTaskRunTimestamp() const noexcept { return lastTaskRunTimestamp_; }

  // --- test hooks -----------------------------------------------------------
  void taskRunAndRecordFromTest();
  void taskForceYieldInTestIs(bool force);
  void taskTestYieldRatioIs(unsigned char ratio);

  // --- for the scheduler and timer tasks ------------------------------------
  void unscheduleTaskPrivate(const TaskTimeStamp& now);
  void taskDoRun(const TaskTimeStamp& now, TaskTimeStamp* end);
  void taskShouldYieldModeReevaluate();

protected:
  TaskImpl(Ptr<TaskScheduler> scheduler, TaskPriority priority, const String& name);

  // Registers with the scheduler, which may refuse the task.
  void handleInitialized();
  // Compares taskScheduled() with the last seen value and reports a change.
  void taskBusyReevaluate(const TaskTimeStamp& now);

  U8 taskSuspended_ : 1 = 0;
  U8 includeInCompletedTask_ : 1 = 1;
  U8 taskShouldYieldMode_ = 0;
  bool taskCurrentlyRunning_ = false;
  U32 taskMagicNumber_ = 0;
  TaskTimeStamp taskScheduleTime_{};
  TaskTimeStamp firstTaskRunTimestamp_{};
  TaskTimeStamp lastTaskRunTimestamp_{};
  TaskDurationMs taskLastSchedulingLatency_{0};
  TaskDurationMs taskSchedulingLatencyHighWaterMark_{0};
  TaskTimeDuration taskTotalRunTime_{0};
  TaskDurationMs taskRunTimeHighWaterMark_{0};
  TaskDurationMs taskQuantum_{0};
  U64 taskWorkCountTotal_ = 0;
  float taskWorkCountDecayAvg_ = 0.0f;
  U32 taskWorkCountHighWaterMark_ = TaskStat::noValue;
  U32 taskWorkPending_ = 0;
  U32 taskWorkPendingHighWaterMark_ = TaskStat::noValue;
  U32 taskQuantumViolation500_ = 0;
  U32 taskQuantumViolation200_ = 0;
  U64 taskRunCount_ = 0;

private:
  friend class TaskScheduler;

  RunQueueLink runQueueLink_;
  ZuIntrusive::BookmarkLink registeredLink_;
};

} // namespace Kesto
