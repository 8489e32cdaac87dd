// SnapshotShowText: the human-readable report.
//
// Per top-level snapshot: a title (and the filter), the per-priority table
// summed over the whole tree, the slip line, a legend, the task table, the
// completed-task table and the history list. Operators and scripts read it,
// so every column width and header is fixed: a live task line and its
// header are W + 107 characters wide for a name column of W, a completed
// line W + 112. A name longer than its column is not cut.
//
// Modes: `flatten` merges the tree into one table; `hierarchical` shows a
// group's tasks right below the group's line, indented by two per level, in
// the columns of the top table.
//
// Allocation: formatting goes straight into `output`, which grows until the
// show hands it to a write and is emptied by dataHasBeenWritten(), which
// keeps its buffer for the next slice.
#pragma once

#include <Kesto/Common/Export.h>

#include <Kesto/Report/SnapshotShow.h>

namespace Kesto {

class KESTO_EXPORT SnapshotShowText : public SnapshotShow {
public:
  // The string form; `hierarchical` picks mode hierarchical over flatten.
  SnapshotShowText(Ptr<TaskSchedulerSnapshot const> snapshot, bool hierarchical, bool showTaskAddresses);
  // The asynchronous form (see SnapshotShow).
  SnapshotShowText(TaskScheduler* scheduler, int fd, Snapshots snapshots, bool hierarchical, bool showTaskAddresses,
                   std::function<void(SnapshotShow*)> onComplete);
  ~SnapshotShowText() override;

  void schedulerBegin(const SchedulerDisplayContext& ctx) override;
  void schedulerEnd(const SchedulerDisplayContext& ctx) override;
  void taskBlockBegin(const SchedulerDisplayContext& ctx, bool completed) override;
  void taskBlockEnd(const SchedulerDisplayContext& ctx, U32 skipped) override;
  void taskDisplay(const SchedulerDisplayContext& ctx, const TaskStat& stat, bool completed) override;
  void subSchedulerBlockBegin(const SchedulerDisplayContext& ctx) override;
  void subSchedulerBlockEnd(const SchedulerDisplayContext& ctx) override;
  void historyBegin(const SchedulerDisplayContext& ctx) override;
  void historyEnd(const SchedulerDisplayContext& ctx) override;
  void historyEventDisplay(const SchedulerDisplayContext& ctx, const TaskSchedulerHistory::Event& event) override;
  void finished() override;
  std::string_view getData() override { return output.view(); }
  // Keeps the buffer: the next slice refills it without allocating.
  void dataHasBeenWritten() override { output.clearKeepingCapacity(); }

  // Sums the per-priority figures of `snapshot` and everything nested
  // under it into `stats`.
  static void flattenPriorityStats(const TaskSchedulerSnapshotImpl& snapshot, TaskSchedulerQueueStats& stats);
  // The widest of level x indentPerLevel + longest name, over the tree.
  U32 computeMaxTaskNameLenHierarchical(const TaskSchedulerSnapshotImpl& snapshot, U32 level) const;

  U32 taskNameWidthValue() const noexcept { return taskNameWidth; }

private:
  bool showTaskAddresses;
  String output;
  U32 taskNameWidth = 0;
  U64 lastEventTime = 0;
  U32 indentPerLevel = 2;
};

} // namespace Kesto
