// AddressSanitizer hooks for slab memory.
//
// ASan only knows malloc's blocks; our pages come from mmap. Poisoning what
// is free lets ASan report a use after free of a slab block as it would for
// the heap, and registering the region as a root lets the leak checker see
// heap pointers stored in slab blocks. Without ASan all of this is empty.
#pragma once

#include <cstddef>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#include <sanitizer/lsan_interface.h>
#define ZUSLAB_ASAN 1
#endif

// Internal to the library: hidden, so that it is reached without the GOT.
#pragma GCC visibility push(hidden)

namespace ZuSlab::Impl {

// A free block keeps its first word for the free-list link; the rest is
// poisoned.
inline void poisonFreeBlock([[maybe_unused]] void* b, [[maybe_unused]] std::size_t size) {
#ifdef ZUSLAB_ASAN
  ASAN_POISON_MEMORY_REGION(static_cast<char*>(b) + sizeof(void*), size - sizeof(void*));
#endif
}

inline void poisonRange([[maybe_unused]] void* p, [[maybe_unused]] std::size_t size) {
#ifdef ZUSLAB_ASAN
  ASAN_POISON_MEMORY_REGION(p, size);
#endif
}

inline void unpoisonBlock([[maybe_unused]] void* b, [[maybe_unused]] std::size_t size) {
#ifdef ZUSLAB_ASAN
  ASAN_UNPOISON_MEMORY_REGION(b, size);
#endif
}

inline void registerRootRegion([[maybe_unused]] void* p, [[maybe_unused]] std::size_t size) {
#ifdef ZUSLAB_ASAN
  __lsan_register_root_region(p, size);
#endif
}

} // namespace ZuSlab::Impl

#pragma GCC visibility pop
