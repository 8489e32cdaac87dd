// Counts every heap allocation of this test binary, to show that the run path
// of the scheduler (schedule, pick, run, history, unlink) allocates nothing.
#include "SchedulerTestSupport.h"

#include <ZuSlab/ZuSlab.h>

#include <atomic>
#include <cstdlib>
#include <new>

#ifndef KESTO_SANITIZED
namespace {
std::atomic<bool> counting{false};
std::atomic<unsigned long> allocations{0};

void note() noexcept {
  if (counting.load(std::memory_order_relaxed))
    allocations.fetch_add(1, std::memory_order_relaxed);
}
} // namespace

extern "C" {
void* __libc_malloc(std::size_t);
void* __libc_calloc(std::size_t, std::size_t);
void* __libc_realloc(void*, std::size_t);
void* __libc_memalign(std::size_t, std::size_t);
void __libc_free(void*);

void* malloc(std::size_t n) {
  note();
  return __libc_malloc(n);
}
void* calloc(std::size_t n, std::size_t m) {
  note();
  return __libc_calloc(n, m);
}
void* realloc(void* p, std::size_t n) {
  note();
  return __libc_realloc(p, n);
}
int posix_memalign(void** out, std::size_t align, std::size_t n) {
  note();
  void* p = __libc_memalign(align, n);
  if (!p)
    return 12;
  *out = p;
  return 0;
}
void* aligned_alloc(std::size_t align, std::size_t n) {
  note();
  return __libc_memalign(align, n);
}
}

void* operator new(std::size_t n) {
  note();
  if (void* p = __libc_malloc(n ? n : 1))
    return p;
  throw std::bad_alloc();
}
void* operator new[](std::size_t n) { return operator new(n); }
void operator delete(void* p) noexcept { __libc_free(p); }
void operator delete[](void* p) noexcept { __libc_free(p); }
void operator delete(void* p, std::size_t) noexcept { __libc_free(p); }
void operator delete[](void* p, std::size_t) noexcept { __libc_free(p); }
#endif

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
  allocations = 0;
  counting = true;
  unsigned ran = 0;
  for (int i = 0; i < 10000; ++i) {
    ran += s->_handleSchedulerRun(TaskPriority::scavenge);
    normal->scheduleTask();
  }
  high->unscheduleTask();
  normal->unscheduleTask();
  low->unscheduleTask();
  s->drive();
  counting = false;
  EXPECT_EQ(allocations.load(), 0u);
  EXPECT_EQ(ran, 10000u);
  EXPECT_EQ(ZuSlab::slabStats().blocksInUse, slabBefore.blocksInUse);
  EXPECT_GT(low->runs, 100u);
  EXPECT_GT(normal->runs, 100u);
  EXPECT_GE(callbacks, 1u);
  EXPECT_EQ(s->taskSchedulerHistory()->historyEventCount(), 100u);
#endif
}

TEST(NoAllocation, CounterSeesAnAllocation) {
#ifdef KESTO_SANITIZED
  GTEST_SKIP() << "the sanitizers own malloc";
#else
  allocations = 0;
  counting = true;
  auto* p = new int(3);
  counting = false;
  delete p;
  EXPECT_EQ(allocations.load(), 1u);
#endif
}
