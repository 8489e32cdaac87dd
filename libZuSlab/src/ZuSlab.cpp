// Entry points of the slab allocator and the per-thread glue.
//
// The common cases are written out here so that they compile to a few
// instructions: an allocation pops the head of the current page's free list,
// a free by the owning thread pushes onto its page's free list. Neither takes
// a lock or a locked instruction in per-thread mode.
#include <ZuSlab/ZuSlab.h>

#include "Heap.h"
#include "Pool.h"

#include <malloc.h>

#include <cstdlib>
#include <cstring>
#include <new>

namespace ZuSlab {

using namespace Impl;

namespace {

// The calling thread's heap: null until first use; the dead heap once the
// thread's own heap has been released at thread exit. Initial-exec TLS keeps
// the access a single load relative to the thread pointer.
thread_local Heap* tlsHeap __attribute__((tls_model("initial-exec"))) = nullptr;

// Releases the thread's heap at thread exit. Kept apart from tlsHeap, which
// is trivially destructible and so stays readable by destructors that run
// after this one.
struct ThreadHeapRelease {
  Heap* heap_ = nullptr;
  ~ThreadHeapRelease() {
    if (!heap_) return;
    Heap* h = heap_;
    heap_ = nullptr;
    tlsHeap = &deadHeap();
    retireHeap(*h);
  }
};
thread_local ThreadHeapRelease tlsRelease;

int readThreadMode() {
  const char* v = std::getenv("ZUSLAB_THREAD_MODE");
  return v && std::strcmp(v, "1") == 0 ? 1 : 2;
}

[[gnu::noinline]] Heap* threadHeapInit() noexcept {
  if (slabAllocatorThreadMode() == 1) {
    tlsHeap = &sharedHeap();
    return tlsHeap;
  }
  Heap* h = pool().adoptHeap();
  if (!h) return &deadHeap();  // no memory for a heap: serve this call from malloc
  tlsHeap = h;
  tlsRelease.heap_ = h;
  drainRemote(*h);  // a retired heap may hold late remote frees
  return h;
}

inline Heap* threadHeap() noexcept {
  Heap* h = tlsHeap;
  return h ? h : threadHeapInit();
}

// Counter of a heap that may have several writers (shared or dead heap).
inline void countShared(std::atomic<std::uint64_t>& c) { c.fetch_add(1, std::memory_order_relaxed); }

[[noreturn, gnu::noinline, gnu::cold]] void throwBadAlloc() { throw std::bad_alloc(); }

[[gnu::noinline]] void* largeAlloc(Heap* h, std::size_t size) {
  void* p = std::malloc(size ? size : 1);
  if (!p) throwBadAlloc();
  if (h->dead_) countShared(pool().unownedLargeAllocs_);
  else if (h->shared_) countShared(h->largeAllocs_);
  else countOne(h->largeAllocs_);
  return p;
}

inline void* popCurrent(ClassCache& k) {
  PageInfo* pg = k.current;
  if (!pg) return nullptr;
  void* b = pg->localFree;
  if (!b) return nullptr;
  pg->localFree = *static_cast<void**>(b);
  ++pg->used;
  return b;
}

// Everything created once per process is created at load, while the process
// has one thread: a fork in the middle of a first-use initialisation would
// leave the child waiting forever on the initialisation guard.
[[gnu::constructor]] void initAtLoad() {
  pool();
  deadHeap();
  if (slabAllocatorThreadMode() == 1) sharedHeap();
}

} // namespace

void* slabAllocOrStdMalloc(std::size_t size) {
  Heap* h = threadHeap();
  if (size <= kMaxSmall) [[likely]] {
    unsigned c = classOf(size);
    ClassCache& k = h->cls_[c];
    void* b;
    if (!h->shared_) [[likely]] {
      b = popCurrent(k);
      if (!b) [[unlikely]] b = allocSlow(*h, k, c);
      if (b) countOne(k.allocs);
    } else {
      std::lock_guard<std::mutex> g(k.lock);
      b = popCurrent(k);
      if (!b) b = allocSlow(*h, k, c);
      if (b) countOne(k.allocs);
    }
    if (b) [[likely]] {
      unpoisonBlock(b, kClassSizes[c]);
      return b;
    }
    // No slab page to be had: malloc serves, and the free finds it by address.
  }
  return largeAlloc(h, size);
}

void slabFreeOrStdFree(void* p) noexcept {
  if (!p) return;
  Heap* h = threadHeap();
  if (PageInfo* pg = pageOf(p)) [[likely]] {
    ClassCache& k = h->cls_[pg->sizeClass];
    if (pg->owner.load(std::memory_order_relaxed) == h) [[likely]] {
      if (!h->shared_) [[likely]] {
        freeToPage(k, pg, p);
        countOne(k.frees);
      } else {
        std::lock_guard<std::mutex> g(k.lock);
        freeToPage(k, pg, p);
        countOne(k.frees);
      }
      return;
    }
    if (h->dead_ || h->shared_) countShared(pool().unownedFrees_);
    else countOne(k.frees);
    freeForeign(pg, p);
    return;
  }
  if (h->dead_) countShared(pool().unownedLargeFrees_);
  else if (h->shared_) countShared(h->largeFrees_);
  else countOne(h->largeFrees_);
  std::free(p);
}

std::size_t slabUsableSize(const void* p) noexcept {
  if (!p) return 0;
  if (PageInfo* pg = pageOf(p)) return pg->blockSize;
  return ::malloc_usable_size(const_cast<void*>(p));
}

bool slabOwns(const void* p) noexcept { return p && pageOf(p) != nullptr; }

int slabAllocatorThreadMode() noexcept {
  static const int mode = readThreadMode();
  return mode;
}

std::pair<bool, unsigned long> slabAllocatorRunMadvise(std::function<bool()> stop) noexcept {
  try {
    return pool().runMadvise(stop);
  } catch (...) {
    return {false, 0};
  }
}

std::pair<bool, unsigned long> slabAllocatorRunEmptyPageScanner(std::function<bool()> stop) noexcept {
  try {
    Heap* h = slabAllocatorThreadMode() == 1 ? &sharedHeap() : tlsHeap;
    if (!h || h->dead_) return {false, 0};
    return scanEmptyPages(*h, stop);
  } catch (...) {
    return {false, 0};
  }
}

SlabStats slabStats() noexcept {
  Pool::Counts c = pool().counts();
  SlabStats s;
  s.pagesMapped = c.pagesMapped;
  s.pagesReturned = c.pagesReturned;
  s.blocksInUse = c.allocs > c.frees ? std::size_t(c.allocs - c.frees) : 0;
  s.largeAllocations = c.largeAllocs > c.largeFrees ? std::size_t(c.largeAllocs - c.largeFrees) : 0;
  return s;
}

} // namespace ZuSlab
