// Behaviour of each operation of the timing wheel, one at a time.
#include <Timeouts/timeouts.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

namespace {

struct SetCloser {
  void operator()(timeouts* T) const { timeouts_close(T); }
};
using Set = std::unique_ptr<timeouts, SetCloser>;

Set openSet(timeout_t hz = 100) {
  int error = -1;
  Set T(timeouts_open(hz, &error));
  EXPECT_NE(T, nullptr);
  EXPECT_EQ(error, 0);
  return T;
}

std::vector<timeout*> drain(timeouts* T) {
  std::vector<timeout*> out;
  while (timeout* to = timeouts_get(T))
    out.push_back(to);
  return out;
}

timeout absTimeout() {
  timeout to;
  timeout_init(&to, TIMEOUT_ABS);
  return to;
}

} // namespace

TEST(Timeouts, InitClearsEverythingAndStoresFlagsUnchanged) {
  timeout to;
  std::memset(&to, 0xa5, sizeof to);
  EXPECT_EQ(timeout_init(&to, 6), &to);
  EXPECT_EQ(to.flags, 6);
  EXPECT_EQ(to.expires, 0u);
  EXPECT_EQ(to.pending, nullptr);
  EXPECT_EQ(to.tqe.tqe_next, nullptr);
  EXPECT_EQ(to.tqe.tqe_prev, nullptr);
  timeout_init(&to, 0x7fffffff);
  EXPECT_EQ(to.flags, 0x7fffffff);
}

TEST(Timeouts, TimeoutHasOnlyFlagsExpiresPendingAndLink) {
  static_assert(sizeof(timeout) == 4 * sizeof(void*) + sizeof(timeout_t));
  static_assert(offsetof(timeout, flags) == 0);
  static_assert(offsetof(timeout, expires) < offsetof(timeout, pending));
  static_assert(offsetof(timeout, pending) < offsetof(timeout, tqe));
  SUCCEED();
}

TEST(Timeouts, OpenRejectsZeroRate) {
  int error = 0;
  EXPECT_EQ(timeouts_open(0, &error), nullptr);
  EXPECT_EQ(error, EINVAL);
}

TEST(Timeouts, OpenStartsEmptyAtTickZero) {
  Set T = openSet(100);
  EXPECT_EQ(timeouts_hz(T.get()), 100u);
  EXPECT_EQ(timeouts_now(T.get()), 0u);
  EXPECT_FALSE(timeouts_expired(T.get()));
  EXPECT_FALSE(timeouts_pending(T.get()));
  EXPECT_EQ(timeouts_timeout(T.get()), TIMEOUTS_NONE);
  EXPECT_EQ(timeouts_get(T.get()), nullptr);
  EXPECT_TRUE(timeouts_check(T.get()));
}

TEST(Timeouts, OpenAcceptsNullErrorPointer) {
  Set T(timeouts_open(1000, nullptr));
  ASSERT_NE(T, nullptr);
  EXPECT_EQ(timeouts_open(0, nullptr), nullptr);
}

TEST(Timeouts, AbsoluteTimeoutExpiresAtItsTickAndNotBefore) {
  Set T = openSet();
  timeouts_update(T.get(), 1000);
  timeout to = absTimeout();
  timeouts_add(T.get(), &to, 1100);
  EXPECT_EQ(to.expires, 1100u);
  EXPECT_NE(to.pending, nullptr);
  EXPECT_TRUE(timeouts_pending(T.get()));
  timeouts_update(T.get(), 1099);
  EXPECT_EQ(timeouts_get(T.get()), nullptr);
  EXPECT_FALSE(timeouts_expired(T.get()));
  timeouts_update(T.get(), 1100);
  EXPECT_TRUE(timeouts_expired(T.get()));
  EXPECT_FALSE(timeouts_pending(T.get()));
  EXPECT_EQ(timeouts_get(T.get()), &to);
  EXPECT_EQ(to.pending, nullptr);
  EXPECT_EQ(timeouts_get(T.get()), nullptr);
}

TEST(Timeouts, RelativeTimeoutCountsFromCurrentTick) {
  Set T = openSet();
  timeouts_update(T.get(), 500);
  timeout to;
  timeout_init(&to, TIMEOUT_REL);
  timeouts_add(T.get(), &to, 30);
  EXPECT_EQ(to.expires, 530u);
  timeouts_update(T.get(), 529);
  EXPECT_FALSE(timeouts_expired(T.get()));
  timeouts_update(T.get(), 530);
  EXPECT_EQ(timeouts_get(T.get()), &to);
}

TEST(Timeouts, RelativeTimeoutSaturatesAtLastTick) {
  Set T = openSet();
  timeouts_update(T.get(), 10);
  timeout to;
  timeout_init(&to, TIMEOUT_REL);
  timeouts_add(T.get(), &to, TIMEOUTS_NONE - 5);
  EXPECT_EQ(to.expires, TIMEOUTS_NONE);
  timeouts_update(T.get(), TIMEOUTS_NONE - 1);
  EXPECT_FALSE(timeouts_expired(T.get()));
  timeouts_update(T.get(), TIMEOUTS_NONE);
  EXPECT_EQ(timeouts_get(T.get()), &to);
}

TEST(Timeouts, TickAtOrBeforeCurrentGoesStraightToExpiredTail) {
  Set T = openSet();
  timeouts_update(T.get(), 200);
  timeout a = absTimeout(), b = absTimeout(), c = absTimeout();
  timeouts_add(T.get(), &a, 200);
  timeouts_add(T.get(), &b, 3);
  timeouts_add(T.get(), &c, 0);
  EXPECT_TRUE(timeouts_expired(T.get()));
  EXPECT_FALSE(timeouts_pending(T.get()));
  EXPECT_EQ(timeouts_timeout(T.get()), 0u);
  EXPECT_EQ(drain(T.get()), (std::vector<timeout*>{&a, &b, &c}));
}

TEST(Timeouts, UserBitsOfFlagsAreNeverTouched) {
  Set T = openSet();
  for (int userBits : {4, 8, 16, 4 | 8 | 16}) {
    timeout to;
    timeout_init(&to, TIMEOUT_ABS | userBits);
    timeouts_add(T.get(), &to, timeouts_now(T.get()) + 5000);
    EXPECT_EQ(to.flags, TIMEOUT_ABS | userBits);
    timeouts_update(T.get(), timeouts_now(T.get()) + 4999);
    EXPECT_EQ(to.flags, TIMEOUT_ABS | userBits);
    timeouts_update(T.get(), timeouts_now(T.get()) + 1);
    EXPECT_EQ(to.flags, TIMEOUT_ABS | userBits);
    EXPECT_EQ(timeouts_get(T.get()), &to);
    EXPECT_EQ(to.flags, TIMEOUT_ABS | userBits);
    timeouts_add(T.get(), &to, timeouts_now(T.get()) + 1);
    timeouts_del(T.get(), &to);
    EXPECT_EQ(to.flags, TIMEOUT_ABS | userBits);
  }
}

TEST(Timeouts, AddingAPendingTimeoutMovesIt) {
  Set T = openSet();
  timeout a = absTimeout(), b = absTimeout();
  timeouts_add(T.get(), &a, 100);
  timeouts_add(T.get(), &b, 100);
  timeouts_add(T.get(), &a, 100); // re-added: now after b
  timeouts_update(T.get(), 100);
  EXPECT_EQ(drain(T.get()), (std::vector<timeout*>{&b, &a}));
  timeouts_add(T.get(), &a, 300);
  timeouts_add(T.get(), &a, 150);
  timeouts_update(T.get(), 150);
  EXPECT_EQ(drain(T.get()), (std::vector<timeout*>{&a}));
  timeouts_update(T.get(), 300);
  EXPECT_FALSE(timeouts_expired(T.get()));
  EXPECT_FALSE(timeouts_pending(T.get()));
}

TEST(Timeouts, AddingAnExpiredTimeoutTakesItOffTheExpiredList) {
  Set T = openSet();
  timeout a = absTimeout(), b = absTimeout();
  timeouts_add(T.get(), &a, 10);
  timeouts_add(T.get(), &b, 10);
  timeouts_update(T.get(), 10);
  timeouts_add(T.get(), &a, 20);
  EXPECT_TRUE(timeouts_pending(T.get()));
  EXPECT_EQ(drain(T.get()), (std::vector<timeout*>{&b}));
  timeouts_update(T.get(), 20);
  EXPECT_EQ(drain(T.get()), (std::vector<timeout*>{&a}));
  EXPECT_TRUE(timeouts_check(T.get()));
}

TEST(Timeouts, DeleteFromWheel) {
  Set T = openSet();
  timeout a = absTimeout();
  timeouts_add(T.get(), &a, 1u << 20);
  EXPECT_TRUE(timeouts_pending(T.get()));
  timeouts_del(T.get(), &a);
  EXPECT_EQ(a.pending, nullptr);
  EXPECT_FALSE(timeouts_pending(T.get()));
  EXPECT_EQ(timeouts_timeout(T.get()), TIMEOUTS_NONE);
  timeouts_update(T.get(), 1u << 21);
  EXPECT_EQ(timeouts_get(T.get()), nullptr);
  EXPECT_TRUE(timeouts_check(T.get()));
}

TEST(Timeouts, DeleteFromExpiredListBeforeItIsFetched) {
  Set T = openSet();
  timeout a = absTimeout(), b = absTimeout(), c = absTimeout();
  for (timeout* to : {&a, &b, &c})
    timeouts_add(T.get(), to, 7);
  timeouts_update(T.get(), 7);
  timeouts_del(T.get(), &b);
  EXPECT_EQ(b.pending, nullptr);
  timeouts_del(T.get(), &c); // the last element: the tail of the list moves back
  EXPECT_TRUE(timeouts_check(T.get()));
  timeout d = absTimeout();
  timeouts_add(T.get(), &d, 1);
  EXPECT_EQ(drain(T.get()), (std::vector<timeout*>{&a, &d}));
}

TEST(Timeouts, DeleteOfATimeoutThatIsNotPendingDoesNothing) {
  Set T = openSet();
  timeout a = absTimeout(), b = absTimeout();
  timeouts_add(T.get(), &b, 50);
  timeouts_del(T.get(), &a);
  timeouts_del(T.get(), &a);
  EXPECT_EQ(a.pending, nullptr);
  EXPECT_TRUE(timeouts_pending(T.get()));
  timeouts_del(T.get(), &b);
  timeouts_del(T.get(), &b);
  EXPECT_FALSE(timeouts_pending(T.get()));
  EXPECT_TRUE(timeouts_check(T.get()));
}

TEST(Timeouts, DeleteKeepsOtherTimeoutsOfTheSameSlot) {
  Set T = openSet();
  timeout a = absTimeout(), b = absTimeout(), c = absTimeout();
  for (timeout* to : {&a, &b, &c})
    timeouts_add(T.get(), to, 40);
  timeouts_del(T.get(), &b);
  EXPECT_TRUE(timeouts_pending(T.get()));
  EXPECT_EQ(timeouts_timeout(T.get()), 40u);
  timeouts_update(T.get(), 40);
  EXPECT_EQ(drain(T.get()), (std::vector<timeout*>{&a, &c}));
}

TEST(Timeouts, PendingPointsAtTheListHeadItIsOn) {
  Set T = openSet();
  timeout a = absTimeout(), b = absTimeout();
  timeouts_add(T.get(), &a, 5);
  timeouts_add(T.get(), &b, 5);
  ASSERT_NE(a.pending, nullptr);
  EXPECT_EQ(a.pending, b.pending); // same slot
  EXPECT_EQ(a.pending->tqh_first, &a);
  EXPECT_EQ(a.tqe.tqe_next, &b);
  EXPECT_EQ(b.tqe.tqe_prev, &a.tqe.tqe_next);
  EXPECT_EQ(a.pending->tqh_last, &b.tqe.tqe_next);
  // Expired with their whole slot: moved as one list, still linked in order
  // and not null, though `pending` may still name the slot.
  timeouts_update(T.get(), 5);
  ASSERT_NE(a.pending, nullptr);
  ASSERT_NE(b.pending, nullptr);
  EXPECT_EQ(a.tqe.tqe_next, &b);
  EXPECT_EQ(b.tqe.tqe_prev, &a.tqe.tqe_next);
  EXPECT_TRUE(timeouts_check(T.get()));
  EXPECT_EQ(drain(T.get()), (std::vector<timeout*>{&a, &b}));
}

TEST(Timeouts, TimeoutsExpiredWithTheirSlotCanBeDeletedAfterTheSlotIsReused) {
  Set T = openSet();
  timeout a = absTimeout(), b = absTimeout(), c = absTimeout(), early = absTimeout(), later = absTimeout();
  timeouts_add(T.get(), &early, 0); // at the clock: straight to the expired list
  timeouts_add(T.get(), &a, 5);
  timeouts_add(T.get(), &b, 5);
  timeouts_add(T.get(), &c, 5);
  timeouts_update(T.get(), 5);
  // Tick 69 takes the level-0 slot that a, b and c came from.
  timeouts_add(T.get(), &later, 69);
  EXPECT_EQ(later.pending->tqh_first, &later);
  // The last of the expired list, then one from its middle.
  timeouts_del(T.get(), &c);
  EXPECT_EQ(c.pending, nullptr);
  timeouts_del(T.get(), &a);
  EXPECT_EQ(a.pending, nullptr);
  EXPECT_TRUE(timeouts_check(T.get()));
  // The reused slot is untouched, and the expired list still ends right.
  EXPECT_EQ(later.pending->tqh_first, &later);
  EXPECT_EQ(later.pending->tqh_last, &later.tqe.tqe_next);
  timeouts_add(T.get(), &c, 2);
  EXPECT_EQ(drain(T.get()), (std::vector<timeout*>{&early, &b, &c}));
  EXPECT_TRUE(timeouts_pending(T.get()));
  timeouts_update(T.get(), 69);
  EXPECT_EQ(drain(T.get()), (std::vector<timeout*>{&later}));
  EXPECT_TRUE(timeouts_check(T.get()));
}

TEST(Timeouts, ExpiredAndPendingTellTheTwoPartsApart) {
  Set T = openSet();
  timeout a = absTimeout(), b = absTimeout();
  timeouts_add(T.get(), &a, 10);
  timeouts_add(T.get(), &b, 20);
  EXPECT_TRUE(timeouts_pending(T.get()));
  EXPECT_FALSE(timeouts_expired(T.get()));
  timeouts_update(T.get(), 10);
  EXPECT_TRUE(timeouts_pending(T.get()));
  EXPECT_TRUE(timeouts_expired(T.get()));
  timeouts_update(T.get(), 20);
  EXPECT_FALSE(timeouts_pending(T.get()));
  EXPECT_TRUE(timeouts_expired(T.get()));
  drain(T.get());
  EXPECT_FALSE(timeouts_expired(T.get()));
}

TEST(Timeouts, TimeoutIsExactOnTheFirstLevel) {
  Set T = openSet();
  timeouts_update(T.get(), 64 * 3);
  timeout a = absTimeout();
  for (timeout_t d = 1; d < 64; ++d) {
    timeouts_add(T.get(), &a, timeouts_now(T.get()) + d);
    EXPECT_EQ(timeouts_timeout(T.get()), d);
  }
}

TEST(Timeouts, TimeoutNeverOverestimatesAndReachesTheTimer) {
  // Following timeouts_timeout() from update to update reaches every timer
  // without ever passing its tick.
  for (unsigned bit = 0; bit < 64; ++bit) {
    Set T = openSet();
    timeouts_update(T.get(), 12345);
    timeout a = absTimeout();
    timeout_t tick = 12345 + (timeout_t(1) << bit) + (bit * 977);
    timeouts_add(T.get(), &a, tick);
    int steps = 0;
    while (!timeouts_expired(T.get())) {
      timeout_t wait = timeouts_timeout(T.get());
      ASSERT_GT(wait, 0u);
      ASSERT_LE(timeouts_now(T.get()) + wait, tick);
      timeouts_update(T.get(), timeouts_now(T.get()) + wait);
      ASSERT_LE(++steps, 12);
    }
    EXPECT_EQ(timeouts_now(T.get()), tick);
    EXPECT_EQ(timeouts_get(T.get()), &a);
  }
}

TEST(Timeouts, TimeoutIsZeroWhileSomethingIsExpired) {
  Set T = openSet();
  timeout a = absTimeout(), b = absTimeout();
  timeouts_add(T.get(), &a, 1);
  timeouts_add(T.get(), &b, 1000);
  timeouts_update(T.get(), 1);
  EXPECT_EQ(timeouts_timeout(T.get()), 0u);
  timeouts_get(T.get());
  EXPECT_GT(timeouts_timeout(T.get()), 0u);
  EXPECT_LE(timeouts_timeout(T.get()), 999u);
}

TEST(Timeouts, UpdateNeverGoesBack) {
  Set T = openSet();
  timeouts_update(T.get(), 1000);
  timeouts_update(T.get(), 10);
  EXPECT_EQ(timeouts_now(T.get()), 1000u);
  timeout a = absTimeout();
  timeouts_add(T.get(), &a, 500);
  EXPECT_TRUE(timeouts_expired(T.get()));
}

TEST(Timeouts, EveryLevelHoldsItsTimeoutsUntilTheirTick) {
  Set T = openSet();
  std::vector<timeout> ts(64);
  for (unsigned bit = 0; bit < 64; ++bit) {
    timeout_init(&ts[bit], TIMEOUT_ABS);
    timeouts_add(T.get(), &ts[bit], timeout_t(1) << bit);
  }
  EXPECT_TRUE(timeouts_check(T.get()));
  for (unsigned bit = 0; bit < 64; ++bit) {
    timeout_t tick = timeout_t(1) << bit;
    timeouts_update(T.get(), tick - 1);
    ASSERT_FALSE(timeouts_expired(T.get())) << bit;
    timeouts_update(T.get(), tick);
    ASSERT_EQ(drain(T.get()), (std::vector<timeout*>{&ts[bit]})) << bit;
    ASSERT_TRUE(timeouts_check(T.get()));
  }
  EXPECT_FALSE(timeouts_pending(T.get()));
}

TEST(Timeouts, LastTickIsReachable) {
  Set T = openSet();
  timeout a = absTimeout(), b = absTimeout();
  timeouts_add(T.get(), &a, TIMEOUTS_NONE);
  timeouts_add(T.get(), &b, TIMEOUTS_NONE - 1);
  timeouts_update(T.get(), TIMEOUTS_NONE - 2);
  EXPECT_FALSE(timeouts_expired(T.get()));
  timeouts_update(T.get(), TIMEOUTS_NONE);
  EXPECT_EQ(drain(T.get()), (std::vector<timeout*>{&b, &a}));
  EXPECT_EQ(timeouts_now(T.get()), TIMEOUTS_NONE);
}

TEST(Timeouts, OneBigJumpExpiresInTickOrder) {
  Set T = openSet();
  std::vector<timeout_t> ticks{70000, 3, 64, 5000000000ull, 63, 4096, 65, 4095, 1ull << 40, 2};
  std::vector<timeout> ts(ticks.size());
  for (size_t i = 0; i < ticks.size(); ++i) {
    timeout_init(&ts[i], TIMEOUT_ABS);
    timeouts_add(T.get(), &ts[i], ticks[i]);
  }
  timeouts_update(T.get(), 1ull << 41);
  std::vector<timeout*> got = drain(T.get());
  ASSERT_EQ(got.size(), ticks.size());
  for (size_t i = 1; i < got.size(); ++i)
    EXPECT_LT(got[i - 1]->expires, got[i]->expires);
}

TEST(Timeouts, EqualTicksExpireInOrderOfAdditionAcrossLevels) {
  // a is added far ahead (high level), b once the clock is close (low
  // level), c straight after b: they must still come out a, b, c.
  Set T = openSet();
  const timeout_t tick = (timeout_t(1) << 30) + 77;
  timeout a = absTimeout(), b = absTimeout(), c = absTimeout(), d = absTimeout();
  timeouts_add(T.get(), &a, tick);
  timeouts_add(T.get(), &d, tick + 1);
  timeouts_update(T.get(), tick - 10);
  timeouts_add(T.get(), &b, tick);
  timeouts_update(T.get(), tick - 3);
  timeouts_add(T.get(), &c, tick);
  timeouts_update(T.get(), tick + 1000);
  EXPECT_EQ(drain(T.get()), (std::vector<timeout*>{&a, &b, &c, &d}));
}

TEST(Timeouts, ListFunctionsKeepTheSameDiscipline) {
  timeout_list head;
  timeout_list_init(&head);
  EXPECT_TRUE(timeout_list_empty(&head));
  timeout a = absTimeout(), b = absTimeout(), c = absTimeout();
  timeout_list_insert_tail(&head, &a);
  timeout_list_insert_tail(&head, &b);
  timeout_list_insert_tail(&head, &c);
  EXPECT_EQ(a.pending, &head);
  EXPECT_EQ(timeout_list_first(&head), &a);
  EXPECT_EQ(timeout_list_next(&a), &b);
  timeout_list_remove(a.pending, &c); // last: the head's tail moves back
  EXPECT_EQ(c.pending, nullptr);
  EXPECT_EQ(head.tqh_last, &b.tqe.tqe_next);
  timeout_list_remove(&head, &a);
  EXPECT_EQ(timeout_list_first(&head), &b);
  EXPECT_EQ(b.tqe.tqe_prev, &head.tqh_first);
  timeout_list_remove(&head, &b);
  EXPECT_TRUE(timeout_list_empty(&head));
  EXPECT_EQ(head.tqh_last, &head.tqh_first);
}
