#include <Kesto/TimerWheel/TimerWheelState.h>
#include <Kesto/Debug/Trace.h>

namespace Kesto {

const char* timerWheelStateToString(TimerWheelState state) noexcept {
  switch (state) {
  case TimerWheelState::notLinked:
    return "notLinked";
  case TimerWheelState::inTimerWheel:
    return "inTimerWheel";
  case TimerWheelState::inTimersExpiryingSoon:
    return "inTimersExpiryingSoon";
  }
  return "unknownState";
}

namespace Impl {

void assertTimeoutFlags(int flags) {
  const int bits = flags & timerWheelStateFlagMask;
  // Exactly one bit: non-zero and a power of two.
  if (bits == 0 || (bits & (bits - 1)) != 0)
    fmassert(Debug::kestoTimerWheel, "Kesto", __FILE__, "timeoutFlagsToState", __LINE__,
             "None or multiple of our flags set {}", bits);
  fmassert(Debug::kestoTimerWheel, "Kesto", __FILE__, "timeoutFlagsToState", __LINE__,
           "Invalid flag combination {}", bits);
}

void assertTimerWheelState(TimerWheelState state) {
  fmassert(Debug::kestoTimerWheel, "Kesto", __FILE__, "stateToTimeoutFlags", __LINE__, "invalid state {}",
           unsigned(state));
}

} // namespace Impl
} // namespace Kesto
