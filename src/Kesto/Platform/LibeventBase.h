// Private helpers shared by the libevent backend's files.
#pragma once

#include <Kesto/Core/Publisher.h>
#include <Kesto/Libevent.h>

#include <event2/event.h>
#include <sys/time.h>

#include <cmath>
#include <exception>

namespace Kesto::Platform::Impl {

// Seconds as a timeval: whole seconds truncated, then the fraction's
// microseconds truncated. Values are not validated.
inline timeval secondsToTimeval(double seconds) noexcept {
  timeval tv;
  tv.tv_sec = static_cast<time_t>(seconds);
  tv.tv_usec = static_cast<suseconds_t>((seconds - static_cast<double>(tv.tv_sec)) * 1000000);
  return tv;
}

// A timeval as one double in traces.
inline double timevalToDouble(const timeval& tv) noexcept {
  return double(tv.tv_usec) / 1e6 + double(tv.tv_sec);
}

// Whether `ev` may be handed to event_del/event_pending: the thread has a
// base and the event was assigned on it. An event assigned on a base that
// leFree() has since freed is left alone (freeing the base removed it).
inline bool eventOnLiveBase(const event* ev) noexcept {
  return ev_base != nullptr && event_get_base(ev) == ev_base;
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

// Runs after each handler that returned normally.
inline void afterHandler() { Publisher::runDeferredOps(); }

} // namespace Kesto::Platform::Impl
