// Fast forward: instead of sleeping until the next timer, the loop moves the
// thread's virtual clock and every pending timeout of its base forward by the
// same amount, so Kesto::time() and libevent's timeouts stay in step.
#include <Kesto/Platform/LibeventExtensions.h>
#include <Kesto/Platform/Platform.h>
#include "Platform/EvLoopBreak.h"
#include "Platform/LibeventExtensionsImpl.h"
#include <Kesto/Debug/Trace.h>

#include <cmath>
#include <optional>
#include <unordered_set>

namespace Kesto {

bool fastForward = false;

namespace {

using Platform::Impl::timevalToDouble;

std::unordered_set<void (*)()>& fastForwardChangeNotifiers() {
  static std::unordered_set<void (*)()> notifiers;
  return notifiers;
}

// The extra delay that makes the first timer surely due after the jump.
constexpr timeval extraDelay{0, 100};

} // namespace

bool leFastForward() noexcept { return fastForward; }

void setLeFastForward(bool on) {
  if (!ev_base)
    leInit();
  // Checked before the comparison: a call that would change nothing is
  // refused off the main thread too.
  KESTO_ASSERT(mainThread, "Kesto", "FastForward invoked from non-main thread");
  if (on == fastForward)
    return;
  fastForward = on;
  for (void (*notifier)() : fastForwardChangeNotifiers())
    notifier();
}

void leRegisterFastForwardChangeNotifier(void (*notifier)()) { fastForwardChangeNotifiers().insert(notifier); }

void applyFastForwardDelta(const timeval* delta) {
  event_base_timeout_subtract_offset(ev_base, delta);
  timeval& offset = virtualTimeOffset;
  offset.tv_sec += delta->tv_sec;
  offset.tv_usec += delta->tv_usec;
  if (offset.tv_usec > 999999) {
    offset.tv_sec += 1;
    offset.tv_usec -= 1000000;
  }
  KESTO_TRACE(Debug::kestoLibevent, 2, "Kesto", "Increasing virtual time offset by {} to {}",
              timevalToDouble(*delta), timevalToDouble(offset));
}

bool fastForwardDelayToFirstTimer(timeval* delay) {
  KESTO_ASSERT(fastForward, "Kesto", "Called without fast forward enabled");
  if (!ev_base)
    leInit();
  timeval first;
  timeval now;
  if (!Platform::Impl::firstTimeoutAndNow(ev_base, &first, &now)) {
    KESTO_TRACE(Debug::kestoLibevent, 9, "Kesto", "no timers");
    return false;
  }
  KESTO_TRACE(Debug::kestoLibevent, 2, "Kesto", "now: {} firstExpiryTime: {}", timevalToDouble(now),
              timevalToDouble(first));
  if (timercmp(&first, &now, >)) {
    timeval delta;
    timersub(&first, &now, &delta);
    timeradd(&delta, &extraDelay, delay);
    KESTO_TRACE(Debug::kestoLibevent, 9, "Kesto",
                "first timer will at {} now {} delta {} extraDelay {} return delta {}", timevalToDouble(first),
                timevalToDouble(now), timevalToDouble(delta), timevalToDouble(extraDelay),
                timevalToDouble(*delay));
    return true;
  }
  KESTO_TRACE(Debug::kestoLibevent, 9, "Kesto", "first timer expired at {} now {} return zero delta",
              timevalToDouble(first), timevalToDouble(now));
  timerclear(delay);
  return true;
}

void eventLoopFastForwardToFirstTimer(double maxTimeout) {
  KESTO_ASSERT(fastForward, "Kesto", "Called without fastForward enabled");
  KESTO_ASSERT(!std::isnan(maxTimeout), "Kesto", "maxTimeout is NaN");
  Platform::Impl::fastForwardTurn(maxTimeout);
}

namespace Platform::Impl {

bool fastForwardTurn(double maxTimeout) {
  KESTO_TRACE(Debug::kestoLibevent, 5, "Kesto", "maxTimeout {}", maxTimeout);
  // Virtual time does not go back: a negative limit allows no jump. From
  // unlimitedSeconds on there is no limit.
  const std::optional<timeval> limit = secondsToTimeval(maxTimeout > 0.0 ? maxTimeout : 0.0);
  timeval delay;
  const bool timerPending = fastForwardDelayToFirstTimer(&delay);
  bool waitIsOver = true;
  if (timerPending && (!limit || timercmp(&delay, &*limit, <))) {
    // Even a zero jump is applied: a timer due on CLOCK_MONOTONIC may not be
    // due yet on the base's coarse clock, and the shift makes it due there.
    applyFastForwardDelta(&delay);
    waitIsOver = false;
  } else if (limit) {
    // With no timer before it, the clock goes straight to the end of the
    // allowed time.
    applyFastForwardDelta(&*limit);
  }
  // Otherwise nothing is pending and there is no limit: an endless wait with
  // nothing to wait for leaves the clock where it is.

  // One pass over what has become due; the zero-delay break keeps it from
  // blocking.
  EvLoopBreak loopBreak(0.0);
  dispatch();
  return waitIsOver;
}

} // namespace Platform::Impl

namespace Platform {

bool fastForward() { return leFastForward(); }

void setFastForward(bool on) { setLeFastForward(on); }

void fastForwardBy(double seconds) {
  KESTO_ASSERT(leFastForward(), "Kesto::Platform", "fast-forwarding disabled");
  // Refused before anything moves. The sign is not checked: a negative jump
  // moves the clock and the timers back.
  KESTO_ASSERT(std::isfinite(seconds), "Kesto::Platform", "cannot fast forward by {} seconds: not a finite number",
               seconds);
  KESTO_ASSERT(std::fabs(seconds) < Impl::unlimitedSeconds, "Kesto::Platform",
               "cannot fast forward by {} seconds: a jump must stay below 1e15 seconds either way", seconds);
  const timeval delta = *Impl::secondsToTimeval(seconds);
  applyFastForwardDelta(&delta);
}

void registerFastForwardChangeNotifier(void (*notifier)()) { leRegisterFastForwardChangeNotifier(notifier); }

} // namespace Platform

} // namespace Kesto
