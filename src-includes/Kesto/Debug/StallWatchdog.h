// StallWatchdog: notices a task that is still running long past a threshold.
//
// Quanta are measured after a run returns; a task that runs for a second is
// counted late, and one that never returns is never counted. The watchdog
// looks while the task runs: a timer on the CPU-time clock of the root's
// thread sends a realtime signal to that thread every `threshold / 2` of CPU
// time the thread consumes. An idle thread consumes none and is never woken;
// a busy one pays one signal per period (about 2 µs every 25 ms at a 50 ms
// threshold, under 0.01 %).
//
// The threshold is an absolute time, not a multiple of the running task's
// quantum: a quantum is per task, may be 0 (no quantum) and may change
// between runs, while the timer's period is set once at arming; and what an
// operator wants to hear about is the thread being held, whatever the task
// was allowed. A task's own quantum violations stay in its statistics.
//
// The signal handler compares the root's running task, that task's run count
// and its run start (all kept by the scheduler for every run) with what it
// saw one period earlier. The same run seen twice, running for at least the
// threshold, is a stall: the handler copies the task's scheduler, name and
// priority (and those of the task running inside it when it is a group's
// parent task), the elapsed time and a backtrace of the thread into memory
// prepared at arming (no allocation, no lock), and marks the root. While the
// same run goes on, later signals only update the elapsed time: one stall,
// one report. The report is written as trace lines of the handler
// "KestoStallWatchdog" at level 1 at the start of the next pass of the root,
// once the stalled run has returned, where formatting and symbolising
// frames are allowed. A run that never returns is therefore never written by
// the watchdog; the crash-time dump (FlightRecorder.h) names it if the
// process is then killed by a fatal signal.
//
// Reports are rate-limited: at most `reportsPerMinute` in each minute of the
// scheduler's clock (taskClockNow()); stalls beyond it are counted and the
// next report says how many were left out.
//
// The latest `keptStallCount` stalls, those left out of the trace included,
// are kept in a ring allocated at arming, for a timeline to show: task,
// scheduler, priority, run start and elapsed time. The handler captures them
// into a small queue of its slot; writePendingReport() moves them into the
// ring between runs, so that stalls() never reads what a signal may be
// writing.
//
// A stall is measured in wall time from the run's start, but it is only
// noticed while the thread consumes CPU: a task blocked in a system call is
// not reported until it spins again.
//
// Owner: the application, through the Ptr that StallWatchdogIs() returns;
// the watchdog holds its root, and dropping the last reference disarms it.
// One watchdog per root; at most 64 armed in the process.
// Thread: the root's thread, for arming, reading and destruction.
// Allocation: at arming only (timer, handler table slot, ring of kept
// stalls); none per signal, none per report; stalls() returns a copy.
// States: armed from StallWatchdogIs() to destruction.
#pragma once

#include <Kesto/Common/Export.h>

#include <Kesto/Core/Ptr.h>
#include <Kesto/Core/String.h>
#include <Kesto/Core/Types.h>
#include <Kesto/Scheduler/TaskPriority.h>
#include <Kesto/Scheduler/TaskTypes.h>

#include <chrono>
#include <memory>
#include <vector>

namespace Kesto {

class TaskSchedulerRoot;

class KESTO_EXPORT StallWatchdog final : public RefCount<HTCnt> {
public:
  // Frames kept of the stalled thread's backtrace.
  static constexpr unsigned backtraceDepth = 48;
  // The longest threshold: one day.
  static constexpr std::chrono::milliseconds maxThreshold{24 * 60 * 60 * 1000};
  // Armed watchdogs in the process at one time.
  static constexpr unsigned capacity = 64;
  // Stalls kept for stalls(): at the default of 10 reports a minute, 16 is
  // more than a minute and a half of reported stalls, and a ring of 16
  // records is under 3 KiB per armed watchdog.
  static constexpr unsigned keptStallCount = 16;

  // One stall as kept: names cut at 63 bytes, as the handler copies them.
  // A stall inside a task group is its parent task's, the task that holds
  // the root's thread (the trace report adds the task running inside it).
  struct Stall {
    String taskName;
    String schedulerName;
    TaskPriority priority;
    // The stalled task's address when it stalled: a key for comparison
    // with a snapshot's TaskStat, never to be followed.
    TaskKey task;
    // The run's start (its "run start" history event has the same stamp).
    TaskTimeStamp runStart;
    // How long the run had lasted at the last signal that saw it.
    TaskTimeDuration elapsed{0};
    // Written to the trace; false when the rate limit left it out.
    bool reported = false;
  };

  // Arms a watchdog on `root`, from the root's thread. A threshold under
  // 2 ms is raised to 2 ms (the CPU-time clock is sampled at the kernel's
  // tick, 4 ms at 250 Hz, so finer periods only add signals); so is a
  // negative one. Throws RuntimeException for a threshold above
  // maxThreshold, if the root already has one, if `capacity` are armed,
  // if the signal carries another handler, or if the timer can't be made.
  static Ptr<StallWatchdog> StallWatchdogIs(const Ptr<TaskSchedulerRoot>& root,
                                            std::chrono::milliseconds threshold, U32 reportsPerMinute);

  ~StallWatchdog();
  StallWatchdog(const StallWatchdog&) = delete;
  StallWatchdog& operator=(const StallWatchdog&) = delete;

  // The realtime signal of the timers: SIGRTMIN + 4, clear of the two
  // reserved by the thread library below SIGRTMIN and of SIGRTMIN itself,
  // which libraries commonly take first.
  static int signalNumber() noexcept;

  std::chrono::milliseconds threshold() const noexcept { return threshold_; }
  U32 reportsPerMinute() const noexcept { return reportsPerMinute_; }

  // Counts since arming: timer signals handled; distinct stalls seen;
  // reports written; stalls left out by the rate limit.
  U64 signalCount() const noexcept;
  U64 stallCount() const noexcept;
  U64 reportCount() const noexcept;
  U64 suppressedCount() const noexcept;

  // Writes the report of a stall captured by the signal handler, if any,
  // and moves every captured stall into the kept ring. Called by the root
  // between runs; by the destructor for a last capture.
  void writePendingReport();

  // The kept stalls, oldest first (at most keptStallCount). Stalls the
  // handler captured since the last pass appear after that pass.
  std::vector<Stall> stalls() const;
  // Stalls that could not be kept: more than the handler's queue holds
  // (4) within one run of the root's thread.
  U64 stallsNotKept() const noexcept;

  // Marks `root` for writePendingReport(). For the signal handler.
  static void reportPendingIs(TaskSchedulerRoot& root) noexcept;

private:
  StallWatchdog(const Ptr<TaskSchedulerRoot>& root, std::chrono::milliseconds threshold, U32 reportsPerMinute);

  struct KeptStall;
  void keepCapturedStalls() noexcept;

  Ptr<TaskSchedulerRoot> root_;
  std::chrono::milliseconds threshold_;
  U32 reportsPerMinute_;
  unsigned slot_ = 0;
  // The ring of kept stalls: keptStallCount records, the oldest at
  // keptNext_ once keptCount_ reached keptStallCount.
  std::unique_ptr<KeptStall[]> kept_;
  unsigned keptNext_ = 0;
  unsigned keptCount_ = 0;
};

} // namespace Kesto
