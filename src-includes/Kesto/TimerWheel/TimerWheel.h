// Kesto::TimerWheel: very many timers on one platform timer.
//
// Starting and stopping a timer is constant time on a hierarchical timing
// wheel of 10 ms ticks (libKestoTimeouts). The wheel is only a coarse sieve:
// a timer it reports as expired moves into a small ordered map of buckets of
// 2^-16 s of exact expiry (timersExpiryingSoon), each a list kept in exact
// time order, and fires from there once Kesto::time() has reached that exact
// time. Tick arithmetic rounds the expiry down and
// the present up, so the wheel reports a timer at the latest when it is due
// and at most two ticks early; an early report is deferred in the map, never
// fired.
//
// - One platform timer, the master timer, is armed for the next thing to do.
//   Starting a timer re-arms it only if the new expiry is earlier than what
//   it is armed for; stopping a timer never touches it (a master timer that
//   fires for nothing just re-arms itself).
// - Ownership: a wheel lives in a std::shared_ptr; each TimerWheelTimerControl
//   holds a share. Events are linked by plain pointers; their owners stop
//   them before they go. The map's nodes come from the slab allocator; a node
//   exists only for a bucket that holds timers within two ticks of expiry.
// - Thread: a wheel belongs to the thread of its event loop and has no lock.
// - Handlers fired by a pass may stop or start any timer, their own
//   included; a timer started during a pass fires in a later pass.
// - Exceptions of a handler's timeout() are not caught here.
// - Failures are programming errors and assert.
#pragma once

#include <Kesto/Common/Export.h>

#include <Kesto/Core/Ptr.h>
#include <Kesto/Core/Types.h>
#include <Kesto/Platform/PlatformControls.h>
#include <Kesto/Platform/PlatformEventPriority.h>
#include <Kesto/Platform/PlatformHandlers.h>
#include <Kesto/TimerWheel/TimerWheelEvent.h>
#include <Kesto/TimerWheel/TimerWheelState.h>
#include <ZuSlab/Allocator.h>

#include <functional>
#include <map>
#include <memory>
#include <new>
#include <vector>

// The timeout library's types, complete in the wheel's sources only.
struct timeout;
struct timeout_list;
struct timeouts;

namespace Kesto {

class KESTO_EXPORT TimerWheel : Platform::TimeoutHandler {
public:
  // The events of one bucket of exact expiry times: a tail queue over the
  // events' `tqe` links. While an event is on it, its `pending` points at
  // `head_`, the same discipline the timeout library keeps for its own
  // lists. The head refers to itself, so a list never moves: it is built in
  // place in its map node.
  //
  // Order: events are appended in the order the wheel delivers them, which
  // within a tick is not the order of their exact times. The list notes when
  // an append breaks exact-time order, and sortByExpiry() restores it with a
  // stable merge sort, so that equal exact times keep the delivery order.
  // Taking events off a sorted list keeps it sorted.
  class TimersAtTimeout {
  public:
    TimersAtTimeout() noexcept;
    TimersAtTimeout(const TimersAtTimeout&) = delete;
    TimersAtTimeout& operator=(const TimersAtTimeout&) = delete;
    // Asserts "Destroyed while non-empty".
    ~TimersAtTimeout() noexcept(false);

    bool empty() const noexcept { return *std::launder(reinterpret_cast<struct timeout* const*>(head_)) == nullptr; }
    TimerWheelEvent* front() const noexcept;
    // Appends; asserts "pending set to {}" if the event is on a list.
    void pushBack(TimerWheelEvent* event);
    // True while the events are in exact-time order, delivery order among
    // equal times.
    bool sorted() const noexcept { return sorted_; }
    // Puts the events in exact-time order, stable; O(n log r) for r runs
    // already in order, nothing if sorted(). Allocates nothing.
    void sortByExpiry() noexcept {
      if (!sorted_)
        sortSlow();
    }
    // Takes the event off this list; asserts "Event {} linked to {}" if its
    // `pending` names another list.
    void unlink(TimerWheelEvent* event);
    const timeout_list* head() const noexcept { return reinterpret_cast<const timeout_list*>(head_); }

  private:
    timeout_list* list() noexcept { return reinterpret_cast<timeout_list*>(head_); }
    void sortSlow() noexcept;
    static double expiryOf(const struct timeout* entry) noexcept;
    // Merges two chains linked by tqe_next, each in exact-time order; the
    // events of `early` were delivered before those of `late` and win ties.
    static struct timeout* mergeByExpiry(struct timeout* early, struct timeout* late) noexcept;

    // A `struct timeout_list` made in place by the constructor: the first
    // entry, then the address of the last entry's forward link. Its layout
    // is checked where the timeout library's header is included.
    alignas(void*) unsigned char head_[2 * sizeof(void*)];
    bool sorted_ = true;
  };

  // The key of the bucket of an exact expiry: the time rounded down to a
  // multiple of 2^-16 s (15.3 us), exact in binary floating point and
  // monotonic, so buckets in key order hold ever later times. A bucket
  // spans 1/655 of a tick: even a million timers due within 200 ms put
  // only some 75 events in one, and an ordinary load one.
  static double bucketOf(double expiry) noexcept;

  using TimersExpiryingSoon =
      std::map<double, TimersAtTimeout, std::less<double>, Allocator<std::pair<const double, TimersAtTimeout>>>;

  // One event of a drain of the wheel: its exact expiry as an unsigned key
  // that orders like the double, and the event.
  struct Drained {
    U64 key;
    TimerWheelEvent* event;
  };
  using DrainBuffer = std::vector<Drained, Allocator<Drained>>;

  // A wheel whose master timer has `priority`. Make it with
  // std::make_shared: it is always held by a std::shared_ptr.
  explicit TimerWheel(Platform::EventPriority priority);
  TimerWheel(const TimerWheel&) = delete;
  TimerWheel& operator=(const TimerWheel&) = delete;
  ~TimerWheel() override;

  // Starts `event` to fire `timeout` seconds from now (see
  // TimerWheelEvent::setTimeout).
  void timerStart(TimerWheelEvent* event, double timeout);
  // Stops `event`; nothing if it is not running.
  void timerStop(TimerWheelEvent* event);

  // Moves what the wheel reports as expired into timersExpiryingSoon and
  // fires every timer whose exact time has come, in time order. Returns the
  // number fired. Leaves the master timer alone.
  int _processExpiredTimers();
  // Arms the master timer for the next thing to do, or disarms it.
  void setMasterTimer();
  // Advances the wheel's clock to the tick at or after `now`.
  void setCurrentTime(double now);

  // ---- introspection, for tests and diagnostics --------------------------
  int error() const noexcept { return error_; }
  double masterTimerExpiryTime() const noexcept { return masterTimerExpiryTime_; }
  const Ptr<Platform::TimerControl>& masterTimer() const noexcept { return masterTimer_; }
  timeouts* timeoutsSet() const noexcept { return timeouts_; }
  const TimersExpiryingSoon& timersExpiryingSoon() const noexcept { return timersExpiryingSoon_; }

private:
  // The master timer has fired.
  void timeout() override;

  void timersExpiryingSoonRemove(TimerWheelEvent* event);

  static struct timeout* entryOf(TimerWheelEvent* event) noexcept { return event->entry(); }
  static TimerWheelEvent* eventOf(struct timeout* to) noexcept { return TimerWheelEvent::fromTimeout(to); }

  int error_ = 0;
  double masterTimerExpiryTime_;
  Ptr<Platform::TimerControl> masterTimer_;
  timeouts* timeouts_ = nullptr;
  TimersExpiryingSoon timersExpiryingSoon_;
  // A drain sorted by exact time before it enters the map, so that the map
  // receives each bucket in order and no list of cold events is walked to
  // sort it. Two buffers for the radix sort; they keep the size of the
  // largest drain so far.
  DrainBuffer drained_;
  DrainBuffer drainedSpare_;
  // The order in which the events of timersExpiryingSoon_ will fire, for
  // fetching them ahead: the firing walk follows the lists, and a list of
  // events that have left the cache costs a full memory latency per event.
  // A ring of sequence numbers [fireOrderBegin_, fireOrderEnd_); an event
  // in the map carries its number in the `expires` of its entry (a tick that
  // means nothing once it has left the wheel), or noFireOrder when its
  // drain came out of order with what the ring holds. Only a hint: a stale
  // entry (a stopped timer) costs one useless prefetch.
  std::vector<TimerWheelEvent*, Allocator<TimerWheelEvent*>> fireOrder_;
  U64 fireOrderBegin_ = 0;
  U64 fireOrderEnd_ = 0;
  U64 fireOrderLastKey_ = 0;
  // Takes `count` sorted events into the ring; gives the number of the
  // first, or noFireOrder if they stay out of it.
  U64 fireOrderAppend(const Drained* sorted, std::size_t count);
  void fireOrderPrefetch(const TimerWheelEvent* event) noexcept;
};

// The wheel of the thread (with thread-local singletons) or of the process,
// made at first use; its master timer has eventPriorityDefault.
KESTO_EXPORT std::shared_ptr<TimerWheel> getTimerWheel();
// A new wheel on every call, its master timer at `priority`. The root
// scheduler makes one for itself.
KESTO_EXPORT std::shared_ptr<TimerWheel> getTimerWheelForTaskScheduler(Platform::EventPriority priority);
// One pass of _processExpiredTimers() for a scheduler that polls its wheel;
// returns the number of timers fired. The master timer is not touched.
KESTO_EXPORT int processExpiredTimersForTaskScheduler(const std::shared_ptr<TimerWheel>& wheel);

// The tick (1/100 s) of a time, rounded up as for the present, and rounded
// down as for an expiry; 2^64 - 1 at most.
KESTO_EXPORT U64 timeToTickCeilForTest(double time);
KESTO_EXPORT U64 timeToTickFloorForTest(double time);

// The clock the wheels read: Kesto::time unless a test installs another
// (null puts Kesto::time back). Process-wide, not locked.
using TimerWheelClock = double (*)();
KESTO_EXPORT void timerWheelClockIsForTest(TimerWheelClock clock) noexcept;

namespace Platform {
// A timer control served by `wheel`: a new TimerWheelTimerControl.
KESTO_EXPORT Ptr<TimerControl> getTimerControl(TimeoutHandler* handler, std::shared_ptr<TimerWheel> wheel);
} // namespace Platform

} // namespace Kesto
