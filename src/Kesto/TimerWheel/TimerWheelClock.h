// The clock every wheel reads, and the conversions of times to ticks.
//
// Both sit on the path of every timer start, so the common case is inline:
// a time in the ordinary range converts in double arithmetic with its exact
// rounding error (see smallTicks). Everything else (below one tick,
// negative, not a number, beyond 2^52 ticks) takes the exact out-of-line
// path, which multiplies in 80-bit precision, rounds with floorl/ceill and
// clamps at 2^64 - 1 with a trace.
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

U64 timeToTickFloorSlow(long double ticks);
U64 timeToTickCeilSlow(long double ticks);

// The exact product 100 * time is 60 bits wide, so the 80-bit product is
// exact and the tick is its floor or ceiling. The common case gets the same
// result without the x87 unit (whose loads, multiply and compares were a
// third of a timer start): the product rounded to a double, p, and the
// sign of its rounding error, which Dekker's splitting gives exactly in
// plain double arithmetic (100 = 4 * 25; 4 * time is exact, and 25 has five
// significant bits, so each half of the split times 25 is exact).
//   - If p is not a whole number, no whole number lies between p and the
//     exact product (it would be a double nearer to the product than p), so
//     both round like p.
//   - If p is whole, the sign of the error says on which side of it the
//     exact product lies.
// Taken for products from 1 to 2^52 ticks (10 ms to 1.4 million years):
// no underflow in the split, and every whole count is a double. The rest
// takes the 80-bit path.
inline constexpr double fastTickLow = 1.0;
inline constexpr double fastTickHigh = 4503599627370496.0; // 2^52

struct SmallTicks {
  I64 whole;   // floor of the rounded product p
  bool exact;  // p is a whole number
  double error; // exact product minus p
};

inline SmallTicks smallTicks(double time, double product) {
  const double scaled = 4.0 * time;                     // exact
  const double split = 134217729.0 * scaled;            // 2^27 + 1
  const double high = split - (split - scaled);         // top 26 bits
  const double low = scaled - high;                     // the rest, exact
  const double error = (high * 25.0 - product) + low * 25.0;
  const I64 whole = I64(product);                       // product > 0: truncation is the floor
  return SmallTicks{whole, double(whole) == product, error};
}

// Ticks of 1/100 s rounded down, as for an expiry.
inline U64 timeToTickFloor(double time) {
  const double product = 100.0 * time;
  if (product >= fastTickLow && product < fastTickHigh) [[likely]] {
    const SmallTicks t = smallTicks(time, product);
    return U64(t.whole - ((t.exact && t.error < 0.0) ? 1 : 0));
  }
  return timeToTickFloorSlow(ticksPerSecond * time);
}

// Ticks of 1/100 s rounded up, as for the present.
inline U64 timeToTickCeil(double time) {
  const double product = 100.0 * time;
  if (product >= fastTickLow && product < fastTickHigh) [[likely]] {
    const SmallTicks t = smallTicks(time, product);
    return U64(t.whole + ((!t.exact || t.error > 0.0) ? 1 : 0));
  }
  return timeToTickCeilSlow(ticksPerSecond * time);
}

} // namespace Kesto::TimerWheelImpl
