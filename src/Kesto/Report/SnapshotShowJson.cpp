#include "Report/SnapshotShowJson.h"

#include <Kesto/Debug/Trace.h>
#include <Kesto/Report/SnapshotShowJson.h>

#include <fmt/format.h>

namespace Kesto {

SnapshotShowJson::SnapshotShowJson(Ptr<TaskSchedulerSnapshot const> snapshot)
    : SnapshotShow(std::move(snapshot), SubSchedulerMode::separate), buffer(nullptr, initialCapacity),
      writer(buffer) {
  openDocument();
}

SnapshotShowJson::SnapshotShowJson(TaskScheduler* scheduler, int fd, Snapshots snapshots,
                                   std::function<void(SnapshotShow*)> onComplete)
    : SnapshotShow(scheduler, fd, std::move(snapshots), SubSchedulerMode::separate, std::move(onComplete)),
      buffer(nullptr, initialCapacity), writer(buffer) {
  openDocument();
}

SnapshotShowJson::~SnapshotShowJson() = default;

void SnapshotShowJson::openDocument() {
  writer.StartObject();
  key("schedulers");
  writer.StartObject();
}

std::string_view SnapshotShowJson::getData() {
  // GetString() terminates the contents with a NUL that it takes off again.
  const char* data = buffer.GetString();
  return std::string_view(data, buffer.GetSize());
}

void SnapshotShowJson::schedulerBegin(const SchedulerDisplayContext& ctx) {
  const TaskSchedulerSnapshotImpl& s = *ctx.snapshot;
  string(ctx.name.empty() ? s.schedulerName : ctx.name);
  writer.StartObject();
  key("schedulerName");
  string(s.schedulerName);
  if (s.displayOrder != 0xFFFFFFFF) {
    key("displayOrder");
    writer.Uint(s.displayOrder);
  }
  if (!s.generalError.empty()) {
    key("generalError");
    string(s.generalError);
  }
  key("isRootScheduler");
  writer.Bool(s.isRootScheduler);
  if (!s.taskNameRegex.empty()) {
    key("taskNameRegex");
    string(s.taskNameRegex);
    if (!s.taskNameRegexError.empty()) {
      key("taskNameRegexError");
      string(s.taskNameRegexError);
    }
  }
  key("priorityStats");
  writer.StartObject();
  for (unsigned p = 0; p < TaskPriority::oneBeyondLast; ++p) {
    TaskSchedulerPriorityStats row;
    if (auto it = s.priorityStats.find(TaskPriority(p)); it != s.priorityStats.end())
      row = it->second;
    key(TaskPriority(p).toStrep());
    writer.StartObject();
    key("runnableTasks");
    writer.Uint(row.runnableTasks);
    key("idleTasks");
    writer.Uint(row.idleTasks);
    key("completedTasks");
    writer.Uint64(row.completedTasks);
    key("totalRunCount");
    writer.Uint64(row.totalRunCount);
    writer.EndObject();
  }
  writer.EndObject();
  key("maxSchedulerSlip");
  writer.Double(double(s.maxSchedulerSlip) / 1e9);
}

void SnapshotShowJson::schedulerEnd(const SchedulerDisplayContext&) { writer.EndObject(); }

void SnapshotShowJson::taskBlockBegin(const SchedulerDisplayContext&, bool completed) {
  key(completed ? "completedTasks" : "tasks");
  writer.StartObject();
  key("tasks");
  writer.StartArray();
}

void SnapshotShowJson::taskBlockEnd(const SchedulerDisplayContext&, U32 skipped) {
  writer.EndArray();
  key("skipped");
  writer.Uint(skipped);
  writer.EndObject();
}

void SnapshotShowJson::taskDisplay(const SchedulerDisplayContext&, const TaskStat& stat, bool completed) {
  const TaskStat::TaskStatus status = stat.taskStatus();
  writer.StartObject();
  key("name");
  string(stat.taskName());
  if (!completed) {
    char address[32];
    const auto end = fmt::format_to_n(address, sizeof address - 1, "@{}", DisplayPointer(stat.taskKey().object()));
    *end.out = '\0';
    key("address");
    writer.String(address);
  }
  key("priority");
  writer.String(stat.taskPriority().toStrep());
  if (status.taskIsTaskGroup()) {
    key("subScheduler");
    string(subSchedulerKey(stat));
  }
  key("onRunQueue");
  writer.Bool(status.taskOnRunQueue());
  key("currentlyRunning");
  writer.Bool(status.taskCurrentlyRunning());
  key("suspended");
  writer.Bool(status.taskSuspended());
  key("schedulerSuspended");
  writer.Bool(status.schedulerSuspended());
  key("hasTimer");
  writer.Bool(status.taskTimer());
  key("timerRunning");
  writer.Bool(status.taskTimerRunning());
  key("runCount");
  writer.Uint64(stat.taskRunCount());
  key("totalRunTime");
  writer.Double(double(stat.taskTotalRunTime().count()) / 1e9);
  key("firstTaskRunTimestamp");
  writer.Uint64(U64(stat.firstTaskRunTimestamp().time_since_epoch().count()));
  key("lastTaskRunTimestamp");
  writer.Uint64(U64(stat.lastTaskRunTimestamp().time_since_epoch().count()));
  key("lastSchedulingLatency");
  writer.Double(stat.taskLastSchedulingLatency().count() / 1000.0);
  key("schedulingLatencyHighWaterMark");
  writer.Double(stat.taskSchedulingLatencyHighWaterMark().count() / 1000.0);
  key("qv200");
  writer.Uint(stat.taskQuantumViolation200());
  key("qv500");
  writer.Uint(stat.taskQuantumViolation500());
  key("maxMs");
  // Rounded here, truncated in the text report: the two differ on purpose.
  writer.Uint64(U64(stat.taskRunTimeHighWaterMark().count() / 1000.0 * 1000.0 + 0.5));
  if (completed) {
    key("completedCount");
    writer.Uint(stat.taskCompletedCount());
  }
  if (stat.taskWorkCountHighWaterMark() != TaskStat::noValue) {
    key("workCount");
    writer.StartObject();
    key("total");
    writer.Uint64(stat.taskWorkCountTotal());
    key("decayingAvg");
    writer.Double(double(stat.taskWorkCountDecayAvg()));
    key("highwater");
    writer.Uint(stat.taskWorkCountHighWaterMark());
    writer.EndObject();
  }
  if (stat.taskWorkPendingHighWaterMark() != TaskStat::noValue) {
    key("workPending");
    writer.StartObject();
    key("pending");
    writer.Uint(stat.taskWorkPending());
    key("highwater");
    writer.Uint(stat.taskWorkPendingHighWaterMark());
    writer.EndObject();
  }
  writer.EndObject();
}

void SnapshotShowJson::subSchedulerBlockBegin(const SchedulerDisplayContext&) {
  key("subSchedulers");
  writer.StartObject();
}

void SnapshotShowJson::subSchedulerBlockEnd(const SchedulerDisplayContext&) { writer.EndObject(); }

void SnapshotShowJson::historyBegin(const SchedulerDisplayContext& ctx) {
  const TaskSchedulerSnapshotImpl::History& h = *ctx.snapshot->history;
  key("history");
  writer.StartObject();
  key("historyEntryCount");
  writer.Uint(h.historyEntryCount);
  key("historyEventCount");
  writer.Uint(h.historyEventCount);
  key("history");
  writer.StartArray();
}

void SnapshotShowJson::historyEnd(const SchedulerDisplayContext&) {
  writer.EndArray();
  writer.EndObject();
}

void SnapshotShowJson::historyEventDisplay(const SchedulerDisplayContext&, const TaskSchedulerHistory::Event& event) {
  writer.StartObject();
  key("nsSinceBoot");
  writer.Uint64(U64(event.timestamp.time_since_epoch().count()));
  key("eventType");
  writer.String(event.eventTypeDisplay());
  const String& id = event.eventIdentifier();
  if (!id.empty()) {
    key("eventId");
    string(id);
  }
  writer.EndObject();
}

void SnapshotShowJson::finished() {
  writer.EndObject();
  writer.EndObject();
}

Ptr<SnapshotShow> SnapshotShowJsonIs(Ptr<TaskSchedulerSnapshot const> snapshot) {
  return Ptr<SnapshotShow>(new SnapshotShowJson(std::move(snapshot)));
}

} // namespace Kesto
