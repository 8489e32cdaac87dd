// The loop functions of the libevent backend and the default wait.
#include <Kesto/Debug/Loco.h>
#include "Platform/EvLoopBreak.h"
#include "Platform/LibeventBase.h"
#include <Kesto/Platform/Time.h>
#include <Kesto/Debug/Trace.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>

#include <unistd.h>

namespace Kesto {

namespace Platform::Impl {

thread_local std::exception_ptr handlerException;

void handlerThrew(std::exception_ptr exception) noexcept {
  if (!handlerException)
    handlerException = std::move(exception);
  if (ev_base)
    event_base_loopbreak(ev_base);
}

void dispatch() {
  event_base_dispatch(ev_base);
  if (handlerException) [[unlikely]]
    std::rethrow_exception(std::exchange(handlerException, nullptr));
}

} // namespace Platform::Impl

void eventLoopTimeout(double timeout) {
  KESTO_ASSERT(!std::isnan(timeout), "Kesto", "timeout is NaN");
  KESTO_TRACE(Debug::kestoLibevent, 5, "Kesto", "timeout {}", timeout);
  EvLoopBreak loopBreak(timeout);
  Platform::Impl::dispatch();
}

void doLeEventLoop() {
  if (!ev_base)
    leInit();
  timeval delta;
  if (fastForward && fastForwardDelayToFirstTimer(&delta))
    applyFastForwardDelta(&delta);
  Platform::Impl::dispatch();
}

void doLeEventLoop(double timeout) {
  KESTO_ASSERT(!std::isnan(timeout), "Kesto", "timeout is NaN");
  KESTO_TRACE(Debug::kestoLibevent, 5, "Kesto", "timeout {}", timeout);
  if (!ev_base)
    leInit();
  if (!fastForward) {
    eventLoopTimeout(timeout);
    return;
  }
  // Jump from timer to timer until a jump reaches the end, or, without a
  // limit, until no timer is left to wait for. The body runs at least once,
  // so a zero or negative timeout still makes one pass (and jumps nothing).
  // Whether there is a limit is decided once, on the timeout itself: the
  // difference of two readings of a clock that far out may round either way.
  const bool limited = timeout < Platform::Impl::unlimitedSeconds;
  double now = time();
  const double end = now + (timeout > 0.0 ? timeout : 0.0);
  while (!Platform::Impl::fastForwardTurn(limited ? end - now : timeout)) {
    now = time();
    if (!(end > now))
      break;
  }
}

void doLeEventLoopInWaitfor(double maxTimeout) {
  KESTO_ASSERT(!std::isnan(maxTimeout), "Kesto", "maxTimeout is NaN");
  KESTO_TRACE(Debug::kestoLibevent, 5, "Kesto", "maxTimeout {}", maxTimeout);
  if (!ev_base)
    leInit();
  if (fastForward) {
    eventLoopFastForwardToFirstTimer(maxTimeout);
    return;
  }
  {
    Platform::Loco::Guard guard;
    eventLoopTimeout(maxTimeout);
  }
  // Lets a thread waiting for the lock take it before this caller, which
  // polls, comes round for the next turn.
  usleep(1);
}

double waitForDefaultTimeout() {
  // Process-wide and unlocked: the environment is read by the first call.
  static bool computed = false;
  static double cached = 0.0;
  if (computed)
    return cached;
  cached = std::numeric_limits<double>::infinity();
  computed = true;
  const char* text = std::getenv("WAITFOR_DEFAULT");
  if (!text)
    return cached;
  // Read as std::stod reads: no digits or out of range is an error, trailing
  // text is accepted, errno is left as it was unless the conversion set it.
  const int savedErrno = errno;
  errno = 0;
  char* end = nullptr;
  const double value = std::strtod(text, &end);
  if (end == text || errno == ERANGE) {
    std::fputs("Parsing the WAITFOR_DEFAULT env. variable failed", stderr);
    std::fflush(stderr);
  } else {
    cached = value;
  }
  if (errno == 0)
    errno = savedErrno;
  return cached;
}

} // namespace Kesto
