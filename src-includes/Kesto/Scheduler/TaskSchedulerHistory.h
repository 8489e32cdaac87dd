// TaskSchedulerHistory: the flight recorder of a root scheduler.
//
// A fixed-capacity ring of the latest scheduler events, newest first: a
// report taken after something went wrong shows what the thread did just
// before. The root creates it and shares it by Ptr with every group under it;
// it is used on the root's thread only, without a lock.
//
// Recording allocates nothing: the ring's slots exist from construction (and
// from historyEntryCountIs) and recording assigns to one, and an event's identifier is a short or
// deduplicated String whose copy is a plain 24-byte copy. eventIdentifier()
// checks that property, because the ring outlives the tasks it names.
//
// The ring also carries the latency culprits of its root (LatencyCulprits.h):
// off by default; when on, a run that starts at least the threshold after
// its scheduling is attributed from the ring and kept in a second ring of
// the latest latency events. Off, the run path pays one compare with a
// threshold that no wait reaches.
#pragma once

#include <Kesto/Common/Export.h>

#include <Kesto/Core/Ptr.h>
#include <Kesto/Core/String.h>
#include <Kesto/Scheduler/LatencyCulprits.h>
#include <Kesto/Scheduler/TaskTypes.h>

#include <ZuSlab/Allocator.h>

#include <compare>
#include <cstddef>
#include <iterator>
#include <memory>
#include <vector>

namespace Kesto {

class _TaskBase;
class LatencyRecorder;
class TaskScheduler;

class KESTO_EXPORT TaskSchedulerEventType {
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

class KESTO_EXPORT TaskSchedulerHistory : public RefCount<HTCnt> {
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

    // Fails unless `type` is one of the task event types.
    static void eventNeedTask(TaskSchedulerEventType type) {
      if (type.value() >= TaskSchedulerEventType::firstSchedulerEvent) [[unlikely]]
        eventNotTaskEvent(type);
    }

  private:
    static void eventNotTaskEvent(TaskSchedulerEventType type);
  };

  class const_iterator;

  explicit TaskSchedulerHistory(unsigned capacity);
  ~TaskSchedulerHistory();

  // Puts the event first; when full the oldest falls off; with capacity 0
  // the event is dropped. Constant time, no allocation.
  void insert(Event&& event) noexcept {
    if (Event* slot = nextSlot()) [[likely]]
      *slot = std::move(event);
  }
  // The same from the parts of an event, written straight into its slot.
  // `identifier` must be short or deduplicated (its copy cannot allocate).
  void record(const TaskTimeStamp& timestamp, TaskSchedulerEventType type, const String& identifier) noexcept {
    if (Event* slot = nextSlot()) [[likely]] {
      slot->eventType = type;
      slot->timestamp = timestamp;
      slot->identifier = identifier;
    }
  }

  // Capacity of the ring.
  unsigned historyEntryCount() const noexcept { return unsigned(slots_.size()); }
  // Events held.
  unsigned historyEventCount() const noexcept { return size_; }
  // New capacity, keeping the newest events that fit, in order. 0 switches
  // recording off. Allocates (outside the run path).
  void historyEntryCountIs(unsigned capacity);
  // Removes all events; the capacity stays. `owner`, when given, names the
  // scheduler in the trace line.
  void clearHistory(const TaskScheduler* owner = nullptr);

  // --- latency culprits --------------------------------------------------------
  // Latency events kept at most: 4096 events of about 400 bytes are 1.6 MB,
  // and an operator reads the last few; more is a mistake in the argument.
  static constexpr U32 maxLatencyEventsKept = 4096;

  // On with a threshold and the number of events kept, off with a zero
  // threshold. Turning on allocates the ring of events and the walk's
  // scratch space; off releases them and the events. Changing the settings
  // while on keeps the events that fit and the count. A non-zero threshold
  // with `eventsKept` 0 or above maxLatencyEventsKept is a RuntimeException.
  void latencyCulpritsIs(TaskDurationMs threshold, U32 eventsKept);
  // 0 when off.
  TaskDurationMs latencyCulpritsThreshold() const noexcept;
  // 0 when off.
  U32 latencyEventsKept() const noexcept;
  // Events seen since latency culprits were turned on; 0 when off.
  U64 latencyEventCount() const noexcept;
  // At most `newest` of the kept events, newest first: a copy, which
  // allocates. Empty when off.
  std::vector<LatencyEvent> latencyEvents(U32 newest = ~U32(0)) const;

  // The run path: whether a wait of `waited` is a latency event. Off, the
  // threshold is the largest duration, which no wait reaches.
  bool latencyThresholdCrossed(TaskTimeDuration waited) const noexcept { return waited >= latencyThreshold_; }
  // Records the event of a task that waited on `schedulerName`'s queue
  // from `scheduledAt` to `now`, before its "run start" goes in. No
  // allocation, unless level 5 of "TaskScheduler" traces the event.
  [[gnu::cold]] void latencyEventRecord(const String& identifier, const String& schedulerName,
                                        TaskTimeStamp scheduledAt, TaskTimeStamp now);

  // Newest first.
  const_iterator begin() const noexcept;
  const_iterator end() const noexcept;
  const Event& operator[](unsigned i) const noexcept {
    unsigned slot = newest_ + i;
    if (slot >= slots_.size())
      slot -= unsigned(slots_.size());
    return slots_[slot];
  }

private:
  // The slot the next event goes to, which becomes the newest: the one
  // before the newest, where the oldest is once the ring is full. Null with
  // capacity 0.
  Event* nextSlot() noexcept {
    const unsigned capacity = unsigned(slots_.size());
    if (capacity == 0) [[unlikely]]
      return nullptr;
    newest_ = (newest_ == 0 ? capacity : newest_) - 1;
    if (size_ < capacity)
      ++size_;
    return &slots_[newest_];
  }

  // Every slot holds an Event from the start (a blank one until written), so
  // that recording only ever assigns. The newest event is at newest_, older
  // ones follow it, wrapping around.
  std::vector<Event, Allocator<Event>> slots_;
  unsigned newest_ = 0;
  unsigned size_ = 0;
  // TaskTimeDuration::max() while latency culprits are off.
  TaskTimeDuration latencyThreshold_ = TaskTimeDuration::max();
  std::unique_ptr<LatencyRecorder> latencyRecorder_;
};

// Walks the events newest first; random access, as over an array.
class KESTO_EXPORT TaskSchedulerHistory::const_iterator {
public:
  using iterator_category = std::random_access_iterator_tag;
  using value_type = Event;
  using difference_type = std::ptrdiff_t;
  using pointer = const Event*;
  using reference = const Event&;

  const_iterator() noexcept = default;
  const_iterator(const TaskSchedulerHistory* history, unsigned index) noexcept : history_(history), index_(index) {}

  reference operator*() const noexcept { return (*history_)[index_]; }
  pointer operator->() const noexcept { return &(*history_)[index_]; }
  reference operator[](difference_type n) const noexcept { return (*history_)[unsigned(index_ + n)]; }
  const_iterator& operator++() noexcept { ++index_; return *this; }
  const_iterator operator++(int) noexcept { const_iterator old = *this; ++index_; return old; }
  const_iterator& operator--() noexcept { --index_; return *this; }
  const_iterator operator--(int) noexcept { const_iterator old = *this; --index_; return old; }
  const_iterator& operator+=(difference_type n) noexcept { index_ = unsigned(index_ + n); return *this; }
  const_iterator& operator-=(difference_type n) noexcept { index_ = unsigned(index_ - n); return *this; }
  friend const_iterator operator+(const_iterator it, difference_type n) noexcept { return it += n; }
  friend const_iterator operator+(difference_type n, const_iterator it) noexcept { return it += n; }
  friend const_iterator operator-(const_iterator it, difference_type n) noexcept { return it -= n; }
  friend difference_type operator-(const const_iterator& a, const const_iterator& b) noexcept {
    return difference_type(a.index_) - difference_type(b.index_);
  }
  friend bool operator==(const const_iterator& a, const const_iterator& b) noexcept { return a.index_ == b.index_; }
  friend auto operator<=>(const const_iterator& a, const const_iterator& b) noexcept { return a.index_ <=> b.index_; }

private:
  const TaskSchedulerHistory* history_ = nullptr;
  unsigned index_ = 0;
};

inline TaskSchedulerHistory::const_iterator TaskSchedulerHistory::begin() const noexcept { return {this, 0}; }
inline TaskSchedulerHistory::const_iterator TaskSchedulerHistory::end() const noexcept { return {this, size_}; }

} // namespace Kesto

template <>
struct fmt::formatter<Kesto::TaskSchedulerEventType> : fmt::formatter<fmt::string_view> {
  auto format(Kesto::TaskSchedulerEventType t, fmt::format_context& ctx) const {
    return fmt::formatter<fmt::string_view>::format(t.eventTypeDisplay(), ctx);
  }
};
