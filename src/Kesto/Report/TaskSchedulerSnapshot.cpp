#include <Kesto/Report/TaskSchedulerSnapshot.h>

#include <Kesto/Core/Exception.h>
#include <Kesto/Debug/Trace.h>
#include <Kesto/Report/TaskNameRegex.h>
#include <Kesto/Scheduler/TaskGroup.h>
#include <Kesto/Scheduler/TaskScheduler.h>
#include <Kesto/Scheduler/TaskSchedulerRoot.h>

#include <fmt/format.h>

#include <exception>

namespace Kesto {

namespace {
constexpr const char* className = "TaskSchedulerSnapshot";
} // namespace

TaskSchedulerSnapshot::~TaskSchedulerSnapshot() = default;
TaskSchedulerSnapshotImpl::~TaskSchedulerSnapshotImpl() = default;

TaskSchedulerSnapshotImpl::TaskSchedulerSnapshotImpl(const TaskScheduler& scheduler, String name,
                                                     bool includeNoRunTasks, bool includeCompletedTasks,
                                                     bool includeHistory, TaskNameRegex* regex, U32 order,
                                                     bool sanityDisabled)
    : schedulerName(std::move(name)) {
  if (regex) {
    taskNameRegex = regex->expression;
    taskNameRegexError = regex->error;
  }
  priorityStats = scheduler.queueStats();
  maxSchedulerSlip = scheduler.maxSchedulerSlip().count();
  displayOrder = order;
  threadSanityDisabled = sanityDisabled;
  snapshotThread = pthread_self();
  const TaskSchedulerRoot* root = dynamic_cast<const TaskSchedulerRoot*>(&scheduler);
  isRootScheduler = root != nullptr;
  if (schedulerName.empty())
    schedulerName = scheduler.schedulerName();
  // An invalid filter selects nothing: the report shows the error with the
  // queue figures, which no filter ever narrows.
  if (!taskNameRegexError.empty())
    return;
  if (!isRootScheduler) {
    const TaskGroup* group = dynamic_cast<const TaskGroup*>(&scheduler);
    KESTO_ASSERT(nullptr != group, className, "nullptr != group");
    KESTO_ASSERT(group->parentTask(), className, "nullptr != group->parentTask()");
    parentTask = TaskKey(group->parentTask().get());
  }
  if (includeCompletedTasks)
    completedTasksSkipped = scheduler.getCompletedTaskStats(&completedTasks, includeNoRunTasks, regex);
  if (includeHistory && isRootScheduler) {
    copyHistory(*scheduler.taskSchedulerHistory(), regex);
    if (const StallWatchdog* watchdog = root->stallWatchdog()) {
      stalls = watchdog->stalls();
      if (regex)
        std::erase_if(stalls, [regex](const StallWatchdog::Stall& s) {
          return !regex->valid || !regex->match<0>(s.taskName);
        });
    }
  }
  tasksSkipped = scheduler.getTaskStats(&tasks, includeNoRunTasks, regex);
  // Every group gets its nested snapshot, even when the filter or a zero run
  // count leaves its parent task out of `tasks`: what runs inside a group is
  // not the parent task's to hide.
  for (const TaskImpl& task : const_cast<TaskScheduler::RegisteredTasks&>(scheduler.registeredTasks_)) {
    const auto* parentTaskOfGroup = dynamic_cast<const TaskGroup::ParentTask*>(&task);
    if (!parentTaskOfGroup || !parentTaskOfGroup->taskGroup())
      continue;
    TaskSchedulerSnapshotImpl nested(*parentTaskOfGroup->taskGroup(), String(), includeNoRunTasks,
                                     includeCompletedTasks, includeHistory, regex,
                                     TaskScheduler::displayOrderNotSpecified, sanityDisabled);
    subSchedulers.emplace_back(subSchedulerKey(task.getStats()), std::move(nested));
  }
  subSchedulers.shrink_to_fit();
}

void TaskSchedulerSnapshotImpl::copyHistory(const TaskSchedulerHistory& ring, TaskNameRegex* regex) {
  history = Ptr<History>(new History(ring.historyEntryCount(), ring.historyEventCount()));
  std::vector<TaskSchedulerHistory::Event>& events = history->events;
  if (!regex) {
    events.reserve(ring.historyEntryCount());
    for (const TaskSchedulerHistory::Event& e : ring)
      events.push_back(e);
  } else {
    for (const TaskSchedulerHistory::Event& e : ring) {
      const U8 type = e.eventType.value();
      if (type >= TaskSchedulerEventType::firstSchedulerEvent) {
        KESTO_ASSERT(type < TaskSchedulerEventType::count, className, "unexpected eventType={}", unsigned(type));
        continue;
      }
      if (regex->valid && regex->match<2>(e.eventIdentifier()))
        events.push_back(e);
    }
  }
  events.shrink_to_fit();
}

String subSchedulerKey(const TaskStat& stat) {
  KESTO_ASSERT(stat.taskStatus().taskIsTaskGroup(), className, "{} is not TaskGroup", stat.taskName());
  return String(fmt::format("{}-{}", stat.taskName(), stat.taskKey()));
}

Ptr<TaskSchedulerSnapshot const> TaskScheduler::snapshot(String name, bool includeNoRunTasks,
                                                         bool includeCompletedTasks, bool includeHistory,
                                                         String taskNameRegex, U32 displayOrder) const {
  taskSchedulerRoot_->sanityCheckCurrentRunningThread();
  // Compiled outside the handler below: an invalid expression is a normal
  // outcome carried in the snapshot, anything else thrown here is not ours
  // to turn into a report.
  TaskNameRegex regex(taskNameRegex);
  TaskNameRegex* filter = taskNameRegex.empty() ? nullptr : &regex;
  const bool sanityDisabled = taskSchedulerRoot_->threadSanityDisabled();
  try {
    return Ptr<TaskSchedulerSnapshot const>(new TaskSchedulerSnapshotImpl(
        *this, std::move(name), includeNoRunTasks, includeCompletedTasks, includeHistory, filter, displayOrder,
        sanityDisabled));
  } catch (const AssertException&) {
    // A broken invariant is not a failed copy: where assertions throw
    // instead of ending the process, the caller must see it.
    throw;
  } catch (const std::exception& e) {
    auto* failed = new TaskSchedulerSnapshotImpl();
    failed->generalError = e.what();
    failed->snapshotThread = pthread_self();
    return Ptr<TaskSchedulerSnapshot const>(failed);
  }
}

U32 TaskScheduler::getTaskStats(std::vector<TaskStat>* out, bool includeNoRunTasks, TaskNameRegex* regex) const {
  std::size_t expected = 0;
  for (unsigned p = 0; p < priorityCount; ++p)
    expected += tasksPerPriority(TaskPriority(p));
  out->reserve(out->size() + expected);
  U32 skipped = 0;
  for (const TaskImpl& task : const_cast<RegisteredTasks&>(registeredTasks_)) {
    // Counted before the filter: "skipped" tells the operator how many idle
    // tasks the report hides, whatever their names.
    if (!includeNoRunTasks && task.taskRunCount() == 0) {
      ++skipped;
      continue;
    }
    if (regex && (!regex->valid || !regex->match<0>(task.taskName())))
      continue;
    out->push_back(task.getStats());
  }
  out->shrink_to_fit();
  return skipped;
}

U32 TaskScheduler::getTaskStats(std::vector<TaskStat>* out, bool includeNoRunTasks) const {
  return getTaskStats(out, includeNoRunTasks, nullptr);
}

U32 TaskScheduler::getCompletedTaskStats(std::vector<TaskStat>* out, bool includeNoRunTasks,
                                         TaskNameRegex* regex) const {
  out->reserve(out->size() + completedTaskStats_.size());
  U32 skipped = 0;
  for (const auto& [statsName, stat] : completedTaskStats_) {
    if (!includeNoRunTasks && stat.taskRunCount() == 0) {
      ++skipped;
      continue;
    }
    if (regex && (!regex->valid || !regex->match<0>(stat.taskName())))
      continue;
    out->push_back(stat);
  }
  out->shrink_to_fit();
  return skipped;
}

U32 TaskScheduler::getCompletedTaskStats(std::vector<TaskStat>* out, bool includeNoRunTasks) const {
  return getCompletedTaskStats(out, includeNoRunTasks, nullptr);
}

} // namespace Kesto
