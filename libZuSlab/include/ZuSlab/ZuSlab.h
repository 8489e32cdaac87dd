// ZuSlab: slab allocator for the family's small fixed-size objects.
//
// Tasks, controls, trace handlers and container nodes are allocated and freed
// at high rates in a few fixed sizes. Serving them from per-size slabs keeps
// them dense and makes allocation a pop from a free list. Sizes above the
// largest class go to malloc; slabFreeOrStdFree tells the two apart by the
// address, so callers never remember where a block came from.
//
// Memory that the application frees becomes reusable at once and, once a
// whole page of a slab is free, can be given back to the system by the two
// maintenance functions, which work in slices so that a scheduler can run
// them in the time other tasks leave over.
#pragma once

#include <ZuSlab/Export.h>

#include <cstddef>
#include <functional>
#include <utility>

namespace ZuSlab {

// Slabs are carved from pages of this size; the maintenance functions count
// their work in such pages. Blocks never straddle a page.
inline constexpr std::size_t kSlabPageSize = 16384;

// Largest request a size class serves; larger ones go to malloc.
inline constexpr std::size_t kSlabMaxClassSize = 4096;

// Allocates `size` bytes aligned to 16 (to the size class's alignment); from
// a slab when a class serves the size, otherwise from malloc. Never returns
// null: failure throws std::bad_alloc.
ZUSLAB_EXPORT void* slabAllocOrStdMalloc(std::size_t size);

// Frees a block from slabAllocOrStdMalloc. Null is ignored.
ZUSLAB_EXPORT void slabFreeOrStdFree(void* p) noexcept;

// Usable size of a block from slabAllocOrStdMalloc.
ZUSLAB_EXPORT std::size_t slabUsableSize(const void* p) noexcept;

// True when `p` lies in slab memory.
ZUSLAB_EXPORT bool slabOwns(const void* p) noexcept;

// 1: one process-wide set of slabs, each size class behind a mutex;
// 2: each thread has caches of its own, served without locks, and empty
// pages are found per thread by the empty-page scanner. Read once, when the
// library is loaded, from the environment variable ZUSLAB_THREAD_MODE ("1" selects 1;
// anything else, or nothing, selects 2).
ZUSLAB_EXPORT int slabAllocatorThreadMode() noexcept;

// Maintenance, for a background task. Each call does work in slices of 64
// pages and calls `stop` between slices; it returns when `stop` answers true
// or when there is nothing left. The result is (more work is pending now,
// pages handled). An empty `stop` never stops; a `stop` that throws is taken
// as a request to stop. Neither function throws.
//
// RunMadvise hands fully free pages back to the system (MADV_DONTNEED); the
// pages stay mapped and are reused without a fault storm.
ZUSLAB_EXPORT std::pair<bool, unsigned long> slabAllocatorRunMadvise(std::function<bool()> stop) noexcept;
// RunEmptyPageScanner moves pages of the calling thread's caches (of the
// process-wide caches in mode 1) that have become entirely free to the list
// of pages RunMadvise returns. Blocks that other threads freed back to this
// thread are taken in first.
ZUSLAB_EXPORT std::pair<bool, unsigned long> slabAllocatorRunEmptyPageScanner(std::function<bool()> stop) noexcept;

// Counters for tests and diagnostics; a consistent picture only while no
// other thread allocates or frees.
struct ZUSLAB_EXPORT SlabStats {
  std::size_t pagesMapped = 0;    // pages obtained from the system
  std::size_t pagesReturned = 0;  // pages currently given back by madvise
  std::size_t blocksInUse = 0;    // live slab blocks
  std::size_t largeAllocations = 0; // live blocks served by malloc
};
ZUSLAB_EXPORT SlabStats slabStats() noexcept;

} // namespace ZuSlab
