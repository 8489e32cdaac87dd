// Scheduler run-path costs.
//
//  - SchedulerPass: one _handleSchedulerRun() that picks and runs a task whose
//    taskExecute() is empty, history on (four events per task: schedule is
//    done outside the timed part, run start, run end, busy/idle).
//  - ScheduleRun: scheduleTask() plus that pass, the full cycle of one task.
//  - SchedulePickUnlink/N: scheduleTask() + pickOneTask() (which unlinks), with
//    N tasks registered on the scheduler (idle, on three priorities). The
//    operated tasks are a fixed eight, so the figure shows the cost's
//    dependence on N alone: it must stay flat.
//
// Counters: sizeof(Task) and sizeof(TaskSchedulerHistory::Event).
#include <KestoSupport/TestScheduler.h>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <stdexcept>
#include <vector>

using namespace KestoTest;

namespace {

class EmptyTask : public Task {
public:
  EmptyTask(Ptr<TaskScheduler> s, TaskPriority p, const String& name) : Task(std::move(s), p, name) {}
  void taskExecute() override {}
  static void operator delete(void* p) { ::operator delete(p); }
};

void sizes(benchmark::State& state) {
  state.counters["sizeof_Task"] = double(sizeof(Task));
  state.counters["sizeof_HistoryEvent"] = double(sizeof(TaskSchedulerHistory::Event));
}

void BM_SchedulerPass(benchmark::State& state) {
  auto s = TestScheduler::rootIs("bench");
  constexpr unsigned batch = 1024;
  std::vector<Ptr<EmptyTask>> tasks;
  for (unsigned i = 0; i < batch; ++i)
    tasks.push_back(Ptr<EmptyTask>(new EmptyTask(s, TaskPriority::normal, fmt::format("t{}", i))));
  unsigned next = batch;
  U64 ran = 0;
  for (auto _ : state) {
    if (next == batch) {
      state.PauseTiming();
      for (auto& t : tasks)
        t->scheduleTask();
      next = 0;
      state.ResumeTiming();
    }
    ran += s->_handleSchedulerRun(TaskPriority::scavenge);
    ++next;
  }
  for (auto& t : tasks)
    t->unscheduleTask();
  if (ran != U64(state.iterations()))
    state.SkipWithError("a pass ran no task");
  sizes(state);
}
BENCHMARK(BM_SchedulerPass);

void BM_ScheduleRun(benchmark::State& state) {
  auto s = TestScheduler::rootIs("bench");
  Ptr<EmptyTask> t(new EmptyTask(s, TaskPriority::normal, "t"));
  U64 ran = 0;
  for (auto _ : state) {
    t->scheduleTask();
    ran += s->_handleSchedulerRun(TaskPriority::scavenge);
  }
  if (ran != U64(state.iterations()))
    state.SkipWithError("a pass ran no task");
  sizes(state);
}
BENCHMARK(BM_ScheduleRun);

void BM_SchedulePickUnlink(benchmark::State& state) {
  auto s = TestScheduler::rootIs("bench");
  const std::size_t n = std::size_t(state.range(0));
  std::vector<Ptr<EmptyTask>> tasks;
  tasks.reserve(n);
  const TaskPriority priorities[] = {TaskPriority::high, TaskPriority::normal, TaskPriority::low};
  for (std::size_t i = 0; i < n; ++i)
    tasks.push_back(Ptr<EmptyTask>(new EmptyTask(s, priorities[i % 3], fmt::format("t{}", i))));
  const std::size_t operated = std::min<std::size_t>(n, 8);
  std::size_t k = 0;
  U64 picked = 0;
  for (auto _ : state) {
    EmptyTask& t = *tasks[k];
    t.scheduleTask();
    TaskImpl* p = s->pickOneTask(taskClockNow(), TaskPriority::critical, TaskPriority::scavenge);
    benchmark::DoNotOptimize(p);
    picked += p == &t;
    if (++k == operated)
      k = 0;
  }
  for (auto& t : tasks)
    t->unscheduleTask();
  state.counters["registered"] = double(n);
  if (picked != U64(state.iterations()))
    state.SkipWithError("pick failed");
  sizes(state);
}
BENCHMARK(BM_SchedulePickUnlink)->Arg(10)->Arg(10000)->Arg(1000000);

} // namespace

BENCHMARK_MAIN();
