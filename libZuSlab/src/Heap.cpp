#include "Heap.h"
#include "Pool.h"

namespace ZuSlab::Impl {

void* allocSlow(Heap& h, ClassCache& k, unsigned c) {
  bool drained = false;
  for (;;) {
    if (PageInfo* pg = k.current) {
      if (void* b = pg->localFree) {
        pg->localFree = *static_cast<void**>(b);
        ++pg->used;
        return b;
      }
      if (pg->bump < pg->capacity) {
        // Carving lazily leaves untouched memory untouched: a fresh or
        // returned page costs a fault only for the blocks really used.
        void* b = pageData(pg) + std::size_t(pg->bump++) * pg->blockSize;
        ++pg->used;
        return b;
      }
    }
    // Blocks other threads gave back may refill this very page.
    if (!drained && h.remote_.load(std::memory_order_relaxed)) {
      drained = true;
      drainRemote(h);
      continue;
    }
    if (PageInfo* pg = k.current) {
      k.current = nullptr;
      k.full.push(pg, PageList::Full);
    }
    if (PageInfo* pg = k.avail.pop()) {
      k.current = pg;
      continue;
    }
    if (h.dead_) return nullptr;
    PageInfo* pg = pool().takePage(h, c);
    if (!pg) return nullptr;
    k.current = pg;
  }
}

void freeForeign(PageInfo* pg, void* b) {
  poisonFreeBlock(b, pg->blockSize);
  for (;;) {
    Heap* o = pg->owner.load(std::memory_order_acquire);
    if (o && o->shared_) {
      ClassCache& k = o->cls_[pg->sizeClass];
      std::lock_guard<std::mutex> g(k.lock);
      freeToPage(k, pg, b);
      return;
    }
    if (o) {
      void* head = o->remote_.load(std::memory_order_relaxed);
      do {
        *static_cast<void**>(b) = head;
      } while (!o->remote_.compare_exchange_weak(head, b, std::memory_order_release,
                                                 std::memory_order_relaxed));
      return;
    }
    if (pool().orphanFree(pg, b)) return;
    // Adopted by a heap between our read and the pool lock: go to it.
  }
}

void drainRemote(Heap& h) {
  void* b = h.remote_.exchange(nullptr, std::memory_order_acquire);
  while (b) {
    void* next = *static_cast<void**>(b);
    PageInfo* pg = pageOf(b);
    if (pg->owner.load(std::memory_order_relaxed) == &h)
      freeToPage(h.cls_[pg->sizeClass], pg, b);
    else
      freeForeign(pg, b);  // pushed before the page changed hands
    b = next;
  }
}

bool shouldStop(const std::function<bool()>& stop) noexcept {
  if (!stop) return false;
  try {
    return stop();
  } catch (...) {
    return true;
  }
}

namespace {

// Detaches up to `room` empty candidate pages of class cache `k` into `out`.
std::size_t takeEmptyCandidates(ClassCache& k, PageInfo** out, std::size_t room) {
  std::size_t n = 0;
  while (n < room && k.candidates) {
    PageInfo* pg = k.candidates;
    k.candidates = pg->candidateNext;
    pg->candidateNext = nullptr;
    pg->candidate = false;
    if (pg->used != 0) continue;  // blocks were handed out again since
    // An empty page is the current one or on the avail list, never full.
    if (k.current == pg)
      k.current = nullptr;
    else if (pg->list == PageList::Avail)
      k.avail.remove(pg);
    else
      continue;
    out[n++] = pg;
  }
  return n;
}

} // namespace

std::pair<bool, unsigned long> scanEmptyPages(Heap& h, const std::function<bool()>& stop) {
  if (!h.shared_) drainRemote(h);
  unsigned long done = 0;
  for (;;) {
    PageInfo* batch[kSlicePages];
    std::size_t n = 0;
    bool more = false;
    for (ClassCache& k : h.cls_) {
      std::unique_lock<std::mutex> g(k.lock, std::defer_lock);
      if (h.shared_) g.lock();
      if (n < kSlicePages) n += takeEmptyCandidates(k, batch + n, kSlicePages - n);
      more = more || k.candidates != nullptr;
    }
    if (n) pool().releaseEmpty(batch, n);
    done += n;
    if (!more) return {false, done};
    if (shouldStop(stop)) return {true, done};
  }
}

void retireHeap(Heap& h) {
  drainRemote(h);
  pool().abandonPages(h);
  // Blocks pushed while we were abandoning now belong to orphans.
  drainRemote(h);
  pool().retire(&h);
}

} // namespace ZuSlab::Impl
