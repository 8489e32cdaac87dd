// The wheel on the real library clock, driven by the event loop in fast
// forward: no sleeping, and Kesto::time() is what the timers are judged by.
#include "TimerWheelTestSupport.h"

#include <Kesto/Platform/Platform.h>
#include <Kesto/Platform/Time.h>

#include <random>

namespace Kesto::TimerWheelTest {
namespace {

// Records the clock when it fires and the exact expiry it was set for.
class ClockedEvent : public Kesto::TimerWheelEvent {
public:
  void timeout() override { firedAt = Kesto::time(); }
  double expected = 0.0;
  double firedAt = -1.0;
};

TEST(TimerWheelFastForward, NoTimerFiresBeforeItsExactTimeAndEarlyMasterTimersAreDeferred) {
  PlatformTest::FastForwardOn fastForward;
  auto wheel = getTimerWheelForTaskScheduler(Platform::eventPriorityStrictHigh);
  std::mt19937 rng(7);
  std::uniform_real_distribution<double> delay(0.001, 3.0);
  std::vector<ClockedEvent> events(200);
  for (ClockedEvent& e : events) {
    e.setTimeout(wheel, delay(rng));
    e.expected = e.expirationTime();
  }
  int deferrals = 0;
  int passes = 0;
  auto allFired = [&] {
    for (const ClockedEvent& e : events)
      if (e.firedAt < 0)
        return false;
    return true;
  };
  while (!allFired()) {
    ASSERT_LT(++passes, 5000);
    WheelTrace trace;
    Platform::doEventLoopInWaitfor(10.0);
    deferrals += trace.count("Defer processing timers with expiry time");
  }
  for (const ClockedEvent& e : events) {
    EXPECT_GE(e.firedAt, e.expected);
    EXPECT_EQ(e.state(), TimerWheelState::notLinked);
  }
  // The master timer is armed to tick boundaries, which lie before the exact
  // times: the deferral is what keeps those firings from being early.
  EXPECT_GT(deferrals, 0);
  EXPECT_EQ(wheel->masterTimerExpiryTime(), std::numeric_limits<double>::infinity());
}

TEST(TimerWheelFastForward, TimersFireInTheOrderOfTheirExactTimes) {
  PlatformTest::FastForwardOn fastForward;
  auto wheel = getTimerWheelForTaskScheduler(Platform::eventPriorityStrictHigh);
  std::vector<ClockedEvent*> order;
  struct OrderedEvent : ClockedEvent {
    std::vector<ClockedEvent*>* order = nullptr;
    void timeout() override {
      ClockedEvent::timeout();
      order->push_back(this);
    }
  };
  std::vector<OrderedEvent> events(100);
  std::mt19937 rng(11);
  std::uniform_real_distribution<double> delay(0.0, 0.5);
  for (OrderedEvent& e : events) {
    e.order = &order;
    e.setTimeout(wheel, delay(rng));
    e.expected = e.expirationTime();
  }
  for (int passes = 0; order.size() < events.size(); ++passes) {
    ASSERT_LT(passes, 5000);
    Platform::doEventLoopInWaitfor(10.0);
  }
  for (size_t i = 1; i < order.size(); ++i)
    EXPECT_LE(order[i - 1]->expected, order[i]->expected) << "firing " << i;
  for (const ClockedEvent* e : order)
    EXPECT_GE(e->firedAt, e->expected);
}

} // namespace
} // namespace Kesto::TimerWheelTest
