// TaskFdControl: a descriptor watch served by a FileDescriptorTask.
//
// Made by Platform::getFdControl(handler, scheduler, priority, name).
// Readiness does not call the handler from libevent: it queues the read task
// "<name>:read" or the write task "<name>:write" of a FileDescriptorTask
// (TaskWrap), and the handler's readFdEvent() or writeFdEvent() is that
// task's run. Underneath, the FileDescriptorTask watches the descriptor with
// a LibeventFdControl of its own.
//
//   setReads(on)          -> FileDescriptorTask::taskWatchReadableIs(on)
//   setWrites(on)         -> FileDescriptorTask::taskWatchWritableIs(on)
//   setEdgeTriggered(on)  -> stored here, then FileDescriptorTask::edgeTriggeredIs(on)
//   setFd(fd)             -> FileDescriptorTask::taskWatchFdIs(fd)
//   delFd()               -> FileDescriptorTask::taskWatchFdDel()
//   clearEvents()         -> FileDescriptorTask::taskWatchFdDel(), as delFd()
//   getFd()               -> FileDescriptorTask::taskWatchFd()
//   statsNameIs(name)     -> FileDescriptorTask::taskStatsNameIs(name):
//                            "<name>:read" and "<name>:write" for the tasks
//
// What a user sees differently from the libevent descriptor control:
//  - clearEvents() forgets the descriptor: getFd() then gives -1;
//  - setWrites(true) with the write watch already on does nothing. The write
//    task clears the watch before each run, so a handler that calls
//    setWrites(true) from writeFdEvent() gets its next notification, as with
//    libevent; but a second setWrites(true) between the event and the run
//    does not arm a second notification.
// The same: a new control watches reads and not writes; handleFdException()
// is honoured, true drops the exception and false rethrows it to the caller
// of the event loop.
//
// Ownership: the control owns its task through a Ptr and the task points
// back with a plain pointer, which the control's destructor clears; dropping
// the control removes the events and withdraws queued runs. A handler may
// drop its own control inside readFdEvent() or writeFdEvent() and must not
// touch it afterwards.
// Allocation: the control, its task and the two direction tasks come from the
// slab allocator (the libevent control underneath from the heap); readiness
// and the runs allocate nothing.
// Thread: the thread of the scheduler's root.
#pragma once

#include <Kesto/Common/Export.h>

#include <Kesto/Core/Ptr.h>
#include <Kesto/Core/String.h>
#include <Kesto/Platform/PlatformControls.h>
#include <Kesto/Platform/PlatformHandlers.h>
#include <Kesto/Scheduler/FileDescriptorTask.h>
#include <Kesto/Scheduler/TaskPriority.h>
#include <Kesto/Scheduler/TaskScheduler.h>

#include <cstddef>

namespace Kesto::Platform {

class KESTO_EXPORT TaskFdControl : public FdControl {
public:
  // The descriptor task behind the control: its two runs are the handler's
  // readFdEvent() and writeFdEvent().
  class TaskWrap : public FileDescriptorTask {
  public:
    TaskWrap(Ptr<TaskScheduler> scheduler, TaskPriority priority, const String& name);
    // readFdEvent(fd) on the control's handler; an exception is offered to
    // handleFdException(fd), and rethrown unless it answers true.
    void taskExecuteReadable() override;
    // The same with writeFdEvent(fd).
    void taskExecuteWritable() override;

    TaskFdControl* control() const noexcept { return control_; }

    static void* operator new(std::size_t size);
    static void operator delete(void* p) noexcept;

  private:
    friend class TaskFdControl;
    TaskFdControl* control_ = nullptr;
  };

  explicit TaskFdControl(FdEventHandler* handler) noexcept : FdControl(handler) {}
  // Clears the task's pointer back and releases the task, whose destructor
  // removes the events and takes its two tasks off the run queue.
  ~TaskFdControl() override;

  void setReads(bool on) override;
  void setWrites(bool on) override;
  void setEdgeTriggered(bool on) override;
  void setFd(int fd) override;
  void delFd() override;
  int getFd() const override;
  void statsNameIs(String name) override;
  void clearEvents() override;

  bool edgeTriggered() const noexcept { return edgeTriggered_; }
  // Ties `task` to this control; the factory's step.
  void taskIs(Ptr<TaskWrap> task) noexcept;
  const Ptr<TaskWrap>& task() const noexcept { return task_; }
  Platform::FdEventHandler* handler() const noexcept { return handler_; }

  static void* operator new(std::size_t size);
  static void operator delete(void* p) noexcept;

private:
  bool edgeTriggered_ = false;
  Ptr<TaskWrap> task_;
};

// A descriptor watch served by a FileDescriptorTask of `scheduler` at
// `priority`, named `name`; read interest on, write interest off.
KESTO_EXPORT Ptr<FdControl> getFdControl(FdEventHandler* handler, Ptr<TaskScheduler> scheduler,
                                         TaskPriority priority, String name);

} // namespace Kesto::Platform
