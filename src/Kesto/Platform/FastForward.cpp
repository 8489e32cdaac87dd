// Fast forward: instead of sleeping until the next timer, the loop moves the
// thread's virtual clock and every pending timeout of its base forward by the
// same amount, so Kesto::time() and libevent's timeouts stay in step.
#include <Kesto/Platform/LibeventExtensions.h>
#include <Kesto/Platform/Platform.h>
#include "Platform/EvLoopBreak.h"
#include "Platform/LibeventExtensionsImpl.h"
#include <Kesto/Debug/Trace.h>

#include <unordered_set>

namespace Kesto {

bool fastForward = false;

namespace {

using Platform::Impl::timevalToDouble;

std::unordered_set<void (*)()>& fastForwardChangeNotifiers() {
  static std::unordered_set<void (*)()> notifiers;
  return notifiers;
}

// Past this many seconds a limit is no limit: the conversion to a timeval
// would overflow, and an endless wait with nothing pending must not move
// the clock to the end of time.
constexpr double unlimitedSeconds = 1e15;

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
  KESTO_TRACE(Debug::kestoLibevent, 5, "Kesto", "maxTimeout {}", maxTimeout);
  KESTO_ASSERT(fastForward, "Kesto", "Called without fastForward enabled");
  const bool limited = maxTimeout < unlimitedSeconds;
  const timeval limit = limited ? Platform::Impl::secondsToTimeval(maxTimeout) : timeval{0, 0};
  timeval delay;
  timeval jump;
  if (fastForwardDelayToFirstTimer(&delay))
    jump = !limited || timercmp(&delay, &limit, <) ? delay : limit;
  else
    // With no timer the clock goes straight to the end of the allowed time.
    jump = limit;
  applyFastForwardDelta(&jump);
  // One pass over what has become due; the zero-delay break keeps it from
  // blocking.
  EvLoopBreak loopBreak(0.0);
  Platform::Impl::dispatch();
}

namespace Platform {

bool fastForward() { return leFastForward(); }

void setFastForward(bool on) { setLeFastForward(on); }

void fastForwardBy(double seconds) {
  KESTO_ASSERT(leFastForward(), "Kesto::Platform", "fast-forwarding disabled");
  const timeval delta = Impl::secondsToTimeval(seconds);
  applyFastForwardDelta(&delta);
}

void registerFastForwardChangeNotifier(void (*notifier)()) { leRegisterFastForwardChangeNotifier(notifier); }

} // namespace Platform

} // namespace Kesto
