// What a snapshot costs the thread: the scheduler is stopped for the whole
// copy, so its time is the figure that matters.
//
//  - Snapshot/N: a root with N tasks (names shared 1,000 ways), the
//    completed statistics of 1,000 names and a full history ring, copied
//    with every task, the completed statistics and the history.
//  - SnapshotFiltered/N: the same with a filter that keeps 1 % of the tasks
//    (10 of the 1,000 names).
//  - SnapshotGroups/N: the N tasks in ten task groups of N/10 under the
//    root, one nested snapshot each.
//
// Reported: ns_per_task, and bytes_per_task held by the snapshot's vectors.
// Each iteration checks what it copied.
#include <Kesto/Report/TaskSchedulerSnapshot.h>
#include <Kesto/Scheduler/Task.h>
#include <Kesto/Scheduler/TaskGroup.h>
#include <Kesto/Scheduler/TaskSchedulerRoot.h>

#include <KestoSupport/BenchRepetitions.h>

#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include <vector>

using namespace Kesto;

namespace {

class IdleTask : public Task {
public:
  IdleTask(Ptr<TaskScheduler> s, const String& name) : Task(std::move(s), TaskPriority::normal, name) {}
  void taskExecute() override {}
  static void operator delete(void* p) { ::operator delete(p); }
};

constexpr unsigned nameCount = 1000;
constexpr unsigned completedNames = 1000;

struct Agent {
  Agent(unsigned taskCount, unsigned groupCount = 0) : root(TaskSchedulerRoot::TaskSchedulerRootIs("bench")) {
    for (unsigned g = 0; g < groupCount; ++g)
      groups.push_back(TaskGroup::TaskGroupIs(String(fmt::format("group{}", g)), TaskPriority::normal,
                                              TaskGroupPriorityEnforcement::allowAny, root));
    std::vector<String> names;
    for (unsigned i = 0; i < nameCount; ++i)
      names.push_back(String(fmt::format("worker{}", i)).dedup());
    for (unsigned i = 0; i < completedNames; ++i)
      Ptr<IdleTask>(new IdleTask(root, String(fmt::format("finished{}", i)).dedup()));
    tasks.reserve(taskCount);
    for (unsigned i = 0; i < taskCount; ++i)
      tasks.push_back(Ptr<IdleTask>(new IdleTask(
          groups.empty() ? Ptr<TaskScheduler>(root) : Ptr<TaskScheduler>(groups[i % groups.size()]),
          names[i % nameCount])));
  }
  Ptr<TaskSchedulerRoot> root;
  std::vector<Ptr<TaskGroup>> groups;
  std::vector<Ptr<IdleTask>> tasks;
};

// The tasks of a snapshot and of all it nests.
std::size_t taskLines(const TaskSchedulerSnapshotImpl& s) {
  std::size_t n = s.tasks.size();
  for (const auto& [key, nested] : s.subSchedulers)
    n += taskLines(nested);
  return n;
}

std::size_t bytesHeld(const TaskSchedulerSnapshotImpl& s) {
  std::size_t n = (s.tasks.capacity() + s.completedTasks.capacity()) * sizeof(TaskStat) +
                  s.subSchedulers.capacity() * sizeof(TaskSchedulerSnapshotImpl::SubScheduler);
  if (s.history)
    n += s.history->events.capacity() * sizeof(TaskSchedulerHistory::Event);
  for (const auto& [key, nested] : s.subSchedulers)
    n += bytesHeld(nested);
  return n;
}

void run(benchmark::State& state, const String& filter, std::size_t expectedTasks, unsigned groupCount = 0) {
  const unsigned taskCount = unsigned(state.range(0));
  Agent agent(taskCount, groupCount);
  const TaskSchedulerHistory& ring = *agent.root->taskSchedulerHistory();
  if (ring.historyEventCount() != ring.historyEntryCount())
    state.SkipWithError("history ring not full");
  std::size_t bytes = 0;
  for (auto _ : state) {
    Ptr<TaskSchedulerSnapshot const> s =
        agent.root->snapshot("", true, true, true, filter, TaskScheduler::displayOrderNotSpecified);
    const auto& impl = static_cast<const TaskSchedulerSnapshotImpl&>(*s);
    if (taskLines(impl) != expectedTasks || !impl.history || impl.subSchedulers.size() != groupCount) {
      state.SkipWithError("wrong copy");
      break;
    }
    bytes = bytesHeld(impl);
    state.PauseTiming();
    s = nullptr; // the release is the reader's cost, not the thread's stop
    state.ResumeTiming();
  }
  state.counters["ns_per_task"] =
      benchmark::Counter(double(taskCount), benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
  state.counters["bytes_per_task"] = double(bytes) / taskCount;
}

void BM_Snapshot(benchmark::State& state) { run(state, String(), std::size_t(state.range(0))); }

void BM_SnapshotFiltered(benchmark::State& state) {
  // worker1..worker9 and worker10: 10 names of 1,000.
  run(state, "worker([1-9]|10)", std::size_t(state.range(0)) / 100);
}

void BM_SnapshotGroups(benchmark::State& state) {
  // Each group's parent task has a line of its own in the root's tasks.
  run(state, String(), std::size_t(state.range(0)) + 10, 10);
}

} // namespace

BENCHMARK(BM_SnapshotGroups)->Arg(100000)->Unit(benchmark::kMillisecond)->Apply(KestoSupport::repeated);
BENCHMARK(BM_Snapshot)->Arg(10000)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond)->Apply(KestoSupport::repeated);
BENCHMARK(BM_SnapshotFiltered)
    ->Arg(10000)
    ->Arg(100000)
    ->Arg(1000000)
    ->Unit(benchmark::kMillisecond)
    ->Apply(KestoSupport::repeated);
BENCHMARK_MAIN();
