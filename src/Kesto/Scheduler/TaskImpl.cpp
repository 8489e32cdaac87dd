#include <Kesto/Scheduler/Task.h>
#include <Kesto/Scheduler/TaskImpl.h>
#include <Kesto/Scheduler/TaskScheduler.h>
#include <Kesto/Platform/Time.h>
#include <Kesto/Debug/Trace.h>

#include "Scheduler/HighWaterMark.h"

namespace Kesto {

namespace {
constexpr const char* className = "Task";

String quantumText(TaskDurationMs q) {
  return durationToString(q);
}

// Work marks hold the low 32 bits of a value. All ones means "no value
// yet", so a value whose low 32 bits are all ones is stored one below.
U32 markValue(unsigned long n) noexcept {
  const U32 low = U32(n);
  return low == TaskStat::noValue ? TaskStat::noValue - 1 : low;
}

// A work mark without a value takes the first one; after that it keeps the
// greatest, as markValue() stores it.
void raiseWorkMark(U32& mark, unsigned long n) noexcept {
  if (mark == TaskStat::noValue || n > mark)
    mark = markValue(n);
}
} // namespace

TaskImpl::TaskImpl(Ptr<TaskScheduler> scheduler, TaskPriority priority, const String& name)
    : _TaskBase(std::move(scheduler), priority, name) {
  taskMagicNumber_ = taskMagicNumberConstructed;
  if (taskScheduler_)
    taskQuantum_ = taskScheduler_->defaultTaskQuantum();
  if (taskScheduler_)
    taskShouldYieldModeReevaluate();
  handleInitialized();
}

void TaskImpl::handleInitialized() {
  KESTO_ASSERT(taskScheduler_, className, "Need a TaskScheduler");
  try {
    taskScheduler_->taskRegister(this);
  } catch (...) {
    // A refused task must not stay in the force-yield set it may have joined
    // through the root's test ratio.
    if (taskYieldRatio_)
      taskScheduler_->taskForceYieldInTestNotify(this, false);
    throw;
  }
}

TaskImpl::~TaskImpl() {
  TaskScheduler& s = *taskScheduler_;
  if (taskTestYieldRatio_) {
    taskTestYieldRatio_ = 0;
    taskHistoryInsert(taskClockNow(), TaskSchedulerEventType::frcYieldOff);
    taskShouldYieldModeReevaluate();
  }
  // A ratio that came from the root keeps the task in the scheduler's
  // force-yield set; it must not outlive the task there.
  if (taskYieldRatio_) {
    taskYieldRatio_ = 0;
    s.taskForceYieldInTestNotify(this, false);
  }
  unscheduleTask();
  s.taskUnregister(this);
  taskMagicNumber_ = taskMagicNumberDestroyed;
  // Both links are normally gone by now; a node must not outlive its place.
  if (runQueueLink_.is_linked())
    s.taskRunQueues_[taskPriority_].remove(*this);
  if (registeredLink_.isLinked())
    s.registeredTasks_.remove(*this);
}

// --- virtual operations ------------------------------------------------------

void TaskImpl::taskStatsNameIs(String name) { taskStatsName_ = name.dedup(); }

bool TaskImpl::taskScheduled() const {
  taskScheduler_->sanityCheckCurrentRunningThread();
  return runQueueLink_.is_linked();
}

bool TaskImpl::taskShouldYield() const {
  KESTO_ASSERT(taskCurrentlyRunning_ || taskRunCount_ == 0, className, "taskCurrentlyRunning: {} taskRunCount: {}",
               taskCurrentlyRunning_, taskRunCount_);
  const TaskScheduler& s = *taskScheduler_;
  if (s.suspended_)
    return true;
  switch (taskShouldYieldMode_) {
  case 0: {
    TaskTimeStamp now = taskClockNow();
    if (now < lastTaskRunTimestamp_)
      return true;
    U64 elapsed = U64((now - lastTaskRunTimestamp_).count());
    return !(U64(taskQuantum_.count()) * 1000000u > elapsed);
  }
  case 1:
    return Kesto::time() - s.taskStartVirtualTime_ >= double(taskQuantum_.count()) / 1000.0;
  case 2:
    ++taskYieldCount_;
    return taskYieldCount_ % taskYieldRatio_ == 0;
  default:
    KESTO_FAIL(className, "Unexpected value {}", unsigned(taskShouldYieldMode_));
  }
}

void TaskImpl::taskWorkCountInc(unsigned long n) {
  taskWorkCountTotal_ += n;
  // The first count starts the average; the mark tells whether there was one.
  if (taskWorkCountHighWaterMark_ == TaskStat::noValue)
    taskWorkCountDecayAvg_ = float(n);
  else
    taskWorkCountDecayAvg_ = (9.0f * taskWorkCountDecayAvg_ + float(n)) / 10.0f;
  raiseWorkMark(taskWorkCountHighWaterMark_, n);
}

void TaskImpl::taskWorkPendingIs(unsigned int n) {
  taskWorkPending_ = n;
  raiseWorkMark(taskWorkPendingHighWaterMark_, n);
}

void TaskImpl::scheduleTask() {
  TaskScheduler& s = *taskScheduler_;
  s.sanityCheckCurrentRunningThread();
  if (runQueueLink_.is_linked())
    return;
  TaskTimeStamp now = taskClockNow();
  if (taskSuspended_) {
    // A suspended task never enters a queue; unsuspending schedules it.
    taskHistoryInsert(now, TaskSchedulerEventType::scheduleSus);
    return;
  }
  KESTO_TRACE(Debug::taskScheduler, 8, className, "Scheduled {}", *this);
  taskHistoryInsert(now, TaskSchedulerEventType::schedule);
  taskScheduleTime_ = now;
  s.taskEnqueue(*this);
  s.schedulerHasRunnableTasksIs(true, now);
  taskBusyReevaluate(now);
}

void TaskImpl::taskRunFromTest() {
  TaskTimeStamp now = taskClockNow();
  if (runQueueLink_.is_linked())
    taskScheduler_->taskSchedulerUnlinkTask(now, this);
  TaskTimeStamp end;
  taskDoRun(now, &end);
}

TaskStat::TaskStatus TaskImpl::taskStatus() const {
  TaskStat::TaskStatus status;
  status.taskCurrentlyRunningIs(taskCurrentlyRunning_);
  status.taskOnRunQueueIs(runQueueLink_.is_linked());
  status.taskSuspendedIs(taskSuspended_);
  status.taskIsTaskGroupIs(isTaskGroup());
  bool schedulerSuspended = false;
  for (const TaskScheduler* s = taskScheduler_.get(); s && !schedulerSuspended; s = s->parentScheduler())
    schedulerSuspended = s->suspended();
  status.schedulerSuspendedIs(schedulerSuspended);
  return status;
}

// --- scheduling -------------------------------------------------------------

void TaskImpl::unscheduleTask() {
  TaskScheduler& s = *taskScheduler_;
  s.sanityCheckCurrentRunningThread();
  TaskTimeStamp now = taskClockNow();
  if (runQueueLink_.is_linked())
    unscheduleTaskPrivate(now);
  taskBusyReevaluate(now);
}

void TaskImpl::unscheduleTaskPrivate(const TaskTimeStamp& now) {
  KESTO_TRACE(Debug::taskScheduler, 8, className, "Unscheduled {}", *this);
  taskHistoryInsert(now, TaskSchedulerEventType::unschedule);
  taskScheduler_->unscheduleTask(now, this);
}

void TaskImpl::taskBusyReevaluate(const TaskTimeStamp& now) {
  bool busy = taskScheduled();
  if (busy == taskBusy_)
    return;
  taskBusy_ = busy;
  taskHistoryInsert(now, busy ? TaskSchedulerEventType::busy : TaskSchedulerEventType::idle);
  handleTaskBusy();
}

// --- one run ------------------------------------------------------------------

void TaskImpl::taskDoRun(const TaskTimeStamp& now, TaskTimeStamp* end) {
  TaskScheduler& s = *taskScheduler_;
  TaskScheduler::CurrentlyRunningTaskAnchor anchor(s, *this);
  taskHistoryInsert(now, TaskSchedulerEventType::runStart);
  KESTO_ASSERT(!runQueueLink_.is_linked(), className, "Task: {} still on run queue at run start", *this);
  KESTO_TRACE(Debug::taskScheduler, 8, className, "Running {}", *this);
  lastTaskRunTimestamp_ = now;
  if (firstTaskRunTimestamp_ == TaskTimeStamp{})
    firstTaskRunTimestamp_ = now;

  // The mode may change during the run (virtual time switching); the run is
  // measured the way it started.
  const U8 mode = taskShouldYieldMode_;
  if (mode == 1)
    s.taskStartVirtualTime_ = Kesto::time();

  taskCurrentlyRunning_ = true;
  ++taskRunCount_;
  taskExecute();
  taskCurrentlyRunning_ = false;

  KESTO_ASSERT(taskMagicNumber_ == taskMagicNumberConstructed, className,
               "Task: {} taskMagicNumber: {} taskMagicNumberConstructed: {}", *this, taskMagicNumber_,
               taskMagicNumberConstructed);

  *end = taskClockNow();
  TaskTimeDuration elapsed = *end - now;
  if (mode == 1)
    elapsed = time2Duration(Kesto::time() - s.taskStartVirtualTime_);

  const U32 quantumMs = taskQuantum_.count();
  if (quantumMs != 0 && elapsed >= std::chrono::milliseconds(U32(2u * quantumMs))) {
    if (KESTO_ENABLED(Debug::taskScheduler, 5)) {
      auto percent = U64(std::chrono::duration<double>(elapsed).count() / (double(quantumMs) / 1000.0) * 100.0);
      KESTO_TRACE(Debug::taskScheduler, 5, className, "Ran {} used {} {}% violation", *this,
                  durationToString(elapsed), percent);
    }
    if (elapsed < std::chrono::milliseconds(U32(5u * quantumMs)))
      ++taskQuantumViolation200_;
    else
      ++taskQuantumViolation500_;
  } else {
    KESTO_TRACE(Debug::taskScheduler, 7, className, "Ran {} used {}", *this, durationToString(elapsed));
  }

  raiseHighWaterMark(taskRunTimeHighWaterMark_, toDurationMs(elapsed));
  taskTotalRunTime_ += elapsed;

  taskHistoryInsert(*end, TaskSchedulerEventType::runEnd);
  taskBusyReevaluate(*end);
}

TaskTimeDuration TaskImpl::taskCurrentRunTime() const {
  KESTO_ASSERT(taskCurrentlyRunning_, className, "Task: {} not currently running", *this);
  if (taskShouldYieldMode_ == 1)
    return time2Duration(Kesto::time() - taskScheduler_->taskStartVirtualTime_);
  return taskClockNow() - lastTaskRunTimestamp_;
}

void TaskImpl::taskShouldYieldModeReevaluate() {
  TaskScheduler& s = *taskScheduler_;
  const U8 wanted = taskTestYieldRatio_ ? taskTestYieldRatio_ : s.taskTestYieldRatio();
  if (wanted) {
    if (wanted != taskYieldRatio_) {
      const U8 old = taskYieldRatio_;
      taskYieldCount_ = 0;
      taskYieldRatio_ = wanted;
      if (!old)
        s.taskForceYieldInTestNotify(this, true);
    }
    taskShouldYieldMode_ = 2;
    return;
  }
  if (taskYieldRatio_) {
    taskYieldRatio_ = 0;
    taskYieldCount_ = 0;
    s.taskForceYieldInTestNotify(this, false);
  }
  if (s.virtualTime()) {
    if (taskShouldYieldMode_ != 1) {
      taskShouldYieldMode_ = 1;
      if (taskCurrentlyRunning_)
        s.taskStartVirtualTime_ = Kesto::time();
    }
  } else {
    taskShouldYieldMode_ = 0;
  }
}

// --- settings -------------------------------------------------------------------

void TaskImpl::taskQuantumIs(TaskDurationMs quantum) {
  KESTO_ASSERT(quantum <= maxTaskQuantum, className, "Quantum: {}", quantumText(quantum));
  taskQuantumNoCheckIs(quantum);
}

void TaskImpl::taskQuantumNoCheckIs(TaskDurationMs quantum) {
  if (quantum == taskQuantum_)
    return;
  KESTO_ASSERT(quantum.count() != 0, className, "Quantum: {}", quantumText(quantum));
  taskQuantum_ = quantum;
  if (quantum == taskScheduler_->defaultTaskQuantum())
    KESTO_TRACE(Debug::taskScheduler, 9, className, "Set quantum {} to {}", *this, quantumText(quantum));
  else
    KESTO_TRACE(Debug::taskScheduler, 4, className, "Set quantum {} to {}", *this, quantumText(quantum));
}

void TaskImpl::taskPriorityIs(TaskPriority priority) {
  // Critical is fixed at construction, in both directions.
  KESTO_ASSERT(priority != TaskPriority::critical, className, "priority != TaskPriority::critical");
  KESTO_ASSERT(taskPriority_ != TaskPriority::critical, className, "taskPriority_ != TaskPriority::critical");
  if (priority == taskPriority_)
    return;
  TaskScheduler& s = *taskScheduler_;
  // Before anything moves: a priority beyond scavenge has no run queue.
  s.checkPriority(priority);
  s.validateTaskPriority(priority);
  const bool wasQueued = runQueueLink_.is_linked();
  if (wasQueued)
    unscheduleTask();
  s.tasksPerPriorityDec(taskPriority_);
  taskPriority_ = priority;
  s.tasksPerPriorityInc(taskPriority_);
  taskHistoryIdentifier_ = calculateTaskHistoryIdentifier();
  if (wasQueued)
    scheduleTask();
}

void TaskImpl::taskSuspendedIs(bool suspended) {
  if (bool(taskSuspended_) == suspended)
    return;
  TaskTimeStamp now = taskClockNow();
  if (suspended) {
    KESTO_TRACE(Debug::taskScheduler, 1, className, "Suspend {}", *this);
    taskHistoryInsert(now, TaskSchedulerEventType::suspendOn);
    taskSuspended_ = 1;
    unscheduleTask();
  } else {
    KESTO_TRACE(Debug::taskScheduler, 1, className, "Unsuspend {}", *this);
    taskHistoryInsert(now, TaskSchedulerEventType::suspendOff);
    taskSuspended_ = 0;
    // Every task that is not busy runs once after being unsuspended: the
    // scheduling refused while suspended is not remembered otherwise.
    if (!taskScheduled())
      scheduleTask();
  }
}

// --- reading ----------------------------------------------------------------------

Ptr<TaskScheduler> TaskImpl::taskScheduler() const { return taskScheduler_; }

TaskStat TaskImpl::getStats() const {
  TaskStat stat;
  stat.taskNameIs(taskName_);
  stat.taskKeyIs(TaskKey(this));
  stat.taskPriorityIs(taskPriority_);
  stat.taskStatusIs(taskStatus());
  stat.taskRunInc(taskRunCount_);
  stat.taskTotalRunTimeInc(taskTotalRunTime_);
  stat.firstTaskRunTimestampIs(firstTaskRunTimestamp_);
  stat.lastTaskRunTimestampIs(lastTaskRunTimestamp_);
  stat.taskWorkCountTotalInc(taskWorkCountTotal_);
  stat.taskWorkCountDecayAvgIs(taskWorkCountDecayAvg_);
  stat.taskWorkCountHighWaterMarkIs(taskWorkCountHighWaterMark_);
  stat.taskWorkPendingIs(taskWorkPending_);
  stat.taskWorkPendingHighWaterMarkIs(taskWorkPendingHighWaterMark_);
  stat.taskQuantumViolation500Inc(taskQuantumViolation500_);
  stat.taskQuantumViolation200Inc(taskQuantumViolation200_);
  stat.taskRunTimeHighWaterMarkIs(taskRunTimeHighWaterMark_);
  stat.taskLastSchedulingLatencyIs(taskLastSchedulingLatency_);
  stat.taskSchedulingLatencyHighWaterMarkIs(taskSchedulingLatencyHighWaterMark_);
  stat.taskCompletedCountIs(0);
  return stat;
}

// --- test hooks ---------------------------------------------------------------------

void TaskImpl::taskRunAndRecordFromTest() {
  Ptr<TaskScheduler> hold(taskScheduler_);
  TaskScheduler& s = *hold;
  s.schedulerRunStartIs(taskClockNow());
  if (runQueueLink_.is_linked())
    s.taskSchedulerUnlinkTask(s.schedulerRunStart_, this);
  TaskTimeStamp end;
  taskDoRun(s.schedulerRunStart_, &end);
  s.lastSchedulerRunEnd_ = end;
  s.requestSchedulerRun();
}

void TaskImpl::taskForceYieldInTestIs(bool force) { taskTestYieldRatioIs(force ? 1 : 0); }

void TaskImpl::taskTestYieldRatioIs(unsigned char ratio) {
  if (ratio != taskTestYieldRatio_) {
    taskTestYieldRatio_ = ratio;
    taskHistoryInsert(taskClockNow(),
                      ratio ? TaskSchedulerEventType::frcYieldOn : TaskSchedulerEventType::frcYieldOff);
  }
  taskShouldYieldModeReevaluate();
}

// --- Task -------------------------------------------------------------------------------

Task::Task(Ptr<TaskScheduler> scheduler, TaskPriority priority, const String& name)
    : TaskImpl(std::move(scheduler), priority, name) {}

Task::Task(TaskScheduler* scheduler, TaskPriority priority, const String& name)
    : TaskImpl(Ptr<TaskScheduler>(scheduler), priority, name) {}

Task::~Task() = default;

} // namespace Kesto
