#include <KestoSupport/PlatformTestSupport.h>

#include <Kesto/Platform/LibeventExtensions.h>

#include <event2/event.h>
#include <event2/event_struct.h>

#include <thread>
#include <vector>

namespace Kesto {
namespace {

// Plain libevent timers on the thread's base, recording the order in which
// they fire.
struct RawTimers {
  struct Slot {
    RawTimers* timers;
    int index;
  };
  explicit RawTimers(int count) : events(size_t(count)), slots(size_t(count)) {
    leInit();
    for (int i = 0; i < count; ++i) {
      slots[size_t(i)] = {this, i};
      event_assign(&events[size_t(i)], ev_base, -1, 0, fired, &slots[size_t(i)]);
    }
  }
  ~RawTimers() {
    for (event& ev : events)
      event_del(&ev);
  }
  static void fired(evutil_socket_t, short, void* arg) {
    auto* slot = static_cast<Slot*>(arg);
    slot->timers->order.push_back(slot->index);
  }
  std::vector<event> events;
  std::vector<Slot> slots;
  std::vector<int> order;
};

timeval pendingExpiry(const event& ev) {
  timeval tv{0, 0};
  EXPECT_TRUE(event_pending(&ev, EV_TIMEOUT, &tv));
  return tv;
}

double seconds(const timeval& tv) { return double(tv.tv_sec) + double(tv.tv_usec) / 1e6; }

TEST(LibeventExtensions, FirstTimeoutIsAbsentOnAnEmptyBase) {
  leInit();
  timeval first{7, 7};
  EXPECT_NE(0, event_base_get_first_timeout(ev_base, &first));
  EXPECT_EQ(7, first.tv_sec);
}

TEST(LibeventExtensions, FirstTimeoutIsTheEarliestExpiry) {
  RawTimers timers(3);
  const timeval in30{30, 0}, in10{10, 0}, in20{20, 0};
  event_add(&timers.events[0], &in30);
  event_add(&timers.events[1], &in10);
  event_add(&timers.events[2], &in20);
  timeval first;
  ASSERT_EQ(0, event_base_get_first_timeout(ev_base, &first));
  const timeval expected = pendingExpiry(timers.events[1]);
  EXPECT_EQ(expected.tv_sec, first.tv_sec);
  EXPECT_EQ(expected.tv_usec, first.tv_usec);
}

TEST(LibeventExtensions, EventsWithoutTimeoutAreIgnored) {
  leInit();
  PlatformTest::SocketPair sockets;
  event readEvent;
  event_assign(&readEvent, ev_base, sockets.ours(), EV_READ | EV_PERSIST, [](evutil_socket_t, short, void*) {},
               nullptr);
  event_add(&readEvent, nullptr);
  timeval first;
  EXPECT_NE(0, event_base_get_first_timeout(ev_base, &first));
  const timeval offset{1, 0};
  event_base_timeout_subtract_offset(ev_base, &offset);
  EXPECT_TRUE(event_pending(&readEvent, EV_READ, nullptr));
  EXPECT_FALSE(event_pending(&readEvent, EV_TIMEOUT, nullptr));
  event_del(&readEvent);
}

TEST(LibeventExtensions, SubtractMovesEveryHeapTimeoutEarlierByTheOffset) {
  RawTimers timers(3);
  const timeval in30{30, 0}, in10{10, 0}, in20{20, 500000};
  event_add(&timers.events[0], &in30);
  event_add(&timers.events[1], &in10);
  event_add(&timers.events[2], &in20);
  std::vector<double> before;
  for (event& ev : timers.events)
    before.push_back(seconds(pendingExpiry(ev)));
  const timeval offset{5, 250000};
  EXPECT_EQ(0, event_base_timeout_subtract_offset(ev_base, &offset));
  for (size_t i = 0; i < timers.events.size(); ++i) {
    const double after = seconds(pendingExpiry(timers.events[i]));
    // Earlier by the offset; re-adding may only add the few microseconds
    // the operation itself took.
    EXPECT_LE(before[i] - 5.25, after + 1e-9) << i;
    EXPECT_GT(before[i] - 5.25 + 0.05, after) << i;
  }
}

TEST(LibeventExtensions, SubtractNeverMovesATimeoutIntoThePastAndKeepsTheOrder) {
  RawTimers timers(4);
  const timeval delays[4] = {{2, 0}, {1, 0}, {4, 0}, {3, 0}};
  for (int i = 0; i < 4; ++i)
    event_add(&timers.events[i], &delays[i]);
  const timeval offset{10, 0};
  event_base_timeout_subtract_offset(ev_base, &offset);
  // All due now: they fire in one pass, in their old order.
  event_base_loop(ev_base, EVLOOP_NONBLOCK);
  EXPECT_EQ((std::vector<int>{1, 0, 3, 2}), timers.order);
}

TEST(LibeventExtensions, SubtractCoversCommonTimeoutQueues) {
  // On a base of its own: the queue's internal timer outlives the test.
  std::thread([] {
    {
      RawTimers timers(2);
      const timeval tenSeconds{10, 0};
      const timeval* common = event_base_init_common_timeout(ev_base, &tenSeconds);
      ASSERT_NE(nullptr, common);
      event_add(&timers.events[0], common);
      const timeval in20{20, 0};
      event_add(&timers.events[1], &in20);
      const double commonBefore = seconds(pendingExpiry(timers.events[0]));
      timeval first;
      ASSERT_EQ(0, event_base_get_first_timeout(ev_base, &first));
      EXPECT_DOUBLE_EQ(commonBefore, seconds(first));
      const timeval offset{4, 0};
      event_base_timeout_subtract_offset(ev_base, &offset);
      const double commonAfter = seconds(pendingExpiry(timers.events[0]));
      EXPECT_LE(commonBefore - 4.0, commonAfter + 1e-9);
      EXPECT_GT(commonBefore - 4.0 + 0.05, commonAfter);
      ASSERT_EQ(0, event_base_get_first_timeout(ev_base, &first));
      EXPECT_DOUBLE_EQ(commonAfter, seconds(first));
    }
    leFree();
  }).join();
}

TEST(LibeventExtensions, LibeventsOwnTimersAreNotTimeoutsOfTheBase) {
  std::thread([] {
    {
      RawTimers timers(1);
      const timeval tenSeconds{10, 0};
      const timeval* common = event_base_init_common_timeout(ev_base, &tenSeconds);
      event_add(&timers.events[0], common);
      event_del(&timers.events[0]);
      // The queue is empty; only its internal timer is left in the heap.
      timeval first;
      EXPECT_NE(0, event_base_get_first_timeout(ev_base, &first));
    }
    leFree();
  }).join();
}

} // namespace
} // namespace Kesto
