/* libKestoTimeouts: a hierarchical timing wheel over absolute 64-bit ticks.
 *
 * Contract
 * --------
 * - A `struct timeouts` is a set of pending timeouts and a current tick. It
 *   is created by timeouts_open() and freed by timeouts_close(); it is the
 *   only thing the library allocates. Nothing is locked: one thread owns a
 *   set, or its owner serialises the calls.
 * - A `struct timeout` belongs to the caller, who usually embeds it in an
 *   object of its own. The library never allocates or frees one; while it is
 *   pending it is linked into the set through `tqe`, so it must not move or
 *   die before timeouts_del() or timeouts_get() has unlinked it.
 * - Ticks are counts of 1/hz seconds, unsigned 64 bits. The set never reads
 *   a clock: the caller tells it the present with timeouts_update().
 * - Adding and deleting are constant time. timeouts_update() moves a
 *   timeout down the levels at most once per level on its way to expiry.
 *
 * Ordering guarantees
 * -------------------
 * - Never late, never early: a timeout added for tick T is on the expired
 *   list as soon as timeouts_update() has reached a tick >= T, and not
 *   before.
 * - The expired list is in the order of expiry: one update that crosses
 *   many ticks appends the timeouts of the earliest tick first; timeouts of
 *   the same tick come out in the order they were added.
 * - A timeout added for a tick at or before the current tick goes straight
 *   to the tail of the expired list.
 *
 * Members of `struct timeout`
 * ---------------------------
 * - `flags`: stored by timeout_init(). The library reads only TIMEOUT_ABS
 *   and never writes `flags`: every other bit is the caller's (bit 1 is
 *   kept clear, there are no interval timeouts).
 * - `expires`: the absolute tick of expiry, written by timeouts_add().
 * - `pending`: the head of the list the timeout is on (a wheel slot, the
 *   expired list, or a caller's own list of the same discipline), or null.
 *   One exception: a timeout that expired with its whole level-0 slot and
 *   has not been fetched yet may still name that slot, though it is on the
 *   expired list; it is not null, and the library never follows it.
 * - `tqe`: the tail-queue link, see the timeout_list_* functions below.
 */
#pragma once

/* The library is built with hidden visibility; what carries TIMEOUTS_EXPORT
 * is its interface. */
#ifndef TIMEOUTS_EXPORT
#define TIMEOUTS_EXPORT __attribute__((visibility("default")))
#endif

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A count of ticks; with TIMEOUT_ABS an absolute tick. */
typedef uint64_t timeout_t;
/* An absolute tick, as given to timeouts_update(). */
typedef timeout_t abstime_t;

#define TIMEOUT_C(n) UINT64_C(n)
/* timeouts_timeout() of a set with nothing pending. */
#define TIMEOUTS_NONE (~TIMEOUT_C(0))

/* Flags of timeout_init(). */
#define TIMEOUT_REL 0x00 /* timeouts_add() is given a count of ticks from now */
#define TIMEOUT_ABS 0x02 /* timeouts_add() is given an absolute tick */

struct timeout;

/* Tail queue of timeouts. The head points at the first element and at the
 * `tqe_next` of the last one (its own `tqh_first` when empty); an element
 * points at its successor and at whatever points at it. So removal of any
 * element needs the head only when the element is the last one. */
struct timeout_list {
  struct timeout *tqh_first;
  struct timeout **tqh_last;
};

struct timeout {
  int flags;
  timeout_t expires;
  struct timeout_list *pending;
  struct {
    struct timeout *tqe_next;
    struct timeout **tqe_prev;
  } tqe;
};

/* Clears the object and stores `flags` unchanged. Returns `to`. */
TIMEOUTS_EXPORT struct timeout *timeout_init(struct timeout *to, int flags);

/* A new empty set at tick 0 with `hz` ticks per second. On failure returns
 * null; `*error` (if `error` is not null) gets 0 or an errno value: EINVAL
 * for a rate of 0, ENOMEM. */
TIMEOUTS_EXPORT struct timeouts *timeouts_open(timeout_t hz, int *error);

/* Frees the set. Timeouts still linked to it are left with a dangling
 * `pending`: the caller deletes them first if it still looks at them. */
TIMEOUTS_EXPORT void timeouts_close(struct timeouts *T);

/* The rate given to timeouts_open(). */
TIMEOUTS_EXPORT timeout_t timeouts_hz(const struct timeouts *T);

/* The current tick. */
TIMEOUTS_EXPORT abstime_t timeouts_now(const struct timeouts *T);

/* Makes `now` the current tick and moves every timeout due at or before it
 * to the expired list. A tick at or before the current one changes
 * nothing: the clock of a set never goes back. */
TIMEOUTS_EXPORT void timeouts_update(struct timeouts *T, abstime_t now);

/* Links `to` to expire at `tick` (absolute with TIMEOUT_ABS, else counted
 * from the current tick, saturating). A timeout that is already pending is
 * unlinked first. A tick at or before the current one puts it at the tail
 * of the expired list. Constant time. */
TIMEOUTS_EXPORT void timeouts_add(struct timeouts *T, struct timeout *to, timeout_t tick);

/* Unlinks `to` from the wheel or the expired list; no effect if it is on
 * neither (pending is null). Constant time. Must not be given a timeout
 * that the caller has put on a list of its own. */
TIMEOUTS_EXPORT void timeouts_del(struct timeouts *T, struct timeout *to);

/* Unlinks and returns the first expired timeout with `pending` null, or
 * null if the expired list is empty. */
TIMEOUTS_EXPORT struct timeout *timeouts_get(struct timeouts *T);

/* True if the expired list holds something. */
TIMEOUTS_EXPORT bool timeouts_expired(const struct timeouts *T);

/* True if the wheel proper (not counting the expired list) holds
 * something. */
TIMEOUTS_EXPORT bool timeouts_pending(const struct timeouts *T);

/* Ticks from the current tick to the next expiry: 0 if the expired list
 * holds something, TIMEOUTS_NONE if nothing is pending at all. Never more
 * than the true distance; for a timeout more than 63 ticks ahead it may be
 * less (the start of the range of ticks that holds it), so a caller that
 * sleeps for this long may wake early, update, and ask again. */
TIMEOUTS_EXPORT timeout_t timeouts_timeout(const struct timeouts *T);

/* Checks every internal invariant (links, level and slot of every pending
 * timeout, occupancy bitmaps, order of the expired list). For tests; cost
 * linear in the number of timeouts. */
TIMEOUTS_EXPORT bool timeouts_check(const struct timeouts *T);

/* ---- the list discipline, for lists of the caller's own ---------------- */

static inline void timeout_list_init(struct timeout_list *head) {
  head->tqh_first = NULL;
  head->tqh_last = &head->tqh_first;
}

static inline bool timeout_list_empty(const struct timeout_list *head) { return head->tqh_first == NULL; }

static inline struct timeout *timeout_list_first(const struct timeout_list *head) { return head->tqh_first; }

static inline struct timeout *timeout_list_next(const struct timeout *to) { return to->tqe.tqe_next; }

/* Appends `to` and makes `pending` point at `head`. */
static inline void timeout_list_insert_tail(struct timeout_list *head, struct timeout *to) {
  to->tqe.tqe_next = NULL;
  to->tqe.tqe_prev = head->tqh_last;
  *head->tqh_last = to;
  head->tqh_last = &to->tqe.tqe_next;
  to->pending = head;
}

/* Unlinks `to` from `head` and clears `pending`. */
static inline void timeout_list_remove(struct timeout_list *head, struct timeout *to) {
  if (to->tqe.tqe_next != NULL)
    to->tqe.tqe_next->tqe.tqe_prev = to->tqe.tqe_prev;
  else
    head->tqh_last = to->tqe.tqe_prev;
  *to->tqe.tqe_prev = to->tqe.tqe_next;
  to->tqe.tqe_next = NULL;
  to->tqe.tqe_prev = NULL;
  to->pending = NULL;
}

#ifdef __cplusplus
}
#endif
