#include <Kesto/Platform/LibeventControls.h>
#include "Platform/LibeventExtensionsImpl.h"
#include <Kesto/Debug/Trace.h>
#include <Kesto/Platform/Time.h>

#include <ZuSlab/Allocator.h>

#include <algorithm>
#include <cstddef>
#include <limits>
#include <optional>

namespace Kesto {

using Platform::Impl::eventOnLiveBase;

namespace {

void handleTimeout(evutil_socket_t, short, void* control) {
  try {
    static_cast<LibeventTimerControl*>(control)->handler();
    Platform::Impl::afterHandler();
  } catch (...) {
    Platform::Impl::handlerThrew(std::current_exception());
  }
}

} // namespace

LibeventTimerControl::LibeventTimerControl(Platform::TimeoutHandler* handler, Platform::EventPriority priority)
    : TimerControl(handler), priority_(priority) {
  if (!ev_base)
    leInit();
  // Assigned now so that event_del and event_pending are valid on a control
  // that was never armed.
  event_assign(&event_, ev_base, -1, 0, nullptr, nullptr);
  eventPrioritySet(&event_, priority_);
}

LibeventTimerControl::~LibeventTimerControl() { LibeventTimerControl::delTimeout(); }

void LibeventTimerControl::setTimeout(double seconds) {
  const std::optional<timeval> tv = Platform::Impl::secondsToTimeval(seconds);
  // Our own removal, called directly: it inlines into this hot path.
  LibeventTimerControl::delTimeout();
  KESTO_TRACE(Debug::kestoLibevent, 9, "Kesto", "Timer {} set timeout {}", DisplayPointer(this), seconds);
  // Beyond any limit: a timer that never expires is a timer left disarmed.
  if (!tv) [[unlikely]]
    return;
  // For remainingTimeout(). Read before the lengthening below measures the
  // clocks, so that the arming moment is no later than the one the
  // lengthening counts from. A zero delay reads no clock.
  if (seconds > 0.0) {
    armedAt_ = time();
    delay_ = seconds;
  } else {
    delay_ = 0.0;
  }
  // Assigned anew on every arming, on the calling thread's base, unless the
  // idle event already carries exactly that assignment: re-arming a timer
  // from its own handler (the deferred callback's chain) then costs no more
  // than event_add. With level 9 on, the full path runs, for its trace.
  if (!alreadyAssigned() || KESTO_ENABLED(Debug::kestoLibevent, 9)) {
    event_assign(&event_, ev_base, -1, 0, handleTimeout, this);
    eventPrioritySet(&event_, priority_);
  }
  const timeval onBaseClock = Platform::Impl::forBaseClock(*tv);
  event_add(&event_, &onBaseClock);
}

void LibeventTimerControl::delTimeout() {
  KESTO_TRACE(Debug::kestoLibevent, 9, "Kesto", "Timer {} del timeout", DisplayPointer(this));
  // A timer that is neither pending nor active has nothing to remove, and
  // skipping the call saves a lock round trip on every re-arming.
  if (eventOnLiveBase(&event_) && (event_.ev_evcallback.evcb_flags & ~EVLIST_INIT))
    event_del(&event_);
}

double LibeventTimerControl::remainingTimeout() const {
  if (!pending())
    return std::numeric_limits<double>::infinity();
  // What the event itself says: measured against the base's own present
  // time, in the clock event_pending reports expiries in (the base's clock
  // shifted by an offset to the wall clock that libevent re-samples now and
  // then), then corrected by how far the base's clock trails
  // CLOCK_MONOTONIC. A direct wall clock reading would be off by whatever the
  // clocks drifted since libevent's sample.
  const Platform::Impl::NowProbe probe(ev_base);
  timeval expiry;
  event_pending(&event_, EV_TIMEOUT, &expiry);
  const timeval baseNow = probe.now();
  const timeval lag = Platform::Impl::coarseClockLagFloor();
  timeval now;
  timeradd(&baseNow, &lag, &now);
  if (!timercmp(&expiry, &now, >))
    return 0.0;
  timeval left;
  timersub(&expiry, &now, &left);
  double remaining = double(left.tv_sec) + double(left.tv_usec) / 1000000;
  // The event expires later than asked by the lengthening of forBaseClock(),
  // which must not show here: counted from the arming on Kesto::time(), the
  // remaining time is the delay less what has gone by. A jump of virtual
  // time moves the clock and the event alike. The smaller answer wins, so
  // that an event moved earlier by other means (or due on the base's clock)
  // is reported as it is. Written as the delay less the elapsed time, which
  // is never negative while the clock only goes forward, the answer cannot
  // exceed the delay through a rounding.
  if (delay_ > 0.0)
    remaining = std::min(remaining, delay_ - (time() - armedAt_));
  return remaining > 0.0 ? remaining : 0.0;
}

bool LibeventTimerControl::alreadyAssigned() const noexcept {
  const event_callback& callback = event_.ev_evcallback;
  return callback.evcb_flags == EVLIST_INIT && event_.ev_base == ev_base && event_.ev_fd == -1 &&
         event_.ev_events == 0 && callback.evcb_cb_union.evcb_callback == handleTimeout &&
         callback.evcb_arg == this && callback.evcb_pri == priority_;
}

bool LibeventTimerControl::pending() const noexcept {
  return eventOnLiveBase(&event_) && event_pending(&event_, EV_TIMEOUT, nullptr);
}

void LibeventTimerControl::handler() {
  KESTO_TRACE(Debug::kestoLibevent, 9, "Kesto", "Timer {} expired", DisplayPointer(this));
  // The handler may drop the last reference to this control; it outlives it.
  Platform::TimeoutHandler* handler = handler_;
  try {
    handler->timeout();
  } catch (...) {
    if (!handler->handleTimeoutException())
      throw;
    KESTO_TRACE(Debug::kestoLibevent, 9, "Kesto", "Timeout notification exception was handled");
  }
}

void* LibeventTimerControl::operator new(std::size_t size) { return Allocator<std::byte>().allocate(size); }
void LibeventTimerControl::operator delete(void* p) noexcept {
  Allocator<std::byte>().deallocate(static_cast<std::byte*>(p), 0);
}

Ptr<Platform::TimerControl> getLeTimerControl(Platform::TimeoutHandler* handler) {
  return getLeTimerControl(handler, Platform::eventPriorityDefault);
}

Ptr<Platform::TimerControl> getLeTimerControl(Platform::TimeoutHandler* handler, Platform::EventPriority priority) {
  return Ptr<Platform::TimerControl>(new LibeventTimerControl(handler, priority));
}

} // namespace Kesto
