// SnapshotShow: the walk that turns snapshots into a report.
//
// A report is made of three layers that can each be checked alone: the
// snapshot is data, this class decides the order in which things are said,
// and a renderer (SnapshotShowText, SnapshotShowJson) decides how they are
// said, into a buffer of its own. A fourth, SnapshotShowTask, decides when
// the bytes move to a descriptor.
//
// The walk is a resumable state machine over a stack of frames
// (SchedulerDisplayContext), one frame per scheduler being shown. The top
// frame's `stage` and `vectorBookmark` hold all of its state, so
// produceOutput() may return after any task line or history event (when
// the task says its quantum is spent or the descriptor is full) and carry on
// at the same place on the next call. Pushing or popping a frame always ends
// the call, so other tasks get a turn between schedulers.
//
//   stage                  left when                 to
//   init                   at once                   displayTasks
//   displayTasks           the list is done          displayCompletedTasks
//                                                    (hierarchical, level > 0:
//                                                    frame popped)
//   displayCompletedTasks  the list is done          displayHistory
//   displayHistory         at once (separate: after  displayHistoryEvents, or
//                          the nested frames)        popped without history
//   displayHistoryEvents   the events are done       frame popped
//
// Sub-scheduler modes: `separate` (JSON) shows each group as a frame of its
// own inside a sub-scheduler block; `flatten` (text) merges the whole tree
// into one table; `hierarchical` (text) pushes a group's frame right after
// the group's own task line, so its tasks appear indented under it.
//
// Ownership: a show holds its snapshots (so frames may point into them) and,
// in the asynchronous form, its task. The scheduler's snapshotShows_ holds a
// running asynchronous show; finish() lets it go. The string form has no
// task and no callback and runs to its end in one call.
//
// Allocation: a frame's two vectors of pointers are reserved and sorted
// when the frame is pushed (not interruptible: O(n log n) in its tasks); the
// walk itself only appends to the renderer's buffer.
//
// Thread: the scheduler's thread.
#pragma once

#include <Kesto/Common/Export.h>

#include <Kesto/Core/Ptr.h>
#include <Kesto/Core/String.h>
#include <Kesto/Core/Types.h>
#include <Kesto/Report/TaskSchedulerSnapshot.h>
#include <Kesto/Scheduler/TaskSchedulerHistory.h>
#include <Kesto/Scheduler/TaskStat.h>
#include <Kesto/Scheduler/TaskTypes.h>

#include <fmt/format.h>

#include <functional>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace Kesto {

class SnapshotShowTask;
class TaskScheduler;

class KESTO_EXPORT SnapshotShow : public RefCount<HTCnt> {
public:
  enum class Stage : U32 {
    init = 0,
    displayTasks = 1,
    displayCompletedTasks = 2,
    displayHistory = 3,
    displayHistoryEvents = 4,
  };

  enum class SubSchedulerMode : U32 {
    separate = 0,
    flatten = 1,
    hierarchical = 2,
  };

  using Snapshots = std::vector<Ptr<TaskSchedulerSnapshot const>>;

  // One frame of the walk: a scheduler being shown and where its walk
  // stands. Holds pointers into the show's snapshots, never copies.
  class KESTO_EXPORT SchedulerDisplayContext {
  public:
    // Picks a snapshot's `tasks` or `completedTasks`.
    using Selector = const std::vector<TaskStat>& (*)(const TaskSchedulerSnapshotImpl&);

    // Collects and sorts the frame's tasks: larger total run time first,
    // then by name. In `flatten` the whole tree is merged (level 0 only); in
    // `hierarchical` the completed tasks of the whole tree are merged at
    // level 0 and left out deeper.
    SchedulerDisplayContext(const TaskSchedulerSnapshotImpl* snapshot, String name, SubSchedulerMode mode,
                            U64 nestingLevel);

    // Tasks of `snapshot` picked by `select`, and with `descend` of every
    // snapshot nested under it.
    static std::size_t countTasks(const TaskSchedulerSnapshotImpl& snapshot, Selector select, bool descend);
    // Appends a pointer to each of those tasks, the snapshot's first, then
    // each nested snapshot's in order.
    static void maybeFlattenTasks(const TaskSchedulerSnapshotImpl& snapshot, Selector select, bool descend,
                                  std::vector<const TaskStat*>& out);

    const TaskSchedulerSnapshotImpl* snapshot;
    // Empty at top level and in hierarchical frames; the sub-scheduler key
    // in separate frames.
    String name;
    U64 nestingLevel;
    Stage stage = Stage::init;
    std::vector<const TaskStat*> tasks;
    std::vector<const TaskStat*> completedTasks;
    // Next element of the vector (or history) that the stage walks.
    U64 vectorBookmark = 0;
  };

  // The string form over one snapshot: no task, no callback.
  SnapshotShow(Ptr<TaskSchedulerSnapshot const> snapshot, SubSchedulerMode mode);
  // The asynchronous form: makes the SnapshotShowTask that writes to `fd`
  // (which the show owns from now on) and schedules its write task; the
  // first byte is formatted when the scheduler runs it. `snapshots` are
  // shown in ascending displayOrder, equal orders in the order given.
  SnapshotShow(TaskScheduler* scheduler, int fd, Snapshots snapshots, SubSchedulerMode mode,
               std::function<void(SnapshotShow*)> onComplete);
  SnapshotShow(const SnapshotShow&) = delete;
  SnapshotShow& operator=(const SnapshotShow&) = delete;

  // --- what a renderer implements, in slot order -------------------------
  virtual ~SnapshotShow();
  virtual void schedulerBegin(const SchedulerDisplayContext& ctx) = 0;
  // Called after the frame left the stack: `ctx` must not be read.
  virtual void schedulerEnd(const SchedulerDisplayContext& ctx) = 0;
  virtual void taskBlockBegin(const SchedulerDisplayContext& ctx, bool completed) = 0;
  virtual void taskBlockEnd(const SchedulerDisplayContext& ctx, U32 skipped) = 0;
  virtual void taskDisplay(const SchedulerDisplayContext& ctx, const TaskStat& stat, bool completed) = 0;
  virtual void subSchedulerBlockBegin(const SchedulerDisplayContext& ctx) = 0;
  virtual void subSchedulerBlockEnd(const SchedulerDisplayContext& ctx) = 0;
  virtual void historyBegin(const SchedulerDisplayContext& ctx) = 0;
  virtual void historyEnd(const SchedulerDisplayContext& ctx) = 0;
  virtual void historyEventDisplay(const SchedulerDisplayContext& ctx, const TaskSchedulerHistory::Event& event) = 0;
  virtual void finished() = 0;
  // All bytes formatted and not yet delivered.
  virtual std::string_view getData() = 0;
  virtual void dataHasBeenWritten() = 0;

  // --- the walk -----------------------------------------------------------
  // Walks the top frame until the task asks to yield, or a frame is pushed
  // or popped.
  void produceOutput();
  // The whole report in one go, for the string form only.
  String renderToStringWithoutYielding();
  void addTopLevelContextToStack(const TaskSchedulerSnapshot* snapshot);
  // Maps each group's parent task, all the way down, to its snapshot.
  void addToTaskGroupMap(const TaskSchedulerSnapshot* snapshot);

  SubSchedulerMode mode() const noexcept { return subSchedulerMode; }
  const std::vector<SchedulerDisplayContext>& stack() const noexcept { return contextStack; }
  const Ptr<SnapshotShowTask>& task() const noexcept { return task_; }
  std::size_t snapshotCount() const noexcept { return snapshots.size(); }

protected:
  Snapshots snapshots;
  SubSchedulerMode subSchedulerMode;
  std::vector<SchedulerDisplayContext> contextStack;
  std::function<void(SnapshotShow*)> completeCallback_;
  Ptr<SnapshotShowTask> task_;
  std::unordered_map<TaskKey, const TaskSchedulerSnapshotImpl*> taskGroupMap;

private:
  // Hands the buffer to the task; true if the walk must stop for now.
  bool flush();
  // Pops the top frame; ends the report when it was the last.
  void popFrame();
  // The task's finish: drops the task (closing the descriptor) and the
  // snapshots, then calls back.
  void finish();
};

// "init", "displayTasks", ... for traces.
KESTO_EXPORT const char* formatSnapshotShowStage(SnapshotShow::Stage stage);

} // namespace Kesto

template <>
struct fmt::formatter<Kesto::SnapshotShow::Stage> : fmt::formatter<fmt::string_view> {
  auto format(Kesto::SnapshotShow::Stage s, fmt::format_context& ctx) const {
    return fmt::formatter<fmt::string_view>::format(Kesto::formatSnapshotShowStage(s), ctx);
  }
};
