// TaskSchedulerSnapshot: an immutable copy of what a scheduler knows.
//
// A report must never hold the thread while it formats or writes, and it
// must never read a task that may be gone by the time it writes. So a
// report reads a snapshot: a deep copy of one scheduler (its queue figures,
// the TaskStat of each task, the completed statistics), of each task group
// under it as a nested snapshot, and for the root of the history ring. The
// copy is made in one go on the scheduler's thread by
// TaskScheduler::snapshot(); no task runs meanwhile, so the picture is
// consistent without a lock or a second pass. Its cost is linear in tasks,
// completed names and events.
//
// Callers hold Ptr<TaskSchedulerSnapshot const>. The one concrete class,
// TaskSchedulerSnapshotImpl, has public fields for the report renderers;
// they never change after snapshot() returns. Nothing here points at a live
// object: taskKey and parentTask are keys for comparison only.
//
// Thread: taken on the scheduler's thread; a finished snapshot is read-only
// and may be read on any thread. The reference count is HTCnt (atomic only
// when the process runs threads).
#pragma once

#include <Kesto/Common/Export.h>

#include <Kesto/Core/Ptr.h>
#include <Kesto/Core/String.h>
#include <Kesto/Core/Types.h>
#include <Kesto/Debug/StallWatchdog.h>
#include <Kesto/Scheduler/TaskSchedulerHistory.h>
#include <Kesto/Scheduler/TaskSchedulerQueueStats.h>
#include <Kesto/Scheduler/TaskStat.h>
#include <Kesto/Scheduler/TaskTypes.h>

#include <pthread.h>

#include <utility>
#include <vector>

namespace Kesto {

class TaskNameRegex;
class TaskScheduler;

class KESTO_EXPORT TaskSchedulerSnapshot : public RefCount<HTCnt> {
public:
  virtual ~TaskSchedulerSnapshot();

protected:
  TaskSchedulerSnapshot() = default;
  TaskSchedulerSnapshot(TaskSchedulerSnapshot&&) noexcept {}
};

class KESTO_EXPORT TaskSchedulerSnapshotImpl : public TaskSchedulerSnapshot {
public:
  // The ring's events at the instant of the copy, newest first.
  class KESTO_EXPORT History : public RefCount<HTCnt> {
  public:
    History(U32 entryCount, U32 eventCount) : historyEntryCount(entryCount), historyEventCount(eventCount) {}

    // Capacity of the live ring.
    U32 historyEntryCount;
    // Events the ring held, before any filtering: a filtered report lists
    // fewer than this.
    U32 historyEventCount;
    std::vector<TaskSchedulerHistory::Event> events;
  };
  using SubScheduler = std::pair<String, TaskSchedulerSnapshotImpl>;

  // An empty snapshot: what snapshot() returns, with generalError set, when
  // the copy failed.
  TaskSchedulerSnapshotImpl() = default;
  // The copy of `scheduler` (steps in the .cpp). `regex` is null for no
  // filter. Throws what allocation throws.
  TaskSchedulerSnapshotImpl(const TaskScheduler& scheduler, String name, bool includeNoRunTasks,
                            bool includeCompletedTasks, bool includeHistory, TaskNameRegex* regex, U32 displayOrder,
                            bool threadSanityDisabled);
  TaskSchedulerSnapshotImpl(TaskSchedulerSnapshotImpl&&) noexcept = default;
  TaskSchedulerSnapshotImpl(const TaskSchedulerSnapshotImpl&) = delete;
  TaskSchedulerSnapshotImpl& operator=(const TaskSchedulerSnapshotImpl&) = delete;
  ~TaskSchedulerSnapshotImpl() override;

  String schedulerName;
  String taskNameRegex;
  String taskNameRegexError;
  String generalError;
  TaskSchedulerQueueStats priorityStats;
  I64 maxSchedulerSlip = 0;
  bool isRootScheduler = false;
  bool threadSanityDisabled = false;
  U32 displayOrder = 0;
  U32 tasksSkipped = 0;
  U32 completedTasksSkipped = 0;
  TaskKey parentTask;
  std::vector<TaskStat> tasks;
  std::vector<TaskStat> completedTasks;
  std::vector<SubScheduler> subSchedulers;
  Ptr<History> history;
  pthread_t snapshotThread{};
  // The stalls kept by the root's stall watchdog, oldest first: taken with
  // the history, on the root, when a watchdog is armed; a filter keeps the
  // stalls of matching task names. No text or JSON report shows them; the
  // timeline does.
  std::vector<StallWatchdog::Stall> stalls;

private:
  void copyHistory(const TaskSchedulerHistory& ring, TaskNameRegex* regex);
};

// The key that pairs a group's line among its parent's tasks with the
// group's nested snapshot: "name-@0x...". Fails unless `stat` is of a
// group's parent task.
KESTO_EXPORT String subSchedulerKey(const TaskStat& stat);

} // namespace Kesto
