// TaskScheduler: one scheduling domain, its run queues and its run cycle.
//
// A scheduler holds six run queues (one per priority), the list of all its
// registered tasks, the counters behind runnable and run counts, and the
// decisions of which task runs next and whether the domain is busy. One pass,
// _handleSchedulerRun(), runs at most one task and then asks for another pass
// through requestSchedulerRun(), so the event loop regains control between
// every two tasks.
//
// Choice of the next task: the most urgent non-empty queue, first in first
// out, except that `high` and `normal` yield place now and then to the queues
// below them in proportion to weights (high 64, normal 8, low 1) and to the
// number of runnable tasks on each side (attemptLowerPriorityBump). `critical`
// and `absolute` never yield place; `scavenge` runs only when all else is
// empty.
//
// The class is abstract: the root of a thread and task groups implement the
// pure operations. Root-wide facts (the owning thread, the test yield ratio,
// virtual time, suspension of the whole thread's work) are asked of the root
// through rootScheduler() and the virtual operations behind the destructor;
// the root answers them itself.
//
// Ownership: tasks hold their scheduler; the scheduler's lists link tasks
// intrusively and hold no reference, except currentlyRunningTask_ during a
// run. The history ring is shared with the root and every group under it.
//
// Allocation: none on the run path (scheduling, picking, running,
// unscheduling, history). The maps are touched at registration, at a task's
// destruction and for reports only.
//
// Thread: the root's thread. Nothing here is locked.
#pragma once

#include <Kesto/Common/Export.h>

#include <Kesto/ZuIntrusive/SafeHookAssert.h>

#include <Kesto/Core/Ptr.h>
#include <Kesto/Core/String.h>
#include <Kesto/Scheduler/TaskImpl.h>
#include <Kesto/Scheduler/TaskPriority.h>
#include <Kesto/Scheduler/TaskSchedulerHistory.h>
#include <Kesto/Scheduler/TaskSchedulerQueueStats.h>
#include <Kesto/Scheduler/TaskStat.h>
#include <Kesto/Scheduler/TaskTypes.h>
#include <Kesto/ZuIntrusive/BookmarkList.h>

#include <ZuSlab/Allocator.h>

#include <boost/intrusive/list.hpp>

#include <array>
#include <functional>
#include <map>
#include <optional>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace Kesto {

class SnapshotShow;
class TaskNameRegex;
class TaskSchedulerRoot;
class TaskSchedulerSnapshot;

class KESTO_EXPORT TaskScheduler : public RefCount<HTCnt> {
public:
  static constexpr TaskDurationMs defaultTaskQuantumInitial{20};
  static constexpr unsigned priorityCount = TaskPriority::oneBeyondLast;

  // Bump weights of the three priorities that take part in the bump.
  static constexpr U32 bumpWeightHigh = 64;
  static constexpr U32 bumpWeightNormal = 8;
  static constexpr U32 bumpWeightLow = 1;

  using TaskList = boost::intrusive::list<
      TaskImpl, boost::intrusive::member_hook<TaskImpl, TaskImpl::RunQueueLink, &TaskImpl::runQueueLink_>,
      boost::intrusive::constant_time_size<false>>;
  using RegisteredTasks = ZuIntrusive::BookmarkList<TaskImpl, &TaskImpl::registeredLink_>;

  class TaskRunQueues {
  public:
    class TaskRunQueue {
    public:
      TaskRunQueue() = default;
      TaskRunQueue(const TaskRunQueue&) = delete;
      TaskRunQueue& operator=(const TaskRunQueue&) = delete;

      // Runnable tasks of this queue: scheduled minus taken out.
      I64 runnableTasks() const noexcept { return scheduledCount_ - dequeuedCount_; }
      // Tasks run since the last statistics reset.
      I64 runTasks() const noexcept { return dequeuedCount_ - dequeuedCountBaseline_; }
      U32 consecutiveRuns() const noexcept { return consecutiveRuns_; }
      bool currentEmpty() const noexcept { return currentRunQueue_->empty(); }
      bool usingTemporary() const noexcept { return currentRunQueue_ == &temporaryRunQueue_; }

      // Picks read the temporary list until moveTemporaryToPersistent();
      // scheduleTask() keeps appending to the persistent one. The temporary
      // list must be empty on entry.
      void movePersistentToTemporary();
      // What is left on the temporary list goes to the front of the
      // persistent one, ahead of what was scheduled meanwhile.
      void moveTemporaryToPersistent();

    private:
      friend class TaskScheduler;
      friend class TaskImpl;

      // Removes a task from whichever of the two lists holds it. The lists
      // keep no size, so erasing through either unlinks the node correctly.
      void remove(TaskImpl& task) noexcept { persistentRunQueue_.erase(TaskList::s_iterator_to(task)); }

      TaskList persistentRunQueue_;
      TaskList temporaryRunQueue_;
      TaskList* currentRunQueue_ = &persistentRunQueue_;
      U32 consecutiveRuns_ = 0;
      I64 scheduledCount_ = 0;
      I64 dequeuedCount_ = 0;
      I64 dequeuedCountBaseline_ = 0;
    };

    TaskRunQueue& operator[](TaskPriority p) noexcept { return queues_[p.value()]; }
    const TaskRunQueue& operator[](TaskPriority p) const noexcept { return queues_[p.value()]; }

  private:
    std::array<TaskRunQueue, priorityCount> queues_;
  };
  using TaskRunQueue = TaskRunQueues::TaskRunQueue;

  // The task that walks registeredTasks_ for resetStats(); see
  // <Kesto/Scheduler/ResetStatsTask.h>.
  class ResetStatsTask;

  // Marks the task of the scheduler that is inside taskExecute(): holds a
  // reference on it for the run, and does the running-critical bookkeeping.
  class CurrentlyRunningTaskAnchor {
  public:
    CurrentlyRunningTaskAnchor(TaskScheduler& scheduler, TaskImpl& task);
    ~CurrentlyRunningTaskAnchor() noexcept(false);
    CurrentlyRunningTaskAnchor(const CurrentlyRunningTaskAnchor&) = delete;
    CurrentlyRunningTaskAnchor& operator=(const CurrentlyRunningTaskAnchor&) = delete;

  private:
    TaskScheduler& scheduler_;
    TaskImpl* task_;
  };

  TaskScheduler(const TaskScheduler&) = delete;
  TaskScheduler& operator=(const TaskScheduler&) = delete;

  // --- virtual operations, in slot order ----------------------------------
  // Whether a statistics reset walk is under way in this scheduler.
  virtual bool resetStatsInProgress() const;
  virtual void suspendedIs(bool suspended) = 0;
  // Lets a long task hand the thread to critical work; forwards to the root.
  virtual void runCriticalPriorityTasks();
  virtual void requestSchedulerRun() = 0;
  virtual void handleTaskForceYieldInTest() = 0;
  virtual void handleVirtualTimeChange() = 0;
  virtual void taskRegister(TaskImpl* task);
  virtual void timerRunningInc(const TaskTimeStamp& now) = 0;
  virtual void timerRunningDec(const TaskTimeStamp& now) = 0;
  virtual ~TaskScheduler();
  // --- root-wide facts (the root answers; others forward to it) -----------
  // The root of this domain, as a scheduler.
  virtual TaskScheduler* rootScheduler() const = 0;
  // The scheduler this one runs inside (a group's parent); null for a root.
  virtual TaskScheduler* parentScheduler() const { return nullptr; }
  // Fails unless called on the thread that owns the root.
  virtual void sanityCheckCurrentRunningThread() const;
  // Whether tasks measure quanta in virtual time.
  virtual bool virtualTime() const;
  // The root's test yield ratio; 0 = none.
  virtual unsigned char taskTestYieldRatio() const;
  // Refuses a priority the domain does not allow (groups restrict them).
  virtual void validateTaskPriority(TaskPriority) const {}

  // --- for tasks ----------------------------------------------------------
  void taskUnregister(TaskImpl* task);
  void unscheduleTask(const TaskTimeStamp& now, TaskImpl* task);
  void taskSchedulerUnlinkTask(const TaskTimeStamp& now, TaskImpl* task);
  void taskSchedulerUnlinkTask(const TaskTimeStamp& now, TaskRunQueue& queue, TaskImpl* task);
  void schedulerHasRunnableTasksIs(bool value, const TaskTimeStamp& now);
  void tasksPerPriorityInc(TaskPriority p);
  void tasksPerPriorityDec(TaskPriority p);
  void taskForceYieldInTestNotify(TaskImpl* task, bool on);

  // --- running --------------------------------------------------------------
  // One pass: picks at most one task of priority `last` or more urgent and
  // runs it. True if a task ran.
  bool _handleSchedulerRun(TaskPriority last);
  // The next task to run, already unlinked, or null.
  TaskImpl* pickOneTask(const TaskTimeStamp& now, TaskPriority first, TaskPriority last);
  bool attemptLowerPriorityBump(TaskPriority p, unsigned int consecutive) const;

  // --- reading --------------------------------------------------------------
  const String& schedulerName() const noexcept { return schedulerName_; }
  U32 tasksPerPriority(TaskPriority p) const;
  U32 runnableTaskCount(TaskPriority p) const;
  U32 runnableTaskCount() const;
  U64 completedTasksPerPriority(TaskPriority p) const;
  U64 runTaskCount(TaskPriority p) const;
  TaskSchedulerQueueStats queueStats() const;
  U32 schedulerBaseBusyCallbacksRegistered() const noexcept { return U32(busyCallbacks_.size()); }
  // Tests a report's task name filter without taking a report: the
  // compiler's message for an invalid expression, nothing for a valid one.
  // Writes the same line to standard error as a report would.
  static std::optional<String> validateTaskNameRegex(const String& expression);

  TaskSchedulerRoot* taskSchedulerRoot() const noexcept { return taskSchedulerRoot_; }
  const Ptr<TaskSchedulerHistory>& taskSchedulerHistory() const noexcept { return taskSchedulerHistory_; }
  bool suspended() const noexcept { return suspended_; }
  bool schedulerHasRunnableTasks() const noexcept { return schedulerHasRunnableTasks_; }
  bool schedulerBusy() const noexcept { return schedulerBusy_; }
  U32 timerRunningCount() const noexcept { return timerRunningCount_; }
  TaskDurationMs defaultTaskQuantum() const noexcept { return defaultTaskQuantum_; }
  TaskTimeDuration maxSchedulerSlip() const noexcept { return maxSchedulerSlip_; }
  TaskTimeStamp lastSchedulerRunEnd() const noexcept { return lastSchedulerRunEnd_; }
  TaskTimeStamp schedulerRunStart() const noexcept { return schedulerRunStart_; }
  const Ptr<TaskImpl>& currentlyRunningTask() const noexcept { return currentlyRunningTask_; }
  const TaskRunQueue& taskRunQueue(TaskPriority p) const noexcept { return taskRunQueues_[p]; }
  TaskRunQueue& taskRunQueue(TaskPriority p) noexcept { return taskRunQueues_[p]; }
  U32 forceYieldTaskCount() const noexcept { return U32(forceYieldTasks_.size()); }
  // Registered tasks, newest first. Walks the list.
  std::size_t registeredTaskCount() const noexcept { return registeredTasks_.size(); }

  // --- settings ---------------------------------------------------------------
  // Quantum of tasks created from now on; not checked.
  void defaultTaskQuantumIs(TaskDurationMs quantum) noexcept { defaultTaskQuantum_ = quantum; }
  // Called without arguments, in key order, whenever the domain turns busy
  // or idle. A second registration under a key replaces the first.
  void registerBusyCallback(void* key, std::function<void()> callback);
  void unregisterBusyCallback(void* key);

  // --- reporting --------------------------------------------------------------
  // No display order: the report keeps the order in which it got snapshots.
  static constexpr U32 displayOrderNotSpecified = 0xFFFFFFFF;
  // An immutable copy of this scheduler, its groups and (for the root, if
  // asked) the history, for reports. `name` overrides the title; an empty
  // `taskNameRegex` is no filter. Never throws: a failed copy gives a
  // snapshot that carries generalError. On the root's thread only.
  Ptr<TaskSchedulerSnapshot const> snapshot(String name, bool includeNoRunTasks, bool includeCompletedTasks,
                                            bool includeHistory, String taskNameRegex, U32 displayOrder) const;
  // Appends the TaskStat of each registered task, newest first, that has run
  // (or every one with includeNoRunTasks) and whose name `regex` matches.
  // Returns how many were left out for having no runs.
  U32 getTaskStats(std::vector<TaskStat>* out, bool includeNoRunTasks, TaskNameRegex* regex) const;
  U32 getTaskStats(std::vector<TaskStat>* out, bool includeNoRunTasks) const;
  // The same over the statistics of completed tasks, one per stats name.
  U32 getCompletedTaskStats(std::vector<TaskStat>* out, bool includeNoRunTasks, TaskNameRegex* regex) const;
  U32 getCompletedTaskStats(std::vector<TaskStat>* out, bool includeNoRunTasks) const;

  // --- statistics reset ---------------------------------------------------------
  // Starts (or restarts from the head) a walk that clears the statistics of
  // every registered task, a slice per run of the reset task, then the
  // scheduler's own figures. Returns at once; allocates only the first time.
  void resetStats();
  // The same in one go, scheduler figures first: for small schedulers.
  void clearStats();

  // Reports written to `fd` by a task of this scheduler, in slices of its
  // quantum; they return before the first byte is written. The descriptor
  // is made non-blocking, belongs to the report from now on and is closed
  // at its end; onComplete runs then, after success and failure alike.
  // Defined with the reports (Report/SnapshotRender.cpp).
  using SnapshotVector = std::vector<Ptr<TaskSchedulerSnapshot const>>;
  void snapshotRenderTextAsync(int fd, SnapshotVector snapshots, bool hierarchical, bool showTaskAddresses,
                               std::function<void()> onComplete);
  void snapshotRenderTextAsync(int fd, SnapshotVector snapshots, bool hierarchical, bool showTaskAddresses);
  void snapshotRenderTextAsync(int fd, Ptr<TaskSchedulerSnapshot const> snapshot, bool hierarchical,
                               bool showTaskAddresses);
  void snapshotRenderJsonAsync(int fd, SnapshotVector snapshots, std::function<void()> onComplete);
  void snapshotRenderJsonAsync(int fd, SnapshotVector snapshots);
  void snapshotRenderJsonAsync(int fd, Ptr<TaskSchedulerSnapshot const> snapshot);
  // A report of this scheduler now, in one go, with no task.
  String statsRenderTextToString(bool includeNoRunTasks, bool includeCompletedTasks, bool includeHistory,
                                 String taskNameRegex, bool hierarchical, bool showTaskAddresses) const;
  String statsRenderJsonToString(bool includeNoRunTasks, bool includeCompletedTasks, bool includeHistory,
                                 String taskNameRegex) const;
  // Reports under way on this scheduler.
  std::size_t snapshotShowCount() const noexcept { return snapshotShows_.size(); }

  // --- tests ------------------------------------------------------------------
  Ptr<TaskImpl> taskForTest(const String& name);
  TaskStat taskStatForTest(const String& name) const;
  TaskStat completedTaskStatForTest(const String& name) const;

protected:
  TaskScheduler(const String& name, TaskSchedulerRoot* root, Ptr<TaskSchedulerHistory> history);

  // The shared bodies of timerRunningInc/Dec for the concrete schedulers.
  void doTimerRunningInc(const TaskTimeStamp& now);
  void doTimerRunningDec(const TaskTimeStamp& now);
  // Busy = runnable tasks or running timers; reports a change.
  void schedulerBusyReevaluate(const TaskTimeStamp& now);
  void historyInsert(const TaskTimeStamp& when, TaskSchedulerEventType type) const;
  // A pass starts at `start`: the time since the last one ended is slip.
  void schedulerRunStartIs(const TaskTimeStamp& start) noexcept;
  void updateCompletedTaskStats(TaskImpl* task);
  void completedTasksPerPriorityInc(TaskPriority p);
  // Appends to the persistent list of the task's queue (scheduleTask).
  void taskEnqueue(TaskImpl& task);
  // True while this scheduler registers its own reset task: the library's
  // task, which a group's priority rules do not apply to.
  bool registeringResetStatsTask() const noexcept;

  // Keeps each running asynchronous report alive until it ends.
  std::unordered_set<Ptr<SnapshotShow>> snapshotShows_;
  String schedulerName_;
  TaskSchedulerRoot* taskSchedulerRoot_;
  Ptr<TaskSchedulerHistory> taskSchedulerHistory_;
  std::unordered_map<String, TaskStat, std::hash<String>, std::equal_to<String>,
                     Allocator<std::pair<const String, TaskStat>>>
      completedTaskStats_;
  RegisteredTasks registeredTasks_;
  TaskRunQueues taskRunQueues_;
  TaskTimeStamp lastSchedulerRunEnd_;
  TaskTimeStamp schedulerRunStart_{};
  TaskDurationMs defaultTaskQuantum_ = defaultTaskQuantumInitial;
  TaskTimeDuration maxSchedulerSlip_{0};
  Time taskStartVirtualTime_ = 0.0;
  std::map<TaskPriority, U32, std::less<TaskPriority>, Allocator<std::pair<const TaskPriority, U32>>>
      tasksPerPriority_;
  std::map<TaskPriority, U64, std::less<TaskPriority>, Allocator<std::pair<const TaskPriority, U64>>>
      completedTasksPerPriority_;
  bool schedulerHasRunnableTasks_ = false;
  Ptr<TaskImpl> currentlyRunningTask_;
  std::unordered_set<TaskImpl*, std::hash<TaskImpl*>, std::equal_to<TaskImpl*>, Allocator<TaskImpl*>>
      forceYieldTasks_;
  RegisteredTasks::Bookmark resetStatsBookmark_;
  Ptr<ResetStatsTask> resetStatsTask_;
  bool suspended_ = false;
  std::map<void*, std::function<void()>, std::less<void*>,
           Allocator<std::pair<void* const, std::function<void()>>>>
      busyCallbacks_;
  bool schedulerBusy_ = false;
  U32 timerRunningCount_ = 0;

private:
  friend class TaskImpl;
  friend class TaskSchedulerSnapshotImpl;
  friend struct TaskSchedulerTestAccess;
  // Fails unless `p` is a priority a task can have (critical to scavenge).
  void checkPriority(TaskPriority p) const {
    if (!p.isValid()) [[unlikely]]
      failPriority(p);
  }
  [[noreturn, gnu::cold]] void failPriority(TaskPriority p) const;
  // The common start of an asynchronous report: `make` builds the renderer
  // with the completion function it is given.
  using SnapshotShowMaker = std::function<SnapshotShow*(std::function<void(SnapshotShow*)>)>;
  void snapshotShowStart(int fd, const SnapshotShowMaker& make, std::function<void()> onComplete);
  // The task leaves its run queue at `now`: its wait since scheduleTask() is
  // its latest scheduling latency.
  static void schedulingLatencyRecord(TaskImpl& task, const TaskTimeStamp& now) noexcept;
  // Zeroes one task's statistics (queue state, quantum and names stay) and
  // calls its handleResetStats().
  static void taskStatsReset(TaskImpl& task);
  // runTaskCount restarts at 0, slip and completed records are cleared.
  void schedulerStatsReset() noexcept;
};

// "name:".
KESTO_EXPORT std::ostream& operator<<(std::ostream& os, const TaskScheduler& scheduler);

// The running-critical bookkeeping, shared by all threads of the process.
// Set while some thread runs a critical task; other code may call it before
// an operation that a critical task must not perform.
extern KESTO_EXPORT void (*assertNotRunningCriticalTaskFn)();
// Fails if the calling thread is running a critical task.
KESTO_EXPORT void doAssertNotRunningCriticalTask();
// Number of critical tasks running in the process now.
KESTO_EXPORT unsigned runningCriticalTaskCount();

} // namespace Kesto

template <typename T>
struct fmt::formatter<T, char, std::enable_if_t<std::is_base_of_v<Kesto::TaskScheduler, T>>>
    : fmt::formatter<fmt::string_view> {
  auto format(const Kesto::TaskScheduler& s, fmt::format_context& ctx) const {
    return fmt::format_to(ctx.out(), "{}:", s.schedulerName());
  }
};
