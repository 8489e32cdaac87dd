// _TaskBase: what every task-like object of the scheduler has.
//
// The priority, the yield-ratio bytes, the owning reference to the scheduler,
// the three deduplicated names and the last seen busy state live here, so
// that a descriptor task, which is a task only in name and holds two real
// tasks, shares them with TaskImpl. The virtual operations below keep their
// slot order in every class further down.
//
// Ownership: an object is held by Ptrs of its creators; it holds its
// scheduler (never null after construction). Deallocation belongs to each
// concrete class: operator delete here terminates, so a class that forgot to
// bring its own (slab or global) operator delete fails loudly instead of
// freeing memory it did not allocate.
//
// Thread: the thread of the scheduler's root, always.
#pragma once

#include <Kesto/Common/Export.h>

#include <Kesto/Core/Ptr.h>
#include <Kesto/Core/String.h>
#include <Kesto/Scheduler/TaskPriority.h>
#include <Kesto/Scheduler/TaskSchedulerHistory.h>
#include <Kesto/Scheduler/TaskTypes.h>
#include <Kesto/Debug/Trace.h>

#include <fmt/format.h>

#include <exception>
#include <iosfwd>
#include <type_traits>

namespace Kesto {

class TaskScheduler;

class KESTO_EXPORT _TaskBase : public RefCount<HTCnt> {
public:
  _TaskBase(const _TaskBase&) = delete;
  _TaskBase& operator=(const _TaskBase&) = delete;

  // --- virtual operations, in slot order ----------------------------------
  virtual void taskStatsNameIs(String name) = 0;
  virtual bool taskScheduled() const = 0;
  virtual bool taskShouldYield() const = 0;
  virtual void taskWorkCountInc(unsigned long n) = 0;
  virtual void taskWorkPendingIs(unsigned int n) = 0;
  // Called whenever taskScheduled() has changed value.
  virtual void handleTaskBusy() {}
  // Called once for each statistics reset.
  virtual void handleResetStats() {}
  virtual ~_TaskBase();

  static void operator delete(void*) noexcept { std::terminate(); }

  // --- reading ------------------------------------------------------------
  TaskPriority taskPriority() const noexcept { return taskPriority_; }
  const String& taskName() const noexcept { return taskName_; }
  const String& taskStatsName() const noexcept { return taskStatsName_; }
  const String& taskHistoryIdentifier() const noexcept { return taskHistoryIdentifier_; }
  TaskScheduler* taskSchedulerPtr() const noexcept { return taskScheduler_.get(); }
  const String& taskSchedulerName() const noexcept;

  // Records an event of this task in the scheduler's history ring.
  void taskHistoryInsert(const TaskTimeStamp& when, const TaskSchedulerEventType& type) const;
  // Priority letter, blank, name; deduplicated.
  String calculateTaskHistoryIdentifier() const;

protected:
  _TaskBase(Ptr<TaskScheduler> scheduler, TaskPriority priority, const String& name);

  TaskPriority taskPriority_;
  U8 taskTestYieldRatio_ = 0;
  U8 taskYieldRatio_ = 0;
  // Advanced by taskShouldYield() (a const query) in ratio mode; wraps.
  mutable U8 taskYieldCount_ = 0;
  Ptr<TaskScheduler> taskScheduler_;
  String taskName_;
  String taskStatsName_;
  String taskHistoryIdentifier_;
  bool taskBusy_ = false;
};

// "scheduler:priority:name@0x...".
KESTO_EXPORT std::ostream& operator<<(std::ostream& os, const _TaskBase* task);

} // namespace Kesto

template <typename T>
struct fmt::formatter<T, char, std::enable_if_t<std::is_base_of_v<Kesto::_TaskBase, T>>>
    : fmt::formatter<fmt::string_view> {
  auto format(const Kesto::_TaskBase& task, fmt::format_context& ctx) const {
    return fmt::format_to(ctx.out(), "{}:{}:{}@{}", task.taskSchedulerName(), task.taskPriority(),
                          task.taskName(), Kesto::DisplayPointer(&task));
  }
};
