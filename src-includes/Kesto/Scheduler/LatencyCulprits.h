// LatencyCulprits: who made a late task late.
//
// A task's scheduling latency is the time from its scheduleTask() to the
// start of its run. When an application sets a threshold on its root
// (TaskSchedulerRoot::latencyCulpritsIs), every run that starts at least
// that late is a latency event: the scheduler reads its history ring back to
// the moment the task was scheduled and names the runs that held the thread
// in between, each with its run time inside that window, largest first.
//
// The window is [scheduledAt, runStart]. Runs are paired from the ring's
// "run start" and "run end" events and clipped to the window. Runs nest (a
// group's parent task runs the group's tasks inside its own run; a task that
// calls runCriticalPriorityTasks() runs critical tasks inside its own):
// every instant of the window goes to the innermost run in progress, so a
// nested run counts for the inner task and only its own time (self time)
// counts for the enclosing one, and no time counts twice. A run still in
// progress at runStart (the parent task of the late task's group, say)
// counts up to runStart. Time in no run (the event loop, timers and
// descriptors between passes) goes to no one: latency minus all culprit
// time is that remainder.
//
// The window is covered when the ring reaches back to the scheduling: it
// still holds the late task's own "schedule" event, or an older event. When
// it does not, the walk starts at the oldest event; a "run end" whose "run
// start" is gone then counts from the window start, which may charge that
// run with time the ring no longer shows.
//
// Fixed sizes so that recording allocates nothing: a LatencyEvent holds at
// most maxCulprits culprits and sums up the rest; the collector's scratch
// space is sized for a history capacity when it is made, and never grows on
// the run path.
//
// Thread: the root's thread; values are plain copies that any thread may
// read once copied out.
#pragma once

#include <Kesto/Common/Export.h>

#include <Kesto/Core/String.h>
#include <Kesto/Core/Types.h>
#include <Kesto/Scheduler/TaskTypes.h>

#include <ZuSlab/Allocator.h>

#include <array>
#include <span>
#include <vector>

namespace Kesto {

class TaskSchedulerHistory;
class TaskSchedulerRoot;

// One run, or several runs of one task, inside a latency window.
struct KESTO_EXPORT LatencyCulprit {
  // The task's history identifier: priority letter, blank, name.
  String identifier;
  // Its run time inside the window, nested runs of other tasks excluded.
  TaskTimeDuration runTime{0};
  // Its runs that overlap the window.
  U32 runs = 0;

  friend bool operator==(const LatencyCulprit&, const LatencyCulprit&) = default;
};

// One run that started at least the threshold after its scheduling.
struct KESTO_EXPORT LatencyEvent {
  // Eight culprits name the runs that matter; a window with more distinct
  // tasks than that is a thread of many small runs, for which their number
  // and total time say enough. 8 × 40 bytes keeps an event at 400 bytes.
  static constexpr unsigned maxCulprits = 8;

  // The late task's history identifier.
  String identifier;
  // The scheduler (root or group) whose run queue the task waited on.
  String schedulerName;
  TaskTimeStamp scheduledAt{};
  TaskTimeStamp runStart{};
  // runStart - scheduledAt.
  TaskTimeDuration latency{0};
  // Largest run time first; ties by more runs, then by identifier.
  std::array<LatencyCulprit, maxCulprits> culprits{};
  U32 culpritCount = 0;
  // Tasks beyond the first maxCulprits, and their summed run time.
  U32 culpritsLeftOut = 0;
  TaskTimeDuration culpritsLeftOutTime{0};
  // The ring reached back to the scheduling (see the banner).
  bool historyCoversWindow = false;

  std::span<const LatencyCulprit> culpritList() const noexcept { return {culprits.data(), culpritCount}; }
  // The part of the latency that no run in the ring accounts for.
  TaskTimeDuration outsideRuns() const noexcept;
};

// The walk over a history ring. Owns the scratch space of the walk (a stack
// of runs in progress and a table that sums run time per identifier), sized
// for a ring of `historyCapacity` events: collecting allocates nothing. A
// ring larger than that is read only as far back as its newest
// `historyCapacity` events, and the window then counts as not covered unless
// those reach back far enough.
class KESTO_EXPORT LatencyCulpritsCollector {
public:
  explicit LatencyCulpritsCollector(unsigned historyCapacity);

  unsigned historyCapacity() const noexcept { return capacity_; }
  // Resizes the scratch space; allocates.
  void historyCapacityIs(unsigned historyCapacity);

  // Fills the culprits, their count, the left-out figures, `latency` and
  // `historyCoversWindow` of `event` from `history`, for the window
  // [event.scheduledAt, event.runStart] of the task event.identifier.
  // Constant memory, time linear in the events walked; no allocation.
  void collect(const TaskSchedulerHistory& history, LatencyEvent& event) noexcept;

private:
  struct OpenRun {
    const String* identifier;
    TaskTimeDuration selfTime;
  };
  struct Slot {
    const String* identifier;
    TaskTimeDuration runTime;
    U32 runs;
    U32 epoch;
  };

  void credit(const String& identifier, TaskTimeDuration runTime) noexcept;

  unsigned capacity_ = 0;
  std::vector<OpenRun, Allocator<OpenRun>> open_;
  // Open addressing, a power of two at least twice the capacity: a walk
  // credits at most one identifier per event, so the load stays under 1/2.
  std::vector<Slot, Allocator<Slot>> table_;
  // The slots used by the current walk, for the ranking.
  std::vector<U32, Allocator<U32>> used_;
  U32 usedCount_ = 0;
  // A slot belongs to the current walk when its epoch is this one, so the
  // table is never cleared between walks.
  U32 epoch_ = 0;
};

// The text of the latest latency events of `root` (at most `newest`, newest
// first), as the agent endpoint's "show agent task latency" answers it.
// Ages are counted back from `now` (the scheduler's clock when not given).
// The layout, one block per event:
//
//   latency culprits of main: threshold 40ms, 1 event since turned on, 1 shown, newest first
//
//   latency 42.000ms L reader in main: scheduled 1.250s ago, ran 1.208s ago; history covers the window
//         30.000ms      1 run   N crunch
//         12.000ms      2 runs  N parse
//          0.000ms              outside any run
//
// A block ends with the culprits left out ("3 more tasks", their time)
// when there were more than LatencyEvent::maxCulprits, and with the time
// outside any run. "latency culprits are off" when they are; the first line
// followed by "no latency events" when none came yet.
KESTO_EXPORT String latencyEventsRenderText(const TaskSchedulerRoot& root, U32 newest);
KESTO_EXPORT String latencyEventsRenderText(const TaskSchedulerRoot& root, U32 newest, TaskTimeStamp now);

} // namespace Kesto
