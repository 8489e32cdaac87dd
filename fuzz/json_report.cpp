// The JSON report of random snapshots, parsed back with rapidjson and
// compared member by member with the snapshot it was made of.
//
// A snapshot is plain data, exactly what the renderer reads, so the target
// builds trees of them directly: random names (any bytes, quotes, control
// characters, embedded NULs), priorities, status bits, counters at their
// extremes, completed tasks, nested groups, history events. The checks:
// the document parses; members are present or absent by the rules and in
// their order; every value equals the snapshot's (names up to their first
// NUL, since names are written as C strings); tasks come in the report's
// order (longest total run time first, then by name). A decaying average
// that is NaN or infinite cannot be written, and the document must then
// fail to parse rather than hold a wrong number.
#include "FuzzInput.h"

#include <Kesto/Debug/Trace.h>
#include <Kesto/Report/SnapshotShow.h>
#include <Kesto/Report/SnapshotShowJson.h>
#include <Kesto/Report/TaskSchedulerSnapshot.h>
#include <Kesto/Scheduler/TaskSchedulerHistory.h>

#include <fmt/format.h>
#include <rapidjson/document.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

using KestoFuzz::FuzzInput;
using namespace Kesto;
using Snapshot = TaskSchedulerSnapshotImpl;
using Value = rapidjson::Value;

namespace {

constexpr unsigned maxDepth = 5;

// A name as the writer sees it: a C string.
std::string_view cText(std::string_view s) { return s.substr(0, s.find('\0')); }

String nameOf(FuzzInput& in, std::size_t max = 24) { return String(in.text(max)); }

// Values near the ends of their ranges as often as in between.
template <typename T>
T extreme(FuzzInput& in) {
  switch (in.byte() % 4) {
  case 0:
    return T(0);
  case 1:
    return T(~T(0)) > T(0) ? T(~T(0)) : std::numeric_limits<T>::max();
  case 2:
    return std::numeric_limits<T>::min();
  default:
    return in.number<T>();
  }
}

TaskStat randomTask(FuzzInput& in, bool completed, bool& nonFinite) {
  TaskStat t;
  t.taskNameIs(nameOf(in));
  t.taskKeyIs(TaskKey(reinterpret_cast<const void*>(in.number<std::uintptr_t>())));
  t.taskPriorityIs(TaskPriority(in.byte() % 6));
  TaskStat::TaskStatus status(in.byte() & 0x7f);
  if (completed)
    status.taskIsTaskGroupIs(false);
  t.taskStatusIs(status);
  t.taskRunInc(extreme<U64>(in));
  t.taskTotalRunTimeInc(TaskTimeDuration(extreme<I64>(in)));
  t.firstTaskRunTimestampIs(TaskTimeStamp(TaskTimeDuration(extreme<I64>(in))));
  t.lastTaskRunTimestampIs(TaskTimeStamp(TaskTimeDuration(extreme<I64>(in))));
  const uint8_t work = in.byte();
  if (work & 1) {
    t.taskWorkCountTotalInc(extreme<U64>(in));
    float avg = in.number<float>();
    if (!(work & 4) && !std::isfinite(avg))
      avg = 0.5f;
    nonFinite = nonFinite || !std::isfinite(avg);
    t.taskWorkCountDecayAvgIs(avg);
    t.taskWorkCountHighWaterMarkIs(extreme<U32>(in) & 0x7fffffff);
  }
  if (work & 2) {
    t.taskWorkPendingIs(extreme<U32>(in));
    t.taskWorkPendingHighWaterMarkIs(extreme<U32>(in) & 0x7fffffff);
  }
  t.taskQuantumViolation200Inc(extreme<U32>(in));
  t.taskQuantumViolation500Inc(extreme<U32>(in));
  t.taskRunTimeHighWaterMarkIs(TaskDurationMs(extreme<U32>(in)));
  t.taskLastSchedulingLatencyIs(TaskDurationMs(extreme<U32>(in)));
  t.taskSchedulingLatencyHighWaterMarkIs(TaskDurationMs(extreme<U32>(in)));
  if (completed)
    t.taskCompletedCountIs(extreme<U32>(in));
  return t;
}

String keyOf(const TaskStat& t) {
  return String(fmt::format("{}-@{}", t.taskName(), DisplayPointer(t.taskKey().object())));
}

Snapshot randomSnapshot(FuzzInput& in, unsigned depth, bool& nonFinite) {
  Snapshot s;
  const uint8_t shape = in.byte();
  if (shape % 16 == 0) {
    // What snapshot() makes of a failed copy.
    s.generalError = nameOf(in);
    return s;
  }
  s.schedulerName = nameOf(in);
  s.isRootScheduler = depth == 0 && (shape & 2);
  s.displayOrder = (shape & 4) ? 0xFFFFFFFF : extreme<U32>(in);
  if (shape & 8) {
    s.taskNameRegex = nameOf(in);
    s.taskNameRegexError = (shape & 16) ? nameOf(in) : String();
  }
  s.maxSchedulerSlip = extreme<I64>(in);
  for (unsigned rows = in.byte() % 7, i = 0; i < rows; ++i) {
    const TaskPriority p(in.byte() % 6);
    TaskSchedulerPriorityStats& r = s.priorityStats[p];
    r.priority = p;
    r.runnableTasks = extreme<U32>(in);
    r.idleTasks = extreme<U32>(in);
    r.completedTasks = extreme<U64>(in);
    r.totalRunCount = extreme<U64>(in);
  }
  for (unsigned n = in.byte() % 6, i = 0; i < n; ++i) {
    s.tasks.push_back(randomTask(in, false, nonFinite));
    // A group's task has its nested snapshot among the sub-schedulers,
    // unless the tree is deep enough.
    if (s.tasks.back().taskStatus().taskIsTaskGroup() && depth < maxDepth)
      s.subSchedulers.emplace_back(keyOf(s.tasks.back()), randomSnapshot(in, depth + 1, nonFinite));
  }
  s.tasksSkipped = extreme<U32>(in);
  for (unsigned n = in.byte() % 4, i = 0; i < n; ++i)
    s.completedTasks.push_back(randomTask(in, true, nonFinite));
  s.completedTasksSkipped = extreme<U32>(in);
  if (shape & 32) {
    s.history = Ptr<Snapshot::History>(new Snapshot::History(extreme<U32>(in), extreme<U32>(in)));
    for (unsigned n = in.byte() % 8, i = 0; i < n; ++i) {
      // Short identifiers only: a longer one would have to be deduplicated,
      // and that table is never freed.
      String id(in.text(16));
      s.history->events.emplace_back(TaskTimeStamp(TaskTimeDuration(extreme<I64>(in))),
                                     TaskSchedulerEventType(unsigned(in.byte() % TaskSchedulerEventType::count)),
                                     std::move(id));
    }
  }
  return s;
}

std::vector<std::string> memberNames(const Value& object) {
  std::vector<std::string> out;
  for (auto it = object.MemberBegin(); it != object.MemberEnd(); ++it)
    out.emplace_back(it->name.GetString(), it->name.GetStringLength());
  return out;
}

bool sameString(const Value& v, std::string_view want) {
  return v.IsString() && std::string_view(v.GetString(), v.GetStringLength()) == cText(want);
}

bool sameDouble(const Value& v, double want) { return v.IsNumber() && v.GetDouble() == want; }

bool sameU64(const Value& v, U64 want) { return v.IsUint64() && v.GetUint64() == want; }

// The whole task object against one record; false on any difference.
bool taskMatches(const Value& t, const TaskStat& s, bool completed) {
  std::vector<std::string> names{"name"};
  if (!completed)
    names.push_back("address");
  names.push_back("priority");
  if (s.taskStatus().taskIsTaskGroup())
    names.push_back("subScheduler");
  for (const char* n : {"onRunQueue", "currentlyRunning", "suspended", "schedulerSuspended", "hasTimer",
                        "timerRunning", "runCount", "totalRunTime", "firstTaskRunTimestamp",
                        "lastTaskRunTimestamp", "lastSchedulingLatency", "schedulingLatencyHighWaterMark", "qv200",
                        "qv500", "maxMs"})
    names.push_back(n);
  if (completed)
    names.push_back("completedCount");
  if (s.taskWorkCountHighWaterMark() != TaskStat::noValue)
    names.push_back("workCount");
  if (s.taskWorkPendingHighWaterMark() != TaskStat::noValue)
    names.push_back("workPending");
  if (names != memberNames(t))
    return false;
  const TaskStat::TaskStatus st = s.taskStatus();
  bool ok = sameString(t["name"], s.taskName().view()) && sameString(t["priority"], s.taskPriority().toStrep()) &&
            t["onRunQueue"] == st.taskOnRunQueue() && t["currentlyRunning"] == st.taskCurrentlyRunning() &&
            t["suspended"] == st.taskSuspended() && t["schedulerSuspended"] == st.schedulerSuspended() &&
            t["hasTimer"] == st.taskTimer() && t["timerRunning"] == st.taskTimerRunning() &&
            sameU64(t["runCount"], s.taskRunCount()) &&
            sameDouble(t["totalRunTime"], double(s.taskTotalRunTime().count()) / 1e9) &&
            sameU64(t["firstTaskRunTimestamp"], U64(s.firstTaskRunTimestamp().time_since_epoch().count())) &&
            sameU64(t["lastTaskRunTimestamp"], U64(s.lastTaskRunTimestamp().time_since_epoch().count())) &&
            sameDouble(t["lastSchedulingLatency"], s.taskLastSchedulingLatency().count() / 1000.0) &&
            sameDouble(t["schedulingLatencyHighWaterMark"], s.taskSchedulingLatencyHighWaterMark().count() / 1000.0) &&
            sameU64(t["qv200"], s.taskQuantumViolation200()) && sameU64(t["qv500"], s.taskQuantumViolation500()) &&
            sameU64(t["maxMs"], U64(s.taskRunTimeHighWaterMark().count() / 1000.0 * 1000.0 + 0.5));
  if (!completed)
    ok = ok && sameString(t["address"], fmt::format("@{}", DisplayPointer(s.taskKey().object())));
  if (st.taskIsTaskGroup())
    ok = ok && sameString(t["subScheduler"], keyOf(s).view());
  if (completed)
    ok = ok && sameU64(t["completedCount"], s.taskCompletedCount());
  if (s.taskWorkCountHighWaterMark() != TaskStat::noValue) {
    const Value& w = t["workCount"];
    ok = ok && w.IsObject() && memberNames(w) == std::vector<std::string>{"total", "decayingAvg", "highwater"} &&
         sameU64(w["total"], s.taskWorkCountTotal()) && w["decayingAvg"].IsDouble() &&
         w["decayingAvg"].GetDouble() == double(s.taskWorkCountDecayAvg()) &&
         sameU64(w["highwater"], s.taskWorkCountHighWaterMark());
  }
  if (s.taskWorkPendingHighWaterMark() != TaskStat::noValue) {
    const Value& w = t["workPending"];
    ok = ok && w.IsObject() && memberNames(w) == std::vector<std::string>{"pending", "highwater"} &&
         sameU64(w["pending"], s.taskWorkPending()) && sameU64(w["highwater"], s.taskWorkPendingHighWaterMark());
  }
  return ok;
}

// A task block: the order by run time, then name (as C strings compare the
// same as the stored names only up to a NUL, ties are matched as a set).
void checkBlock(const Value& block, const std::vector<TaskStat>& tasks, U32 skipped, bool completed) {
  KESTO_FUZZ_CHECK((memberNames(block) == std::vector<std::string>{"tasks", "skipped"}));
  KESTO_FUZZ_CHECK(sameU64(block["skipped"], skipped));
  const Value& array = block["tasks"];
  KESTO_FUZZ_CHECK(array.IsArray() && array.Size() == tasks.size());
  std::vector<const TaskStat*> order;
  for (const TaskStat& t : tasks)
    order.push_back(&t);
  std::stable_sort(order.begin(), order.end(), [](const TaskStat* a, const TaskStat* b) {
    if (a->taskTotalRunTime() != b->taskTotalRunTime())
      return a->taskTotalRunTime() > b->taskTotalRunTime();
    return a->taskName() < b->taskName();
  });
  std::vector<bool> used(order.size());
  for (rapidjson::SizeType i = 0; i < array.Size(); ++i) {
    // Equal run time and name: any of those records may stand here.
    bool found = false;
    for (std::size_t j = 0; j < order.size() && !found; ++j) {
      if (used[j] || order[j]->taskTotalRunTime() != order[i]->taskTotalRunTime() ||
          order[j]->taskName().view() != order[i]->taskName().view())
        continue;
      if (taskMatches(array[i], *order[j], completed))
        used[j] = found = true;
    }
    KESTO_FUZZ_CHECK(found);
  }
}

void checkScheduler(const Value& o, const Snapshot& s) {
  std::vector<std::string> names{"schedulerName"};
  if (s.displayOrder != 0xFFFFFFFF)
    names.push_back("displayOrder");
  if (!s.generalError.empty())
    names.push_back("generalError");
  names.push_back("isRootScheduler");
  if (!s.taskNameRegex.empty())
    names.push_back("taskNameRegex");
  if (!s.taskNameRegex.empty() && !s.taskNameRegexError.empty())
    names.push_back("taskNameRegexError");
  for (const char* n : {"priorityStats", "maxSchedulerSlip", "tasks"})
    names.push_back(n);
  if (!s.completedTasks.empty())
    names.push_back("completedTasks");
  names.push_back("subSchedulers");
  if (s.history)
    names.push_back("history");
  KESTO_FUZZ_CHECK(names == memberNames(o));

  KESTO_FUZZ_CHECK(sameString(o["schedulerName"], s.schedulerName.view()));
  if (s.displayOrder != 0xFFFFFFFF)
    KESTO_FUZZ_CHECK(sameU64(o["displayOrder"], s.displayOrder));
  if (!s.generalError.empty())
    KESTO_FUZZ_CHECK(sameString(o["generalError"], s.generalError.view()));
  KESTO_FUZZ_CHECK(o["isRootScheduler"].IsBool() && o["isRootScheduler"] == s.isRootScheduler);
  if (!s.taskNameRegex.empty()) {
    KESTO_FUZZ_CHECK(sameString(o["taskNameRegex"], s.taskNameRegex.view()));
    if (!s.taskNameRegexError.empty())
      KESTO_FUZZ_CHECK(sameString(o["taskNameRegexError"], s.taskNameRegexError.view()));
  }
  const Value& stats = o["priorityStats"];
  KESTO_FUZZ_CHECK((memberNames(stats) ==
                    std::vector<std::string>{"critical", "absolute", "high", "normal", "low", "scavenge"}));
  for (unsigned p = 0; p < 6; ++p) {
    TaskSchedulerPriorityStats want;
    if (auto it = s.priorityStats.find(TaskPriority(p)); it != s.priorityStats.end())
      want = it->second;
    const Value& row = stats[TaskPriority(p).toStrep()];
    KESTO_FUZZ_CHECK((memberNames(row) ==
                      std::vector<std::string>{"runnableTasks", "idleTasks", "completedTasks", "totalRunCount"}));
    KESTO_FUZZ_CHECK(sameU64(row["runnableTasks"], want.runnableTasks));
    KESTO_FUZZ_CHECK(sameU64(row["idleTasks"], want.idleTasks));
    KESTO_FUZZ_CHECK(sameU64(row["completedTasks"], want.completedTasks));
    KESTO_FUZZ_CHECK(sameU64(row["totalRunCount"], want.totalRunCount));
  }
  KESTO_FUZZ_CHECK(sameDouble(o["maxSchedulerSlip"], double(s.maxSchedulerSlip) / 1e9));
  checkBlock(o["tasks"], s.tasks, s.tasksSkipped, false);
  if (!s.completedTasks.empty())
    checkBlock(o["completedTasks"], s.completedTasks, s.completedTasksSkipped, true);
  const Value& subs = o["subSchedulers"];
  KESTO_FUZZ_CHECK(subs.IsObject() && subs.MemberCount() == s.subSchedulers.size());
  std::size_t i = 0;
  for (auto it = subs.MemberBegin(); it != subs.MemberEnd(); ++it, ++i) {
    KESTO_FUZZ_CHECK(sameString(it->name, s.subSchedulers[i].first.view()));
    checkScheduler(it->value, s.subSchedulers[i].second);
  }
  if (s.history) {
    const Value& h = o["history"];
    KESTO_FUZZ_CHECK((memberNames(h) == std::vector<std::string>{"historyEntryCount", "historyEventCount", "history"}));
    KESTO_FUZZ_CHECK(sameU64(h["historyEntryCount"], s.history->historyEntryCount));
    KESTO_FUZZ_CHECK(sameU64(h["historyEventCount"], s.history->historyEventCount));
    const Value& events = h["history"];
    KESTO_FUZZ_CHECK(events.IsArray() && events.Size() == s.history->events.size());
    for (rapidjson::SizeType e = 0; e < events.Size(); ++e) {
      const TaskSchedulerHistory::Event& want = s.history->events[e];
      const bool hasId = !want.eventIdentifier().empty();
      KESTO_FUZZ_CHECK((memberNames(events[e]) ==
                        (hasId ? std::vector<std::string>{"nsSinceBoot", "eventType", "eventId"}
                               : std::vector<std::string>{"nsSinceBoot", "eventType"})));
      KESTO_FUZZ_CHECK(sameU64(events[e]["nsSinceBoot"], U64(want.timestamp.time_since_epoch().count())));
      KESTO_FUZZ_CHECK(sameString(events[e]["eventType"], want.eventTypeDisplay()));
      if (hasId)
        KESTO_FUZZ_CHECK(sameString(events[e]["eventId"], want.eventIdentifier().view()));
    }
  }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  FuzzInput in(data, size);
  bool nonFinite = false;
  Snapshot built = randomSnapshot(in, 0, nonFinite);
  Ptr<TaskSchedulerSnapshot const> snapshot(new Snapshot(std::move(built)));
  const Snapshot& s = static_cast<const Snapshot&>(*snapshot);
  const String text = SnapshotShowJsonIs(snapshot)->renderToStringWithoutYielding();

  rapidjson::Document d;
  // Full precision: the default parse may land one unit in the last place
  // off a long mantissa, which would be the reader's error, not the report's.
  d.Parse<rapidjson::kParseFullPrecisionFlag>(text.data(), text.size());
  if (nonFinite) {
    // The writer refuses the value and leaves its key bare.
    KESTO_FUZZ_CHECK(d.HasParseError());
    return 0;
  }
  KESTO_FUZZ_CHECK(!d.HasParseError());
  KESTO_FUZZ_CHECK(d.IsObject() && memberNames(d) == std::vector<std::string>{"schedulers"});
  const Value& schedulers = d["schedulers"];
  KESTO_FUZZ_CHECK(schedulers.IsObject() && schedulers.MemberCount() == 1);
  const std::string_view key = s.schedulerName.view();
  KESTO_FUZZ_CHECK(sameString(schedulers.MemberBegin()->name, key));
  checkScheduler(schedulers.MemberBegin()->value, s);
  return 0;
}
