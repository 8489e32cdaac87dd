#include <ZuSlab/ZuSlab.h>

#include "SlabTestUtil.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <set>
#include <stdexcept>
#include <vector>

using namespace ZuSlab;
using SlabTest::checkPattern;
using SlabTest::fillPattern;
using SlabTest::flushMaintenance;
using SlabTest::pageOfAddress;

namespace {

constexpr std::size_t kSlice = 64;  // pages per maintenance slice

// Allocates exactly `pages` pages' worth of blocks of `size`, a class size.
// Called after flushMaintenance, when this thread's class has no page left,
// so the blocks fill `pages` whole pages.
std::vector<void*> fillPages(std::size_t size, std::size_t pages) {
  std::vector<void*> blocks;
  std::set<std::uintptr_t> seen;
  for (std::size_t i = 0; i < pages * (kSlabPageSize / size); ++i) {
    void* p = slabAllocOrStdMalloc(size);
    EXPECT_EQ(slabUsableSize(p), size);
    seen.insert(pageOfAddress(p));
    blocks.push_back(p);
  }
  EXPECT_EQ(seen.size(), pages);
  return blocks;
}

void freeAll(const std::vector<void*>& blocks) {
  for (void* p : blocks) slabFreeOrStdFree(p);
}

} // namespace

TEST(SlabMaintenance, FreedPagesAreScannedAndReturnedToTheSystem) {
  flushMaintenance();
  constexpr std::size_t kPages = 3 * kSlice + 10;
  std::vector<void*> blocks = fillPages(256, kPages);
  const SlabStats full = slabStats();
  freeAll(blocks);

  auto scanned = slabAllocatorRunEmptyPageScanner(nullptr);
  EXPECT_FALSE(scanned.first);
  EXPECT_EQ(scanned.second, kPages);

  auto advised = slabAllocatorRunMadvise(nullptr);
  EXPECT_FALSE(advised.first);
  EXPECT_EQ(advised.second, kPages);
  EXPECT_EQ(slabStats().pagesReturned, full.pagesReturned + kPages);

  // Nothing left for a second round.
  EXPECT_EQ(slabAllocatorRunEmptyPageScanner(nullptr), std::make_pair(false, 0ul));
  EXPECT_EQ(slabAllocatorRunMadvise(nullptr), std::make_pair(false, 0ul));
}

TEST(SlabMaintenance, StopAfterTheFirstSliceLeavesWorkPending) {
  flushMaintenance();
  constexpr std::size_t kPages = 2 * kSlice + 5;
  std::vector<void*> blocks = fillPages(128, kPages);
  freeAll(blocks);
  int asked = 0;
  auto stopAtOnce = [&asked] {
    ++asked;
    return true;
  };

  auto scanned = slabAllocatorRunEmptyPageScanner(stopAtOnce);
  EXPECT_TRUE(scanned.first);
  EXPECT_EQ(scanned.second, kSlice);
  EXPECT_EQ(asked, 1);
  scanned = slabAllocatorRunEmptyPageScanner(stopAtOnce);
  EXPECT_EQ(scanned, std::make_pair(true, static_cast<unsigned long>(kSlice)));
  scanned = slabAllocatorRunEmptyPageScanner(stopAtOnce);
  EXPECT_EQ(scanned, std::make_pair(false, 5ul));  // last slice: nothing more to stop for
  EXPECT_EQ(asked, 2);

  const SlabStats before = slabStats();
  auto advised = slabAllocatorRunMadvise(stopAtOnce);
  EXPECT_EQ(advised, std::make_pair(true, static_cast<unsigned long>(kSlice)));
  EXPECT_EQ(slabStats().pagesReturned, before.pagesReturned + kSlice);
  advised = slabAllocatorRunMadvise(nullptr);
  EXPECT_EQ(advised, std::make_pair(false, static_cast<unsigned long>(kPages - kSlice)));
  EXPECT_EQ(slabStats().pagesReturned, before.pagesReturned + kPages);
}

TEST(SlabMaintenance, StopThatNeverStopsRunsToTheEnd) {
  flushMaintenance();
  constexpr std::size_t kPages = 2 * kSlice + 1;
  freeAll(fillPages(64, kPages));
  int asked = 0;
  auto never = [&asked] {
    ++asked;
    return false;
  };
  EXPECT_EQ(slabAllocatorRunEmptyPageScanner(never), std::make_pair(false, static_cast<unsigned long>(kPages)));
  EXPECT_EQ(asked, 2);  // between the three slices
  asked = 0;
  EXPECT_EQ(slabAllocatorRunMadvise(never), std::make_pair(false, static_cast<unsigned long>(kPages)));
  EXPECT_EQ(asked, 2);
}

TEST(SlabMaintenance, ThrowingStopIsTakenAsStopAndNothingEscapes) {
  flushMaintenance();
  freeAll(fillPages(80, kSlice + 1));
  auto throwing = []() -> bool { throw std::runtime_error("stop"); };
  auto scanned = slabAllocatorRunEmptyPageScanner(throwing);
  EXPECT_EQ(scanned, std::make_pair(true, static_cast<unsigned long>(kSlice)));
  auto advised = slabAllocatorRunMadvise(throwing);
  EXPECT_EQ(advised, std::make_pair(false, static_cast<unsigned long>(kSlice)));  // the rest is not scanned yet
  flushMaintenance();
}

TEST(SlabMaintenance, PagesWithALiveBlockStay) {
  flushMaintenance();
  constexpr std::size_t kPages = 8;
  std::vector<void*> blocks = fillPages(512, kPages);
  // Keep one block of the third page alive.
  void* keep = nullptr;
  std::set<std::uintptr_t> pages;
  for (void* p : blocks) pages.insert(pageOfAddress(p));
  std::uintptr_t keptPage = *std::next(pages.begin(), 2);
  for (void* p : blocks) {
    if (!keep && pageOfAddress(p) == keptPage) {
      keep = p;
      fillPattern(keep, 512, 99);
    } else {
      slabFreeOrStdFree(p);
    }
  }
  EXPECT_EQ(slabAllocatorRunEmptyPageScanner(nullptr), std::make_pair(false, static_cast<unsigned long>(kPages - 1)));
  EXPECT_EQ(slabAllocatorRunMadvise(nullptr), std::make_pair(false, static_cast<unsigned long>(kPages - 1)));
  EXPECT_TRUE(checkPattern(keep, 512, 99));
  // Once the last block goes, its page follows.
  slabFreeOrStdFree(keep);
  EXPECT_EQ(slabAllocatorRunEmptyPageScanner(nullptr), std::make_pair(false, 1ul));
  EXPECT_EQ(slabAllocatorRunMadvise(nullptr), std::make_pair(false, 1ul));
}

TEST(SlabMaintenance, ReturnedPagesAreReusedAfterMadvise) {
  flushMaintenance();
  constexpr std::size_t kPages = kSlice;
  freeAll(fillPages(192, kPages));
  flushMaintenance();
  const SlabStats returned = slabStats();
  ASSERT_GE(returned.pagesReturned, kPages);

  // The same amount again, in another class: served from returned pages,
  // whose content is zero or garbage but whose blocks are fully usable.
  std::vector<void*> again;
  std::uint32_t seed = 1;
  for (std::size_t i = 0; i < kPages * (kSlabPageSize / 1024); ++i) {
    void* p = slabAllocOrStdMalloc(1024);
    fillPattern(p, 1024, seed++);
    again.push_back(p);
  }
  const SlabStats reused = slabStats();
  EXPECT_EQ(reused.pagesMapped, returned.pagesMapped) << "no new page while returned ones wait";
  EXPECT_EQ(reused.pagesReturned, returned.pagesReturned - kPages);
  seed = 1;
  for (void* p : again) ASSERT_TRUE(checkPattern(p, 1024, seed++));
  freeAll(again);
  flushMaintenance();
}

TEST(SlabMaintenance, BlocksFreedWithoutScanAreReusedAtOnce) {
  flushMaintenance();
  std::vector<void*> first = fillPages(160, 4);
  const SlabStats before = slabStats();
  std::set<void*> addresses(first.begin(), first.end());
  freeAll(first);
  // Without any maintenance the same blocks serve the next requests.
  std::vector<void*> second;
  for (std::size_t i = 0; i < first.size(); ++i) second.push_back(slabAllocOrStdMalloc(160));
  for (void* p : second) EXPECT_TRUE(addresses.count(p));
  EXPECT_EQ(slabStats().pagesMapped, before.pagesMapped);
  freeAll(second);
  flushMaintenance();
}
