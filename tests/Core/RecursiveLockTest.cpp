#include <Kesto/Core/Locking.h>

#include <gtest/gtest.h>

#include <future>
#include <thread>

using Kesto::Locking::RecursiveLock;

TEST(RecursiveLock, OwnedByCallerFollowsNesting) {
  RecursiveLock lock;
  EXPECT_FALSE(lock.ownedByCaller());
  lock.lock();
  EXPECT_TRUE(lock.ownedByCaller());
  EXPECT_EQ(lock.depth(), 1u);
  {
    RecursiveLock::Guard inner(lock);
    EXPECT_TRUE(lock.ownedByCaller());
    EXPECT_EQ(lock.depth(), 2u);
  }
  EXPECT_TRUE(lock.ownedByCaller()); // still held once
  EXPECT_EQ(lock.depth(), 1u);
  lock.unlock();
  EXPECT_FALSE(lock.ownedByCaller());
}

TEST(RecursiveLock, NotOwnedByAnotherThreadWhileHeld) {
  RecursiveLock lock;
  RecursiveLock::Guard guard(lock);
  auto other = std::async(std::launch::async, [&lock] {
    const bool owned = lock.ownedByCaller();
    const bool acquired = lock.try_lock();
    if (acquired)
      lock.unlock();
    return std::make_pair(owned, acquired);
  });
  const auto [owned, acquired] = other.get();
  EXPECT_FALSE(owned);
  EXPECT_FALSE(acquired);
  EXPECT_TRUE(lock.ownedByCaller());
}

TEST(RecursiveLock, HeldByAnotherThreadIsNotOwnedHere) {
  RecursiveLock lock;
  std::promise<void> held, release;
  std::thread holder([&] {
    RecursiveLock::Guard guard(lock);
    held.set_value();
    release.get_future().wait();
  });
  held.get_future().wait();
  EXPECT_FALSE(lock.ownedByCaller());
  EXPECT_FALSE(lock.try_lock());
  release.set_value();
  holder.join();
  EXPECT_FALSE(lock.ownedByCaller());
  EXPECT_TRUE(lock.try_lock());
  EXPECT_TRUE(lock.ownedByCaller());
  EXPECT_TRUE(lock.try_lock()); // recursive
  EXPECT_EQ(lock.depth(), 2u);
  lock.unlock();
  lock.unlock();
  EXPECT_FALSE(lock.ownedByCaller());
}

TEST(RecursiveLock, ExcludesOtherThreads) {
  RecursiveLock lock;
  long counter = 0;
  constexpr int threads = 4, rounds = 20000;
  std::vector<std::thread> pool;
  for (int t = 0; t < threads; ++t)
    pool.emplace_back([&] {
      for (int i = 0; i < rounds; ++i) {
        RecursiveLock::Guard outer(lock);
        RecursiveLock::Guard inner(lock);
        ++counter;
      }
    });
  for (auto& th : pool)
    th.join();
  EXPECT_EQ(counter, long(threads) * rounds);
}
