#include "TimerWheel/TimerWheelClock.h"

#include <Kesto/Debug/Trace.h>

#include <cmath>

namespace Kesto {

namespace TimerWheelImpl {

TimerWheelClock installedClock = nullptr;

namespace {
// 2^64 - 1 is exact in the 64-bit significand of the x87 format.
constexpr long double lastTick = 18446744073709551615.0L;

U64 timeToTickOverflowCheck(long double ticks) {
  if (ticks >= lastTick) {
    const U64 clamped = std::numeric_limits<U64>::max();
    KESTO_TRACE(Debug::kestoTimerWheel, 0, "TimerWheel", "truncating ticks from {} down to {}", ticks, clamped);
    return clamped;
  }
  // Before the epoch of the clock (or not a number): tick 0, which is in the
  // past for any wheel.
  if (!(ticks > 0.0L))
    return 0;
  return U64(ticks);
}
} // namespace

U64 timeToTickFloorSlow(long double ticks) { return timeToTickOverflowCheck(std::floor(ticks)); }
U64 timeToTickCeilSlow(long double ticks) { return timeToTickOverflowCheck(std::ceil(ticks)); }

} // namespace TimerWheelImpl

void timerWheelClockIsForTest(TimerWheelClock clock) noexcept { TimerWheelImpl::installedClock = clock; }

U64 timeToTickCeilForTest(double time) { return TimerWheelImpl::timeToTickCeil(time); }
U64 timeToTickFloorForTest(double time) { return TimerWheelImpl::timeToTickFloor(time); }

} // namespace Kesto
