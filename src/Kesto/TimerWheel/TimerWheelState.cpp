#include <Kesto/TimerWheelState.h>
#include <Kesto/Trace.h>

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

namespace {
[[noreturn, gnu::cold, gnu::noinline]] void assertFlags(int bits) {
  fmassert(Debug::kestoTimerWheel, "Kesto", __FILE__, "timeoutFlagsToState", __LINE__,
           "None or multiple of our flags set {}", bits);
}
[[noreturn, gnu::cold, gnu::noinline]] void assertCombination(int bits) {
  fmassert(Debug::kestoTimerWheel, "Kesto", __FILE__, "timeoutFlagsToState", __LINE__,
           "Invalid flag combination {}", bits);
}
[[noreturn, gnu::cold, gnu::noinline]] void assertState(TimerWheelState state) {
  fmassert(Debug::kestoTimerWheel, "Kesto", __FILE__, "stateToTimeoutFlags", __LINE__, "invalid state {}",
           unsigned(state));
}
} // namespace

TimerWheelState timeoutFlagsToState(int flags) {
  const int bits = flags & timerWheelStateFlagMask;
  // Exactly one bit: non-zero and a power of two.
  if (bits == 0 || (bits & (bits - 1)) != 0) [[unlikely]]
    assertFlags(bits);
  switch (bits) {
  case 4:
    return TimerWheelState::notLinked;
  case 8:
    return TimerWheelState::inTimerWheel;
  case 16:
    return TimerWheelState::inTimersExpiryingSoon;
  }
  assertCombination(bits);
}

int stateToTimeoutFlags(TimerWheelState state) {
  if (U8(state) > U8(TimerWheelState::inTimersExpiryingSoon)) [[unlikely]]
    assertState(state);
  return 4 << U8(state);
}

} // namespace Kesto
