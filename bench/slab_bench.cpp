// Slab allocator against glibc malloc, in one process: single alloc+free
// pairs and batches of 1000 allocations followed by 1000 frees, at the sizes
// of a container node (64 bytes) and of a task (256 bytes).
#include <ZuSlab/Allocator.h>
#include <ZuSlab/ZuSlab.h>

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <stdexcept>

namespace {

constexpr int kBatch = 1000;

struct SlabSide {
  static void* alloc(std::size_t n) { return ZuSlab::slabAllocOrStdMalloc(n); }
  static void release(void* p) { ZuSlab::slabFreeOrStdFree(p); }
};

struct MallocSide {
  static void* alloc(std::size_t n) { return std::malloc(n); }
  static void release(void* p) { std::free(p); }
};

// The pointer must be usable: write its first and last byte.
inline void touch(void* p, std::size_t size, benchmark::State& state) {
  if (!p) {
    state.SkipWithError("allocation returned null");
    return;
  }
  auto* b = static_cast<unsigned char*>(p);
  b[0] = 1;
  b[size - 1] = 2;
  benchmark::DoNotOptimize(b);
}

template <typename Side>
void allocFree(benchmark::State& state) {
  const auto size = static_cast<std::size_t>(state.range(0));
  for (auto _ : state) {
    void* p = Side::alloc(size);
    touch(p, size, state);
    Side::release(p);
  }
  state.SetItemsProcessed(state.iterations());
}

template <typename Side>
void batchAllocFree(benchmark::State& state) {
  const auto size = static_cast<std::size_t>(state.range(0));
  void* blocks[kBatch];
  for (auto _ : state) {
    for (int i = 0; i < kBatch; ++i) {
      blocks[i] = Side::alloc(size);
      touch(blocks[i], size, state);
    }
    benchmark::ClobberMemory();
    for (int i = 0; i < kBatch; ++i) {
      if (static_cast<unsigned char*>(blocks[i])[size - 1] != 2) state.SkipWithError("block overwritten");
      Side::release(blocks[i]);
    }
  }
  state.SetItemsProcessed(state.iterations() * kBatch);
}

void BM_SlabAllocFree(benchmark::State& s) { allocFree<SlabSide>(s); }
void BM_MallocFree(benchmark::State& s) { allocFree<MallocSide>(s); }
void BM_SlabBatch1000(benchmark::State& s) { batchAllocFree<SlabSide>(s); }
void BM_MallocBatch1000(benchmark::State& s) { batchAllocFree<MallocSide>(s); }

BENCHMARK(BM_SlabAllocFree)->Arg(64)->Arg(256);
BENCHMARK(BM_MallocFree)->Arg(64)->Arg(256);
BENCHMARK(BM_SlabBatch1000)->Arg(64)->Arg(256);
BENCHMARK(BM_MallocBatch1000)->Arg(64)->Arg(256);

// A container's view: build and clear a map of 1000 entries.
template <typename Map>
void mapFillClear(benchmark::State& state) {
  for (auto _ : state) {
    Map m;
    for (int i = 0; i < kBatch; ++i) m.emplace(i, i);
    if (m.size() != kBatch || m.rbegin()->second != kBatch - 1) state.SkipWithError("map content");
    benchmark::DoNotOptimize(m);
  }
  state.SetItemsProcessed(state.iterations() * kBatch);
}
using SlabMap = std::map<int, int, std::less<int>, Kesto::Allocator<std::pair<const int, int>>>;
using PlainMap = std::map<int, int>;
void BM_SlabMapFill1000(benchmark::State& s) { mapFillClear<SlabMap>(s); }
void BM_StdMapFill1000(benchmark::State& s) { mapFillClear<PlainMap>(s); }
BENCHMARK(BM_SlabMapFill1000);
BENCHMARK(BM_StdMapFill1000);

} // namespace

BENCHMARK_MAIN();
