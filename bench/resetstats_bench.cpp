// Statistics reset of a scheduler of 1,000,000 tasks.
//
//  - ResetStatsWalk/q: resetStats() on a root, then the real event loop until
//    the walk has ended (resetStatsInProgress() false), the reset task's
//    quantum q ms. Counters: ns_per_task (wall time of the whole reset over
//    the tasks), runs (slices of the walk), longest_run_us (the longest
//    slice, from the run start and run end events of the history),
//    overshoot_us (how far that slice went past the quantum: one task's
//    reset, plus whatever the machine took from the thread meanwhile),
//    median_overshoot_us over all slices but the last (which ends with the
//    list, short of the quantum) and within_10us_pct, the share of those
//    slices that ended within 10 µs past the quantum. On a loaded machine
//    the longest slice is the one during which the thread was preempted;
//    the median shows what the walk itself does.
//  - ClearStats: the synchronous clearStats() over the same tasks.
//
// Each checks its result: every task's figures cleared (sampled), the walk
// ended, and the slices add up to the whole list.
#include <KestoSupport/BenchRepetitions.h>

#include <Kesto/Platform/Platform.h>
#include <Kesto/Scheduler/ResetStatsTask.h>
#include <Kesto/Scheduler/Task.h>
#include <Kesto/Scheduler/TaskSchedulerRoot.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <vector>

using namespace Kesto;

namespace {

constexpr unsigned taskCount = 1000000;

class EmptyTask : public Task {
public:
  EmptyTask(Ptr<TaskScheduler> s, const String& name) : Task(std::move(s), TaskPriority::normal, name) {}
  void taskExecute() override {}
  static void operator delete(void* p) { ::operator delete(p); }
};

struct Population {
  explicit Population(const char* name) : root(schedulerRootKestoNonShared(name)) {
    // Every slice leaves a few events (run start, run end, schedule): enough
    // room for a walk of several hundred slices.
    root->historyEntryCountIs(4096);
    const String taskName("t");
    tasks.reserve(taskCount);
    for (unsigned i = 0; i < taskCount; ++i) {
      tasks.push_back(Ptr<EmptyTask>(new EmptyTask(root, taskName)));
      tasks.back()->taskWorkCountInc(1);
    }
  }
  // Gives every task a figure again, outside the timed part.
  void dirty() {
    for (auto& t : tasks)
      t->taskWorkCountInc(1);
  }
  bool cleared() const {
    for (std::size_t i = 0; i < tasks.size(); i += 997)
      if (tasks[i]->getStats().taskWorkCountTotal() != 0)
        return false;
    return tasks.back()->getStats().taskWorkCountTotal() == 0;
  }
  Ptr<TaskSchedulerRoot> root;
  std::vector<Ptr<EmptyTask>> tasks;
};

// The run times of `task`'s runs in the history, oldest last: each run end
// paired with the run start before it.
std::vector<TaskTimeDuration> slicesOf(const TaskSchedulerRoot& root, const TaskImpl& task) {
  std::vector<TaskTimeDuration> slices;
  TaskTimeStamp end{};
  bool haveEnd = false;
  for (const TaskSchedulerHistory::Event& e : *root.taskSchedulerHistory()) {
    if (e.identifier != task.taskHistoryIdentifier())
      continue;
    if (e.eventType == TaskSchedulerEventType::runEnd) {
      end = e.timestamp;
      haveEnd = true;
    } else if (e.eventType == TaskSchedulerEventType::runStart && haveEnd) {
      slices.push_back(end - e.timestamp);
      haveEnd = false;
    }
  }
  return slices;
}

void BM_ResetStatsWalk(benchmark::State& state) {
  Population p("resetWalk");
  const TaskDurationMs quantum(U32(state.range(0)));
  double ns = 0;
  double runs = 0;
  TaskTimeDuration longest{0};
  std::vector<double> overshoots; // µs, of every slice but a walk's last
  for (auto _ : state) {
    state.PauseTiming();
    p.dirty();
    p.root->clearHistory();
    state.ResumeTiming();
    const auto start = std::chrono::steady_clock::now();
    p.root->resetStats();
    TaskImpl& reset = *p.root->taskForTest(String("resetWalk;ResetStats"));
    reset.taskQuantumIs(quantum);
    Platform::doEventLoop();
    ns += double(std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now() - start).count());
    state.PauseTiming();
    if (p.root->resetStatsInProgress() || !p.cleared()) {
      state.SkipWithError("the walk did not clear every task");
      break;
    }
    const std::vector<TaskTimeDuration> slices = slicesOf(*p.root, reset);
    // The reset task is the newest task: it resets itself in the first
    // slice and then counts every task of the walk, itself included.
    if (reset.getStats().taskWorkCountTotal() != taskCount + 1 || slices.empty()) {
      state.SkipWithError("the slices do not add up to the whole list");
      break;
    }
    runs += double(slices.size());
    for (std::size_t i = 0; i < slices.size(); ++i) {
      longest = std::max(longest, slices[i]);
      if (i != 0) // slices[0] is the newest: the walk's last
        overshoots.push_back(double(slices[i].count()) / 1e3 - double(quantum.count()) * 1e3);
    }
    state.ResumeTiming();
  }
  const double iterations = double(state.iterations());
  state.counters["ns_per_task"] = ns / iterations / taskCount;
  state.counters["runs"] = runs / iterations;
  state.counters["quantum_ms"] = double(quantum.count());
  state.counters["longest_run_us"] = double(longest.count()) / 1e3;
  state.counters["overshoot_us"] = std::max(0.0, double(longest.count()) / 1e3 - double(quantum.count()) * 1e3);
  if (!overshoots.empty()) {
    std::sort(overshoots.begin(), overshoots.end());
    state.counters["median_overshoot_us"] = overshoots[overshoots.size() / 2];
    const auto within = std::count_if(overshoots.begin(), overshoots.end(), [](double o) { return o <= 10.0; });
    state.counters["within_10us_pct"] = 100.0 * double(within) / double(overshoots.size());
  }
}
BENCHMARK(BM_ResetStatsWalk)->Arg(20)->Arg(1)->Iterations(3)->Unit(benchmark::kMillisecond)->Apply(
    KestoSupport::repeated);

void BM_ClearStats(benchmark::State& state) {
  Population p("clear");
  double ns = 0;
  for (auto _ : state) {
    state.PauseTiming();
    p.dirty();
    state.ResumeTiming();
    const auto start = std::chrono::steady_clock::now();
    p.root->clearStats();
    ns += double(std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now() - start).count());
    state.PauseTiming();
    if (!p.cleared()) {
      state.SkipWithError("clearStats left figures behind");
      break;
    }
    state.ResumeTiming();
  }
  state.counters["ns_per_task"] = ns / double(state.iterations()) / taskCount;
}
BENCHMARK(BM_ClearStats)->Iterations(3)->Unit(benchmark::kMillisecond)->Apply(KestoSupport::repeated);

} // namespace

BENCHMARK_MAIN();
