// Private helpers shared by the libevent backend's files.
#pragma once

#include <Kesto/Core/Publisher.h>
#include <Kesto/Platform/Libevent.h>
#include <Kesto/Platform/SteadyClock.h>

#include <event2/event.h>
#include <event2/event_struct.h>
#include <sys/time.h>
#include <time.h>

#include <cmath>
#include <exception>
#include <optional>

namespace Kesto::Platform::Impl {

// From this many seconds on (about 31 million years) a delay is no limit at
// all. Below it a timeval holds the value with room to spare, and libevent's
// sums of such a value and its clock cannot overflow; beyond it they could,
// and the conversion to time_t is undefined from about 9.2e18 on.
constexpr double unlimitedSeconds = 1e15;

// Seconds as a timeval: whole seconds truncated, then the fraction's
// microseconds truncated. Every conversion of seconds in the backend goes
// through here, and it saturates instead of overflowing: from
// unlimitedSeconds on, and for +infinity and NaN, the answer is "no limit"
// (nullopt); at or below -unlimitedSeconds it is -unlimitedSeconds, which is
// as far in the past as anything needs to be. The callers decide what no
// limit means to them; those that must refuse NaN check before calling.
inline std::optional<timeval> secondsToTimeval(double seconds) noexcept {
  if (!(seconds < unlimitedSeconds))
    return std::nullopt;
  if (seconds < -unlimitedSeconds)
    seconds = -unlimitedSeconds;
  timeval tv;
  tv.tv_sec = static_cast<time_t>(seconds);
  tv.tv_usec = static_cast<suseconds_t>((seconds - static_cast<double>(tv.tv_sec)) * 1000000);
  return tv;
}

// A timeval as one double in traces.
inline double timevalToDouble(const timeval& tv) noexcept {
  return double(tv.tv_usec) / 1e6 + double(tv.tv_sec);
}

// ---- agreement of the base's clock with Kesto::time() -------------------
// The base reads CLOCK_MONOTONIC_COARSE (libevent's default: the precise
// clock would make epoll re-arm a timerfd on every turn of the loop, which
// makes a turn several times dearer). The coarse clock trails
// CLOCK_MONOTONIC, which Kesto::time() reads, by up to one tick (4 ms). So
// relative timeouts are lengthened by the present lag, which makes them
// expire no earlier than asked as CLOCK_MONOTONIC counts, and late by at
// most one tick; a zero timeout is due at once on any clock and is left as
// it is. Readers of remaining time and of "now" correct by the same lag.

// Nanoseconds by which the coarse clock trails CLOCK_MONOTONIC now: the
// coarse clock is read first, so the answer errs on the large side.
inline long coarseClockLagNanosSince(const timespec& coarse) noexcept {
  timespec precise;
  clock_gettime(CLOCK_MONOTONIC, &precise);
  const long lag = (precise.tv_sec - coarse.tv_sec) * 1000000000L + (precise.tv_nsec - coarse.tv_nsec);
  return lag > 0 ? lag : 0;
}

inline long coarseClockLagNanos() noexcept {
  timespec coarse;
  clock_gettime(CLOCK_MONOTONIC_COARSE, &coarse);
  return coarseClockLagNanosSince(coarse);
}

inline timeval microsecondsToTimeval(long us) noexcept {
  return timeval{static_cast<time_t>(us / 1000000), static_cast<suseconds_t>(us % 1000000)};
}

// The lag in whole microseconds, rounded down: for correcting readings of
// the base's clock towards CLOCK_MONOTONIC without overshooting it.
inline timeval coarseClockLagFloor() noexcept { return microsecondsToTimeval(coarseClockLagNanos() / 1000); }

// Inside a turn of the loop libevent counts relative timeouts from the time
// it cached at the top of the turn, which is already past by however long
// the handlers so far have run. Reading the clock afresh first makes the
// base count from now. (Outside the loop there is no cache and this does
// nothing.) Zero timeouts skip it: due at once either way, and they are the
// deferred callback's hot path.
inline void refreshBaseTime() noexcept { event_base_update_cache_time(ev_base); }

// The relative timeout to give event_add so that the event expires no
// earlier than `tv` from now on Kesto::time(). Beyond the lag, 2 µs cover
// libevent truncating its clock to microseconds and `tv` having been
// truncated from seconds, and steadyClockErrorBoundNanos covers the library's
// clock: it trails CLOCK_MONOTONIC by between 0 and that bound, so it can
// gain on CLOCK_MONOTONIC by no more than the bound between the arming and
// the expiry (docs/Platform/SteadyClock.md). Refreshes the base's cached
// time.
inline timeval forBaseClock(timeval tv) noexcept {
  if (tv.tv_sec < 0 || (tv.tv_sec == 0 && tv.tv_usec <= 0))
    return tv;
  // The coarse clock is read before the base refreshes its own reading, so
  // that a tick of the coarse clock between the two can only lengthen the
  // lag: measured the other way round, a tick in between made the timeout a
  // whole tick short.
  timespec coarse;
  clock_gettime(CLOCK_MONOTONIC_COARSE, &coarse);
  refreshBaseTime();
  constexpr long clockBoundMicros = (steadyClockErrorBoundNanos + 999) / 1000;
  const timeval lag = microsecondsToTimeval((coarseClockLagNanosSince(coarse) + 999) / 1000 + 2 + clockBoundMicros);
  timeval result;
  timeradd(&tv, &lag, &result);
  return result;
}

// Whether `ev` may be handed to event_del/event_pending: the thread has a
// base and the event was assigned on it. An event assigned on a base that
// leFree() has since freed is left alone (freeing the base removed it).
inline bool eventOnLiveBase(const event* ev) noexcept {
  // The field itself rather than event_get_base(): this is asked on every
  // arming, and the answer is one load away.
  return ev_base != nullptr && ev->ev_base == ev_base;
}

// An exception that leaves a handler is not thrown through libevent's
// frames: that would leave the base marked as running, and every later
// dispatch on it would be refused as re-entrant. The callback trampolines
// catch it, record it here and break the loop; dispatch() rethrows it to the
// caller of the loop once libevent has returned normally. The first
// exception of a dispatch wins.
void handlerThrew(std::exception_ptr exception) noexcept;
// event_base_dispatch on the thread's base, then the rethrow above.
void dispatch();

// One turn of the loop under fast forward: one jump of virtual time, to the
// first pending timer or by `maxTimeout` if that is nearer, then one pass that
// runs what became due and never blocks. A negative limit allows no jump;
// from unlimitedSeconds on there is none. True when the wait is over: the
// jump went to the full limit, or there is no limit and no timer is left to
// wait for (then the clock stays where it is). NaN is the caller's to refuse.
bool fastForwardTurn(double maxTimeout);

// Runs after each handler that returned normally.
inline void afterHandler() { Publisher::runDeferredOps(); }

} // namespace Kesto::Platform::Impl
