// Moving and finding pending timeouts, on libevent's public interface.
//
// libevent keeps its timeouts in a min-heap and in common-timeout queues, and
// offers no way to shift them. What it does offer: event_base_foreach_event
// visits every added event, event_pending(ev, EV_TIMEOUT, &tv) gives an
// event's absolute expiry, and event_add on a pending event re-positions its
// timeout. So a shift is: collect the events with a pending timeout, read
// each expiry against one reading of "now" taken through a zero-delay probe
// event (so both are in the same clock, the one event_pending reports), and
// re-add each with its remaining time less the offset. Re-adding in order of
// expiry keeps the order: the base's clock only moves forward between two
// re-adds, and the remaining times only grow along the sorted list. Each
// re-add reads the clock again, so an expiry comes out later than exact by
// the time the operation took so far (microseconds): late, never early.
//
// event_base_foreach_event holds the base's lock and forbids touching events
// from its callback, so the callback only records pointers.
#include <Kesto/Platform/LibeventExtensions.h>
#include "Platform/LibeventExtensionsImpl.h"

#include <event2/event.h>
#include <event2/event_struct.h>

#include <algorithm>
#include <vector>

namespace Kesto::Platform::Impl {

namespace {

struct PendingTimeout {
  event* ev;
  timeval expiry;
};

// Reused between calls so that a jump of virtual time allocates only when
// the base holds more timeouts than ever before.
thread_local std::vector<event*> visited;
thread_local std::vector<PendingTimeout> pendingTimeouts;

int recordEvent(const event_base*, const event* ev, void*) {
  visited.push_back(const_cast<event*>(ev));
  return 0;
}

// Fills pendingTimeouts with every event of `base` but `except` that has a
// pending timeout, with its expiry.
void collectPendingTimeouts(event_base* base, const event* except) {
  visited.clear();
  pendingTimeouts.clear();
  event_base_foreach_event(base, recordEvent, nullptr);
  for (event* ev : visited) {
    // libevent's own events are left alone: the timer behind a common-timeout
    // queue only mirrors the queue's head, which is visited itself (and is
    // moved to the heap by a shift, leaving that timer to fire on nothing).
    if (ev == except || (ev->ev_evcallback.evcb_flags & EVLIST_INTERNAL))
      continue;
    timeval expiry;
    if (event_pending(ev, EV_TIMEOUT, &expiry))
      pendingTimeouts.push_back({ev, expiry});
  }
  visited.clear();
}

} // namespace

int firstTimeoutExcept(event_base* base, const event* except, timeval* first) {
  collectPendingTimeouts(base, except);
  if (pendingTimeouts.empty())
    return -1;
  const PendingTimeout& earliest = *std::min_element(
      pendingTimeouts.begin(), pendingTimeouts.end(),
      [](const PendingTimeout& a, const PendingTimeout& b) { return timercmp(&a.expiry, &b.expiry, <); });
  *first = earliest.expiry;
  pendingTimeouts.clear();
  return 0;
}

bool firstTimeoutAndNow(event_base* base, timeval* first, timeval* now) {
  // The probe is added first: adding may make libevent re-sample the offset
  // between its monotonic clock and the wall clock, which event_pending adds
  // to every expiry, so every reading is taken after it.
  NowProbe probe(base);
  const bool found = firstTimeoutExcept(base, probe.probe(), first) == 0;
  const timeval baseNow = probe.now();
  const timeval lag = coarseClockLagFloor();
  timeradd(&baseNow, &lag, now);
  return found;
}

int subtractOffset(event_base* base, const timeval* offset) {
  NowProbe probe(base);
  collectPendingTimeouts(base, probe.probe());
  const timeval now = probe.now();
  const timeval lag = coarseClockLagFloor();
  std::sort(pendingTimeouts.begin(), pendingTimeouts.end(),
            [](const PendingTimeout& a, const PendingTimeout& b) { return timercmp(&a.expiry, &b.expiry, <); });
  for (const PendingTimeout& pending : pendingTimeouts) {
    // May come out negative: event_add adds a relative timeout to the base's
    // present time as it is, so an expiry moved into the past lands there
    // with its distance to the others intact, and is simply due. Clamping
    // to zero instead would give several timeouts the same expiry, and the
    // heap keeps no order among equals.
    timeval remaining;
    timersub(&pending.expiry, &now, &remaining);
    timersub(&remaining, offset, &remaining);
    // Due now on CLOCK_MONOTONIC but not yet on the base's coarse clock,
    // which trails it: made due on the base's clock too, earlier by the lag,
    // so that the pass that follows a jump runs what the jump reached.
    if (!timercmp(&remaining, &lag, >))
      timersub(&remaining, &lag, &remaining);
    event_add(pending.ev, &remaining);
  }
  pendingTimeouts.clear();
  return 0;
}

} // namespace Kesto::Platform::Impl

extern "C" {

int event_base_timeout_subtract_offset(event_base* base, const timeval* offset) {
  if (!base)
    return -1;
  return Kesto::Platform::Impl::subtractOffset(base, offset);
}

int event_base_get_first_timeout(event_base* base, timeval* first) {
  if (!base)
    return -1;
  return Kesto::Platform::Impl::firstTimeoutExcept(base, nullptr, first);
}

} // extern "C"
