// The processor's time-stamp counter as a cheap clock.
//
// ticks() reads the counter without a system call or a fence: a few cycles,
// suitable for deadlines checked in tight loops. The counter runs at a
// constant rate on the processors this family targets (invariant TSC), the
// same on every core; calibrationRate() measures that rate once, against
// CLOCK_MONOTONIC, the first time anybody asks, and returns the stored value
// afterwards. Thread-safe; the first call blocks for a few milliseconds while
// it measures, later calls are one load.
//
// Only differences of ticks mean anything. Where there is no time-stamp
// counter the tick is CLOCK_MONOTONIC's nanosecond and the rate is 1e9.
#pragma once

#include <Kesto/Core/Export.h>

#include <Kesto/Core/Types.h>

#if !defined(__x86_64__) && !defined(__i386__)
#include <ctime>
#endif

namespace Kesto {

struct KESTO_CORE_EXPORT Rdtsc {
  static U64 ticks() noexcept {
#if defined(__x86_64__) || defined(__i386__)
    return __builtin_ia32_rdtsc(); // the compiler builtin spares users <x86intrin.h>
#else
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return U64(ts.tv_sec) * 1000000000ull + U64(ts.tv_nsec);
#endif
  }

  // Ticks per second; always positive.
  static double calibrationRate();

  // A number of ticks as seconds, and back.
  static double ticksToSeconds(U64 ticks) { return double(ticks) / calibrationRate(); }
  static U64 secondsToTicks(double seconds) {
    return seconds <= 0 ? 0 : static_cast<U64>(seconds * calibrationRate());
  }
};

} // namespace Kesto
