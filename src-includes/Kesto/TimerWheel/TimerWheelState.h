// Where a timer of a TimerWheel is linked: nowhere, in the coarse wheel, or
// in the ordered map of timers that are due within two ticks.
//
// The state lives in the `flags` word of the timer's embedded
// `struct timeout`, as one of three bits the timeout library leaves to its
// user: 4 for notLinked, 8 for inTimerWheel, 16 for inTimersExpiryingSoon.
// Exactly one of them is set at any time. Bit 2 of the same word is the
// library's absolute-time flag and stays set; bit 1 stays clear.
#pragma once

#include <Kesto/Common/Export.h>

#include <Kesto/Core/Types.h>

#include <fmt/format.h>

namespace Kesto {

enum class TimerWheelState : U8 {
  notLinked = 0,
  inTimerWheel = 1,
  inTimersExpiryingSoon = 2,
};

// The three state bits of `flags`, and the flags of a fresh timer: the
// absolute flag and the bit of notLinked.
inline constexpr int timerWheelStateFlagMask = 4 | 8 | 16;
inline constexpr int timerWheelInitialFlags = 2 | 4;

// "notLinked", "inTimerWheel", "inTimersExpiryingSoon"; "unknownState" for
// any other value.
KESTO_EXPORT const char* timerWheelStateToString(TimerWheelState state) noexcept;

namespace Impl {
[[noreturn, gnu::cold]] KESTO_EXPORT void assertTimeoutFlags(int flags);
[[noreturn, gnu::cold]] KESTO_EXPORT void assertTimerWheelState(TimerWheelState state);
} // namespace Impl

// The state that `flags` holds. Asserts unless exactly one state bit is set.
// Inline: every start and stop of a timer reads it.
inline TimerWheelState timeoutFlagsToState(int flags) {
  switch (flags & timerWheelStateFlagMask) {
  case 4:
    return TimerWheelState::notLinked;
  case 8:
    return TimerWheelState::inTimerWheel;
  case 16:
    return TimerWheelState::inTimersExpiryingSoon;
  default:
    Impl::assertTimeoutFlags(flags);
  }
}

// The bit of `state` in `flags`. Asserts on a value above 2.
inline int stateToTimeoutFlags(TimerWheelState state) {
  if (U8(state) > U8(TimerWheelState::inTimersExpiryingSoon)) [[unlikely]]
    Impl::assertTimerWheelState(state);
  return 4 << U8(state);
}

} // namespace Kesto

template <>
struct fmt::formatter<Kesto::TimerWheelState> : fmt::formatter<fmt::string_view> {
  auto format(Kesto::TimerWheelState state, fmt::format_context& ctx) const {
    return fmt::formatter<fmt::string_view>::format(Kesto::timerWheelStateToString(state), ctx);
  }
};
