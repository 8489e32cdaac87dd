// Costs of the timing wheel of libKestoTimeouts.
//
// AddDelPair: 1,000,000 timeouts armed at random ticks (up to 1,000 or
// 1,000,000 ticks ahead); each iteration deletes one and adds it again at
// another random tick. The time is per pair.
//
// UpdateGet: 1,000,000 timeouts spread over the next 1,000 ticks (or
// 1,000,000; and 10,000 timeouts, which stay in cache); each iteration advances the clock by one tick, fetches every
// timeout that expired, checks it is due, and re-arms it at a random tick
// ahead, so the population stays constant. Reported per expired timeout.
#include <Timeouts/timeouts.h>

#include <benchmark/benchmark.h>

#include <cstdint>
#include <random>
#include <stdexcept>
#include <vector>

namespace {

constexpr size_t timerCount = 1'000'000;

struct Wheel {
  timeouts* T;
  std::vector<timeout> timers;
  explicit Wheel(size_t count) : timers(count) {
    int error = 0;
    T = timeouts_open(100, &error);
    if (!T)
      throw std::runtime_error("timeouts_open failed");
    for (timeout& to : timers)
      timeout_init(&to, TIMEOUT_ABS);
  }
  ~Wheel() { timeouts_close(T); }
};

// Random values drawn before the timed loop, used round robin.
std::vector<uint64_t> randomTable(size_t count, uint64_t bound, uint64_t seed) {
  std::mt19937_64 rng(seed);
  std::vector<uint64_t> out(count);
  for (uint64_t& v : out)
    v = rng() % bound;
  return out;
}

void AddDelPair(benchmark::State& state) {
  const uint64_t span = uint64_t(state.range(0));
  Wheel w(timerCount);
  timeouts_update(w.T, 1'000'000);
  const abstime_t now = timeouts_now(w.T);
  auto ticks = randomTable(1 << 20, span, 1);
  auto picks = randomTable(1 << 20, timerCount, 2);
  for (size_t i = 0; i < timerCount; ++i)
    timeouts_add(w.T, &w.timers[i], now + 1 + ticks[i & 0xfffff]);
  size_t k = 0;
  for (auto _ : state) {
    timeout* to = &w.timers[picks[k & 0xfffff]];
    timeouts_del(w.T, to);
    timeouts_add(w.T, to, now + 1 + ticks[k & 0xfffff]);
    ++k;
  }
  if (timeouts_expired(w.T) || !timeouts_check(w.T))
    state.SkipWithError("wheel inconsistent after add/del");
  state.SetItemsProcessed(int64_t(state.iterations()));
}
BENCHMARK(AddDelPair)->Arg(1000)->Arg(1'000'000);

void UpdateGet(benchmark::State& state) {
  const uint64_t span = uint64_t(state.range(0));
  const size_t count = size_t(state.range(1));
  Wheel w(count);
  auto ticks = randomTable(1 << 20, span, 3);
  for (size_t i = 0; i < count; ++i)
    timeouts_add(w.T, &w.timers[i], 1 + ticks[i & 0xfffff]);
  size_t k = 0;
  int64_t fired = 0;
  bool late = false;
  for (auto _ : state) {
    abstime_t now = timeouts_now(w.T) + 1;
    timeouts_update(w.T, now);
    while (timeout* to = timeouts_get(w.T)) {
      late |= to->expires != now;
      timeouts_add(w.T, to, now + 1 + ticks[k++ & 0xfffff]);
      ++fired;
    }
  }
  if (late)
    state.SkipWithError("a timeout expired at the wrong tick");
  state.SetItemsProcessed(fired);
  state.counters["fired/update"] = benchmark::Counter(double(fired) / double(state.iterations()));
  state.counters["time/fired"] =
      benchmark::Counter(double(fired), benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(UpdateGet)
    ->ArgNames({"span", "timers"})
    ->Args({1000, timerCount})
    ->Args({1'000'000, timerCount})
    ->Args({1000, 10'000});

} // namespace

BENCHMARK_MAIN();
