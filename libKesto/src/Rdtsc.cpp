#include <Kesto/Core/Rdtsc.h>

#include <atomic>
#include <cerrno>
#include <ctime>
#include <mutex>

namespace Kesto {

namespace {

U64 monotonicNanos() noexcept {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return U64(ts.tv_sec) * 1000000000ull + U64(ts.tv_nsec);
}

// One paired reading: the counter taken between two clock readings, and the
// clock at their midpoint. Retried when the pair was split (preempted, say),
// so that the pairing error stays near the cost of one clock read.
struct Sample {
  U64 nanos;
  U64 ticks;
};

Sample takeSample() noexcept {
  Sample best{};
  U64 bestSpread = ~U64(0);
  for (int attempt = 0; attempt < 8; ++attempt) {
    const U64 before = monotonicNanos();
    const U64 t = Rdtsc::ticks();
    const U64 after = monotonicNanos();
    if (after - before < bestSpread) {
      bestSpread = after - before;
      best = {before + (after - before) / 2, t};
    }
  }
  return best;
}

double measureRate() noexcept {
  // Ten milliseconds against a pairing error of well under a microsecond
  // gives a rate good to about 1e-4. Time lost to preemption in between does
  // not matter: both clocks keep running.
  constexpr U64 intervalNanos = 10'000'000;
  const Sample first = takeSample();
  timespec wait{0, static_cast<long>(intervalNanos)};
  while (nanosleep(&wait, &wait) != 0 && errno == EINTR) {
  }
  Sample last = takeSample();
  while (last.nanos - first.nanos < intervalNanos / 2)
    last = takeSample(); // a clock that slept too short: keep going
  const double rate = double(last.ticks - first.ticks) * 1e9 / double(last.nanos - first.nanos);
  // A counter that did not move (a broken virtual machine) must not give a
  // zero or negative rate, which callers divide by.
  return rate > 1.0 ? rate : 1e9;
}

std::atomic<double> storedRate{0.0};
std::once_flag measured;

} // namespace

double Rdtsc::calibrationRate() {
  double rate = storedRate.load(std::memory_order_acquire);
  if (rate > 0) [[likely]]
    return rate;
  std::call_once(measured, [] { storedRate.store(measureRate(), std::memory_order_release); });
  return storedRate.load(std::memory_order_acquire);
}

} // namespace Kesto
