// The timeline of a snapshot, read back with rapidjson. A real root and a
// real group run a known sequence of tasks under a clock the test moves, so
// every start and duration is known to the nanosecond; snapshots built by
// hand give the ring's edges and names a live scheduler can't easily make.
#include <Kesto/Platform/Platform.h>
#include <Kesto/Report/SnapshotTimeline.h>
#include <Kesto/Report/TaskSchedulerSnapshot.h>
#include <Kesto/Scheduler/TaskGroup.h>
#include <Kesto/Scheduler/TaskSchedulerRoot.h>

#include <KestoSupport/AssertMessage.h>
#include <KestoSupport/TestScheduler.h>
#include <KestoSupport/TimelineDocument.h>

#include <gtest/gtest.h>

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <functional>
#include <fstream>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

using namespace Kesto;
using namespace KestoTest;

namespace {

using Snapshot = TaskSchedulerSnapshotImpl;
using Event = TaskSchedulerHistory::Event;
using Type = TaskSchedulerEventType;

struct TaskRun {
  std::string name;
  long long start;
  long long dur;
};

Ptr<TaskSchedulerSnapshot const> take(const TaskScheduler& s, bool history = true) {
  return s.snapshot(String(), true, true, history, String(), TaskScheduler::displayOrderNotSpecified);
}

TimelineDocument render(const Ptr<TaskSchedulerSnapshot const>& s, const char* process = "agentX") {
  SnapshotTimelineOptions options;
  options.processName = process;
  options.processId = 4242;
  return parseTimeline(snapshotTimelineToString(s, options));
}

// A task that, at each run, notes its start, moves the clock by `step` and
// schedules itself again until it has run `times` times.
Ptr<TestTask> stepper(ManualClock& clock, const Ptr<TaskScheduler>& s, TaskPriority p, const char* name, long long step,
                      unsigned times, std::vector<TaskRun>& runs) {
  return Ptr<TestTask>(new TestTask(s, p, name, [=, &clock, &runs](TestTask& t) {
    const long long start = ManualClock::now().time_since_epoch().count();
    clock.advance(TaskTimeDuration(step));
    runs.push_back({name, start, step});
    if (t.runs < times)
      t.scheduleTask();
  }));
}

// A hand-made root snapshot with a group "grp" holding "inner", and the
// given events, newest first as the ring holds them.
Ptr<TaskSchedulerSnapshot const> handMade(std::vector<Event> newestFirst, const char* rootName = "handroot") {
  auto* root = new Snapshot();
  root->schedulerName = rootName;
  root->isRootScheduler = true;
  TaskStat outer;
  outer.taskNameIs(String("outer"));
  outer.taskKeyIs(TaskKey(reinterpret_cast<const void*>(0x1000)));
  root->tasks.push_back(outer);
  Snapshot group;
  group.schedulerName = "grp";
  TaskStat inner;
  inner.taskNameIs(String("inner"));
  group.tasks.push_back(inner);
  root->subSchedulers.emplace_back(String("TaskGroup;grp-@0x2000"), std::move(group));
  root->history = Ptr<Snapshot::History>(new Snapshot::History(100, U32(newestFirst.size())));
  root->history->events = std::move(newestFirst);
  return Ptr<TaskSchedulerSnapshot const>(root);
}

// Turns this thread's loop until `done`: not Platform::doEventLoop(), which
// would also wait for whatever other tests of the process left armed on the
// thread's event base. The wall-clock bound only turns a hang into a failure.
bool runUntil(const std::function<bool()>& done) {
  const auto start = std::chrono::steady_clock::now();
  while (!done()) {
    if (std::chrono::steady_clock::now() - start > std::chrono::seconds(60))
      return false;
    Platform::doEventLoopInWaitfor(0.001);
  }
  return true;
}

TaskTimeStamp at(long long ns) { return TaskTimeStamp(TaskTimeDuration(ns)); }

} // namespace

TEST(SnapshotTimeline, EveryRunOfAKnownSequenceAppearsWithItsExactStartAndDurationOnItsTrack) {
  ManualClock clock;
  std::vector<TaskRun> runs;
  Ptr<TaskSchedulerRoot> root = schedulerRootKestoNonShared("tlroot");
  root->historyEntryCountIs(1000);
  Ptr<TaskGroup> group =
      TaskGroup::TaskGroupIs("grp", TaskPriority::normal, TaskGroupPriorityEnforcement::allowAny, root);
  // Steps of odd nanoseconds, so that a time rounded to whole microseconds
  // anywhere would show.
  auto alpha = stepper(clock, root, TaskPriority::normal, "alpha", 3'007, 3, runs);
  auto beta = stepper(clock, root, TaskPriority::high, "beta", 1'500'123, 2, runs);
  auto gamma = stepper(clock, group, TaskPriority::normal, "gamma", 251, 2, runs);
  alpha->scheduleTask();
  beta->scheduleTask();
  gamma->scheduleTask();
  ASSERT_TRUE(runUntil([&] { return runs.size() == 7 && !root->schedulerHasRunnableTasks(); }));
  ASSERT_EQ(runs.size(), 7u);

  const auto snapshot = take(*root);
  const Snapshot& s = static_cast<const Snapshot&>(*snapshot);
  const TimelineDocument t = render(snapshot);
  ASSERT_TRUE(t.parsed) << t.error;
  const long long origin = s.history->events.back().timestamp.time_since_epoch().count();
  EXPECT_EQ(t.other("originNs"), std::to_string(origin));
  EXPECT_EQ(t.processName, "agentX");
  EXPECT_EQ(t.pid, 4242u);
  const unsigned rootTid = t.tid("tlroot");
  const unsigned groupTid = t.tid("grp");
  ASSERT_NE(rootTid, 0u);
  ASSERT_NE(groupTid, 0u);
  EXPECT_NE(rootTid, groupTid);

  const std::vector<TimelineEvent> shown = t.where("X", "run");
  for (const TaskRun& r : runs) {
    const unsigned expectedTid = r.name == "gamma" ? groupTid : rootTid;
    unsigned found = 0;
    for (const TimelineEvent& e : shown)
      if (e.name == r.name && e.ts == micros(r.start - origin) && e.dur == micros(r.dur)) {
        ++found;
        EXPECT_EQ(e.tid, expectedTid) << r.name;
        EXPECT_EQ(e.args.count("clipped"), 0u) << r.name;
      }
    EXPECT_EQ(found, 1u) << r.name << " at " << micros(r.start - origin) << " for " << micros(r.dur);
  }
  // The group's runs lie inside runs of its parent task, which is on the
  // root's track; and nothing else ran.
  const auto parentRuns = t.where("X", "run", "TaskGroup;grp");
  ASSERT_FALSE(parentRuns.empty());
  for (const TimelineEvent& p : parentRuns)
    EXPECT_EQ(p.tid, rootTid);
  for (const TaskRun& r : runs) {
    if (r.name != "gamma")
      continue;
    bool inside = false;
    for (const TimelineEvent& p : parentRuns) {
      const double ps = std::stod(p.ts), pe = ps + std::stod(p.dur), gs = double(r.start - origin) / 1000.0;
      inside = inside || (ps <= gs && gs + double(r.dur) / 1000.0 <= pe + 1e-9);
    }
    EXPECT_TRUE(inside) << "gamma at " << r.start;
  }
  EXPECT_EQ(shown.size(), runs.size() + parentRuns.size());
  EXPECT_EQ(t.other("runs"), std::to_string(shown.size()));
}

TEST(SnapshotTimeline, InstantsCarryTheDisplayTextsOnTheirSchedulersTracks) {
  ManualClock clock;
  std::vector<TaskRun> runs;
  Ptr<TaskSchedulerRoot> root = schedulerRootKestoNonShared("instroot");
  root->historyEntryCountIs(1000);
  Ptr<TaskGroup> group =
      TaskGroup::TaskGroupIs("igrp", TaskPriority::normal, TaskGroupPriorityEnforcement::allowAny, root);
  auto one = stepper(clock, root, TaskPriority::normal, "one", 10, 1, runs);
  auto two = stepper(clock, group, TaskPriority::normal, "two", 10, 1, runs);
  one->scheduleTask();
  two->scheduleTask();
  two->taskSuspendedIs(true);
  two->taskSuspendedIs(false);
  ASSERT_TRUE(runUntil([&] { return runs.size() == 2 && !root->schedulerHasRunnableTasks(); }));

  const auto snapshot = take(*root);
  const TimelineDocument t = render(snapshot);
  ASSERT_TRUE(t.parsed) << t.error;
  const unsigned rootTid = t.tid("instroot"), groupTid = t.tid("igrp");
  auto has = [&](const char* name, const char* cat, const char* argKey, const char* arg, unsigned tid) {
    for (const TimelineEvent& e : t.where("i", cat, name))
      if (e.args.count(argKey) && e.args.at(argKey) == arg && e.tid == tid)
        return true;
    return false;
  };
  EXPECT_TRUE(has("create", "lifecycle", "task", "N one", rootTid));
  EXPECT_TRUE(has("schedule", "schedule", "task", "N one", rootTid));
  EXPECT_TRUE(has("schedule", "schedule", "task", "N two", groupTid));
  EXPECT_TRUE(has("suspendOn", "suspend", "task", "N two", groupTid));
  EXPECT_TRUE(has("suspendOff", "suspend", "task", "N two", groupTid));
  EXPECT_TRUE(has("schedulerHasRunnableTasks", "scheduler", "scheduler", "igrp", groupTid));
  EXPECT_TRUE(has("schedulerHasNoRunnableTasks", "scheduler", "scheduler", "instroot", rootTid));
  for (const TimelineEvent& e : t.events) {
    if (e.ph == "i") {
      EXPECT_EQ(e.args.size(), 1u) << e.name;
    }
  }
  // Every event of the ring is shown once: as an instant, or as a run's
  // start or end.
  std::size_t instants = 0, runs2 = 0;
  for (const TimelineEvent& e : t.events) {
    instants += e.ph == "i";
    runs2 += e.ph == "X" && e.cat == "run";
  }
  EXPECT_EQ(instants + 2 * runs2, static_cast<const Snapshot&>(*snapshot).history->events.size());
  EXPECT_EQ(t.other("instants"), std::to_string(instants));
}

TEST(SnapshotTimeline, EveryEventTypeBecomesAnInstantNamedByItsDisplayText) {
  std::vector<Event> events;
  long long ns = 1'000'000;
  for (unsigned type = 0; type < TaskSchedulerEventType::count; ++type) {
    if (type == Type::runStart || type == Type::runEnd)
      continue;
    const bool scheduler = type >= TaskSchedulerEventType::firstSchedulerEvent;
    events.insert(events.begin(), Event(at(ns += 1000), TaskSchedulerEventType(type),
                                        String(scheduler ? "handroot" : "N outer")));
  }
  const TimelineDocument t = render(handMade(events));
  ASSERT_TRUE(t.parsed) << t.error;
  ASSERT_EQ(t.events.size(), TaskSchedulerEventType::count - 2);
  std::size_t i = 0;
  for (unsigned type = 0; type < TaskSchedulerEventType::count; ++type) {
    if (type == Type::runStart || type == Type::runEnd)
      continue;
    const TimelineEvent& e = t.events[i];
    EXPECT_EQ(e.ph, "i");
    EXPECT_EQ(e.name, TaskSchedulerEventType(type).eventTypeDisplay());
    EXPECT_EQ(e.tid, t.tid("handroot"));
    EXPECT_EQ(e.ts, micros((long long)i * 1000));
    ++i;
  }
}

TEST(SnapshotTimeline, RunCutByTheRingsOldestEventIsMarkedAndStartsThere) {
  // Oldest first: the end of "outer" (its start fell off), a whole run of
  // "outer", and a start of "outer" with no end yet.
  std::vector<Event> events{
      Event(at(9'000), Type::runStart, String("N outer")),
      Event(at(6'500), Type::runEnd, String("N outer")),
      Event(at(5'000), Type::runStart, String("N outer")),
      Event(at(2'000), Type::runEnd, String("N outer")),
      Event(at(1'000), Type::schedule, String("N outer")),
  };
  const TimelineDocument t = render(handMade(events));
  ASSERT_TRUE(t.parsed) << t.error;
  const auto runs = t.where("X", "run", "outer");
  ASSERT_EQ(runs.size(), 3u);
  EXPECT_EQ(runs[0].ts, "0.000");
  EXPECT_EQ(runs[0].dur, "1.000");
  EXPECT_EQ(runs[0].args.at("clipped"), "start");
  EXPECT_EQ(runs[1].ts, "4.000");
  EXPECT_EQ(runs[1].dur, "1.500");
  EXPECT_EQ(runs[1].args.count("clipped"), 0u);
  EXPECT_EQ(runs[2].ts, "8.000");
  EXPECT_EQ(runs[2].dur, "0.000");
  EXPECT_EQ(runs[2].args.at("clipped"), "end");
}

TEST(SnapshotTimeline, RunOfATaskTakingTheSnapshotIsClippedAtTheNewestEvent) {
  ManualClock clock;
  Ptr<TaskSchedulerRoot> root = schedulerRootKestoNonShared("selfroot");
  std::string json;
  auto taker = Ptr<TestTask>(new TestTask(root, TaskPriority::normal, "taker", [&](TestTask&) {
    json = snapshotTimelineToString(take(*root));
  }));
  taker->scheduleTask();
  ASSERT_TRUE(runUntil([&] { return !json.empty(); }));
  const TimelineDocument t = parseTimeline(json);
  ASSERT_TRUE(t.parsed) << t.error;
  const auto runs = t.where("X", "run", "taker");
  ASSERT_EQ(runs.size(), 1u);
  EXPECT_EQ(runs[0].args.at("clipped"), "end");
}

TEST(SnapshotTimeline, TaskUnknownToTheTreeIsPlacedByNestingAndAGoneGroupGetsItsOwnTrack) {
  std::vector<Event> events{
      Event(at(10'000), Type::runEnd, String("N TaskGroup;old")),
      Event(at(9'000), Type::runEnd, String("N lost2")),
      Event(at(8'000), Type::runStart, String("N lost2")),
      Event(at(7'000), Type::runStart, String("N TaskGroup;old")),
      Event(at(6'000), Type::runEnd, String("N TaskGroup;grp")),
      Event(at(5'000), Type::runEnd, String("N lost")),
      Event(at(4'000), Type::runStart, String("N lost")),
      Event(at(3'000), Type::runStart, String("N TaskGroup;grp")),
      Event(at(2'000), Type::runEnd, String("N stray")),
      Event(at(1'000), Type::runStart, String("N stray")),
  };
  const TimelineDocument t = render(handMade(events));
  ASSERT_TRUE(t.parsed) << t.error;
  const unsigned rootTid = t.tid("handroot"), groupTid = t.tid("grp"), goneTid = t.tid("old (gone)");
  ASSERT_NE(goneTid, 0u);
  ASSERT_EQ(t.where("X", "run", "lost").size(), 1u);
  EXPECT_EQ(t.where("X", "run", "lost")[0].tid, groupTid);
  EXPECT_EQ(t.where("X", "run", "lost2")[0].tid, goneTid);
  EXPECT_EQ(t.where("X", "run", "stray")[0].tid, rootTid);
  // Parent tasks unknown to the tree run on the root's track.
  EXPECT_EQ(t.where("X", "run", "TaskGroup;grp")[0].tid, rootTid);
  EXPECT_EQ(t.where("X", "run", "TaskGroup;old")[0].tid, rootTid);
}

TEST(SnapshotTimeline, RunEndingUnderAnotherPriorityLetterIsPairedWithItsStart) {
  std::vector<Event> events{
      Event(at(3'000), Type::runEnd, String("H outer")),
      Event(at(1'000), Type::runStart, String("N outer")),
  };
  const TimelineDocument t = render(handMade(events));
  ASSERT_TRUE(t.parsed) << t.error;
  const auto runs = t.where("X", "run", "outer");
  ASSERT_EQ(runs.size(), 1u);
  EXPECT_EQ(runs[0].dur, "2.000");
  EXPECT_EQ(runs[0].args.count("clipped"), 0u);
}

TEST(SnapshotTimeline, NamesWithQuotesControlBytesAndInvalidUtf8GiveValidJson) {
  using namespace std::string_literals;
  const std::string hostile = "q\"b\\s/\n\t\x01\x00z\xff\xc3(\xe2\x82\xac\xed\xa0\x80"s;
  // What a reader sees: invalid bytes replaced, valid ones (the euro sign)
  // kept, control bytes and NUL back as they were.
  const std::string shown = "q\"b\\s/\n\t\x01\x00z\xEF\xBF\xBD\xEF\xBF\xBD(\xe2\x82\xac"s +
                            "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"s;
  std::vector<Event> events{
      Event(at(3'000), Type::runEnd, String(std::string("N ") + hostile)),
      Event(at(1'000), Type::runStart, String(std::string("N ") + hostile)),
  };
  const TimelineDocument t = render(handMade(events, "root\xfe\"x"), "proc\x02\xc0");
  ASSERT_TRUE(t.parsed) << t.error;
  const auto runs = t.where("X", "run");
  ASSERT_EQ(runs.size(), 1u);
  EXPECT_EQ(runs[0].name, shown);
  EXPECT_EQ(runs[0].args.at("task"), "N " + shown);
  EXPECT_EQ(t.processName, "proc\x02\xEF\xBF\xBD");
  EXPECT_NE(t.tid("root\xEF\xBF\xBD\"x"), 0u);
}

TEST(SnapshotTimeline, StampsAtOppositeEndsOfTheRangeGiveTheirExactDistance) {
  // 2^64 - 1 ns apart: more than an I64 holds, and the difference used to
  // wrap to -1 ns ("-0.001").
  constexpr long long least = std::numeric_limits<long long>::min();
  constexpr long long most = std::numeric_limits<long long>::max();
  std::vector<Event> events{
      Event(at(most), Type::schedule, String("N outer")),
      Event(at(most), Type::runEnd, String("N outer")),
      Event(at(least), Type::runStart, String("N outer")),
  };
  const TimelineDocument t = render(handMade(events));
  ASSERT_TRUE(t.parsed) << t.error;
  EXPECT_EQ(t.other("originNs"), "-9223372036854775808");
  const auto runs = t.where("X", "run", "outer");
  ASSERT_EQ(runs.size(), 1u);
  EXPECT_EQ(runs[0].ts, "0.000");
  EXPECT_EQ(runs[0].dur, "18446744073709551.615");
  const auto ticks = t.where("i", "schedule");
  ASSERT_EQ(ticks.size(), 1u);
  EXPECT_EQ(ticks[0].ts, "18446744073709551.615");
}

TEST(SnapshotTimeline, RingStampedByAClockSetBackCountsFromItsLeastStamp) {
  // Oldest first: a schedule at 5 us, then the clock set back 3 us for a
  // whole run. Counting from the oldest event put the run at -3 us.
  std::vector<Event> events{
      Event(at(3'000), Type::runEnd, String("N outer")),
      Event(at(2'000), Type::runStart, String("N outer")),
      Event(at(5'000), Type::schedule, String("N outer")),
  };
  const TimelineDocument t = render(handMade(events));
  ASSERT_TRUE(t.parsed) << t.error;
  EXPECT_EQ(t.other("originNs"), "2000");
  const auto runs = t.where("X", "run", "outer");
  ASSERT_EQ(runs.size(), 1u);
  EXPECT_EQ(runs[0].ts, "0.000");
  EXPECT_EQ(runs[0].dur, "1.000");
  const auto ticks = t.where("i", "schedule");
  ASSERT_EQ(ticks.size(), 1u);
  EXPECT_EQ(ticks[0].ts, "3.000");
}

TEST(SnapshotTimeline, EmptyHistoryGivesAValidDocumentWithOnlyMetadata) {
  ManualClock clock;
  Ptr<TaskSchedulerRoot> root = schedulerRootKestoNonShared("emptyroot");
  Ptr<TaskGroup> group =
      TaskGroup::TaskGroupIs("egrp", TaskPriority::normal, TaskGroupPriorityEnforcement::allowAny, root);
  root->clearHistory();
  const TimelineDocument t = render(take(*root));
  ASSERT_TRUE(t.parsed) << t.error;
  EXPECT_TRUE(t.events.empty());
  // The process, and a name and an order for each of the two tracks.
  EXPECT_EQ(t.metadataCount, 5u);
  EXPECT_EQ(t.tracks.size(), 2u);
  EXPECT_EQ(t.other("history"), "true");
  EXPECT_EQ(t.other("originNs"), "0");

  const TimelineDocument without = render(take(*root, false));
  ASSERT_TRUE(without.parsed) << without.error;
  EXPECT_TRUE(without.events.empty());
  EXPECT_EQ(without.other("history"), "false");
}

TEST(SnapshotTimeline, FailedSnapshotGivesAValidDocumentCarryingItsError) {
  // What snapshot() returns when the copy failed: no name, no history.
  auto* failed = new Snapshot();
  failed->generalError = "std::bad_alloc";
  const std::string json = snapshotTimelineToString(Ptr<TaskSchedulerSnapshot const>(failed));
  const TimelineDocument t = parseTimeline(json);
  ASSERT_TRUE(t.parsed) << t.error << json;
  EXPECT_TRUE(t.events.empty());
  EXPECT_EQ(t.processName, "");
  EXPECT_EQ(t.tracks.size(), 1u);
  EXPECT_EQ(t.other("generalError"), "std::bad_alloc");
  EXPECT_EQ(t.other("history"), "false");
}

TEST(SnapshotTimeline, NullSnapshotIsAProgrammingError) {
  const std::string text = assertText([] { snapshotTimelineToString(Ptr<TaskSchedulerSnapshot const>()); });
  EXPECT_NE(text.find("no snapshot to draw a timeline of"), std::string::npos) << text;
}

TEST(SnapshotTimeline, EmptyPathIsARunTimeErrorAndWritesNothing) {
  Ptr<TaskSchedulerRoot> root = schedulerRootKestoNonShared("emptypathroot");
  try {
    snapshotTimelineToFile(take(*root), String(""));
    ADD_FAILURE() << "no exception";
  } catch (const RuntimeException& e) {
    EXPECT_NE(std::string(e.what()).find("timeline : No such file or directory"), std::string::npos) << e.what();
  }
}

TEST(SnapshotTimeline, ToFileWritesTheSameDocumentAndAFailureNamesThePath) {
  ManualClock clock;
  Ptr<TaskSchedulerRoot> root = schedulerRootKestoNonShared("fileroot");
  std::vector<TaskRun> runs;
  auto task = stepper(clock, root, TaskPriority::normal, "written", 77, 2, runs);
  task->scheduleTask();
  ASSERT_TRUE(runUntil([&] { return runs.size() == 2; }));
  const auto snapshot = take(*root);
  char path[] = "/tmp/kesto-timeline-XXXXXX";
  const int fd = ::mkstemp(path);
  ASSERT_GE(fd, 0);
  ::close(fd);
  snapshotTimelineToFile(snapshot, String(path));
  std::ifstream in(path);
  std::stringstream content;
  content << in.rdbuf();
  ::unlink(path);
  EXPECT_EQ(content.str(), snapshotTimelineToString(snapshot));
  EXPECT_EQ(parseTimeline(content.str()).where("X", "run", "written").size(), 2u);

  try {
    snapshotTimelineToFile(snapshot, String("/nonexistent-kesto-dir/t.json"));
    ADD_FAILURE() << "no exception";
  } catch (const RuntimeException& e) {
    EXPECT_NE(std::string(e.what()).find("/nonexistent-kesto-dir/t.json: No such file or directory"),
              std::string::npos)
        << e.what();
  }
}
