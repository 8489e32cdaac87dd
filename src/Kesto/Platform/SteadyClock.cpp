// The steady clock's start, re-anchoring and fallback. The reading path and
// the arithmetic are in SteadyClockImpl.h; the reasoning in
// docs/Platform/SteadyClock.md.
#include <Kesto/Platform/SteadyClock.h>
#include "Platform/SteadyClockImpl.h"

#include <Kesto/Core/Rdtsc.h>
#include <Kesto/Debug/Trace.h>

#include <cpuid.h>
#include <pthread.h>

#include <cstdlib>
#include <ctime>
#include <fstream>
#include <mutex>
#include <string>

namespace Kesto {

namespace Platform::Impl {

SteadyClockAnchor steadyClockAnchor;

namespace {

constexpr const char* noCounterEnv = "KESTO_CLOCK_NO_TSC";
constexpr const char* clockSourceFile = "/sys/devices/system/clocksource/clocksource0/current_clocksource";

// A new anchor at least once a millisecond: with the drift below 2e-3 that
// keeps a reading within 2 µs of the anchor's error, and the re-anchoring
// (about 60 ns, one CLOCK_MONOTONIC reading and two counter readings) costs
// 6e-5 of a thread that reads the clock without pause.
constexpr I64 intervalNanos = 1'000'000;
// The counter is scaled to run this much slower than its calibrated rate.
// It has to exceed the calibration error (about 1e-5: pairs good to 0.1 µs
// over 10 ms) plus the most the kernel slews CLOCK_MONOTONIC's rate (500 ppm),
// so that the scaled counter never gains on CLOCK_MONOTONIC.
constexpr double slopeMargin = 1e-3;
// A pair (counter, CLOCK_MONOTONIC, counter) is used only when the two
// counter readings are this close: the clock's value belongs to a moment
// between them, so the anchor trails CLOCK_MONOTONIC by at most this.
constexpr I64 pairSpreadNanos = 900;
// Tries for such a pair. One preemption or interrupt spoils one try, the
// next is clean; 64 failures in a row mean CLOCK_MONOTONIC itself is slow to
// read (no vDSO), and then the counter has nothing to offer.
constexpr int pairAttempts = 64;

static_assert(pairSpreadNanos + I64(2 * slopeMargin * intervalNanos) + 100 <= steadyClockErrorBoundNanos,
              "the stated bound covers the pair, the drift over one interval and rounding");

enum : U8 { notStarted = 0, counterSource = 1, monotonicSource = 2 };
std::atomic<U8> source{notStarted};
std::once_flag started;
U64 spreadTicks = 0;
double nanosPerTick = 0.0;
// After the counter was found to break its promise, the fallback never
// returns less than the largest value the counter may have returned.
std::atomic<I64> fallbackFloor{0};

I64 monotonicNanos() noexcept {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return I64(ts.tv_sec) * 1'000'000'000 + I64(ts.tv_nsec);
}

I64 fallbackRead() noexcept {
  const I64 now = monotonicNanos();
  const I64 floor = fallbackFloor.load(std::memory_order_relaxed);
  return now > floor ? now : floor;
}

// CPUID leaf 0x80000007, EDX bit 8: the counter runs at a constant rate in
// every P-, C- and T-state (what /proc/cpuinfo shows as constant_tsc and
// nonstop_tsc).
bool invariantCounter() noexcept {
  unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
  if (!__get_cpuid(0x80000000u, &eax, &ebx, &ecx, &edx) || eax < 0x80000007u)
    return false;
  if (!__get_cpuid(0x80000007u, &eax, &ebx, &ecx, &edx))
    return false;
  return (edx & (1u << 8)) != 0;
}

// The kernel keeps CLOCK_MONOTONIC with the counter only when it found the
// counter synchronised across all cores and stable; otherwise it switched
// to another source, and so do we.
bool kernelUsesCounter() {
  std::ifstream file(clockSourceFile);
  std::string name;
  return static_cast<bool>(file >> name) && name == "tsc";
}

struct Pair {
  U64 before; // counter before the clock reading
  I64 nanos;  // CLOCK_MONOTONIC
  U64 after;  // counter after it: the anchor's counter
};

bool takePair(Pair& pair) noexcept {
  for (int attempt = 0; attempt < pairAttempts; ++attempt) {
    const U64 before = orderedCounter();
    const I64 nanos = monotonicNanos();
    const U64 after = orderedCounter();
    if (after - before <= spreadTicks) {
      pair = {before, nanos, after};
      return true;
    }
  }
  return false;
}

// Stores an anchor while the count stands at the odd `oddSequence`, then
// makes it even.
void publish(SteadyClockAnchor& a, U64 oddSequence, const Pair& pair) noexcept {
  std::atomic_thread_fence(std::memory_order_release);
  a.ticks.store(pair.after, std::memory_order_relaxed);
  a.nanos.store(pair.nanos, std::memory_order_relaxed);
  a.sequence.store(oddSequence + 1, std::memory_order_release);
}

void toFallback(const char* why, I64 floor) noexcept {
  I64 seen = fallbackFloor.load(std::memory_order_relaxed);
  while (seen < floor && !fallbackFloor.compare_exchange_weak(seen, floor, std::memory_order_relaxed)) {
  }
  steadyClockAnchor.intervalTicks.store(0, std::memory_order_relaxed);
  source.store(monotonicSource, std::memory_order_release);
  KESTO_TRACE(Debug::kestoLibevent, 1, "Kesto", "steady clock: {}; CLOCK_MONOTONIC from now on", why);
}

// The child's copy of the anchor is valid (counter and CLOCK_MONOTONIC are
// the machine's, not the process's), but a thread of the parent may have
// been between the two stores of a re-anchoring, and it is gone: the count is
// made even, and the anchor moved out of reach so that the first reading
// takes a new one.
void childAfterFork() noexcept {
  SteadyClockAnchor& a = steadyClockAnchor;
  a.ticks.store(0, std::memory_order_relaxed);
  const U64 sequence = a.sequence.load(std::memory_order_relaxed);
  a.sequence.store((sequence | 1) + 1, std::memory_order_release);
}

void start() {
  pthread_atfork(nullptr, nullptr, childAfterFork);
  if (std::getenv(noCounterEnv) || !invariantCounter() || !kernelUsesCounter()) {
    source.store(monotonicSource, std::memory_order_release);
    return;
  }
  const double ticksPerSecond = Rdtsc::calibrationRate();
  nanosPerTick = 1e9 / ticksPerSecond;
  spreadTicks = U64(double(pairSpreadNanos) / nanosPerTick);
  SteadyClockAnchor& a = steadyClockAnchor;
  Pair pair;
  if (!takePair(pair)) {
    toFallback("no clean counter pair", 0);
    return;
  }
  const U64 sequence = a.sequence.load(std::memory_order_relaxed);
  a.sequence.store(sequence + 1, std::memory_order_relaxed);
  a.multiplier.store(U64((1.0 - slopeMargin) * nanosPerTick * 4294967296.0), std::memory_order_relaxed);
  a.intervalTicks.store(U64(double(intervalNanos) / nanosPerTick), std::memory_order_relaxed);
  publish(a, sequence + 1, pair);
  source.store(counterSource, std::memory_order_release);
}

// Whether the anchor just left kept its promise up to `pair`: its value at
// the counter read before the clock must neither exceed the clock nor trail
// it by more than the margin allows for the time elapsed. Only judged over a
// plausible span: after a suspension the counter may have run on while
// CLOCK_MONOTONIC stood (or been reset), and the old anchor's values there
// were never returned.
const char* brokenPromise(U64 ticks, I64 nanos, U64 multiplier, const Pair& pair, I64& oldValue) noexcept {
  const U64 elapsed = pair.before - ticks;
  const double elapsedNanos = double(elapsed) * nanosPerTick;
  if (elapsedNanos > 4.0 * double(intervalNanos))
    return nullptr;
  oldValue = nanos + I64((elapsed * multiplier) >> 32);
  if (oldValue > pair.nanos)
    return "the counter ran ahead of CLOCK_MONOTONIC";
  // Allowed: the old anchor's pair, the new pair's own window (its clock
  // reading comes up to a spread after `before`), the drift, rounding.
  if (double(pair.nanos - oldValue) > 2.0 * double(pairSpreadNanos) + 2 * slopeMargin * elapsedNanos + 100)
    return "the counter fell behind CLOCK_MONOTONIC beyond its margin";
  return nullptr;
}

} // namespace

I64 steadyClockSlow() noexcept {
  // call_once itself writes thread-locals and calls pthread_once: kept off
  // the fallback's every reading and the counter's every re-anchoring.
  if (source.load(std::memory_order_acquire) == notStarted) [[unlikely]]
    std::call_once(started, start);
  SteadyClockAnchor& a = steadyClockAnchor;
  for (unsigned spins = 0;; ++spins) {
    if (source.load(std::memory_order_acquire) != counterSource)
      return fallbackRead();
    const U64 sequence = a.sequence.load(std::memory_order_acquire);
    if (sequence & 1) {
      // Another thread is storing a new anchor: two stores.
      if (spins > 1000)
        sched_yield();
      __builtin_ia32_pause();
      continue;
    }
    const U64 ticks = a.ticks.load(std::memory_order_relaxed);
    const I64 nanos = a.nanos.load(std::memory_order_relaxed);
    const U64 interval = a.intervalTicks.load(std::memory_order_relaxed);
    const U64 multiplier = a.multiplier.load(std::memory_order_relaxed);
    std::atomic_thread_fence(std::memory_order_acquire);
    if (a.sequence.load(std::memory_order_relaxed) != sequence)
      continue;
    const U64 counter = orderedCounter();
    if (counter - ticks < interval)
      return nanos + I64(((counter - ticks) * multiplier) >> 32); // anchored meanwhile
    Pair pair;
    if (!takePair(pair)) {
      toFallback("no clean counter pair", 0);
      return fallbackRead();
    }
    I64 oldValue = 0;
    if (const char* why = brokenPromise(ticks, nanos, multiplier, pair, oldValue)) {
      toFallback(why, oldValue);
      return fallbackRead();
    }
    U64 expected = sequence;
    if (!a.sequence.compare_exchange_strong(expected, sequence + 1, std::memory_order_acq_rel,
                                            std::memory_order_relaxed))
      continue; // another thread re-anchored first: read its anchor
    publish(a, sequence + 1, pair);
    return pair.nanos;
  }
}

} // namespace Platform::Impl

I64 steadyClockNanos() noexcept { return Platform::Impl::steadyClockRead(); }

SteadyClockSource steadyClockSource() noexcept {
  using namespace Platform::Impl;
  if (source.load(std::memory_order_acquire) == notStarted)
    steadyClockSlow();
  return source.load(std::memory_order_acquire) == counterSource ? SteadyClockSource::timeStampCounter
                                                                 : SteadyClockSource::monotonic;
}

const char* toString(SteadyClockSource source) noexcept {
  switch (source) {
  case SteadyClockSource::timeStampCounter:
    return "timeStampCounter";
  case SteadyClockSource::monotonic:
    return "monotonic";
  }
  return "invalid SteadyClockSource";
}

} // namespace Kesto
