#include <ZuSlab/Allocator.h>
#include <ZuSlab/ZuSlab.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <limits>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <vector>

using Kesto::Allocator;
using ZuSlab::slabOwns;
using ZuSlab::slabStats;

static_assert(std::is_same_v<std::allocator_traits<Allocator<int>>::rebind_alloc<double>,
                             Allocator<double>>);
static_assert(std::is_same_v<std::allocator_traits<Allocator<int, false, char>>::rebind_alloc<long>,
                             Allocator<long, false, char>>);
static_assert(std::allocator_traits<Allocator<int>>::is_always_equal::value);

TEST(Allocator, StdMapOfOneHundredThousandEntries) {
  const auto before = slabStats();
  {
    using Map = std::map<int, std::uint64_t, std::less<int>, Allocator<std::pair<const int, std::uint64_t>>>;
    Map m;
    for (int i = 0; i < 100'000; ++i) m.emplace(i * 3, std::uint64_t(i) * 1'000'003u);
    EXPECT_EQ(m.size(), 100'000u);
    EXPECT_GE(slabStats().blocksInUse, before.blocksInUse + 100'000);
    EXPECT_TRUE(slabOwns(&*m.begin()));
    for (int i = 0; i < 100'000; i += 2) m.erase(i * 3);
    int expect = 1;
    for (const auto& [k, v] : m) {
      ASSERT_EQ(k, expect * 3);
      ASSERT_EQ(v, std::uint64_t(expect) * 1'000'003u);
      expect += 2;
    }
    EXPECT_EQ(m.size(), 50'000u);
    // Erased nodes serve new ones.
    const auto half = slabStats();
    for (int i = 0; i < 100'000; i += 2) m.emplace(i * 3, 0);
    EXPECT_EQ(slabStats().pagesMapped, half.pagesMapped);
  }
  EXPECT_EQ(slabStats().blocksInUse, before.blocksInUse);
}

TEST(Allocator, StdUnorderedMapOfOneHundredThousandEntries) {
  const auto before = slabStats();
  {
    using Map = std::unordered_map<std::uint64_t, int, std::hash<std::uint64_t>, std::equal_to<std::uint64_t>,
                                   Allocator<std::pair<const std::uint64_t, int>>>;
    Map m;
    for (int i = 0; i < 100'000; ++i) m[std::uint64_t(i) * 0x9e3779b97f4a7c15ull] = i;
    EXPECT_EQ(m.size(), 100'000u);
    // Nodes from slabs; the bucket array is far too big for a class.
    EXPECT_GE(slabStats().blocksInUse, before.blocksInUse + 100'000);
    EXPECT_GE(slabStats().largeAllocations, before.largeAllocations + 1);
    for (int i = 0; i < 100'000; ++i) {
      auto it = m.find(std::uint64_t(i) * 0x9e3779b97f4a7c15ull);
      ASSERT_NE(it, m.end());
      ASSERT_EQ(it->second, i);
    }
    for (int i = 0; i < 100'000; i += 3) m.erase(std::uint64_t(i) * 0x9e3779b97f4a7c15ull);
    EXPECT_EQ(m.size(), 100'000u - 33'334u);
  }
  EXPECT_EQ(slabStats().blocksInUse, before.blocksInUse);
  EXPECT_EQ(slabStats().largeAllocations, before.largeAllocations);
}

TEST(Allocator, StdMultimapAndListWork) {
  const auto before = slabStats();
  {
    std::multimap<int, std::string, std::less<int>, Allocator<std::pair<const int, std::string>>> mm;
    for (int i = 0; i < 1000; ++i) mm.emplace(i % 10, std::to_string(i));
    EXPECT_EQ(mm.count(3), 100u);
    auto [lo, hi] = mm.equal_range(7);
    int n = 0;
    for (auto it = lo; it != hi; ++it, ++n) EXPECT_EQ(std::stoi(it->second) % 10, 7);
    EXPECT_EQ(n, 100);

    std::list<double, Allocator<double>> l;
    for (int i = 0; i < 1000; ++i) l.push_back(i * 0.5);
    l.remove_if([](double d) { return d > 100.0; });
    EXPECT_EQ(l.size(), 201u);
    EXPECT_DOUBLE_EQ(l.back(), 100.0);
    EXPECT_TRUE(slabOwns(&*mm.begin()));
  }
  EXPECT_EQ(slabStats().blocksInUse, before.blocksInUse);
}

TEST(Allocator, AllInstancesCompareEqual) {
  Allocator<int> a;
  Allocator<int> b;
  Allocator<double> c(a);
  EXPECT_TRUE(a == b);
  EXPECT_FALSE(a != b);
  EXPECT_TRUE(a == c);
  EXPECT_TRUE(c == a);
  // Memory from one instance is freed by another.
  int* p = a.allocate(4);
  b.deallocate(p, 4);
  // Containers with different instances swap and move without copying.
  std::list<int, Allocator<int>> x(5, 1), y(a);
  y = std::move(x);
  EXPECT_EQ(y.size(), 5u);
}

TEST(Allocator, SlabOrMallocByParameter) {
  Allocator<std::uint64_t> slab;
  Allocator<std::uint64_t, false> heap;
  std::uint64_t* s = slab.allocate(8);
  std::uint64_t* h = heap.allocate(8);
  EXPECT_TRUE(slabOwns(s));
  EXPECT_FALSE(slabOwns(h));
  for (int i = 0; i < 8; ++i) s[i] = h[i] = std::uint64_t(i) << 40;
  for (int i = 0; i < 8; ++i) EXPECT_EQ(s[i], h[i]);
  slab.deallocate(s, 8);
  heap.deallocate(h, 8);
  // Arrays beyond the largest class come from malloc even with slabs.
  std::uint64_t* big = slab.allocate(10'000);
  EXPECT_FALSE(slabOwns(big));
  big[9'999] = 1;
  slab.deallocate(big, 10'000);
}

TEST(Allocator, OverAlignedTypesKeepTheirAlignment) {
  struct alignas(64) Line {
    char bytes[64];
  };
  Allocator<Line> a;
  std::vector<Line*> lines;
  for (int i = 0; i < 16; ++i) {
    Line* l = a.allocate(1);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(l) % 64, 0u);
    l->bytes[63] = 'x';
    lines.push_back(l);
  }
  for (Line* l : lines) a.deallocate(l, 1);
}

TEST(Allocator, OverflowingCountThrows) {
  Allocator<std::uint64_t> a;
  EXPECT_THROW((void)a.allocate(std::numeric_limits<std::size_t>::max() / 4), std::bad_array_new_length);
}
