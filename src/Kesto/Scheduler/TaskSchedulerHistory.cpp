#include <Kesto/Scheduler/TaskBase.h>
#include <Kesto/Scheduler/TaskScheduler.h>
#include <Kesto/Scheduler/TaskSchedulerHistory.h>
#include <Kesto/Debug/Trace.h>

#include "Scheduler/LatencyRecorder.h"

#include <fmt/format.h>

#include <iterator>

namespace Kesto {

namespace {
constexpr const char* className = "TaskSchedulerHistory";

constexpr const char* eventTypeTexts[TaskSchedulerEventType::count] = {
    "schedule",
    "unschedule",
    "run start",
    "run end",
    "timerStart",
    "timerStop",
    "suspendOn",
    "suspendOff",
    "scheduleSus",
    "frcYieldOn",
    "frcYieldOff",
    "idle",
    "busy",
    "create",
    "delete",
    "fdReadable",
    "fdWritable",
    "schedulerBusy",
    "schedulerIdle",
    "schedulerHasRunnableTasks",
    "schedulerHasNoRunnableTasks",
    "schedulerSuspended",
    "schedulerUnsuspended",
    "schedulerRunIgnoredWhileSuspended",
    "schedulerVirtualTimeOn",
    "schedulerVirtualTimeOff",
    "schedulerTestYieldRatioOn",
    "schedulerTestYieldRatioOff",
    "schedulerRunCriticalStart",
    "schedulerRunCriticalEnd",
};
} // namespace

const char* TaskSchedulerEventType::eventTypeDisplay() const {
  KESTO_ASSERT(value_ < count, className, "unexpected eventType {}", unsigned(value_));
  return eventTypeTexts[value_];
}

TaskSchedulerHistory::Event::Event(const TaskTimeStamp& when, TaskSchedulerEventType type, const _TaskBase* task)
    : eventType(type), timestamp(when), identifier(task->taskHistoryIdentifier()) {
  eventNeedTask(type);
}

TaskSchedulerHistory::Event::Event(const TaskTimeStamp& when, TaskSchedulerEventType type,
                                   const TaskScheduler* scheduler)
    : eventType(type), timestamp(when), identifier(scheduler->schedulerName()) {}

void TaskSchedulerHistory::Event::eventNotTaskEvent(TaskSchedulerEventType type) {
  if (type.value() < TaskSchedulerEventType::count)
    KESTO_FAIL(className, "EventType: {}", unsigned(type.value()));
  KESTO_FAIL(className, "unexpected eventType={}", unsigned(type.value()));
}

const String& TaskSchedulerHistory::Event::eventIdentifier() const {
  // The ring outlives the tasks it names: only a text held in place or in
  // the never-freed deduplication table is safe to keep without an owner.
  KESTO_ASSERT(identifier.isShort() || identifier.isDedup(), className,
               "EventType: {} identifier {} is neither short string optimized nor deduped", eventTypeDisplay(),
               identifier);
  return identifier;
}

namespace {
// `capacity` slots, each holding a blank event until one is written there.
std::vector<TaskSchedulerHistory::Event, Allocator<TaskSchedulerHistory::Event>> blankSlots(unsigned capacity) {
  using Event = TaskSchedulerHistory::Event;
  return std::vector<Event, Allocator<Event>>(capacity, Event(TaskTimeStamp{}, TaskSchedulerEventType(0u), String()));
}
} // namespace

TaskSchedulerHistory::TaskSchedulerHistory(unsigned capacity) : slots_(blankSlots(capacity)) {}

TaskSchedulerHistory::~TaskSchedulerHistory() = default;

void TaskSchedulerHistory::historyEntryCountIs(unsigned capacity) {
  if (capacity == slots_.size())
    return;
  // The newest events that fit, newest first from slot 0.
  auto slots = blankSlots(capacity);
  const unsigned kept = size_ < capacity ? size_ : capacity;
  for (unsigned i = 0; i < kept; ++i)
    slots[i] = (*this)[i];
  slots_.swap(slots);
  newest_ = 0;
  size_ = kept;
  if (latencyRecorder_)
    latencyRecorder_->historyCapacityIs(capacity);
}

void TaskSchedulerHistory::clearHistory(const TaskScheduler* owner) {
  if (owner)
    KESTO_TRACE(Debug::taskScheduler, 2, className, "{} history cleared", *owner);
  size_ = 0;
  newest_ = 0;
}

// --- latency culprits ------------------------------------------------------------

void TaskSchedulerHistory::latencyCulpritsIs(TaskDurationMs threshold, U32 eventsKept) {
  if (threshold.count() == 0) {
    latencyThreshold_ = TaskTimeDuration::max();
    latencyRecorder_.reset();
    return;
  }
  if (eventsKept == 0)
    KESTO_THROW(Debug::taskScheduler, className,
                "latency culprits with a threshold of {}ms need at least 1 event kept, not 0", threshold.count());
  if (eventsKept > maxLatencyEventsKept)
    KESTO_THROW(Debug::taskScheduler, className, "latency culprits keep at most {} events, not {}",
                maxLatencyEventsKept, eventsKept);
  if (latencyRecorder_) {
    latencyRecorder_->thresholdIs(threshold);
    latencyRecorder_->eventsKeptIs(eventsKept);
  } else {
    latencyRecorder_ = std::make_unique<LatencyRecorder>(threshold, eventsKept, historyEntryCount());
  }
  latencyThreshold_ = threshold;
}

TaskDurationMs TaskSchedulerHistory::latencyCulpritsThreshold() const noexcept {
  return latencyRecorder_ ? latencyRecorder_->threshold() : TaskDurationMs(0);
}

U32 TaskSchedulerHistory::latencyEventsKept() const noexcept {
  return latencyRecorder_ ? latencyRecorder_->eventsKept() : 0;
}

U64 TaskSchedulerHistory::latencyEventCount() const noexcept {
  return latencyRecorder_ ? latencyRecorder_->eventCount() : 0;
}

std::vector<LatencyEvent> TaskSchedulerHistory::latencyEvents(U32 newest) const {
  return latencyRecorder_ ? latencyRecorder_->events(newest) : std::vector<LatencyEvent>();
}

void TaskSchedulerHistory::latencyEventRecord(const String& identifier, const String& schedulerName,
                                              TaskTimeStamp scheduledAt, TaskTimeStamp now) {
  const LatencyEvent& event = latencyRecorder_->record(*this, identifier, schedulerName, scheduledAt, now);
  if (KESTO_ENABLED(Debug::taskScheduler, 5)) {
    std::string culprits;
    for (const LatencyCulprit& c : event.culpritList())
      fmt::format_to(std::back_inserter(culprits), "{}{} {} in {} run{}", culprits.empty() ? "" : ", ",
                     c.identifier, durationToString(c.runTime), c.runs, c.runs == 1 ? "" : "s");
    if (event.culpritsLeftOut != 0)
      fmt::format_to(std::back_inserter(culprits), ", {} more {}", event.culpritsLeftOut,
                     durationToString(event.culpritsLeftOutTime));
    KESTO_TRACE(Debug::taskScheduler, 5, className, "{} Latency {} of {}, culprits: {}{}", event.schedulerName,
                durationToString(event.latency), event.identifier, culprits.empty() ? "none" : culprits,
                event.historyCoversWindow ? "" : " (history does not cover the window)");
  }
}

} // namespace Kesto
