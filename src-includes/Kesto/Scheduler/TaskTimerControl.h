// TaskTimerControl: a platform timer served by a TimerTask of a scheduler.
//
// Made by Platform::getTimerControl(handler, scheduler, priority, name). The
// handler's timeout() runs as the run of a TimerTask (TaskWrap) of the given
// scheduler, at the given task priority, under the given name: it is queued,
// measured against its quantum and reported like any task, instead of being
// called from libevent's dispatch.
//
//   setTimeout(s)       -> TimerTask::scheduleTaskDelay(s)
//   delTimeout()        -> TimerTask::stopTimerTask()
//   remainingTimeout()  -> TimerTask::timerRemaining()
//   statsNameIs(name)   -> TaskImpl::taskStatsNameIs(name)
//
// What a user sees differently from the libevent timer:
//  - setTimeout(0.0) puts the task on its run queue at once (no timer at
//    all, so remainingTimeout() reads +inf until the run), and
//    setTimeout(+inf) is a stop.
//  - handleTimeoutException() is never consulted: an exception out of
//    timeout() leaves the task's run and goes to the caller of the event loop.
//  - The timer sits on the root's TimerWheel, so its expiry follows
//    Kesto::time() (virtual time included) at the wheel's resolution.
//
// Ownership: the control owns its task through a Ptr and the task points
// back to the control with a plain pointer, which the control's destructor
// clears. Dropping the control stops the timer and withdraws a queued run.
// A handler may drop its own control inside timeout(): the scheduler holds
// the running task until the run ends, but the handler must not touch the
// control after dropping it.
// Allocation: the control and its task come from the slab allocator;
// setTimeout, delTimeout and the run allocate nothing of their own.
// Thread: the thread of the scheduler's root; the TimerTask checks it.
#pragma once

#include <Kesto/Common/Export.h>

#include <Kesto/Core/Ptr.h>
#include <Kesto/Core/String.h>
#include <Kesto/Platform/PlatformControls.h>
#include <Kesto/Platform/PlatformHandlers.h>
#include <Kesto/Scheduler/TaskPriority.h>
#include <Kesto/Scheduler/TaskScheduler.h>
#include <Kesto/Scheduler/TimerTask.h>

#include <cstddef>

namespace Kesto::Platform {

class KESTO_EXPORT TaskTimerControl : public TimerControl {
public:
  // The task behind the control: its run is the handler's timeout().
  class TaskWrap : public TimerTask {
  public:
    TaskWrap(Ptr<TaskScheduler> scheduler, TaskPriority priority, const String& name);
    // timeout() on the control's handler; no catch.
    void taskExecute() override;

    TaskTimerControl* control() const noexcept { return control_; }

    static void* operator new(std::size_t size);
    static void operator delete(void* p) noexcept;

  private:
    friend class TaskTimerControl;
    TaskTimerControl* control_ = nullptr;
  };

  explicit TaskTimerControl(TimeoutHandler* handler) noexcept : TimerControl(handler) {}
  // Clears the task's pointer back and releases the task, whose destructor
  // stops its timer and takes it off the run queue.
  ~TaskTimerControl() override;

  void setTimeout(double seconds) override;
  void delTimeout() override;
  double remainingTimeout() const override;
  void statsNameIs(String name) override;

  // Ties `task` to this control; the factory's step.
  void taskIs(Ptr<TaskWrap> task) noexcept;
  const Ptr<TaskWrap>& task() const noexcept { return task_; }
  TimeoutHandler* handler() const noexcept { return handler_; }

  static void* operator new(std::size_t size);
  static void operator delete(void* p) noexcept;

private:
  Ptr<TaskWrap> task_;
};

// A timer served by a TimerTask of `scheduler` at `priority`, named `name`.
KESTO_EXPORT Ptr<TimerControl> getTimerControl(TimeoutHandler* handler, Ptr<TaskScheduler> scheduler,
                                               TaskPriority priority, String name);

} // namespace Kesto::Platform
