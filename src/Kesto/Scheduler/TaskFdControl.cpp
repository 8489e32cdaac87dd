#include <Kesto/Scheduler/TaskFdControl.h>

#include <ZuSlab/ZuSlab.h>

#include <utility>

namespace Kesto::Platform {

// --- TaskWrap ---------------------------------------------------------------------

TaskFdControl::TaskWrap::TaskWrap(Ptr<TaskScheduler> scheduler, TaskPriority priority, const String& name)
    : FileDescriptorTask(std::move(scheduler), priority, name) {}

// The handler is read before the call: it may drop the control, and then
// neither the control nor its descriptor may be reached through it again. The
// descriptor handed on is the task's own, which outlives such a drop for the
// length of the run.
void TaskFdControl::TaskWrap::taskExecuteReadable() {
  if (!control_)
    return;
  Platform::FdEventHandler* handler = control_->handler_;
  try {
    handler->readFdEvent(taskWatchFd());
  } catch (...) {
    if (!handler->handleFdException(taskWatchFd()))
      throw;
  }
}

void TaskFdControl::TaskWrap::taskExecuteWritable() {
  if (!control_)
    return;
  Platform::FdEventHandler* handler = control_->handler_;
  try {
    handler->writeFdEvent(taskWatchFd());
  } catch (...) {
    if (!handler->handleFdException(taskWatchFd()))
      throw;
  }
}

void* TaskFdControl::TaskWrap::operator new(std::size_t size) { return ZuSlab::slabAllocOrStdMalloc(size); }

void TaskFdControl::TaskWrap::operator delete(void* p) noexcept { ZuSlab::slabFreeOrStdFree(p); }

// --- the control ------------------------------------------------------------------

TaskFdControl::~TaskFdControl() {
  if (task_)
    task_->control_ = nullptr;
  task_ = nullptr;
}

void TaskFdControl::setReads(bool on) { task_->taskWatchReadableIs(on); }

void TaskFdControl::setWrites(bool on) { task_->taskWatchWritableIs(on); }

void TaskFdControl::setEdgeTriggered(bool on) {
  edgeTriggered_ = on;
  task_->edgeTriggeredIs(on);
}

void TaskFdControl::setFd(int fd) { task_->taskWatchFdIs(fd); }

void TaskFdControl::delFd() { task_->taskWatchFdDel(); }

int TaskFdControl::getFd() const { return task_->taskWatchFd(); }

void TaskFdControl::statsNameIs(String name) { task_->taskStatsNameIs(std::move(name)); }

void TaskFdControl::clearEvents() { task_->taskWatchFdDel(); }

void TaskFdControl::taskIs(Ptr<TaskWrap> task) noexcept {
  task_ = std::move(task);
  task_->control_ = this;
}

void* TaskFdControl::operator new(std::size_t size) { return ZuSlab::slabAllocOrStdMalloc(size); }

void TaskFdControl::operator delete(void* p) noexcept { ZuSlab::slabFreeOrStdFree(p); }

Ptr<FdControl> getFdControl(FdEventHandler* handler, Ptr<TaskScheduler> scheduler, TaskPriority priority,
                            String name) {
  Ptr<TaskFdControl> control(new TaskFdControl(handler));
  control->taskIs(Ptr<TaskFdControl::TaskWrap>(new TaskFdControl::TaskWrap(std::move(scheduler), priority, name)));
  return Ptr<FdControl>(control.get());
}

} // namespace Kesto::Platform
