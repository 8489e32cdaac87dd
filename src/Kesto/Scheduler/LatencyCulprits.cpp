#include <Kesto/Scheduler/LatencyCulprits.h>
#include <Kesto/Scheduler/TaskSchedulerHistory.h>

#include <algorithm>
#include <bit>

namespace Kesto {

namespace {

// FNV-1a over the text: identifiers short enough to live in place are equal
// by content, not by address, so the table hashes the bytes.
U32 identifierHash(std::string_view text) noexcept {
  U32 h = 2166136261u;
  for (unsigned char c : text) {
    h ^= c;
    h *= 16777619u;
  }
  return h;
}

unsigned tableSizeFor(unsigned capacity) noexcept {
  return std::bit_ceil(std::max(16u, 2u * capacity));
}

} // namespace

TaskTimeDuration LatencyEvent::outsideRuns() const noexcept {
  TaskTimeDuration rest = latency - culpritsLeftOutTime;
  for (const LatencyCulprit& c : culpritList())
    rest -= c.runTime;
  return rest;
}

LatencyCulpritsCollector::LatencyCulpritsCollector(unsigned historyCapacity) { historyCapacityIs(historyCapacity); }

void LatencyCulpritsCollector::historyCapacityIs(unsigned historyCapacity) {
  // A walk pushes at most one open run per event and credits at most one
  // identifier per event: the capacity bounds both.
  open_.assign(historyCapacity, OpenRun{nullptr, TaskTimeDuration(0)});
  table_.assign(tableSizeFor(historyCapacity), Slot{nullptr, TaskTimeDuration(0), 0, 0});
  used_.assign(historyCapacity + 1, 0);
  usedCount_ = 0;
  epoch_ = 0;
  capacity_ = historyCapacity;
}

void LatencyCulpritsCollector::credit(const String& identifier, TaskTimeDuration runTime) noexcept {
  const U32 mask = U32(table_.size() - 1);
  for (U32 i = identifierHash(identifier.view()) & mask;; i = (i + 1) & mask) {
    Slot& slot = table_[i];
    if (slot.epoch != epoch_) {
      slot = Slot{&identifier, runTime, 1, epoch_};
      used_[usedCount_++] = i;
      return;
    }
    if (*slot.identifier == identifier) {
      slot.runTime += runTime;
      ++slot.runs;
      return;
    }
  }
}

void LatencyCulpritsCollector::collect(const TaskSchedulerHistory& history, LatencyEvent& event) noexcept {
  const TaskTimeStamp windowStart = event.scheduledAt;
  const TaskTimeStamp windowEnd = event.runStart;
  event.latency = windowEnd - windowStart;

  if (++epoch_ == 0) {
    // Once in four billion walks: forget every slot for good.
    for (Slot& slot : table_)
      slot.epoch = 0;
    epoch_ = 1;
  }
  usedCount_ = 0;

  // Newest first, back to the late task's own "schedule" event or to the
  // first event older than the window; `start` is the index of that event,
  // which the sweep leaves out. Events with the window start's own stamp
  // but older than the schedule event stay out too when the schedule event
  // is found: they came before the task waited.
  const unsigned held = std::min(history.historyEventCount(), capacity_);
  unsigned start = held;
  bool covered = false;
  for (unsigned i = 0; i < held; ++i) {
    const TaskSchedulerHistory::Event& e = history[i];
    if (e.timestamp < windowStart ||
        (e.eventType == TaskSchedulerEventType::schedule && e.timestamp == windowStart &&
         e.identifier == event.identifier)) {
      start = i;
      covered = true;
      break;
    }
  }
  event.historyCoversWindow = covered;

  // Oldest to newest: every stretch between two events goes to the
  // innermost run in progress, or, with none known to be in progress, to a
  // pool of time that the next "run end" without its "run start" takes (that
  // run was in progress since before the walk began, so it enclosed all of
  // that time except the runs already credited).
  unsigned depth = 0;
  TaskTimeDuration unowned(0);
  TaskTimeStamp at = windowStart;
  auto advanceTo = [&](TaskTimeStamp t) {
    if (t > windowEnd)
      t = windowEnd;
    if (t <= at)
      return;
    const TaskTimeDuration stretch = t - at;
    at = t;
    if (depth != 0)
      open_[depth - 1].selfTime += stretch;
    else
      unowned += stretch;
  };
  for (unsigned i = start; i-- > 0;) {
    const TaskSchedulerHistory::Event& e = history[i];
    if (e.eventType == TaskSchedulerEventType::runStart) {
      advanceTo(e.timestamp);
      open_[depth++] = OpenRun{&e.identifier, TaskTimeDuration(0)};
    } else if (e.eventType == TaskSchedulerEventType::runEnd) {
      advanceTo(e.timestamp);
      if (depth != 0) {
        // Runs nest like calls: the innermost one ends first. The end's
        // identifier is the task's current one (a run may change its own
        // priority letter).
        credit(e.identifier, open_[--depth].selfTime);
      } else {
        credit(e.identifier, unowned);
        unowned = TaskTimeDuration(0);
      }
    }
  }
  advanceTo(windowEnd);
  // Runs still in progress at the window's end enclose the late task's run
  // (a group's parent task, a task running critical ones).
  while (depth != 0) {
    --depth;
    credit(*open_[depth].identifier, open_[depth].selfTime);
  }

  // Largest first; ties by more runs, then by identifier, so the order is
  // the same whatever the table's layout.
  auto larger = [this](U32 a, U32 b) {
    const Slot& x = table_[a];
    const Slot& y = table_[b];
    if (x.runTime != y.runTime)
      return x.runTime > y.runTime;
    if (x.runs != y.runs)
      return x.runs > y.runs;
    return x.identifier->view() < y.identifier->view();
  };
  const unsigned kept = std::min<unsigned>(usedCount_, LatencyEvent::maxCulprits);
  std::partial_sort(used_.begin(), used_.begin() + kept, used_.begin() + usedCount_, larger);
  for (unsigned i = 0; i < kept; ++i) {
    const Slot& slot = table_[used_[i]];
    LatencyCulprit& culprit = event.culprits[i];
    culprit.identifier = *slot.identifier;
    culprit.runTime = slot.runTime;
    culprit.runs = slot.runs;
  }
  for (unsigned i = kept; i < LatencyEvent::maxCulprits; ++i)
    event.culprits[i] = LatencyCulprit{};
  event.culpritCount = kept;
  event.culpritsLeftOut = usedCount_ - kept;
  event.culpritsLeftOutTime = TaskTimeDuration(0);
  for (unsigned i = kept; i < usedCount_; ++i)
    event.culpritsLeftOutTime += table_[used_[i]].runTime;
}

} // namespace Kesto
