// Costs of the core library's hot paths: interning a name that is already
// interned, copying the strings that must never allocate, counting Ptr
// references in both modes, and the empty deferred-operation check.
//
// Allocations are counted by interposing malloc, calloc and realloc (operator
// new reaches malloc too), and a benchmark that must not allocate fails when
// it does.
#include <Kesto/Core/Ptr.h>
#include <Kesto/Core/Publisher.h>
#include <Kesto/Core/Rdtsc.h>
#include <Kesto/Core/String.h>
#include <Kesto/Core/ThreadControl.h>

#include <KestoSupport/MallocCounter.h>

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <string>
#include <vector>


namespace {

using Kesto::String;

// Reports allocations per iteration, and fails the benchmark when a loop
// that must not allocate did.
class AllocationCheck {
public:
  AllocationCheck(benchmark::State& state, bool mustNotAllocate)
      : state_(state), mustNotAllocate_(mustNotAllocate), start_(KestoSupport::mallocCalls()) {}
  ~AllocationCheck() {
    const unsigned long made = KestoSupport::mallocCalls() - start_;
    const double iterations = state_.iterations() ? double(state_.iterations()) : 1.0;
    state_.counters["allocs/iter"] = double(made) / iterations;
    if (mustNotAllocate_ && made != 0)
      state_.SkipWithError("the loop allocated");
  }

private:
  benchmark::State& state_;
  bool mustNotAllocate_;
  unsigned long start_;
};

const std::string taskName = "TaskSchedulerRoot.main:SlabEmptyPageScanner"; // 44 bytes

// Fills the table with many other names first, so that lookups probe a
// table of realistic size rather than an almost empty one.
void internOtherNames() {
  static bool done = false;
  if (done)
    return;
  for (int i = 0; i < 5000; ++i)
    (void)String::dedup("background task name number " + std::to_string(i));
  done = true;
}

void BM_DedupInternedName(benchmark::State& state) {
  internOtherNames();
  const String expected = String::dedup(taskName);
  const std::string_view name = taskName;
  AllocationCheck check(state, true);
  for (auto _ : state) {
    String s = String::dedup(name);
    benchmark::DoNotOptimize(s);
    if (s.data() != expected.data()) [[unlikely]] {
      state.SkipWithError("dedup gave another copy");
      break;
    }
  }
}
BENCHMARK(BM_DedupInternedName);
BENCHMARK(BM_DedupInternedName)->Threads(2);

void BM_DedupOfOrdinaryString(benchmark::State& state) {
  internOtherNames();
  const String expected = String::dedup(taskName);
  const String ordinary(taskName);
  AllocationCheck check(state, true);
  for (auto _ : state) {
    String s = ordinary.dedup();
    benchmark::DoNotOptimize(s);
    if (s.data() != expected.data()) [[unlikely]] {
      state.SkipWithError("dedup gave another copy");
      break;
    }
  }
}
BENCHMARK(BM_DedupOfOrdinaryString);

void copyLoop(benchmark::State& state, const String& source, bool mustNotAllocate) {
  AllocationCheck check(state, mustNotAllocate);
  for (auto _ : state) {
    String copy(source);
    benchmark::DoNotOptimize(copy);
    if (copy.size() != source.size()) [[unlikely]] {
      state.SkipWithError("copy lost its text");
      break;
    }
  }
}

void BM_CopyDedupString(benchmark::State& state) { copyLoop(state, String::dedup(taskName), true); }
BENCHMARK(BM_CopyDedupString);

void BM_CopyShortString(benchmark::State& state) { copyLoop(state, String("TaskScheduler:read"), true); }
BENCHMARK(BM_CopyShortString);

// For comparison: the form that does allocate on copy.
void BM_CopyOrdinaryString(benchmark::State& state) { copyLoop(state, String(taskName), false); }
BENCHMARK(BM_CopyOrdinaryString);

struct Counted : Kesto::RefCount<> {
  int value = 1;
};

void ptrCopyLoop(benchmark::State& state, bool threadSafe) {
  const bool old = Kesto::ThreadControl::tsp_;
  Kesto::ThreadControl::threadSafePointersIs(threadSafe);
  Kesto::Ptr<Counted> p = Kesto::ptrIs<Counted>();
  {
    AllocationCheck check(state, true);
    for (auto _ : state) {
      Kesto::Ptr<Counted> copy = p;
      benchmark::DoNotOptimize(copy);
    }
  }
  if (p->refCount() != 1)
    state.SkipWithError("the count did not come back to one");
  Kesto::ThreadControl::threadSafePointersIs(old);
}

void BM_PtrCopyDestroyPlain(benchmark::State& state) { ptrCopyLoop(state, false); }
BENCHMARK(BM_PtrCopyDestroyPlain);

void BM_PtrCopyDestroyAtomic(benchmark::State& state) { ptrCopyLoop(state, true); }
BENCHMARK(BM_PtrCopyDestroyAtomic);

void BM_RunDeferredOpsEmpty(benchmark::State& state) {
  if (Kesto::Publisher::deferredOpCount() != 0) {
    state.SkipWithError("ops queued before the loop");
    return;
  }
  for (auto _ : state) {
    Kesto::Publisher::runDeferredOps();
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_RunDeferredOpsEmpty);

void BM_RdtscTicks(benchmark::State& state) {
  Kesto::U64 last = Kesto::Rdtsc::ticks();
  for (auto _ : state) {
    const Kesto::U64 now = Kesto::Rdtsc::ticks();
    if (now < last) [[unlikely]] {
      state.SkipWithError("ticks went backwards");
      break;
    }
    last = now;
  }
}
BENCHMARK(BM_RdtscTicks);

} // namespace

BENCHMARK_MAIN();
