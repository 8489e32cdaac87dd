// A statistics reset that reaches task groups: the parent task's reset
// starts the group's own walk, which runs later, as a task inside the group;
// the root reports a reset in progress until every walk of its tree ended.
#include "GroupTestSupport.h"
#include "ResetStatsTestSupport.h"

using namespace KestoTest;

namespace {

// Runs one pass of the root, as the event loop's callback does.
void onePass(TaskSchedulerRoot& r) { r.handleSchedulerRun(); }

} // namespace

TEST(ResetStatsGroup, GroupResetRunsAsItsOwnTaskAfterTheRootWalkPassedItsParentTask) {
  Ptr<CountingRoot> r = CountingRoot::rootIs("resetTree");
  Ptr<TaskGroup> g = groupIs("subsystem", r);
  ReleaseResetTaskAtEnd releaseRoot(*r);
  ReleaseResetTaskAtEnd releaseGroup(*g);
  Ptr<ResetCountingTask> inGroup = resetCountingTaskIs(g, "inGroup");
  Ptr<ResetCountingTask> atRoot = resetCountingTaskIs(r, "atRoot");
  inGroup->scheduleTask();
  atRoot->scheduleTask();
  Platform::doEventLoop();
  ASSERT_EQ(1u, inGroup->taskRunCount());
  ASSERT_EQ(1u, atRoot->taskRunCount());
  ASSERT_FALSE(r->resetStatsInProgress());

  r->resetStats();
  EXPECT_TRUE(r->resetStatsInProgress());
  EXPECT_FALSE(g->resetStatsInProgress());
  // One pass: the root's walk, one run for its handful of tasks. It resets
  // the group's parent task, which starts the group's walk.
  onePass(*r);
  EXPECT_FALSE(r->TaskScheduler::resetStatsInProgress());
  EXPECT_EQ(1u, atRoot->resets);
  EXPECT_EQ(0u, atRoot->taskRunCount());
  EXPECT_EQ(0u, g->parentTask()->taskRunCount());
  EXPECT_TRUE(g->resetStatsInProgress());
  EXPECT_TRUE(r->resetStatsInProgress());
  // The group's task is untouched until the group's own walk runs.
  EXPECT_EQ(0u, inGroup->resets);
  EXPECT_EQ(1u, inGroup->taskRunCount());
  EXPECT_TRUE(g->parentTask()->taskScheduled());

  // The next pass runs the parent task, and in it the group's walk.
  onePass(*r);
  EXPECT_EQ(1u, inGroup->resets);
  EXPECT_EQ(0u, inGroup->taskRunCount());
  EXPECT_FALSE(g->resetStatsInProgress());
  EXPECT_FALSE(r->resetStatsInProgress());
  Platform::doEventLoop();
  EXPECT_FALSE(r->resetStatsInProgress());
}

TEST(ResetStatsGroup, ResetSpreadsDownNestedGroups) {
  Ptr<CountingRoot> r = CountingRoot::rootIs("resetDeep");
  Ptr<TaskGroup> outer = groupIs("outer", r);
  Ptr<TaskGroup> inner = groupIs("inner", outer);
  ReleaseResetTaskAtEnd releaseRoot(*r);
  ReleaseResetTaskAtEnd releaseOuter(*outer);
  ReleaseResetTaskAtEnd releaseInner(*inner);
  Ptr<ResetCountingTask> deep = resetCountingTaskIs(inner, "deep");
  deep->scheduleTask();
  Platform::doEventLoop();
  ASSERT_EQ(1u, deep->taskRunCount());
  r->resetStats();
  Platform::doEventLoop();
  EXPECT_EQ(1u, deep->resets);
  EXPECT_EQ(0u, deep->taskRunCount());
  EXPECT_FALSE(inner->resetStatsInProgress());
  EXPECT_FALSE(r->resetStatsInProgress());
}

// The reset task runs at normal in every scheduler; a group that allows only
// its own priority to its tasks takes it all the same, since it is the
// library's bookkeeping and not one of the group's tasks.
TEST(ResetStatsGroup, GroupRestrictedToItsOwnPriorityTakesItsResetTask) {
  Ptr<CountingRoot> r = CountingRoot::rootIs("restricted");
  Ptr<TaskGroup> g = groupIs("highOnly", r, TaskPriority::high, TaskGroupPriorityEnforcement::sameAsGroupPriority);
  ReleaseResetTaskAtEnd releaseGroup(*g);
  Ptr<ResetCountingTask> t = resetCountingTaskIs(g, "t", {}, TaskPriority::high);
  t->scheduleTask();
  Platform::doEventLoop();
  g->resetStats();
  ASSERT_TRUE(resetTaskOf(*g));
  EXPECT_EQ(TaskPriority(TaskPriority::normal), resetTaskOf(*g)->taskPriority());
  Platform::doEventLoop();
  EXPECT_EQ(1u, t->resets);
  EXPECT_FALSE(g->resetStatsInProgress());
  // The exemption is the reset task's alone.
  EXPECT_NE("", assertText([&] { resetCountingTaskIs(g, "normalTask"); }));
}
