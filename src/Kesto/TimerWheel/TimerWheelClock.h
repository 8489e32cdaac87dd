// The clock every wheel reads, and the conversions of times to ticks.
//
// Both sit on the path of every timer start, so the common case is inline:
// a time in the ordinary range converts with one multiplication in 80-bit
// precision and a rounding that never changes the FPU's mode. Everything
// else (negative, not a number, beyond 2^52 ticks) takes the exact
// out-of-line path, which rounds with floorl/ceill and clamps at 2^64 - 1
// with a trace.
#pragma once

#include <Kesto/Core/Types.h>
#include <Kesto/Platform/Time.h>
#include <Kesto/TimerWheel/TimerWheel.h>

#include <limits>

namespace Kesto::TimerWheelImpl {

static_assert(std::numeric_limits<long double>::digits >= 64, "ticks are converted in 80-bit precision");

extern TimerWheelClock installedClock;

// Kesto::time(), or the clock a test installed.
inline double now() { return installedClock ? installedClock() : Kesto::time(); }

inline constexpr long double ticksPerSecond = 100.0L;
// Below this the nearest double of a tick count is within 1/2 of it, and
// counts convert to and from integers exactly.
inline constexpr long double fastTickLimit = 4503599627370496.0L; // 2^52 ticks, 1.4 million years

U64 timeToTickFloorSlow(long double ticks);
U64 timeToTickCeilSlow(long double ticks);

// The floor of a non-negative count below fastTickLimit. An x87 truncation
// would switch the FPU's rounding mode twice (fldcw), which costs more than
// the rest of a timer start; instead go through the nearest double (SSE
// truncation) and correct by one in 80-bit comparisons.
inline U64 floorOfSmallTicks(long double ticks) {
  I64 whole = I64(double(ticks));
  if (static_cast<long double>(whole) > ticks)
    --whole;
  else if (static_cast<long double>(whole + 1) <= ticks)
    ++whole;
  return U64(whole);
}

// Ticks of 1/100 s rounded down, as for an expiry.
inline U64 timeToTickFloor(double time) {
  const long double ticks = ticksPerSecond * time;
  if (ticks >= 0.0L && ticks < fastTickLimit) [[likely]]
    return floorOfSmallTicks(ticks);
  return timeToTickFloorSlow(ticks);
}

// Ticks of 1/100 s rounded up, as for the present.
inline U64 timeToTickCeil(double time) {
  const long double ticks = ticksPerSecond * time;
  if (ticks >= 0.0L && ticks < fastTickLimit) [[likely]] {
    const U64 whole = floorOfSmallTicks(ticks);
    return whole + (static_cast<long double>(I64(whole)) < ticks ? 1 : 0);
  }
  return timeToTickCeilSlow(ticks);
}

} // namespace Kesto::TimerWheelImpl
