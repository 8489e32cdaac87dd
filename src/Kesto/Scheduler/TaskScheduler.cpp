#include <Kesto/Scheduler/TaskScheduler.h>
#include <Kesto/Debug/Trace.h>
#include <Kesto/Report/SnapshotShow.h>
#include <Kesto/Scheduler/ResetStatsTask.h> // ~TaskScheduler releases the reset task

#include "Scheduler/HighWaterMark.h"

#include <algorithm>
#include <locale>
#include <ostream>

namespace Kesto {

namespace {
constexpr const char* className = "TaskScheduler";
constexpr const char* temporaryNotEmpty = "The temporary run queue should always be empty at this point";

// A name may run at critical priority if it is one of the named uses or a
// test. The first test is case-sensitive on purpose.
bool criticalNameAuthorized(const String& name) {
  if (name.find("RibOutKeepalive") != String::npos)
    return true;
  std::string lower(name.view());
  const std::locale locale;
  for (char& c : lower)
    c = std::tolower(c, locale);
  return lower.find("test") != std::string::npos;
}
} // namespace

// --- run queues -------------------------------------------------------------

void TaskScheduler::TaskRunQueues::TaskRunQueue::movePersistentToTemporary() {
  KESTO_ASSERT_H(Debug::taskScheduler, temporaryRunQueue_.empty(), className, "{}", temporaryNotEmpty);
  temporaryRunQueue_.splice(temporaryRunQueue_.end(), persistentRunQueue_);
  currentRunQueue_ = &temporaryRunQueue_;
}

void TaskScheduler::TaskRunQueues::TaskRunQueue::moveTemporaryToPersistent() {
  persistentRunQueue_.splice(persistentRunQueue_.begin(), temporaryRunQueue_);
  currentRunQueue_ = &persistentRunQueue_;
  KESTO_ASSERT_H(Debug::taskScheduler, temporaryRunQueue_.empty(), className, "{}", temporaryNotEmpty);
}

// --- life -------------------------------------------------------------------

TaskScheduler::TaskScheduler(const String& name, TaskSchedulerRoot* root, Ptr<TaskSchedulerHistory> history)
    : schedulerName_(name.dedup()), taskSchedulerRoot_(root), taskSchedulerHistory_(std::move(history)),
      lastSchedulerRunEnd_(taskClockNow()) {}

TaskScheduler::~TaskScheduler() {
  // Tasks hold their scheduler, so none is left; clearing sets any remaining
  // nodes unlinked all the same.
  for (unsigned p = 0; p < priorityCount; ++p) {
    TaskRunQueue& q = taskRunQueues_[TaskPriority(p)];
    q.persistentRunQueue_.clear();
    q.temporaryRunQueue_.clear();
  }
  taskSchedulerHistory_ = nullptr;
}

void TaskScheduler::failPriority(TaskPriority p) const { KESTO_FAIL(className, "{}", p); }

// --- virtual operations with a body here ------------------------------------

void TaskScheduler::runCriticalPriorityTasks() {
  TaskScheduler* root = rootScheduler();
  KESTO_ASSERT(root != this, className, "{} runCriticalPriorityTasks not provided by the root", *this);
  root->runCriticalPriorityTasks();
}

void TaskScheduler::sanityCheckCurrentRunningThread() const {
  TaskScheduler* root = rootScheduler();
  KESTO_ASSERT(root != this, className, "{} thread check not provided by the root", *this);
  root->sanityCheckCurrentRunningThread();
}

bool TaskScheduler::virtualTime() const {
  TaskScheduler* root = rootScheduler();
  KESTO_ASSERT(root != this, className, "{} virtual time not provided by the root", *this);
  return root->virtualTime();
}

unsigned char TaskScheduler::taskTestYieldRatio() const {
  TaskScheduler* root = rootScheduler();
  KESTO_ASSERT(root != this, className, "{} test yield ratio not provided by the root", *this);
  return root->taskTestYieldRatio();
}

void TaskScheduler::taskRegister(TaskImpl* task) {
  sanityCheckCurrentRunningThread();
  TaskTimeStamp now = taskClockNow();
  const TaskPriority p = task->taskPriority_;
  checkPriority(p);
  if (p == TaskPriority::critical) {
    KESTO_ASSERT(rootScheduler() == this, className,
                 "Critical priority task {} can only be registered against root scheduler, not {}", *task, *this);
    KESTO_ASSERT(criticalNameAuthorized(task->taskName_), className,
                 "Use of critical priority task {} must be authorized", *task);
  }
  KESTO_TRACE(Debug::taskScheduler, 4, className, "{} Register {}", *this, *task);
  KESTO_ASSERT(!task->registeredLink_.isLinked(), className, "Task: {} already registered", *task);
  registeredTasks_.pushFront(*task);
  tasksPerPriorityInc(p);
  task->taskHistoryInsert(now, TaskSchedulerEventType::create);
}

// --- for tasks ----------------------------------------------------------------

void TaskScheduler::taskUnregister(TaskImpl* task) {
  sanityCheckCurrentRunningThread();
  TaskTimeStamp now = taskClockNow();
  KESTO_TRACE(Debug::taskScheduler, 4, className, "{} Unregister {}", *this, *task);
  KESTO_ASSERT(!task->runQueueLink_.is_linked(), className, "Task: {} scheduled on unregister", *task);
  if (task->includeInCompletedTask_)
    updateCompletedTaskStats(task);
  tasksPerPriorityDec(task->taskPriority_);
  const bool removed = registeredTasks_.remove(*task);
  KESTO_ASSERT(removed, className, "Task: {} not registered", *task);
  task->taskHistoryInsert(now, TaskSchedulerEventType::destroy);
}

void TaskScheduler::updateCompletedTaskStats(TaskImpl* task) {
  TaskStat stat = task->getStats();
  stat.taskNameIs(task->taskStatsName_);
  const TaskPriority p = stat.taskPriority();
  checkPriority(p);
  KESTO_ASSERT(stat.taskCompletedCount() == 0, className, "Task: {} completedCount: {}", *task,
               stat.taskCompletedCount());
  stat.taskCompletedCountIs(1);
  auto it = completedTaskStats_.find(task->taskStatsName_);
  if (it != completedTaskStats_.end())
    it->second += stat;
  else
    completedTaskStats_.emplace(task->taskStatsName_, std::move(stat));
  completedTasksPerPriorityInc(p);
}

void TaskScheduler::completedTasksPerPriorityInc(TaskPriority p) {
  U64& count = completedTasksPerPriority_[p];
  ++count;
  KESTO_ASSERT(count != 0, className, "Priority: {} count: {}", p, count);
}

void TaskScheduler::tasksPerPriorityInc(TaskPriority p) {
  U32& count = tasksPerPriority_[p];
  ++count;
  KESTO_ASSERT(count != 0, className, "Priority: {} count: {}", p, count);
}

void TaskScheduler::tasksPerPriorityDec(TaskPriority p) {
  U32& count = tasksPerPriority_[p];
  KESTO_ASSERT(count != 0, className, "Priority: {} count: {}", p, count);
  --count;
}

void TaskScheduler::taskEnqueue(TaskImpl& task) {
  TaskRunQueue& q = taskRunQueues_[task.taskPriority_];
  q.persistentRunQueue_.push_back(task);
  ++q.scheduledCount_;
}

void TaskScheduler::schedulingLatencyRecord(TaskImpl& task, const TaskTimeStamp& now) noexcept {
  task.taskLastSchedulingLatency_ = toDurationMs(now - task.taskScheduleTime_);
  raiseHighWaterMark(task.taskSchedulingLatencyHighWaterMark_, task.taskLastSchedulingLatency_);
}

void TaskScheduler::unscheduleTask(const TaskTimeStamp& now, TaskImpl* task) {
  KESTO_ASSERT(task->runQueueLink_.is_linked(), className, "Task: {} not on run queue", *task);
  const TaskPriority p = task->taskPriority_;
  checkPriority(p);
  TaskRunQueue& q = taskRunQueues_[p];
  q.remove(*task);
  // An unscheduled wait counts as a latency too.
  schedulingLatencyRecord(*task, now);
  // The task leaves without running: the run count must not move.
  --q.scheduledCount_;
}

void TaskScheduler::taskSchedulerUnlinkTask(const TaskTimeStamp& now, TaskImpl* task) {
  const TaskPriority p = task->taskPriority_;
  checkPriority(p);
  taskSchedulerUnlinkTask(now, taskRunQueues_[p], task);
}

void TaskScheduler::taskSchedulerUnlinkTask(const TaskTimeStamp& now, TaskRunQueue& queue, TaskImpl* task) {
  ++queue.dequeuedCount_;
  KESTO_ASSERT(queue.scheduledCount_ - queue.dequeuedCount_ >= 0, className, "");
  queue.remove(*task);
  schedulingLatencyRecord(*task, now);
  // The task is taken out to run and its "run start" is not in the ring
  // yet: the ring ends where the latency window ends. Off, this is one
  // compare with a threshold no wait reaches.
  TaskSchedulerHistory& history = *taskSchedulerHistory_.get();
  if (history.latencyThresholdCrossed(now - task->taskScheduleTime_)) [[unlikely]]
    history.latencyEventRecord(task->taskHistoryIdentifier(), schedulerName_, task->taskScheduleTime_, now);
}

void TaskScheduler::schedulerHasRunnableTasksIs(bool value, const TaskTimeStamp& now) {
  if (value == schedulerHasRunnableTasks_)
    return;
  schedulerHasRunnableTasks_ = value;
  if (value) {
    KESTO_TRACE(Debug::taskScheduler, 8, className, "{} Scheduler has runnable tasks, request run", *this);
    historyInsert(now, TaskSchedulerEventType::schedulerHasRunnableTasks);
    lastSchedulerRunEnd_ = now;
    requestSchedulerRun();
  } else {
    historyInsert(now, TaskSchedulerEventType::schedulerHasNoRunnableTasks);
    KESTO_TRACE(Debug::taskScheduler, 8, className, "{} Scheduler idle", *this);
  }
  schedulerBusyReevaluate(now);
}

void TaskScheduler::schedulerBusyReevaluate(const TaskTimeStamp& now) {
  const bool busy = schedulerHasRunnableTasks_ || timerRunningCount_ != 0;
  if (busy == schedulerBusy_)
    return;
  schedulerBusy_ = busy;
  historyInsert(now, busy ? TaskSchedulerEventType::schedulerBusy : TaskSchedulerEventType::schedulerIdle);
  // An empty function throws std::bad_function_call from here, to the caller.
  for (auto& [key, callback] : busyCallbacks_)
    callback();
}

void TaskScheduler::doTimerRunningInc(const TaskTimeStamp& now) {
  if (++timerRunningCount_ == 1)
    schedulerBusyReevaluate(now);
}

void TaskScheduler::doTimerRunningDec(const TaskTimeStamp& now) {
  KESTO_ASSERT(timerRunningCount_ > 0, className, "timerRunningCount_ > 0");
  if (--timerRunningCount_ == 0)
    schedulerBusyReevaluate(now);
}

void TaskScheduler::historyInsert(const TaskTimeStamp& when, TaskSchedulerEventType type) const {
  taskSchedulerHistory_->record(when, type, schedulerName_);
}

void TaskScheduler::schedulerRunStartIs(const TaskTimeStamp& start) noexcept {
  schedulerRunStart_ = start;
  raiseHighWaterMark(maxSchedulerSlip_, start - lastSchedulerRunEnd_);
}

void TaskScheduler::taskForceYieldInTestNotify(TaskImpl* task, bool on) {
  if (on) {
    if (forceYieldTasks_.insert(task).second && forceYieldTasks_.size() == 1)
      handleTaskForceYieldInTest();
  } else {
    if (forceYieldTasks_.erase(task) && forceYieldTasks_.empty())
      handleTaskForceYieldInTest();
  }
}

// --- running ----------------------------------------------------------------------

bool TaskScheduler::_handleSchedulerRun(TaskPriority last) {
  Ptr<TaskScheduler> hold(this);
  schedulerRunStartIs(taskClockNow());
  if (rootScheduler()->suspended_) {
    // No further run is requested: unsuspending restarts the chain.
    KESTO_TRACE(Debug::taskScheduler, 8, className, "{} Suspended", *this);
    historyInsert(schedulerRunStart_, TaskSchedulerEventType::schedulerRunIgnoredWhileSuspended);
    return false;
  }
  TaskImpl* task = pickOneTask(schedulerRunStart_, TaskPriority::critical, last);
  if (!task) {
    // A pass limited to fewer priorities says nothing about runnability.
    if (last == TaskPriority::scavenge)
      schedulerHasRunnableTasksIs(false, schedulerRunStart_);
    return false;
  }
  TaskTimeStamp end;
  task->taskDoRun(schedulerRunStart_, &end);
  KESTO_TRACE(Debug::taskScheduler, 8, className, "{} Scheduler completed task, request run", *this);
  lastSchedulerRunEnd_ = end;
  requestSchedulerRun();
  return true;
}

TaskImpl* TaskScheduler::pickOneTask(const TaskTimeStamp& now, TaskPriority first, TaskPriority last) {
  if (first > last)
    return nullptr;
  unsigned p = first;
  for (; p <= last; ++p) {
    TaskRunQueue& q = taskRunQueues_[TaskPriority(p)];
    if (!q.currentRunQueue_->empty())
      break;
    q.consecutiveRuns_ = 0;
  }
  if (p > last)
    return nullptr;
  TaskRunQueue& q = taskRunQueues_[TaskPriority(p)];
  if (attemptLowerPriorityBump(TaskPriority(p), q.consecutiveRuns_)) {
    if (TaskImpl* lower = pickOneTask(now, TaskPriority(p + 1), last)) {
      q.consecutiveRuns_ = 0;
      return lower;
    }
  }
  ++q.consecutiveRuns_;
  TaskImpl& task = q.currentRunQueue_->front();
  taskSchedulerUnlinkTask(now, q, &task);
  return &task;
}

namespace {
U32 bumpWeight(unsigned p) noexcept {
  switch (p) {
  case TaskPriority::high: return TaskScheduler::bumpWeightHigh;
  case TaskPriority::normal: return TaskScheduler::bumpWeightNormal;
  case TaskPriority::low: return TaskScheduler::bumpWeightLow;
  default: return 0;
  }
}
} // namespace

bool TaskScheduler::attemptLowerPriorityBump(TaskPriority p, unsigned int consecutive) const {
  if (p != TaskPriority::high && p != TaskPriority::normal)
    return false;
  U32 sum = 0;
  for (unsigned q = p + 1; q <= TaskPriority::low; ++q) {
    const I64 runnable = taskRunQueues_[TaskPriority(q)].runnableTasks();
    KESTO_ASSERT(runnable >= 0, className, "RunnableTasks negative {}", runnable);
    sum += U32(runnable) * bumpWeight(q);
  }
  if (sum == 0)
    return false;
  const I64 runnable = taskRunQueues_[p].runnableTasks();
  KESTO_ASSERT(runnable >= 0, className, "RunnableTasks negative {}", runnable);
  return U32(consecutive * sum) > U32(U32(runnable) * bumpWeight(p));
}

// --- reading ---------------------------------------------------------------------------

U32 TaskScheduler::tasksPerPriority(TaskPriority p) const {
  auto it = tasksPerPriority_.find(p);
  return it == tasksPerPriority_.end() ? 0 : it->second;
}

U64 TaskScheduler::completedTasksPerPriority(TaskPriority p) const {
  auto it = completedTasksPerPriority_.find(p);
  return it == completedTasksPerPriority_.end() ? 0 : it->second;
}

U32 TaskScheduler::runnableTaskCount(TaskPriority p) const {
  checkPriority(p);
  const I64 runnable = taskRunQueues_[p].runnableTasks();
  KESTO_ASSERT(runnable >= 0, className, "Priority: {} runnableTasks: {}", p, runnable);
  return U32(runnable);
}

U32 TaskScheduler::runnableTaskCount() const {
  U32 sum = 0;
  for (unsigned p = 0; p < priorityCount; ++p)
    sum += runnableTaskCount(TaskPriority(p));
  return sum;
}

U64 TaskScheduler::runTaskCount(TaskPriority p) const {
  checkPriority(p);
  return U64(taskRunQueues_[p].runTasks());
}

TaskSchedulerQueueStats TaskScheduler::queueStats() const {
  TaskSchedulerQueueStats stats;
  for (unsigned i = 0; i < priorityCount; ++i) {
    const TaskPriority p(i);
    TaskSchedulerPriorityStats line;
    line.priority = p;
    line.runnableTasks = runnableTaskCount(p);
    line.idleTasks = tasksPerPriority(p) - line.runnableTasks;
    line.completedTasks = completedTasksPerPriority(p);
    line.totalRunCount = runTaskCount(p);
    const bool inserted = stats.emplace(p, line).second;
    KESTO_ASSERT(inserted, className, "Priority: {} insert failed", p);
  }
  return stats;
}

// --- settings ------------------------------------------------------------------------------

void TaskScheduler::registerBusyCallback(void* key, std::function<void()> callback) {
  busyCallbacks_[key] = std::move(callback);
}

void TaskScheduler::unregisterBusyCallback(void* key) { busyCallbacks_.erase(key); }

// --- tests -----------------------------------------------------------------------------------

Ptr<TaskImpl> TaskScheduler::taskForTest(const String& name) {
  for (TaskImpl& task : registeredTasks_)
    if (task.taskName_ == name)
      return Ptr<TaskImpl>(&task);
  return nullptr;
}

TaskStat TaskScheduler::taskStatForTest(const String& name) const {
  for (TaskImpl& task : const_cast<RegisteredTasks&>(registeredTasks_))
    if (task.taskName_ == name)
      return task.getStats();
  return TaskStat();
}

TaskStat TaskScheduler::completedTaskStatForTest(const String& name) const {
  auto it = completedTaskStats_.find(name);
  return it == completedTaskStats_.end() ? TaskStat() : it->second;
}

std::ostream& operator<<(std::ostream& os, const TaskScheduler& scheduler) {
  return os << scheduler.schedulerName() << ':';
}

} // namespace Kesto
