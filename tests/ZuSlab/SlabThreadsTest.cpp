#include <ZuSlab/ZuSlab.h>

#include "SlabTestUtil.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <random>
#include <set>
#include <sys/wait.h>
#include <unistd.h>
#include <thread>
#include <vector>

using namespace ZuSlab;
using SlabTest::checkPattern;
using SlabTest::fillPattern;
using SlabTest::flushMaintenance;
using SlabTest::pageOfAddress;

namespace {

// Pages that the maintenance functions find empty now, seen from this
// thread: in per-thread mode a thread's exit already put its empty pages on
// the shared list, in the shared mode the scanner finds them.
unsigned long pagesGivenBack() {
  unsigned long scanned = slabAllocatorRunEmptyPageScanner(nullptr).second;
  unsigned long advised = slabAllocatorRunMadvise(nullptr).second;
  EXPECT_LE(scanned, advised);
  return advised;
}

struct Block {
  void* p;
  std::uint32_t seed;
};

} // namespace

TEST(SlabThreads, BlocksFreedByAnotherThreadAreReused) {
  constexpr std::size_t kBlocks = 5000;
  constexpr int kRounds = 50;
  const SlabStats before = slabStats();
  std::uint32_t seed = 1;
  for (int round = 0; round < kRounds; ++round) {
    std::vector<Block> blocks;
    for (std::size_t i = 0; i < kBlocks; ++i) {
      void* p = slabAllocOrStdMalloc(64);
      fillPattern(p, 64, seed);
      blocks.push_back({p, seed++});
    }
    bool intact = true;
    std::thread other([&] {
      for (const Block& b : blocks) {
        intact = intact && checkPattern(b.p, 64, b.seed);
        slabFreeOrStdFree(b.p);
      }
    });
    other.join();
    ASSERT_TRUE(intact) << "round " << round;
  }
  const SlabStats after = slabStats();
  EXPECT_EQ(after.blocksInUse, before.blocksInUse);
  // Blocks that did not come back would take 20 new pages every round.
  const std::size_t pagesPerRound = kBlocks / (kSlabPageSize / 64) + 1;
  EXPECT_LE(after.pagesMapped, before.pagesMapped + 2 * pagesPerRound);
}

TEST(SlabThreads, ThreadExitHandsItsPagesToTheSharedPool) {
  flushMaintenance();
  constexpr std::size_t kPages = 70;
  const SlabStats before = slabStats();
  std::thread worker([] {
    std::vector<void*> blocks;
    for (std::size_t i = 0; i < kPages * (kSlabPageSize / 256); ++i)
      blocks.push_back(slabAllocOrStdMalloc(256));
    for (void* p : blocks) slabFreeOrStdFree(p);
  });
  worker.join();
  EXPECT_EQ(slabStats().blocksInUse, before.blocksInUse);
  EXPECT_EQ(pagesGivenBack(), kPages);
}

TEST(SlabThreads, BlocksOutlivingTheirThreadAreFreedByOthers) {
  flushMaintenance();
  constexpr std::size_t kPages = 10;
  constexpr std::size_t kPerPage = kSlabPageSize / 320;
  const SlabStats before = slabStats();
  std::vector<Block> survivors;
  std::set<std::uintptr_t> pages;
  std::thread worker([&] {
    std::uint32_t seed = 1000;
    std::vector<Block> blocks;
    for (std::size_t i = 0; i < kPages * kPerPage; ++i) {
      void* p = slabAllocOrStdMalloc(320);
      fillPattern(p, 320, seed);
      blocks.push_back({p, seed++});
      pages.insert(pageOfAddress(p));
    }
    // Free every other block here; the rest outlive the thread.
    for (std::size_t i = 0; i < blocks.size(); ++i) {
      if (i % 2) slabFreeOrStdFree(blocks[i].p);
      else survivors.push_back(blocks[i]);
    }
  });
  worker.join();
  ASSERT_EQ(pages.size(), kPages);
  EXPECT_EQ(slabStats().blocksInUse, before.blocksInUse + survivors.size());
  // Pages with live blocks are not given back.
  EXPECT_EQ(pagesGivenBack(), 0u);
  for (const Block& b : survivors) {
    ASSERT_TRUE(checkPattern(b.p, 320, b.seed));
    slabFreeOrStdFree(b.p);
  }
  EXPECT_EQ(slabStats().blocksInUse, before.blocksInUse);
  EXPECT_EQ(pagesGivenBack(), kPages);
}

TEST(SlabThreads, FreeBlocksOfAnEndedThreadServeTheNextOne) {
  flushMaintenance();
  constexpr std::size_t kPerPage = kSlabPageSize / 256;
  std::vector<void*> survivors;
  std::set<void*> freed;
  std::thread first([&] {
    std::vector<void*> blocks;
    for (std::size_t i = 0; i < 4 * kPerPage; ++i) blocks.push_back(slabAllocOrStdMalloc(256));
    // Ten holes in the second page; everything else stays in use.
    for (std::size_t i = 0; i < blocks.size(); ++i) {
      if (i >= kPerPage + 5 && i < kPerPage + 15) {
        freed.insert(blocks[i]);
        slabFreeOrStdFree(blocks[i]);
      } else {
        survivors.push_back(blocks[i]);
      }
    }
  });
  first.join();
  const SlabStats before = slabStats();
  std::set<void*> got;
  std::thread second([&] {
    for (int i = 0; i < 10; ++i) got.insert(slabAllocOrStdMalloc(256));
  });
  second.join();
  EXPECT_EQ(got, freed);
  EXPECT_EQ(slabStats().pagesMapped, before.pagesMapped);
  for (void* p : got) slabFreeOrStdFree(p);
  for (void* p : survivors) slabFreeOrStdFree(p);
  EXPECT_EQ(pagesGivenBack(), 4u);
}

TEST(SlabThreads, ShortLivedThreadsReuseEachOthersPages) {
  constexpr std::size_t kBlocks = 3000;
  const SlabStats before = slabStats();
  for (int round = 0; round < 30; ++round) {
    std::thread t([] {
      std::vector<void*> blocks;
      for (std::size_t i = 0; i < kBlocks; ++i) blocks.push_back(slabAllocOrStdMalloc(96));
      for (void* p : blocks) slabFreeOrStdFree(p);
    });
    t.join();
  }
  const SlabStats after = slabStats();
  EXPECT_EQ(after.blocksInUse, before.blocksInUse);
  const std::size_t pagesPerRound = kBlocks / (kSlabPageSize / 96) + 1;
  EXPECT_LE(after.pagesMapped, before.pagesMapped + 2 * pagesPerRound);
}

TEST(SlabThreads, ProducerAndConsumerExchangeBlocksConcurrently) {
  const SlabStats before = slabStats();
  constexpr int kItems = 200'000;
  std::mutex m;
  std::condition_variable cv;
  std::deque<Block> queue;
  bool done = false;
  bool intact = true;
  std::thread consumer([&] {
    std::mt19937 rng(7);
    std::vector<void*> own;
    for (;;) {
      std::deque<Block> batch;
      {
        std::unique_lock<std::mutex> g(m);
        cv.wait(g, [&] { return !queue.empty() || done; });
        if (queue.empty() && done) break;
        batch.swap(queue);
      }
      for (const Block& b : batch) {
        std::size_t size = 16 + b.seed % 300;
        intact = intact && checkPattern(b.p, size, b.seed);
        slabFreeOrStdFree(b.p);
        // Local traffic on the consumer side at the same time.
        own.push_back(slabAllocOrStdMalloc(16 + rng() % 300));
        if (own.size() > 64) {
          for (void* p : own) slabFreeOrStdFree(p);
          own.clear();
        }
      }
    }
    for (void* p : own) slabFreeOrStdFree(p);
  });
  for (int i = 0; i < kItems; ++i) {
    std::uint32_t seed = static_cast<std::uint32_t>(i) * 7919u + 1;
    std::size_t size = 16 + seed % 300;
    void* p = slabAllocOrStdMalloc(size);
    fillPattern(p, size, seed);
    {
      std::lock_guard<std::mutex> g(m);
      queue.push_back({p, seed});
    }
    if (i % 64 == 0) cv.notify_one();
  }
  {
    std::lock_guard<std::mutex> g(m);
    done = true;
  }
  cv.notify_one();
  consumer.join();
  EXPECT_TRUE(intact);
  EXPECT_EQ(slabStats().blocksInUse, before.blocksInUse);
}

TEST(SlabThreads, ForkedChildAllocatesWhileAnotherThreadWasBusy) {
  // Another thread allocates and frees throughout the fork; the child must
  // not inherit one of the allocator's locks held.
  std::atomic<bool> stop{false};
  std::thread busy([&] {
    while (!stop.load()) {
      void* blocks[64];
      for (void*& p : blocks) p = slabAllocOrStdMalloc(200);
      for (void* p : blocks) slabFreeOrStdFree(p);
      slabAllocatorRunEmptyPageScanner(nullptr);
      slabAllocatorRunMadvise(nullptr);
    }
  });
  for (int i = 0; i < 20; ++i) {
    pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      std::vector<void*> blocks;
      for (int j = 0; j < 5000; ++j) blocks.push_back(slabAllocOrStdMalloc(16 + j % 1000));
      for (void* p : blocks) slabFreeOrStdFree(p);
      slabAllocatorRunEmptyPageScanner(nullptr);
      slabAllocatorRunMadvise(nullptr);
      ::_exit(0);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child " << i;
  }
  stop = true;
  busy.join();
}
