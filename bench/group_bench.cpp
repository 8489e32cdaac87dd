// What a level of task groups adds to a task run, through the real loop.
//
// One task schedules itself again at every run, a batch of 100,000 runs per
// Platform::doEventLoop(), placed
//  - at the root (RootChain: one pass, one libevent callback per run);
//  - in a group under the root (Group), and in a group of a group (Group2),
//    in each run mode:
//      /multipleRuns: the group's passes follow each other inside one run of
//        the parent task until its 20 ms quantum has passed, so most task
//        runs cost one group pass and no libevent callback;
//      /oneRunEach: every task run is one root pass that runs the parent
//        task, which runs one group pass (and one more that finds the
//        temporary lists empty): the full cost of a level per run.
//
// Reported: ns_per_run, per run of the task. The benchmark checks that the
// batch ran, in the group, and that the run path allocated nothing.
#include <Kesto/Platform/Platform.h>
#include <Kesto/Scheduler/Task.h>
#include <Kesto/Scheduler/TaskGroup.h>
#include <Kesto/Scheduler/TaskSchedulerRoot.h>

#include <KestoSupport/BenchRepetitions.h>
#include <KestoSupport/MallocCounter.h>

#include <KestoSupport/ChainTask.h>

#include <benchmark/benchmark.h>

using namespace Kesto;

namespace {

constexpr U64 batch = 100000;

using KestoSupport::ChainTask;

// `depth` groups between the root and the task; 0 is the root itself.
void chainBench(benchmark::State& state, unsigned depth, bool multipleRuns) {
  Ptr<TaskSchedulerRoot> root = schedulerRootKestoNonShared("bench");
  std::vector<Ptr<TaskGroup>> groups;
  Ptr<TaskScheduler> where = root;
  for (unsigned level = 1; level <= depth; ++level) {
    groups.push_back(TaskGroup::TaskGroupIs(fmt::format("level{}", level), TaskPriority::normal,
                                            TaskGroupPriorityEnforcement::allowAny, where));
    groups.back()->tasksPermittedMultipleRunsIs(multipleRuns);
    where = groups.back();
  }
  U64 left = 0;
  Ptr<ChainTask> task(new ChainTask(where, TaskPriority::normal, "chain", &left));
  // Warm-up batch: first use of every path, untimed.
  left = batch - 1;
  task->scheduleTask();
  Platform::doEventLoop();
  const U64 before = task->taskRunCount();
  const unsigned long mallocBefore = KestoSupport::mallocCalls();
  for (auto _ : state) {
    left = batch - 1;
    task->scheduleTask();
    Platform::doEventLoop();
  }
  const U64 ran = task->taskRunCount() - before;
  if (ran != batch * U64(state.iterations()) || where->schedulerHasRunnableTasks())
    state.SkipWithError("the loop did not run the batch");
  if (KestoSupport::mallocCalls() != mallocBefore)
    state.SkipWithError("the run path allocated");
  if (depth != 0 && groups.back()->parentTaskRunCount() == 0)
    state.SkipWithError("the task did not run in its group");
  state.counters["ns_per_run"] =
      benchmark::Counter(double(ran), benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
  if (depth != 0)
    state.counters["runs_per_parent_run"] = double(ran + batch) / double(groups.back()->parentTaskRunCount());
}

void BM_RootChain(benchmark::State& state) { chainBench(state, 0, true); }
void BM_Group_multipleRuns(benchmark::State& state) { chainBench(state, 1, true); }
void BM_Group2_multipleRuns(benchmark::State& state) { chainBench(state, 2, true); }
void BM_Group_oneRunEach(benchmark::State& state) { chainBench(state, 1, false); }
void BM_Group2_oneRunEach(benchmark::State& state) { chainBench(state, 2, false); }

} // namespace

BENCHMARK(BM_RootChain)->Unit(benchmark::kMillisecond)->Apply(KestoSupport::repeated);
BENCHMARK(BM_Group_multipleRuns)->Unit(benchmark::kMillisecond)->Apply(KestoSupport::repeated);
BENCHMARK(BM_Group2_multipleRuns)->Unit(benchmark::kMillisecond)->Apply(KestoSupport::repeated);
BENCHMARK(BM_Group_oneRunEach)->Unit(benchmark::kMillisecond)->Apply(KestoSupport::repeated);
BENCHMARK(BM_Group2_oneRunEach)->Unit(benchmark::kMillisecond)->Apply(KestoSupport::repeated);

BENCHMARK_MAIN();
