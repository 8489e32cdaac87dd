#include "Scheduler/LatencyRecorder.h"

#include <Kesto/Scheduler/TaskSchedulerHistory.h>

#include <algorithm>

namespace Kesto {

LatencyRecorder::LatencyRecorder(TaskDurationMs threshold, U32 eventsKept, unsigned historyCapacity)
    : threshold_(threshold), collector_(historyCapacity), slots_(eventsKept) {}

void LatencyRecorder::eventsKeptIs(U32 eventsKept) {
  if (eventsKept == slots_.size())
    return;
  std::vector<LatencyEvent, Allocator<LatencyEvent>> slots(eventsKept);
  const unsigned kept = std::min<unsigned>(size_, eventsKept);
  for (unsigned i = 0; i < kept; ++i)
    slots[i] = at(i);
  slots_.swap(slots);
  newest_ = 0;
  size_ = kept;
}

const LatencyEvent& LatencyRecorder::record(const TaskSchedulerHistory& history, const String& identifier,
                                            const String& schedulerName, TaskTimeStamp scheduledAt,
                                            TaskTimeStamp now) noexcept {
  // The slot before the newest, which is the oldest once the ring is full.
  const unsigned capacity = unsigned(slots_.size());
  newest_ = (newest_ == 0 ? capacity : newest_) - 1;
  if (size_ < capacity)
    ++size_;
  ++eventCount_;
  LatencyEvent& event = slots_[newest_];
  event.identifier = identifier;
  event.schedulerName = schedulerName;
  event.scheduledAt = scheduledAt;
  event.runStart = now;
  collector_.collect(history, event);
  return event;
}

std::vector<LatencyEvent> LatencyRecorder::events(U32 newest) const {
  const unsigned count = std::min<unsigned>(size_, newest);
  std::vector<LatencyEvent> events;
  events.reserve(count);
  for (unsigned i = 0; i < count; ++i)
    events.push_back(at(i));
  return events;
}

} // namespace Kesto
