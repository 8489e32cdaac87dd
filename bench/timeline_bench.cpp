// The timeline of a full history ring: the default ring of 100 events and
// a ring raised to 10,000, with 20 tasks on the root and 10 in a group.
// One unit of the ring is four events, either a root task's schedule, run
// start, run end and idle, or a group's parent run around one of its
// tasks' runs; units alternate, so the ring is half and half.
//
// Each run checks its document: its length is the same at every iteration
// and its "runs" in otherData equal the runs the ring holds. A wrong
// timeline fails the benchmark.
//
// Reported: ns_per_event (time per ring event, inverted rate) and
// bytes_per_second, with mean, median, stddev, cv and min of 5 runs.
#include <KestoSupport/BenchRepetitions.h>

#include <Kesto/Report/SnapshotTimeline.h>
#include <Kesto/Report/TaskSchedulerSnapshot.h>

#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include <algorithm>
#include <string>
#include <vector>

using namespace Kesto;

namespace {

using Snapshot = TaskSchedulerSnapshotImpl;
using Event = TaskSchedulerHistory::Event;
using Type = TaskSchedulerEventType;

struct Ring {
  Ptr<TaskSchedulerSnapshot const> snapshot;
  unsigned runs = 0;
};

Ring fullRing(unsigned events) {
  auto* root = new Snapshot();
  root->schedulerName = "bench";
  root->isRootScheduler = true;
  std::vector<String> rootIds, groupIds;
  for (int i = 0; i < 20; ++i) {
    TaskStat t;
    t.taskNameIs(String(fmt::format("connection-{:02d}:read", i)));
    root->tasks.push_back(t);
    rootIds.push_back(String(fmt::format("N connection-{:02d}:read", i)).dedup());
  }
  TaskStat parent;
  parent.taskNameIs(String("TaskGroup;indexer"));
  root->tasks.push_back(parent);
  Snapshot group;
  group.schedulerName = "indexer";
  for (int i = 0; i < 10; ++i) {
    TaskStat t;
    t.taskNameIs(String(fmt::format("shard-{}", i)));
    group.tasks.push_back(t);
    groupIds.push_back(String(fmt::format("N shard-{}", i)).dedup());
  }
  root->subSchedulers.emplace_back(String("TaskGroup;indexer-@0x1"), std::move(group));
  const String parentId = String("N TaskGroup;indexer").dedup();

  Ring ring;
  std::vector<Event> oldestFirst;
  oldestFirst.reserve(events);
  // Steady-clock stamps of an agent up for a day, runs of 1 to 40 µs.
  long long ns = 86'400'000'000'000LL;
  for (unsigned unit = 0; oldestFirst.size() + 4 <= events; ++unit) {
    const auto at = [&](long long step) { return TaskTimeStamp(TaskTimeDuration(ns += step)); };
    const long long run = 1'000 + (unit * 7'919) % 39'000;
    if (unit % 2 == 0) {
      const String& id = rootIds[unit / 2 % rootIds.size()];
      oldestFirst.emplace_back(at(2'113), Type::schedule, id);
      oldestFirst.emplace_back(at(517), Type::runStart, id);
      oldestFirst.emplace_back(at(run), Type::runEnd, id);
      oldestFirst.emplace_back(at(11), Type::idle, id);
      ring.runs += 1;
    } else {
      const String& id = groupIds[unit / 2 % groupIds.size()];
      oldestFirst.emplace_back(at(1'301), Type::runStart, parentId);
      oldestFirst.emplace_back(at(209), Type::runStart, id);
      oldestFirst.emplace_back(at(run), Type::runEnd, id);
      oldestFirst.emplace_back(at(97), Type::runEnd, parentId);
      ring.runs += 2;
    }
  }
  root->history = Ptr<Snapshot::History>(new Snapshot::History(events, events));
  root->history->events.assign(oldestFirst.rbegin(), oldestFirst.rend());
  ring.snapshot = Ptr<TaskSchedulerSnapshot const>(root);
  return ring;
}

void BM_TimelineOfFullRing(benchmark::State& state) {
  const unsigned events = unsigned(state.range(0));
  const Ring ring = fullRing(events);
  SnapshotTimelineOptions options;
  options.processId = 1;
  const std::size_t expectedSize = snapshotTimelineToString(ring.snapshot, options).size();
  std::size_t size = 0;
  for (auto _ : state) {
    std::string document = snapshotTimelineToString(ring.snapshot, options);
    size = document.size();
    if (size != expectedSize) {
      state.SkipWithError("the document changed between runs");
      break;
    }
    benchmark::DoNotOptimize(document.data());
  }
  const std::string document = snapshotTimelineToString(ring.snapshot, options);
  if (document.find(fmt::format("\"runs\":{},", ring.runs)) == std::string::npos)
    state.SkipWithError("the document does not hold every run of the ring");
  state.SetBytesProcessed(int64_t(state.iterations() * size));
  state.counters["ns_per_event"] = benchmark::Counter(double(state.iterations() * events),
                                                      benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
  state.counters["bytes"] = double(size);
}

} // namespace

BENCHMARK(BM_TimelineOfFullRing)->Arg(100)->Arg(10000)->Apply(KestoSupport::repeated)->Unit(benchmark::kMicrosecond);

BENCHMARK_MAIN();
