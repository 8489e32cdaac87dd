// Snapshots of a root scheduler: what is copied, what the filter and the
// no-run rule leave out and count, the history copy with and without a
// filter, the failures that must not escape, and that a snapshot outlives
// its scheduler unchanged.
#include <Kesto/Core/Exception.h>
#include <Kesto/Debug/Trace.h>
#include <Kesto/Platform/Platform.h>
#include <Kesto/Report/TaskNameRegex.h>
#include <Kesto/Report/TaskSchedulerSnapshot.h>
#include <Kesto/Scheduler/TaskSchedulerRoot.h>

#include <KestoSupport/AssertMessage.h>
#include <KestoSupport/MallocCounter.h>
#include <KestoSupport/TestScheduler.h>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

using namespace Kesto;
using namespace KestoTest;

namespace {

using Snapshot = TaskSchedulerSnapshotImpl;

const Snapshot& impl(const Ptr<TaskSchedulerSnapshot const>& s) {
  return dynamic_cast<const Snapshot&>(*s);
}

Ptr<TaskSchedulerSnapshot const> take(const TaskScheduler& s, const String& regex = String(),
                                      bool includeNoRunTasks = false, bool includeHistory = true) {
  return s.snapshot(String(), includeNoRunTasks, true, includeHistory, regex,
                    TaskScheduler::displayOrderNotSpecified);
}

Ptr<TestTask> taskOn(const Ptr<TaskSchedulerRoot>& root, const String& name,
                     TaskPriority p = TaskPriority::normal) {
  return Ptr<TestTask>(new TestTask(root, p, name));
}

// Runs each task once through the event loop.
void runOnce(std::initializer_list<TestTask*> tasks) {
  for (TestTask* t : tasks)
    t->scheduleTask();
  Platform::doEventLoop();
}

std::vector<std::string> names(const std::vector<TaskStat>& stats) {
  std::vector<std::string> out;
  for (const TaskStat& s : stats)
    out.emplace_back(s.taskName().view());
  return out;
}

// A scheduler that hangs under a root but is not a task group: something a
// report cannot place.
class LooseScheduler : public TaskScheduler {
public:
  explicit LooseScheduler(TaskSchedulerRoot* root) : TaskScheduler("loose", root, root->taskSchedulerHistory()) {}
  void suspendedIs(bool) override {}
  void requestSchedulerRun() override {}
  void handleTaskForceYieldInTest() override {}
  void handleVirtualTimeChange() override {}
  void timerRunningInc(const TaskTimeStamp& now) override { doTimerRunningInc(now); }
  void timerRunningDec(const TaskTimeStamp& now) override { doTimerRunningDec(now); }
  TaskScheduler* rootScheduler() const override { return taskSchedulerRoot_; }
};

} // namespace

TEST(TaskSchedulerSnapshot, SchedulerWithNoTasksGivesEmptyVectorsAndSixZeroRows) {
  Ptr<TaskSchedulerRoot> root = TaskSchedulerRoot::TaskSchedulerRootIs("empty");
  const Ptr<TaskSchedulerSnapshot const> sKept = take(*root);
  const Snapshot& s = impl(sKept);
  EXPECT_EQ(s.schedulerName, "empty");
  EXPECT_TRUE(s.isRootScheduler);
  EXPECT_TRUE(s.tasks.empty());
  EXPECT_TRUE(s.completedTasks.empty());
  EXPECT_TRUE(s.subSchedulers.empty());
  EXPECT_EQ(s.tasksSkipped, 0u);
  EXPECT_EQ(s.completedTasksSkipped, 0u);
  EXPECT_EQ(s.generalError, "");
  EXPECT_EQ(s.taskNameRegex, "");
  EXPECT_EQ(s.taskNameRegexError, "");
  EXPECT_TRUE(s.parentTask.isNull());
  EXPECT_EQ(s.displayOrder, TaskScheduler::displayOrderNotSpecified);
  ASSERT_EQ(s.priorityStats.size(), 6u);
  unsigned p = 0;
  for (const auto& [priority, row] : s.priorityStats) {
    EXPECT_EQ(priority, TaskPriority(p++));
    TaskSchedulerPriorityStats zero;
    zero.priority = priority;
    EXPECT_EQ(row, zero);
  }
  EXPECT_TRUE(pthread_equal(s.snapshotThread, pthread_self()));
}

TEST(TaskSchedulerSnapshot, NameAndDisplayOrderAreTheCallers) {
  Ptr<TaskSchedulerRoot> root = TaskSchedulerRoot::TaskSchedulerRootIs("own");
  const Ptr<TaskSchedulerSnapshot const> titled = root->snapshot("Title", false, false, false, "", 7);
  EXPECT_EQ(impl(titled).schedulerName, "Title");
  EXPECT_EQ(impl(titled).displayOrder, 7u);
  root->threadSanityDisabledIs(true);
  EXPECT_TRUE(impl(take(*root)).threadSanityDisabled);
  root->threadSanityDisabledIs(false);
  EXPECT_FALSE(impl(take(*root)).threadSanityDisabled);
}

TEST(TaskSchedulerSnapshot, TasksAreCopiedInTaskListOrderWithTheirFigures) {
  Ptr<TaskSchedulerRoot> root = TaskSchedulerRoot::TaskSchedulerRootIs("order");
  Ptr<TestTask> a = taskOn(root, "a", TaskPriority::high);
  Ptr<TestTask> b = taskOn(root, "b");
  Ptr<TestTask> c = taskOn(root, "c", TaskPriority::low);
  runOnce({a.get(), b.get(), c.get()});
  runOnce({b.get()});
  const Ptr<TaskSchedulerSnapshot const> sKept = take(*root);
  const Snapshot& s = impl(sKept);
  // Newest first, as the scheduler lists them.
  EXPECT_EQ(names(s.tasks), (std::vector<std::string>{"c", "b", "a"}));
  EXPECT_EQ(s.tasks[1].taskRunCount(), 2u);
  EXPECT_EQ(s.tasks[1].taskKey(), TaskKey(b.get()));
  EXPECT_EQ(s.tasks[0].taskPriority(), TaskPriority(TaskPriority::low));
  EXPECT_EQ(s.priorityStats.at(TaskPriority::normal).totalRunCount, 2u);
  EXPECT_EQ(s.priorityStats.at(TaskPriority::high).idleTasks, 1u);
  EXPECT_EQ(s.tasks.capacity(), s.tasks.size());
}

TEST(TaskSchedulerSnapshot, TaskWithoutRunsIsSkippedAndCountedEvenWhereTheFilterWouldDropIt) {
  Ptr<TaskSchedulerRoot> root = TaskSchedulerRoot::TaskSchedulerRootIs("noRuns");
  Ptr<TestTask> ran = taskOn(root, "keep");
  Ptr<TestTask> idleKept = taskOn(root, "keepIdle");
  Ptr<TestTask> idleDropped = taskOn(root, "other");
  runOnce({ran.get()});
  const Ptr<TaskSchedulerSnapshot const> unfilteredKept = take(*root);
  const Snapshot& unfiltered = impl(unfilteredKept);
  EXPECT_EQ(names(unfiltered.tasks), std::vector<std::string>{"keep"});
  EXPECT_EQ(unfiltered.tasksSkipped, 2u);
  const Ptr<TaskSchedulerSnapshot const> filteredKept = take(*root, "keep.*");
  const Snapshot& filtered = impl(filteredKept);
  EXPECT_EQ(names(filtered.tasks), std::vector<std::string>{"keep"});
  // "other" would not have matched, and still counts as skipped.
  EXPECT_EQ(filtered.tasksSkipped, 2u);
  const Ptr<TaskSchedulerSnapshot const> allKept = take(*root, "keep.*", true);
  const Snapshot& all = impl(allKept);
  EXPECT_EQ(names(all.tasks), (std::vector<std::string>{"keepIdle", "keep"}));
  EXPECT_EQ(all.tasksSkipped, 0u);
}

TEST(TaskSchedulerSnapshot, FilterThatMatchesNothingLeavesQueueFiguresWhole) {
  Ptr<TaskSchedulerRoot> root = TaskSchedulerRoot::TaskSchedulerRootIs("nothing");
  Ptr<TestTask> a = taskOn(root, "a");
  Ptr<TestTask> idle = taskOn(root, "idle");
  runOnce({a.get()});
  const Ptr<TaskSchedulerSnapshot const> sKept = take(*root, "zzz");
  const Snapshot& s = impl(sKept);
  EXPECT_EQ(s.taskNameRegex, "zzz");
  EXPECT_EQ(s.taskNameRegexError, "");
  EXPECT_TRUE(s.tasks.empty());
  EXPECT_EQ(s.tasksSkipped, 1u);
  EXPECT_EQ(s.priorityStats, root->queueStats());
  EXPECT_EQ(s.priorityStats.at(TaskPriority::normal).totalRunCount, 1u);
}

TEST(TaskSchedulerSnapshot, InvalidFilterGivesAnEmptySnapshotWithTheEngineText) {
  Ptr<TaskSchedulerRoot> root = TaskSchedulerRoot::TaskSchedulerRootIs("invalid");
  Ptr<TestTask> a = taskOn(root, "a");
  runOnce({a.get()});
  testing::internal::CaptureStderr();
  const Ptr<TaskSchedulerSnapshot const> sKept = take(*root, "(");
  const Snapshot& s = impl(sKept);
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1);
  EXPECT_NE(err.find("supplied with invalid regular expression '('"), std::string::npos);
  EXPECT_EQ(s.taskNameRegex, "(");
  EXPECT_EQ(s.taskNameRegexError, TaskNameRegex("(").error);
  EXPECT_FALSE(s.taskNameRegexError.empty());
  EXPECT_TRUE(s.tasks.empty());
  EXPECT_TRUE(s.completedTasks.empty());
  EXPECT_TRUE(s.subSchedulers.empty());
  EXPECT_TRUE(s.history.get() == nullptr);
  EXPECT_EQ(s.tasksSkipped, 0u);
  EXPECT_EQ(s.priorityStats, root->queueStats());
  EXPECT_EQ(s.schedulerName, "invalid");
}

TEST(TaskSchedulerSnapshot, EmptyFilterIsNoFilter) {
  Ptr<TaskSchedulerRoot> root = TaskSchedulerRoot::TaskSchedulerRootIs("noFilter");
  Ptr<TestTask> a = taskOn(root, "a");
  runOnce({a.get()});
  const Ptr<TaskSchedulerSnapshot const> sKept = take(*root, "");
  const Snapshot& s = impl(sKept);
  EXPECT_EQ(names(s.tasks), std::vector<std::string>{"a"});
  // With no filter every event is copied, scheduler-level ones included.
  ASSERT_TRUE(s.history.get() != nullptr);
  EXPECT_EQ(s.history->events.size(), root->taskSchedulerHistory()->historyEventCount());
}

TEST(TaskSchedulerSnapshot, CompletedTasksAreCopiedWithTheirOwnSkipCount) {
  Ptr<TaskSchedulerRoot> root = TaskSchedulerRoot::TaskSchedulerRootIs("completed");
  {
    Ptr<TestTask> done = taskOn(root, "done");
    Ptr<TestTask> neverRan = taskOn(root, "neverRan");
    runOnce({done.get()});
  }
  const Ptr<TaskSchedulerSnapshot const> sKept = take(*root);
  const Snapshot& s = impl(sKept);
  EXPECT_EQ(names(s.completedTasks), std::vector<std::string>{"done"});
  EXPECT_EQ(s.completedTasks[0].taskCompletedCount(), 1u);
  EXPECT_EQ(s.completedTasksSkipped, 1u);
  const Ptr<TaskSchedulerSnapshot const> allKept = take(*root, "", true);
  const Snapshot& all = impl(allKept);
  EXPECT_EQ(all.completedTasks.size(), 2u);
  const Ptr<TaskSchedulerSnapshot const> filteredKept = take(*root, "never.*", true);
  const Snapshot& filtered = impl(filteredKept);
  EXPECT_EQ(names(filtered.completedTasks), std::vector<std::string>{"neverRan"});
  const Ptr<TaskSchedulerSnapshot const> withoutKept = root->snapshot("", true, false, false, "", 0);
  const Snapshot& without = impl(withoutKept);
  EXPECT_TRUE(without.completedTasks.empty());
  EXPECT_EQ(without.completedTasksSkipped, 0u);
}

TEST(TaskSchedulerSnapshot, HistoryIsCopiedNewestFirstOnlyWhenAsked) {
  Ptr<TaskSchedulerRoot> root = TaskSchedulerRoot::TaskSchedulerRootIs("history");
  Ptr<TestTask> a = taskOn(root, "a");
  runOnce({a.get()});
  const TaskSchedulerHistory& ring = *root->taskSchedulerHistory();
  const Ptr<TaskSchedulerSnapshot const> sKept = take(*root);
  const Snapshot& s = impl(sKept);
  ASSERT_TRUE(s.history.get() != nullptr);
  EXPECT_EQ(s.history->historyEntryCount, ring.historyEntryCount());
  EXPECT_EQ(s.history->historyEventCount, ring.historyEventCount());
  ASSERT_EQ(s.history->events.size(), ring.historyEventCount());
  for (unsigned i = 0; i < ring.historyEventCount(); ++i) {
    EXPECT_EQ(s.history->events[i].eventType, ring[i].eventType);
    EXPECT_EQ(s.history->events[i].timestamp, ring[i].timestamp);
    EXPECT_EQ(s.history->events[i].identifier, ring[i].identifier);
  }
  EXPECT_EQ(s.history->events.capacity(), s.history->events.size());
  EXPECT_TRUE(impl(take(*root, "", false, false)).history.get() == nullptr);
}

TEST(TaskSchedulerSnapshot, FilteredHistoryKeepsOnlyMatchingTaskEventsAndTheRingsCount) {
  Ptr<TaskSchedulerRoot> root = TaskSchedulerRoot::TaskSchedulerRootIs("filteredHistory");
  Ptr<TestTask> wanted = taskOn(root, "wanted");
  Ptr<TestTask> other = taskOn(root, "other");
  runOnce({wanted.get(), other.get()});
  const TaskSchedulerHistory& ring = *root->taskSchedulerHistory();
  unsigned wantedEvents = 0;
  bool sawSchedulerEvent = false;
  for (const TaskSchedulerHistory::Event& e : ring) {
    sawSchedulerEvent |= e.eventType.value() >= TaskSchedulerEventType::firstSchedulerEvent;
    wantedEvents += e.eventType.value() < TaskSchedulerEventType::firstSchedulerEvent &&
                    e.identifier.view().substr(2) == "wanted";
  }
  ASSERT_TRUE(sawSchedulerEvent);
  ASSERT_GT(wantedEvents, 0u);
  const Ptr<TaskSchedulerSnapshot const> sKept = take(*root, "wanted");
  const Snapshot& s = impl(sKept);
  ASSERT_TRUE(s.history.get() != nullptr);
  EXPECT_EQ(s.history->historyEventCount, ring.historyEventCount());
  EXPECT_EQ(s.history->events.size(), wantedEvents);
  for (const TaskSchedulerHistory::Event& e : s.history->events) {
    EXPECT_LT(e.eventType.value(), TaskSchedulerEventType::firstSchedulerEvent);
    EXPECT_EQ(e.identifier.view().substr(2), "wanted");
  }
  EXPECT_EQ(s.history->events.capacity(), s.history->events.size());
}

TEST(TaskSchedulerSnapshot, ZeroCapacityOrEmptyHistoryGivesARecordWithoutEvents) {
  Ptr<TaskSchedulerRoot> root = TaskSchedulerRoot::TaskSchedulerRootIs("noHistory");
  root->taskSchedulerHistory()->clearHistory();
  const Ptr<TaskSchedulerSnapshot const> clearedKept = take(*root);
  const Snapshot& cleared = impl(clearedKept);
  ASSERT_TRUE(cleared.history.get() != nullptr);
  EXPECT_TRUE(cleared.history->events.empty());
  EXPECT_EQ(cleared.history->historyEventCount, 0u);
  root->taskSchedulerHistory()->historyEntryCountIs(0);
  Ptr<TestTask> a = taskOn(root, "a");
  runOnce({a.get()});
  for (const String& regex : {String(), String("a")}) {
    const Ptr<TaskSchedulerSnapshot const> sKept = take(*root, regex);
  const Snapshot& s = impl(sKept);
    ASSERT_TRUE(s.history.get() != nullptr);
    EXPECT_EQ(s.history->historyEntryCount, 0u);
    EXPECT_EQ(s.history->historyEventCount, 0u);
    EXPECT_TRUE(s.history->events.empty());
  }
}

TEST(TaskSchedulerSnapshot, SnapshotOutlivesItsSchedulerUnchanged) {
  Ptr<TaskSchedulerSnapshot const> kept;
  {
    Ptr<TaskSchedulerRoot> root = TaskSchedulerRoot::TaskSchedulerRootIs("gone");
    Ptr<TestTask> a = taskOn(root, "a");
    runOnce({a.get()});
    kept = take(*root);
    runOnce({a.get()});
  }
  const Ptr<TaskSchedulerSnapshot const> sKept = kept;
  const Snapshot& s = impl(sKept);
  EXPECT_EQ(s.schedulerName, "gone");
  ASSERT_EQ(s.tasks.size(), 1u);
  EXPECT_EQ(s.tasks[0].taskRunCount(), 1u);
  EXPECT_EQ(s.tasks[0].taskName(), "a");
  ASSERT_TRUE(s.history.get() != nullptr);
  EXPECT_FALSE(s.history->events.empty());
}

TEST(TaskSchedulerSnapshot, GetTaskStatsAppendsAndCountsLikeTheSnapshot) {
  Ptr<TaskSchedulerRoot> root = TaskSchedulerRoot::TaskSchedulerRootIs("accessors");
  Ptr<TestTask> a = taskOn(root, "a");
  Ptr<TestTask> idle = taskOn(root, "idle");
  runOnce({a.get()});
  std::vector<TaskStat> out;
  EXPECT_EQ(root->getTaskStats(&out, false), 1u);
  EXPECT_EQ(names(out), std::vector<std::string>{"a"});
  TaskNameRegex onlyIdle("idle");
  EXPECT_EQ(root->getTaskStats(&out, true, &onlyIdle), 0u);
  EXPECT_EQ(names(out), (std::vector<std::string>{"a", "idle"}));
  std::vector<TaskStat> completed;
  EXPECT_EQ(root->getCompletedTaskStats(&completed, true), 0u);
  EXPECT_TRUE(completed.empty());
}

TEST(TaskSchedulerSnapshot, SchedulerThatIsNeitherRootNorGroupFails) {
  Ptr<TaskSchedulerRoot> root = TaskSchedulerRoot::TaskSchedulerRootIs("withLoose");
  LooseScheduler loose(root.get());
  loose.incRef();
  EXPECT_EQ(assertMessage(assertText([&] { take(loose); })),
            "TaskSchedulerSnapshot::TaskSchedulerSnapshotImpl() nullptr != group");
}

TEST(TaskSchedulerSnapshot, UnknownEventTypeInAFilteredHistoryFails) {
  Ptr<TaskSchedulerRoot> root = TaskSchedulerRoot::TaskSchedulerRootIs("badEvent");
  root->taskSchedulerHistory()->insert(
      TaskSchedulerHistory::Event(TaskTimeStamp(), TaskSchedulerEventType(30u), String("N x")));
  EXPECT_EQ(assertMessage(assertText([&] { take(*root, "x"); })),
            "TaskSchedulerSnapshot::copyHistory() unexpected eventType=30");
}

TEST(TaskSchedulerSnapshot, SubSchedulerKeyOfAPlainTaskFails) {
  Ptr<TaskSchedulerRoot> root = TaskSchedulerRoot::TaskSchedulerRootIs("keys");
  Ptr<TestTask> a = taskOn(root, "plain");
  EXPECT_EQ(assertMessage(assertText([&] { subSchedulerKey(a->getStats()); })),
            "TaskSchedulerSnapshot::subSchedulerKey() plain is not TaskGroup");
}

// The heap cannot be exhausted on demand, so the support library's
// allocator hook fails one chosen allocation instead: every allocation the
// copy makes, in turn.
TEST(TaskSchedulerSnapshot, FailedCopyGivesASnapshotThatCarriesTheError) {
  if (!KestoSupport::mallocCountingWorks())
    GTEST_SKIP() << "allocations are not interposed under the sanitizers";
  Ptr<TaskSchedulerRoot> root = TaskSchedulerRoot::TaskSchedulerRootIs("failing");
  Ptr<TestTask> a = taskOn(root, "a");
  Ptr<TestTask> b = taskOn(root, "b");
  runOnce({a.get(), b.get()});
  // What the filter costs to compile happens before the copy and is not
  // caught; count it apart.
  unsigned long before = KestoSupport::mallocCalls();
  { TaskNameRegex compile("a|b"); }
  const unsigned long compileCalls = KestoSupport::mallocCalls() - before;
  before = KestoSupport::mallocCalls();
  take(*root, "a|b");
  const unsigned long totalCalls = KestoSupport::mallocCalls() - before;
  ASSERT_GT(totalCalls, compileCalls);
  unsigned failed = 0;
  for (unsigned long n = compileCalls + 1; n <= totalCalls; ++n) {
    KestoSupport::failNthMalloc(n);
    Ptr<TaskSchedulerSnapshot const> s = take(*root, "a|b");
    KestoSupport::failNthMalloc(0);
    const Ptr<TaskSchedulerSnapshot const> gotKept = s;
  const Snapshot& got = impl(gotKept);
    if (got.generalError.empty()) {
      // The failing allocation was one the copy does not make on this run
      // (the match cache, say, grew differently); the copy must be whole.
      EXPECT_EQ(names(got.tasks), (std::vector<std::string>{"b", "a"}));
      continue;
    }
    ++failed;
    EXPECT_EQ(got.generalError, std::bad_alloc().what());
    EXPECT_EQ(got.schedulerName, "");
    EXPECT_EQ(got.displayOrder, 0u);
    EXPECT_FALSE(got.isRootScheduler);
    EXPECT_TRUE(got.tasks.empty());
    EXPECT_TRUE(got.history.get() == nullptr);
    EXPECT_TRUE(got.priorityStats.empty());
    EXPECT_TRUE(pthread_equal(got.snapshotThread, pthread_self()));
  }
  EXPECT_GT(failed, 0u);
  // The scheduler is untouched by the failures.
  EXPECT_EQ(names(impl(take(*root)).tasks), (std::vector<std::string>{"b", "a"}));
}

TEST(TaskSchedulerSnapshot, TasksSharingNamesCostOneEngineRunPerName) {
  Ptr<TaskSchedulerRoot> root = TaskSchedulerRoot::TaskSchedulerRootIs("shared");
  constexpr unsigned names = 100;
  constexpr unsigned tasks = 100000;
  std::vector<Ptr<TestTask>> all;
  all.reserve(tasks);
  for (unsigned i = 0; i < tasks; ++i)
    all.push_back(taskOn(root, String(fmt::format("worker{}", i % names))));
  TaskNameRegex regex("worker1.*");
  std::vector<TaskStat> out;
  EXPECT_EQ(root->getTaskStats(&out, true, &regex), 0u);
  EXPECT_EQ(regex.engineRunCount(), names);
  // worker1, worker10..worker19: 11 of every 100.
  EXPECT_EQ(out.size(), tasks / names * 11);
}

TEST(TaskSchedulerSnapshot, FilterTreatsMetacharactersPrefixesEmptyAndNonAsciiNames) {
  Ptr<TaskSchedulerRoot> root = TaskSchedulerRoot::TaskSchedulerRootIs("names");
  std::vector<Ptr<TestTask>> tasks;
  for (const char* name : {"rib", "ribOut", "rib.out", "ribXout", "", "t\xC3\xA2" "che", "a+b"})
    tasks.push_back(taskOn(root, name));
  const auto kept = [&](const char* regex) {
    std::vector<TaskStat> out;
    TaskNameRegex r(regex);
    root->getTaskStats(&out, true, &r);
    std::vector<std::string> got = names(out);
    std::sort(got.begin(), got.end());
    return got;
  };
  EXPECT_EQ(kept("rib"), std::vector<std::string>{"rib"});
  EXPECT_EQ(kept("rib.out"), (std::vector<std::string>{"rib.out", "ribXout"}));
  EXPECT_EQ(kept("rib\\.out"), std::vector<std::string>{"rib.out"});
  EXPECT_EQ(kept(""), std::vector<std::string>{""});
  EXPECT_EQ(kept("t\xC3\xA2.*"), std::vector<std::string>{"t\xC3\xA2" "che"});
  EXPECT_EQ(kept("a\\+b"), std::vector<std::string>{"a+b"});
  EXPECT_EQ(kept("a+b"), std::vector<std::string>{});
}
