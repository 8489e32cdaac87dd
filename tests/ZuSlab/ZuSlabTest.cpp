#include <ZuSlab/ZuSlab.h>

#include "SlabTestUtil.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <random>
#include <unordered_map>
#include <vector>

using namespace ZuSlab;
using SlabTest::checkPattern;
using SlabTest::fillPattern;

namespace {

struct Block {
  void* p;
  std::size_t size;
  std::uint32_t seed;
};

} // namespace

TEST(ZuSlab, EveryClassSizeKeepsItsContents) {
  const SlabStats before = slabStats();
  std::vector<Block> blocks;
  std::uint32_t seed = 1;
  // Every size a class serves, three blocks each, all alive at once so that
  // neighbours in a page would overwrite each other if they overlapped.
  for (std::size_t size = 1; size <= kSlabMaxClassSize; ++size) {
    for (int i = 0; i < 3; ++i) {
      void* p = slabAllocOrStdMalloc(size);
      ASSERT_NE(p, nullptr);
      ASSERT_EQ(reinterpret_cast<std::uintptr_t>(p) % 16, 0u) << "size " << size;
      ASSERT_TRUE(slabOwns(p)) << "size " << size;
      ASSERT_GE(slabUsableSize(p), size);
      fillPattern(p, size, seed);
      blocks.push_back({p, size, seed++});
    }
  }
  EXPECT_EQ(slabStats().blocksInUse, before.blocksInUse + blocks.size());
  for (const Block& b : blocks) ASSERT_TRUE(checkPattern(b.p, b.size, b.seed)) << "size " << b.size;
  for (const Block& b : blocks) slabFreeOrStdFree(b.p);
  EXPECT_EQ(slabStats().blocksInUse, before.blocksInUse);
}

TEST(ZuSlab, UsableSizeIsTheSizeOfTheClass) {
  struct Case { std::size_t ask, usable; };
  for (Case c : {Case{1, 16}, Case{16, 16}, Case{17, 32}, Case{100, 112}, Case{129, 160},
                 Case{200, 224}, Case{300, 320}, Case{1025, 1280}, Case{4000, 4096}}) {
    void* p = slabAllocOrStdMalloc(c.ask);
    EXPECT_EQ(slabUsableSize(p), c.usable) << "asked " << c.ask;
    slabFreeOrStdFree(p);
  }
}

TEST(ZuSlab, FreedBlockIsReusedOnTheSameThread) {
  for (std::size_t size : {16u, 64u, 96u, 256u, 400u, 1000u, 4096u}) {
    void* p = slabAllocOrStdMalloc(size);
    slabFreeOrStdFree(p);
    void* q = slabAllocOrStdMalloc(size);
    EXPECT_EQ(q, p) << "size " << size;
    // Any size of the same class gets the block back too.
    slabFreeOrStdFree(q);
    void* r = slabAllocOrStdMalloc(slabUsableSize(p));
    EXPECT_EQ(r, p) << "size " << size;
    slabFreeOrStdFree(r);
  }
}

TEST(ZuSlab, LargeSizesGoToMallocAndFreeCorrectly) {
  const SlabStats before = slabStats();
  std::vector<Block> blocks;
  std::uint32_t seed = 7;
  for (std::size_t size : {kSlabMaxClassSize + 1, std::size_t(5000), std::size_t(65536),
                           std::size_t(1) << 20, std::size_t(8) << 20}) {
    void* p = slabAllocOrStdMalloc(size);
    ASSERT_NE(p, nullptr);
    EXPECT_FALSE(slabOwns(p)) << "size " << size;
    EXPECT_GE(slabUsableSize(p), size);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(p) % 16, 0u);
    fillPattern(p, size, seed);
    blocks.push_back({p, size, seed++});
  }
  SlabStats during = slabStats();
  EXPECT_EQ(during.largeAllocations, before.largeAllocations + blocks.size());
  EXPECT_EQ(during.blocksInUse, before.blocksInUse);
  for (const Block& b : blocks) {
    EXPECT_TRUE(checkPattern(b.p, b.size, b.seed));
    slabFreeOrStdFree(b.p);
  }
  EXPECT_EQ(slabStats().largeAllocations, before.largeAllocations);
}

TEST(ZuSlab, NullFreeIsIgnored) {
  const SlabStats before = slabStats();
  slabFreeOrStdFree(nullptr);
  const SlabStats after = slabStats();
  EXPECT_EQ(after.blocksInUse, before.blocksInUse);
  EXPECT_EQ(after.largeAllocations, before.largeAllocations);
  EXPECT_FALSE(slabOwns(nullptr));
  EXPECT_EQ(slabUsableSize(nullptr), 0u);
}

TEST(ZuSlab, ZeroSizeGivesADistinctUsableBlock) {
  void* a = slabAllocOrStdMalloc(0);
  void* b = slabAllocOrStdMalloc(0);
  ASSERT_NE(a, nullptr);
  ASSERT_NE(b, nullptr);
  EXPECT_NE(a, b);
  EXPECT_TRUE(slabOwns(a));
  std::memset(a, 0xab, slabUsableSize(a));
  slabFreeOrStdFree(a);
  slabFreeOrStdFree(b);
}

TEST(ZuSlab, StackAndMallocAddressesAreNotSlabMemory) {
  int local = 0;
  void* m = std::malloc(32);
  EXPECT_FALSE(slabOwns(&local));
  EXPECT_FALSE(slabOwns(m));
  std::free(m);
}

TEST(ZuSlab, ThreadModeFollowsTheEnvironment) {
  const char* v = std::getenv("ZUSLAB_THREAD_MODE");
  int expected = v && std::strcmp(v, "1") == 0 ? 1 : 2;
  EXPECT_EQ(slabAllocatorThreadMode(), expected);
  EXPECT_EQ(slabAllocatorThreadMode(), expected);  // read once, stays
}

TEST(ZuSlab, RandomMixedAllocationsMatchAModel) {
  const SlabStats before = slabStats();
  std::mt19937_64 rng(20261121);
  std::vector<Block> live;
  live.reserve(1 << 14);
  std::uint32_t seed = 1;
  constexpr int kOps = 1'000'000;
  for (int op = 0; op < kOps; ++op) {
    // Keep the live set around a few thousand blocks, leaning to growth at
    // the start and to shrinking at the end, so pages fill and empty.
    const bool grow = live.empty() || (op < kOps / 2 ? rng() % 100 < 55 : rng() % 100 < 45);
    if (grow) {
      std::size_t size;
      switch (rng() % 10) {
        case 0: size = kSlabMaxClassSize + 1 + rng() % 20000; break;  // malloc
        case 1: case 2: size = 129 + rng() % (kSlabMaxClassSize - 128); break;
        default: size = rng() % 129; break;
      }
      void* p = slabAllocOrStdMalloc(size);
      ASSERT_NE(p, nullptr);
      ASSERT_EQ(slabOwns(p), size <= kSlabMaxClassSize);
      // Writing every byte of big blocks would dominate; both ends catch
      // overlaps just as well.
      std::size_t touched = size <= 512 ? size : 448;
      fillPattern(p, touched, seed);
      if (size > touched) fillPattern(static_cast<char*>(p) + size - 64, 64, seed + 1);
      live.push_back({p, size, seed});
      seed += 2;
    } else {
      std::size_t i = rng() % live.size();
      Block b = live[i];
      std::size_t touched = b.size <= 512 ? b.size : 448;
      ASSERT_TRUE(checkPattern(b.p, touched, b.seed)) << "op " << op << " size " << b.size;
      if (b.size > touched) {
        ASSERT_TRUE(checkPattern(static_cast<char*>(b.p) + b.size - 64, 64, b.seed + 1));
      }
      slabFreeOrStdFree(b.p);
      live[i] = live.back();
      live.pop_back();
    }
  }
  std::size_t small = 0;
  for (const Block& b : live) small += b.size <= kSlabMaxClassSize;
  SlabStats mid = slabStats();
  EXPECT_EQ(mid.blocksInUse, before.blocksInUse + small);
  EXPECT_EQ(mid.largeAllocations, before.largeAllocations + (live.size() - small));
  for (const Block& b : live) {
    std::size_t touched = b.size <= 512 ? b.size : 448;
    ASSERT_TRUE(checkPattern(b.p, touched, b.seed));
    slabFreeOrStdFree(b.p);
  }
  SlabStats after = slabStats();
  EXPECT_EQ(after.blocksInUse, before.blocksInUse);
  EXPECT_EQ(after.largeAllocations, before.largeAllocations);
}

TEST(ZuSlab, UseAfterFreeIsReportedUnderAddressSanitizer) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        auto* p = static_cast<volatile char*>(slabAllocOrStdMalloc(64));
        p[40] = 1;
        slabFreeOrStdFree(const_cast<char*>(p));
        p[40] = 2;  // past the free-list link: poisoned
      },
      "use-after-poison");
#else
  GTEST_SKIP() << "only an AddressSanitizer build tracks slab blocks";
#endif
}
