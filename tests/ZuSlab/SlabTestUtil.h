// Helpers shared by the slab allocator tests: byte patterns that tell every
// block apart, so that an overlap or a stray write shows as a mismatch.
#pragma once

#include <ZuSlab/ZuSlab.h>

#include <cstddef>
#include <cstdint>

namespace SlabTest {

inline std::uint8_t patternByte(std::uint32_t seed, std::size_t i) {
  return static_cast<std::uint8_t>((seed * 2654435761u) >> 24 ^ (i * 131u + seed));
}

inline void fillPattern(void* p, std::size_t size, std::uint32_t seed) {
  auto* b = static_cast<std::uint8_t*>(p);
  for (std::size_t i = 0; i < size; ++i) b[i] = patternByte(seed, i);
}

inline bool checkPattern(const void* p, std::size_t size, std::uint32_t seed) {
  auto* b = static_cast<const std::uint8_t*>(p);
  for (std::size_t i = 0; i < size; ++i)
    if (b[i] != patternByte(seed, i)) return false;
  return true;
}

// Runs both maintenance steps to the end, so that a test starts with no
// empty page waiting anywhere.
inline void flushMaintenance() {
  while (ZuSlab::slabAllocatorRunEmptyPageScanner(nullptr).first) {}
  while (ZuSlab::slabAllocatorRunMadvise(nullptr).first) {}
}

inline std::uintptr_t pageOfAddress(const void* p) {
  return reinterpret_cast<std::uintptr_t>(p) / ZuSlab::kSlabPageSize;
}

} // namespace SlabTest
