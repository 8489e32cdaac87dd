#include <Kesto/Scheduler/TaskBase.h>
#include <Kesto/Scheduler/TaskScheduler.h>
#include <Kesto/Debug/Trace.h>

#include <ostream>

namespace Kesto {

_TaskBase::_TaskBase(Ptr<TaskScheduler> scheduler, TaskPriority priority, const String& name)
    : taskPriority_(priority), taskScheduler_(std::move(scheduler)), taskName_(name.dedup()),
      taskStatsName_(taskName_), taskHistoryIdentifier_(calculateTaskHistoryIdentifier()) {}

_TaskBase::~_TaskBase() = default;

const String& _TaskBase::taskSchedulerName() const noexcept {
  static const String none("NULL");
  return taskScheduler_ ? taskScheduler_->schedulerName() : none;
}

void _TaskBase::taskHistoryInsert(const TaskTimeStamp& when, const TaskSchedulerEventType& type) const {
  TaskSchedulerHistory::Event::eventNeedTask(type);
  taskScheduler_->taskSchedulerHistory()->record(when, type, taskHistoryIdentifier_);
}

String _TaskBase::calculateTaskHistoryIdentifier() const {
  String id = taskPriority_.oneCharString();
  id.addRight(" ");
  id.addRight(taskName_.view());
  return id.dedup();
}

std::ostream& operator<<(std::ostream& os, const _TaskBase* task) {
  if (!task)
    return os << "NULL";
  return os << fmt::format("{}", *task);
}

} // namespace Kesto
