// A heap: the slab caches that one thread (per-thread mode) or the whole
// process (shared mode) allocates from.
//
// Each size class has a current page to pop from, a list of other pages with
// free blocks and a list of full pages, plus a list of pages whose last block
// came back (candidates for the empty-page scanner). In per-thread mode only
// the owning thread touches these, without atomics; other threads hand back
// blocks through `remote`, a lock-free stack the owner takes in one exchange.
// In shared mode each class is guarded by its own mutex and `remote` stays
// empty.
//
// Heaps are never freed: a heap whose thread ended is retired and given to
// the next new thread, so a late remote free can always push to it safely.
#pragma once

#include "PageInfo.h"
#include "Poison.h"
#include "SizeClass.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <utility>

// Internal to the library: hidden, so that it is reached without the GOT.
#pragma GCC visibility push(hidden)

namespace ZuSlab::Impl {

struct ClassCache {
  PageInfo* current = nullptr;
  PageQueue avail;
  PageQueue full;
  PageInfo* candidates = nullptr;
  // Written by one writer at a time (owner thread, or under `lock`), read
  // by slabStats from anywhere.
  std::atomic<std::uint64_t> allocs{0};
  std::atomic<std::uint64_t> frees{0};
  std::mutex lock;  // shared mode only
};

struct Heap {
  Heap(bool shared, bool dead) : shared_(shared), dead_(dead) {}
  Heap(const Heap&) = delete;
  Heap& operator=(const Heap&) = delete;

  ClassCache cls_[kClassCount];
  std::atomic<void*> remote_{nullptr};      // blocks freed by other threads
  std::atomic<std::uint64_t> largeAllocs_{0};
  std::atomic<std::uint64_t> largeFrees_{0};
  const bool shared_;   // shared mode: one heap for all threads, locked per class
  const bool dead_;     // stands for threads whose heap is gone; owns nothing
  Heap* nextRegistered_ = nullptr;  // pool registry, for statistics
  Heap* nextRetired_ = nullptr;     // pool list of heaps awaiting a thread
};

// Single-writer counter increment: a plain load and store, no locked
// instruction. Only for counters with one writer at a time.
inline void countOne(std::atomic<std::uint64_t>& c) {
  c.store(c.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

// Returns a block of class `k` to its page. Caller owns the page's heap (or
// holds the class lock in shared mode).
inline void freeToPage(ClassCache& k, PageInfo* pg, void* b) {
  *static_cast<void**>(b) = pg->localFree;
  pg->localFree = b;
  if (pg->list == PageList::Full) {
    k.full.remove(pg);
    k.avail.push(pg, PageList::Avail);
  }
  if (--pg->used == 0 && !pg->candidate) {
    pg->candidate = true;
    pg->candidateNext = k.candidates;
    k.candidates = pg;
  }
  poisonFreeBlock(b, pg->blockSize);
}

// Refills class `c` of `h` and pops a block, or returns null when no page can
// be had (region exhausted, or `h` is the dead heap). Same locking as
// freeToPage. Does not count.
void* allocSlow(Heap& h, ClassCache& k, unsigned c);

// Frees a block whose page `h` does not own: pushes it to the owner's remote
// stack, or frees it under the pool lock if the page is an orphan. Does not
// count.
void freeForeign(PageInfo* pg, void* b);

// Owner thread: takes the blocks other threads handed back.
void drainRemote(Heap& h);

// Moves pages of `h` whose blocks are all free to the pool's empty list, in
// slices; see slabAllocatorRunEmptyPageScanner.
std::pair<bool, unsigned long> scanEmptyPages(Heap& h, const std::function<bool()>& stop);

// Owner thread at its exit: hands every page to the pool (empty ones to the
// empty list, the others as orphans) and retires the heap.
void retireHeap(Heap& h);

// Whether the caller wants the maintenance work to stop; an empty predicate
// never stops, and one that throws is taken as a request to stop.
bool shouldStop(const std::function<bool()>& stop) noexcept;

} // namespace ZuSlab::Impl

#pragma GCC visibility pop
