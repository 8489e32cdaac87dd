#include <KestoSupport/AssertMessage.h>
#include <KestoSupport/PlatformTestSupport.h>

#include <Kesto/Platform/LibeventControls.h>
#include <Kesto/Debug/Loco.h>
#include <Kesto/Platform/Time.h>
#include <Kesto/TimerWheel/TimerWheel.h>

#include <event2/event.h>

#include <cmath>
#include <functional>
#include <limits>
#include <thread>
#include <vector>

namespace Kesto {
namespace {

using KestoTest::assertMessage;
using PlatformTest::assertionText;
using PlatformTest::expectToReturnInAChild;
using PlatformTest::FastForwardOn;
using PlatformTest::monotonicSeconds;
using PlatformTest::TestCallbackHandler;
using PlatformTest::TestTimeoutHandler;
using ::testing::HasSubstr;

constexpr double infinity = std::numeric_limits<double>::infinity();
constexpr double notANumber = std::numeric_limits<double>::quiet_NaN();

// Kesto::time() is the monotonic clock plus `offset`, read in between: the
// library's clock is never ahead of CLOCK_MONOTONIC and trails it by at most
// its stated bound.
void expectTimeIsTheMonotonicClockPlus(double offset) {
  const double before = monotonicSeconds();
  const double now = time();
  const double after = monotonicSeconds();
  EXPECT_GE(now, before + offset - double(steadyClockErrorBoundNanos) / 1e9);
  EXPECT_LE(now, after + offset);
}

int notifierCalls = 0;
void countingNotifier() { ++notifierCalls; }

TEST(FastForward, WithTheModeOffTheOffsetIsZeroAndTimeIsTheMonotonicClock) {
  std::thread([] {
    EXPECT_EQ(0.0, leVirtualTimeOffset());
    expectTimeIsTheMonotonicClockPlus(0.0);
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
  expectTimeIsTheMonotonicClockPlus(offset);
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

// ---- remaining time under fast forward -------------------------------------

TEST(FastForward, RemainingTimeAfterArmingAndAfterAJumpNeverExceedsTheDelay) {
  FastForwardOn on;
  TestTimeoutHandler handler;
  Ptr<Platform::TimerControl> timer = Platform::getTimerControl(&handler);
  for (const double delay : PlatformTest::armingDelays) {
    for (int i = 0; i < 50; ++i) {
      double before = time();
      timer->setTimeout(delay);
      double remaining = timer->remainingTimeout();
      double elapsed = time() - before;
      ASSERT_LE(remaining, delay) << "delay " << delay << " arming " << i;
      ASSERT_GE(remaining, delay - elapsed - 1e-9) << "delay " << delay << " arming " << i;

      // Half the delay at once: the remaining time is the delay less the
      // jump, as the clock took it (microseconds, truncated), less the real
      // time gone by. The tolerance is for the rounding of the sums.
      before = time();
      timer->setTimeout(delay);
      const double offset = leVirtualTimeOffset();
      Platform::fastForwardBy(delay / 2);
      const double jump = leVirtualTimeOffset() - offset;
      remaining = timer->remainingTimeout();
      elapsed = time() - before;
      ASSERT_GT(jump, 0.0);
      ASSERT_LE(remaining, delay - jump + 1e-9) << "delay " << delay << " arming " << i;
      ASSERT_GE(remaining, delay - elapsed - 1e-9) << "delay " << delay << " arming " << i;
    }
  }
  timer->delTimeout();
  EXPECT_EQ(0, handler.timeouts);
}

// ---- endless and huge time-outs ---------------------------------------------

TEST(FastForwardDeathTest, AnEndlessLoopWithNothingToWaitForReturnsAndLeavesTheClock) {
  FastForwardOn on;
  expectToReturnInAChild([] {
    TestCallbackHandler handler;
    Ptr<Platform::CallbackControl> callback = Platform::getCallbackControl(&handler);
    const double offset = leVirtualTimeOffset();
    // What is due still runs in the one pass.
    callback->requestCallback();
    Platform::doEventLoop(infinity);
    EXPECT_EQ(1, handler.callbacks);
    EXPECT_EQ(offset, leVirtualTimeOffset());
    // From 1e15 seconds on a time-out is no limit either.
    for (const double timeout : {infinity, 1e15, 1e300, std::numeric_limits<double>::max()}) {
      Platform::doEventLoop(timeout);
      EXPECT_EQ(offset, leVirtualTimeOffset()) << timeout;
      Platform::doEventLoopInWaitfor(timeout);
      EXPECT_EQ(offset, leVirtualTimeOffset()) << timeout;
      eventLoopFastForwardToFirstTimer(timeout);
      EXPECT_EQ(offset, leVirtualTimeOffset()) << timeout;
    }
    expectTimeIsTheMonotonicClockPlus(offset);
  });
}

// A timer that re-arms itself every 10 s and stops after its fifth run, run
// by a loop without a limit: the loop returns after that run, with 50 s of
// virtual time gone by, each run late by no more than `lateness`.
void expectAChainOfFiveRunsToEndTheLoop(Ptr<Platform::TimerControl>& timer, TestTimeoutHandler& handler,
                                        double timeout, double lateness) {
  handler.onTimeout = [&] {
    if (handler.timeouts < 5)
      timer->setTimeout(10.0);
  };
  timer->setTimeout(10.0);
  const double realStart = monotonicSeconds();
  const double offset = leVirtualTimeOffset();
  Platform::doEventLoop(timeout);
  const double grown = leVirtualTimeOffset() - offset;
  EXPECT_EQ(5, handler.timeouts) << timeout;
  EXPECT_GE(grown, 50.0 - (monotonicSeconds() - realStart)) << timeout;
  EXPECT_LE(grown, 50.0 + 5 * lateness) << timeout;
}

TEST(FastForwardDeathTest, AnEndlessLoopRunsATimerChainToItsEndAndReturns) {
  FastForwardOn on;
  for (const double timeout : {infinity, 1e15, 1e300}) {
    expectToReturnInAChild([timeout] {
      TestTimeoutHandler handler;
      Ptr<Platform::TimerControl> timer = Platform::getTimerControl(&handler);
      // Each jump lands 100 µs past the expiry, plus the clock slack.
      expectAChainOfFiveRunsToEndTheLoop(timer, handler, timeout, 1e-4 + PlatformTest::baseClockSlack());
      timer = nullptr;
    });
  }
}

TEST(FastForwardDeathTest, AnEndlessLoopRunsATimerWheelChainToItsEndAndReturns) {
  FastForwardOn on;
  expectToReturnInAChild([] {
    // The same chain on a timer wheel, as a timer task arms it: the wheel's
    // master timer is the one libevent timer, and it goes once the chain is
    // over.
    std::shared_ptr<TimerWheel> wheel = getTimerWheelForTaskScheduler(Platform::eventPriorityStrictHigh);
    TestTimeoutHandler handler;
    Ptr<Platform::TimerControl> timer = Platform::getTimerControl(&handler, wheel);
    // Each run lands within a tick of the wheel (10 ms) of its expiry.
    expectAChainOfFiveRunsToEndTheLoop(timer, handler, infinity, 0.01 + 1e-4 + PlatformTest::baseClockSlack());
    EXPECT_EQ(infinity, wheel->masterTimer()->remainingTimeout());
    timer = nullptr;
    wheel.reset();
  });
}

TEST(FastForwardDeathTest, AHugeFiniteTimeoutEndsWithTheJumpToItsLimit) {
  FastForwardOn on;
  expectToReturnInAChild([] {
    // 1e14 s is still a limit: with no timer the clock goes there in one
    // jump, and the loop is over, whatever the roundings of a clock that far
    // out leave between its end and the present.
    const double offset = leVirtualTimeOffset();
    Platform::doEventLoop(1e14);
    EXPECT_NEAR(1e14, leVirtualTimeOffset() - offset, 1.0);
    TestTimeoutHandler handler;
    Ptr<Platform::TimerControl> timer = Platform::getTimerControl(&handler);
    handler.onTimeout = [&] { timer->setTimeout(1e13); };
    timer->setTimeout(1e13);
    const double before = leVirtualTimeOffset();
    Platform::doEventLoop(1e14);
    EXPECT_NEAR(1e14, leVirtualTimeOffset() - before, 1.0);
    EXPECT_GE(handler.timeouts, 9);
    EXPECT_LE(handler.timeouts, 10);
    timer = nullptr;
  });
}

// ---- negative and NaN time-outs ---------------------------------------------

TEST(FastForward, NegativeTimeoutsJumpNothingAndStillRunWhatIsDue) {
  FastForwardOn on;
  TestTimeoutHandler due;
  TestTimeoutHandler later;
  Ptr<Platform::TimerControl> dueTimer = Platform::getTimerControl(&due);
  Ptr<Platform::TimerControl> laterTimer = Platform::getTimerControl(&later);
  laterTimer->setTimeout(5.0);
  const std::function<void(double)> loops[] = {
      [](double timeout) { Platform::doEventLoop(timeout); },
      [](double timeout) { Platform::doEventLoopInWaitfor(timeout); },
      [](double timeout) { eventLoopFastForwardToFirstTimer(timeout); },
  };
  int runs = 0;
  for (const auto& loop : loops) {
    for (const double timeout : {-1.0, -1e-6, -1e300, -infinity}) {
      dueTimer->setTimeout(0.0);
      const double offset = leVirtualTimeOffset();
      const double before = time();
      loop(timeout);
      EXPECT_EQ(offset, leVirtualTimeOffset()) << timeout;
      EXPECT_GE(time(), before) << timeout;
      EXPECT_EQ(++runs, due.timeouts) << timeout;
    }
  }
  EXPECT_EQ(0, later.timeouts);
  EXPECT_GT(laterTimer->remainingTimeout(), 0.0);
  laterTimer->delTimeout();
}

TEST(FastForward, NaNTimeoutsAreRefusedBeforeAnythingChanges) {
  for (const bool fastForwardOn : {false, true}) {
    if (fastForwardOn)
      Platform::setFastForward(true);
    std::thread([fastForwardOn] {
      // A thread without a base: a refused call does not even make one.
      EXPECT_EQ("Kesto::doLeEventLoop() timeout is NaN",
                assertMessage(assertionText([] { Platform::doEventLoop(notANumber); })));
      EXPECT_EQ("Kesto::doLeEventLoopInWaitfor() maxTimeout is NaN",
                assertMessage(assertionText([] { Platform::doEventLoopInWaitfor(notANumber); })));
      EXPECT_FALSE(leInitialized());
      // With a base and a timer due: the timer does not run, the clock stays.
      TestTimeoutHandler handler;
      Ptr<Platform::TimerControl> timer = Platform::getTimerControl(&handler);
      timer->setTimeout(0.0);
      const double offset = leVirtualTimeOffset();
      EXPECT_EQ("Kesto::doLeEventLoop() timeout is NaN",
                assertMessage(assertionText([] { Platform::doEventLoop(notANumber); })));
      EXPECT_EQ("Kesto::doLeEventLoopInWaitfor() maxTimeout is NaN",
                assertMessage(assertionText([] { Platform::doEventLoopInWaitfor(notANumber); })));
      EXPECT_EQ("Kesto::eventLoopTimeout() timeout is NaN",
                assertMessage(assertionText([] { eventLoopTimeout(notANumber); })));
      if (fastForwardOn) {
        EXPECT_EQ("Kesto::eventLoopFastForwardToFirstTimer() maxTimeout is NaN",
                  assertMessage(assertionText([] { eventLoopFastForwardToFirstTimer(notANumber); })));
      }
      EXPECT_EQ(0, handler.timeouts);
      EXPECT_EQ(offset, leVirtualTimeOffset());
      EXPECT_EQ(0.0, timer->remainingTimeout());
      Platform::doEventLoop();
      EXPECT_EQ(1, handler.timeouts);
      timer = nullptr;
      leFree();
    }).join();
    if (fastForwardOn)
      Platform::setFastForward(false);
  }
}

// ---- jumps by hand that the clock cannot take -------------------------------

TEST(FastForward, FastForwardByRefusesJumpsThatAreNotFiniteOrOutOfRange) {
  FastForwardOn on;
  TestTimeoutHandler handler;
  Ptr<Platform::TimerControl> timer = Platform::getTimerControl(&handler);
  const double armedAt = time();
  timer->setTimeout(3.0);
  const double offset = leVirtualTimeOffset();
  const struct {
    double seconds;
    const char* text;
  } refused[] = {
      {notANumber, "Kesto::Platform::fastForwardBy() cannot fast forward by nan seconds: not a finite number"},
      {infinity, "Kesto::Platform::fastForwardBy() cannot fast forward by inf seconds: not a finite number"},
      {-infinity, "Kesto::Platform::fastForwardBy() cannot fast forward by -inf seconds: not a finite number"},
      {1e15, "Kesto::Platform::fastForwardBy() cannot fast forward by 1000000000000000 seconds: a jump must "
             "stay below 1e15 seconds either way"},
      {-1e300, "Kesto::Platform::fastForwardBy() cannot fast forward by -1e+300 seconds: a jump must stay below "
               "1e15 seconds either way"},
  };
  for (const auto& jump : refused) {
    EXPECT_EQ(jump.text, assertMessage(assertionText([&] { Platform::fastForwardBy(jump.seconds); })));
    EXPECT_EQ(offset, leVirtualTimeOffset()) << jump.seconds;
  }
  // Neither the clock nor the timer moved.
  const double remaining = timer->remainingTimeout();
  EXPECT_LE(remaining, 3.0);
  EXPECT_GE(remaining, 3.0 - (time() - armedAt) - 1e-9);
  EXPECT_EQ(0, handler.timeouts);
}

TEST(FastForward, FastForwardByTakesNegativeJumps) {
  FastForwardOn on;
  std::thread([] {
    TestTimeoutHandler handler;
    Ptr<Platform::TimerControl> timer = Platform::getTimerControl(&handler);
    timer->setTimeout(1.0);
    Platform::fastForwardBy(2.0);
    Platform::fastForwardBy(-0.5);
    EXPECT_EQ(1.5, leVirtualTimeOffset());
    // The timer moved with the clock: due after the first jump, and still due.
    EXPECT_EQ(0.0, timer->remainingTimeout());
    timer = nullptr;
    leFree();
  }).join();
}

} // namespace
} // namespace Kesto
