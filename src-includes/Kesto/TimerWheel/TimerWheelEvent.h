// Kesto::TimerWheelEvent: one timer of a TimerWheel.
//
// A timer is an object that derives from TimerWheelEvent and implements
// timeout(). It embeds everything the wheel needs to link it (the timeout
// library's `struct timeout`), so starting and stopping it allocates nothing
// and searches nothing.
//
// - Ownership: the owner of the event keeps it alive while it runs and stops
//   it before destroying it; the destructor asserts if it is still linked.
//   The wheel holds plain pointers to running events, never a reference.
// - Thread: the thread of the wheel's event loop, like the wheel.
// - Time: expiry is an exact Kesto::time() value; +infinity means not
//   running. The event fires at or after that time, never before.
// - State: see TimerWheelState; it only moves through notLinked.
// - Fields, in a base: `timeout_`, the embedded `struct timeout` whose
//   `flags`, `pending` and `tqe` the wheel uses directly, then
//   `expirationTime_`, the exact expiry. 56 bytes with the vtable pointer.
#pragma once

#include <Kesto/Common/Export.h>

#include <Kesto/TimerWheel/TimerWheelState.h>

#include <cstddef>
#include <limits>
#include <memory>
#include <new>
#include <type_traits>

// The timeout library's entry; complete in the wheel's sources.
struct timeout;

namespace Kesto {

class TimerWheel;

namespace Impl {
// The data of a TimerWheelEvent, in a standard-layout base so that the wheel
// can go from the `struct timeout` the timeout library hands back to the
// event that embeds it without offsetof on a polymorphic class.
struct KESTO_EXPORT TimerWheelEventFields {
  // A `struct timeout`, made in place by the constructor. Its first member
  // is the int `flags`, which the state is kept in. 40 bytes: flags, the
  // expiry tick, the pending list and the two tail-queue links.
  static constexpr std::size_t timeoutSize = 40;
  static constexpr std::size_t timeoutAlign = 8;
  alignas(timeoutAlign) unsigned char timeout_[timeoutSize];
  double expirationTime_ = std::numeric_limits<double>::infinity();
};
} // namespace Impl

class KESTO_EXPORT TimerWheelEvent : private Impl::TimerWheelEventFields {
public:
  TimerWheelEvent() noexcept;
  TimerWheelEvent(const TimerWheelEvent&) = delete;
  TimerWheelEvent& operator=(const TimerWheelEvent&) = delete;

  // The timer has expired. Called by the wheel with the event already
  // notLinked and its expiration time +infinity, so the handler may start it
  // again.
  virtual void timeout() = 0;
  // Asserts "TimerWheelEvent {} destroyed while {}" unless notLinked.
  virtual ~TimerWheelEvent() noexcept(false);

  // Starts (or moves) the timer to fire `timeout` seconds from now; a
  // negative value makes it due at once. Setting the same exact expiry again
  // does nothing. A timeout that is not a number asserts "timer {} expiry is
  // not a number (timeout {})" before anything changes.
  void setTimeout(const std::shared_ptr<TimerWheel>& wheel, double timeout);
  // Stops the timer; nothing if it is not running.
  void delTimeout(const std::shared_ptr<TimerWheel>& wheel);

  TimerWheelState state() const { return timeoutFlagsToState(flags()); }
  // Moves to `state`. A change between the two linked states asserts: every
  // move goes through notLinked. Setting the present state is no change.
  void stateIs(TimerWheelState state) {
    const TimerWheelState old = this->state();
    if (old == state)
      return;
    if (old != TimerWheelState::notLinked && state != TimerWheelState::notLinked) [[unlikely]]
      assertBadStateChange(old, state);
    flagsRef() = (flags() & ~timerWheelStateFlagMask) | stateToTimeoutFlags(state);
  }

  // +infinity if not running; else the seconds to expiry, 0.0 once due.
  double remainingTimeout() const;

  double expirationTime() const noexcept { return expirationTime_; }
  const struct timeout& timeoutEntry() const noexcept { return *reinterpret_cast<const struct timeout*>(timeout_); }

private:
  friend class TimerWheel;

  // The entry's `flags`, its first member.
  int flags() const noexcept { return *std::launder(reinterpret_cast<const int*>(timeout_)); }
  int& flagsRef() noexcept { return *std::launder(reinterpret_cast<int*>(timeout_)); }
  struct timeout* entry() noexcept { return reinterpret_cast<struct timeout*>(timeout_); }

  [[noreturn, gnu::cold]] void assertBadStateChange(TimerWheelState from, TimerWheelState to) const;
  [[noreturn, gnu::cold]] void assertDestroyedLinked() const;

  // The event that embeds `to`, which must be the timeout_ of an event.
  static TimerWheelEvent* fromTimeout(struct timeout* to) noexcept {
    return static_cast<TimerWheelEvent*>(reinterpret_cast<Impl::TimerWheelEventFields*>(to));
  }
};

static_assert(std::is_standard_layout_v<Impl::TimerWheelEventFields>);
static_assert(offsetof(Impl::TimerWheelEventFields, timeout_) == 0);

} // namespace Kesto
