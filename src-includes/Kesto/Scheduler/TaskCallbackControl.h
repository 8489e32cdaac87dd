// TaskCallbackControl: a deferred callback served by a Task of a scheduler.
//
// Made by Platform::getCallbackControl(handler, scheduler, priority, name).
// A request puts the task on the run queue of its priority; the handler's
// callback() is the task's run, so it waits behind the more urgent tasks of
// the scheduler and counts in its statistics under the task's name.
//
//   requestCallback()  -> TaskImpl::scheduleTask()
//   cancelCallback()   -> TaskImpl::unscheduleTask()
//   pendingCallback()  -> TaskImpl::taskScheduled()
//   statsNameIs(name)  -> TaskImpl::taskStatsNameIs(name)
//
// What a user sees differently from the libevent callback:
//  - the callback runs at the task's priority among the scheduler's tasks,
//    not at an event priority among libevent's events; a request while the
//    task is queued changes nothing, not even its place in the queue;
//  - handleCallbackException() is never consulted: an exception out of
//    callback() leaves the task's run and goes to the caller of the loop.
//
// Ownership, allocation and thread as for TaskTimerControl: the control owns
// its task, the task points back; both come from the slab allocator; a
// request and the run allocate nothing; the thread of the scheduler's root.
// A handler may drop its own control inside callback() and must not touch
// it afterwards.
#pragma once

#include <Kesto/Common/Export.h>

#include <Kesto/Core/Ptr.h>
#include <Kesto/Core/String.h>
#include <Kesto/Platform/PlatformControls.h>
#include <Kesto/Platform/PlatformHandlers.h>
#include <Kesto/Scheduler/Task.h>
#include <Kesto/Scheduler/TaskPriority.h>
#include <Kesto/Scheduler/TaskScheduler.h>

#include <cstddef>

namespace Kesto::Platform {

class KESTO_EXPORT TaskCallbackControl : public CallbackControl {
public:
  // The task behind the control: its run is the handler's callback().
  class TaskWrap : public Task {
  public:
    TaskWrap(Ptr<TaskScheduler> scheduler, TaskPriority priority, const String& name);
    // callback() on the control's handler; no catch.
    void taskExecute() override;

    TaskCallbackControl* control() const noexcept { return control_; }

    static void* operator new(std::size_t size);
    static void operator delete(void* p) noexcept;

  private:
    friend class TaskCallbackControl;
    TaskCallbackControl* control_ = nullptr;
  };

  explicit TaskCallbackControl(CallbackHandler* handler) noexcept : CallbackControl(handler) {}
  // Clears the task's pointer back and releases the task, whose destructor
  // takes it off the run queue.
  ~TaskCallbackControl() override;

  void requestCallback() override;
  void cancelCallback() override;
  bool pendingCallback() const override;
  void statsNameIs(String name) override;

  // Ties `task` to this control; the factory's step.
  void taskIs(Ptr<TaskWrap> task) noexcept;
  const Ptr<TaskWrap>& task() const noexcept { return task_; }
  CallbackHandler* handler() const noexcept { return handler_; }

  static void* operator new(std::size_t size);
  static void operator delete(void* p) noexcept;

private:
  Ptr<TaskWrap> task_;
};

// A deferred callback served by a Task of `scheduler` at `priority`, named
// `name`.
KESTO_EXPORT Ptr<CallbackControl> getCallbackControl(CallbackHandler* handler, Ptr<TaskScheduler> scheduler,
                                                     TaskPriority priority, String name);

} // namespace Kesto::Platform
