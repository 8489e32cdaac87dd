// The event's own operations: its state word, its remaining time, and the
// checks that keep it from being lost while linked.
#include "TimerWheelTestSupport.h"

#include <limits>

namespace Kesto::TimerWheelTest {
namespace {

using ::testing::HasSubstr;

constexpr double infinity = std::numeric_limits<double>::infinity();

class TimerWheelEvent : public ManualClock {};

TEST_F(TimerWheelEvent, NewEventIsNotLinkedWithAbsoluteFlagAndNoExpiry) {
  TestEvent event;
  EXPECT_EQ(event.timeoutEntry().flags, 6);
  EXPECT_EQ(event.state(), TimerWheelState::notLinked);
  EXPECT_EQ(event.expirationTime(), infinity);
  EXPECT_EQ(event.remainingTimeout(), infinity);
  EXPECT_EQ(event.timeoutEntry().pending, nullptr);
}

TEST_F(TimerWheelEvent, LayoutIsTheVtableTheTimeoutAndTheExpiry) {
  EXPECT_EQ(sizeof(Kesto::TimerWheelEvent), sizeof(void*) + sizeof(struct timeout) + sizeof(double));
  EXPECT_EQ(sizeof(struct timeout), 40u);
}

TEST_F(TimerWheelEvent, StateChangesGoThroughNotLinked) {
  TestEvent event;
  event.stateIs(TimerWheelState::inTimerWheel);
  EXPECT_EQ(event.timeoutEntry().flags, 2 | 8);
  event.stateIs(TimerWheelState::inTimerWheel); // no change
  EXPECT_THAT(assertionText([&] { event.stateIs(TimerWheelState::inTimersExpiryingSoon); }),
              HasSubstr("State change inTimerWheel -> inTimersExpiryingSoon must go via notLinked"));
  EXPECT_EQ(event.state(), TimerWheelState::inTimerWheel);
  event.stateIs(TimerWheelState::notLinked);
  event.stateIs(TimerWheelState::inTimersExpiryingSoon);
  EXPECT_EQ(event.timeoutEntry().flags, 2 | 16);
  EXPECT_THAT(assertionText([&] { event.stateIs(TimerWheelState::inTimerWheel); }),
              HasSubstr("State change inTimersExpiryingSoon -> inTimerWheel must go via notLinked"));
  event.stateIs(TimerWheelState::notLinked);
  EXPECT_EQ(event.timeoutEntry().flags, 6);
}

TEST_F(TimerWheelEvent, StartAndStopMoveTheStateAndKeepTheAbsoluteFlag) {
  auto wheel = newWheel();
  TestEvent event;
  event.setTimeout(wheel, 1.5);
  EXPECT_EQ(event.state(), TimerWheelState::inTimerWheel);
  EXPECT_EQ(event.timeoutEntry().flags, 2 | 8);
  EXPECT_EQ(event.expirationTime(), 1.5);
  EXPECT_EQ(event.remainingTimeout(), 1.5);
  fakeNow = 1.0;
  EXPECT_EQ(event.remainingTimeout(), 0.5);
  event.delTimeout(wheel);
  EXPECT_EQ(event.state(), TimerWheelState::notLinked);
  EXPECT_EQ(event.timeoutEntry().flags, 6);
  EXPECT_EQ(event.expirationTime(), infinity);
  EXPECT_EQ(event.remainingTimeout(), infinity);
  EXPECT_FALSE(timeouts_pending(wheel->timeoutsSet()));
}

TEST_F(TimerWheelEvent, RestartMovesARunningTimer) {
  auto wheel = newWheel();
  TestEvent event;
  event.wheel = wheel;
  event.setTimeout(wheel, 10.0);
  event.setTimeout(wheel, 0.2);
  fakeNow = 0.2;
  EXPECT_EQ(processExpiredTimersForTaskScheduler(wheel), 1);
  fakeNow = 10.0;
  EXPECT_EQ(processExpiredTimersForTaskScheduler(wheel), 0);
  EXPECT_EQ(event.fired, 1);
}

TEST_F(TimerWheelEvent, DestroyedWhileLinkedAsserts) {
  // A wheel of its own, never used again after the event is gone.
  auto wheel = newWheel();
  auto* event = new TestEvent;
  event->setTimeout(wheel, 1.0);
  const std::string expected =
      fmt::format("TimerWheelEvent {} destroyed while inTimerWheel",
                  DisplayPointer(static_cast<Kesto::TimerWheelEvent*>(event)));
  EXPECT_THAT(assertionText([&] { delete event; }), HasSubstr(expected));
}

} // namespace
} // namespace Kesto::TimerWheelTest
