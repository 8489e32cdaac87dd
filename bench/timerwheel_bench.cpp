// The TimerWheel against libevent's own timers, both sides in this process
// and on the same event base (the thread's, with libevent's locking on as
// under the platform).
//
// - StartStop: 1,000,000 timers armed at random delays between 1 ms and
//   10 s; each iteration starts one more timer at a random delay and stops
//   it again.
// - Rearm: the same population; each iteration moves one random armed timer
//   to a new random delay (a running timer set again).
// - StopStart: the same population; each iteration stops one random armed
//   timer and starts it again at a new random delay.
// - Fire: 1,000,000 timers with expiries spread over 200 ms, all fired by
//   the event loop in real time; the figure is the CPU time of the thread
//   per fired timer (waiting is not counted), arming excluded.
//
// No loop that starts or stops timers may allocate: malloc, calloc and
// realloc are counted (operator new goes through malloc), and such a loop
// fails when the count moves. sizeof of the objects involved is printed
// before the benchmarks run.
#include <Kesto/Platform/Libevent.h>
#include <Kesto/Platform/Platform.h>
#include <Kesto/Platform/Time.h>
#include <Kesto/TimerWheel/TimerWheel.h>
#include <Kesto/TimerWheel/TimerWheelEvent.h>

#include <KestoSupport/BenchRepetitions.h>
#include <KestoSupport/MallocCounter.h>

#include <benchmark/benchmark.h>
#include <event2/event.h>
#include <event2/event_struct.h>

#include <cstdio>
#include <ctime>
#include <memory>
#include <random>
#include <vector>


namespace {

using Kesto::TimerWheel;
using Kesto::TimerWheelEvent;
using KestoSupport::repeated;

constexpr size_t population = 1'000'000;
constexpr size_t tableSize = 1 << 20;
constexpr int64_t startStopIterations = 2'000'000;

// Random delays and indices drawn before any timed loop, used round robin.
struct RandomTables {
  std::vector<double> delays;
  std::vector<uint32_t> picks;
  RandomTables(double low, double high, uint64_t seed) : delays(tableSize), picks(tableSize) {
    std::mt19937_64 rng(seed);
    std::uniform_real_distribution<double> delay(low, high);
    for (double& d : delays)
      d = delay(rng);
    for (uint32_t& p : picks)
      p = uint32_t(rng() % population);
  }
  double delay(size_t k) const { return delays[k & (tableSize - 1)]; }
  size_t pick(size_t k) const { return picks[k & (tableSize - 1)]; }
};

timeval toTimeval(double seconds) {
  timeval tv;
  tv.tv_sec = time_t(seconds);
  tv.tv_usec = suseconds_t((seconds - double(tv.tv_sec)) * 1e6);
  return tv;
}

double threadCpuSeconds() {
  timespec ts;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return double(ts.tv_sec) + double(ts.tv_nsec) / 1e9;
}

// Fails the benchmark if the timed loop called malloc.
class NoAllocation {
public:
  explicit NoAllocation(benchmark::State& state) : state_(state), start_(KestoSupport::mallocCalls()) {}
  ~NoAllocation() {
    const unsigned long made = KestoSupport::mallocCalls() - start_;
    state_.counters["mallocs"] = double(made);
    if (made != 0)
      state_.SkipWithError("a start or stop allocated");
  }

private:
  benchmark::State& state_;
  unsigned long start_;
};

// ---- the two kinds of timer -----------------------------------------------

struct WheelTimer final : TimerWheelEvent {
  long* fired = nullptr;
  void timeout() override { ++*fired; }
};

struct BareTimer {
  event ev;
  long* fired = nullptr;
  static void fire(evutil_socket_t, short, void* self) { ++*static_cast<BareTimer*>(self)->fired; }
};

struct WheelSide {
  std::shared_ptr<TimerWheel> wheel = Kesto::getTimerWheelForTaskScheduler(Kesto::Platform::eventPriorityStrictHigh);
  std::vector<WheelTimer> timers;
  long fired = 0;
  explicit WheelSide(size_t count) : timers(count) {
    for (WheelTimer& t : timers)
      t.fired = &fired;
  }
  ~WheelSide() {
    for (WheelTimer& t : timers)
      t.delTimeout(wheel);
  }
  void start(size_t i, double delay) { timers[i].setTimeout(wheel, delay); }
  void stop(size_t i) { timers[i].delTimeout(wheel); }
  bool running(size_t i) const { return timers[i].state() != Kesto::TimerWheelState::notLinked; }
};

struct BareSide {
  std::vector<BareTimer> timers;
  long fired = 0;
  explicit BareSide(size_t count) : timers(count) {
    Kesto::leInit();
    for (BareTimer& t : timers) {
      t.fired = &fired;
      event_assign(&t.ev, Kesto::ev_base, -1, 0, BareTimer::fire, &t);
      event_priority_set(&t.ev, Kesto::Platform::eventPriorityStrictHigh);
    }
  }
  ~BareSide() {
    for (BareTimer& t : timers)
      event_del(&t.ev);
  }
  void start(size_t i, double delay) {
    const timeval tv = toTimeval(delay);
    event_add(&timers[i].ev, &tv);
  }
  void stop(size_t i) { event_del(&timers[i].ev); }
  bool running(size_t i) const { return event_pending(&timers[i].ev, EV_TIMEOUT, nullptr) != 0; }
};

// ---- start and stop --------------------------------------------------------

template <typename Side>
void StartStop(benchmark::State& state) {
  const RandomTables random(0.001, 10.0, 1);
  Side side(population + 1);
  for (size_t i = 0; i < population; ++i)
    side.start(i, random.delay(i));
  size_t k = 0;
  bool wrong = false;
  {
    NoAllocation check(state);
    for (auto _ : state) {
      side.start(population, random.delay(k++));
      side.stop(population);
    }
    wrong = side.running(population) || !side.running(k % population);
  }
  if (wrong)
    state.SkipWithError("timers not in the expected state");
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(StartStop<WheelSide>)->Name("StartStop/wheel")->Iterations(startStopIterations)->Apply(repeated);
BENCHMARK(StartStop<BareSide>)->Name("StartStop/libevent")->Iterations(startStopIterations)->Apply(repeated);

template <typename Side>
void Rearm(benchmark::State& state) {
  const RandomTables random(0.001, 10.0, 2);
  Side side(population);
  for (size_t i = 0; i < population; ++i)
    side.start(i, random.delay(i));
  size_t k = 0;
  bool wrong = false;
  {
    NoAllocation check(state);
    for (auto _ : state) {
      side.start(random.pick(k), random.delay(k + 12345));
      ++k;
    }
    wrong = !side.running(random.pick(0));
  }
  if (wrong)
    state.SkipWithError("a re-armed timer is not running");
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(Rearm<WheelSide>)->Name("Rearm/wheel")->Iterations(startStopIterations)->Apply(repeated);
BENCHMARK(Rearm<BareSide>)->Name("Rearm/libevent")->Iterations(startStopIterations)->Apply(repeated);

template <typename Side>
void StopStart(benchmark::State& state) {
  const RandomTables random(0.001, 10.0, 3);
  Side side(population);
  for (size_t i = 0; i < population; ++i)
    side.start(i, random.delay(i));
  size_t k = 0;
  bool wrong = false;
  {
    NoAllocation check(state);
    for (auto _ : state) {
      const size_t i = random.pick(k);
      side.stop(i);
      side.start(i, random.delay(k + 777));
      ++k;
    }
    wrong = !side.running(random.pick(0));
  }
  if (wrong)
    state.SkipWithError("a restarted timer is not running");
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(StopStart<WheelSide>)->Name("StopStart/wheel")->Iterations(startStopIterations)->Apply(repeated);
BENCHMARK(StopStart<BareSide>)->Name("StopStart/libevent")->Iterations(startStopIterations)->Apply(repeated);

// ---- firing ----------------------------------------------------------------

template <typename Side>
void Fire(benchmark::State& state) {
  const RandomTables random(0.0, 0.2, 4);
  Side side(population);
  double cpu = 0.0, armCpu = 0.0;
  long expected = 0;
  bool early = false;
  for (auto _ : state) {
    const double armStart = threadCpuSeconds();
    for (size_t i = 0; i < population; ++i)
      side.start(i, random.delay(i));
    const double loopStart = threadCpuSeconds();
    armCpu += loopStart - armStart;
    expected += long(population);
    while (side.fired < expected)
      event_base_loop(Kesto::ev_base, EVLOOP_ONCE);
    const double loopCpu = threadCpuSeconds() - loopStart;
    cpu += loopCpu;
    state.SetIterationTime(loopCpu);
  }
  if constexpr (std::is_same_v<Side, WheelSide>) {
    for (const WheelTimer& t : side.timers)
      early |= t.state() != Kesto::TimerWheelState::notLinked;
  }
  if (side.fired != expected || early)
    state.SkipWithError("not every timer fired exactly once");
  const double firedCount = double(expected);
  state.counters["cpu_ns/fired"] = cpu / firedCount * 1e9;
  state.counters["cpu_ns/arm"] = armCpu / firedCount * 1e9;
  state.SetItemsProcessed(int64_t(expected));
}
BENCHMARK(Fire<WheelSide>)->Name("Fire200ms/wheel")->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);
BENCHMARK(Fire<BareSide>)->Name("Fire200ms/libevent")->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char** argv) {
  std::printf("sizeof(TimerWheelEvent) = %zu, sizeof(struct event) = %zu\n", sizeof(TimerWheelEvent),
              sizeof(event));
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv))
    return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
