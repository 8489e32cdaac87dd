#include <Kesto/Report/SnapshotShowText.h>

#include <Kesto/Debug/Trace.h>

#include <fmt/compile.h>
#include <fmt/format.h>

#include <algorithm>
#include <iterator>

namespace Kesto {

namespace {

// Formats into a stack buffer and appends once: one growth check of
// `output` per line instead of one per field.
template <typename... Args>
void append(String& output, fmt::format_string<Args...> format, Args&&... args) {
  fmt::memory_buffer line;
  fmt::format_to(std::back_inserter(line), format, std::forward<Args>(args)...);
  output.addRight(std::string_view(line.data(), line.size()));
}

constexpr const char* legend[][2] = {
    {"SP", "= Task status and priority % two characters:"},
    {"   first", "  T/t for active/idle timers, * for running task, blank or"},
    {"", "  S for suspended tasks, X for tasks under suspended scheduler"},
    {"   second", "  priority and runnable status, upper case for runnable"},
    {"RunCount", "= Number of times task has run"},
    {"TotalSec", "= Total run time in seconds"},
    {"LastDelay", "= Scheduling delay last time task ran, in seconds"},
    {"MaxDelay", "= Maximum scheduling delay encountered, in seconds"},
    {"200% 500%", "= Number of times task used this percentage of quantum"},
    {"MaxMs", "= Maximum single run time in milliseconds"},
    {"Done", "= Number of times a task with this name has completed"},
    {"TotalWorkCount", "= Counter of total work units processed"},
    {"DecayAvgWorkCount", "=    exponential decaying average of work units processed"},
    {"MaxWorkCount", "=    high watermark of work units processed in one run"},
    {"LastWorkPending", "= Work units pending processing"},
    {"MaxWorkPending", "=    high watermark of work units pending processing"},
};

// "@0x" and 16 hexadecimal digits.
constexpr U32 addressSuffixLength = 19;

U32 longestName(const std::vector<const TaskStat*>& tasks) {
  U32 m = 0;
  for (const TaskStat* t : tasks)
    m = std::max(m, t->taskName().size());
  return m;
}

U32 longestName(const std::vector<TaskStat>& tasks) {
  U32 m = 0;
  for (const TaskStat& t : tasks)
    m = std::max(m, t.taskName().size());
  return m;
}

} // namespace

SnapshotShowText::SnapshotShowText(Ptr<TaskSchedulerSnapshot const> snapshot, bool hierarchical,
                                   bool showAddresses)
    : SnapshotShow(std::move(snapshot), hierarchical ? SubSchedulerMode::hierarchical : SubSchedulerMode::flatten),
      showTaskAddresses(showAddresses) {}

SnapshotShowText::SnapshotShowText(TaskScheduler* scheduler, int fd, Snapshots snapshots, bool hierarchical,
                                   bool showAddresses, std::function<void(SnapshotShow*)> onComplete)
    : SnapshotShow(scheduler, fd, std::move(snapshots),
                   hierarchical ? SubSchedulerMode::hierarchical : SubSchedulerMode::flatten, std::move(onComplete)),
      showTaskAddresses(showAddresses) {}

SnapshotShowText::~SnapshotShowText() = default;

void SnapshotShowText::flattenPriorityStats(const TaskSchedulerSnapshotImpl& snapshot,
                                            TaskSchedulerQueueStats& stats) {
  for (unsigned p = 0; p < TaskPriority::oneBeyondLast; ++p) {
    auto it = snapshot.priorityStats.find(TaskPriority(p));
    if (it == snapshot.priorityStats.end())
      continue;
    auto into = stats.find(TaskPriority(p));
    if (into != stats.end())
      into->second += it->second;
    else
      stats.emplace(it->first, it->second);
  }
  for (const TaskSchedulerSnapshotImpl::SubScheduler& sub : snapshot.subSchedulers)
    flattenPriorityStats(sub.second, stats);
}

U32 SnapshotShowText::computeMaxTaskNameLenHierarchical(const TaskSchedulerSnapshotImpl& snapshot, U32 level) const {
  U32 m = snapshot.tasks.empty() ? 0 : level * indentPerLevel + longestName(snapshot.tasks);
  for (const TaskSchedulerSnapshotImpl::SubScheduler& sub : snapshot.subSchedulers)
    m = std::max(m, computeMaxTaskNameLenHierarchical(sub.second, level + 1));
  return m;
}

void SnapshotShowText::schedulerBegin(const SchedulerDisplayContext& ctx) {
  const TaskSchedulerSnapshotImpl& s = *ctx.snapshot;
  if (!s.taskNameRegexError.empty()) {
    append(output, "Task name regular expression '{}' is invalid, error: {}\n", s.taskNameRegex.view(),
           s.taskNameRegexError.view());
    return;
  }
  append(output, "TaskScheduler stats for {}\n", s.schedulerName.view());
  if (!s.taskNameRegex.empty())
    append(output, "Filtered to include only tasks matching '{}'\n", s.taskNameRegex.view());
  output.addRight("\n");
  append(output, "{:8s} {:>13s} {:>13s} {:>9s} {:>15s}\n", "Priority", "RunnableCount", "IdleCount", "DoneCount",
         "TotalRunCount");
  output.addRight(std::string_view("--------------------------------------------------------------\n"));
  TaskSchedulerQueueStats stats;
  flattenPriorityStats(s, stats);
  for (unsigned p = 0; p < TaskPriority::oneBeyondLast; ++p) {
    TaskSchedulerPriorityStats row;
    if (auto it = stats.find(TaskPriority(p)); it != stats.end())
      row = it->second;
    append(output, "{:8s} {:>13d} {:>13d} {:>9d} {:>15d}\n", TaskPriority(p).toStrep(), row.runnableTasks,
           row.idleTasks, row.completedTasks, row.totalRunCount);
  }
  append(output, "Maximum scheduler slip {:.6f} seconds\n\n", double(s.maxSchedulerSlip) / 1e9);
  for (const auto& line : legend)
    append(output, "{:17s} {:>s}\n", line[0], line[1]);
  output.addRight("\n");
}

void SnapshotShowText::schedulerEnd(const SchedulerDisplayContext&) {}

void SnapshotShowText::taskBlockBegin(const SchedulerDisplayContext& ctx, bool completed) {
  const char* title = completed ? "TaskName (completed)" : "TaskName";
  U32 width = 0;
  if (completed || subSchedulerMode == SubSchedulerMode::flatten) {
    width = longestName(completed ? ctx.completedTasks : ctx.tasks);
  } else {
    if (ctx.nestingLevel > 0)
      return; // nested tasks share the columns of the top table
    width = computeMaxTaskNameLenHierarchical(*ctx.snapshot, 0);
  }
  if (width != 0 && showTaskAddresses)
    width += addressSuffixLength;
  taskNameWidth = std::max<U32>(width, U32(std::char_traits<char>::length(title)));
  append(output, "{:<{}s} {:2s} {:>10s} {:>13s} {:>14s} {:4s} {:4s} {:5s}", title, taskNameWidth, "SP",
         "RunCount", "TotalSec", "Last/Max-Delay", "200%", "500%", "MaxMs");
  if (completed)
    output.addRight(" Done");
  append(output, " {:>26s} {:>20s}\n", "Total/DecayA/Max-WorkCount", "Last/Max-WorkPending");
}

void SnapshotShowText::taskBlockEnd(const SchedulerDisplayContext& ctx, U32 skipped) {
  if (skipped != 0)
    append(output, "{:{}}Skipped {:d} task{:s} with no runs\n", "", indentPerLevel * ctx.nestingLevel, skipped,
           skipped == 1 ? "" : "s");
  if (ctx.nestingLevel == 0)
    output.addRight("\n");
}

void SnapshotShowText::taskDisplay(const SchedulerDisplayContext& ctx, const TaskStat& stat, bool completed) {
  const U64 indent = indentPerLevel * ctx.nestingLevel;
  fmt::memory_buffer line;
  auto out = std::back_inserter(line);
  fmt::memory_buffer name;
  name.append(stat.taskName().view());
  if (showTaskAddresses)
    fmt::format_to(std::back_inserter(name), "@{}", DisplayPointer(stat.taskKey().object()));
  const U64 nameWidth = taskNameWidth > indent ? taskNameWidth - indent : 0;
  const String status = stat.taskStatusString();
  // Compiled: the line is the hot path of a large report, and parsing its
  // format at run time costs about a third of the line.
  fmt::format_to(out, FMT_COMPILE("{:{}s}{:<{}s} {:2s} {:>10d} {:>13.3f} {:>6.3f} {:>7.3f} {:>4d} {:>4d} {:>5d}"), "", indent,
                 std::string_view(name.data(), name.size()), nameWidth, status.view(), stat.taskRunCount(),
                 double(stat.taskTotalRunTime().count()) / 1e9, stat.taskLastSchedulingLatency().count() / 1000.0,
                 stat.taskSchedulingLatencyHighWaterMark().count() / 1000.0, stat.taskQuantumViolation200(),
                 stat.taskQuantumViolation500(),
                 U64(stat.taskRunTimeHighWaterMark().count() / 1000.0 * 1000.0));
  if (completed)
    fmt::format_to(out, FMT_COMPILE(" {:>4d}"), stat.taskCompletedCount());
  if (stat.taskWorkCountHighWaterMark() == TaskStat::noValue)
    fmt::format_to(out, FMT_COMPILE(" {:>10s} {:>8s} {:>6s}"), "-", "-", "-");
  else
    fmt::format_to(out, FMT_COMPILE(" {:>10d} {:8.1f} {:>6d}"), stat.taskWorkCountTotal(), stat.taskWorkCountDecayAvg(),
                   stat.taskWorkCountHighWaterMark());
  if (stat.taskWorkPendingHighWaterMark() == TaskStat::noValue)
    fmt::format_to(out, FMT_COMPILE(" {:>9s} {:>10s}\n"), "-", "-");
  else
    fmt::format_to(out, FMT_COMPILE(" {:>9d} {:>10d}\n"), stat.taskWorkPending(), stat.taskWorkPendingHighWaterMark());
  output.addRight(std::string_view(line.data(), line.size()));
}

void SnapshotShowText::subSchedulerBlockBegin(const SchedulerDisplayContext&) {}

void SnapshotShowText::subSchedulerBlockEnd(const SchedulerDisplayContext&) {}

void SnapshotShowText::historyBegin(const SchedulerDisplayContext& ctx) {
  const TaskSchedulerSnapshotImpl::History& h = *ctx.snapshot->history;
  fmt::memory_buffer title;
  fmt::format_to(std::back_inserter(title), "Last {} scheduler events, absolute timestamp and relative to last event",
                 h.historyEventCount);
  output.addRight(std::string_view(title.data(), title.size()));
  append(output, "\n{:-<{}s}\n", "", title.size());
  if (!h.events.empty())
    lastEventTime = U64(h.events.front().timestamp.time_since_epoch().count());
}

void SnapshotShowText::historyEnd(const SchedulerDisplayContext&) { output.addRight("\n"); }

void SnapshotShowText::historyEventDisplay(const SchedulerDisplayContext&, const TaskSchedulerHistory::Event& event) {
  const I64 t = event.timestamp.time_since_epoch().count();
  const I64 relative = (I64(lastEventTime) + 500 - t) / 1000; // microseconds, rounded to nearest
  fmt::memory_buffer label;
  fmt::format_to(std::back_inserter(label), "{:<12s} {}", event.eventTypeDisplay(), event.eventIdentifier().view());
  append(output, "{:>22d} ns since boot {:>10d} us {}\n", t, relative, std::string_view(label.data(), label.size()));
}

void SnapshotShowText::finished() {}

} // namespace Kesto
