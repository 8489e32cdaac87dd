// TaskSchedulerRoot: the scheduler the event loop drives, one per thread.
//
// What exists once per thread lives here: the deferred callback through
// which every pass arrives (a zero-delay timer of the thread's event base),
// the ownership of the thread, suspension of all the thread's work, the
// critical-priority escape out of a long task, the test yield ratio, the
// virtual-time switch, the timer wheel of the thread's timer tasks and the
// set of all schedulers (the root and every task group under it). The root
// creates the history ring that it and its groups share.
//
// The pass chain: scheduleTask() on an idle scheduler requests the callback;
// callback() runs one pass (at most one task) and the pass requests the next
// one. libevent therefore regains control between any two tasks. The chain
// ends with one empty pass and starts again at the next scheduleTask().
//
// Ownership: a root lives by reference count. Tasks hold their scheduler and
// groups hold the root, so the root outlives them all. The root owns its
// callback control and its timer wheel; both go in the destructor, before
// the scheduler part. The thread's shared root (schedulerRootKesto()) is held
// by a thread-local reference released at thread exit.
//
// Thread: a root belongs to the thread that made it. Every queue operation
// of its tasks and schedulers checks the calling thread first
// (sanityCheckCurrentRunningThread); the check can be switched off per root,
// by the environment (KESTO_SCHEDULER_THREAD_SANITY_DISABLED, any value), or
// for every root by raising auxThreadCount. A forked child passes it.
//
// Allocation: construction allocates (history, set, controls, wheel); a pass
// and a run request allocate nothing.
#pragma once

#include <Kesto/Common/Export.h>

#include <Kesto/Core/Ptr.h>
#include <Kesto/Core/String.h>
#include <Kesto/Core/Types.h>
#include <Kesto/Platform/PlatformControls.h>
#include <Kesto/Platform/PlatformHandlers.h>
#include <Kesto/Scheduler/TaskScheduler.h>
#include <Kesto/Scheduler/TaskSchedulerQueueStats.h>

#include <ZuSlab/Allocator.h>

#include <sys/types.h>

#include <atomic>
#include <memory>
#include <thread>
#include <unordered_set>
#include <vector>

namespace Kesto {

class StallWatchdog;
class TimerWheel;

// Non-zero switches the thread check off for every root. Nothing in this
// library raises it: programs whose helper threads touch a root under their
// own serialisation do. Read without a lock.
extern KESTO_EXPORT U32 auxThreadCount;

class KESTO_EXPORT TaskSchedulerRoot : public TaskScheduler, public Platform::CallbackHandler {
public:
  using Schedulers =
      std::unordered_set<TaskScheduler*, std::hash<TaskScheduler*>, std::equal_to<TaskScheduler*>,
                         Allocator<TaskScheduler*>>;

  // Capacity of the history ring of roots created from now on.
  static unsigned historyEntryCountDefault;

  // Process-wide, false at start: whether task groups keep multiple runs per
  // parent run while virtual time is on (they drop to one run each
  // otherwise). Groups read it when their rule is reapplied: at creation, at
  // tasksPermittedMultipleRunsIs() and at a change of virtual time.
  static bool testAllowTaskGroupTasksPermittedMultipleRunsWithVirtualTime();
  static void testAllowTaskGroupTasksPermittedMultipleRunsWithVirtualTimeIs(bool allow);

  // A new root of its own, not the thread's shared one.
  static Ptr<TaskSchedulerRoot> TaskSchedulerRootIs(const String& name);

  // Moves the root's running task aside for the length of a nested run, so
  // that the nested tasks can open their own CurrentlyRunningTaskAnchor, and
  // puts it back at the end. A nested run that leaves a task behind is a
  // broken invariant.
  class PreserveCurrentlyRunningTaskAnchor {
  public:
    explicit PreserveCurrentlyRunningTaskAnchor(TaskSchedulerRoot& root) noexcept;
    ~PreserveCurrentlyRunningTaskAnchor() noexcept(false);
    PreserveCurrentlyRunningTaskAnchor(const PreserveCurrentlyRunningTaskAnchor&) = delete;
    PreserveCurrentlyRunningTaskAnchor& operator=(const PreserveCurrentlyRunningTaskAnchor&) = delete;

    const Ptr<TaskImpl>& preserved() const noexcept { return preserved_; }

  private:
    TaskSchedulerRoot& root_;
    Ptr<TaskImpl> preserved_;
  };

  // --- virtual operations of TaskScheduler, in slot order -------------------
  // True if any scheduler of this root has a statistics reset under way.
  bool resetStatsInProgress() const override;
  // Suspends or resumes all passes of the thread's tasks, groups included.
  void suspendedIs(bool suspended) override;
  // Runs queued critical tasks now, from inside a running task.
  void runCriticalPriorityTasks() override;
  // Requests the deferred callback, unless suspended.
  void requestSchedulerRun() override;
  void handleTaskForceYieldInTest() override {}
  void handleVirtualTimeChange() override {}
  void taskRegister(TaskImpl* task) override;
  void timerRunningInc(const TaskTimeStamp& now) override;
  void timerRunningDec(const TaskTimeStamp& now) override;
  ~TaskSchedulerRoot() override;
  TaskScheduler* rootScheduler() const override { return const_cast<TaskSchedulerRoot*>(this); }
  // Fails with "Executing in wrong thread ..." off the owner thread.
  void sanityCheckCurrentRunningThread() const override;
  bool virtualTime() const override { return virtualTime_; }
  unsigned char taskTestYieldRatio() const override { return testYieldRatio_; }
  // --- CallbackHandler ---------------------------------------------------------
  // One pass, delivered by the event loop; the same as handleSchedulerRun().
  void callback() override;

  // --- running -------------------------------------------------------------------
  // virtualTimeCheck(), then one pass over all priorities. True if a task ran.
  bool handleSchedulerRun();
  // Follows the platform's fast-forward switch (main thread only) and
  // re-evaluates every task's yield mode when it changes.
  void virtualTimeCheck();
  // Re-evaluates the yield mode of every task of every scheduler.
  void taskShouldYieldModeReevaluate();
  // For code that held the thread outside any task: counts the time since
  // the last run's end as scheduler slip.
  void doUpdateSchedulerLatency();

  // --- settings ---------------------------------------------------------------------
  void threadSanityDisabledIs(bool disabled);
  // Yield every r-th call of taskShouldYield() in every task without a ratio
  // of its own; 0 switches it off.
  void taskTestYieldRatioIs(unsigned char ratio);

  // --- the schedulers of the thread ---------------------------------------------------
  void registerScheduler(TaskScheduler* scheduler);
  void unregisterScheduler(TaskScheduler* scheduler);
  // Schedulers other than the root.
  U32 taskGroupCount() const;
  // Registered tasks of all schedulers.
  U32 totalRegisteredTaskCount() const;
  // queueStats() summed over all schedulers.
  TaskSchedulerQueueStats queueStatsRoot() const;
  // The first scheduler of that name, or null.
  TaskScheduler* findSchedulerForTest(const String& name);
  const TaskScheduler* findSchedulerForTest(const String& name) const;
  const Schedulers& schedulers() const noexcept { return schedulers_; }

  // --- history ----------------------------------------------------------------------
  void clearHistory();
  unsigned historyEntryCount() const;
  void historyEntryCountIs(unsigned count);
  unsigned historyEventCount() const;

  // --- latency culprits (LatencyCulprits.h) -------------------------------------------
  // For the root and all its groups, which share its history. On with a
  // threshold and the number of latency events kept (1 to
  // TaskSchedulerHistory::maxLatencyEventsKept, else RuntimeException), off
  // with a zero threshold. Turning on allocates; the run path never does.
  void latencyCulpritsIs(TaskDurationMs threshold, U32 eventsKept);
  // 0 when off.
  TaskDurationMs latencyCulpritsThreshold() const;
  // 0 when off.
  U32 latencyEventsKept() const;
  // Latency events seen since turned on.
  U64 latencyEventCount() const;
  // At most `newest` kept events, newest first; a copy.
  std::vector<LatencyEvent> latencyEvents(U32 newest = ~U32(0)) const;

  // --- reading ----------------------------------------------------------------------
  const Ptr<Platform::CallbackControl>& callbackControl() const noexcept { return callbackControl_; }
  const std::shared_ptr<TimerWheel>& timerWheel() const noexcept { return timerWheel_; }
  std::thread::id threadId() const noexcept { return threadId_; }
  pid_t pid() const noexcept { return pid_; }
  const char* threadName() const noexcept { return threadName_; }
  bool threadSanityDisabled() const noexcept { return threadSanityDisabled_; }
  bool isMainThread() const noexcept { return isMainThread_; }
  // The armed stall watchdog, or null.
  const StallWatchdog* stallWatchdog() const noexcept { return stallWatchdog_; }

  // --- timer tasks ------------------------------------------------------------------
  // The random state behind the jitter of every timer task of this root, for
  // rand_r. It starts at 0 and nothing seeds it, so a process that makes the
  // same calls in the same order draws the same jitter in every run.
  unsigned int* jitterSeed() noexcept { return &jitterSeed_; }
  // Puts the random state at a chosen point of its sequence. For tests.
  void jitterSeedIsForTest(unsigned int seed) noexcept { jitterSeed_ = seed; }

protected:
  explicit TaskSchedulerRoot(const String& name);

private:
  friend class StallWatchdog;

  [[noreturn, gnu::cold]] void failWrongThread() const;

  Schedulers schedulers_;
  Ptr<Platform::CallbackControl> callbackControl_;
  std::shared_ptr<TimerWheel> timerWheel_;
  std::thread::id threadId_;
  pid_t pid_;
  char threadName_[16];
  bool threadSanityDisabled_;
  bool virtualTime_ = false;
  bool isMainThread_;
  U8 testYieldRatio_ = 0;
  unsigned int jitterSeed_ = 0;
  // The armed stall watchdog, if any, and its signal handler's note that a
  // report waits to be written at the start of the next pass.
  StallWatchdog* stallWatchdog_ = nullptr;
  std::atomic<bool> stallReportPending_{false};
};

// The calling thread's shared root, made at first use: "main" on the main
// thread, "thread:<tid>" on others. Released at thread exit unless something
// else holds it.
KESTO_EXPORT Ptr<TaskSchedulerRoot> schedulerRootKesto();
// A root of its own for the calling thread.
KESTO_EXPORT Ptr<TaskSchedulerRoot> schedulerRootKestoNonShared(const String& name);

} // namespace Kesto
