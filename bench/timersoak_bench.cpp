// The million-timer soak: 1,000,000 timer tasks with random delays from 1 ms
// to 30 days (logarithmic), half of them stopped or re-armed at a random
// moment, run to the end in fast forward through the event loop and the
// root scheduler (see KestoSupport/TimerSoak.h). One iteration; the counters
// are the real time of the run (and the CPU time of the thread, which a
// loaded machine does not stretch), the virtual time it covered, the resident
// memory after the first virtual day and at the end, and the peak.
//
// The benchmark fails unless every live timer fired exactly once, none
// before its expiry, none after its stop, and the resident memory at the end
// is within 5 % of that after the first day.
#include <Kesto/Platform/Platform.h>

#include <KestoSupport/TimerSoak.h>

#include <benchmark/benchmark.h>

#include <cmath>

namespace {

constexpr unsigned long soakTimers = 1'000'000;

void TimerSoak(benchmark::State& state) {
  Kesto::Platform::setFastForward(true);
  KestoSupport::TimerSoakResult r;
  for (auto _ : state) {
    KestoSupport::TimerSoak soak(soakTimers, 20261124);
    r = soak.run();
    state.SetIterationTime(r.realSeconds);
  }
  Kesto::Platform::setFastForward(false);
  const double ratio = double(r.residentAtEnd) / double(r.residentAfterFirstDay);
  if (r.firings != r.firingsExpected || r.wrongCount != 0 || r.early != 0 || r.afterStop != 0)
    state.SkipWithError("a timer fired early, twice, after its stop, or not at all");
  else if (!(std::fabs(ratio - 1.0) <= 0.05))
    state.SkipWithError("resident memory at the end differs from that after the first day by more than 5 %");
  state.counters["real_s"] = r.realSeconds;
  state.counters["cpu_s"] = r.cpuSeconds;
  state.counters["virtual_days"] = r.virtualSeconds / KestoSupport::TimerSoak::day;
  state.counters["fired"] = double(r.firings);
  state.counters["stopped"] = double(r.stops);
  state.counters["rearmed"] = double(r.rearms);
  state.counters["rss_day1_MiB"] = double(r.residentAfterFirstDay) / 1048576.0;
  state.counters["rss_end_MiB"] = double(r.residentAtEnd) / 1048576.0;
  state.counters["rss_peak_MiB"] = double(r.peakResident) / 1048576.0;
  state.counters["ns/firing"] = r.realSeconds / double(r.firings) * 1e9;
}
BENCHMARK(TimerSoak)->Name("TimerSoak/1000000")->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);

} // namespace

BENCHMARK_MAIN();
