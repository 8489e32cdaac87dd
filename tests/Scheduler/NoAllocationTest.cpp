// Counts every heap allocation of this test binary, to show that the run path
// of the scheduler (schedule, pick, run, history, unlink) allocates nothing.
#include "SchedulerTestSupport.h"

#include <ZuSlab/ZuSlab.h>

#include <KestoSupport/MallocCounter.h>


using namespace KestoTest;

TEST(NoAllocation, TenThousandPassesAllocateNothing) {
#ifdef KESTO_SANITIZED
  GTEST_SKIP() << "the sanitizers own malloc";
#else
  auto s = TestScheduler::rootIs("alloc");
  // Tasks on three queues, one rescheduling itself, one scheduled from
  // another, so that picks, bumps, unlinks, busy changes and history all run.
  auto high = selfSchedulingTaskIs(s, TaskPriority::high, "high");
  auto low = taskIs(s, TaskPriority::low, "low");
  auto normal = taskIs(s, TaskPriority::normal, "normal", [&](TestTask&) { low->scheduleTask(); });
  int key = 0;
  unsigned callbacks = 0;
  s->registerBusyCallback(&key, [&] { ++callbacks; });
  high->scheduleTask();
  normal->scheduleTask();
  // Warm up: first use of every code path.
  for (int i = 0; i < 100; ++i) {
    s->_handleSchedulerRun(TaskPriority::scavenge);
    normal->scheduleTask();
  }
  const ZuSlab::SlabStats slabBefore = ZuSlab::slabStats();
  const unsigned long before = KestoSupport::mallocCalls();
  unsigned ran = 0;
  for (int i = 0; i < 10000; ++i) {
    ran += s->_handleSchedulerRun(TaskPriority::scavenge);
    normal->scheduleTask();
  }
  high->unscheduleTask();
  normal->unscheduleTask();
  low->unscheduleTask();
  s->drive();
  EXPECT_EQ(KestoSupport::mallocCalls() - before, 0u);
  EXPECT_EQ(ran, 10000u);
  EXPECT_EQ(ZuSlab::slabStats().blocksInUse, slabBefore.blocksInUse);
  EXPECT_GT(low->runs, 100u);
  EXPECT_GT(normal->runs, 100u);
  EXPECT_GE(callbacks, 1u);
  EXPECT_EQ(s->taskSchedulerHistory()->historyEventCount(), 100u);
#endif
}

// The pointer escapes through a volatile, so the compiler may not elide the
// allocation it counts.
int* volatile escaped = nullptr;

TEST(NoAllocation, CounterSeesAnAllocation) {
  if (!KestoSupport::mallocCountingWorks())
    GTEST_SKIP() << "the sanitizers own malloc";
  const unsigned long before = KestoSupport::mallocCalls();
  escaped = new int(3);
  const unsigned long after = KestoSupport::mallocCalls();
  delete escaped;
  EXPECT_EQ(after - before, 1u);
}
