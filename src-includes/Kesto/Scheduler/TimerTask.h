// TimerTask: a task that runs after a delay.
//
// An application derives from it, implements taskExecute() and asks for a
// run with one of the scheduleTask... operations. The timer only decides when
// the task enters its run queue; the run itself is the scheduler's ordinary
// run. It is a one-shot timer: a task that should run again asks again,
// usually from inside taskExecute().
//
//   class Poll : public Kesto::TimerTask {
//   public:
//     explicit Poll(Kesto::Ptr<Kesto::TaskScheduler> s)
//         : TimerTask(std::move(s), Kesto::TaskPriority::normal, "Poll") {}
//     void taskExecute() override {
//       poll();
//       scheduleTaskJitterUp(5.0, 10); // again in 5 to 5.5 seconds
//     }
//     static void operator delete(void* p) { ::operator delete(p); }
//   };
//
// States: idle; timer running; on the run queue. Never the last two at once:
// - scheduleTask() puts the task on the queue and drops a running timer;
// - scheduleTaskDelay(d) replaces whatever was asked before (a task on the
//   queue leaves it); d == 0 is scheduleTask(), an endless d is
//   stopTimerTask();
// - scheduleTaskLowestDelay(d) only ever brings the expiry closer: of a
//   series of calls the earliest expiry wins, and a task on the queue stays
//   there; an endless d is a programming error;
// - scheduleTaskJitterUp/Down(d, pct) is scheduleTaskDelay(d ± r), r a random
//   whole percentage of pct percent of d;
// - expiry puts the task on the queue; stopTimerTask() returns to idle.
// Every operation comes in two forms: seconds in a double (endless = +inf)
// and TaskTimeDuration nanoseconds (endless = its largest value).
//
// Time: expiries are absolute Kesto::time() values, virtual time included. A
// task never enters the queue before its expiry as Kesto::time() sees it.
//
// Jitter draws from one rand_r state in the root (jitterSeed()), never
// seeded: the same calls in the same order give the same jitter in every run
// of a process. In the TaskTimeDuration form the random offset is computed in
// 64-bit integers without a guard against overflow; delays beyond 2^63/10000
// ns (some 10.67 days) may give a meaningless offset or an assertion.
//
// Ownership: as for every task (see _TaskBase). All timer tasks of a root
// share the root's TimerWheel, which links the task by a plain pointer while
// its timer runs; the destructor stops the timer first.
//
// Allocation: starting, moving and stopping the timer allocate nothing of
// their own (the wheel allocates a slab node per distinct expiry when it
// fires).
//
// Thread: the thread of the scheduler's root. Every operation except
// timerRemaining() checks it. The wheel can call timeout() from inside
// another task's run (runCriticalPriorityTasks).
//
// Failures are assertions: a delay in seconds that is not a number (refused
// by every operation before it changes anything: queue place, timer, jitter
// draw), a jitter percentage over 100, a jitter offset that is not at most
// its delay, an endless delay to scheduleTaskLowestDelay. Negative delays are
// due at once; huge ones are kept at the wheel's last tick and never fire.
#pragma once

#include <Kesto/Common/Export.h>

#include <Kesto/Scheduler/TaskImpl.h>
#include <Kesto/Scheduler/TaskTypes.h>
#include <Kesto/TimerWheel/TimerWheelEvent.h>

#include <memory>

namespace Kesto {

class TimerWheel;
struct TimerTaskTestAccess;

class KESTO_EXPORT TimerTask : public TaskImpl, private TimerWheelEvent {
public:
  TimerTask(Ptr<TaskScheduler> scheduler, TaskPriority priority, const String& name);
  // Takes a reference on `scheduler` for the length of the call.
  TimerTask(TaskScheduler* scheduler, TaskPriority priority, const String& name);

  // --- virtual operations of TaskImpl, in slot order --------------------------
  // On the run queue, or timer running.
  bool taskScheduled() const override;
  // Stops the timer; fails off the root's thread.
  ~TimerTask() noexcept override;
  // Onto the run queue as soon as the scheduler can; a running timer is
  // dropped (without a timerStop history event: that is stopTimerTask's).
  void scheduleTask() override;
  // Drops a running timer, then runs the task as TaskImpl does.
  void taskRunFromTest() override;
  // TaskImpl's status with taskTimer set, and taskTimerRunning while the
  // timer runs.
  TaskStat::TaskStatus taskStatus() const override;
  // --- TimerWheelEvent ------------------------------------------------------------
  // The wheel's call at expiry: onto the run queue.
  void timeout() override;

  // --- scheduling -------------------------------------------------------------------
  void scheduleTaskDelay(double seconds);
  void scheduleTaskDelay(TaskTimeDuration delay);
  void scheduleTaskLowestDelay(double seconds);
  void scheduleTaskLowestDelay(TaskTimeDuration delay);
  // `maxJitterPercentage` is at most 100. An endless delay stops the timer
  // without drawing a random number.
  void scheduleTaskJitterUp(double seconds, unsigned char maxJitterPercentage);
  void scheduleTaskJitterUp(TaskTimeDuration delay, unsigned char maxJitterPercentage);
  void scheduleTaskJitterDown(double seconds, unsigned char maxJitterPercentage);
  void scheduleTaskJitterDown(TaskTimeDuration delay, unsigned char maxJitterPercentage);
  // Drops the timer and takes the task off the run queue.
  void stopTimerTask();

  // --- reading ----------------------------------------------------------------------
  bool timerRunning() const noexcept { return timerRunning_; }
  // Seconds to expiry; 0.0 once due, +inf when no timer runs.
  double timerRemaining() const;
  // When the task is next due on the clock of Kesto::time(): now when on
  // the run queue, the expiry while the timer runs, else +inf.
  double currentExpirationTime() const;

private:
  friend struct TimerTaskTestAccess;

  const std::shared_ptr<TimerWheel>& timerWheel() const;
  void timerRunningIs(bool running, const TaskTimeStamp& now);
  bool doStartTimer(double seconds, bool force, const TaskTimeStamp& now);
  // The two forms share one body each; the function names are those the
  // traces and assertions carry.
  template <typename Delay>
  void scheduleTaskDelayedPrivate(Delay delay, bool force);
  template <typename Delay>
  void _scheduleTaskDelay(Delay delay);
  template <typename Delay>
  void _scheduleTaskLowestDelay(Delay delay);
  template <typename Delay>
  void _scheduleTaskJitterUp(Delay delay, unsigned char maxJitterPercentage);
  template <typename Delay>
  void _scheduleTaskJitterDown(Delay delay, unsigned char maxJitterPercentage);
  template <typename Delay>
  Delay jitterOffset(Delay delay, unsigned char maxJitterPercentage);
  // A refused start left no timer running: a broken invariant.
  [[noreturn, gnu::cold]] void failTimerNotRunning() const;

  bool timerRunning_ = false;
};

} // namespace Kesto
