#include <Kesto/Report/SnapshotShow.h>

#include <Kesto/Debug/Trace.h>
#include <Kesto/Report/SnapshotShowTask.h>
#include <Kesto/Scheduler/TaskScheduler.h>

#include <algorithm>

namespace Kesto {

namespace {

constexpr const char* className = "SnapshotShow";

const std::vector<TaskStat>& selectTasks(const TaskSchedulerSnapshotImpl& s) { return s.tasks; }
const std::vector<TaskStat>& selectCompletedTasks(const TaskSchedulerSnapshotImpl& s) { return s.completedTasks; }

const TaskSchedulerSnapshotImpl& implOf(const TaskSchedulerSnapshot* snapshot) {
  return static_cast<const TaskSchedulerSnapshotImpl&>(*snapshot);
}

// Longest run time first; equal times by name. Not stable: tasks of equal
// time and name may come in either order.
void sortForDisplay(std::vector<const TaskStat*>& v) {
  std::sort(v.begin(), v.end(), [](const TaskStat* a, const TaskStat* b) {
    if (a->taskTotalRunTime() != b->taskTotalRunTime())
      return a->taskTotalRunTime() > b->taskTotalRunTime();
    return a->taskName() < b->taskName();
  });
}

} // namespace

const char* formatSnapshotShowStage(SnapshotShow::Stage stage) {
  switch (stage) {
  case SnapshotShow::Stage::init:
    return "init";
  case SnapshotShow::Stage::displayTasks:
    return "displayTasks";
  case SnapshotShow::Stage::displayCompletedTasks:
    return "displayCompletedTasks";
  case SnapshotShow::Stage::displayHistory:
    return "displayHistory";
  case SnapshotShow::Stage::displayHistoryEvents:
    return "displayHistoryEvents";
  }
  KESTO_FAIL(className, "unknown:{}", U32(stage));
}

// --- SchedulerDisplayContext -------------------------------------------------

SnapshotShow::SchedulerDisplayContext::SchedulerDisplayContext(const TaskSchedulerSnapshotImpl* snap, String n,
                                                               SubSchedulerMode mode, U64 level)
    : snapshot(snap), name(std::move(n)), nestingLevel(level) {
  bool descendTasks = false;
  bool descendCompleted = false;
  bool showCompleted = true;
  switch (mode) {
  case SubSchedulerMode::flatten:
    KESTO_ASSERT(0 == nestingLevel, className, "0 == nestingLevel");
    descendTasks = true;
    descendCompleted = true;
    break;
  case SubSchedulerMode::separate:
    break;
  case SubSchedulerMode::hierarchical:
    // The completed tasks of the whole tree are shown once, at the top.
    descendCompleted = nestingLevel == 0;
    showCompleted = nestingLevel == 0;
    break;
  }
  tasks.reserve(countTasks(*snapshot, selectTasks, descendTasks));
  maybeFlattenTasks(*snapshot, selectTasks, descendTasks, tasks);
  sortForDisplay(tasks);
  if (showCompleted) {
    completedTasks.reserve(countTasks(*snapshot, selectCompletedTasks, descendCompleted));
    maybeFlattenTasks(*snapshot, selectCompletedTasks, descendCompleted, completedTasks);
    sortForDisplay(completedTasks);
  }
}

std::size_t SnapshotShow::SchedulerDisplayContext::countTasks(const TaskSchedulerSnapshotImpl& snapshot,
                                                              Selector select, bool descend) {
  std::size_t n = select(snapshot).size();
  if (descend)
    for (const TaskSchedulerSnapshotImpl::SubScheduler& sub : snapshot.subSchedulers)
      n += countTasks(sub.second, select, true);
  return n;
}

void SnapshotShow::SchedulerDisplayContext::maybeFlattenTasks(const TaskSchedulerSnapshotImpl& snapshot,
                                                              Selector select, bool descend,
                                                              std::vector<const TaskStat*>& out) {
  for (const TaskStat& stat : select(snapshot))
    out.push_back(&stat);
  if (descend)
    for (const TaskSchedulerSnapshotImpl::SubScheduler& sub : snapshot.subSchedulers)
      maybeFlattenTasks(sub.second, select, true, out);
}

// --- SnapshotShow ------------------------------------------------------------

SnapshotShow::SnapshotShow(Ptr<TaskSchedulerSnapshot const> snapshot, SubSchedulerMode mode)
    : subSchedulerMode(mode) {
  snapshots.push_back(std::move(snapshot));
  addTopLevelContextToStack(snapshots.front().get());
}

SnapshotShow::SnapshotShow(TaskScheduler* scheduler, int fd, Snapshots given, SubSchedulerMode mode,
                           std::function<void(SnapshotShow*)> onComplete)
    : snapshots(std::move(given)), subSchedulerMode(mode), completeCallback_(std::move(onComplete)) {
  task_ = Ptr<SnapshotShowTask>(new SnapshotShowTask(scheduler, fd));
  task_->moreOutput = [this] { return !contextStack.empty(); };
  task_->produce = [this] { produceOutput(); };
  task_->finish = [this] { finish(); };
  task_->abandon = [this] { contextStack.clear(); };
  task_->written = [this] { dataHasBeenWritten(); };

  // 0xFFFFFFFF (no order) is the largest value, so it sorts last.
  std::stable_sort(snapshots.begin(), snapshots.end(), [](const auto& a, const auto& b) {
    return implOf(a.get()).displayOrder < implOf(b.get()).displayOrder;
  });
  contextStack.reserve(snapshots.size());
  for (auto it = snapshots.rbegin(); it != snapshots.rend(); ++it)
    addTopLevelContextToStack(it->get());

  task_->checkCreateWriteTask();
  task_->scheduleTaskWritable();
}

SnapshotShow::~SnapshotShow() = default;

void SnapshotShow::addTopLevelContextToStack(const TaskSchedulerSnapshot* snapshot) {
  contextStack.emplace_back(&implOf(snapshot), String(), subSchedulerMode, 0);
  if (subSchedulerMode == SubSchedulerMode::hierarchical)
    addToTaskGroupMap(snapshot);
}

void SnapshotShow::addToTaskGroupMap(const TaskSchedulerSnapshot* snapshot) {
  for (const TaskSchedulerSnapshotImpl::SubScheduler& sub : implOf(snapshot).subSchedulers) {
    taskGroupMap.emplace(sub.second.parentTask, &sub.second); // the first of a key wins
    addToTaskGroupMap(&sub.second);
  }
}

bool SnapshotShow::flush() { return task_ && task_->attemptWriteAndCheckYield(getData(), false); }

void SnapshotShow::popFrame() {
  SchedulerDisplayContext popped = std::move(contextStack.back());
  contextStack.pop_back();
  schedulerEnd(popped);
  if (!contextStack.empty())
    return;
  finished();
  if (task_)
    task_->attemptWriteAndCheckYield(getData(), true); // the one write that forces out a small rest
}

void SnapshotShow::produceOutput() {
  if (contextStack.empty())
    return;
  SchedulerDisplayContext& ctx = contextStack.back();
  const TaskSchedulerSnapshotImpl& snapshot = *ctx.snapshot;
  const bool hierarchical = subSchedulerMode == SubSchedulerMode::hierarchical;
  const bool separate = subSchedulerMode == SubSchedulerMode::separate;

  switch (ctx.stage) {
  case Stage::init:
    KESTO_TRACE(Debug::taskScheduler, 3, className, "stage {}", ctx.stage);
    if (separate || ctx.nestingLevel == 0)
      schedulerBegin(ctx);
    ctx.stage = Stage::displayTasks;
    taskBlockBegin(ctx, false);
    ctx.vectorBookmark = 0;
    if (flush())
      return;
    [[fallthrough]];

  case Stage::displayTasks:
    KESTO_TRACE(Debug::taskScheduler, 3, className, "stage {} vectorBookmark {}", ctx.stage, ctx.vectorBookmark);
    while (ctx.vectorBookmark < ctx.tasks.size()) {
      const TaskStat& stat = *ctx.tasks[ctx.vectorBookmark];
      taskDisplay(ctx, stat, false);
      ++ctx.vectorBookmark;
      if (hierarchical) {
        auto group = taskGroupMap.find(stat.taskKey());
        if (group != taskGroupMap.end()) {
          const U64 level = ctx.nestingLevel + 1;
          contextStack.emplace_back(group->second, String(), subSchedulerMode, level); // `ctx` is gone
          return;
        }
      }
      if (flush())
        return;
    }
    taskBlockEnd(ctx, snapshot.tasksSkipped);
    if (hierarchical && ctx.nestingLevel > 0) {
      popFrame(); // a nested frame shows its live tasks only
      return;
    }
    ctx.stage = Stage::displayCompletedTasks;
    ctx.vectorBookmark = 0;
    if (!ctx.completedTasks.empty())
      taskBlockBegin(ctx, true);
    [[fallthrough]];

  case Stage::displayCompletedTasks:
    KESTO_TRACE(Debug::taskScheduler, 3, className, "stage {} vectorBookmark {}", ctx.stage, ctx.vectorBookmark);
    while (ctx.vectorBookmark < ctx.completedTasks.size()) {
      taskDisplay(ctx, *ctx.completedTasks[ctx.vectorBookmark], true);
      ++ctx.vectorBookmark;
      if (flush())
        return;
    }
    if (!ctx.completedTasks.empty())
      taskBlockEnd(ctx, snapshot.completedTasksSkipped);
    ctx.stage = Stage::displayHistory;
    if (separate) {
      subSchedulerBlockBegin(ctx);
      const U64 level = ctx.nestingLevel + 1;
      // Last first, so that the first is on top and shown first. `ctx` is
      // gone after the first push.
      for (auto it = snapshot.subSchedulers.rbegin(); it != snapshot.subSchedulers.rend(); ++it)
        contextStack.emplace_back(&it->second, it->first, subSchedulerMode, level);
      return;
    }
    [[fallthrough]];

  case Stage::displayHistory:
    KESTO_TRACE(Debug::taskScheduler, 3, className, "stage {}", ctx.stage);
    if (separate)
      subSchedulerBlockEnd(ctx);
    if (!snapshot.history) {
      popFrame();
      return;
    }
    historyBegin(ctx);
    ctx.stage = Stage::displayHistoryEvents;
    ctx.vectorBookmark = 0;
    [[fallthrough]];

  case Stage::displayHistoryEvents: {
    KESTO_TRACE(Debug::taskScheduler, 3, className, "stage {} vectorBookmark {}", ctx.stage, ctx.vectorBookmark);
    const std::vector<TaskSchedulerHistory::Event>& events = snapshot.history->events;
    while (ctx.vectorBookmark < events.size()) {
      historyEventDisplay(ctx, events[ctx.vectorBookmark]);
      ++ctx.vectorBookmark;
      if (flush())
        return;
    }
    historyEnd(ctx);
    popFrame();
    return;
  }
  }
  KESTO_FAIL(className, "Invalid context stage {}", U32(ctx.stage));
}

String SnapshotShow::renderToStringWithoutYielding() {
  KESTO_ASSERT(!task_, className, "!task_");
  KESTO_ASSERT(!completeCallback_, className, "!completeCallback_");
  while (!contextStack.empty())
    produceOutput();
  return String(getData());
}

void SnapshotShow::finish() {
  // The last reference to the show may be the scheduler's set, which the
  // callback erases: keep it alive to the end of this function.
  Ptr<SnapshotShow> self(this);
  task_ = nullptr; // closes the descriptor
  snapshots.clear();
  snapshots.shrink_to_fit();
  contextStack.clear();
  if (completeCallback_)
    completeCallback_(this);
}

} // namespace Kesto
