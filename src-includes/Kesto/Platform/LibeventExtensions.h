// Two entry points that extend libevent's interface for virtual time.
//
// Stock libevent 2.1 cannot move its pending timeouts nor tell the earliest
// one. These are built on libevent's public interface only: every event with
// a pending timeout is visited (event_base_foreach_event), its expiry read
// (event_pending), and it is re-added with the shortened relative timeout.
// They cover every pending timeout of the base, whether it sits in the heap
// or in a common-timeout queue (an event moved earlier leaves its queue for
// the heap). Both are O(events of the base); they run only when virtual time
// jumps, never on the hot path.
//
// Call them on the thread that runs the base's loop, outside
// event_base_foreach_event callbacks.
#pragma once

#include <Kesto/Common/Export.h>

#include <sys/time.h>

struct event_base;

extern "C" {

// Every pending timeout of `base` becomes due `offset` earlier, their order
// unchanged; one moved before the present is due at once, still ordered
// against the others. The base reads a coarse monotonic clock that trails
// CLOCK_MONOTONIC by up to one tick: a timeout that comes out due on
// CLOCK_MONOTONIC is moved by that lag more, so that the base sees it due
// too. Returns 0 (-1 for a null base).
KESTO_EXPORT int event_base_timeout_subtract_offset(event_base* base, const timeval* offset);

// 0 with `first` set to the absolute expiry of the earliest pending timeout,
// in the clock that event_pending() reports expiries in; -1 when no timeout
// is pending (or the base is null). libevent's own internal events are not
// timeouts of the base in this sense.
KESTO_EXPORT int event_base_get_first_timeout(event_base* base, timeval* first);

} // extern "C"
