/* Hierarchical timing wheel over absolute 64-bit ticks.
 *
 * Layout: WHEEL_NUM levels of WHEEL_LEN slots. A pending timeout with expiry
 * E sits, relative to the current tick C, on the level of the highest bit in
 * which E and C differ (6 bits per level), in the slot named by E's 6-bit
 * digit on that level. So level 0 holds the next 63 ticks one per slot,
 * level 1 the next 4095 ticks in 64-tick slots, and so on; 11 levels cover
 * the whole 64-bit range and no tick is ever out of reach.
 *
 * Invariant: a timeout on level L, slot s satisfies E >> 6(L+1) ==
 * C >> 6(L+1) and E_L > C_L (where X_L is X >> 6L) and s == E_L mod 64. The
 * slot's "start", E_L << 6L, is the first tick at which the timeout could
 * expire; when the clock reaches the start, the slot is emptied and each
 * timeout is placed again relative to the new clock: lower, or expired.
 *
 * timeouts_update() walks the clock forward from start to start of the
 * non-empty slots (found by rotating each level's occupancy word and
 * counting trailing zeros), never visiting an empty tick. At each stop every
 * slot that starts exactly there is emptied. All timeouts that expire at
 * one stop have the same tick, and they were all in one slot, in the order
 * they were added: that is what keeps the expired list in expiry order and,
 * within a tick, in order of addition, with no sort and no sequence number.
 * (A timeout of tick E added earlier is never on a lower level than one of
 * the same tick added later, because the level of a fixed E only falls as
 * the clock advances; and a level-L slot is emptied before any timeout of
 * its ticks can be added below it.)
 */
#include <Timeouts/timeouts.h>

#include <errno.h>
#include <stdlib.h>
#include <string.h>

#define WHEEL_BIT 6
#define WHEEL_LEN (1u << WHEEL_BIT)
#define WHEEL_MASK (WHEEL_LEN - 1)
#define WHEEL_NUM ((64 + WHEEL_BIT - 1) / WHEEL_BIT)

_Static_assert(WHEEL_LEN == 64, "one occupancy word of 64 bits per level");
_Static_assert(WHEEL_NUM * WHEEL_BIT >= 64, "the levels cover every 64-bit tick");
_Static_assert(WHEEL_NUM <= 32, "levels with timeouts fit one 32-bit word");
_Static_assert(sizeof(timeout_t) == 8, "ticks are 64 bits");

struct timeouts {
  struct timeout_list wheel[WHEEL_NUM][WHEEL_LEN];
  struct timeout_list expired;
  uint64_t occupied[WHEEL_NUM]; /* bit s: slot s of the level is not empty */
  uint32_t levels;              /* bit L: occupied[L] != 0 */
  abstime_t curtime;
  timeout_t hz;
};

static inline unsigned levelOf(timeout_t expires, abstime_t now) {
  /* expires > now, so the xor is not zero. */
  return (unsigned)(63 - __builtin_clzll(expires ^ now)) / WHEEL_BIT;
}

static inline unsigned slotOf(timeout_t expires, unsigned level) {
  return (unsigned)(expires >> (level * WHEEL_BIT)) & WHEEL_MASK;
}

static inline uint64_t rotr64(uint64_t v, unsigned n) {
  n &= 63;
  return n ? (v >> n) | (v << (64 - n)) : v;
}

/* The first tick at which a slot of `level` will be emptied: the start of
 * the nearest non-empty slot ahead of the clock's digit. */
static inline abstime_t levelNextStart(const struct timeouts *T, unsigned level) {
  unsigned shift = level * WHEEL_BIT;
  abstime_t clockDigits = T->curtime >> shift;
  unsigned digit = (unsigned)clockDigits & WHEEL_MASK;
  /* Rotate so that bit 0 is the slot after the clock's own digit. */
  uint64_t ahead = rotr64(T->occupied[level], digit + 1);
  unsigned distance = (unsigned)__builtin_ctzll(ahead) + 1;
  return (clockDigits + distance) << shift;
}

static abstime_t nextStart(const struct timeouts *T) {
  abstime_t best = TIMEOUTS_NONE;
  uint32_t levels = T->levels;
  while (levels) {
    unsigned level = (unsigned)__builtin_ctz(levels);
    levels &= levels - 1;
    abstime_t start = levelNextStart(T, level);
    if (start < best)
      best = start;
  }
  return best;
}

static inline void place(struct timeouts *T, struct timeout *to) {
  if (to->expires <= T->curtime) {
    timeout_list_insert_tail(&T->expired, to);
    return;
  }
  unsigned level = levelOf(to->expires, T->curtime);
  unsigned slot = slotOf(to->expires, level);
  timeout_list_insert_tail(&T->wheel[level][slot], to);
  T->occupied[level] |= UINT64_C(1) << slot;
  T->levels |= 1u << level;
}

struct timeout *timeout_init(struct timeout *to, int flags) {
  memset(to, 0, sizeof *to);
  to->flags = flags;
  return to;
}

struct timeouts *timeouts_open(timeout_t hz, int *error) {
  if (hz == 0) {
    if (error)
      *error = EINVAL;
    return NULL;
  }
  struct timeouts *T = malloc(sizeof *T);
  if (!T) {
    if (error)
      *error = ENOMEM;
    return NULL;
  }
  for (unsigned level = 0; level < WHEEL_NUM; ++level)
    for (unsigned slot = 0; slot < WHEEL_LEN; ++slot)
      timeout_list_init(&T->wheel[level][slot]);
  timeout_list_init(&T->expired);
  memset(T->occupied, 0, sizeof T->occupied);
  T->levels = 0;
  T->curtime = 0;
  T->hz = hz;
  if (error)
    *error = 0;
  return T;
}

void timeouts_close(struct timeouts *T) { free(T); }

timeout_t timeouts_hz(const struct timeouts *T) { return T->hz; }

abstime_t timeouts_now(const struct timeouts *T) { return T->curtime; }

void timeouts_del(struct timeouts *T, struct timeout *to) {
  struct timeout_list *head = to->pending;
  if (!head)
    return;
  /* Everything in the wheel proper is ahead of the clock; a timeout that is
   * not is on the expired list, whatever its `pending` still names (see
   * expireSlot). */
  if (to->expires <= T->curtime)
    head = &T->expired;
  timeout_list_remove(head, to);
  if (head == &T->expired || !timeout_list_empty(head))
    return;
  size_t index = (size_t)(head - &T->wheel[0][0]);
  unsigned level = (unsigned)(index / WHEEL_LEN);
  unsigned slot = (unsigned)(index % WHEEL_LEN);
  T->occupied[level] &= ~(UINT64_C(1) << slot);
  if (!T->occupied[level])
    T->levels &= ~(1u << level);
}

void timeouts_add(struct timeouts *T, struct timeout *to, timeout_t tick) {
  if (to->pending)
    timeouts_del(T, to);
  if (to->flags & TIMEOUT_ABS) {
    to->expires = tick;
  } else {
    timeout_t expires = T->curtime + tick;
    to->expires = expires < T->curtime ? TIMEOUTS_NONE : expires;
  }
  place(T, to);
}

/* Empties one slot whose start the clock has reached and places each of its
 * timeouts again, in list order. */
static void cascade(struct timeouts *T, unsigned level, unsigned slot) {
  struct timeout_list *head = &T->wheel[level][slot];
  struct timeout *to = head->tqh_first;
  timeout_list_init(head);
  T->occupied[level] &= ~(UINT64_C(1) << slot);
  if (!T->occupied[level])
    T->levels &= ~(1u << level);
  while (to) {
    struct timeout *next = to->tqe.tqe_next;
    /* The list is in the order of addition, not of memory: overlap the miss
     * on the next timeout with the placing of this one. */
    __builtin_prefetch(next);
    place(T, to);
    to = next;
  }
}

/* Empties a level-0 slot whose tick the clock has reached. Everything on it
 * expires at that very tick, so the list moves to the tail of the expired
 * list whole, in its order, touching only its first timeout: with a million
 * timers over a few hundred ticks a slot holds thousands, each a cache miss
 * if visited. Their `pending` still names the slot, which is soon reused;
 * timeouts_del() and timeouts_get() tell an expired timeout by its tick and
 * never follow it. */
static void expireSlot(struct timeouts *T, unsigned slot) {
  struct timeout_list *head = &T->wheel[0][slot];
  struct timeout *first = head->tqh_first;
  *T->expired.tqh_last = first;
  first->tqe.tqe_prev = T->expired.tqh_last;
  T->expired.tqh_last = head->tqh_last;
  timeout_list_init(head);
  T->occupied[0] &= ~(UINT64_C(1) << slot);
  if (!T->occupied[0])
    T->levels &= ~1u;
}

void timeouts_update(struct timeouts *T, abstime_t now) {
  while (T->levels && now > T->curtime) {
    abstime_t stop = nextStart(T);
    if (stop > now)
      break;
    T->curtime = stop;
    /* Only levels whose slot boundary falls on `stop` can start a slot
     * there. Higher levels first; their timeouts land below or expire. */
    unsigned aligned = stop ? (unsigned)__builtin_ctzll(stop) / WHEEL_BIT : WHEEL_NUM - 1;
    if (aligned >= WHEEL_NUM)
      aligned = WHEEL_NUM - 1;
    for (int level = (int)aligned; level >= 0; --level) {
      unsigned slot = slotOf(stop, (unsigned)level);
      if (!(T->occupied[level] & (UINT64_C(1) << slot)))
        continue;
      if (level == 0)
        expireSlot(T, slot);
      else
        cascade(T, (unsigned)level, slot);
    }
  }
  if (now > T->curtime)
    T->curtime = now;
}

struct timeout *timeouts_get(struct timeouts *T) {
  struct timeout *to = T->expired.tqh_first;
  if (to) {
    timeout_list_remove(&T->expired, to);
    /* Callers fetch in a loop: start loading the next one. */
    __builtin_prefetch(T->expired.tqh_first);
  }
  return to;
}

bool timeouts_expired(const struct timeouts *T) { return !timeout_list_empty(&T->expired); }

bool timeouts_pending(const struct timeouts *T) { return T->levels != 0; }

timeout_t timeouts_timeout(const struct timeouts *T) {
  if (!timeout_list_empty(&T->expired))
    return 0;
  if (!T->levels)
    return TIMEOUTS_NONE;
  return nextStart(T) - T->curtime;
}

/* `owned`: every timeout's `pending` names the head (not so on the expired
 * list, see expireSlot). */
static bool checkList(const struct timeout_list *head, bool owned) {
  struct timeout *const *prev = &head->tqh_first;
  for (const struct timeout *to = head->tqh_first; to; to = to->tqe.tqe_next) {
    if (to->tqe.tqe_prev != prev || (owned && to->pending != head) || !to->pending)
      return false;
    prev = &to->tqe.tqe_next;
  }
  return head->tqh_last == prev;
}

bool timeouts_check(const struct timeouts *T) {
  uint32_t levels = 0;
  for (unsigned level = 0; level < WHEEL_NUM; ++level) {
    uint64_t occupied = 0;
    for (unsigned slot = 0; slot < WHEEL_LEN; ++slot) {
      const struct timeout_list *head = &T->wheel[level][slot];
      if (!checkList(head, true))
        return false;
      if (timeout_list_empty(head))
        continue;
      occupied |= UINT64_C(1) << slot;
      for (const struct timeout *to = head->tqh_first; to; to = to->tqe.tqe_next) {
        if (to->expires <= T->curtime || levelOf(to->expires, T->curtime) != level ||
            slotOf(to->expires, level) != slot)
          return false;
      }
    }
    if (occupied != T->occupied[level])
      return false;
    if (occupied)
      levels |= 1u << level;
  }
  if (levels != T->levels || !checkList(&T->expired, false))
    return false;
  for (const struct timeout *to = T->expired.tqh_first; to; to = to->tqe.tqe_next)
    if (to->expires > T->curtime)
      return false;
  return true;
}
