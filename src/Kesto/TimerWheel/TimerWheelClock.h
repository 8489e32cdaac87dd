// The clock every wheel reads, and the conversions of times to ticks.
#pragma once

#include <Kesto/Core/Types.h>
#include <Kesto/TimerWheel.h>

namespace Kesto::TimerWheelImpl {

// Kesto::time(), or the clock a test installed.
double now();

// Ticks of 1/100 s, rounded up (the present) or down (an expiry), in 80-bit
// precision, clamped to 2^64 - 1 (traced) and to 0 below zero.
U64 timeToTickCeil(double time);
U64 timeToTickFloor(double time);

} // namespace Kesto::TimerWheelImpl
