// Kesto::TimerWheel: very many timers on one platform timer.
//
// Starting and stopping a timer is constant time on a hierarchical timing
// wheel of 10 ms ticks (libKestoTimeouts). The wheel is only a coarse sieve:
// a timer it reports as expired moves into a small ordered map keyed by its
// exact expiry (timersExpiryingSoon) and fires from there once Kesto::time()
// has reached that exact time. Tick arithmetic rounds the expiry down and
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
//   exists only for timers within two ticks of expiry.
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

// The timeout library's types, complete in the wheel's sources only.
struct timeout;
struct timeout_list;
struct timeouts;

namespace Kesto {

class KESTO_EXPORT TimerWheel : Platform::TimeoutHandler {
public:
  // The events of one exact expiry time, in the order the wheel delivered
  // them: a tail queue over the events' `tqe` links. While an event is on it,
  // its `pending` points at `head_`, the same discipline the timeout library
  // keeps for its own lists. The head refers to itself, so a list never
  // moves: it is built in place in its map node.
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
    // Takes the event off this list; asserts "Event {} linked to {}" if its
    // `pending` names another list.
    void unlink(TimerWheelEvent* event);
    const timeout_list* head() const noexcept { return reinterpret_cast<const timeout_list*>(head_); }

  private:
    timeout_list* list() noexcept { return reinterpret_cast<timeout_list*>(head_); }

    // A `struct timeout_list` made in place by the constructor: the first
    // entry, then the address of the last entry's forward link. Its layout
    // is checked where the timeout library's header is included.
    alignas(void*) unsigned char head_[2 * sizeof(void*)];
  };

  using TimersExpiryingSoon =
      std::map<double, TimersAtTimeout, std::less<double>, Allocator<std::pair<const double, TimersAtTimeout>>>;

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
