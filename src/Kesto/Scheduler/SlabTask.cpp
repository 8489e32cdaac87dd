#include "Scheduler/SlabTask.h"

#include <Kesto/Scheduler/SlabAllocatorScheduler.h>
#include <Kesto/Scheduler/TaskScheduler.h>

#include <ZuSlab/ZuSlab.h>

namespace Kesto {

SlabTask::SlabTask(Ptr<TaskScheduler> scheduler, const String& name, MaintenanceFn maintenance, bool flag)
    : TimerTask(std::move(scheduler), TaskPriority::scavenge, name), flag_(flag), maintenance_(maintenance) {
  scheduleTaskJitterUp(period, periodJitterPercentage);
}

void SlabTask::taskExecute() {
  const std::pair<bool, unsigned long> result = maintenance_([this] { return taskShouldYield(); });
  if (result.first)
    TimerTask::scheduleTask();
  else
    scheduleTaskJitterUp(period, periodJitterPercentage);
  taskWorkCountInc(result.second);
}

void* SlabTask::operator new(std::size_t size) { return ZuSlab::slabAllocOrStdMalloc(size); }

void SlabTask::operator delete(void* p) noexcept { ZuSlab::slabFreeOrStdFree(p); }

void slabAllocatorSchedulerSet(Ptr<TaskScheduler> scheduler, bool flag) {
  // One page returner for the whole process: madvise works on the pool that
  // every heap shares.
  static const Ptr<SlabTask> pageMadvise(
      new SlabTask(scheduler, String("SlabPageMadvise"), &ZuSlab::slabAllocatorRunMadvise, flag));
  (void)pageMadvise;
  if (ZuSlab::slabAllocatorThreadMode() == 2) {
    // Per-thread heaps: a scanner can only look at the heap of the thread it
    // runs on, so each thread scans its own.
    thread_local const Ptr<SlabTask> threadScanner(
        new SlabTask(scheduler, String("SlabEmptyPageScanner"), &ZuSlab::slabAllocatorRunEmptyPageScanner, flag));
    (void)threadScanner;
  } else {
    static const Ptr<SlabTask> processScanner(
        new SlabTask(scheduler, String("SlabEmptyPageScanner"), &ZuSlab::slabAllocatorRunEmptyPageScanner, flag));
    (void)processScanner;
  }
}

} // namespace Kesto
