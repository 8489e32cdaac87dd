// The order in which timersExpiryingSoon fires: exact time first, the
// wheel's delivery order among equal times, never before the time, and
// whatever mix of drains, buckets, stops and restarts led there. Runs on the
// manual clock, so every present is placed exactly.
#include "TimerWheelTestSupport.h"

#include <algorithm>
#include <cmath>
#include <memory>
#include <random>
#include <vector>

namespace Kesto::TimerWheelTest {
namespace {

class TimerWheelExactOrder : public ManualClock {};

int masterTimerPass(const std::shared_ptr<TimerWheel>& wheel) {
  const int fired = processExpiredTimersForTaskScheduler(wheel);
  wheel->setMasterTimer();
  return fired;
}

TEST_F(TimerWheelExactOrder, BucketsAreBinaryMultiplesBelowTheirTimes) {
  for (double t : {0.0, 1.0042, 1.0045, 123456.789, -2.5, 1e-9}) {
    const double bucket = TimerWheel::bucketOf(t);
    EXPECT_LE(bucket, t);
    EXPECT_GT(bucket + 1.0 / 65536.0, t);
    EXPECT_EQ(bucket * 65536.0, std::floor(bucket * 65536.0));
  }
  EXPECT_EQ(TimerWheel::bucketOf(std::numeric_limits<double>::infinity()), std::numeric_limits<double>::infinity());
}

TEST_F(TimerWheelExactOrder, TimesWithinOneBucketFireInTimeOrderAndTiesInDeliveryOrder) {
  auto wheel = newWheel();
  std::vector<TestEvent*> order;
  TestEvent late(&order), tieFirst(&order), early(&order), tieSecond(&order);
  // 1 us apart, all in one bucket of 15 us, started out of time order.
  late.setTimeout(wheel, 0.500003);
  tieFirst.setTimeout(wheel, 0.500002);
  early.setTimeout(wheel, 0.500001);
  tieSecond.setTimeout(wheel, 0.500002);
  for (TestEvent* e : {&late, &tieFirst, &early, &tieSecond})
    e->wheel = wheel;
  fakeNow = 0.4999;
  EXPECT_EQ(masterTimerPass(wheel), 0);
  ASSERT_EQ(wheel->timersExpiryingSoon().size(), 1u);
  EXPECT_EQ(wheel->masterTimerExpiryTime(), 0.500001);
  fakeNow = 0.5000025;
  EXPECT_EQ(masterTimerPass(wheel), 3);
  EXPECT_EQ(order, (std::vector<TestEvent*>{&early, &tieFirst, &tieSecond}));
  EXPECT_EQ(wheel->masterTimerExpiryTime(), 0.500003);
  fakeNow = 0.500003;
  EXPECT_EQ(masterTimerPass(wheel), 1);
  EXPECT_EQ(order.back(), &late);
}

TEST_F(TimerWheelExactOrder, ALaterDrainIntoAWaitingBucketIsMergedInTimeOrder) {
  // The first event waits in its bucket; a second drain brings an earlier
  // one into the same bucket, behind it in the list: the bucket is sorted
  // again before anything fires or the master timer is armed.
  auto wheel = newWheel();
  std::vector<TestEvent*> order;
  TestEvent waiting(&order), earlier(&order), tie(&order);
  waiting.wheel = earlier.wheel = tie.wheel = wheel;
  waiting.setTimeout(wheel, 1.000010);
  fakeNow = 1.000001;
  EXPECT_EQ(masterTimerPass(wheel), 0);
  EXPECT_EQ(waiting.state(), TimerWheelState::inTimersExpiryingSoon);
  earlier.setTimeout(wheel, 0.000004); // 1.000005, due tick already passed
  tie.setTimeout(wheel, waiting.expirationTime() - fakeNow); // equal to the waiting one
  EXPECT_EQ(earlier.state(), TimerWheelState::inTimerWheel);
  EXPECT_EQ(masterTimerPass(wheel), 0);
  ASSERT_EQ(wheel->timersExpiryingSoon().size(), 1u);
  EXPECT_EQ(wheel->timersExpiryingSoon().begin()->second.front(), &earlier);
  EXPECT_EQ(wheel->masterTimerExpiryTime(), earlier.expirationTime());
  EXPECT_LT(earlier.expirationTime(), waiting.expirationTime());
  ASSERT_EQ(tie.expirationTime(), waiting.expirationTime());
  fakeNow = waiting.expirationTime();
  EXPECT_EQ(masterTimerPass(wheel), 3);
  // Equal times: the one delivered first (the waiting one) fires first.
  EXPECT_EQ(order, (std::vector<TestEvent*>{&earlier, &waiting, &tie}));
}

TEST_F(TimerWheelExactOrder, AStopInASortedBucketKeepsTheRestInOrder) {
  auto wheel = newWheel();
  std::vector<TestEvent*> order;
  std::vector<std::unique_ptr<TestEvent>> events;
  for (int i = 0; i < 6; ++i) {
    events.push_back(std::make_unique<TestEvent>(&order));
    events.back()->wheel = wheel;
    events.back()->setTimeout(wheel, 0.25 + (5 - i) * 1e-6); // reverse order
  }
  fakeNow = 0.2499;
  EXPECT_EQ(masterTimerPass(wheel), 0);
  events[2]->delTimeout(wheel);
  events[5]->delTimeout(wheel); // the earliest: the master timer stays early
  fakeNow = 0.26;
  EXPECT_EQ(masterTimerPass(wheel), 4);
  EXPECT_EQ(order, (std::vector<TestEvent*>{events[4].get(), events[3].get(), events[1].get(), events[0].get()}));
}

TEST_F(TimerWheelExactOrder, ALargeDrainInRandomOrderFiresInExactOrderWithTiesInStartOrder) {
  // 20,000 timers within 30 ms, a third of them sharing a time with another,
  // started in random order: the drain is sorted by its radix passes, and
  // each pass fires exactly those due, in order.
  auto wheel = newWheel();
  std::mt19937_64 rng(7);
  std::uniform_real_distribution<double> delay(0.0, 0.03);
  constexpr int count = 20000;
  std::vector<std::unique_ptr<TestEvent>> events;
  std::vector<TestEvent*> order;
  std::vector<double> delays;
  for (int i = 0; i < count; ++i)
    delays.push_back(i % 3 == 2 ? delays[rng() % delays.size()] : 0.001 + delay(rng));
  for (int i = 0; i < count; ++i) {
    events.push_back(std::make_unique<TestEvent>(&order));
    events.back()->wheel = wheel;
    events.back()->setTimeout(wheel, delays[i]);
  }
  std::vector<int> expected(count);
  for (int i = 0; i < count; ++i)
    expected[i] = i;
  std::stable_sort(expected.begin(), expected.end(), [&](int a, int b) { return delays[a] < delays[b]; });
  std::vector<double> expiry(count);
  for (int i = 0; i < count; ++i)
    expiry[i] = events[i]->expirationTime();
  for (int step = 1; step <= 400; ++step) {
    fakeNow = step * 0.0001;
    const size_t before = order.size();
    masterTimerPass(wheel);
    for (size_t k = before; k < order.size(); ++k)
      ASSERT_LE(expiry[size_t(std::find_if(events.begin(), events.end(),
                                           [&](auto& e) { return e.get() == order[k]; }) -
                              events.begin())],
                fakeNow);
  }
  ASSERT_EQ(order.size(), size_t(count));
  for (int k = 0; k < count; ++k)
    ASSERT_EQ(order[k], events[expected[k]].get()) << "position " << k;
}

// A model of a wheel: random starts, restarts and stops (from outside and
// from handlers), delays from negative to two ticks and beyond, presents
// advancing by random steps. Every firing must be the earliest of what the
// model holds as due, and none before its time; every timer the model holds
// fires exactly once. Ties are not checked here: a timer moved to a later
// tick is delivered when the wheel reports it again, so among equal exact
// times the delivery order need not be the order of the starts.
TEST_F(TimerWheelExactOrder, RandomStartsStopsAndRestartsFireLikeAnOrderedModel) {
  auto wheel = newWheel();
  std::mt19937_64 rng(11);
  constexpr int count = 3000;
  struct ModelEvent : TestEvent {
    long long seq = -1; // start order of the running timer, -1 when not running
    double expiry = 0.0;
  };
  std::vector<std::unique_ptr<ModelEvent>> events;
  long long nextSeq = 0;
  long long passSeq = 0; // timers started from here on wait for a later pass
  std::vector<ModelEvent*> fired;
  auto start = [&](ModelEvent* e, double delay) {
    const double expiry = delay + fakeNow;
    if (e->seq >= 0 && expiry == e->expiry)
      return; // the same moment: no change, keeps its place
    e->setTimeout(wheel, delay);
    e->seq = nextSeq++;
    e->expiry = expiry;
  };
  auto randomDelay = [&] {
    switch (rng() % 4) {
    case 0:
      return -0.001 * double(rng() % 3);
    case 1:
      return double(rng() % 200) * 1e-6; // within one bucket or a few
    default:
      return double(rng() % 40000) * 1e-6; // up to four ticks
    }
  };
  for (int i = 0; i < count; ++i) {
    events.push_back(std::make_unique<ModelEvent>());
    ModelEvent* e = events.back().get();
    e->wheel = wheel;
    e->onTimeout = [&, e] {
      // The model's earliest due timer must be this one.
      ModelEvent* best = nullptr;
      for (auto& other : events)
        if (other->seq >= 0 && other->seq < passSeq && other.get() != e &&
            other->expiry < e->expiry &&
            other->expiry <= fakeNow)
          best = other.get();
      EXPECT_EQ(best, nullptr) << "fired " << e->expiry << " before " << (best ? best->expiry : 0.0);
      EXPECT_LE(e->expiry, fakeNow);
      e->seq = -1;
      fired.push_back(e);
      if (rng() % 8 == 0)
        start(e, randomDelay()); // restarts itself
      if (rng() % 8 == 0) {
        ModelEvent* victim = events[rng() % count].get();
        victim->delTimeout(wheel);
        victim->seq = -1;
      }
    };
  }
  for (int round = 0; round < 200; ++round) {
    for (int k = 0; k < 60; ++k) {
      ModelEvent* e = events[rng() % count].get();
      if (rng() % 5 == 0) {
        e->delTimeout(wheel);
        e->seq = -1;
      } else {
        start(e, randomDelay());
      }
    }
    fakeNow += double(rng() % 3000) * 1e-6;
    passSeq = nextSeq;
    masterTimerPass(wheel);
    // Nothing due is left behind after a pass, except what a handler started.
    if (::testing::Test::HasFailure())
      return;
  }
  // Run out: every running timer fires exactly once, the map empties.
  for (int k = 0; k < 100; ++k) {
    fakeNow += 0.01;
    passSeq = nextSeq;
    masterTimerPass(wheel);
  }
  for (auto& e : events) {
    EXPECT_EQ(e->seq, -1);
    EXPECT_EQ(e->state(), TimerWheelState::notLinked);
  }
  EXPECT_TRUE(wheel->timersExpiryingSoon().empty());
  EXPECT_GT(fired.size(), size_t(count) / 2);
}

TEST_F(TimerWheelExactOrder, AMoveToALaterTickKeepsTheWheelLinkAndFiresAtTheNewTimeOnly) {
  auto wheel = newWheel();
  TestEvent moved, neighbour;
  moved.wheel = neighbour.wheel = wheel;
  moved.setTimeout(wheel, 0.5);
  neighbour.setTimeout(wheel, 0.5);
  const struct timeout* entry = &moved.timeoutEntry();
  const auto* next = entry->tqe.tqe_next;
  {
    WheelTrace trace;
    moved.setTimeout(wheel, 2.0);
    // The same trace lines as a stop and a start.
    EXPECT_EQ(trace.count("del timeout"), 1);
    EXPECT_EQ(trace.count("set timeout 2 expire at 2 tick 200"), 1);
  }
  EXPECT_EQ(moved.state(), TimerWheelState::inTimerWheel);
  EXPECT_EQ(moved.expirationTime(), 2.0);
  EXPECT_EQ(moved.remainingTimeout(), 2.0);
  // Still linked at its old tick, between the same neighbours.
  EXPECT_EQ(entry->expires, 50u);
  EXPECT_EQ(entry->tqe.tqe_next, next);
  fakeNow = 0.5;
  EXPECT_EQ(masterTimerPass(wheel), 1);
  EXPECT_EQ(neighbour.fired, 1);
  EXPECT_EQ(moved.fired, 0);
  // Back in the wheel at its own tick, and the master timer armed for it.
  EXPECT_EQ(moved.state(), TimerWheelState::inTimerWheel);
  EXPECT_EQ(entry->expires, 200u);
  EXPECT_LE(wheel->masterTimerExpiryTime(), 2.0);
  EXPECT_GT(wheel->masterTimerExpiryTime(), 0.5);
  fakeNow = 1.9999;
  EXPECT_EQ(masterTimerPass(wheel), 0);
  EXPECT_EQ(moved.fired, 0);
  fakeNow = 2.0;
  EXPECT_EQ(masterTimerPass(wheel), 1);
  EXPECT_EQ(moved.fired, 1);
  EXPECT_EQ(moved.state(), TimerWheelState::notLinked);
}

TEST_F(TimerWheelExactOrder, AMovedTimerStoppedOrMovedEarlierLeavesNothingBehind) {
  auto wheel = newWheel();
  TestEvent stopped, earlier;
  stopped.wheel = earlier.wheel = wheel;
  stopped.setTimeout(wheel, 0.5);
  stopped.setTimeout(wheel, 3.0); // stays at tick 50
  stopped.delTimeout(wheel);
  EXPECT_EQ(stopped.state(), TimerWheelState::notLinked);
  EXPECT_EQ(stopped.timeoutEntry().pending, nullptr);
  earlier.setTimeout(wheel, 0.5);
  earlier.setTimeout(wheel, 3.0); // stays at tick 50
  earlier.setTimeout(wheel, 0.2); // before tick 50: relinked at tick 20
  EXPECT_EQ(earlier.timeoutEntry().expires, 20u);
  fakeNow = 10.0;
  EXPECT_EQ(masterTimerPass(wheel), 1);
  EXPECT_EQ(stopped.fired, 0);
  EXPECT_EQ(earlier.fired, 1);
  EXPECT_TRUE(wheel->timersExpiryingSoon().empty());
  EXPECT_FALSE(timeouts_pending(wheel->timeoutsSet()));
  EXPECT_FALSE(timeouts_expired(wheel->timeoutsSet()));
}

TEST_F(TimerWheelExactOrder, AMoveIntoTheTickOfTheReportIsDeferredNotRelinked) {
  // Moved from tick 50 to 0.5049, still tick 50: reported at 0.5001 with
  // the present in tick 51, it waits in timersExpiryingSoon for its time.
  auto wheel = newWheel();
  TestEvent event;
  event.wheel = wheel;
  event.setTimeout(wheel, 0.5);
  event.setTimeout(wheel, 0.5049);
  fakeNow = 0.5001;
  EXPECT_EQ(masterTimerPass(wheel), 0);
  EXPECT_EQ(event.state(), TimerWheelState::inTimersExpiryingSoon);
  EXPECT_EQ(wheel->masterTimerExpiryTime(), 0.5049);
  fakeNow = 0.5049;
  EXPECT_EQ(masterTimerPass(wheel), 1);
}

} // namespace
} // namespace Kesto::TimerWheelTest
