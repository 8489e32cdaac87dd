// TaskSchedulerHistory: the flight recorder of a root scheduler.
//
// A fixed-capacity ring of the latest scheduler events, newest first: a
// report taken after something went wrong shows what the thread did just
// before. The root creates it and shares it by Ptr with every group under it;
// it is used on the root's thread only, without a lock.
//
// Recording allocates nothing: the ring's slots exist from construction (and
// from historyEntryCountIs), and an event's identifier is a short or
// deduplicated String whose copy is a plain 24-byte copy. eventIdentifier()
// checks that property, because the ring outlives the tasks it names.
#pragma once

#include <Kesto/Core/Ptr.h>
#include <Kesto/Core/String.h>
#include <Kesto/TaskTypes.h>

#include <ZuSlab/Allocator.h>

#include <boost/circular_buffer.hpp>

namespace Kesto {

class _TaskBase;
class TaskScheduler;

class TaskSchedulerEventType {
public:
  enum Value : U8 {
    // Events of a task.
    schedule = 0,
    unschedule = 1,
    runStart = 2,
    runEnd = 3,
    timerStart = 4,
    timerStop = 5,
    suspendOn = 6,
    suspendOff = 7,
    scheduleSus = 8,
    frcYieldOn = 9,
    frcYieldOff = 10,
    idle = 11,
    busy = 12,
    create = 13,
    destroy = 14,
    fdReadable = 15,
    fdWritable = 16,
    // Events of a scheduler.
    schedulerBusy = 17,
    schedulerIdle = 18,
    schedulerHasRunnableTasks = 19,
    schedulerHasNoRunnableTasks = 20,
    schedulerSuspended = 21,
    schedulerUnsuspended = 22,
    schedulerRunIgnoredWhileSuspended = 23,
    schedulerVirtualTimeOn = 24,
    schedulerVirtualTimeOff = 25,
    schedulerTestYieldRatioOn = 26,
    schedulerTestYieldRatioOff = 27,
    schedulerRunCriticalStart = 28,
    schedulerRunCriticalEnd = 29,
  };
  static constexpr unsigned count = 30;
  static constexpr U8 firstSchedulerEvent = schedulerBusy;

  constexpr TaskSchedulerEventType() noexcept = default;
  constexpr TaskSchedulerEventType(Value v) noexcept : value_(v) {}
  constexpr explicit TaskSchedulerEventType(unsigned v) noexcept : value_(static_cast<Value>(v)) {}
  constexpr operator Value() const noexcept { return value_; }
  constexpr U8 value() const noexcept { return value_; }

  // The display text ("schedule", "run start", ...); another value is a
  // programming error.
  const char* eventTypeDisplay() const;

private:
  Value value_ = schedule;
};

class TaskSchedulerHistory : public RefCount<HTCnt> {
public:
  class Event {
  public:
    // A task event; a scheduler event type here is a programming error.
    Event(const TaskTimeStamp& timestamp, TaskSchedulerEventType type, const _TaskBase* task);
    // A scheduler event; identified by the scheduler's name.
    Event(const TaskTimeStamp& timestamp, TaskSchedulerEventType type, const TaskScheduler* scheduler);
    // An event from its parts, for tests and for copies of the ring.
    Event(const TaskTimeStamp& timestamp, TaskSchedulerEventType type, String identifier) noexcept
        : eventType(type), timestamp(timestamp), identifier(std::move(identifier)) {}

    // The identifier, after checking that it stays valid without an owner.
    const String& eventIdentifier() const;
    const char* eventTypeDisplay() const { return eventType.eventTypeDisplay(); }

    TaskSchedulerEventType eventType;
    TaskTimeStamp timestamp;
    String identifier;

  private:
    void eventNeedTask() const;
  };

  using Ring = boost::circular_buffer<Event, Allocator<Event>>;
  using const_iterator = Ring::const_iterator;

  explicit TaskSchedulerHistory(unsigned capacity) : ring_(capacity) {}

  // Puts the event first; when full the oldest falls off; with capacity 0
  // the event is dropped. Constant time, no allocation.
  void insert(Event&& event) noexcept {
    if (ring_.capacity() != 0) [[likely]]
      ring_.push_front(std::move(event));
  }

  // Capacity of the ring.
  unsigned historyEntryCount() const noexcept { return unsigned(ring_.capacity()); }
  // Events held.
  unsigned historyEventCount() const noexcept { return unsigned(ring_.size()); }
  // New capacity, keeping the newest events that fit, in order. 0 switches
  // recording off. Allocates (outside the run path).
  void historyEntryCountIs(unsigned capacity);
  // Removes all events; the capacity stays. `owner`, when given, names the
  // scheduler in the trace line.
  void clearHistory(const TaskScheduler* owner = nullptr);

  // Newest first.
  const_iterator begin() const noexcept { return ring_.begin(); }
  const_iterator end() const noexcept { return ring_.end(); }
  const Event& operator[](unsigned i) const noexcept { return ring_[i]; }

private:
  Ring ring_;
};

} // namespace Kesto

template <>
struct fmt::formatter<Kesto::TaskSchedulerEventType> : fmt::formatter<fmt::string_view> {
  auto format(Kesto::TaskSchedulerEventType t, fmt::format_context& ctx) const {
    return fmt::formatter<fmt::string_view>::format(t.eventTypeDisplay(), ctx);
  }
};
