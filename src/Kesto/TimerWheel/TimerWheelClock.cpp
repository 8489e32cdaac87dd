#include <Kesto/TimerWheel/TimerWheelClock.h>

#include <Kesto/Time.h>
#include <Kesto/Trace.h>

#include <cmath>
#include <limits>

namespace Kesto {

namespace {
TimerWheelClock installedClock = nullptr;

constexpr long double ticksPerSecond = 100.0L;
// 2^64 - 1 is exact in the 64-bit significand of the x87 format.
constexpr long double lastTick = 18446744073709551615.0L;
static_assert(std::numeric_limits<long double>::digits >= 64, "ticks are converted in 80-bit precision");

U64 timeToTickOverflowCheck(long double ticks) {
  if (ticks >= lastTick) [[unlikely]] {
    const U64 clamped = std::numeric_limits<U64>::max();
    KESTO_TRACE(Debug::kestoTimerWheel, 0, "TimerWheel", "truncating ticks from {} down to {}", ticks, clamped);
    return clamped;
  }
  // Before the epoch of the clock (or not a number): tick 0, which is in the
  // past for any wheel.
  if (!(ticks > 0.0L)) [[unlikely]]
    return 0;
  return U64(ticks);
}
} // namespace

void timerWheelClockIsForTest(TimerWheelClock clock) noexcept { installedClock = clock; }

U64 timeToTickCeilForTest(double time) { return TimerWheelImpl::timeToTickCeil(time); }
U64 timeToTickFloorForTest(double time) { return TimerWheelImpl::timeToTickFloor(time); }

namespace TimerWheelImpl {

double now() { return installedClock ? installedClock() : Kesto::time(); }

U64 timeToTickCeil(double time) { return timeToTickOverflowCheck(std::ceil(ticksPerSecond * time)); }

U64 timeToTickFloor(double time) { return timeToTickOverflowCheck(std::floor(ticksPerSecond * time)); }

} // namespace TimerWheelImpl
} // namespace Kesto
