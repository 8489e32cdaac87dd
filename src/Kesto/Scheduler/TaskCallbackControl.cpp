#include <Kesto/Scheduler/TaskCallbackControl.h>

#include <ZuSlab/ZuSlab.h>

#include <utility>

namespace Kesto::Platform {

// --- TaskWrap ---------------------------------------------------------------------

TaskCallbackControl::TaskWrap::TaskWrap(Ptr<TaskScheduler> scheduler, TaskPriority priority, const String& name)
    : Task(std::move(scheduler), priority, name) {}

void TaskCallbackControl::TaskWrap::taskExecute() {
  // Null once the control is gone while something else still held the task.
  if (control_)
    control_->handler_->callback();
}

void* TaskCallbackControl::TaskWrap::operator new(std::size_t size) { return ZuSlab::slabAllocOrStdMalloc(size); }

void TaskCallbackControl::TaskWrap::operator delete(void* p) noexcept { ZuSlab::slabFreeOrStdFree(p); }

// --- the control ------------------------------------------------------------------

TaskCallbackControl::~TaskCallbackControl() {
  if (task_)
    task_->control_ = nullptr;
  task_ = nullptr;
}

void TaskCallbackControl::requestCallback() { task_->scheduleTask(); }

void TaskCallbackControl::cancelCallback() { task_->unscheduleTask(); }

bool TaskCallbackControl::pendingCallback() const { return task_->taskScheduled(); }

void TaskCallbackControl::statsNameIs(String name) { task_->taskStatsNameIs(std::move(name)); }

void TaskCallbackControl::taskIs(Ptr<TaskWrap> task) noexcept {
  task_ = std::move(task);
  task_->control_ = this;
}

void* TaskCallbackControl::operator new(std::size_t size) { return ZuSlab::slabAllocOrStdMalloc(size); }

void TaskCallbackControl::operator delete(void* p) noexcept { ZuSlab::slabFreeOrStdFree(p); }

Ptr<CallbackControl> getCallbackControl(CallbackHandler* handler, Ptr<TaskScheduler> scheduler,
                                        TaskPriority priority, String name) {
  Ptr<TaskCallbackControl> control(new TaskCallbackControl(handler));
  control->taskIs(
      Ptr<TaskCallbackControl::TaskWrap>(new TaskCallbackControl::TaskWrap(std::move(scheduler), priority, name)));
  return Ptr<CallbackControl>(control.get());
}

} // namespace Kesto::Platform
