// The timing wheel against a reference model: an ordered multimap of expiry
// ticks (equal keys keep their order of insertion) and a list of expired
// timeouts. Millions of random adds, deletes, clock advances and fetches
// must give the same timeouts at the same ticks in the same order.
//
// KESTO_TIMEOUTS_MODEL_OPS overrides the number of operations.
#include <Timeouts/timeouts.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <list>
#include <map>
#include <random>
#include <vector>

namespace {

#ifdef KESTO_SANITIZED
constexpr uint64_t defaultOps = 600'000;
#else
constexpr uint64_t defaultOps = 4'000'000;
#endif

uint64_t opCount() {
  if (const char* env = std::getenv("KESTO_TIMEOUTS_MODEL_OPS"))
    return std::strtoull(env, nullptr, 10);
  return defaultOps;
}

timeout_t saturatingAdd(timeout_t a, timeout_t b) { return a + b < a ? TIMEOUTS_NONE : a + b; }

class ModelRun {
 public:
  ModelRun(uint64_t seed, size_t timers) : rng_(seed), timers_(timers), entries_(timers) {
    int error = -1;
    T_ = timeouts_open(100, &error);
    EXPECT_EQ(error, 0);
    for (timeout& to : timers_)
      timeout_init(&to, TIMEOUT_ABS | 4);
  }
  ~ModelRun() { timeouts_close(T_); }

  // Starts the clock at `start` (nothing is pending yet).
  void startAt(abstime_t start) {
    timeouts_update(T_, start);
    now_ = start;
  }

  void run(uint64_t ops) {
    for (uint64_t i = 0; i < ops; ++i) {
      step();
      if (::testing::Test::HasFatalFailure())
        return;
      if ((i & 0x3fff) == 0) {
        ASSERT_TRUE(timeouts_check(T_)) << "op " << i;
      }
    }
    ASSERT_TRUE(timeouts_check(T_));
    // Run everything out: the wheel must deliver all the model still holds.
    updateTo(TIMEOUTS_NONE);
    while (!expired_.empty())
      fetchOne();
    EXPECT_EQ(timeouts_get(T_), nullptr);
    EXPECT_FALSE(timeouts_pending(T_));
  }

  uint64_t fired() const { return fired_; }

 private:
  enum class Where { idle, wheel, expired };
  struct Entry {
    Where where = Where::idle;
    std::multimap<timeout_t, size_t>::iterator inWheel;
    std::list<size_t>::iterator inExpired;
  };

  uint64_t below(uint64_t n) { return n ? rng_() % n : 0; }
  size_t anyTimer() { return size_t(below(timers_.size())); }

  void step() {
    uint64_t dice = below(1000);
    if (dice < 380)
      add();
    else if (dice < 530)
      del(anyTimer());
    else if (dice < 780)
      advance();
    else if (dice < 970)
      fetchOne();
    else if (dice < 975)
      while (!expired_.empty())
        fetchOne();
    else
      checkTimeout();
    ASSERT_EQ(timeouts_now(T_), now_);
    ASSERT_EQ(timeouts_expired(T_), !expired_.empty());
    ASSERT_EQ(timeouts_pending(T_), !wheel_.empty());
  }

  timeout_t pickTick() {
    uint64_t dice = below(100);
    if (dice < 30)
      return saturatingAdd(now_, below(71));
    if (dice < 55)
      return saturatingAdd(now_, below(10'001));
    if (dice < 70) // every level: a random width of distance
      return saturatingAdd(now_, rng_() >> below(64));
    if (dice < 80)
      return now_ - below(std::min<timeout_t>(now_, 1000) + 1);
    if (dice < 92 && !wheel_.empty()) { // an equal tick to one that is pending
      const Entry& other = entries_[anyTimer()];
      if (other.where == Where::wheel)
        return other.inWheel->first;
      return saturatingAdd(now_, 1 + below(5000));
    }
    if (dice < 96)
      return TIMEOUTS_NONE;
    return saturatingAdd(now_, 1);
  }

  void add() {
    size_t id = anyTimer();
    timeout& to = timers_[id];
    timeout_t tick = pickTick();
    forget(id);
    if (below(4) == 0) {
      // Relative form: the library counts from its own clock, saturating.
      to.flags &= ~TIMEOUT_ABS;
      timeout_t delta = tick > now_ ? tick - now_ : 0;
      if (tick == TIMEOUTS_NONE && below(2))
        delta = TIMEOUTS_NONE; // saturates to the same tick
      timeouts_add(T_, &to, delta);
      to.flags |= TIMEOUT_ABS;
      if (tick < now_)
        tick = now_;
    } else {
      timeouts_add(T_, &to, tick);
    }
    ASSERT_EQ(to.expires, tick);
    ASSERT_EQ(to.flags, TIMEOUT_ABS | 4);
    Entry& e = entries_[id];
    if (tick <= now_) {
      e.where = Where::expired;
      e.inExpired = expired_.insert(expired_.end(), id);
    } else {
      e.where = Where::wheel;
      e.inWheel = wheel_.emplace(tick, id); // after any equal key
    }
  }

  // Removes `id` from the model (the library does the same inside add).
  void forget(size_t id) {
    Entry& e = entries_[id];
    if (e.where == Where::wheel)
      wheel_.erase(e.inWheel);
    else if (e.where == Where::expired)
      expired_.erase(e.inExpired);
    e.where = Where::idle;
  }

  void del(size_t id) {
    forget(id);
    timeouts_del(T_, &timers_[id]);
    ASSERT_EQ(timers_[id].pending, nullptr);
  }

  void advance() {
    uint64_t dice = below(1000);
    abstime_t to = now_;
    if (dice < 400)
      to = saturatingAdd(now_, below(4));
    else if (dice < 650)
      to = saturatingAdd(now_, below(301));
    else if (dice < 800 && !wheel_.empty())
      to = wheel_.begin()->first - below(2); // exactly at, or one before
    else if (dice < 900) {
      timeout_t wait = timeouts_timeout(T_);
      if (wait != TIMEOUTS_NONE)
        to = now_ + wait;
    } else if (dice < 980)
      to = saturatingAdd(now_, below(1u << 20));
    else if (dice < 985)
      to = saturatingAdd(now_, rng_() >> (8 + below(56)));
    else if (dice < 990)
      to = now_ - below(std::min<timeout_t>(now_, 100) + 1); // backwards: ignored
    updateTo(to);
  }

  void updateTo(abstime_t to) {
    timeouts_update(T_, to);
    if (to <= now_)
      return;
    now_ = to;
    while (!wheel_.empty() && wheel_.begin()->first <= now_) {
      size_t id = wheel_.begin()->second;
      wheel_.erase(wheel_.begin());
      Entry& e = entries_[id];
      e.where = Where::expired;
      e.inExpired = expired_.insert(expired_.end(), id);
    }
  }

  void fetchOne() {
    timeout* got = timeouts_get(T_);
    if (expired_.empty()) {
      ASSERT_EQ(got, nullptr);
      return;
    }
    size_t id = expired_.front();
    ASSERT_EQ(got, &timers_[id]) << "expected timer " << id << " of tick " << timers_[id].expires << " at " << now_
                                 << ", got tick " << (got ? got->expires : 0);
    ASSERT_EQ(got->pending, nullptr);
    ASSERT_LE(got->expires, now_);
    expired_.pop_front();
    entries_[id].where = Where::idle;
    ++fired_;
  }

  void checkTimeout() {
    timeout_t wait = timeouts_timeout(T_);
    if (!expired_.empty()) {
      ASSERT_EQ(wait, 0u);
    } else if (wheel_.empty()) {
      ASSERT_EQ(wait, TIMEOUTS_NONE);
    } else {
      ASSERT_GT(wait, 0u);
      ASSERT_LE(wait, wheel_.begin()->first - now_) << "over-estimate at " << now_;
    }
  }

  std::mt19937_64 rng_;
  std::vector<timeout> timers_;
  std::vector<Entry> entries_;
  timeouts* T_ = nullptr;
  abstime_t now_ = 0;
  std::multimap<timeout_t, size_t> wheel_;
  std::list<size_t> expired_;
  uint64_t fired_ = 0;
};

struct Round {
  uint64_t seed;
  size_t timers;
  abstime_t start;
};

} // namespace

TEST(TimeoutsModel, RandomOperationsMatchTheModel) {
  const Round rounds[] = {
      {1, 64, 0},
      {2, 1000, 0},
      {3, 5000, 123456789},
      {4, 20000, 0},
      {5, 3000, (timeout_t(1) << 63) - 5000},
      {6, 500, TIMEOUTS_NONE - (timeout_t(1) << 24)},
      {7, 2000, (timeout_t(1) << 36) + 4095},
      {8, 8, 63},
  };
  const uint64_t perRound = opCount() / std::size(rounds) + 1;
  uint64_t fired = 0;
  for (const Round& r : rounds) {
    SCOPED_TRACE(::testing::Message() << "seed " << r.seed);
    ModelRun run(r.seed, r.timers);
    run.startAt(r.start);
    run.run(perRound);
    if (HasFatalFailure())
      return;
    fired += run.fired();
  }
  EXPECT_GT(fired, opCount() / 20);
}
