#include <Kesto/Scheduler/TaskGroup.h>
#include <Kesto/Scheduler/TaskSchedulerRoot.h>
#include <Kesto/Core/Rdtsc.h>
#include <Kesto/Debug/Trace.h>

#include <ZuSlab/ZuSlab.h>

namespace Kesto {

namespace {
constexpr const char* className = "TaskGroup";

// Whether a group keeps multiple runs under virtual time. Process-wide, so a
// test sets it once for every root and group it makes.
bool allowMultipleRunsWithVirtualTime = false;

String parentTaskName(const String& groupName) {
  String name("TaskGroup;");
  name.addRight(groupName.view());
  return name;
}
} // namespace

// --- the process-wide test switch -------------------------------------------

bool TaskSchedulerRoot::testAllowTaskGroupTasksPermittedMultipleRunsWithVirtualTime() {
  return __atomic_load_n(&allowMultipleRunsWithVirtualTime, __ATOMIC_RELAXED);
}

void TaskSchedulerRoot::testAllowTaskGroupTasksPermittedMultipleRunsWithVirtualTimeIs(bool allow) {
  __atomic_store_n(&allowMultipleRunsWithVirtualTime, allow, __ATOMIC_RELAXED);
}

// --- ParentTask -----------------------------------------------------------------

TaskGroup::ParentTask::ParentTask(TaskGroup* group, Ptr<TaskScheduler> parent, TaskPriority priority,
                                  const String& name)
    : Task(std::move(parent), priority, name), taskGroup_(group) {}

void* TaskGroup::ParentTask::operator new(std::size_t size) { return ZuSlab::slabAllocOrStdMalloc(size); }

void TaskGroup::ParentTask::operator delete(void* p) noexcept { ZuSlab::slabFreeOrStdFree(p); }

void TaskGroup::ParentTask::handleResetStats() {
  // A reset of the parent scheduler spreads down the tree of groups, each
  // group's walk as a task of its own.
  if (taskGroup_)
    taskGroup_->resetStats();
}

void TaskGroup::ParentTask::taskExecute() {
  TaskGroup* group = taskGroup_;
  // The group went while this task was still held (by a run or a report).
  if (!group)
    return;
  // A task of the group may drop the last outside reference to it; the group
  // then goes when this run ends, not under the passes below.
  Ptr<TaskGroup> hold(group);
  group->parentRun(*this);
}

bool TaskGroup::ParentTask::isTaskGroup() const {
  KESTO_ASSERT(taskGroup_, className, "TaskGroup is non-null");
  return true;
}

// --- life -------------------------------------------------------------------------

Ptr<TaskGroup> TaskGroup::TaskGroupIs(String name, TaskPriority priority, TaskGroupPriorityEnforcement enforcement,
                                      Ptr<TaskScheduler> parent) {
  return Ptr<TaskGroup>(new TaskGroup(name, priority, enforcement, std::move(parent)));
}

TaskGroup::TaskGroup(const String& name, TaskPriority priority, TaskGroupPriorityEnforcement enforcement,
                     Ptr<TaskScheduler> parent)
    : TaskScheduler(name, parent->taskSchedulerRoot(), parent->taskSchedulerHistory()),
      parentScheduler_(std::move(parent)), taskGroupPriority_(priority), priorityEnforcement_(enforcement) {
  defaultTaskQuantum_ = parentScheduler_->defaultTaskQuantum();
  taskSchedulerRoot_->registerScheduler(this);
  try {
    // Registers with the parent like any task, so a parent group's
    // enforcement and the root's critical check apply to it.
    parentTask_ = Ptr<ParentTask>(new ParentTask(this, parentScheduler_, priority, parentTaskName(schedulerName_)));
  } catch (...) {
    // No destructor runs for a half-made group: leave the root's set clean.
    taskSchedulerRoot_->unregisterScheduler(this);
    throw;
  }
  tasksPermittedMultipleRunsReevaluate();
}

TaskGroup::~TaskGroup() {
  if (taskGroupForceYieldInTest_) {
    taskGroupForceYieldInTest_ = false;
    taskForceYieldInTestNotify(parentTask_.get(), false);
  }
  taskSchedulerRoot_->unregisterScheduler(this);
  // A parent task still held elsewhere (in the middle of its run) must find
  // no group when it next runs.
  parentTask_->taskGroup_ = nullptr;
  parentTask_ = nullptr;
  parentScheduler_ = nullptr;
}

// --- virtual operations ------------------------------------------------------------

void TaskGroup::suspendedIs(bool suspended) { taskGroupSuspendedIs(suspended); }

void TaskGroup::requestSchedulerRun() { parentTask_->TaskImpl::scheduleTask(); }

void TaskGroup::handleTaskForceYieldInTest() {
  if (parentTask_)
    parentTask_->taskTestYieldRatioIs(forceYieldTasks_.empty() ? 0 : 1);
}

void TaskGroup::handleVirtualTimeChange() { tasksPermittedMultipleRunsReevaluate(); }

void TaskGroup::taskRegister(TaskImpl* task) {
  // The group's own reset task runs at normal whatever the group allows its
  // tasks: it is the library's bookkeeping, not one of the group's tasks.
  if (!registeringResetStatsTask())
    validateTaskPriority(task->taskPriority());
  TaskScheduler::taskRegister(task);
}

void TaskGroup::timerRunningInc(const TaskTimeStamp& now) {
  doTimerRunningInc(now);
  // The whole group is one timer in its parent.
  if (timerRunningCount_ == 1)
    parentScheduler_->timerRunningInc(now);
}

void TaskGroup::timerRunningDec(const TaskTimeStamp& now) {
  doTimerRunningDec(now);
  if (timerRunningCount_ == 0)
    parentScheduler_->timerRunningDec(now);
}

TaskScheduler* TaskGroup::rootScheduler() const { return taskSchedulerRoot_; }

void TaskGroup::validateTaskPriority(TaskPriority p) const {
  bool allowed = false;
  switch (priorityEnforcement_) {
  case TaskGroupPriorityEnforcement::sameAsGroupPriority:
    allowed = p == taskGroupPriority_;
    break;
  case TaskGroupPriorityEnforcement::onlyAllowRegularPriorities:
    allowed = p == TaskPriority::high || p == TaskPriority::normal || p == TaskPriority::low;
    break;
  case TaskGroupPriorityEnforcement::allowAny:
    allowed = p >= TaskPriority::absolute && p <= TaskPriority::scavenge;
    break;
  }
  // Critical work belongs to the root alone: a group's tasks run inside a
  // parent task and could not preempt anything from there.
  KESTO_ASSERT(allowed && p != TaskPriority::critical, className,
               "priorityEnforcement={} taskPriority={} taskGroupPriority={}", priorityEnforcement_, p,
               taskGroupPriority_);
}

// --- run mode ------------------------------------------------------------------------

void TaskGroup::tasksPermittedMultipleRunsIs(bool permitted) {
  if (permitted == tasksPermittedMultipleRuns_)
    return;
  tasksPermittedMultipleRuns_ = permitted;
  tasksPermittedMultipleRunsReevaluate();
}

void TaskGroup::tasksPermittedMultipleRunsReevaluate() {
  bool inForce = tasksPermittedMultipleRuns_;
  // Under virtual time a task that doesn't advance the clock never uses up
  // the parent's quantum: one run each, unless a test asks for more.
  if (inForce && taskSchedulerRoot_->virtualTime())
    inForce = TaskSchedulerRoot::testAllowTaskGroupTasksPermittedMultipleRunsWithVirtualTime();
  tasksPermittedMultipleRunsInForce_ = inForce;
}

// --- the parent run ------------------------------------------------------------------

void TaskGroup::parentRun(ParentTask& parentTask) {
  // The mode of the whole run, whatever virtual time does meanwhile: the
  // lists this run began with are the lists it puts back.
  const bool multipleRuns = tasksPermittedMultipleRunsInForce_;
  if (!multipleRuns) {
    // From here scheduleTask(), which appends to the persistent lists, can't
    // add to what this run picks.
    for (unsigned p = 0; p < priorityCount; ++p)
      taskRunQueues_[TaskPriority(p)].movePersistentToTemporary();
  }

  // Above 20 ms a parent run would hold critical work too long: poll it by
  // the time-stamp counter, which costs a few cycles where a clock call
  // costs ~20 ns, after every pass.
  const bool pollCritical = parentTask.taskQuantum() > criticalPollQuantum;
  // The intervals in ticks first: the first use of the counter's rate
  // measures it, which takes milliseconds that must not count against the
  // first deadline.
  const U64 firstPollTicks = pollCritical ? Rdtsc::secondsToTicks(criticalPollFirstSeconds) : 0;
  const U64 nextPollTicks = pollCritical ? Rdtsc::secondsToTicks(criticalPollNextSeconds) : 0;
  U64 deadline = pollCritical ? Rdtsc::ticks() + firstPollTicks : 0;

  unsigned long count = 0;
  while (schedulerHasRunnableTasks_ && !suspended_) {
    ++count;
    // A pass that ran nothing found the lists empty (the flag is clear now)
    // or the root suspended, which a parent task of a nested group does not
    // see in its own yield test: either way there is nothing more to do, and
    // no clock to read for a yield test.
    if (!_handleSchedulerRun(TaskPriority::scavenge))
      break;
    if (parentTask.taskShouldYield())
      break;
    if (pollCritical && Rdtsc::ticks() >= deadline) {
      taskSchedulerRoot_->runCriticalPriorityTasks();
      deadline = Rdtsc::ticks() + nextPollTicks;
    }
  }

  if (!multipleRuns) {
    // What this run did not reach goes ahead of what was scheduled during
    // it, so the order of service stays fair.
    for (unsigned p = 0; p < priorityCount; ++p)
      taskRunQueues_[TaskPriority(p)].moveTemporaryToPersistent();
  }

  parentTask.taskWorkCountInc(count);
  const U32 pending = runnableTaskCount();
  parentTask.taskWorkPendingIs(pending);

  const TaskTimeStamp now = taskClockNow();
  if (parentTask.taskSuspended()) {
    KESTO_ASSERT(!parentTask.onRunQueue(), className, "TaskGroup parentTask should not be scheduled when suspended.");
  } else if (pending == 0) {
    if (schedulerHasRunnableTasks_)
      schedulerHasRunnableTasksIs(false, now);
    if (parentTask.onRunQueue())
      parentTask.unscheduleTask();
  } else if (!multipleRuns) {
    // An empty temporary list may have cleared the flag while the
    // persistent lists held tasks.
    parentTask.scheduleTask();
    schedulerHasRunnableTasksIs(true, now);
  } else {
    KESTO_ASSERT(parentTask.taskScheduled(), className, "TaskGroup parentTask should be scheduled.");
    KESTO_ASSERT(schedulerHasRunnableTasks_, className, "The TaskGroup should have runnable tasks");
  }
}

// --- the parent task ------------------------------------------------------------------

TaskDurationMs TaskGroup::taskGroupQuantum() const { return parentTask_->taskQuantum(); }

void TaskGroup::taskGroupQuantumIs(TaskDurationMs quantum) { parentTask_->taskQuantumIs(quantum); }

void TaskGroup::taskGroupQuantumNoCheckIs(TaskDurationMs quantum) { parentTask_->taskQuantumNoCheckIs(quantum); }

bool TaskGroup::taskGroupSuspended() const { return parentTask_->taskSuspended(); }

void TaskGroup::taskGroupSuspendedIs(bool suspended) {
  if (suspended == suspended_)
    return;
  KESTO_TRACE(Debug::taskScheduler, 1, className, "{} Suspended={}", *this, suspended);
  // The group's tasks keep their places; the parent task leaves or rejoins
  // the parent's queue, and at unsuspension runs once even with nothing to do.
  parentTask_->taskSuspendedIs(suspended);
  suspended_ = suspended;
}

bool TaskGroup::parentTaskScheduled() const { return parentTask_->taskScheduled(); }

U64 TaskGroup::parentTaskRunCount() const { return parentTask_->taskRunCount(); }

// --- tests -----------------------------------------------------------------------------

void TaskGroup::taskGroupForceYieldInTestIs(bool force) {
  if (force == taskGroupForceYieldInTest_)
    return;
  taskGroupForceYieldInTest_ = force;
  taskForceYieldInTestNotify(parentTask_.get(), force);
}

void TaskGroup::taskGroupRunFromTest() { parentTask_->taskRunFromTest(); }

} // namespace Kesto
