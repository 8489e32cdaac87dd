#include <Kesto/TimerWheel/TimerWheel.h>
#include "TimerWheel/TimerWheelClock.h"
#include <Kesto/TimerWheel/TimerWheelEvent.h>
#include <Kesto/Debug/Trace.h>

#include <Timeouts/timeouts.h>

#include <cstddef>
#include <limits>
#include <new>

namespace Kesto {

namespace {
constexpr double infinity = std::numeric_limits<double>::infinity();
} // namespace

// The header keeps the entry as raw storage; it must fit the real one.
static_assert(sizeof(struct timeout) == Impl::TimerWheelEventFields::timeoutSize);
static_assert(alignof(struct timeout) == Impl::TimerWheelEventFields::timeoutAlign);
static_assert(offsetof(struct timeout, flags) == 0);

TimerWheelEvent::TimerWheelEvent() noexcept { timeout_init(new (timeout_) struct timeout, timerWheelInitialFlags); }

TimerWheelEvent::~TimerWheelEvent() noexcept(false) {
  if (state() != TimerWheelState::notLinked) [[unlikely]]
    assertDestroyedLinked();
}

void TimerWheelEvent::setTimeout(const std::shared_ptr<TimerWheel>& wheel, double timeout) {
  wheel->timerStart(this, timeout);
}

void TimerWheelEvent::delTimeout(const std::shared_ptr<TimerWheel>& wheel) { wheel->timerStop(this); }

double TimerWheelEvent::remainingTimeout() const {
  if (expirationTime_ == infinity)
    return infinity;
  const double remaining = expirationTime_ - TimerWheelImpl::now();
  return remaining > 0.0 ? remaining : 0.0;
}

void TimerWheelEvent::assertBadStateChange(TimerWheelState from, TimerWheelState to) const {
  fmassert(Debug::kestoTimerWheel, "TimerWheelEvent", __FILE__, "stateIs", __LINE__,
           "State change {} -> {} must go via {}", from, to, TimerWheelState::notLinked);
}

void TimerWheelEvent::assertDestroyedLinked() const {
  fmassert(Debug::kestoTimerWheel, "TimerWheelEvent", __FILE__, "~TimerWheelEvent", __LINE__,
           "TimerWheelEvent {} destroyed while {}", DisplayPointer(this), state());
}

} // namespace Kesto
