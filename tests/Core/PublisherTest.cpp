#include <Kesto/Core/Exception.h>
#include <Kesto/Core/Publisher.h>

#include <gtest/gtest.h>

#include <future>
#include <stdexcept>
#include <vector>

using Kesto::Publisher;

TEST(Publisher, NothingQueuedRunsNothing) {
  EXPECT_EQ(Publisher::deferredOpCount(), 0u);
  Publisher::runDeferredOps();
  EXPECT_EQ(Publisher::deferredOpCount(), 0u);
}

TEST(Publisher, DeferredOpsRunOnceInOrder) {
  std::vector<int> ran;
  Publisher::deferOp([&] { ran.push_back(1); });
  Publisher::deferOp([&] { ran.push_back(2); });
  Publisher::deferOp([&] { ran.push_back(3); });
  EXPECT_TRUE(ran.empty()); // deferring runs nothing
  EXPECT_EQ(Publisher::deferredOpCount(), 3u);
  Publisher::runDeferredOps();
  EXPECT_EQ(ran, (std::vector<int>{1, 2, 3}));
  EXPECT_EQ(Publisher::deferredOpCount(), 0u);
  Publisher::runDeferredOps();
  EXPECT_EQ(ran, (std::vector<int>{1, 2, 3}));
}

TEST(Publisher, AnOpMayDeferAnother) {
  std::vector<int> ran;
  Publisher::deferOp([&] {
    ran.push_back(1);
    Publisher::deferOp([&] {
      ran.push_back(3);
      Publisher::deferOp([&] { ran.push_back(4); });
    });
  });
  Publisher::deferOp([&] { ran.push_back(2); });
  Publisher::runDeferredOps();
  EXPECT_EQ(ran, (std::vector<int>{1, 2, 3, 4})); // all in the one call, in queue order
  EXPECT_EQ(Publisher::deferredOpCount(), 0u);
}

TEST(Publisher, ACallFromInsideAnOpLeavesTheQueueToTheOuterCall) {
  std::vector<int> ran;
  Publisher::deferOp([&] {
    ran.push_back(1);
    Publisher::runDeferredOps(); // must not run 2 ahead of its turn, nor twice
    ran.push_back(10);
  });
  Publisher::deferOp([&] { ran.push_back(2); });
  Publisher::runDeferredOps();
  EXPECT_EQ(ran, (std::vector<int>{1, 10, 2}));
}

TEST(Publisher, AThrowingOpLeavesTheRestForTheNextCall) {
  std::vector<int> ran;
  Publisher::deferOp([&] { ran.push_back(1); });
  Publisher::deferOp([] { throw std::runtime_error("op failed"); });
  Publisher::deferOp([&] { ran.push_back(3); });
  EXPECT_THROW(Publisher::runDeferredOps(), std::runtime_error);
  EXPECT_EQ(ran, (std::vector<int>{1}));
  EXPECT_EQ(Publisher::deferredOpCount(), 1u); // the thrower is gone
  Publisher::runDeferredOps();
  EXPECT_EQ(ran, (std::vector<int>{1, 3}));
  EXPECT_EQ(Publisher::deferredOpCount(), 0u);
}

TEST(Publisher, QueuesArePerThread) {
  int ranHere = 0;
  Publisher::deferOp([&] { ++ranHere; });
  auto other = std::async(std::launch::async, [] {
    const std::size_t seen = Publisher::deferredOpCount();
    int ranThere = 0;
    Publisher::runDeferredOps(); // the main thread's op is not this thread's
    Publisher::deferOp([&] { ++ranThere; });
    Publisher::runDeferredOps();
    return std::make_pair(seen, ranThere);
  });
  const auto [seen, ranThere] = other.get();
  EXPECT_EQ(seen, 0u);
  EXPECT_EQ(ranThere, 1);
  EXPECT_EQ(ranHere, 0);
  Publisher::runDeferredOps();
  EXPECT_EQ(ranHere, 1);
}

TEST(Publisher, OpsLeftAtThreadExitAreDestroyedUnrun) {
  auto token = std::make_shared<int>(0);
  std::weak_ptr<int> watch = token;
  std::async(std::launch::async, [token = std::move(token)]() mutable {
    Publisher::deferOp([t = std::move(token)] { ++*t; });
  }).get();
  EXPECT_TRUE(watch.expired()); // the queue and its op went with the thread
}

TEST(Publisher, EmptyOpIsRefused) {
  Kesto::throwOnAssertFailIs(true);
  EXPECT_THROW(Publisher::deferOp(Publisher::Op()), Kesto::AssertException);
  Kesto::throwOnAssertFailIs(false);
  EXPECT_EQ(Publisher::deferredOpCount(), 0u);
}
