// The run path of a group allocates nothing: the root's pass, the parent
// task's run with its passes, and the nested anchors, in both run modes and
// one group inside another, through the event loop.
#include "GroupTestSupport.h"

#include <KestoSupport/MallocCounter.h>

#include <Kesto/Platform/Platform.h>

using namespace KestoTest;

namespace {

// A task that schedules itself until its share of runs is used up.
class CountdownTask : public Task {
public:
  CountdownTask(Ptr<TaskScheduler> s, TaskPriority p, const String& name, unsigned* left)
      : Task(std::move(s), p, name), left_(left) {}
  void taskExecute() override {
    if (*left_ == 0)
      return;
    --*left_;
    scheduleTask();
  }
  static void operator delete(void* p) { ::operator delete(p); }

private:
  unsigned* left_;
};

// Allocations of `batch` runs of a task in `s`, after a warm-up batch.
unsigned long allocationsOfRuns(const Ptr<TaskScheduler>& s, unsigned batch) {
  unsigned left = 0;
  Ptr<CountdownTask> t(new CountdownTask(s, TaskPriority::normal, "countdown", &left));
  left = batch;
  t->scheduleTask();
  Platform::doEventLoop();
  left = batch;
  const unsigned long before = KestoSupport::mallocCalls();
  t->scheduleTask();
  Platform::doEventLoop();
  const unsigned long allocations = KestoSupport::mallocCalls() - before;
  EXPECT_EQ(0u, left);
  EXPECT_EQ(2u * batch + 2u, t->taskRunCount());
  return allocations;
}

} // namespace

TEST(TaskGroupNoAllocation, RunsInAGroupAndInAGroupOfAGroupAllocateNothing) {
  if (!KestoSupport::mallocCountingWorks())
    GTEST_SKIP() << "the sanitizers own malloc";
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  Ptr<TaskGroup> g = groupIs("g", r);
  Ptr<TaskGroup> gg = groupIs("gg", g);
  EXPECT_EQ(0u, allocationsOfRuns(g, 5000));
  EXPECT_EQ(0u, allocationsOfRuns(gg, 5000));
  g->tasksPermittedMultipleRunsIs(false);
  gg->tasksPermittedMultipleRunsIs(false);
  EXPECT_EQ(0u, allocationsOfRuns(g, 5000));
  EXPECT_EQ(0u, allocationsOfRuns(gg, 5000));
  // Force yield: one pass a parent run, the most parent runs per task run.
  gg->taskGroupForceYieldInTestIs(true);
  EXPECT_EQ(0u, allocationsOfRuns(gg, 5000));
  gg->taskGroupForceYieldInTestIs(false);
}
