// SlabTask: a timer task that runs one maintenance function of the slab
// allocator in the time other tasks leave over.
//
// Made only by slabAllocatorSchedulerSet (Kesto/Scheduler/
// SlabAllocatorScheduler.h), at priority scavenge. The first run comes 60 to
// 75 seconds after construction (60 s plus up to 25 % jitter). A run hands
// the allocator the task's own taskShouldYield() as its stop predicate, so a
// scan ends when the quantum is used up; when the function reports more work
// pending the task queues itself at once, otherwise it sleeps another 60 to
// 75 seconds. The amount of work done goes into the task's work counters.
//
// Ownership: held by a function-local static or a thread-local Ptr in
// slabAllocatorSchedulerSet. Allocation: from the slab allocator; a run
// allocates nothing (the predicate fits std::function's inline buffer).
// Thread: the thread of its scheduler's root.
#pragma once

#include <Kesto/Scheduler/TimerTask.h>

#include <cstddef>
#include <functional>
#include <utility>

namespace Kesto {

class SlabTask final : public TimerTask {
public:
  // (more work is pending now, amount of work done) = fn(stop predicate).
  using MaintenanceFn = std::pair<bool, unsigned long> (*)(std::function<bool()>);

  SlabTask(Ptr<TaskScheduler> scheduler, const String& name, MaintenanceFn maintenance, bool flag);

  void taskExecute() override;

  bool flag() const noexcept { return flag_; }
  MaintenanceFn maintenance() const noexcept { return maintenance_; }

  static constexpr double period = 60.0;
  static constexpr unsigned char periodJitterPercentage = 25;

  static void* operator new(std::size_t size);
  static void operator delete(void* p) noexcept;

private:
  bool flag_;
  MaintenanceFn maintenance_;
};

} // namespace Kesto
