// Snapshots of a tree of schedulers: one nested snapshot per task group, in
// task-list order, keyed by the group's parent task; the filter over the
// whole tree; and a snapshot that reads the same whatever happens to the
// live tree afterwards, the tree's destruction included.
#include <Kesto/Platform/Platform.h>
#include <Kesto/Report/TaskNameRegex.h>
#include <Kesto/Report/TaskSchedulerSnapshot.h>
#include <Kesto/Scheduler/TaskGroup.h>
#include <Kesto/Scheduler/TaskSchedulerRoot.h>

#include <KestoSupport/TaskSchedulerTestAccess.h>
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

const Snapshot& impl(const Ptr<TaskSchedulerSnapshot const>& s) { return dynamic_cast<const Snapshot&>(*s); }

Ptr<TaskSchedulerSnapshot const> take(const TaskScheduler& s, const String& regex = String(),
                                      bool includeNoRunTasks = true) {
  return s.snapshot(String(), includeNoRunTasks, true, true, regex, TaskScheduler::displayOrderNotSpecified);
}

Ptr<TestTask> taskOn(const Ptr<TaskScheduler>& s, const String& name) {
  return Ptr<TestTask>(new TestTask(s, TaskPriority::normal, name));
}

Ptr<TaskGroup> groupOn(const String& name, const Ptr<TaskScheduler>& parent) {
  return TaskGroup::TaskGroupIs(name, TaskPriority::normal, TaskGroupPriorityEnforcement::allowAny, parent);
}

std::vector<std::string> names(const std::vector<TaskStat>& stats) {
  std::vector<std::string> out;
  for (const TaskStat& s : stats)
    out.emplace_back(s.taskName().view());
  return out;
}

// Every field of a snapshot and of all it nests, as text: what the test
// keeps of it to compare later.
std::string describe(const Snapshot& s, int depth = 0) {
  const auto stat = [](const TaskStat& t) {
    return fmt::format("{}|{}|{}|{}|{}|{}|{}|{}|{}|{}|{}|{}|{}|{}|{}|{}|{}|{}", t.taskName().view(),
                       t.taskKey().object(), t.taskPriority().value(), t.taskStatus().bits(), t.taskRunCount(),
                       t.taskTotalRunTime().count(), t.firstTaskRunTimestamp().time_since_epoch().count(),
                       t.lastTaskRunTimestamp().time_since_epoch().count(), t.taskWorkCountTotal(),
                       t.taskWorkCountDecayAvg(), t.taskWorkCountHighWaterMark(), t.taskWorkPending(),
                       t.taskWorkPendingHighWaterMark(), t.taskQuantumViolation500(), t.taskQuantumViolation200(),
                       t.taskRunTimeHighWaterMark().count(), t.taskSchedulingLatencyHighWaterMark().count(),
                       t.taskCompletedCount());
  };
  std::string out = fmt::format("{:{}}{} regex={} error={} general={} slip={} root={} sanity={} order={} "
                                "skipped={}/{} parent={}\n",
                                "", depth * 2, s.schedulerName.view(), s.taskNameRegex.view(),
                                s.taskNameRegexError.view(), s.generalError.view(), s.maxSchedulerSlip,
                                s.isRootScheduler, s.threadSanityDisabled, s.displayOrder, s.tasksSkipped,
                                s.completedTasksSkipped, s.parentTask.object());
  for (const auto& [p, row] : s.priorityStats)
    out += fmt::format("  q{} {} {} {} {}\n", p.value(), row.runnableTasks, row.idleTasks, row.completedTasks,
                       row.totalRunCount);
  for (const TaskStat& t : s.tasks)
    out += "  t " + stat(t) + "\n";
  for (const TaskStat& t : s.completedTasks)
    out += "  c " + stat(t) + "\n";
  if (s.history) {
    out += fmt::format("  h {} {}\n", s.history->historyEntryCount, s.history->historyEventCount);
    for (const TaskSchedulerHistory::Event& e : s.history->events)
      out += fmt::format("  e {} {} {}\n", e.eventType.value(), e.timestamp.time_since_epoch().count(),
                         e.identifier.view());
  }
  for (const auto& [key, nested] : s.subSchedulers)
    out += fmt::format("  sub {}\n", key.view()) + describe(nested, depth + 1);
  return out;
}

// A root with a group two deep and tasks at every level, each run once.
struct Tree {
  Tree()
      : root(TaskSchedulerRoot::TaskSchedulerRootIs("tree")), outer(groupOn("outer", root)),
        inner(groupOn("inner", outer)), atRoot(taskOn(root, "atRoot")), inOuter(taskOn(outer, "inOuter")),
        inInner(taskOn(inner, "inInner")) {
    for (TestTask* t : {atRoot.get(), inOuter.get(), inInner.get()})
      t->scheduleTask();
    Platform::doEventLoop();
  }
  Ptr<TaskSchedulerRoot> root;
  Ptr<TaskGroup> outer;
  Ptr<TaskGroup> inner;
  Ptr<TestTask> atRoot;
  Ptr<TestTask> inOuter;
  Ptr<TestTask> inInner;
};

} // namespace

TEST(TaskSchedulerSnapshotGroups, OneNestedSnapshotPerGroupKeyedByItsParentTask) {
  Tree tree;
  const Ptr<TaskSchedulerSnapshot const> kept = take(*tree.root);
  const Snapshot& s = impl(kept);
  EXPECT_TRUE(s.parentTask.isNull());
  ASSERT_EQ(s.subSchedulers.size(), 1u);
  const auto& [outerKey, outer] = s.subSchedulers[0];
  EXPECT_EQ(outerKey, subSchedulerKey(tree.outer->parentTask()->getStats()));
  EXPECT_EQ(outerKey.view(), fmt::format("TaskGroup;outer-{}", TaskKey(tree.outer->parentTask().get())));
  EXPECT_EQ(outer.schedulerName, "outer");
  EXPECT_FALSE(outer.isRootScheduler);
  EXPECT_EQ(outer.parentTask, TaskKey(tree.outer->parentTask().get()));
  EXPECT_EQ(outer.displayOrder, TaskScheduler::displayOrderNotSpecified);
  EXPECT_TRUE(outer.history.get() == nullptr);
  EXPECT_EQ(names(outer.tasks), (std::vector<std::string>{"inOuter", "TaskGroup;inner"}));
  EXPECT_EQ(outer.priorityStats, tree.outer->queueStats());
  ASSERT_EQ(outer.subSchedulers.size(), 1u);
  const Snapshot& inner = outer.subSchedulers[0].second;
  EXPECT_EQ(inner.schedulerName, "inner");
  EXPECT_EQ(names(inner.tasks), std::vector<std::string>{"inInner"});
  EXPECT_TRUE(inner.subSchedulers.empty());
  // The group's line in its parent's tasks carries the key's address.
  const auto line = std::find_if(s.tasks.begin(), s.tasks.end(),
                                 [](const TaskStat& t) { return t.taskName() == "TaskGroup;outer"; });
  ASSERT_NE(line, s.tasks.end());
  EXPECT_TRUE(line->taskStatus().taskIsTaskGroup());
  EXPECT_EQ(line->taskKey(), outer.parentTask);
}

TEST(TaskSchedulerSnapshotGroups, SnapshotOfAGroupCarriesNoHistory) {
  Tree tree;
  const Ptr<TaskSchedulerSnapshot const> kept = take(*tree.outer);
  const Snapshot& s = impl(kept);
  EXPECT_EQ(s.schedulerName, "outer");
  EXPECT_FALSE(s.isRootScheduler);
  EXPECT_TRUE(s.history.get() == nullptr);
  EXPECT_EQ(s.parentTask, TaskKey(tree.outer->parentTask().get()));
  ASSERT_EQ(s.subSchedulers.size(), 1u);
}

TEST(TaskSchedulerSnapshotGroups, TwoGroupsOfOneNameHaveDistinctKeys) {
  Ptr<TaskSchedulerRoot> root = TaskSchedulerRoot::TaskSchedulerRootIs("twins");
  Ptr<TaskGroup> a = groupOn("same", root);
  Ptr<TaskGroup> b = groupOn("same", root);
  const Ptr<TaskSchedulerSnapshot const> kept = take(*root);
  const Snapshot& s = impl(kept);
  ASSERT_EQ(s.subSchedulers.size(), 2u);
  EXPECT_NE(s.subSchedulers[0].first, s.subSchedulers[1].first);
  // Task-list order: newest first.
  EXPECT_EQ(s.subSchedulers[0].second.parentTask, TaskKey(b->parentTask().get()));
  EXPECT_EQ(s.subSchedulers[1].second.parentTask, TaskKey(a->parentTask().get()));
}

TEST(TaskSchedulerSnapshotGroups, FilterOrNoRunsThatDropAGroupsLineKeepItsNestedSnapshot) {
  Tree tree;
  // "inInner" only: the groups' own lines do not match, nor do other tasks.
  const Ptr<TaskSchedulerSnapshot const> kept = take(*tree.root, "inInner");
  const Snapshot& s = impl(kept);
  EXPECT_TRUE(s.tasks.empty());
  ASSERT_EQ(s.subSchedulers.size(), 1u);
  const Snapshot& outer = s.subSchedulers[0].second;
  EXPECT_TRUE(outer.tasks.empty());
  ASSERT_EQ(outer.subSchedulers.size(), 1u);
  EXPECT_EQ(names(outer.subSchedulers[0].second.tasks), std::vector<std::string>{"inInner"});
  EXPECT_EQ(outer.subSchedulers[0].second.taskNameRegex, "inInner");
  // Only task-level events of that task are left in the root's history.
  ASSERT_TRUE(s.history.get() != nullptr);
  ASSERT_FALSE(s.history->events.empty());
  for (const TaskSchedulerHistory::Event& e : s.history->events)
    EXPECT_EQ(e.identifier.view().substr(2), "inInner");

  // A group whose parent task never ran is left out of the lines, not its
  // contents.
  Ptr<TaskGroup> idle = groupOn("idle", tree.root);
  const Ptr<TaskSchedulerSnapshot const> noRuns = take(*tree.root, "", false);
  EXPECT_EQ(impl(noRuns).subSchedulers.size(), 2u);
  for (const TaskStat& t : impl(noRuns).tasks)
    EXPECT_NE(t.taskName(), "TaskGroup;idle");
}

TEST(TaskSchedulerSnapshotGroups, InvalidFilterWritesOneLineForTheWholeTree) {
  Tree tree;
  Ptr<TaskGroup> third = groupOn("third", tree.inner);
  testing::internal::CaptureStderr();
  const Ptr<TaskSchedulerSnapshot const> kept = take(*tree.root, "[");
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1);
  const Snapshot& s = impl(kept);
  EXPECT_FALSE(s.taskNameRegexError.empty());
  EXPECT_TRUE(s.subSchedulers.empty());
  EXPECT_TRUE(s.tasks.empty());
}

TEST(TaskSchedulerSnapshotGroups, OneEngineRunPerNameOverTheWholeTree) {
  Ptr<TaskSchedulerRoot> root = TaskSchedulerRoot::TaskSchedulerRootIs("sharedNames");
  std::vector<Ptr<TaskGroup>> groups;
  std::vector<Ptr<TestTask>> tasks;
  for (int g = 0; g < 10; ++g) {
    groups.push_back(groupOn("g", root));
    for (int i = 0; i < 1000; ++i)
      tasks.push_back(taskOn(groups.back(), String(fmt::format("worker{}", i % 100))));
  }
  TaskNameRegex regex("worker1");
  std::vector<TaskStat> out;
  for (const Ptr<TaskGroup>& g : groups)
    g->getTaskStats(&out, true, &regex);
  EXPECT_EQ(regex.engineRunCount(), 100u);
  EXPECT_EQ(out.size(), 10u * 10u);
}

TEST(TaskSchedulerSnapshotGroups, SnapshotReadsTheSameWhateverHappensToTheTreeAfterwards) {
  Ptr<TaskSchedulerSnapshot const> kept;
  std::string before;
  {
    Tree tree;
    Ptr<TestTask> doomed = taskOn(tree.inner, "doomed");
    doomed->scheduleTask();
    Platform::doEventLoop();
    kept = take(*tree.root, "", true);
    before = describe(impl(kept));
    ASSERT_NE(before.find("doomed"), std::string::npos);
    // Run, reset, destroy and create tasks, destroy a group.
    for (TestTask* t : {tree.atRoot.get(), tree.inOuter.get(), tree.inInner.get()})
      t->scheduleTask();
    Platform::doEventLoop();
    EXPECT_EQ(describe(impl(kept)), before);
    tree.root->resetStats();
    Platform::doEventLoop();
    EXPECT_EQ(describe(impl(kept)), before);
    doomed = nullptr;
    Ptr<TestTask> fresh = taskOn(tree.outer, "fresh");
    fresh->scheduleTask();
    Platform::doEventLoop();
    // A scheduler once reset and its reset task hold each other; let go.
    TaskSchedulerTestAccess::resetStatsTaskRelease(*tree.inner);
    tree.inInner = nullptr;
    tree.inner = nullptr;
    EXPECT_EQ(describe(impl(kept)), before);
    for (TaskScheduler* s : std::initializer_list<TaskScheduler*>{tree.root.get(), tree.outer.get()})
      TaskSchedulerTestAccess::resetStatsTaskRelease(*s);
  }
  // The whole tree is gone.
  EXPECT_EQ(describe(impl(kept)), before);
}
