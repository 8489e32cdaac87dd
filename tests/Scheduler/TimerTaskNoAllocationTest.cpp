// Counts the heap allocations of the test thread to show that starting,
// moving and stopping a timer task's timer allocates nothing, from malloc or
// from the slab.
#include "TimerTaskTestSupport.h"

#include <ZuSlab/ZuSlab.h>

#ifndef KESTO_SANITIZED
#include <KestoSupport/MallocCounter.h>
#endif

using namespace KestoTest;

TEST(TimerTaskNoAllocation, StartMoveAndStopOfATimerAllocateNothing) {
#ifdef KESTO_SANITIZED
  GTEST_SKIP() << "the sanitizers own malloc";
#else
  Ptr<CountingRoot> r = CountingRoot::rootIs("allocRoot");
  Ptr<TestTimerTask> t = timerTaskIs(r, "alloc");
  Ptr<TestTimerTask> other = timerTaskIs(r, "allocOther");
  // A second timer keeps the wheel's master timer armed throughout.
  other->scheduleTaskDelay(3600.0);
  auto cycle = [&](int i) {
    t->scheduleTaskDelay(1.0 + (i % 100) * 0.01);
    // A change of delay on the running timer, both ways.
    t->scheduleTaskDelay(TaskTimeDuration(2000000000 + i));
    t->scheduleTaskLowestDelay(0.5);
    t->scheduleTaskJitterUp(3.0, 20);
    t->scheduleTaskJitterDown(TaskTimeDuration(4000000000), 20);
    t->stopTimerTask();
  };
  for (int i = 0; i < 100; ++i)
    cycle(i);
  // The test double's own record of busy reports must not be what allocates.
  t->busyReports.reserve(50000);
  const ZuSlab::SlabStats slabBefore = ZuSlab::slabStats();
  const unsigned long before = KestoSupport::mallocCalls();
  for (int i = 0; i < 10000; ++i)
    cycle(i);
  const unsigned long allocations = KestoSupport::mallocCalls() - before;
  EXPECT_EQ(0u, allocations);
  EXPECT_EQ(slabBefore.blocksInUse, ZuSlab::slabStats().blocksInUse);
  EXPECT_EQ(slabBefore.largeAllocations, ZuSlab::slabStats().largeAllocations);
  EXPECT_FALSE(t->timerRunning());
  EXPECT_EQ(1u, r->timerRunningCount());
  other->stopTimerTask();
#endif
}

TEST(TimerTaskNoAllocation, CounterSeesAnAllocation) {
#ifdef KESTO_SANITIZED
  GTEST_SKIP() << "the sanitizers own malloc";
#else
  const unsigned long before = KestoSupport::mallocCalls();
  auto* p = new int(3);
  // Keeps the compiler from eliding the pair.
  asm volatile("" : : "g"(p) : "memory");
  const unsigned long allocations = KestoSupport::mallocCalls() - before;
  delete p;
  EXPECT_EQ(1u, allocations);
#endif
}
