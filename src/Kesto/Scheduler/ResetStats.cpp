// Statistics reset: the asynchronous walk of ResetStatsTask, the synchronous
// clearStats(), and what resetting one task and the scheduler itself means.
#include <Kesto/Scheduler/ResetStatsTask.h>
#include <Kesto/Scheduler/TaskScheduler.h>

#include <ZuSlab/ZuSlab.h>

#include <iterator>

namespace Kesto {

namespace {

String resetStatsTaskName(const TaskScheduler& scheduler) {
  String name = scheduler.schedulerName();
  name.addRight(";ResetStats");
  return name;
}

// Resets the tasks of `tasks` from `mark` on. Before a task's reset, `mark`
// moves to just behind it, and the next task is read from `mark` afterwards:
// handleResetStats() is code of the task's owner and may destroy that task or
// the one after it, create tasks (they go to the head, ahead of `mark`) or
// restart the reset (which parks `mark` at the head again); `mark` stays
// valid through all of that, where an iterator would dangle.
//
// After each task, while tasks are left, `stop()` may end the slice: `mark`
// then stands before the next task and the result is false. At the end of
// the list `mark` is taken out and the result is true. `count` adds one for
// each task reset.
template <typename Reset, typename Stop>
bool resetTasksFrom(TaskScheduler::RegisteredTasks& tasks, TaskScheduler::RegisteredTasks::Bookmark& mark,
                    Reset&& reset, Stop&& stop, unsigned long& count) {
  const TaskScheduler::RegisteredTasks::iterator end = tasks.end();
  // An unparked bookmark fails here, in the list's own check.
  TaskScheduler::RegisteredTasks::iterator it = mark.nextElement();
  while (it != end) {
    TaskImpl& task = *it;
    mark.remove();
    mark.insertBefore(tasks, std::next(it));
    reset(task);
    ++count;
    it = mark.nextElement();
    if (it != end && stop())
      return false;
  }
  mark.remove();
  return true;
}

} // namespace

// --- one task, and the scheduler's own figures ----------------------------------

void TaskScheduler::taskStatsReset(TaskImpl& task) {
  task.taskTotalRunTime_ = TaskTimeDuration(0);
  task.taskWorkCountTotal_ = 0;
  task.taskWorkCountDecayAvg_ = 0.0f;
  task.taskWorkPending_ = 0;
  task.taskRunTimeHighWaterMark_ = TaskDurationMs(0);
  task.taskQuantumViolation500_ = 0;
  task.taskQuantumViolation200_ = 0;
  task.taskLastSchedulingLatency_ = TaskDurationMs(0);
  task.taskSchedulingLatencyHighWaterMark_ = TaskDurationMs(0);
  task.taskRunCount_ = 0;
  task.taskWorkCountHighWaterMark_ = TaskStat::noValue;
  task.taskWorkPendingHighWaterMark_ = TaskStat::noValue;
  // A running task's current run counts as its first since the reset; its
  // quantum is still measured from lastTaskRunTimestamp_.
  if (task.taskCurrentlyRunning_) {
    task.firstTaskRunTimestamp_ = task.lastTaskRunTimestamp_;
  } else {
    task.firstTaskRunTimestamp_ = TaskTimeStamp{};
    task.lastTaskRunTimestamp_ = TaskTimeStamp{};
  }
  task.handleResetStats();
}

void TaskScheduler::schedulerStatsReset() noexcept {
  // Runnable counts (scheduled - dequeued) must stay right, so the counters
  // themselves stay and only the baseline of runTaskCount moves.
  for (unsigned p = 0; p < priorityCount; ++p) {
    TaskRunQueue& q = taskRunQueues_[TaskPriority(p)];
    q.dequeuedCountBaseline_ = q.dequeuedCount_;
  }
  maxSchedulerSlip_ = TaskTimeDuration(0);
  completedTaskStats_.clear();
  completedTasksPerPriority_.clear();
}

// --- the scheduler's operations ----------------------------------------------------

bool TaskScheduler::resetStatsInProgress() const { return resetStatsTask_ && resetStatsTask_->taskScheduled(); }

namespace {
// The scheduler whose reset task is being made on this thread. A task
// registers from inside its base constructor, before its own type is known,
// so this is how the registration tells the reset task apart.
thread_local const TaskScheduler* schedulerMakingItsResetTask = nullptr;
} // namespace

bool TaskScheduler::registeringResetStatsTask() const noexcept { return schedulerMakingItsResetTask == this; }

void TaskScheduler::resetStats() {
  if (!resetStatsTask_) [[unlikely]] {
    const TaskScheduler* outer = schedulerMakingItsResetTask;
    schedulerMakingItsResetTask = this;
    try {
      resetStatsTask_ = Ptr<ResetStatsTask>(new ResetStatsTask(this));
    } catch (...) {
      schedulerMakingItsResetTask = outer;
      throw;
    }
    schedulerMakingItsResetTask = outer;
  }
  resetStatsTask_->scheduleTask();
  // A reset under way starts again from the head: what it had done is done
  // again, and the scheduler's figures are reset once, at the new end.
  resetStatsBookmark_.remove();
  resetStatsBookmark_.insertBefore(registeredTasks_, registeredTasks_.begin());
}

void TaskScheduler::clearStats() {
  sanityCheckCurrentRunningThread();
  schedulerStatsReset();
  // A bookmark of its own, so that a reset walk parked in the list keeps its
  // place; this one only guards the walk against what handlers do.
  RegisteredTasks::Bookmark mark;
  mark.insertBefore(registeredTasks_, registeredTasks_.begin());
  unsigned long count = 0;
  resetTasksFrom(registeredTasks_, mark, [](TaskImpl& task) { taskStatsReset(task); }, [] { return false; }, count);
}

// --- the reset task -------------------------------------------------------------------

TaskScheduler::ResetStatsTask::ResetStatsTask(TaskScheduler* scheduler)
    : Task(scheduler, TaskPriority::normal, resetStatsTaskName(*scheduler)) {}

void* TaskScheduler::ResetStatsTask::operator new(std::size_t size) { return ZuSlab::slabAllocOrStdMalloc(size); }

void TaskScheduler::ResetStatsTask::operator delete(void* p) noexcept { ZuSlab::slabFreeOrStdFree(p); }

void TaskScheduler::ResetStatsTask::taskExecute() {
  Ptr<TaskScheduler> hold(taskScheduler_);
  TaskScheduler& s = *hold;
  unsigned long count = 0;
  // At least one task per run, so the walk always advances; then one clock
  // reading per task decides whether to give the thread back.
  const bool finished = resetTasksFrom(
      s.registeredTasks_, s.resetStatsBookmark_, [](TaskImpl& task) { taskStatsReset(task); },
      [this] { return taskShouldYield(); }, count);
  taskWorkCountInc(count);
  if (!finished) {
    scheduleTask();
    return;
  }
  s.schedulerStatsReset();
  // A handleResetStats() that called resetStats() during this run put this
  // task back on the queue; the walk it asked for has just covered the whole
  // list, so there is nothing left for another run to do.
  if (onRunQueue())
    unscheduleTask();
}

} // namespace Kesto
