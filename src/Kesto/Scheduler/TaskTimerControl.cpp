#include <Kesto/Scheduler/TaskTimerControl.h>

#include <ZuSlab/ZuSlab.h>

#include <utility>

namespace Kesto::Platform {

// --- TaskWrap ---------------------------------------------------------------------

TaskTimerControl::TaskWrap::TaskWrap(Ptr<TaskScheduler> scheduler, TaskPriority priority, const String& name)
    : TimerTask(std::move(scheduler), priority, name) {}

void TaskTimerControl::TaskWrap::taskExecute() {
  // Null once the control is gone while something else still held the task.
  if (control_)
    control_->handler_->timeout();
}

void* TaskTimerControl::TaskWrap::operator new(std::size_t size) { return ZuSlab::slabAllocOrStdMalloc(size); }

void TaskTimerControl::TaskWrap::operator delete(void* p) noexcept { ZuSlab::slabFreeOrStdFree(p); }

// --- the control ------------------------------------------------------------------

TaskTimerControl::~TaskTimerControl() {
  if (task_)
    task_->control_ = nullptr;
  task_ = nullptr;
}

void TaskTimerControl::setTimeout(double seconds) { task_->scheduleTaskDelay(seconds); }

void TaskTimerControl::delTimeout() { task_->stopTimerTask(); }

double TaskTimerControl::remainingTimeout() const { return task_->timerRemaining(); }

void TaskTimerControl::statsNameIs(String name) { task_->taskStatsNameIs(std::move(name)); }

void TaskTimerControl::taskIs(Ptr<TaskWrap> task) noexcept {
  task_ = std::move(task);
  task_->control_ = this;
}

void* TaskTimerControl::operator new(std::size_t size) { return ZuSlab::slabAllocOrStdMalloc(size); }

void TaskTimerControl::operator delete(void* p) noexcept { ZuSlab::slabFreeOrStdFree(p); }

Ptr<TimerControl> getTimerControl(TimeoutHandler* handler, Ptr<TaskScheduler> scheduler, TaskPriority priority,
                                  String name) {
  Ptr<TaskTimerControl> control(new TaskTimerControl(handler));
  control->taskIs(Ptr<TaskTimerControl::TaskWrap>(new TaskTimerControl::TaskWrap(std::move(scheduler), priority, name)));
  return Ptr<TimerControl>(control.get());
}

} // namespace Kesto::Platform
