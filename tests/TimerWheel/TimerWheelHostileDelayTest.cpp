// The wheel given timeouts that are no ordinary number of seconds: not a
// number, negative, zero, endless, huge, denormal. An expiry that is not a
// number is refused before the event is touched; every other timeout gives a
// timer that never fires before its exact expiry.
#include "TimerWheelTestSupport.h"

#include <KestoSupport/AssertMessage.h>

#include <Kesto/Platform/Platform.h>
#include <Kesto/Platform/Time.h>

#include <fmt/format.h>

#include <cmath>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace Kesto::TimerWheelTest {
namespace {

constexpr double infinity = std::numeric_limits<double>::infinity();
constexpr double notANumber = std::numeric_limits<double>::quiet_NaN();

std::string refusal(const TimerWheelEvent& event, const char* timeout) {
  return fmt::format("TimerWheel::timerStart() timer {} expiry is not a number (timeout {})", DisplayPointer(&event),
                     timeout);
}

// The message of the assertion that setTimeout(timeout) raises on `event`.
std::string refusedText(TimerWheelEvent& event, const std::shared_ptr<TimerWheel>& wheel, double timeout) {
  return KestoTest::assertMessage(assertionText([&] { event.setTimeout(wheel, timeout); }));
}

// A wheel on the manual clock and one event of it.
class HostileDelayManualClock : public ManualClock {
protected:
  void SetUp() override {
    ManualClock::SetUp();
    wheel = newWheel();
    event.wheel = wheel;
  }
  std::shared_ptr<TimerWheel> wheel;
  // Held by pointer: the event's destructor may throw, the fixture's not.
  std::unique_ptr<TestEvent> ownedEvent = std::make_unique<TestEvent>();
  TestEvent& event = *ownedEvent;
};

TEST_F(HostileDelayManualClock, TimeoutThatIsNotANumberIsRefusedOnAStoppedTimer) {
  const double master = wheel->masterTimerExpiryTime();
  EXPECT_EQ(refusedText(event, wheel, notANumber), refusal(event, "nan"));
  EXPECT_EQ(refusedText(event, wheel, -notANumber), refusal(event, "-nan"));
  EXPECT_EQ(event.state(), TimerWheelState::notLinked);
  EXPECT_EQ(event.expirationTime(), infinity);
  EXPECT_EQ(event.remainingTimeout(), infinity);
  EXPECT_EQ(wheel->masterTimerExpiryTime(), master);
  fakeNow = 1000.0;
  EXPECT_EQ(processExpiredTimersForTaskScheduler(wheel), 0);
  EXPECT_EQ(event.fired, 0);
}

TEST_F(HostileDelayManualClock, TimeoutThatIsNotANumberLeavesARunningTimerAtItsExpiry) {
  fakeNow = 10.0;
  event.setTimeout(wheel, 2.504);
  const double expiry = event.expirationTime();
  ASSERT_EQ(expiry, 10.0 + 2.504);
  const double master = wheel->masterTimerExpiryTime();
  EXPECT_EQ(refusedText(event, wheel, NAN), refusal(event, "nan"));
  EXPECT_EQ(event.state(), TimerWheelState::inTimerWheel);
  EXPECT_EQ(event.expirationTime(), expiry);
  EXPECT_EQ(wheel->masterTimerExpiryTime(), master);
  // It fires at its time, and not before: in the tick of its expiry the
  // wheel reports it, and it waits among those expiring soon.
  fakeNow = 12.501;
  EXPECT_EQ(processExpiredTimersForTaskScheduler(wheel), 0);
  EXPECT_EQ(event.state(), TimerWheelState::inTimersExpiryingSoon);
  // Refused in that state too, and it stays there.
  EXPECT_EQ(refusedText(event, wheel, NAN), refusal(event, "nan"));
  EXPECT_EQ(event.state(), TimerWheelState::inTimersExpiryingSoon);
  EXPECT_EQ(event.expirationTime(), expiry);
  fakeNow = expiry;
  EXPECT_EQ(processExpiredTimersForTaskScheduler(wheel), 1);
  EXPECT_EQ(event.fired, 1);
}

TEST_F(HostileDelayManualClock, ClockThatIsNotANumberIsRefusedToo) {
  fakeNow = notANumber;
  EXPECT_EQ(refusedText(event, wheel, 1.0), refusal(event, "1"));
  EXPECT_EQ(event.state(), TimerWheelState::notLinked);
  EXPECT_EQ(event.expirationTime(), infinity);
}

TEST_F(HostileDelayManualClock, TimersOfOneExactTimeDoNotFireWithAnotherBeforeTheirTime) {
  // The failure a NaN key caused: compared equal to every key, it made the
  // exact-expiry map take later timers for due ones.
  std::vector<TestEvent*> order;
  TestEvent early(&order), late(&order), refused(&order);
  for (TestEvent* e : {&early, &late, &refused})
    e->wheel = wheel;
  fakeNow = 5.0;
  early.setTimeout(wheel, 0.001);
  late.setTimeout(wheel, 0.009);
  EXPECT_FALSE(assertionText([&] { refused.setTimeout(wheel, NAN); }).empty());
  fakeNow = 5.002;
  EXPECT_EQ(processExpiredTimersForTaskScheduler(wheel), 1);
  EXPECT_EQ(order, std::vector<TestEvent*>{&early});
  EXPECT_EQ(late.state(), TimerWheelState::inTimersExpiryingSoon);
  fakeNow = late.expirationTime();
  EXPECT_EQ(processExpiredTimersForTaskScheduler(wheel), 1);
  EXPECT_EQ(order, (std::vector<TestEvent*>{&early, &late}));
  EXPECT_EQ(refused.fired, 0);
}

// Records the clock when it fires; `armedFor` is the exact expiry it had
// when it was last armed.
class ClockedEvent : public TimerWheelEvent {
public:
  void timeout() override {
    ++fired;
    firedAt = Kesto::time();
  }
  double armedFor = infinity;
  double firedAt = -infinity;
  int fired = 0;
};

// Thousands of timers armed with random and hostile timeouts, with refused
// attempts mixed in, run in fast forward: not one may fire before the
// expiry it had when it was last armed.
TEST(TimerWheelHostileDelay, NoTimerFiresBeforeItsExpiryWhateverTheTimeouts) {
  PlatformTest::FastForwardOn fastForward;
  // Huge expiries are clamped to the last tick, which is traced at level 0
  // (on by default), and each refusal writes its assertion: those lines, and
  // only those, are expected.
  ::testing::internal::CaptureStderr();
  auto wheel = getTimerWheelForTaskScheduler(Platform::eventPriorityStrictHigh);
  constexpr unsigned timerCount = 3000;
  constexpr double horizon = 100.0;
  std::vector<ClockedEvent> events(timerCount);

  std::mt19937_64 rng(482);
  std::uniform_real_distribution<double> ordinary(0.0, 5.0);
  std::uniform_int_distribution<int> kindOf(0, 15);
  const double denormal = std::numeric_limits<double>::denorm_min();
  unsigned refused = 0;
  auto arm = [&](ClockedEvent& e) {
    double timeout = 0.0;
    switch (kindOf(rng)) {
    case 0: timeout = 0.0; break;
    case 1: timeout = -ordinary(rng); break;
    case 2: timeout = -infinity; break;
    case 3:
      // An endless timeout is for a stopped timer; a running one is
      // stopped by delTimeout.
      if (e.expirationTime() != infinity) {
        e.delTimeout(wheel);
        e.armedFor = infinity;
        return;
      }
      timeout = infinity;
      break;
    case 4: timeout = 1e300; break;
    case 5: timeout = std::numeric_limits<double>::max(); break;
    case 6: timeout = denormal; break;
    case 7: timeout = -denormal; break;
    case 8: timeout = ordinary(rng) * 1e-9; break;
    case 9: {
      const double before = e.expirationTime();
      const TimerWheelState state = e.state();
      EXPECT_EQ(refusedText(e, wheel, notANumber), refusal(e, "nan"));
      EXPECT_EQ(before, e.expirationTime());
      EXPECT_EQ(state, e.state());
      ++refused;
      return;
    }
    default: timeout = ordinary(rng); break;
    }
    e.setTimeout(wheel, timeout);
    e.armedFor = e.expirationTime();
  };
  for (ClockedEvent& e : events)
    arm(e);
  for (unsigned i = 0; i < timerCount; i += 3)
    arm(events[i]);

  const double end = Kesto::time() + horizon;
  unsigned expected = 0, never = 0;
  for (const ClockedEvent& e : events) {
    EXPECT_FALSE(std::isnan(e.expirationTime()));
    if (e.armedFor < end)
      ++expected;
    else
      ++never;
  }
  ASSERT_GT(refused, 100u);
  ASSERT_GT(never, 100u);

  unsigned fired = 0;
  for (unsigned turn = 0; fired < expected; ++turn) {
    ASSERT_LT(turn, 10000u) << fired << " of " << expected << " fired";
    Platform::doEventLoopInWaitfor(10.0);
    fired = 0;
    for (const ClockedEvent& e : events)
      fired += unsigned(e.fired);
  }
  EXPECT_LT(Kesto::time(), end);

  unsigned early = 0;
  for (unsigned i = 0; i < timerCount; ++i) {
    ClockedEvent& e = events[i];
    if (e.armedFor >= end) {
      EXPECT_EQ(e.fired, 0) << i;
      e.delTimeout(wheel);
      continue;
    }
    ASSERT_EQ(e.fired, 1) << i << " armed for " << e.armedFor;
    early += e.firedAt < e.armedFor;
    EXPECT_GE(e.firedAt, e.armedFor) << i;
    EXPECT_EQ(e.state(), TimerWheelState::notLinked);
  }
  EXPECT_EQ(early, 0u);
  const std::string written = ::testing::internal::GetCapturedStderr();
  std::size_t lines = 0, truncations = 0, refusals = 0;
  for (std::size_t start = 0, end; start < written.size(); start = end + 1) {
    end = written.find('\n', start);
    if (end == std::string::npos)
      end = written.size();
    const std::string line = written.substr(start, end - start);
    ++lines;
    truncations += line.find(" TimerWheel::timeToTickOverflowCheck() truncating ticks from ") != std::string::npos;
    refusals += line.find(" TimerWheel::timerStart() timer ") != std::string::npos &&
                line.find(" expiry is not a number (timeout nan)") != std::string::npos;
  }
  EXPECT_EQ(refusals, refused);
  EXPECT_GT(truncations, 0u);
  EXPECT_EQ(lines, truncations + refusals) << written;
}

} // namespace
} // namespace Kesto::TimerWheelTest
