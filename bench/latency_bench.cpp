// What one latency event costs the run that is late: the walk over a full
// history ring of 100 events, and the whole recording of an event.
//
//  - LatencyCollectFullRing: LatencyCulpritsCollector::collect() over a ring
//    of 100 whose oldest event is the late task's "schedule": every event is
//    read. After it, 33 runs of 33 tasks (run start, run end, idle: 99
//    events), so the table credits 33 identifiers and ranks 8 of them.
//  - LatencyCollectNested: the same ring size with one run of a group's
//    parent task enclosing 32 runs of its tasks: the nesting path.
//  - LatencyEventRecord: TaskSchedulerHistory::latencyEventRecord() on the
//    first ring, what the run path calls when the threshold is crossed: the
//    walk, the copy of the identifiers into the slot of the ring of kept
//    events, the trace test.
//
// Each checks what the walk found (covered window, culprits and the rest)
// and that the timed loop allocated nothing. Reported: ns_per_walk.
#include <Kesto/Scheduler/LatencyCulprits.h>
#include <Kesto/Scheduler/TaskSchedulerHistory.h>

#include <KestoSupport/BenchRepetitions.h>
#include <KestoSupport/MallocCounter.h>

#include <benchmark/benchmark.h>
#include <fmt/format.h>

using namespace Kesto;

namespace {

using Type = TaskSchedulerEventType;

TaskTimeStamp at(long micros) { return TaskTimeStamp(std::chrono::seconds(100) + std::chrono::microseconds(micros)); }

void add(TaskSchedulerHistory& ring, long micros, Type type, const String& identifier) {
  ring.insert(TaskSchedulerHistory::Event(at(micros), type, identifier));
}

const String lateTask = String::dedup("L latency-bench-reader");

// 33 runs of 33 tasks after the late task's scheduling, 100 events in all.
Ptr<TaskSchedulerHistory> flatRing() {
  Ptr<TaskSchedulerHistory> ring(new TaskSchedulerHistory(100));
  add(*ring, 0, Type::schedule, lateTask);
  for (int i = 0; i < 33; ++i) {
    const String task = String::dedup(fmt::format("N ingest-worker-{:02}", i));
    add(*ring, 10 * i + 1, Type::runStart, task);
    add(*ring, 10 * i + 1 + i, Type::runEnd, task);
    add(*ring, 10 * i + 1 + i, Type::idle, task);
  }
  return ring;
}

// One parent run enclosing 32 runs of the group's tasks, 100 events in all.
Ptr<TaskSchedulerHistory> nestedRing() {
  Ptr<TaskSchedulerHistory> ring(new TaskSchedulerHistory(100));
  const String parent = String::dedup("N TaskGroup;latency-bench-group");
  add(*ring, 0, Type::schedule, lateTask);
  add(*ring, 1, Type::runStart, parent);
  for (int i = 0; i < 32; ++i) {
    const String task = String::dedup(fmt::format("N shard-{:02}", i));
    add(*ring, 10 * i + 2, Type::runStart, task);
    add(*ring, 10 * i + 8, Type::runEnd, task);
    add(*ring, 10 * i + 8, Type::idle, task);
  }
  add(*ring, 330, Type::runEnd, parent);
  return ring;
}

LatencyEvent lateEvent() {
  LatencyEvent event;
  event.identifier = lateTask;
  event.schedulerName = String("bench");
  event.scheduledAt = at(0);
  event.runStart = at(400);
  return event;
}

bool allocationFree(benchmark::State& state, unsigned long allocations) {
  if (KestoSupport::mallocCountingWorks() && allocations != 0) {
    state.SkipWithError("the walk allocated");
    return false;
  }
  return true;
}

void collectBench(benchmark::State& state, const Ptr<TaskSchedulerHistory>& ring, U32 culprits, U32 leftOut) {
  LatencyCulpritsCollector collector(ring->historyEntryCount());
  LatencyEvent event = lateEvent();
  collector.collect(*ring, event); // first use of the table
  const unsigned long before = KestoSupport::mallocCalls();
  for (auto _ : state) {
    collector.collect(*ring, event);
    benchmark::DoNotOptimize(event);
  }
  if (!allocationFree(state, KestoSupport::mallocCalls() - before))
    return;
  if (!event.historyCoversWindow || event.culpritCount != culprits || event.culpritsLeftOut != leftOut)
    state.SkipWithError("the walk did not find the ring's runs");
  state.counters["ns_per_walk"] =
      benchmark::Counter(double(state.iterations()), benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void BM_LatencyCollectFullRing(benchmark::State& state) { collectBench(state, flatRing(), 8, 25); }

// The parent's own time (1-2, the gaps, 320-330) makes it one more culprit.
void BM_LatencyCollectNested(benchmark::State& state) { collectBench(state, nestedRing(), 8, 25); }

void BM_LatencyEventRecord(benchmark::State& state) {
  Ptr<TaskSchedulerHistory> ring = flatRing();
  ring->latencyCulpritsIs(TaskDurationMs(1), 16);
  const LatencyEvent event = lateEvent();
  ring->latencyEventRecord(event.identifier, event.schedulerName, event.scheduledAt, event.runStart);
  const unsigned long before = KestoSupport::mallocCalls();
  for (auto _ : state)
    ring->latencyEventRecord(event.identifier, event.schedulerName, event.scheduledAt, event.runStart);
  if (!allocationFree(state, KestoSupport::mallocCalls() - before))
    return;
  const std::vector<LatencyEvent> kept = ring->latencyEvents(1);
  if (ring->latencyEventCount() != U64(state.iterations()) + 1 || kept.empty() || !kept[0].historyCoversWindow ||
      kept[0].culpritCount != 8 || kept[0].culpritsLeftOut != 25)
    state.SkipWithError("the events were not recorded");
  state.counters["ns_per_walk"] =
      benchmark::Counter(double(state.iterations()), benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

} // namespace

BENCHMARK(BM_LatencyCollectFullRing)->Apply(KestoSupport::repeated);
BENCHMARK(BM_LatencyCollectNested)->Apply(KestoSupport::repeated);
BENCHMARK(BM_LatencyEventRecord)->Apply(KestoSupport::repeated);

BENCHMARK_MAIN();
