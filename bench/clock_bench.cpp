// The price of a clock reading, and how far the library's clock strays from
// CLOCK_MONOTONIC.
//
//  - ClockRead/steady: steadyClockNanos(), the scheduler's time stamps.
//  - ClockRead/kestoTime: Kesto::time(), with the virtual time offset.
//  - ClockRead/monotonic, ClockRead/monotonicCoarse: clock_gettime through
//    the vDSO.
//  - ClockRead/rdtsc: the bare counter, the floor of any counter clock.
//  - ClockAgreement: for KESTO_CLOCK_AGREEMENT_SECONDS (default 1) reads
//    CLOCK_MONOTONIC, the library's clock and CLOCK_MONOTONIC again, in bursts
//    separated by pauses of 0 to 3 ms (so that anchors are taken both by
//    busy and by idle readers). Reported: the largest trail behind the first
//    CLOCK_MONOTONIC reading (max_trail_ns) and the largest lead over the
//    second (max_lead_ns, never above 0). Fails when the clock is ahead of
//    CLOCK_MONOTONIC or trails it by more than steadyClockErrorBoundNanos.
//
// Each reading benchmark folds its readings into a checksum and fails if the
// readings went backwards.
#include <Kesto/Platform/SteadyClock.h>
#include <Kesto/Platform/Time.h>

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <ctime>
#include <string>

namespace {

using namespace Kesto;

I64 monotonic(clockid_t id) noexcept {
  timespec ts;
  clock_gettime(id, &ts);
  return I64(ts.tv_sec) * 1'000'000'000 + I64(ts.tv_nsec);
}

template <typename Read>
void readings(benchmark::State& state, Read read) {
  auto last = read();
  bool backwards = false;
  for (auto _ : state) {
    const auto now = read();
    backwards |= now < last;
    last = now;
    benchmark::DoNotOptimize(last);
  }
  if (backwards)
    state.SkipWithError("the clock went backwards");
  state.SetLabel(toString(steadyClockSource()));
}

void BM_ClockSteady(benchmark::State& state) { readings(state, [] { return steadyClockNanos(); }); }
void BM_ClockKestoTime(benchmark::State& state) { readings(state, [] { return Kesto::time(); }); }
void BM_ClockMonotonic(benchmark::State& state) { readings(state, [] { return monotonic(CLOCK_MONOTONIC); }); }
void BM_ClockMonotonicCoarse(benchmark::State& state) {
  readings(state, [] { return monotonic(CLOCK_MONOTONIC_COARSE); });
}
void BM_ClockRdtsc(benchmark::State& state) { readings(state, [] { return __builtin_ia32_rdtsc(); }); }

BENCHMARK(BM_ClockSteady)->Name("ClockRead/steady");
BENCHMARK(BM_ClockKestoTime)->Name("ClockRead/kestoTime");
BENCHMARK(BM_ClockMonotonic)->Name("ClockRead/monotonic");
BENCHMARK(BM_ClockMonotonicCoarse)->Name("ClockRead/monotonicCoarse");
BENCHMARK(BM_ClockRdtsc)->Name("ClockRead/rdtsc");

double agreementSeconds() {
  const char* text = std::getenv("KESTO_CLOCK_AGREEMENT_SECONDS");
  const double seconds = text ? std::strtod(text, nullptr) : 1.0;
  return seconds > 0 ? seconds : 1.0;
}

void BM_ClockAgreement(benchmark::State& state) {
  const I64 span = I64(agreementSeconds() * 1e9);
  I64 maxTrail = 0, maxLead = I64(-1) << 62, maxWindow = 0;
  U64 samples = 0, pauses = 0;
  U64 seed = 12345;
  for (auto _ : state) {
    const I64 end = monotonic(CLOCK_MONOTONIC) + span;
    for (;;) {
      for (int i = 0; i < 4096; ++i) {
        const I64 before = monotonic(CLOCK_MONOTONIC);
        const I64 ours = steadyClockNanos();
        const I64 after = monotonic(CLOCK_MONOTONIC);
        if (before - ours > maxTrail)
          maxTrail = before - ours;
        if (ours - after > maxLead)
          maxLead = ours - after;
        if (after - before > maxWindow)
          maxWindow = after - before;
        ++samples;
      }
      if (monotonic(CLOCK_MONOTONIC) >= end)
        break;
      seed = seed * 6364136223846793005ull + 1442695040888963407ull;
      const long pause = long((seed >> 33) % 3'000'000);
      timespec wait{0, pause};
      nanosleep(&wait, nullptr);
      ++pauses;
    }
  }
  state.counters["max_trail_ns"] = double(maxTrail);
  state.counters["max_lead_ns"] = double(maxLead);
  state.counters["max_window_ns"] = double(maxWindow);
  state.counters["samples"] = double(samples);
  state.counters["pauses"] = double(pauses);
  state.SetLabel(toString(steadyClockSource()));
  if (maxLead > 0)
    state.SkipWithError("the clock was ahead of CLOCK_MONOTONIC");
  else if (maxTrail > steadyClockErrorBoundNanos)
    state.SkipWithError("the clock trailed CLOCK_MONOTONIC beyond its bound");
}
BENCHMARK(BM_ClockAgreement)->Name("ClockAgreement")->Iterations(1)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
