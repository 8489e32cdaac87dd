// The reading path of the steady clock (Kesto/Platform/SteadyClock.h), inline
// for Kesto::time() and steadyClockNanos(); the rest is in SteadyClock.cpp.
//
// The anchor is one CLOCK_MONOTONIC reading `nanos` and the counter `ticks`
// taken just after it. A reading within `intervalTicks` of the anchor is
//     nanos + ((counter - ticks) * multiplier >> 32)
// where the multiplier makes the counter run 1e-3 slower than its calibrated
// rate, faster than CLOCK_MONOTONIC can be slewed away from it (the kernel's
// frequency correction stops at 500 ppm): so the value can only fall behind
// CLOCK_MONOTONIC, by at most the pair's 0.9 µs plus 2e-3 of the interval.
// A reading past the interval (or before the anchor, or in fallback, where
// intervalTicks is 0) takes the slow path, which takes a new anchor.
//
// The anchor is published under a sequence count, odd while its two words
// are being stored; a reader that sees the count change reads again.
#pragma once

#include <Kesto/Core/Types.h>

#include <atomic>

namespace Kesto::Platform::Impl {

struct alignas(64) SteadyClockAnchor {
  std::atomic<U64> sequence{0};
  std::atomic<U64> ticks{0};
  std::atomic<I64> nanos{0};
  // Constant once the source is chosen; 0 before that and in fallback.
  std::atomic<U64> intervalTicks{0};
  std::atomic<U64> multiplier{0};
};

extern SteadyClockAnchor steadyClockAnchor;

// Slow path: start, re-anchor, or the fallback.
[[gnu::noinline]] I64 steadyClockSlow() noexcept;

// The counter, not read before the loads that precede it have completed
// (lfence): a reading that follows another, through memory, on any core,
// sees a counter no smaller.
inline U64 orderedCounter() noexcept {
  __builtin_ia32_lfence();
  return __builtin_ia32_rdtsc();
}

inline I64 steadyClockRead() noexcept {
  SteadyClockAnchor& a = steadyClockAnchor;
  // Not started, or the fallback: no counter read, straight to
  // CLOCK_MONOTONIC (the counter and its fence would be 15 ns for nothing).
  const U64 interval = a.intervalTicks.load(std::memory_order_relaxed);
  if (interval == 0) [[unlikely]]
    return steadyClockSlow();
  const U64 sequence = a.sequence.load(std::memory_order_acquire);
  const U64 counter = orderedCounter();
  const U64 ticks = a.ticks.load(std::memory_order_relaxed);
  const I64 nanos = a.nanos.load(std::memory_order_relaxed);
  const U64 multiplier = a.multiplier.load(std::memory_order_relaxed);
  std::atomic_thread_fence(std::memory_order_acquire);
  const U64 elapsed = counter - ticks; // wraps to huge when before the anchor
  if (elapsed < interval && (sequence & 1) == 0 && a.sequence.load(std::memory_order_relaxed) == sequence)
      [[likely]]
    return nanos + I64((elapsed * multiplier) >> 32);
  return steadyClockSlow();
}

} // namespace Kesto::Platform::Impl
