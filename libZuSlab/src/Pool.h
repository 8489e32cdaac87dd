// The process-wide side of the slab allocator: the reserved region, the
// page side table, and the lists of pages no heap owns.
//
// One large range of address space is reserved once (PROT_NONE, so it costs
// no memory) and committed in chunks as slabs are needed. A block belongs to
// the slab allocator exactly when its address lies in that range, which is
// how frees tell slab blocks from malloc blocks. Page metadata sits in a
// parallel reserved table indexed by page number.
//
// Everything here except the lookup globals is guarded by `lock_`; it is
// taken on slow paths only (a heap refills or gives back pages, orphan
// frees, maintenance, statistics).
#pragma once

#include <ZuSlab/ZuSlab.h>

#include "Heap.h"
#include "PageInfo.h"
#include "SizeClass.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <utility>

// Internal to the library: hidden, so that it is reached without the GOT.
#pragma GCC visibility push(hidden)

namespace ZuSlab::Impl {

inline constexpr unsigned kPageShift = 14;
inline constexpr std::size_t kPageSize = std::size_t(1) << kPageShift;  // 16 KiB
inline constexpr std::size_t kChunkPages = 64;   // committed together: 1 MiB
inline constexpr std::size_t kSlicePages = 64;   // maintenance works in slices of this many pages
static_assert(kPageSize == kSlabPageSize && kMaxSmall == kSlabMaxClassSize,
              "the public constants describe the implementation");
static_assert(kPageSize % kMaxSmall == 0, "the largest class fills a page exactly");
static_assert(kChunkPages * sizeof(PageInfo) % 4096 == 0,
              "a chunk's metadata covers whole system pages");

// Set once, when the region is reserved; read on every free.
extern std::atomic<std::uintptr_t> gRegionBegin;
extern std::atomic<std::size_t> gRegionSpan;   // 0 until reserved: nothing is ours
extern std::atomic<PageInfo*> gPageTable;

inline PageInfo* pageOf(const void* p) {
  std::uintptr_t off = reinterpret_cast<std::uintptr_t>(p) - gRegionBegin.load(std::memory_order_relaxed);
  if (off >= gRegionSpan.load(std::memory_order_relaxed)) return nullptr;
  return gPageTable.load(std::memory_order_relaxed) + (off >> kPageShift);
}

inline char* pageData(const PageInfo* pg) {
  std::size_t index = std::size_t(pg - gPageTable.load(std::memory_order_relaxed));
  return reinterpret_cast<char*>(gRegionBegin.load(std::memory_order_relaxed) + (index << kPageShift));
}

class Pool {
 public:
  Pool();

  // A page for class `c`, owned by `h` on return: an orphan with free
  // blocks, else an empty page, else a returned one, else a fresh one.
  // Null when the region is exhausted or cannot be committed.
  PageInfo* takePage(Heap& h, unsigned c);

  // Pages whose blocks are all free, detached from their heap.
  void releaseEmpty(PageInfo* const* pages, std::size_t n);

  // Frees `b` into orphan page `pg`. False if the page was adopted meanwhile
  // (the caller retries with the new owner).
  bool orphanFree(PageInfo* pg, void* b);

  // Called by the owner thread at its exit: every page of `h` leaves it,
  // the empty ones to the empty list, the others as orphans.
  void abandonPages(Heap& h);

  // Heaps for threads of the per-thread mode.
  Heap* adoptHeap() noexcept;
  void retire(Heap* h);
  void registerHeap(Heap* h);

  // Hands empty pages back to the system; see slabAllocatorRunMadvise.
  std::pair<bool, unsigned long> runMadvise(const std::function<bool()>& stop);

  struct Counts {
    std::size_t pagesMapped, pagesReturned;
    std::uint64_t allocs, frees, largeAllocs, largeFrees;
  };
  Counts counts();

  // Frees counted by threads without a heap of their own.
  std::atomic<std::uint64_t> unownedFrees_{0};
  std::atomic<std::uint64_t> unownedLargeAllocs_{0};
  std::atomic<std::uint64_t> unownedLargeFrees_{0};

  std::mutex lock_;

 private:
  PageInfo* freshPage();
  void resetEmpty(PageInfo* pg);
  void sweepRetiredRemotes();

  std::size_t reservedPages_ = 0;
  std::size_t committedPages_ = 0;
  std::size_t handedPages_ = 0;
  PageQueue orphans_[kClassCount];
  PageQueue empty_;
  PageQueue returned_;
  Heap* registry_ = nullptr;
  Heap* retired_ = nullptr;
  std::size_t pagesMapped_ = 0;
  std::size_t pagesReturned_ = 0;
};

// Created at first use and never destroyed, so that blocks freed by static
// destructors at process exit still find it.
Pool& pool();

// The heap of shared mode, and the one that stands for threads whose heap
// has been released.
Heap& sharedHeap();
Heap& deadHeap();

} // namespace ZuSlab::Impl

#pragma GCC visibility pop
