// The library's steady clock: what Kesto::time() and the scheduler's time
// stamps read.
//
// Owner: the process (one clock for all threads). Thread: any. Allocation:
// none, ever. States: not yet started (the first reading picks the source
// and, for the counter, waits about 10 ms for its calibration), counter,
// fallback (CLOCK_MONOTONIC through the vDSO).
//
// Values are nanoseconds on CLOCK_MONOTONIC's scale and origin. Where the
// processor's time-stamp counter is invariant and the kernel itself keeps
// time with it, a reading is the counter scaled from an anchor, a
// CLOCK_MONOTONIC reading, that is taken again at least once a millisecond;
// it costs no system call and no vDSO call. Whatever the source:
//  - a reading is never ahead of CLOCK_MONOTONIC read at the same moment,
//    and never behind it by more than steadyClockErrorBoundNanos;
//  - readings never go backwards, on one thread or across threads (a
//    reading that happens after another, in the memory-order sense, is not
//    smaller), nor across fork();
//  - a forked child keeps the parent's source.
// docs/Platform/SteadyClock.md gives the proof and the re-anchoring rule.
//
// The environment variable KESTO_CLOCK_NO_TSC, set to any value before the
// first reading, forces the fallback.
#pragma once

#include <Kesto/Common/Export.h>

#include <Kesto/Core/Types.h>

namespace Kesto {

enum class SteadyClockSource : U8 {
  timeStampCounter = 0,
  monotonic = 1,
};

// How far a reading may trail CLOCK_MONOTONIC: 0.9 µs for taking the anchor
// pair, 2 µs for one millisecond of drift at most 2e-3, and rounding.
inline constexpr I64 steadyClockErrorBoundNanos = 3000;

// Nanoseconds, on CLOCK_MONOTONIC's origin.
KESTO_EXPORT I64 steadyClockNanos() noexcept;

// The source in use; the first call decides it (and calibrates).
KESTO_EXPORT SteadyClockSource steadyClockSource() noexcept;

// "timeStampCounter" or "monotonic".
KESTO_EXPORT const char* toString(SteadyClockSource source) noexcept;

} // namespace Kesto
