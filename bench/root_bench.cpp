// Dispatch through the real event loop: what a task run costs when every run
// is one pass delivered by the root's deferred callback, against libevent
// doing the same chaining by hand.
//
//  - RootChain: one task that schedules itself again at every run, a batch of
//    runs per Platform::doEventLoop() (the chain ends with its empty pass).
//  - RootChainWatchdog: RootChain with a stall watchdog armed on the root
//    (threshold 50 ms): what its CPU-time timer and signal cost a busy
//    thread. It reports the signals handled per batch and the stalls seen,
//    and fails if the watchdog saw no signal at all.
//  - RootChainNoClock: RootChain with the scheduler's clock replaced by a
//    counter, to show what its clock readings cost.
//  - RootChainLatencyOn: RootChain with latency culprits on and a threshold
//    of one minute, which no run reaches: what the feature costs a thread
//    that is never late (RootChain is the same with it off). It fails if an
//    event was recorded.
//  - BareChain: one zero-delay libevent timer whose callback deletes,
//    re-assigns and re-adds its event and calls an empty function; the same
//    base as the root's, at the same priority.
//  - RootMixed: 1,000 runnable tasks at high, normal, low and scavenge, each
//    rescheduling itself, until the batch of runs is done.
//  - BareMany: 1,000 such libevent timers, for the same batch of callbacks.
//
// Reported: ns_per_run (per task run or per callback). The root benchmarks
// also report, from an untimed run of at least 20,000 passes, the
// scheduler's clock readings and the history events per pass (each task's
// first and last run add a busy and an idle event).
#include <Kesto/Debug/StallWatchdog.h>
#include <Kesto/Platform/Libevent.h>
#include <Kesto/Platform/Platform.h>
#include <Kesto/Scheduler/Task.h>
#include <Kesto/Scheduler/TaskSchedulerRoot.h>

#include <KestoSupport/ChainTask.h>

#include <benchmark/benchmark.h>
#include <event2/event.h>
#include <event2/event_struct.h>

#include <vector>

using namespace Kesto;

namespace {

constexpr U64 batch = 100000;

using KestoSupport::ChainTask;

// The scheduler's clock, counted.
U64 clockReadings = 0;
TaskTimeStamp countingClock() noexcept {
  ++clockReadings;
  return std::chrono::steady_clock::now();
}

// Runs enough passes untimed for the tasks' first runs to weigh little, and
// reports what each pass read and recorded.
void perPassCounts(benchmark::State& state, const Ptr<TaskSchedulerRoot>& root, std::vector<Ptr<ChainTask>>& tasks,
                   U64& left) {
  const U64 passes = 20 * (tasks.size() < 1000 ? 1000 : tasks.size());
  const unsigned capacity = unsigned(passes * 8);
  root->historyEntryCountIs(capacity);
  root->clearHistory();
  clockReadings = 0;
  taskClockFnIs(&countingClock);
  left = passes - tasks.size();
  for (auto& t : tasks)
    t->scheduleTask();
  Platform::doEventLoop();
  taskClockFnIs(nullptr);
  if (root->historyEventCount() >= capacity)
    state.SkipWithError("history ring too small to count");
  const double runs = double(passes);
  state.counters["clock_per_pass"] = double(clockReadings) / runs;
  state.counters["history_per_pass"] = double(root->historyEventCount()) / runs;
  root->historyEntryCountIs(TaskSchedulerRoot::historyEntryCountDefault);
}

U64 runsOf(const std::vector<Ptr<ChainTask>>& tasks, const Ptr<TaskSchedulerRoot>& root) {
  U64 n = 0;
  for (unsigned p = 0; p < TaskScheduler::priorityCount; ++p)
    n += root->runTaskCount(TaskPriority(p));
  (void)tasks;
  return n;
}

void rootBench(benchmark::State& state, const std::vector<TaskPriority>& priorities, bool watchdogOn = false,
               TaskDurationMs latencyThreshold = TaskDurationMs(0)) {
  Ptr<TaskSchedulerRoot> root = schedulerRootKestoNonShared("bench");
  root->latencyCulpritsIs(latencyThreshold, 100);
  Ptr<StallWatchdog> watchdog;
  if (watchdogOn)
    watchdog = StallWatchdog::StallWatchdogIs(root, std::chrono::milliseconds(50), 10);
  U64 left = 0;
  std::vector<Ptr<ChainTask>> tasks;
  for (size_t i = 0; i < priorities.size(); ++i)
    tasks.push_back(Ptr<ChainTask>(new ChainTask(root, priorities[i], fmt::format("chain{}", i), &left)));
  const U64 before = runsOf(tasks, root);
  for (auto _ : state) {
    // Each task runs once more than its share of `left`: the batch counts
    // the rescheduled runs, the first runs come on top.
    left = batch - tasks.size();
    for (auto& t : tasks)
      t->scheduleTask();
    Platform::doEventLoop();
  }
  const U64 ran = runsOf(tasks, root) - before;
  if (ran != batch * U64(state.iterations()) || root->schedulerHasRunnableTasks())
    state.SkipWithError("the loop did not run the batch");
  state.counters["ns_per_run"] =
      benchmark::Counter(double(ran), benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
  if (watchdog) {
    // A batch takes 25 ms of CPU or more, half a period: four batches must
    // have seen a signal. Stalls are counted, not failed: on a loaded
    // machine a run preempted for 50 ms is one, as the operator would see.
    if (state.iterations() >= 4 && watchdog->signalCount() == 0)
      state.SkipWithError("the watchdog saw no signal");
    state.counters["signals_per_batch"] = double(watchdog->signalCount()) / double(state.iterations());
    state.counters["stalls"] = double(watchdog->stallCount());
  }
  if (root->latencyEventCount() != 0)
    state.SkipWithError("a run crossed the latency threshold");
  perPassCounts(state, root, tasks, left);
}

void BM_RootChain(benchmark::State& state) { rootBench(state, {TaskPriority::normal}); }
void BM_RootChainWatchdog(benchmark::State& state) { rootBench(state, {TaskPriority::normal}, true); }
void BM_RootChainLatencyOn(benchmark::State& state) {
  rootBench(state, {TaskPriority::normal}, false, TaskDurationMs(60000));
}

// The same with the scheduler's clock replaced by a counter: the difference
// to RootChain is what the steady-clock readings of a pass cost.
I64 fakeNanos = 0;
TaskTimeStamp fakeClock() noexcept { return TaskTimeStamp(TaskTimeDuration(fakeNanos += 1000)); }
void BM_RootChainNoClock(benchmark::State& state) {
  taskClockFnIs(&fakeClock);
  rootBench(state, {TaskPriority::normal});
  taskClockFnIs(nullptr);
}

void BM_RootMixed(benchmark::State& state) {
  std::vector<TaskPriority> priorities;
  const TaskPriority mix[] = {TaskPriority::high, TaskPriority::normal, TaskPriority::normal, TaskPriority::low,
                              TaskPriority::scavenge};
  for (unsigned i = 0; i < 1000; ++i)
    priorities.push_back(mix[i % 5]);
  rootBench(state, priorities);
}

// --- bare libevent ---------------------------------------------------------------

__attribute__((noinline)) void emptyWork() { asm volatile(""); }

struct BareChain {
  event ev;
  U64* left;
};

void bareCallback(evutil_socket_t, short, void* arg) {
  BareChain* c = static_cast<BareChain*>(arg);
  emptyWork();
  if (*c->left == 0)
    return;
  --*c->left;
  event_del(&c->ev);
  event_assign(&c->ev, ev_base, -1, 0, &bareCallback, c);
  event_priority_set(&c->ev, Platform::eventPriorityDefault);
  static const timeval zero{0, 0};
  event_add(&c->ev, &zero);
}

void bareBench(benchmark::State& state, unsigned count) {
  leInit();
  U64 left = 0;
  std::vector<BareChain> chains(count);
  U64 calls = 0;
  for (auto _ : state) {
    left = batch - count;
    for (BareChain& c : chains) {
      c.left = &left;
      event_assign(&c.ev, ev_base, -1, 0, &bareCallback, &c);
      event_priority_set(&c.ev, Platform::eventPriorityDefault);
      static const timeval zero{0, 0};
      event_add(&c.ev, &zero);
    }
    event_base_dispatch(ev_base);
    calls += batch;
    if (left != 0)
      state.SkipWithError("the loop did not run the batch");
  }
  state.counters["ns_per_run"] =
      benchmark::Counter(double(calls), benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void BM_BareChain(benchmark::State& state) { bareBench(state, 1); }
void BM_BareMany(benchmark::State& state) { bareBench(state, 1000); }

} // namespace

BENCHMARK(BM_BareChain)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RootChain)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RootChainWatchdog)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RootChainLatencyOn)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RootChainNoClock)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_BareMany)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RootMixed)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
