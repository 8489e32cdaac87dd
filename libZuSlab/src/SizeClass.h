// Size classes of the slab allocator.
//
// Steps of 16 bytes up to 128 serve the map nodes and small records, which
// are the most frequent; above that each power of two is split in four, so a
// block wastes at most a fifth of itself up to the largest class, 4 KiB.
// Bigger requests go to malloc. Every class size is a multiple of 16, so
// every block of a page-aligned slab is 16-aligned.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

// Internal to the library: hidden, so that it is reached without the GOT.
#pragma GCC visibility push(hidden)

namespace ZuSlab::Impl {

inline constexpr std::array<std::uint32_t, 28> kClassSizes = {
    16,   32,   48,   64,   80,   96,   112,  128,   // fine steps
    160,  192,  224,  256,                           // tasks, controls
    320,  384,  448,  512,
    640,  768,  896,  1024,
    1280, 1536, 1792, 2048,
    2560, 3072, 3584, 4096,
};
inline constexpr unsigned kClassCount = kClassSizes.size();
inline constexpr std::size_t kMaxSmall = kClassSizes.back();

namespace Detail {
// Index into the lookup table: 16-byte granules up to 1 KiB, then 256-byte
// granules up to 4 KiB. Every class boundary lies on a granule boundary.
constexpr unsigned granule(std::size_t size) {
  return size <= 1024 ? unsigned((size + 15) >> 4)
                      : 64u + unsigned((size - 1024 + 255) >> 8);
}
inline constexpr unsigned kGranules = granule(kMaxSmall) + 1;

constexpr std::array<std::uint8_t, kGranules> makeLookup() {
  std::array<std::uint8_t, kGranules> t{};
  unsigned c = 0;
  for (unsigned g = 0; g < kGranules; ++g) {
    // Largest size that falls into granule g.
    std::size_t top = g <= 64 ? std::size_t(g) * 16 : 1024 + std::size_t(g - 64) * 256;
    while (kClassSizes[c] < top) ++c;
    t[g] = std::uint8_t(c);
  }
  return t;
}
inline constexpr auto kLookup = makeLookup();
} // namespace Detail

// Class serving `size` (0 < size <= kMaxSmall; 0 maps to the smallest).
inline unsigned classOf(std::size_t size) { return Detail::kLookup[Detail::granule(size)]; }

constexpr bool classTableIsConsistent() {
  for (std::size_t s = 0; s <= kMaxSmall; ++s) {
    unsigned c = Detail::kLookup[Detail::granule(s)];
    if (kClassSizes[c] < s) return false;              // too small
    if (c > 0 && kClassSizes[c - 1] >= s && s > 0) return false; // not the tightest
  }
  for (auto sz : kClassSizes)
    if (sz % 16 != 0) return false;
  return true;
}
static_assert(classTableIsConsistent(), "size class lookup must pick the tightest class");

} // namespace ZuSlab::Impl

#pragma GCC visibility pop
