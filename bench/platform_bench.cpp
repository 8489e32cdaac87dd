// The deferred callback's round trip (requestCallback -> callback() through
// the loop, the handler requesting the next one) against the same round trip
// on bare libevent: a zero-delay timer whose callback re-adds it.
//
// The bare side runs twice: on a base configured like the platform's own
// (precise monotonic clock, no time cache, two priorities, libevent's
// locking on), which isolates what the platform adds on top of libevent, and
// on a default base, which shows what that configuration costs.
#include <Kesto/Platform/LibeventControls.h>
#include <Kesto/Platform/Platform.h>

#include <benchmark/benchmark.h>

#include <event2/event.h>

#include <cstdlib>
#include <cstdio>

namespace {

using namespace Kesto;

constexpr int batch = 1000;

void check(bool ok, const char* what) {
  if (!ok) {
    std::fprintf(stderr, "benchmark result check failed: %s\n", what);
    std::abort();
  }
}

void perRoundTrip(benchmark::State& state) {
  state.counters["per_round_trip"] =
      benchmark::Counter(batch, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

class Chain : public Platform::CallbackHandler {
public:
  void callback() override {
    ++count;
    if (--remaining > 0)
      control->requestCallback();
  }
  Ptr<Platform::CallbackControl> control;
  int remaining = 0;
  long count = 0;
};

void BM_DeferredCallbackRoundTrip(benchmark::State& state) {
  Chain chain;
  chain.control = Platform::getCallbackControl(&chain);
  for (auto _ : state) {
    chain.remaining = batch;
    chain.control->requestCallback();
    Platform::doEventLoop();
  }
  check(chain.count == long(state.iterations()) * batch, "every callback delivered");
  perRoundTrip(state);
}
BENCHMARK(BM_DeferredCallbackRoundTrip);

struct BareTimer {
  event ev;
  int remaining = 0;
  long count = 0;
  static void fire(evutil_socket_t, short, void* self) {
    auto* timer = static_cast<BareTimer*>(self);
    ++timer->count;
    if (--timer->remaining > 0) {
      const timeval zero{0, 0};
      event_add(&timer->ev, &zero);
    }
  }
};

void runBare(benchmark::State& state, event_base* base) {
  BareTimer timer;
  event_assign(&timer.ev, base, -1, 0, BareTimer::fire, &timer);
  event_priority_set(&timer.ev, 1);
  const timeval zero{0, 0};
  for (auto _ : state) {
    timer.remaining = batch;
    event_add(&timer.ev, &zero);
    event_base_dispatch(base);
  }
  check(timer.count == long(state.iterations()) * batch, "every timer delivered");
  perRoundTrip(state);
}

void BM_BareLibeventTimerSameConfig(benchmark::State& state) {
  leInit();
  runBare(state, ev_base);
}
BENCHMARK(BM_BareLibeventTimerSameConfig);

void BM_BareLibeventTimerDefaultBase(benchmark::State& state) {
  leInit(); // libevent's locking is on for the process, as under the platform
  event_base* base = event_base_new();
  event_base_priority_init(base, 2);
  runBare(state, base);
  event_base_free(base);
}
BENCHMARK(BM_BareLibeventTimerDefaultBase);

} // namespace

BENCHMARK_MAIN();
