#include <Kesto/Core/Hooks.h>
#include <Kesto/Core/ThreadControl.h>

#include <gtest/gtest.h>

#include <ctime>
#include <vector>

using namespace Kesto::Impl;

namespace {

double fixedTime() { return 1234.5; }

std::vector<bool> pointerModeCalls;
void recordPointerMode(bool enabled) { pointerModeCalls.push_back(enabled); }

double monotonicNow() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}

} // namespace

TEST(Hooks, DefaultTimeIsTheMonotonicClock) {
  const double before = monotonicNow();
  const double t = timeIndirect();
  const double after = monotonicNow();
  EXPECT_GE(t, before);
  EXPECT_LE(t, after);
}

TEST(Hooks, TimeHookIsReplacedAndRestored) {
  const TimeFn old = timeIndirectFn();
  timeIndirectFnIs(&fixedTime);
  EXPECT_EQ(timeIndirectFn(), &fixedTime);
  EXPECT_EQ(timeIndirect(), 1234.5);
  timeIndirectFnIs(nullptr); // back to the default clock
  EXPECT_NE(timeIndirectFn(), &fixedTime);
  EXPECT_NE(timeIndirect(), 1234.5);
  EXPECT_EQ(timeIndirectFn(), old);
}

TEST(Hooks, DefaultPointerHookDoesNothing) {
  ASSERT_NE(threadSafePointerIsFn(), nullptr);
  threadSafePointerIsFn()(true); // callable, no effect on the flag
  EXPECT_FALSE(Kesto::ThreadControl::tsp_);
}

TEST(ThreadControl, ThreadSafePointersIsCallsTheHook) {
  ASSERT_FALSE(Kesto::ThreadControl::tsp_);
  pointerModeCalls.clear();
  threadSafePointerIsFnIs(&recordPointerMode);
  Kesto::ThreadControl::threadSafePointersIs(true);
  EXPECT_TRUE(Kesto::ThreadControl::tsp_);
  Kesto::ThreadControl::threadSafePointersIs(true); // unchanged: nothing happens
  Kesto::ThreadControl::threadSafePointersIs(false);
  EXPECT_FALSE(Kesto::ThreadControl::tsp_);
  EXPECT_EQ(pointerModeCalls, (std::vector<bool>{true, false}));
  threadSafePointerIsFnIs(nullptr);
  EXPECT_NE(threadSafePointerIsFn(), &recordPointerMode);
  Kesto::ThreadControl::threadSafePointersIs(true);
  Kesto::ThreadControl::threadSafePointersIs(false);
  EXPECT_EQ(pointerModeCalls.size(), 2u); // the default hook took those
}
