// LatencyRecorder: the latest latency events of one history ring.
//
// Exists while latency culprits are on, owned by the TaskSchedulerHistory
// that the root and its groups share. Everything it needs on the run path
// is allocated when it is made: a ring of `eventsKept` LatencyEvents (about
// 400 bytes each) and the collector's scratch space for the history's
// capacity. Recording an event writes into the oldest slot: the identifiers
// it copies are short or deduplicated, so no copy allocates.
//
// Thread: the root's thread.
#pragma once

#include <Kesto/Scheduler/LatencyCulprits.h>

#include <ZuSlab/Allocator.h>

#include <vector>

namespace Kesto {

class LatencyRecorder {
public:
  LatencyRecorder(TaskDurationMs threshold, U32 eventsKept, unsigned historyCapacity);

  TaskDurationMs threshold() const noexcept { return threshold_; }
  void thresholdIs(TaskDurationMs threshold) noexcept { threshold_ = threshold; }
  U32 eventsKept() const noexcept { return U32(slots_.size()); }
  // A new ring of `eventsKept` slots that takes over the newest events that
  // fit, in order. Allocates.
  void eventsKeptIs(U32 eventsKept);
  void historyCapacityIs(unsigned capacity) { collector_.historyCapacityIs(capacity); }
  // Events recorded since the recorder was made.
  U64 eventCount() const noexcept { return eventCount_; }

  // Fills the next slot from `history` and returns it. No allocation.
  const LatencyEvent& record(const TaskSchedulerHistory& history, const String& identifier,
                             const String& schedulerName, TaskTimeStamp scheduledAt, TaskTimeStamp now) noexcept;

  // At most `newest` events, newest first. Allocates (the caller's copy).
  std::vector<LatencyEvent> events(U32 newest) const;

private:
  const LatencyEvent& at(unsigned i) const noexcept {
    unsigned slot = newest_ + i;
    if (slot >= slots_.size())
      slot -= unsigned(slots_.size());
    return slots_[slot];
  }

  TaskDurationMs threshold_;
  LatencyCulpritsCollector collector_;
  // Newest at newest_, older ones after it, wrapping around, as in the
  // history ring.
  std::vector<LatencyEvent, Allocator<LatencyEvent>> slots_;
  unsigned newest_ = 0;
  unsigned size_ = 0;
  U64 eventCount_ = 0;
};

} // namespace Kesto
