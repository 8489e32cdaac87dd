// Friend of TaskScheduler for tests: sets the internal state behind the
// invariant checks that no sequence of public calls can break, such as a
// counter about to wrap or a running task left behind by a nested run.
// Each setter writes one field; a test puts back what it changed before its
// objects go, so that their destructors find a consistent scheduler.
#pragma once

#include <Kesto/Scheduler/ResetStatsTask.h>
#include <Kesto/Scheduler/TaskScheduler.h>

namespace Kesto {

struct TaskSchedulerTestAccess {
  static void tasksPerPriorityIs(TaskScheduler& s, TaskPriority p, U32 count) { s.tasksPerPriority_[p] = count; }
  static void completedTasksPerPriorityIs(TaskScheduler& s, TaskPriority p, U64 count) {
    s.completedTasksPerPriority_[p] = count;
  }
  static void currentlyRunningTaskIs(TaskScheduler& s, Ptr<TaskImpl> task) {
    s.currentlyRunningTask_ = std::move(task);
  }
  // The scheduler and its reset task hold each other for the life of the
  // process; a test breaks the pair at its end so that the leak checker of
  // the sanitizer build finds nothing left behind.
  static void resetStatsTaskRelease(TaskScheduler& s) {
    s.resetStatsBookmark_.remove();
    s.resetStatsTask_ = nullptr;
  }
  // The task the reset walk will visit next: null when no walk is parked or
  // when it is parked at the end.
  static TaskImpl* resetStatsBookmarkNext(TaskScheduler& s) {
    if (!s.resetStatsBookmark_.isLinked())
      return nullptr;
    auto it = s.resetStatsBookmark_.nextElement();
    return it == s.registeredTasks_.end() ? nullptr : &*it;
  }
  // Appends to the task's run queue behind the back of scheduleTask(), as a
  // suspended task must never be.
  static void enqueueIs(TaskScheduler& s, TaskImpl& task) { s.taskEnqueue(task); }
  static void schedulerHasRunnableTasksFieldIs(TaskScheduler& s, bool value) {
    s.schedulerHasRunnableTasks_ = value;
  }
};

} // namespace Kesto
