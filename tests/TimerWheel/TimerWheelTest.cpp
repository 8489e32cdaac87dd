// The timer wheel driven directly, on a clock the test sets by hand.
#include "TimerWheelTestSupport.h"

#include <Kesto/Core/System.h>
#include <Kesto/Platform/Libevent.h>
#include <Kesto/Platform/LibeventControls.h>

#include <cmath>
#include <limits>
#include <random>
#include <stdexcept>
#include <thread>

namespace Kesto::TimerWheelTest {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

constexpr double infinity = std::numeric_limits<double>::infinity();
constexpr U64 lastTick = std::numeric_limits<U64>::max();

class TimerWheel : public ManualClock {};

// What the master timer's firing does: process, then re-arm.
int masterTimerPass(const std::shared_ptr<Kesto::TimerWheel>& wheel) {
  const int fired = processExpiredTimersForTaskScheduler(wheel);
  wheel->setMasterTimer();
  return fired;
}

TEST(TimerWheelTicks, PresentRoundsUpAndExpiryRoundsDown) {
  EXPECT_EQ(timeToTickFloorForTest(1.0042), 100u);
  EXPECT_EQ(timeToTickCeilForTest(1.0001), 101u);
  EXPECT_EQ(timeToTickCeilForTest(1.0042), 101u);
  EXPECT_EQ(timeToTickFloorForTest(1.0001), 100u);
  EXPECT_EQ(timeToTickCeilForTest(2.0), 200u);
  EXPECT_EQ(timeToTickFloorForTest(2.0), 200u);
  EXPECT_EQ(timeToTickFloorForTest(123456.789), 12345678u);
}

TEST(TimerWheelTicks, AgreeWithExactRoundingOfTheExtendedProduct) {
  // Every magnitude, including integral products and the neighbours of
  // tick boundaries, against floorl/ceill of the 80-bit product.
  std::mt19937_64 rng(5);
  for (int i = 0; i < 200000; ++i) {
    const int exponent = int(rng() % 70) - 10;
    double t = std::ldexp(double(rng() >> 11) / double(U64(1) << 53), exponent);
    switch (i % 4) {
    case 1:
      t = std::nearbyint(t * 100.0) / 100.0;
      break;
    case 2:
      t = std::nextafter(std::nearbyint(t * 100.0) / 100.0, 0.0);
      break;
    case 3:
      t = std::nextafter(std::nearbyint(t * 100.0) / 100.0, infinity);
      break;
    }
    const long double product = 100.0L * t;
    if (product >= 18446744073709551615.0L)
      continue;
    ASSERT_EQ(timeToTickFloorForTest(t), U64(std::floor(product))) << t;
    ASSERT_EQ(timeToTickCeilForTest(t), U64(std::ceil(product))) << t;
  }
}

TEST(TimerWheelTicks, NegativeTimesAreTickZero) {
  EXPECT_EQ(timeToTickFloorForTest(-0.5), 0u);
  EXPECT_EQ(timeToTickCeilForTest(-3.0), 0u);
  EXPECT_EQ(timeToTickFloorForTest(-infinity), 0u);
}

TEST(TimerWheelTicks, TooLargeIsClampedAndTraced) {
  WheelTrace trace;
  EXPECT_EQ(timeToTickFloorForTest(1e30), lastTick);
  EXPECT_EQ(timeToTickCeilForTest(infinity), lastTick);
  // 2^64 ticks exactly is at the limit already.
  EXPECT_EQ(timeToTickFloorForTest(std::ldexp(1.0, 64) / 100.0), lastTick);
  EXPECT_EQ(trace.count("truncating ticks from "), 3);
  EXPECT_THAT(trace.text(), HasSubstr("truncating ticks from inf down to 18446744073709551615"));
  EXPECT_EQ(trace.count("down to 18446744073709551615\n"), 3);
}

TEST(TimerWheelTicks, JustBelowTheLimitIsNotClamped) {
  WheelTrace trace;
  const double below = std::ldexp(1.0, 57); // times 100 is exact and below 2^64
  EXPECT_EQ(timeToTickFloorForTest(below), U64(100) << 57);
  EXPECT_EQ(timeToTickCeilForTest(below), U64(100) << 57);
  EXPECT_EQ(trace.count("truncating"), 0);
}

TEST_F(TimerWheel, CreationOpensTheWheelAtThePresentTick) {
  fakeNow = 12.345;
  auto wheel = newWheel();
  EXPECT_EQ(wheel->error(), 0);
  EXPECT_EQ(wheel->masterTimerExpiryTime(), infinity);
  ASSERT_TRUE(wheel->masterTimer());
  EXPECT_EQ(wheel->masterTimer()->remainingTimeout(), infinity);
  ASSERT_NE(wheel->timeoutsSet(), nullptr);
  EXPECT_EQ(timeouts_hz(wheel->timeoutsSet()), 100u);
  EXPECT_EQ(timeouts_now(wheel->timeoutsSet()), 1235u);
  EXPECT_TRUE(wheel->timersExpiryingSoon().empty());
}

TEST_F(TimerWheel, EachSchedulerWheelIsNewWithTheGivenPriority) {
  auto a = newWheel(Platform::eventPriorityStrictHigh);
  auto b = newWheel(Platform::eventPriorityDefault);
  EXPECT_NE(a, b);
  auto* masterA = dynamic_cast<LibeventTimerControl*>(a->masterTimer().get());
  auto* masterB = dynamic_cast<LibeventTimerControl*>(b->masterTimer().get());
  ASSERT_NE(masterA, nullptr);
  ASSERT_NE(masterB, nullptr);
  EXPECT_EQ(masterA->priority(), Platform::eventPriorityStrictHigh);
  EXPECT_EQ(masterB->priority(), Platform::eventPriorityDefault);
}

TEST_F(TimerWheel, SingletonIsSharedWithinItsScopeAtDefaultPriority) {
  auto first = getTimerWheel();
  EXPECT_EQ(first, getTimerWheel());
  auto* master = dynamic_cast<LibeventTimerControl*>(first->masterTimer().get());
  ASSERT_NE(master, nullptr);
  EXPECT_EQ(master->priority(), Platform::eventPriorityDefault);
  std::shared_ptr<Kesto::TimerWheel> other;
  std::weak_ptr<Kesto::TimerWheel> otherWeak;
  std::thread([&] {
    otherWeak = getTimerWheel();
    other = otherWeak.lock();
    if (hasThreadLocalSingletons())
      other.reset(); // the thread's own wheel: may not be used off its thread
    leFree(); // the thread's event base; its controls stay safe to destroy
  }).join();
  if (hasThreadLocalSingletons()) {
    // Released at the exit of its thread.
    EXPECT_TRUE(otherWeak.expired());
  } else {
    EXPECT_EQ(other, first);
  }
}

TEST_F(TimerWheel, SettingTheSameExactExpiryIsANoOp) {
  auto wheel = newWheel();
  TestEvent event;
  event.wheel = wheel;
  event.setTimeout(wheel, 5.0);
  const double master = wheel->masterTimerExpiryTime();
  {
    WheelTrace trace;
    event.setTimeout(wheel, 5.0);
    fakeNow = 1.0;
    event.setTimeout(wheel, 4.0); // the same moment, from a later present
    EXPECT_EQ(trace.count("set timeout"), 0);
    EXPECT_EQ(trace.count("del timeout"), 0);
  }
  EXPECT_EQ(event.expirationTime(), 5.0);
  EXPECT_EQ(event.state(), TimerWheelState::inTimerWheel);
  EXPECT_EQ(wheel->masterTimerExpiryTime(), master);
  {
    WheelTrace trace;
    event.setTimeout(wheel, 4.5);
    EXPECT_EQ(trace.count("del timeout"), 1);
    EXPECT_EQ(trace.count("set timeout 4.5 expire at 5.5 tick 550"), 1);
  }
  event.delTimeout(wheel);
}

TEST_F(TimerWheel, EarlyReportIsDeferredToTheExactTime) {
  auto wheel = newWheel();
  TestEvent event;
  event.wheel = wheel;
  event.setTimeout(wheel, 1.0042);
  EXPECT_EQ(event.timeoutEntry().expires, 100u);
  EXPECT_EQ(event.state(), TimerWheelState::inTimerWheel);

  fakeNow = 1.0001;
  {
    WheelTrace trace;
    EXPECT_EQ(masterTimerPass(wheel), 0);
    EXPECT_EQ(timeouts_now(wheel->timeoutsSet()), 101u);
    EXPECT_THAT(trace.text(), HasSubstr("Defer processing timers with expiry time 1.0042 > now 1.0001"));
    EXPECT_THAT(trace.text(), HasSubstr("has scheduled timers, firstExpiryTime=1.0042 now=1.0001, set master timer "
                                        "timeout 0.004"));
  }
  EXPECT_EQ(event.fired, 0);
  EXPECT_EQ(event.state(), TimerWheelState::inTimersExpiryingSoon);
  EXPECT_EQ(wheel->timersExpiryingSoon().size(), 1u);
  EXPECT_EQ(wheel->masterTimerExpiryTime(), 1.0042);
  const double remaining = wheel->masterTimer()->remainingTimeout();
  EXPECT_LT(remaining, infinity); // armed; how much of it is left depends on real time
  EXPECT_LE(remaining, 0.0042);
  EXPECT_DOUBLE_EQ(event.remainingTimeout(), 1.0042 - 1.0001);

  fakeNow = 1.0041999;
  EXPECT_EQ(masterTimerPass(wheel), 0);
  EXPECT_EQ(event.fired, 0);

  fakeNow = 1.0042;
  EXPECT_EQ(masterTimerPass(wheel), 1);
  EXPECT_EQ(event.fired, 1);
  EXPECT_EQ(event.state(), TimerWheelState::notLinked);
  EXPECT_EQ(event.expirationTime(), infinity);
  EXPECT_TRUE(wheel->timersExpiryingSoon().empty());
  EXPECT_EQ(wheel->masterTimerExpiryTime(), infinity);
  EXPECT_EQ(wheel->masterTimer()->remainingTimeout(), infinity);
}

TEST_F(TimerWheel, NothingFiresBeforeItsExactTimeAtAnyPresent) {
  // Timers at every 0.37 ms over 0.3 s, processed at every 0.1 ms: each
  // fires at the first pass at or after its time, never before.
  auto wheel = newWheel();
  std::vector<std::unique_ptr<TestEvent>> events;
  for (int i = 1; i <= 800; ++i) {
    events.push_back(std::make_unique<TestEvent>());
    events.back()->wheel = wheel;
    events.back()->setTimeout(wheel, i * 0.00037);
  }
  std::vector<double> expiry;
  for (auto& e : events)
    expiry.push_back(e->expirationTime());
  for (int step = 1; step <= 3100; ++step) {
    fakeNow = step * 0.0001;
    masterTimerPass(wheel);
    for (size_t i = 0; i < events.size(); ++i) {
      ASSERT_EQ(events[i]->fired, expiry[i] <= fakeNow ? 1 : 0) << "timer " << i << " at " << fakeNow;
    }
  }
}

TEST_F(TimerWheel, EqualExactTimesShareOneNodeAndFireInDeliveryOrder) {
  auto wheel = newWheel();
  std::vector<TestEvent*> order;
  TestEvent a(&order), b(&order), c(&order);
  for (TestEvent* e : {&a, &b, &c}) {
    e->wheel = wheel;
    e->setTimeout(wheel, 0.5);
  }
  fakeNow = 0.499;
  EXPECT_EQ(masterTimerPass(wheel), 0);
  EXPECT_EQ(wheel->timersExpiryingSoon().size(), 1u);
  fakeNow = 0.5;
  EXPECT_EQ(masterTimerPass(wheel), 3);
  EXPECT_EQ(order, (std::vector<TestEvent*>{&a, &b, &c}));
}

TEST_F(TimerWheel, DifferentTimesWithinOneTickFireInTimeOrder) {
  auto wheel = newWheel();
  std::vector<TestEvent*> order;
  TestEvent x(&order), y(&order), z(&order);
  x.wheel = y.wheel = z.wheel = wheel;
  x.setTimeout(wheel, 0.557);
  y.setTimeout(wheel, 0.553);
  z.setTimeout(wheel, 0.551);
  EXPECT_EQ(x.timeoutEntry().expires, y.timeoutEntry().expires);
  EXPECT_EQ(y.timeoutEntry().expires, z.timeoutEntry().expires);
  fakeNow = 0.56;
  EXPECT_EQ(masterTimerPass(wheel), 3);
  EXPECT_EQ(order, (std::vector<TestEvent*>{&z, &y, &x}));
}

TEST_F(TimerWheel, NegativeTimeoutIsDueAtOnce) {
  fakeNow = 3.0;
  auto wheel = newWheel();
  TestEvent event;
  event.wheel = wheel;
  event.setTimeout(wheel, -1.0);
  EXPECT_EQ(event.state(), TimerWheelState::inTimerWheel);
  EXPECT_TRUE(timeouts_expired(wheel->timeoutsSet())); // the library's expired list
  EXPECT_FALSE(timeouts_pending(wheel->timeoutsSet()));
  EXPECT_EQ(event.remainingTimeout(), 0.0);
  EXPECT_EQ(wheel->masterTimerExpiryTime(), 0.0); // armed for 0
  EXPECT_EQ(masterTimerPass(wheel), 1);
  EXPECT_EQ(event.fired, 1);
}

TEST_F(TimerWheel, HandlerRestartingWithZeroFiresOncePerPass) {
  auto wheel = newWheel();
  TestEvent event;
  event.wheel = wheel;
  event.onTimeout = [&] { event.setTimeout(wheel, 0.0); };
  event.setTimeout(wheel, 0.0);
  for (int pass = 1; pass <= 3; ++pass) {
    EXPECT_EQ(processExpiredTimersForTaskScheduler(wheel), 1);
    EXPECT_EQ(event.fired, pass);
    EXPECT_EQ(event.state(), TimerWheelState::inTimerWheel);
  }
  event.onTimeout = nullptr;
  EXPECT_EQ(processExpiredTimersForTaskScheduler(wheel), 1);
  EXPECT_EQ(processExpiredTimersForTaskScheduler(wheel), 0);
}

TEST_F(TimerWheel, TimerStartedInAHandlerWaitsForALaterPass) {
  auto wheel = newWheel();
  TestEvent first, second;
  first.wheel = second.wheel = wheel;
  first.onTimeout = [&] { second.setTimeout(wheel, -5.0); };
  first.setTimeout(wheel, 0.1);
  fakeNow = 0.2;
  EXPECT_EQ(processExpiredTimersForTaskScheduler(wheel), 1);
  EXPECT_EQ(second.fired, 0);
  EXPECT_EQ(second.state(), TimerWheelState::inTimerWheel);
  EXPECT_EQ(processExpiredTimersForTaskScheduler(wheel), 1);
  EXPECT_EQ(second.fired, 1);
}

TEST_F(TimerWheel, HandlerStoppingAnotherOfTheSameListPreventsItsFiring) {
  auto wheel = newWheel();
  TestEvent a, b, c;
  a.wheel = b.wheel = c.wheel = wheel;
  a.onTimeout = [&] { b.delTimeout(wheel); };
  for (TestEvent* e : {&a, &b, &c})
    e->setTimeout(wheel, 0.25);
  fakeNow = 0.25;
  EXPECT_EQ(processExpiredTimersForTaskScheduler(wheel), 2);
  EXPECT_EQ(a.fired, 1);
  EXPECT_EQ(b.fired, 0);
  EXPECT_EQ(c.fired, 1);
  EXPECT_EQ(b.state(), TimerWheelState::notLinked);
  EXPECT_EQ(b.expirationTime(), infinity);
}

TEST_F(TimerWheel, HandlerMayRestartItselfForLater) {
  auto wheel = newWheel();
  TestEvent event;
  event.wheel = wheel;
  event.onTimeout = [&] {
    if (event.fired < 3)
      event.setTimeout(wheel, 1.0);
  };
  event.setTimeout(wheel, 1.0);
  for (int second = 1; second <= 5; ++second) {
    fakeNow = second;
    masterTimerPass(wheel);
  }
  EXPECT_EQ(event.fired, 3);
  EXPECT_EQ(wheel->masterTimerExpiryTime(), infinity);
}

TEST_F(TimerWheel, HandlerExceptionPassesAndLeavesTheRestInTheMap) {
  auto wheel = newWheel();
  std::vector<TestEvent*> order;
  TestEvent a(&order), b(&order);
  a.wheel = b.wheel = wheel;
  a.onTimeout = [] { throw std::runtime_error("handler failed"); };
  a.setTimeout(wheel, 0.3);
  b.setTimeout(wheel, 0.3);
  fakeNow = 0.3;
  EXPECT_THROW(processExpiredTimersForTaskScheduler(wheel), std::runtime_error);
  EXPECT_EQ(a.state(), TimerWheelState::notLinked);
  EXPECT_EQ(b.state(), TimerWheelState::inTimersExpiryingSoon);
  EXPECT_EQ(b.fired, 0);
  EXPECT_EQ(processExpiredTimersForTaskScheduler(wheel), 1);
  EXPECT_EQ(order, (std::vector<TestEvent*>{&a, &b}));
}

TEST_F(TimerWheel, StartingEarlierMovesTheMasterTimerAndLaterDoesNot) {
  auto wheel = newWheel();
  TestEvent a, b, c;
  a.wheel = b.wheel = c.wheel = wheel;
  a.setTimeout(wheel, 0.5);
  EXPECT_EQ(wheel->masterTimerExpiryTime(), 0.5); // 50 ticks ahead: exact on the first level
  {
    WheelTrace trace;
    b.setTimeout(wheel, 0.9);
    EXPECT_EQ(trace.count("set master timer"), 0);
  }
  EXPECT_EQ(wheel->masterTimerExpiryTime(), 0.5);
  {
    WheelTrace trace;
    c.setTimeout(wheel, 0.2);
    EXPECT_EQ(trace.count("set master timer timeout 0.2"), 1);
  }
  EXPECT_EQ(wheel->masterTimerExpiryTime(), 0.2);
  {
    WheelTrace trace;
    c.delTimeout(wheel);
    EXPECT_EQ(trace.count("master timer"), 0); // stopping never touches it
  }
  EXPECT_EQ(wheel->masterTimerExpiryTime(), 0.2);
}

TEST_F(TimerWheel, StoppedOnlyTimerLetsTheMasterTimerFireOnceThenDeletesIt) {
  PlatformTest::FastForwardOn fastForward;
  auto wheel = newWheel();
  TestEvent event;
  event.wheel = wheel;
  event.setTimeout(wheel, 5.0);
  const double armedFor = wheel->masterTimerExpiryTime();
  EXPECT_LE(armedFor, 5.0);
  event.delTimeout(wheel);
  EXPECT_EQ(wheel->masterTimerExpiryTime(), armedFor);
  EXPECT_LT(wheel->masterTimer()->remainingTimeout(), infinity);
  {
    WheelTrace trace;
    Platform::doEventLoopInWaitfor(10.0); // jumps to the master timer and fires it
    EXPECT_EQ(trace.count("master timer expired"), 1);
    EXPECT_EQ(trace.count("has no timers, del master timer timeout"), 1);
  }
  EXPECT_EQ(event.fired, 0);
  EXPECT_EQ(wheel->masterTimerExpiryTime(), infinity);
  EXPECT_EQ(wheel->masterTimer()->remainingTimeout(), infinity);
  {
    WheelTrace trace;
    Platform::doEventLoopInWaitfor(10.0);
    EXPECT_EQ(trace.count("master timer expired"), 0);
  }
}

TEST_F(TimerWheel, StopInTheMapLeavesAnEmptyNodeThatIsSkippedThenErased) {
  auto wheel = newWheel();
  TestEvent a, b;
  a.wheel = b.wheel = wheel;
  a.setTimeout(wheel, 1.0042);
  b.setTimeout(wheel, 1.0045);
  fakeNow = 1.0001;
  EXPECT_EQ(masterTimerPass(wheel), 0);
  EXPECT_EQ(wheel->timersExpiryingSoon().size(), 2u);
  a.delTimeout(wheel);
  EXPECT_EQ(a.state(), TimerWheelState::notLinked);
  EXPECT_EQ(a.timeoutEntry().pending, nullptr);
  ASSERT_EQ(wheel->timersExpiryingSoon().size(), 2u);
  EXPECT_TRUE(wheel->timersExpiryingSoon().begin()->second.empty());
  wheel->setMasterTimer();
  EXPECT_EQ(wheel->masterTimerExpiryTime(), 1.0045);
  fakeNow = 1.0043;
  EXPECT_EQ(processExpiredTimersForTaskScheduler(wheel), 0);
  ASSERT_EQ(wheel->timersExpiryingSoon().size(), 1u);
  EXPECT_EQ(wheel->timersExpiryingSoon().begin()->second.front(), &b);
  fakeNow = 1.0045;
  EXPECT_EQ(processExpiredTimersForTaskScheduler(wheel), 1);
  EXPECT_EQ(a.fired, 0);
  EXPECT_EQ(b.fired, 1);
}

TEST_F(TimerWheel, InfiniteTimeoutOnAStoppedTimerDoesNothing) {
  auto wheel = newWheel();
  TestEvent event;
  WheelTrace trace;
  event.setTimeout(wheel, infinity);
  EXPECT_EQ(event.state(), TimerWheelState::notLinked);
  EXPECT_EQ(event.expirationTime(), infinity);
  EXPECT_EQ(event.timeoutEntry().pending, nullptr);
  EXPECT_EQ(trace.count("set timeout"), 0);
  EXPECT_EQ(wheel->masterTimerExpiryTime(), infinity);
}

TEST_F(TimerWheel, InfiniteTimeoutOnARunningTimerRelinksItAtTheLastTick) {
  auto wheel = newWheel();
  TestEvent event;
  event.setTimeout(wheel, 2.0);
  {
    WheelTrace trace;
    event.setTimeout(wheel, infinity);
    EXPECT_EQ(trace.count("del timeout"), 1);
    EXPECT_THAT(trace.text(), HasSubstr("truncating ticks from inf down to 18446744073709551615"));
  }
  EXPECT_EQ(event.state(), TimerWheelState::inTimerWheel);
  EXPECT_EQ(event.expirationTime(), infinity);
  EXPECT_EQ(event.timeoutEntry().expires, lastTick);
  EXPECT_EQ(event.remainingTimeout(), infinity);
  {
    WheelTrace trace;
    event.delTimeout(wheel); // taken for not running
    EXPECT_EQ(trace.count("del timeout, not running"), 1);
  }
  EXPECT_EQ(event.state(), TimerWheelState::inTimerWheel);
  // Unlink by hand, as nothing in the wheel will.
  timeouts_del(wheel->timeoutsSet(), const_cast<struct timeout*>(&event.timeoutEntry()));
  event.stateIs(TimerWheelState::notLinked);
}

TEST_F(TimerWheel, RemainingTimeoutOfADueButUnfiredTimerIsZero) {
  auto wheel = newWheel();
  TestEvent event;
  event.wheel = wheel;
  event.setTimeout(wheel, 0.5);
  fakeNow = 0.25;
  EXPECT_DOUBLE_EQ(event.remainingTimeout(), 0.25);
  fakeNow = 0.75;
  wheel->setCurrentTime(fakeNow); // now in the library's expired list
  EXPECT_TRUE(timeouts_expired(wheel->timeoutsSet()));
  EXPECT_EQ(event.state(), TimerWheelState::inTimerWheel);
  EXPECT_EQ(event.remainingTimeout(), 0.0);
}

TEST_F(TimerWheel, ProcessingWithNothingDueReturnsZeroAndLeavesTheMasterTimer) {
  auto wheel = newWheel();
  TestEvent event;
  event.wheel = wheel;
  event.setTimeout(wheel, 3.0);
  const double armedFor = wheel->masterTimerExpiryTime();
  WheelTrace trace;
  EXPECT_EQ(processExpiredTimersForTaskScheduler(wheel), 0);
  EXPECT_EQ(wheel->masterTimerExpiryTime(), armedFor);
  EXPECT_THAT(trace.text(), HasSubstr("TimerWheel::processExpiredTimers() \n"));
  EXPECT_EQ(trace.count("set master timer"), 0);
}

TEST_F(TimerWheel, FarTimerReachesTheMapThroughEarlyMasterTimers) {
  // 1000 s is far up the wheel: the master timer is armed early, more than
  // once, and the timer still fires at its exact time and not before.
  auto wheel = newWheel();
  TestEvent event;
  event.wheel = wheel;
  event.setTimeout(wheel, 1000.0031);
  int passes = 0;
  while (event.fired == 0) {
    ASSERT_LT(++passes, 20);
    const double armedFor = wheel->masterTimerExpiryTime();
    ASSERT_LT(armedFor, infinity);
    ASSERT_LE(armedFor, 1000.0031);
    fakeNow = std::max(fakeNow, armedFor);
    masterTimerPass(wheel);
    if (event.fired) {
      EXPECT_GE(fakeNow, 1000.0031);
    }
  }
  EXPECT_GT(passes, 1);
}

TEST_F(TimerWheel, TraceLinesOfStartStopAndFiring) {
  auto wheel = newWheel();
  TestEvent event;
  event.wheel = wheel;
  const std::string self = fmt::format("{}", DisplayPointer(static_cast<TimerWheelEvent*>(&event)));
  WheelTrace trace;
  event.setTimeout(wheel, 0.25);
  event.delTimeout(wheel);
  event.delTimeout(wheel);
  event.setTimeout(wheel, 0.25);
  fakeNow = 0.3;
  masterTimerPass(wheel);
  const std::string& text = trace.text();
  EXPECT_THAT(text, HasSubstr("timer " + self + " set timeout 0.25 expire at 0.25 tick 25"));
  EXPECT_THAT(text, HasSubstr("timer " + self + " del timeout\n"));
  EXPECT_THAT(text, HasSubstr("timer " + self + " del timeout, not running"));
  EXPECT_THAT(text, HasSubstr("TimerWheel::timerExpired() timer " + self + " expired"));
  EXPECT_THAT(text, HasSubstr("advance time to 0.3 tick 30"));
  EXPECT_THAT(text, HasSubstr("has no timers, del master timer timeout"));
  EXPECT_THAT(text, HasSubstr("has scheduled timers, first timer expiry in 25 ticks, set master timer timeout 0.25"));
}

TEST_F(TimerWheel, ExpiredInTheLibraryArmsTheMasterTimerForZero) {
  auto wheel = newWheel();
  TestEvent event;
  event.wheel = wheel;
  event.setTimeout(wheel, 0.5);
  fakeNow = 0.6;
  WheelTrace trace;
  wheel->setMasterTimer();
  EXPECT_EQ(trace.count("has expired timers, set master timer timeout 0"), 1);
  EXPECT_EQ(wheel->masterTimerExpiryTime(), 0.0);
  EXPECT_LT(wheel->masterTimer()->remainingTimeout(), infinity);
}

TEST_F(TimerWheel, DueTimerInTheMapArmsTheMasterTimerForZero) {
  auto wheel = newWheel();
  TestEvent event;
  event.wheel = wheel;
  event.setTimeout(wheel, 0.5042);
  fakeNow = 0.5001;
  masterTimerPass(wheel);
  ASSERT_EQ(event.state(), TimerWheelState::inTimersExpiryingSoon);
  fakeNow = 0.6;
  WheelTrace trace;
  wheel->setMasterTimer();
  EXPECT_EQ(trace.count("has expired timers, firstExpiryTime=0.5042 now=0.6, set master timer timeout 0"), 1);
  EXPECT_EQ(wheel->masterTimerExpiryTime(), 0.5042);
}

// ---- assertions ------------------------------------------------------------

TEST_F(TimerWheel, StopOfANotLinkedTimerWithAnExpiryAsserts) {
  auto wheel = newWheel();
  TestEvent event;
  event.setTimeout(wheel, 2.0);
  auto* entry = const_cast<struct timeout*>(&event.timeoutEntry());
  timeouts_del(wheel->timeoutsSet(), entry);
  event.stateIs(TimerWheelState::notLinked);
  EXPECT_THAT(assertionText([&] { event.delTimeout(wheel); }), HasSubstr("Not linked but expirationTime=2"));
}

TEST_F(TimerWheel, StopInTheMapWithoutAListAsserts) {
  auto wheel = newWheel();
  TestEvent event;
  event.setTimeout(wheel, 2.0);
  auto* entry = const_cast<struct timeout*>(&event.timeoutEntry());
  timeouts_del(wheel->timeoutsSet(), entry);
  event.stateIs(TimerWheelState::notLinked);
  event.stateIs(TimerWheelState::inTimersExpiryingSoon);
  EXPECT_THAT(assertionText([&] { event.delTimeout(wheel); }), HasSubstr("No timersAtTimeout"));
  event.stateIs(TimerWheelState::notLinked);
}

TEST_F(TimerWheel, TimersAtTimeoutPushBackOfALinkedEventAsserts) {
  auto wheel = newWheel();
  TestEvent event;
  event.wheel = wheel;
  event.setTimeout(wheel, 2.0);
  Kesto::TimerWheel::TimersAtTimeout list;
  const std::string text = assertionText([&] { list.pushBack(&event); });
  EXPECT_THAT(text, HasSubstr("TimersAtTimeout::pushBack() pending set to 0x"));
  EXPECT_THAT(text, HasSubstr(fmt::format("{}", DisplayPointer(event.timeoutEntry().pending))));
  EXPECT_TRUE(list.empty());
}

TEST_F(TimerWheel, TimersAtTimeoutUnlinkFromAnotherListAsserts) {
  TestEvent event;
  Kesto::TimerWheel::TimersAtTimeout mine, other;
  mine.pushBack(&event);
  EXPECT_EQ(mine.front(), &event);
  const std::string text = assertionText([&] { other.unlink(&event); });
  EXPECT_THAT(text, HasSubstr(fmt::format("Event {} linked to {}", DisplayPointer(&event),
                                          DisplayPointer(mine.head()))));
  mine.unlink(&event);
  EXPECT_TRUE(mine.empty());
  EXPECT_EQ(event.timeoutEntry().pending, nullptr);
}

TEST_F(TimerWheel, TimersAtTimeoutDestroyedNonEmptyAsserts) {
  TestEvent event;
  alignas(Kesto::TimerWheel::TimersAtTimeout) unsigned char storage[sizeof(Kesto::TimerWheel::TimersAtTimeout)];
  auto* list = new (storage) Kesto::TimerWheel::TimersAtTimeout;
  list->pushBack(&event);
  EXPECT_THAT(assertionText([&] { list->~TimersAtTimeout(); }), HasSubstr("Destroyed while non-empty"));
}

} // namespace
} // namespace Kesto::TimerWheelTest
