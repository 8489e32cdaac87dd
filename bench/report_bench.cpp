// Reports of a snapshot of 100,000 tasks.
//
//  - TextToString / TextToStringHierarchical / JsonToString: the string
//    form, the whole walk and formatting with no task and no descriptor.
//  - TextToDescriptor / JsonToDescriptor: the asynchronous form through the
//    show task and the event loop into a socket pair, drained by a reader
//    thread as fast as it can: the pipeline's cost over the string form.
//
// Each run checks its output: the string forms against the length and line
// count the snapshot implies, the descriptor forms byte-count against the
// string form. A wrong report fails the benchmark.
//
// Reported: bytes_per_second (MB/s of report), ns_per_task (time per task
// line, inverted rate), with mean, median, stddev, cv and min of 5 runs.
#include <KestoSupport/BenchRepetitions.h>

#include <Kesto/Platform/Platform.h>
#include <Kesto/Report/SnapshotShowJson.h>
#include <Kesto/Report/SnapshotShowText.h>
#include <Kesto/Report/TaskSchedulerSnapshot.h>
#include <Kesto/Scheduler/TaskSchedulerRoot.h>

#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <thread>

using namespace Kesto;

namespace {

constexpr std::size_t taskCount = 100000;

// Names, times and counters vary from task to task, as in a real agent:
// a third report work counters, a fifth pending counters.
Ptr<TaskSchedulerSnapshot const> bigSnapshot() {
  static Ptr<TaskSchedulerSnapshot const> kept = [] {
    auto* s = new TaskSchedulerSnapshotImpl();
    s->schedulerName = "bench";
    s->isRootScheduler = true;
    s->displayOrder = 0xFFFFFFFF;
    s->tasks.reserve(taskCount);
    for (std::size_t i = 0; i < taskCount; ++i) {
      TaskStat t;
      t.taskNameIs(String(fmt::format("connection-{:06d}:read", i)));
      t.taskKeyIs(TaskKey(reinterpret_cast<const void*>(0x7f0000000000 + i * 256)));
      t.taskPriorityIs(TaskPriority(2 + i % 3));
      t.taskRunInc(1 + i * 7 % 100000);
      t.taskTotalRunTimeInc(TaskTimeDuration(I64(i * 7919 % 1000000007)));
      t.taskLastSchedulingLatencyIs(TaskDurationMs(U32(i % 37)));
      t.taskSchedulingLatencyHighWaterMarkIs(TaskDurationMs(U32(i % 1500)));
      t.taskRunTimeHighWaterMarkIs(TaskDurationMs(U32(i % 250)));
      if (i % 3 == 0) {
        t.taskWorkCountTotalInc(i * 13);
        t.taskWorkCountDecayAvgIs(float(i % 100) / 4.0f);
        t.taskWorkCountHighWaterMarkIs(U32(i % 4096));
      }
      if (i % 5 == 0) {
        t.taskWorkPendingIs(U32(i % 17));
        t.taskWorkPendingHighWaterMarkIs(U32(i % 1024));
      }
      s->tasks.push_back(std::move(t));
    }
    return Ptr<TaskSchedulerSnapshot const>(s);
  }();
  return kept;
}

void report(benchmark::State& state, std::size_t bytesPerRun) {
  state.SetBytesProcessed(int64_t(state.iterations() * bytesPerRun));
  state.counters["ns_per_task"] = benchmark::Counter(double(state.iterations() * taskCount),
                                                     benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void textToString(benchmark::State& state, bool hierarchical) {
  const Ptr<TaskSchedulerSnapshot const> snapshot = bigSnapshot();
  std::size_t bytes = 0;
  for (auto _ : state) {
    Ptr<SnapshotShowText> show(new SnapshotShowText(snapshot, hierarchical, false));
    const String text = show->renderToStringWithoutYielding();
    bytes = text.size();
    // Title, blank, header, rule, six rows, slip and blank, 16 legend
    // lines, blank, header, the tasks, the blank line that ends the table.
    const std::size_t lines = std::size_t(std::count(text.begin(), text.end(), '\n'));
    if (lines != 31 + taskCount) {
      state.SkipWithError("wrong number of lines");
      return;
    }
    benchmark::DoNotOptimize(text.data());
  }
  report(state, bytes);
}

void BM_TextToString(benchmark::State& state) { textToString(state, false); }
void BM_TextToStringHierarchical(benchmark::State& state) { textToString(state, true); }

void BM_JsonToString(benchmark::State& state) {
  const Ptr<TaskSchedulerSnapshot const> snapshot = bigSnapshot();
  std::size_t bytes = 0;
  for (auto _ : state) {
    const String text = SnapshotShowJsonIs(snapshot)->renderToStringWithoutYielding();
    bytes = text.size();
    const std::size_t objects = std::size_t(std::count(text.begin(), text.end(), '{'));
    // Document, schedulers, the scheduler, priorityStats and its six rows,
    // tasks, subSchedulers; per task one, plus its counter objects.
    const std::size_t expected = 12 + taskCount + (taskCount + 2) / 3 + (taskCount + 4) / 5;
    if (objects != expected || text[text.size() - 1] != '}') {
      state.SkipWithError("wrong document");
      return;
    }
    benchmark::DoNotOptimize(text.data());
  }
  report(state, bytes);
}

// The asynchronous form to a socket pair whose other end a thread drains.
void toDescriptor(benchmark::State& state, bool json) {
  const Ptr<TaskSchedulerSnapshot const> snapshot = bigSnapshot();
  Ptr<TaskSchedulerRoot> root = TaskSchedulerRoot::TaskSchedulerRootIs("bench");
  const std::size_t expected =
      json ? SnapshotShowJsonIs(snapshot)->renderToStringWithoutYielding().size()
           : Ptr<SnapshotShowText>(new SnapshotShowText(snapshot, false, false))->renderToStringWithoutYielding().size();
  for (auto _ : state) {
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) {
      state.SkipWithError("socketpair");
      return;
    }
    std::atomic<std::size_t> received{0};
    std::thread reader([&] {
      static thread_local char buf[1 << 16];
      ssize_t n;
      while ((n = ::read(fds[1], buf, sizeof buf)) > 0)
        received += std::size_t(n);
      ::close(fds[1]);
    });
    bool done = false;
    if (json)
      root->snapshotRenderJsonAsync(fds[0], {snapshot}, [&] { done = true; });
    else
      root->snapshotRenderTextAsync(fds[0], {snapshot}, false, false, [&] { done = true; });
    while (!done)
      Platform::doEventLoop(0.01);
    reader.join();
    if (received != expected) {
      state.SkipWithError("bytes received differ from the string form");
      return;
    }
  }
  report(state, expected);
}

void BM_TextToDescriptor(benchmark::State& state) { toDescriptor(state, false); }
void BM_JsonToDescriptor(benchmark::State& state) { toDescriptor(state, true); }

} // namespace

BENCHMARK(BM_TextToString)->Unit(benchmark::kMillisecond)->Apply(KestoSupport::repeated);
BENCHMARK(BM_TextToStringHierarchical)->Unit(benchmark::kMillisecond)->Apply(KestoSupport::repeated);
BENCHMARK(BM_JsonToString)->Unit(benchmark::kMillisecond)->Apply(KestoSupport::repeated);
BENCHMARK(BM_TextToDescriptor)->Unit(benchmark::kMillisecond)->Apply(KestoSupport::repeated);
BENCHMARK(BM_JsonToDescriptor)->Unit(benchmark::kMillisecond)->Apply(KestoSupport::repeated);

BENCHMARK_MAIN();
