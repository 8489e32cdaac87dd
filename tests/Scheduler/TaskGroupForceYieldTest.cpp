// Force yield in tests: a group's own switch, and any member of its
// force-yield set, make its parent task yield after every pass; the change
// travels up through nested groups.
#include "GroupTestSupport.h"

#include <Kesto/Platform/Platform.h>

#include <algorithm>

using namespace KestoTest;

namespace {
unsigned parentRatio(const TaskGroup& g) { return g.parentTask()->taskShouldYieldMode() == 2 ? 1u : 0u; }
} // namespace

TEST(TaskGroupForceYield, GroupSwitchMakesTheParentYieldAfterEveryPass) {
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  Ptr<TaskGroup> g = groupIs("g", r);
  g->taskGroupForceYieldInTestIs(true);
  EXPECT_TRUE(g->taskGroupForceYieldInTest());
  EXPECT_EQ(1u, g->forceYieldTaskCount());
  EXPECT_EQ(1u, parentRatio(*g));
  EXPECT_EQ("frcYieldOn N TaskGroup;g", historyLines(*r).front());
  // The parent task joined the root's set in turn.
  EXPECT_EQ(1u, r->forceYieldTaskCount());

  RunLog log;
  Ptr<TestTask> a = rootTaskIs(g, TaskPriority::normal, "a", log.append("a"));
  Ptr<TestTask> b = rootTaskIs(g, TaskPriority::normal, "b", log.append("b"));
  Ptr<TestTask> c = rootTaskIs(g, TaskPriority::normal, "c", log.append("c"));
  a->scheduleTask();
  b->scheduleTask();
  c->scheduleTask();
  EXPECT_TRUE(r->handleSchedulerRun());
  EXPECT_EQ("a", log.joined());
  Platform::doEventLoop();
  EXPECT_EQ("a b c", log.joined());
  EXPECT_EQ(3u, g->parentTaskRunCount());

  const unsigned events = r->historyEventCount();
  g->taskGroupForceYieldInTestIs(true); // unchanged
  EXPECT_EQ(events, r->historyEventCount());
  g->taskGroupForceYieldInTestIs(false);
  EXPECT_EQ("frcYieldOff N TaskGroup;g", historyLines(*r).front());
  EXPECT_EQ(0u, g->forceYieldTaskCount());
  EXPECT_EQ(0u, parentRatio(*g));
  EXPECT_EQ(0u, r->forceYieldTaskCount());
  a->scheduleTask();
  b->scheduleTask();
  Platform::doEventLoop();
  EXPECT_EQ(4u, g->parentTaskRunCount());
}

TEST(TaskGroupForceYield, OneTaskWithATestRatioMakesTheWholeGroupYield) {
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  Ptr<TaskGroup> g = groupIs("g", r);
  Ptr<TestTask> a = rootTaskIs(g, TaskPriority::normal, "a");
  Ptr<TestTask> b = rootTaskIs(g, TaskPriority::normal, "b");
  a->taskForceYieldInTestIs(true);
  EXPECT_EQ(1u, parentRatio(*g));
  EXPECT_EQ("frcYieldOn N TaskGroup;g", historyLines(*r).front());
  a->scheduleTask();
  b->scheduleTask();
  Platform::doEventLoop();
  EXPECT_EQ(2u, g->parentTaskRunCount());
  // The set empties with the last member.
  a->taskForceYieldInTestIs(false);
  EXPECT_EQ(0u, parentRatio(*g));
  EXPECT_EQ("frcYieldOff N TaskGroup;g", historyLines(*r).front());
  // A member that goes leaves the set too.
  b->taskForceYieldInTestIs(true);
  EXPECT_EQ(1u, parentRatio(*g));
  b = nullptr;
  EXPECT_EQ(0u, parentRatio(*g));
}

TEST(TaskGroupForceYield, ChangeTravelsUpThroughNestedGroups) {
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  Ptr<TaskGroup> outer = groupIs("outer", r);
  Ptr<TaskGroup> inner = groupIs("inner", outer);
  inner->taskGroupForceYieldInTestIs(true);
  EXPECT_EQ(1u, parentRatio(*inner));
  EXPECT_EQ(1u, parentRatio(*outer));
  EXPECT_EQ(1u, outer->forceYieldTaskCount());
  inner->taskGroupForceYieldInTestIs(false);
  EXPECT_EQ(0u, parentRatio(*outer));
  EXPECT_EQ(0u, r->forceYieldTaskCount());
}

TEST(TaskGroupForceYield, DestroyingAGroupWithTheSwitchOnClearsIt) {
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  Ptr<TaskGroup> outer = groupIs("outer", r);
  {
    Ptr<TaskGroup> inner = groupIs("inner", outer);
    inner->taskGroupForceYieldInTestIs(true);
    EXPECT_EQ(1u, parentRatio(*outer));
  }
  EXPECT_EQ(0u, outer->forceYieldTaskCount());
  EXPECT_EQ(0u, parentRatio(*outer));
  EXPECT_EQ(0u, r->forceYieldTaskCount());
}

TEST(TaskGroupForceYield, RootTestRatioReachesTheGroupThroughItsTasks) {
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  Ptr<TaskGroup> g = groupIs("g", r);
  Ptr<TestTask> a = rootTaskIs(g, TaskPriority::normal, "a");
  auto lineCount = [&](const std::string& line) {
    const std::vector<std::string> lines = historyLines(*r);
    return std::count(lines.begin(), lines.end(), line);
  };
  r->taskTestYieldRatioIs(3);
  // Its member makes the group set the parent task's own ratio to 1.
  EXPECT_EQ(1u, g->forceYieldTaskCount());
  EXPECT_EQ(1, lineCount("frcYieldOn N TaskGroup;g"));
  r->taskTestYieldRatioIs(0);
  EXPECT_EQ(0u, g->forceYieldTaskCount());
  EXPECT_EQ(1, lineCount("frcYieldOff N TaskGroup;g"));
  EXPECT_EQ(0u, parentRatio(*g));
}
