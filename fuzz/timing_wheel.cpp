// The timing wheel against an ordered model: random adds (relative and
// absolute, near and far), deletes, re-adds and clock advances, with the
// expired list drained after each advance. Every timeout must come out
// exactly once, never before its tick, in order of expiry (ties in the order
// they were added), and none that was deleted; the wheel's own invariant
// check must hold after every step.
#include "FuzzInput.h"

#include <Timeouts/timeouts.h>

#include <array>
#include <map>
#include <utility>

using KestoFuzz::FuzzInput;

namespace {

constexpr unsigned timerCount = 64;

struct Timer {
  timeout to;
  unsigned index;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  FuzzInput in(data, size);
  int error = 0;
  timeouts* T = timeouts_open(1000, &error);
  if (!T)
    return 0;
  std::array<Timer, timerCount> timers;
  for (unsigned i = 0; i < timerCount; ++i) {
    timeout_init(&timers[i].to, (i & 1) ? TIMEOUT_ABS : TIMEOUT_REL);
    timers[i].index = i;
  }
  // Model: expiry tick and order of adding -> timer; and each timer's key.
  uint64_t sequence = 0;
  std::map<std::pair<timeout_t, uint64_t>, unsigned> pending;
  std::array<std::pair<timeout_t, uint64_t>, timerCount> keyOf{};
  std::array<bool, timerCount> armed{};
  abstime_t now = 0;

  const auto drain = [&] {
    while (timeout* to = timeouts_get(T)) {
      Timer* t = reinterpret_cast<Timer*>(to);
      KESTO_FUZZ_CHECK(armed[t->index]);
      KESTO_FUZZ_CHECK(to->pending == nullptr);
      KESTO_FUZZ_CHECK(!pending.empty());
      // The first due timeout of the model is the one that must come out.
      const auto first = pending.begin();
      KESTO_FUZZ_CHECK(first->first.first <= now);
      KESTO_FUZZ_CHECK(first->second == t->index);
      pending.erase(first);
      armed[t->index] = false;
    }
    // Nothing due may stay behind.
    KESTO_FUZZ_CHECK(pending.empty() || pending.begin()->first.first > now);
  };

  while (!in.empty()) {
    const uint8_t op = in.byte();
    const unsigned i = in.byte() % timerCount;
    Timer& t = timers[i];
    switch (op % 4) {
    case 0:
    case 1: {
      // Near ticks mostly, far ones now and then, to reach every level.
      const uint8_t scale = in.byte() % 8;
      const timeout_t amount = timeout_t(in.number<uint16_t>()) << (scale * 8 % 64);
      if (armed[i])
        pending.erase(keyOf[i]);
      timeouts_add(T, &t.to, amount);
      timeout_t tick = (t.to.flags & TIMEOUT_ABS) ? amount : (amount > ~now ? ~timeout_t(0) : now + amount);
      KESTO_FUZZ_CHECK(t.to.expires == tick);
      // A tick already passed is due now: it goes to the tail of the
      // expired list, so in the model it sorts by its order of adding.
      const timeout_t due = tick < now ? now : tick;
      keyOf[i] = {due, sequence++};
      pending.emplace(keyOf[i], i);
      armed[i] = true;
      break;
    }
    case 2:
      if (armed[i])
        pending.erase(keyOf[i]);
      timeouts_del(T, &t.to);
      armed[i] = false;
      KESTO_FUZZ_CHECK(t.to.pending == nullptr);
      break;
    case 3: {
      const uint8_t scale = in.byte() % 6;
      const timeout_t step = timeout_t(in.number<uint16_t>()) << (scale * 8);
      now = step > ~now ? ~timeout_t(0) : now + step;
      timeouts_update(T, now);
      drain();
      break;
    }
    }
    KESTO_FUZZ_CHECK(timeouts_check(T));
    KESTO_FUZZ_CHECK(timeouts_now(T) == now);
    const timeout_t next = timeouts_timeout(T);
    if (pending.empty()) {
      KESTO_FUZZ_CHECK(next == TIMEOUTS_NONE);
    } else {
      const timeout_t due = pending.begin()->first.first;
      // Never more than the true distance.
      KESTO_FUZZ_CHECK(next <= (due > now ? due - now : 0));
    }
  }
  timeouts_close(T);
  return 0;
}
