// A platform timer control served by a timer wheel.
#include "TimerWheelTestSupport.h"

#include <Kesto/Platform/Platform.h>

#include <limits>
#include <stdexcept>

namespace Kesto::TimerWheelTest {
namespace {

using PlatformTest::TestTimeoutHandler;
using ::testing::HasSubstr;

constexpr double infinity = std::numeric_limits<double>::infinity();

class TimerWheelTimerControl : public ManualClock {};

TEST_F(TimerWheelTimerControl, ForwardsToTheWheelAndCallsItsHandler) {
  auto wheel = newWheel();
  TestTimeoutHandler handler;
  Ptr<Platform::TimerControl> control = Platform::getTimerControl(&handler, wheel);
  ASSERT_TRUE(control);
  EXPECT_EQ(control->refCount(), 1u);
  auto* event = dynamic_cast<Kesto::TimerWheelEvent*>(control.get());
  ASSERT_NE(event, nullptr);
  EXPECT_EQ(control->remainingTimeout(), infinity);
  control->setTimeout(2.5);
  EXPECT_EQ(control->remainingTimeout(), 2.5);
  EXPECT_EQ(event->state(), TimerWheelState::inTimerWheel);
  control->delTimeout();
  EXPECT_EQ(control->remainingTimeout(), infinity);
  EXPECT_EQ(event->state(), TimerWheelState::notLinked);
  control->delTimeout(); // not armed: no effect
  control->setTimeout(0.5);
  control->setTimeout(1.0); // replaces: one expiry per control
  fakeNow = 0.75;
  EXPECT_EQ(processExpiredTimersForTaskScheduler(wheel), 0);
  EXPECT_EQ(control->remainingTimeout(), 0.25);
  fakeNow = 1.0;
  EXPECT_EQ(processExpiredTimersForTaskScheduler(wheel), 1);
  EXPECT_EQ(handler.timeouts, 1);
  EXPECT_EQ(control->remainingTimeout(), infinity);
}

TEST_F(TimerWheelTimerControl, StatsNameIsDoesNothing) {
  auto wheel = newWheel();
  TestTimeoutHandler handler;
  Ptr<Platform::TimerControl> control = Platform::getTimerControl(&handler, wheel);
  control->statsNameIs("anything");
  EXPECT_EQ(control->remainingTimeout(), infinity);
}

TEST_F(TimerWheelTimerControl, HandlerExceptionIsNotOfferedNorCaught) {
  auto wheel = newWheel();
  TestTimeoutHandler handler;
  handler.swallow = true; // would drop it, if it were asked
  handler.onTimeout = [] { throw std::runtime_error("from the handler"); };
  Ptr<Platform::TimerControl> control = Platform::getTimerControl(&handler, wheel);
  control->setTimeout(0.1);
  fakeNow = 0.1;
  EXPECT_THROW(processExpiredTimersForTaskScheduler(wheel), std::runtime_error);
  EXPECT_EQ(handler.timeouts, 1);
  EXPECT_EQ(handler.exceptionsOffered, 0);
}

TEST_F(TimerWheelTimerControl, HoldsAShareOfItsWheel) {
  auto wheel = newWheel();
  std::weak_ptr<Kesto::TimerWheel> weak = wheel;
  TestTimeoutHandler handler;
  Ptr<Platform::TimerControl> control = Platform::getTimerControl(&handler, wheel);
  wheel.reset();
  EXPECT_FALSE(weak.expired());
  control->setTimeout(1.0);
  control->delTimeout();
  control.reset();
  EXPECT_TRUE(weak.expired());
}

TEST_F(TimerWheelTimerControl, HandlerMayStopAndRestartItsControl) {
  auto wheel = newWheel();
  TestTimeoutHandler handler;
  Ptr<Platform::TimerControl> control = Platform::getTimerControl(&handler, wheel);
  handler.onTimeout = [&] {
    control->delTimeout(); // already stopped: nothing
    if (handler.timeouts < 3)
      control->setTimeout(0.1);
  };
  control->setTimeout(0.1);
  for (int step = 1; step <= 10; ++step) {
    fakeNow = step * 0.1;
    processExpiredTimersForTaskScheduler(wheel);
  }
  EXPECT_EQ(handler.timeouts, 3);
}

using TimerWheelTimerControlDeathTest = TimerWheelTimerControl;

TEST_F(TimerWheelTimerControlDeathTest, DestroyedWhileRunningEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        auto wheel = newWheel();
        TestTimeoutHandler handler;
        Ptr<Platform::TimerControl> control = Platform::getTimerControl(&handler, wheel);
        control->setTimeout(1.0);
        control.reset();
      },
      "TimerWheelEvent 0x[0-9a-f]+ destroyed while inTimerWheel");
}

} // namespace
} // namespace Kesto::TimerWheelTest
