#include "Pool.h"

#include <pthread.h>
#include <sys/mman.h>

#include <algorithm>
#include <new>

namespace ZuSlab::Impl {

std::atomic<std::uintptr_t> gRegionBegin{0};
std::atomic<std::size_t> gRegionSpan{0};
std::atomic<PageInfo*> gPageTable{nullptr};

namespace {

// Address space asked for first; halved until the system agrees. Reserving
// costs nothing but address space, and a large range means the region is
// never the limit in practice.
constexpr std::size_t kReserveFirst = std::size_t(32) << 30;  // 32 GiB
constexpr std::size_t kReserveLeast = std::size_t(64) << 20;  // 64 MiB

void* reserve(std::size_t bytes) {
  void* p = ::mmap(nullptr, bytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  return p == MAP_FAILED ? nullptr : p;
}

} // namespace

Pool::Pool() {
  for (std::size_t bytes = kReserveFirst; bytes >= kReserveLeast; bytes /= 2) {
    // One spare page so the data can start on a page boundary.
    void* data = reserve(bytes + kPageSize);
    if (!data) continue;
    std::size_t pages = bytes / kPageSize;
    void* meta = reserve(pages * sizeof(PageInfo));
    if (!meta) {
      ::munmap(data, bytes + kPageSize);
      continue;
    }
    std::uintptr_t begin = (reinterpret_cast<std::uintptr_t>(data) + kPageSize - 1) & ~(kPageSize - 1);
    reservedPages_ = pages;
    gPageTable.store(static_cast<PageInfo*>(meta), std::memory_order_relaxed);
    gRegionBegin.store(begin, std::memory_order_relaxed);
    gRegionSpan.store(bytes, std::memory_order_release);
    registerRootRegion(reinterpret_cast<void*>(begin), bytes);
    return;
  }
  // No region: every request is served by malloc, which stays correct.
}

PageInfo* Pool::freshPage() {
  if (handedPages_ == committedPages_) {
    if (committedPages_ + kChunkPages > reservedPages_) return nullptr;
    char* data = reinterpret_cast<char*>(gRegionBegin.load(std::memory_order_relaxed)) +
                 committedPages_ * kPageSize;
    PageInfo* meta = gPageTable.load(std::memory_order_relaxed) + committedPages_;
    if (::mprotect(data, kChunkPages * kPageSize, PROT_READ | PROT_WRITE) != 0) return nullptr;
    if (::mprotect(meta, kChunkPages * sizeof(PageInfo), PROT_READ | PROT_WRITE) != 0) return nullptr;
    for (std::size_t i = 0; i < kChunkPages; ++i) new (meta + i) PageInfo;
    committedPages_ += kChunkPages;
  }
  ++pagesMapped_;
  return gPageTable.load(std::memory_order_relaxed) + handedPages_++;
}

PageInfo* Pool::takePage(Heap& h, unsigned c) {
  std::lock_guard<std::mutex> g(lock_);
  // Orphans that received frees are kept at the head of their list.
  if (PageInfo* pg = orphans_[c].head; pg && (pg->localFree || pg->bump < pg->capacity)) {
    orphans_[c].remove(pg);
    pg->owner.store(&h, std::memory_order_release);
    return pg;
  }
  PageInfo* pg = empty_.pop();
  if (!pg) {
    pg = returned_.pop();
    if (pg) --pagesReturned_;
  }
  if (!pg) pg = freshPage();
  if (!pg) return nullptr;
  pg->sizeClass = static_cast<std::uint8_t>(c);
  pg->blockSize = kClassSizes[c];
  pg->capacity = static_cast<std::uint32_t>(kPageSize / kClassSizes[c]);
  pg->bump = 0;
  pg->localFree = nullptr;
  pg->used = 0;
  pg->candidate = false;
  pg->candidateNext = nullptr;
  pg->owner.store(&h, std::memory_order_release);
  return pg;
}

void Pool::resetEmpty(PageInfo* pg) {
  // Free blocks are forgotten: the page is carved afresh from its start the
  // next time, so its content never matters, even after MADV_DONTNEED.
  pg->localFree = nullptr;
  pg->used = 0;
  pg->bump = 0;
  pg->candidate = false;
  pg->candidateNext = nullptr;
  pg->owner.store(nullptr, std::memory_order_relaxed);
  poisonRange(pageData(pg), kPageSize);
  empty_.push(pg, PageList::Empty);
}

void Pool::releaseEmpty(PageInfo* const* pages, std::size_t n) {
  std::lock_guard<std::mutex> g(lock_);
  for (std::size_t i = 0; i < n; ++i) resetEmpty(pages[i]);
}

bool Pool::orphanFree(PageInfo* pg, void* b) {
  std::lock_guard<std::mutex> g(lock_);
  if (pg->owner.load(std::memory_order_relaxed) != nullptr) return false;
  *static_cast<void**>(b) = pg->localFree;
  pg->localFree = b;
  orphans_[pg->sizeClass].remove(pg);
  if (--pg->used == 0) {
    resetEmpty(pg);
  } else {
    orphans_[pg->sizeClass].push(pg, PageList::Orphan);  // to the head: it has room now
    poisonFreeBlock(b, pg->blockSize);
  }
  return true;
}

void Pool::abandonPages(Heap& h) {
  std::lock_guard<std::mutex> g(lock_);
  auto abandon = [this](PageInfo* pg) {
    pg->candidate = false;
    pg->candidateNext = nullptr;
    if (pg->used == 0) {
      resetEmpty(pg);
      return;
    }
    pg->owner.store(nullptr, std::memory_order_release);
    // Orphans that can serve an adopter go first, full ones to the back.
    if (pg->localFree || pg->bump < pg->capacity)
      orphans_[pg->sizeClass].push(pg, PageList::Orphan);
    else
      orphans_[pg->sizeClass].pushBack(pg, PageList::Orphan);
  };
  for (ClassCache& k : h.cls_) {
    k.candidates = nullptr;
    if (PageInfo* cur = k.current) {
      k.current = nullptr;
      abandon(cur);
    }
    while (PageInfo* pg = k.avail.pop()) abandon(pg);
    while (PageInfo* pg = k.full.pop()) abandon(pg);
  }
}

Heap* Pool::adoptHeap() noexcept {
  {
    std::lock_guard<std::mutex> g(lock_);
    if (Heap* h = retired_) {
      retired_ = h->nextRetired_;
      h->nextRetired_ = nullptr;
      return h;
    }
  }
  Heap* h = new (std::nothrow) Heap(false, false);
  if (h) registerHeap(h);
  return h;
}

void Pool::retire(Heap* h) {
  std::lock_guard<std::mutex> g(lock_);
  h->nextRetired_ = retired_;
  retired_ = h;
}

void Pool::registerHeap(Heap* h) {
  std::lock_guard<std::mutex> g(lock_);
  h->nextRegistered_ = registry_;
  registry_ = h;
}

void Pool::sweepRetiredRemotes() {
  // A thread that read a page's owner just before that owner ended may have
  // pushed its block to the retired heap. Forward such blocks now, or they
  // would wait for the heap's next thread.
  void* chain = nullptr;
  {
    std::lock_guard<std::mutex> g(lock_);
    for (Heap* r = retired_; r; r = r->nextRetired_) {
      void* list = r->remote_.exchange(nullptr, std::memory_order_acquire);
      if (!list) continue;
      void* tail = list;
      while (*static_cast<void**>(tail)) tail = *static_cast<void**>(tail);
      *static_cast<void**>(tail) = chain;
      chain = list;
    }
  }
  while (chain) {
    void* next = *static_cast<void**>(chain);
    freeForeign(pageOf(chain), chain);
    chain = next;
  }
}

std::pair<bool, unsigned long> Pool::runMadvise(const std::function<bool()>& stop) {
  sweepRetiredRemotes();
  unsigned long done = 0;
  for (;;) {
    PageInfo* batch[kSlicePages];
    std::size_t n = 0;
    {
      std::lock_guard<std::mutex> g(lock_);
      while (n < kSlicePages && empty_.head) batch[n++] = empty_.pop();
    }
    if (n == 0) return {false, done};
    // Side-table order is address order: coalesce neighbours into one call.
    std::sort(batch, batch + n);
    bool failed = false;
    for (std::size_t i = 0; i < n && !failed;) {
      std::size_t j = i + 1;
      while (j < n && batch[j] == batch[j - 1] + 1) ++j;
      if (::madvise(pageData(batch[i]), (j - i) * kPageSize, MADV_DONTNEED) != 0) {
        failed = true;
        break;
      }
      i = j;
    }
    bool more;
    {
      std::lock_guard<std::mutex> g(lock_);
      for (std::size_t i = 0; i < n; ++i) {
        if (failed) {
          empty_.push(batch[i], PageList::Empty);
        } else {
          returned_.push(batch[i], PageList::Returned);
          ++pagesReturned_;
        }
      }
      more = empty_.head != nullptr;
    }
    // A failing madvise would fail again at once: leave it to the next run.
    if (failed) return {false, done};
    done += n;
    if (!more) return {false, done};
    if (shouldStop(stop)) return {true, done};
  }
}

Pool::Counts Pool::counts() {
  std::lock_guard<std::mutex> g(lock_);
  Counts c{pagesMapped_, pagesReturned_, 0, 0, 0, 0};
  for (Heap* h = registry_; h; h = h->nextRegistered_) {
    for (ClassCache& k : h->cls_) {
      c.allocs += k.allocs.load(std::memory_order_relaxed);
      c.frees += k.frees.load(std::memory_order_relaxed);
    }
    c.largeAllocs += h->largeAllocs_.load(std::memory_order_relaxed);
    c.largeFrees += h->largeFrees_.load(std::memory_order_relaxed);
  }
  c.frees += unownedFrees_.load(std::memory_order_relaxed);
  c.largeAllocs += unownedLargeAllocs_.load(std::memory_order_relaxed);
  c.largeFrees += unownedLargeFrees_.load(std::memory_order_relaxed);
  return c;
}

namespace {

std::atomic<Heap*> gSharedHeap{nullptr};

// A fork while another thread holds one of our locks would leave the child
// with a lock nobody releases. Hold them all across fork, in the order the
// allocation path takes them: class locks, then the pool lock.
void lockAllForFork() {
  if (Heap* s = gSharedHeap.load(std::memory_order_acquire))
    for (ClassCache& k : s->cls_) k.lock.lock();
  pool().lock_.lock();
}

void unlockAllAfterFork() {
  pool().lock_.unlock();
  if (Heap* s = gSharedHeap.load(std::memory_order_acquire))
    for (ClassCache& k : s->cls_) k.lock.unlock();
}

} // namespace

Pool& pool() {
  static Pool* const p = [] {
    Pool* created = new Pool;
    ::pthread_atfork(lockAllForFork, unlockAllAfterFork, unlockAllAfterFork);
    return created;
  }();
  return *p;
}

Heap& sharedHeap() {
  static Heap* const h = [] {
    Heap* s = new Heap(true, false);
    pool().registerHeap(s);
    gSharedHeap.store(s, std::memory_order_release);
    return s;
  }();
  return *h;
}

Heap& deadHeap() {
  static Heap* const h = new Heap(false, true);
  return *h;
}

} // namespace ZuSlab::Impl
