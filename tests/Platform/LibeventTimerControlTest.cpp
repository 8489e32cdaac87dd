// What only the libevent timer control does. The behaviour it shares with the
// control served by a task runs against both backends from one set of test
// bodies, in tests/Scheduler/TaskTimerControlTest.cpp.
#include <KestoSupport/PlatformTestSupport.h>

#include <Kesto/Core/Publisher.h>
#include <Kesto/Platform/LibeventControls.h>
#include <Kesto/Platform/Time.h>

#include <ZuSlab/ZuSlab.h>

#include <limits>
#include <vector>

namespace Kesto {
namespace {

using PlatformTest::HandlerError;
using PlatformTest::TestTimeoutHandler;

constexpr double infinity = std::numeric_limits<double>::infinity();

TEST(LibeventTimerControl, FactoryMakesALibeventTimerAtDefaultPriority) {
  TestTimeoutHandler handler;
  Ptr<Platform::TimerControl> timer = Platform::getTimerControl(&handler);
  auto* le = dynamic_cast<LibeventTimerControl*>(timer.get());
  ASSERT_NE(nullptr, le);
  EXPECT_EQ(Platform::eventPriorityDefault, le->priority());
  EXPECT_EQ(1u, timer->refCount());
}

TEST(LibeventTimerControl, FactoryTakesAPriority) {
  TestTimeoutHandler handler;
  Ptr<Platform::TimerControl> timer = Platform::getTimerControl(&handler, Platform::eventPriorityStrictHigh);
  auto* le = dynamic_cast<LibeventTimerControl*>(timer.get());
  ASSERT_NE(nullptr, le);
  EXPECT_EQ(Platform::eventPriorityStrictHigh, le->priority());
}

TEST(LibeventTimerControl, ComesFromTheSlabAllocator) {
  TestTimeoutHandler handler;
  Ptr<Platform::TimerControl> timer = Platform::getTimerControl(&handler);
  EXPECT_TRUE(ZuSlab::slabOwns(timer.get()));
}

constexpr int armingsPerDelay = 200;

TEST(LibeventTimerControl, RemainingTimeRightAfterArmingNeverExceedsTheDelay) {
  TestTimeoutHandler handler;
  Ptr<Platform::TimerControl> timer = Platform::getTimerControl(&handler);
  for (const double delay : PlatformTest::armingDelays) {
    for (int i = 0; i < armingsPerDelay; ++i) {
      const double before = time();
      timer->setTimeout(delay);
      const double remaining = timer->remainingTimeout();
      const double elapsed = time() - before;
      // The lengthening that keeps the timer from firing early does not
      // show; the lower bound allows for the rounding of the subtractions.
      ASSERT_LE(remaining, delay) << "delay " << delay << " arming " << i;
      ASSERT_GE(remaining, delay - elapsed - 1e-9) << "delay " << delay << " arming " << i;
    }
  }
  timer->delTimeout();
  EXPECT_EQ(0, handler.timeouts);
}

TEST(LibeventTimerControl, RemainingTimeStaysWithinTheDelayWhileTheTimerRuns) {
  TestTimeoutHandler handler;
  Ptr<Platform::TimerControl> timer = Platform::getTimerControl(&handler);
  double remaining = 0.0;
  double elapsed = 0.0;
  const double before = time();
  timer->setTimeout(0.02);
  // Read from a second timer's handler while the first one is pending, so
  // that the reading happens inside a turn of the loop, where libevent
  // counts from the time it cached at the top of the turn.
  TestTimeoutHandler readerHandler;
  Ptr<Platform::TimerControl> reader = Platform::getTimerControl(&readerHandler);
  readerHandler.onTimeout = [&] {
    remaining = timer->remainingTimeout();
    elapsed = time() - before;
  };
  reader->setTimeout(0.005);
  Platform::doEventLoop();
  EXPECT_EQ(1, readerHandler.timeouts);
  EXPECT_EQ(1, handler.timeouts);
  EXPECT_LE(remaining, 0.02 - 0.005 + 1e-9);
  EXPECT_GE(remaining, 0.02 - elapsed - 1e-9);
}

TEST(LibeventTimerControl, ADelayBeyondAnyLimitLeavesTheTimerDisarmed) {
  TestTimeoutHandler handler;
  Ptr<Platform::TimerControl> timer = Platform::getTimerControl(&handler);
  for (const double delay : {1e15, 1e30, infinity, std::numeric_limits<double>::max()}) {
    timer->setTimeout(1.0);
    timer->setTimeout(delay);
    EXPECT_EQ(infinity, timer->remainingTimeout()) << delay;
  }
  // Disarmed, not due: a pass of the loop does not run it.
  Platform::doEventLoop(0.0);
  EXPECT_EQ(0, handler.timeouts);
}

TEST(LibeventTimerControl, RemainingTimeIsZeroOnceDueButNotDelivered) {
  TestTimeoutHandler handler;
  Ptr<Platform::TimerControl> timer = Platform::getTimerControl(&handler);
  timer->setTimeout(0.0);
  EXPECT_EQ(0.0, timer->remainingTimeout());
  Platform::doEventLoop();
  EXPECT_EQ(1, handler.timeouts);
}

TEST(LibeventTimerControl, StrictHighTimerRunsBeforeDefaultOnesDueTogether) {
  std::vector<int> order;
  TestTimeoutHandler normal;
  TestTimeoutHandler urgent;
  normal.onTimeout = [&] { order.push_back(1); };
  urgent.onTimeout = [&] { order.push_back(0); };
  Ptr<Platform::TimerControl> normalTimer = Platform::getTimerControl(&normal);
  Ptr<Platform::TimerControl> urgentTimer = Platform::getTimerControl(&urgent, Platform::eventPriorityStrictHigh);
  normalTimer->setTimeout(0.0);
  urgentTimer->setTimeout(0.0);
  Platform::doEventLoop();
  EXPECT_EQ((std::vector<int>{0, 1}), order);
}

TEST(LibeventTimerControl, ExceptionRefusedByTheHandlerReachesTheLoopCaller) {
  TestTimeoutHandler handler;
  handler.onTimeout = [] { throw HandlerError("refused"); };
  Ptr<Platform::TimerControl> timer = Platform::getTimerControl(&handler);
  timer->setTimeout(0.0);
  try {
    Platform::doEventLoop();
    ADD_FAILURE() << "no exception";
  } catch (const HandlerError& e) {
    EXPECT_STREQ("refused", e.what());
  }
  EXPECT_EQ(1, handler.exceptionsOffered);
}

TEST(LibeventTimerControl, ExceptionHandledByTheHandlerIsDropped) {
  TestTimeoutHandler handler;
  handler.swallow = true;
  handler.onTimeout = [] { throw HandlerError("handled"); };
  Ptr<Platform::TimerControl> timer = Platform::getTimerControl(&handler);
  timer->setTimeout(0.0);
  EXPECT_NO_THROW(Platform::doEventLoop());
  EXPECT_EQ(1, handler.timeouts);
  EXPECT_EQ(1, handler.exceptionsOffered);
}

TEST(LibeventTimerControl, TheCurrentExceptionIsAvailableToTheHandler) {
  struct Inspecting : Platform::TimeoutHandler {
    void timeout() override { throw HandlerError("look at me"); }
    bool handleTimeoutException() override {
      try {
        throw;
      } catch (const HandlerError& e) {
        seen = e.what();
      }
      return true;
    }
    std::string seen;
  } handler;
  Ptr<Platform::TimerControl> timer = Platform::getTimerControl(&handler);
  timer->setTimeout(0.0);
  Platform::doEventLoop();
  EXPECT_EQ("look at me", handler.seen);
}

TEST(LibeventTimerControl, LoopStaysUsableAfterAnExceptionReachedItsCaller) {
  TestTimeoutHandler failing;
  failing.onTimeout = [] { throw HandlerError("once"); };
  TestTimeoutHandler fine;
  Ptr<Platform::TimerControl> failingTimer = Platform::getTimerControl(&failing);
  failingTimer->setTimeout(0.0);
  EXPECT_THROW(Platform::doEventLoop(), HandlerError);
  Ptr<Platform::TimerControl> fineTimer = Platform::getTimerControl(&fine);
  fineTimer->setTimeout(0.0);
  Platform::doEventLoop();
  EXPECT_EQ(1, fine.timeouts);
}

} // namespace
} // namespace Kesto
