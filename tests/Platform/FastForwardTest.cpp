#include <KestoSupport/PlatformTestSupport.h>

#include <Kesto/Platform/LibeventControls.h>
#include <Kesto/Debug/Loco.h>
#include <Kesto/Platform/Time.h>

#include <event2/event.h>

#include <ctime>
#include <thread>
#include <vector>

namespace Kesto {
namespace {

using PlatformTest::assertionText;
using PlatformTest::FastForwardOn;
using PlatformTest::TestCallbackHandler;
using PlatformTest::TestTimeoutHandler;
using ::testing::HasSubstr;

double monotonicSeconds() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return double(ts.tv_nsec) / 1e9 + double(ts.tv_sec);
}

int notifierCalls = 0;
void countingNotifier() { ++notifierCalls; }

TEST(FastForward, WithTheModeOffTheOffsetIsZeroAndTimeIsTheMonotonicClock) {
  std::thread([] {
    EXPECT_EQ(0.0, leVirtualTimeOffset());
    const double before = monotonicSeconds();
    const double now = time();
    const double after = monotonicSeconds();
    EXPECT_LE(before, now);
    EXPECT_LE(now, after);
  }).join();
  EXPECT_FALSE(Platform::fastForward());
  EXPECT_FALSE(leFastForward());
}

TEST(FastForward, SetFastForwardSwitchesTheModeAndCallsNotifiersOnChangeOnly) {
  Platform::registerFastForwardChangeNotifier(countingNotifier);
  Platform::registerFastForwardChangeNotifier(countingNotifier); // held once
  notifierCalls = 0;
  Platform::setFastForward(false); // unchanged
  EXPECT_EQ(0, notifierCalls);
  Platform::setFastForward(true);
  EXPECT_TRUE(Platform::fastForward());
  EXPECT_TRUE(fastForward);
  EXPECT_EQ(1, notifierCalls);
  Platform::setFastForward(true); // unchanged
  EXPECT_EQ(1, notifierCalls);
  Platform::setFastForward(false);
  EXPECT_FALSE(Platform::fastForward());
  EXPECT_EQ(2, notifierCalls);
}

TEST(FastForward, SetFastForwardOffTheMainThreadAssertsEvenWithoutAChange) {
  std::string unchanged;
  std::string changed;
  std::thread([&] {
    unchanged = assertionText([] { Platform::setFastForward(false); });
    changed = assertionText([] { Platform::setFastForward(true); });
    leFree();
  }).join();
  EXPECT_THAT(unchanged, HasSubstr("FastForward invoked from non-main thread"));
  EXPECT_THAT(changed, HasSubstr("FastForward invoked from non-main thread"));
  EXPECT_FALSE(Platform::fastForward());
}

TEST(FastForward, FastForwardByWithTheModeOffAsserts) {
  const double offset = leVirtualTimeOffset();
  EXPECT_THAT(assertionText([] { Platform::fastForwardBy(1.0); }), HasSubstr("fast-forwarding disabled"));
  EXPECT_EQ(offset, leVirtualTimeOffset());
}

TEST(FastForward, DelayToFirstTimerWithTheModeOffAsserts) {
  timeval delay;
  EXPECT_THAT(assertionText([&] { fastForwardDelayToFirstTimer(&delay); }),
              HasSubstr("Called without fast forward enabled"));
}

TEST(FastForward, FastForwardToFirstTimerWithTheModeOffAsserts) {
  EXPECT_THAT(assertionText([] { eventLoopFastForwardToFirstTimer(1.0); }),
              HasSubstr("Called without fastForward enabled"));
}

TEST(FastForward, JumpReachesATimerDueInOneSecondAndRunsIt) {
  FastForwardOn on;
  TestTimeoutHandler handler;
  Ptr<Platform::TimerControl> timer = Platform::getTimerControl(&handler);
  const double armedAt = monotonicSeconds();
  timer->setTimeout(1.0);
  const double offset = leVirtualTimeOffset();
  eventLoopFastForwardToFirstTimer(10.0);
  const double elapsed = monotonicSeconds() - armedAt;
  const double grown = leVirtualTimeOffset() - offset;
  // 1 s to the timer plus 100 µs, less the real time already gone by.
  EXPECT_LE(grown, 1.0001 + PlatformTest::baseClockSlack());
  EXPECT_GE(grown, 1.0001 - elapsed - 1e-6);
  EXPECT_EQ(1, handler.timeouts);
}

TEST(FastForward, JumpStopsAtTheLimitBeforeALaterTimer) {
  FastForwardOn on;
  TestTimeoutHandler handler;
  Ptr<Platform::TimerControl> timer = Platform::getTimerControl(&handler);
  timer->setTimeout(1.0);
  const double offset = leVirtualTimeOffset();
  eventLoopFastForwardToFirstTimer(0.5);
  EXPECT_NEAR(0.5, leVirtualTimeOffset() - offset, 1e-9);
  EXPECT_EQ(0, handler.timeouts);
  const double remaining = timer->remainingTimeout();
  EXPECT_LE(remaining, 0.5 + PlatformTest::baseClockSlack());
  EXPECT_GT(remaining, 0.0);
}

TEST(FastForward, WithoutTimersTheClockGoesToTheEndOfTheAllowedTime) {
  FastForwardOn on;
  const double offset = leVirtualTimeOffset();
  eventLoopFastForwardToFirstTimer(10.0);
  EXPECT_NEAR(10.0, leVirtualTimeOffset() - offset, 1e-9);
  timeval delay{123, 456};
  EXPECT_FALSE(fastForwardDelayToFirstTimer(&delay));
  EXPECT_EQ(123, delay.tv_sec);
  EXPECT_EQ(456, delay.tv_usec);
}

TEST(FastForward, ATimerAlreadyDueGivesAZeroDelayAndTheClockStandsStill) {
  FastForwardOn on;
  TestTimeoutHandler handler;
  Ptr<Platform::TimerControl> timer = Platform::getTimerControl(&handler);
  timer->setTimeout(0.0);
  timeval delay{1, 1};
  EXPECT_TRUE(fastForwardDelayToFirstTimer(&delay));
  EXPECT_EQ(0, delay.tv_sec);
  EXPECT_EQ(0, delay.tv_usec);
  const double offset = leVirtualTimeOffset();
  eventLoopFastForwardToFirstTimer(10.0);
  EXPECT_EQ(offset, leVirtualTimeOffset());
  EXPECT_EQ(1, handler.timeouts);
}

TEST(FastForward, APendingDeferredCallbackHoldsVirtualTimeUntilItRan) {
  FastForwardOn on;
  TestCallbackHandler callbackHandler;
  TestTimeoutHandler laterHandler;
  Ptr<Platform::CallbackControl> callback = Platform::getCallbackControl(&callbackHandler);
  Ptr<Platform::TimerControl> later = Platform::getTimerControl(&laterHandler);
  later->setTimeout(30.0);
  callback->requestCallback();
  const double offset = leVirtualTimeOffset();
  eventLoopFastForwardToFirstTimer(60.0);
  EXPECT_EQ(offset, leVirtualTimeOffset());
  EXPECT_EQ(1, callbackHandler.callbacks);
  EXPECT_EQ(0, laterHandler.timeouts);
  // With the callback gone, the next jump reaches the later timer.
  eventLoopFastForwardToFirstTimer(60.0);
  EXPECT_EQ(1, laterHandler.timeouts);
  EXPECT_GT(leVirtualTimeOffset() - offset, 29.9);
}

TEST(FastForward, TimedLoopRunsMinutesOfTimersAtOnce) {
  FastForwardOn on;
  TestTimeoutHandler handler;
  Ptr<Platform::TimerControl> timer = Platform::getTimerControl(&handler);
  handler.onTimeout = [&] { timer->setTimeout(10.0); };
  timer->setTimeout(10.0);
  const double realStart = monotonicSeconds();
  const double offset = leVirtualTimeOffset();
  Platform::doEventLoop(60.0);
  const double grown = leVirtualTimeOffset() - offset;
  EXPECT_GE(handler.timeouts, 5);
  EXPECT_LE(handler.timeouts, 6);
  EXPECT_GE(grown, 60.0 - (monotonicSeconds() - realStart));
  EXPECT_LT(grown, 60.01);
  // Not waited for in real time (it would take a minute).
  EXPECT_LT(monotonicSeconds() - realStart, 30.0);
  timer->delTimeout();
}

TEST(FastForward, TimedLoopWithZeroTimeoutStillMakesOnePass) {
  FastForwardOn on;
  TestCallbackHandler handler;
  Ptr<Platform::CallbackControl> callback = Platform::getCallbackControl(&handler);
  callback->requestCallback();
  Platform::doEventLoop(0.0);
  EXPECT_EQ(1, handler.callbacks);
}

TEST(FastForward, UntimedLoopJumpsToTheFirstTimerOnce) {
  FastForwardOn on;
  TestTimeoutHandler handler;
  Ptr<Platform::TimerControl> timer = Platform::getTimerControl(&handler);
  double expiry = 0.0;
  double firedAt = 0.0;
  handler.onTimeout = [&] { firedAt = time(); };
  expiry = time() + 3600.0;
  timer->setTimeout(3600.0);
  const double realStart = monotonicSeconds();
  Platform::doEventLoop();
  EXPECT_EQ(1, handler.timeouts);
  EXPECT_GE(firedAt, expiry);
  EXPECT_LT(monotonicSeconds() - realStart, 30.0);
}

TEST(FastForward, WaitforTurnIsOneJumpWithoutTheLock) {
  FastForwardOn on;
  TestTimeoutHandler handler;
  bool heldInside = true;
  handler.onTimeout = [&] { heldInside = Platform::Loco::owns_loco(); };
  Ptr<Platform::TimerControl> timer = Platform::getTimerControl(&handler);
  const double realStart = monotonicSeconds();
  timer->setTimeout(5.0);
  const double offset = leVirtualTimeOffset();
  Platform::doEventLoopInWaitfor(100.0);
  const double grown = leVirtualTimeOffset() - offset;
  EXPECT_EQ(1, handler.timeouts);
  EXPECT_FALSE(heldInside);
  EXPECT_LE(grown, 5.0001 + PlatformTest::baseClockSlack());
  EXPECT_GE(grown, 5.0001 - (monotonicSeconds() - realStart) - 1e-6);
}

TEST(FastForward, FastForwardByMovesTimersAndTheClockTogether) {
  FastForwardOn on;
  TestTimeoutHandler handler;
  Ptr<Platform::TimerControl> timer = Platform::getTimerControl(&handler);
  const double realStart = monotonicSeconds();
  const double timeBefore = time();
  timer->setTimeout(3.0);
  Platform::fastForwardBy(2.5);
  const double remaining = timer->remainingTimeout();
  const double timeAfter = time();
  const double elapsed = monotonicSeconds() - realStart;
  EXPECT_LE(remaining, 0.5 + PlatformTest::baseClockSlack());
  EXPECT_GE(remaining, 0.5 - elapsed - 1e-6);
  EXPECT_GE(timeAfter - timeBefore, 2.5);
  EXPECT_LE(timeAfter - timeBefore, 2.5 + elapsed + 1e-6);
  EXPECT_EQ(0, handler.timeouts);
}

TEST(FastForward, FastForwardByWorksOnAnyThreadWithItsOwnClock) {
  FastForwardOn on;
  const double mainOffset = leVirtualTimeOffset();
  double threadOffset = -1.0;
  std::thread([&] {
    Platform::fastForwardBy(4.25);
    threadOffset = leVirtualTimeOffset();
    leFree();
  }).join();
  EXPECT_EQ(4.25, threadOffset);
  EXPECT_EQ(mainOffset, leVirtualTimeOffset());
}

TEST(FastForward, OffsetMicrosecondsStayNormalised) {
  FastForwardOn on;
  const timeval almostSecond{0, 999999};
  applyFastForwardDelta(&almostSecond);
  EXPECT_LT(virtualTimeOffset.tv_usec, 1000000);
  applyFastForwardDelta(&almostSecond);
  EXPECT_LT(virtualTimeOffset.tv_usec, 1000000);
  const timeval big{3, 999999};
  for (int i = 0; i < 10; ++i) {
    applyFastForwardDelta(&big);
    EXPECT_GE(virtualTimeOffset.tv_usec, 0);
    EXPECT_LT(virtualTimeOffset.tv_usec, 1000000);
  }
}

TEST(FastForward, TurningTheModeOffKeepsTheClockWhereItIs) {
  double offset;
  {
    FastForwardOn on;
    Platform::fastForwardBy(1.5);
    offset = leVirtualTimeOffset();
  }
  EXPECT_EQ(offset, leVirtualTimeOffset());
  const double before = monotonicSeconds();
  const double now = time();
  const double after = monotonicSeconds();
  EXPECT_GE(now, before + offset);
  EXPECT_LE(now, after + offset);
}

TEST(FastForward, HoursOfTimersRunInMomentsAndNeverFireEarly) {
  FastForwardOn on;
  // Three chains of timers with different periods, ten hours of them.
  struct Chain : Platform::TimeoutHandler {
    double period = 0.0;
    double expiry = 0.0;
    int fired = 0;
    int early = 0;
    Ptr<Platform::TimerControl> control;
    void arm() {
      expiry = time() + period;
      control->setTimeout(period);
    }
    void timeout() override {
      if (time() < expiry)
        ++early;
      ++fired;
      arm();
    }
  };
  Chain chains[3];
  const double periods[3] = {60.0, 7.5, 333.333};
  for (int i = 0; i < 3; ++i) {
    chains[i].period = periods[i];
    chains[i].control = Platform::getTimerControl(&chains[i]);
    chains[i].arm();
  }
  const double realStart = monotonicSeconds();
  const double offset = leVirtualTimeOffset();
  Platform::doEventLoop(36000.0);
  EXPECT_GE(leVirtualTimeOffset() - offset, 36000.0 - (monotonicSeconds() - realStart));
  for (int i = 0; i < 3; ++i) {
    // Each firing lands at most 100 µs plus the clock slack after its
    // expiry, and the next one counts from there.
    const int most = int(36000.0 / periods[i]);
    const int least = int(36000.0 / (periods[i] + 1e-4 + PlatformTest::baseClockSlack())) - 1;
    EXPECT_GE(chains[i].fired, least) << i;
    EXPECT_LE(chains[i].fired, most) << i;
    EXPECT_EQ(0, chains[i].early) << i;
    chains[i].control = nullptr;
  }
  EXPECT_LT(monotonicSeconds() - realStart, 60.0);
}

} // namespace
} // namespace Kesto
