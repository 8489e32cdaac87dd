// The JSON report: a golden document of the fixed tree, every document
// parsed back with rapidjson and checked member by member (names, types,
// presence rules, order of members), and names that need escaping.
#include "ReportFixtures.h"

#include <Kesto/Report/SnapshotShowJson.h>
#include <Kesto/Scheduler/TaskSchedulerRoot.h>

#include <rapidjson/document.h>
#include <rapidjson/error/en.h>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <string>
#include <vector>

using namespace Kesto;
using namespace ReportTest;

namespace {

using Value = rapidjson::Value;

rapidjson::Document parse(const std::string& text) {
  rapidjson::Document d;
  d.Parse(text.c_str(), text.size());
  EXPECT_FALSE(d.HasParseError()) << rapidjson::GetParseError_En(d.GetParseError()) << " at "
                                  << d.GetErrorOffset() << " in " << text;
  return d;
}

std::vector<std::string> memberNames(const Value& object) {
  std::vector<std::string> out;
  for (auto it = object.MemberBegin(); it != object.MemberEnd(); ++it)
    out.emplace_back(it->name.GetString(), it->name.GetStringLength());
  return out;
}

const Value& member(const Value& object, const char* name) {
  EXPECT_TRUE(object.IsObject());
  auto it = object.FindMember(name);
  EXPECT_NE(it, object.MemberEnd()) << "no member " << name;
  return it->value;
}

std::string str(const Value& v) {
  EXPECT_TRUE(v.IsString());
  return std::string(v.GetString(), v.GetStringLength());
}

void expectPriorityStats(const Value& stats, const Snapshot& s) {
  EXPECT_EQ((std::vector<std::string>{"critical", "absolute", "high", "normal", "low", "scavenge"}), memberNames(stats));
  for (unsigned p = 0; p < 6; ++p) {
    const Value& row = member(stats, TaskPriority(p).toStrep());
    EXPECT_EQ((std::vector<std::string>{"runnableTasks", "idleTasks", "completedTasks", "totalRunCount"}),
              memberNames(row));
    TaskSchedulerPriorityStats want;
    if (auto it = s.priorityStats.find(TaskPriority(p)); it != s.priorityStats.end())
      want = it->second;
    EXPECT_TRUE(member(row, "runnableTasks").IsUint());
    EXPECT_EQ(want.runnableTasks, member(row, "runnableTasks").GetUint());
    EXPECT_EQ(want.idleTasks, member(row, "idleTasks").GetUint());
    EXPECT_EQ(want.completedTasks, member(row, "completedTasks").GetUint64());
    EXPECT_EQ(want.totalRunCount, member(row, "totalRunCount").GetUint64());
  }
}

// Every member of a task object against its record.
void expectTask(const Value& t, const TaskStat& s, bool completed) {
  std::vector<std::string> names{"name"};
  if (!completed)
    names.push_back("address");
  names.push_back("priority");
  if (s.taskStatus().taskIsTaskGroup())
    names.push_back("subScheduler");
  for (const char* n : {"onRunQueue", "currentlyRunning", "suspended", "schedulerSuspended", "hasTimer",
                        "timerRunning", "runCount", "totalRunTime", "firstTaskRunTimestamp", "lastTaskRunTimestamp",
                        "lastSchedulingLatency", "schedulingLatencyHighWaterMark", "qv200", "qv500", "maxMs"})
    names.push_back(n);
  if (completed)
    names.push_back("completedCount");
  if (s.taskWorkCountHighWaterMark() != TaskStat::noValue)
    names.push_back("workCount");
  if (s.taskWorkPendingHighWaterMark() != TaskStat::noValue)
    names.push_back("workPending");
  EXPECT_EQ(names, memberNames(t));

  EXPECT_EQ(s.taskName().str(), str(member(t, "name")));
  if (!completed) {
    EXPECT_EQ(fmt::format("@{}", DisplayPointer(s.taskKey().object())), str(member(t, "address")));
  }
  EXPECT_EQ(s.taskPriority().toStrep(), str(member(t, "priority")));
  if (s.taskStatus().taskIsTaskGroup()) {
    EXPECT_EQ(subSchedulerKey(s).str(), str(member(t, "subScheduler")));
  }
  const TaskStat::TaskStatus st = s.taskStatus();
  EXPECT_EQ(st.taskOnRunQueue(), member(t, "onRunQueue").GetBool());
  EXPECT_EQ(st.taskCurrentlyRunning(), member(t, "currentlyRunning").GetBool());
  EXPECT_EQ(st.taskSuspended(), member(t, "suspended").GetBool());
  EXPECT_EQ(st.schedulerSuspended(), member(t, "schedulerSuspended").GetBool());
  EXPECT_EQ(st.taskTimer(), member(t, "hasTimer").GetBool());
  EXPECT_EQ(st.taskTimerRunning(), member(t, "timerRunning").GetBool());
  EXPECT_TRUE(member(t, "runCount").IsUint64());
  EXPECT_EQ(s.taskRunCount(), member(t, "runCount").GetUint64());
  EXPECT_TRUE(member(t, "totalRunTime").IsDouble());
  EXPECT_EQ(double(s.taskTotalRunTime().count()) / 1e9, member(t, "totalRunTime").GetDouble());
  EXPECT_EQ(U64(s.firstTaskRunTimestamp().time_since_epoch().count()), member(t, "firstTaskRunTimestamp").GetUint64());
  EXPECT_EQ(U64(s.lastTaskRunTimestamp().time_since_epoch().count()), member(t, "lastTaskRunTimestamp").GetUint64());
  EXPECT_TRUE(member(t, "lastSchedulingLatency").IsDouble());
  EXPECT_EQ(s.taskLastSchedulingLatency().count() / 1000.0, member(t, "lastSchedulingLatency").GetDouble());
  EXPECT_EQ(s.taskSchedulingLatencyHighWaterMark().count() / 1000.0,
            member(t, "schedulingLatencyHighWaterMark").GetDouble());
  EXPECT_EQ(s.taskQuantumViolation200(), member(t, "qv200").GetUint());
  EXPECT_EQ(s.taskQuantumViolation500(), member(t, "qv500").GetUint());
  EXPECT_TRUE(member(t, "maxMs").IsUint64());
  EXPECT_EQ(U64(s.taskRunTimeHighWaterMark().count() / 1000.0 * 1000.0 + 0.5), member(t, "maxMs").GetUint64());
  if (completed) {
    EXPECT_EQ(s.taskCompletedCount(), member(t, "completedCount").GetUint());
  }
  if (s.taskWorkCountHighWaterMark() != TaskStat::noValue) {
    const Value& w = member(t, "workCount");
    EXPECT_EQ((std::vector<std::string>{"total", "decayingAvg", "highwater"}), memberNames(w));
    EXPECT_EQ(s.taskWorkCountTotal(), member(w, "total").GetUint64());
    EXPECT_TRUE(member(w, "decayingAvg").IsDouble());
    EXPECT_EQ(double(s.taskWorkCountDecayAvg()), member(w, "decayingAvg").GetDouble());
    EXPECT_EQ(s.taskWorkCountHighWaterMark(), member(w, "highwater").GetUint());
  }
  if (s.taskWorkPendingHighWaterMark() != TaskStat::noValue) {
    const Value& w = member(t, "workPending");
    EXPECT_EQ((std::vector<std::string>{"pending", "highwater"}), memberNames(w));
    EXPECT_EQ(s.taskWorkPending(), member(w, "pending").GetUint());
    EXPECT_EQ(s.taskWorkPendingHighWaterMark(), member(w, "highwater").GetUint());
  }
}

std::vector<const TaskStat*> sortedLikeTheReport(const std::vector<TaskStat>& v) {
  std::vector<const TaskStat*> out;
  for (const TaskStat& t : v)
    out.push_back(&t);
  std::sort(out.begin(), out.end(), [](const TaskStat* a, const TaskStat* b) {
    if (a->taskTotalRunTime() != b->taskTotalRunTime())
      return a->taskTotalRunTime() > b->taskTotalRunTime();
    return a->taskName() < b->taskName();
  });
  return out;
}

void expectBlock(const Value& block, const std::vector<TaskStat>& tasks, U32 skipped, bool completed) {
  EXPECT_EQ((std::vector<std::string>{"tasks", "skipped"}), memberNames(block));
  const Value& arr = member(block, "tasks");
  ASSERT_TRUE(arr.IsArray());
  const std::vector<const TaskStat*> order = sortedLikeTheReport(tasks);
  ASSERT_EQ(order.size(), arr.Size());
  for (rapidjson::SizeType i = 0; i < arr.Size(); ++i)
    expectTask(arr[i], *order[i], completed);
  EXPECT_EQ(skipped, member(block, "skipped").GetUint());
}

// A whole scheduler object against its snapshot, nested ones included.
void expectScheduler(const Value& o, const Snapshot& s) {
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
  EXPECT_EQ(names, memberNames(o));

  EXPECT_EQ(s.schedulerName.str(), str(member(o, "schedulerName")));
  if (s.displayOrder != 0xFFFFFFFF) {
    EXPECT_EQ(s.displayOrder, member(o, "displayOrder").GetUint());
  }
  EXPECT_EQ(s.isRootScheduler, member(o, "isRootScheduler").GetBool());
  expectPriorityStats(member(o, "priorityStats"), s);
  EXPECT_TRUE(member(o, "maxSchedulerSlip").IsDouble());
  EXPECT_EQ(double(s.maxSchedulerSlip) / 1e9, member(o, "maxSchedulerSlip").GetDouble());
  expectBlock(member(o, "tasks"), s.tasks, s.tasksSkipped, false);
  if (!s.completedTasks.empty())
    expectBlock(member(o, "completedTasks"), s.completedTasks, s.completedTasksSkipped, true);
  const Value& subs = member(o, "subSchedulers");
  ASSERT_TRUE(subs.IsObject());
  ASSERT_EQ(s.subSchedulers.size(), subs.MemberCount());
  rapidjson::SizeType i = 0;
  for (auto it = subs.MemberBegin(); it != subs.MemberEnd(); ++it, ++i) {
    EXPECT_EQ(s.subSchedulers[i].first.str(), std::string(it->name.GetString()));
    expectScheduler(it->value, s.subSchedulers[i].second);
  }
  if (s.history) {
    const Value& h = member(o, "history");
    EXPECT_EQ((std::vector<std::string>{"historyEntryCount", "historyEventCount", "history"}), memberNames(h));
    EXPECT_EQ(s.history->historyEntryCount, member(h, "historyEntryCount").GetUint());
    EXPECT_EQ(s.history->historyEventCount, member(h, "historyEventCount").GetUint());
    const Value& events = member(h, "history");
    ASSERT_EQ(s.history->events.size(), events.Size());
    for (rapidjson::SizeType e = 0; e < events.Size(); ++e) {
      const TaskSchedulerHistory::Event& want = s.history->events[e];
      const bool hasId = !want.eventIdentifier().empty();
      EXPECT_EQ(hasId ? (std::vector<std::string>{"nsSinceBoot", "eventType", "eventId"})
                      : (std::vector<std::string>{"nsSinceBoot", "eventType"}),
                memberNames(events[e]));
      EXPECT_EQ(U64(want.timestamp.time_since_epoch().count()), member(events[e], "nsSinceBoot").GetUint64());
      EXPECT_EQ(std::string(want.eventTypeDisplay()), str(member(events[e], "eventType")));
      if (hasId) {
        EXPECT_EQ(want.eventIdentifier().str(), str(member(events[e], "eventId")));
      }
    }
  }
}

// The document of one top-level snapshot, checked whole.
void expectDocument(const std::string& text, const Snapshot& s) {
  const rapidjson::Document d = parse(text);
  ASSERT_TRUE(d.IsObject());
  EXPECT_EQ((std::vector<std::string>{"schedulers"}), memberNames(d));
  const Value& schedulers = member(d, "schedulers");
  ASSERT_EQ(1u, schedulers.MemberCount());
  EXPECT_EQ(s.schedulerName.str(), std::string(schedulers.MemberBegin()->name.GetString()));
  expectScheduler(schedulers.MemberBegin()->value, s);
}

} // namespace

TEST(SnapshotShowJsonGolden, TreeDocument) {
  const std::string actual = renderJson(share(goldenTree()));
  const std::string expected = readFile(goldenPath("tree.json"));
  if (actual != expected) {
    std::ofstream("actual-tree.json", std::ios::binary) << actual;
    ADD_FAILURE() << "document differs from golden/tree.json; actual written to actual-tree.json";
  }
}

TEST(SnapshotShowJson, TreeParsesBackMemberByMember) {
  const SnapshotPtr s = share(goldenTree());
  expectDocument(renderJson(s), impl(s));
}

TEST(SnapshotShowJson, EmptyIdleSchedulerIsOneLineWithEmptyTasksAndSubSchedulers) {
  Ptr<TaskSchedulerRoot> root = TaskSchedulerRoot::TaskSchedulerRootIs("idle");
  const std::string text = root->statsRenderJsonToString(false, true, false, String()).str();
  EXPECT_EQ(std::string::npos, text.find('\n'));
  EXPECT_NE(std::string::npos, text.find("\"tasks\":{\"tasks\":[],\"skipped\":0}"));
  EXPECT_NE(std::string::npos, text.find("\"subSchedulers\":{}"));
  EXPECT_EQ(std::string::npos, text.find("\"completedTasks\":{"));
  EXPECT_EQ(std::string::npos, text.find("\"history\""));
  EXPECT_EQ(0u, text.find("{\"schedulers\":{\"idle\":{\"schedulerName\":\"idle\",\"isRootScheduler\":true,"));
  const SnapshotPtr again = root->snapshot(String(), false, true, false, String(), TaskScheduler::displayOrderNotSpecified);
  expectDocument(text, impl(again));
}

TEST(SnapshotShowJson, CompletedTasksHaveNoAddressButCompletedCount) {
  const rapidjson::Document d = parse(renderJson(share(goldenTree())));
  const Value& agent = member(member(d, "schedulers"), "agent");
  for (const Value& t : member(member(agent, "completedTasks"), "tasks").GetArray()) {
    EXPECT_FALSE(t.HasMember("address"));
    EXPECT_TRUE(t.HasMember("completedCount"));
  }
  for (const Value& t : member(member(agent, "tasks"), "tasks").GetArray()) {
    EXPECT_TRUE(t.HasMember("address"));
    EXPECT_FALSE(t.HasMember("completedCount"));
  }
}

TEST(SnapshotShowJson, GroupLineNamesItsMemberOfSubSchedulersAndFilteredLineLeavesMember) {
  const rapidjson::Document d = parse(renderJson(share(goldenTree())));
  const Value& agent = member(member(d, "schedulers"), "agent");
  std::vector<std::string> keys;
  for (const Value& t : member(member(agent, "tasks"), "tasks").GetArray())
    if (t.HasMember("subScheduler"))
      keys.push_back(str(member(t, "subScheduler")));
  ASSERT_EQ(1u, keys.size());
  EXPECT_TRUE(member(agent, "subSchedulers").HasMember(keys[0].c_str()));

  // The filter took groupA's line away; its member stays.
  Snapshot filtered = goldenTree();
  filtered.taskNameRegex = "poller";
  filtered.tasks.erase(filtered.tasks.begin() + 1, filtered.tasks.end());
  const SnapshotPtr s = share(std::move(filtered));
  const std::string text = renderJson(s);
  expectDocument(text, impl(s));
  const rapidjson::Document f = parse(text);
  const Value& fa = member(member(f, "schedulers"), "agent");
  EXPECT_EQ(1u, member(member(fa, "tasks"), "tasks").Size());
  EXPECT_TRUE(member(fa, "subSchedulers").HasMember("groupA-@0x000000000000a000"));
}

TEST(SnapshotShowJson, StatsRenderJsonToStringIsCompleteAndHasNoDisplayOrder) {
  Ptr<TaskSchedulerRoot> root = TaskSchedulerRoot::TaskSchedulerRootIs("whole");
  const std::string text = root->statsRenderJsonToString(true, true, true, String()).str();
  const rapidjson::Document d = parse(text);
  EXPECT_TRUE(d.IsObject());
  EXPECT_EQ(std::string::npos, text.find("displayOrder"));
  EXPECT_TRUE(member(member(member(d, "schedulers"), "whole"), "history").IsObject());
}

TEST(SnapshotShowJson, DisplayOrderIsWrittenWhenSet) {
  Snapshot s = goldenTree();
  s.displayOrder = 7;
  const SnapshotPtr p = share(std::move(s));
  const std::string text = renderJson(p);
  expectDocument(text, impl(p));
  EXPECT_NE(std::string::npos, text.find("\"schedulerName\":\"agent\",\"displayOrder\":7,\"isRootScheduler\""));
}

TEST(SnapshotShowJson, NameWithQuoteOrNewlineComesOutEscaped) {
  Snapshot s;
  s.schedulerName = "sched\"uler";
  s.displayOrder = 0xFFFFFFFF;
  s.tasks.push_back(stat({"a\"b\nc", TaskPriority::normal, 1, 0, 0x10}));
  const std::string text = renderJson(share(std::move(s)));
  EXPECT_NE(std::string::npos, text.find("\"name\":\"a\\\"b\\nc\""));
  EXPECT_NE(std::string::npos, text.find("{\"schedulers\":{\"sched\\\"uler\":{"));
}

TEST(SnapshotShowJson, QuotesBackslashesControlAndNonAsciiBytesRoundTrip) {
  const std::vector<std::string> names{"quote\"d", "back\\slash", "tab\there", "bell\x07", "esc\x1b[0m",
                                       "caf\xc3\xa9", "raw\xff\xfe", "slash/kept", std::string("\x01\x1f", 2)};
  Snapshot s;
  s.schedulerName = "root \"x\"";
  s.displayOrder = 0xFFFFFFFF;
  std::uintptr_t key = 0x100;
  for (const std::string& n : names)
    s.tasks.push_back(stat({n.c_str(), TaskPriority::normal, 1, 0, key += 8}));
  const SnapshotPtr p = share(std::move(s));
  const std::string text = renderJson(p);
  EXPECT_NE(std::string::npos, text.find("slash/kept")); // "/" is not escaped
  EXPECT_NE(std::string::npos, text.find("raw\xff\xfe")); // high bytes pass through
  EXPECT_NE(std::string::npos, text.find("\\u0001\\u001F"));
  rapidjson::Document d;
  // Parsed without validation of UTF-8, as the writer wrote it.
  d.Parse<rapidjson::kParseDefaultFlags>(text.c_str(), text.size());
  ASSERT_FALSE(d.HasParseError());
  const Value& arr = member(member(member(member(d, "schedulers"), "root \"x\""), "tasks"), "tasks");
  std::vector<std::string> back;
  for (const Value& t : arr.GetArray())
    back.push_back(str(member(t, "name")));
  std::vector<std::string> want = names;
  std::sort(want.begin(), want.end());
  EXPECT_EQ(want, back);
}

TEST(SnapshotShowJson, InvalidFilterObjectHoldsErrorAndEmptyTasks) {
  Snapshot s;
  s.schedulerName = "bad";
  s.displayOrder = 0xFFFFFFFF;
  s.isRootScheduler = true;
  s.taskNameRegex = "(";
  s.taskNameRegexError = "mismatched ( and )";
  const SnapshotPtr p = share(std::move(s));
  const std::string text = renderJson(p);
  expectDocument(text, impl(p));
  const rapidjson::Document d = parse(text);
  const Value& o = member(member(d, "schedulers"), "bad");
  EXPECT_EQ((std::vector<std::string>{"schedulerName", "isRootScheduler", "taskNameRegex", "taskNameRegexError",
                                      "priorityStats", "maxSchedulerSlip", "tasks", "subSchedulers"}),
            memberNames(o));
  EXPECT_EQ("mismatched ( and )", str(member(o, "taskNameRegexError")));
}

TEST(SnapshotShowJson, GeneralErrorSnapshotHasEmptyKeyAndZeroOrder) {
  Snapshot s; // what snapshot() makes of a failed copy
  s.generalError = "std::bad_alloc";
  const SnapshotPtr p = share(std::move(s));
  const std::string text = renderJson(p);
  expectDocument(text, impl(p));
  EXPECT_EQ(0u, text.find("{\"schedulers\":{\"\":{\"schedulerName\":\"\",\"displayOrder\":0,"
                          "\"generalError\":\"std::bad_alloc\",\"isRootScheduler\":false,"));
}

TEST(SnapshotShowJson, DurationsUseShortestFormWithOneDecimal) {
  Snapshot s;
  s.schedulerName = "d";
  s.displayOrder = 0xFFFFFFFF;
  s.maxSchedulerSlip = 0;
  TaskStat t = stat({"t", TaskPriority::normal, 1, 1, 0x10}); // 1 ns
  t.taskRunTimeHighWaterMarkIs(TaskDurationMs(1001));
  s.tasks.push_back(t);
  const std::string text = renderJson(share(std::move(s)));
  EXPECT_NE(std::string::npos, text.find("\"maxSchedulerSlip\":0.0,"));
  EXPECT_NE(std::string::npos, text.find("\"totalRunTime\":1e-9,"));
  EXPECT_NE(std::string::npos, text.find("\"lastSchedulingLatency\":0.0,"));
  // Rounded here where the text report truncates 1000.9999999999999 to 1000.
  EXPECT_NE(std::string::npos, text.find("\"maxMs\":1001}"));
}
