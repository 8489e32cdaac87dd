// TaskScheduler::ResetStatsTask: the walk behind TaskScheduler::resetStats().
//
// Clearing the statistics of a scheduler with a million tasks takes tens of
// milliseconds, longer than any task may hold the thread. So the walk is a
// task like any other: each run clears tasks of registeredTasks_ until its
// quantum is used, parks the scheduler's resetStatsBookmark_ before the next
// task and schedules itself again. Tasks may be created or destroyed between
// two runs (and inside handleResetStats() during one); the bookmark stays
// valid whatever happens next to it.
//
// Owner: the scheduler, through resetStatsTask_, made at its first
// resetStats() and kept for every later one. The task holds its scheduler as
// every task does, so the two keep each other: a scheduler that has once been
// reset lives until the process ends. Priority normal, name "<scheduler>;
// ResetStats", memory from the slab allocator. It has no fields of its own.
//
// States: idle (no reset under way, bookmark unparked); on the run queue with
// the bookmark parked (a reset is in progress, resetStatsInProgress() is
// true); running. Running with the bookmark unparked is a broken invariant
// and fails in the bookmark list.
//
// Thread: the thread of the scheduler's root.
#pragma once

#include <Kesto/Common/Export.h>

#include <Kesto/Scheduler/Task.h>
#include <Kesto/Scheduler/TaskScheduler.h>

#include <cstddef>

namespace Kesto {

class KESTO_EXPORT TaskScheduler::ResetStatsTask final : public Task {
public:
  // One slice of the walk: at least one task, then until taskShouldYield().
  void taskExecute() override;

  static void operator delete(void* p) noexcept;

private:
  // Only the scheduler makes one: a second walker would share its bookmark.
  friend class TaskScheduler;
  explicit ResetStatsTask(TaskScheduler* scheduler);
  static void* operator new(std::size_t size);
};

} // namespace Kesto
