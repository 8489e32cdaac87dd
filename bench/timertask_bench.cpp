// Timer tasks on the root's timer wheel.
//
//  - TimerTaskRearmJitter: 100,000 timer tasks, each re-arming itself with
//    scheduleTaskJitterUp at every run, under fast forward, driven by the
//    real event loop: wheel expiry, TimerTask::timeout(), the pass chain, the
//    run and the re-arm. Reports runs per second of CPU time.
//  - TimerTaskStartStop: scheduleTaskDelay + stopTimerTask on one task while
//    another timer keeps the wheel's master timer armed. ns per pair.
//  - TimerTaskChangeDelay: scheduleTaskDelay on a running timer, alternating
//    between two delays, so every call moves the expiry. ns per call.
//
// Every benchmark checks its result (the runs all happened, the timers are
// where they should be) and counts the heap allocations of its timed loop.
#include <Kesto/Platform/Platform.h>
#include <Kesto/Scheduler/TaskSchedulerRoot.h>
#include <Kesto/Scheduler/TimerTask.h>

#include <benchmark/benchmark.h>

#include <vector>

#include <KestoSupport/MallocCounter.h>

using namespace Kesto;

namespace {

class RearmingTask : public TimerTask {
public:
  RearmingTask(Ptr<TaskScheduler> s, const String& name, double delay, U64* runs)
      : TimerTask(std::move(s), TaskPriority::normal, name), delay_(delay), runs_(runs) {}
  void taskExecute() override {
    ++*runs_;
    if (left_ != 0) {
      --left_;
      scheduleTaskJitterUp(delay_, 20);
    }
  }
  void start(unsigned rearms) {
    left_ = rearms;
    scheduleTaskJitterUp(delay_, 20);
  }
  static void operator delete(void* p) { ::operator delete(p); }

private:
  double delay_;
  U64* runs_;
  unsigned left_ = 0;
};

class IdleTimerTask : public TimerTask {
public:
  using TimerTask::TimerTask;
  void taskExecute() override { ++runs; }
  static void operator delete(void* p) { ::operator delete(p); }
  U64 runs = 0;
};

// Fast forward for the scope; the benchmarks run on the main thread.
class FastForwardScope {
public:
  FastForwardScope() { Platform::setFastForward(true); }
  ~FastForwardScope() { Platform::setFastForward(false); }
};

void TimerTaskRearmJitter(benchmark::State& state) {
  constexpr unsigned taskCount = 100000;
  constexpr unsigned runsEach = 3;
  FastForwardScope ff;
  Ptr<TaskSchedulerRoot> root = schedulerRootKestoNonShared("timerBench");
  U64 runs = 0;
  std::vector<Ptr<RearmingTask>> tasks;
  tasks.reserve(taskCount);
  for (unsigned i = 0; i < taskCount; ++i)
    // Delays from 1 s to 2 s, so that expiries spread over many wheel ticks.
    tasks.push_back(Ptr<RearmingTask>(new RearmingTask(root, "rearm", 1.0 + (i % 1000) * 0.001, &runs)));
  U64 expected = 0;
  unsigned long allocations = 0;
  for (auto _ : state) {
    for (auto& t : tasks)
      t->start(runsEach - 1);
    expected += U64(taskCount) * runsEach;
    const unsigned long before = KestoSupport::mallocCalls();
    // Long enough in virtual time for every re-arm: 3 runs of at most 2.4 s.
    Platform::doEventLoop(10.0);
    allocations += KestoSupport::mallocCalls() - before;
    if (runs != expected) {
      state.SkipWithError("not every timer task ran");
      break;
    }
  }
  if (root->timerRunningCount() != 0)
    state.SkipWithError("timers left running");
  state.counters["runs_per_cpu_s"] = benchmark::Counter(double(runs), benchmark::Counter::kIsRate);
  state.counters["allocs_per_run"] = runs ? double(allocations) / double(runs) : 0.0;
  state.SetItemsProcessed(I64(runs));
}
BENCHMARK(TimerTaskRearmJitter)->Unit(benchmark::kMillisecond);

void TimerTaskStartStop(benchmark::State& state) {
  Ptr<TaskSchedulerRoot> root = schedulerRootKestoNonShared("timerBench");
  Ptr<IdleTimerTask> keeper(new IdleTimerTask(root, TaskPriority::normal, "keeper"));
  Ptr<IdleTimerTask> t(new IdleTimerTask(root, TaskPriority::normal, "startStop"));
  keeper->scheduleTaskDelay(3600.0);
  t->scheduleTaskDelay(5.0);
  t->stopTimerTask();
  const unsigned long before = KestoSupport::mallocCalls();
  for (auto _ : state) {
    t->scheduleTaskDelay(5.0);
    t->stopTimerTask();
  }
  const unsigned long allocations = KestoSupport::mallocCalls() - before;
  if (t->timerRunning() || root->timerRunningCount() != 1 || t->runs != 0)
    state.SkipWithError("timer state wrong after start and stop");
  if (allocations != 0)
    state.SkipWithError("start and stop allocated");
  keeper->stopTimerTask();
  state.counters["allocs"] = double(allocations);
}
BENCHMARK(TimerTaskStartStop);

void TimerTaskChangeDelay(benchmark::State& state) {
  Ptr<TaskSchedulerRoot> root = schedulerRootKestoNonShared("timerBench");
  Ptr<IdleTimerTask> t(new IdleTimerTask(root, TaskPriority::normal, "change"));
  t->scheduleTaskDelay(5.0);
  bool flip = false;
  const unsigned long before = KestoSupport::mallocCalls();
  for (auto _ : state) {
    t->scheduleTaskDelay(flip ? 5.0 : 6.0);
    flip = !flip;
  }
  const unsigned long allocations = KestoSupport::mallocCalls() - before;
  const double remaining = t->timerRemaining();
  if (!t->timerRunning() || root->timerRunningCount() != 1 || !(remaining > 4.0 && remaining <= 6.0))
    state.SkipWithError("timer not running where it was moved");
  if (allocations != 0)
    state.SkipWithError("a change of delay allocated");
  t->stopTimerTask();
  state.counters["allocs"] = double(allocations);
}
BENCHMARK(TimerTaskChangeDelay);

} // namespace

BENCHMARK_MAIN();
