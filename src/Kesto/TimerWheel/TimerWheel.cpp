#include <Kesto/TimerWheel/TimerWheel.h>

#include <Kesto/Core/System.h>
#include <Kesto/Platform/Platform.h>
#include "TimerWheel/TimerWheelClock.h"
#include <Kesto/Debug/Trace.h>

#include <Timeouts/timeouts.h>

#include <cmath>
#include <cstddef>
#include <limits>
#include <new>

// Traces under a function name of our choice, where the line should name
// the step rather than the C++ function that happens to take it.
#define KESTO_WHEEL_TRACE_AS(function, level, ...)                                                              \
  do {                                                                                                          \
    if (KESTO_ENABLED(Debug::kestoTimerWheel, level)) [[unlikely]]                                              \
      fmtrace(Debug::kestoTimerWheel, (level), __FILE__, function, __LINE__, "TimerWheel", __VA_ARGS__);      \
  } while (0)

namespace Kesto {

using TimerWheelImpl::now;
using TimerWheelImpl::timeToTickCeil;
using TimerWheelImpl::timeToTickFloor;

namespace {

constexpr double infinity = std::numeric_limits<double>::infinity();
constexpr timeout_t ticksPerSecond = 100;

[[noreturn, gnu::cold, gnu::noinline]] void assertOpenError(int error) {
  fmassert(Debug::kestoTimerWheel, "TimerWheel", __FILE__, "TimerWheel", __LINE__, "Error code {}", error);
}

// An expiry that is not a number is no moment at all: the event would claim
// to run, its floor tick would be clamped into the wheel, and as a key of
// timersExpiryingSoon_ it would compare equal to every other, so that timers
// of other times fire with it, early.
[[noreturn, gnu::cold, gnu::noinline]] void assertExpiryNotANumber(const TimerWheelEvent* event, double timeout) {
  fmassert(Debug::kestoTimerWheel, "TimerWheel", __FILE__, "timerStart", __LINE__,
           "timer {} expiry is not a number (timeout {})", DisplayPointer(event), timeout);
}

[[noreturn, gnu::cold, gnu::noinline]] void assertNotLinked(double expirationTime) {
  fmassert(Debug::kestoTimerWheel, "TimerWheel", __FILE__, "timerStop", __LINE__,
           "Not linked but expirationTime={}", expirationTime);
}

} // namespace

// ---- TimersAtTimeout ----------------------------------------------------

static_assert(sizeof(timeout_list) == sizeof(TimerWheel::TimersAtTimeout) &&
              alignof(timeout_list) <= alignof(TimerWheel::TimersAtTimeout) &&
              offsetof(timeout_list, tqh_first) == 0);

TimerWheel::TimersAtTimeout::TimersAtTimeout() noexcept { timeout_list_init(new (head_) timeout_list); }

TimerWheel::TimersAtTimeout::~TimersAtTimeout() noexcept(false) {
  KESTO_ASSERT_H(Debug::kestoTimerWheel, empty(), "TimersAtTimeout", "Destroyed while non-empty");
}

TimerWheelEvent* TimerWheel::TimersAtTimeout::front() const noexcept {
  struct timeout* first = timeout_list_first(head());
  return first ? eventOf(first) : nullptr;
}

void TimerWheel::TimersAtTimeout::pushBack(TimerWheelEvent* event) {
  struct timeout* entry = entryOf(event);
  KESTO_ASSERT_H(Debug::kestoTimerWheel, !entry->pending, "TimersAtTimeout", "pending set to {}",
                 DisplayPointer(entry->pending));
  timeout_list_insert_tail(list(), entry);
}

void TimerWheel::TimersAtTimeout::unlink(TimerWheelEvent* event) {
  struct timeout* entry = entryOf(event);
  KESTO_ASSERT_H(Debug::kestoTimerWheel, entry->pending == list(), "TimersAtTimeout", "Event {} linked to {}",
                 DisplayPointer(event), DisplayPointer(entry->pending));
  timeout_list_remove(list(), entry);
}

// ---- TimerWheel ---------------------------------------------------------

TimerWheel::TimerWheel(Platform::EventPriority priority)
    : error_(0), masterTimerExpiryTime_(infinity),
      masterTimer_(Platform::getTimerControl(static_cast<Platform::TimeoutHandler*>(this), priority)),
      timeouts_(timeouts_open(ticksPerSecond, &error_)) {
  if (error_ != 0) [[unlikely]]
    assertOpenError(error_);
  setCurrentTime(now());
}

TimerWheel::~TimerWheel() {
  // The map goes next (each list must be empty by now), then the master
  // timer, in the reverse order of the fields.
  timeouts_close(timeouts_);
  timeouts_ = nullptr;
}

void TimerWheel::setCurrentTime(double now) {
  const U64 tick = timeToTickCeil(now);
  KESTO_TRACE(Debug::kestoTimerWheel, 8, "TimerWheel", "advance time to {} tick {}", now, tick);
  timeouts_update(timeouts_, tick);
}

void TimerWheel::timerStart(TimerWheelEvent* event, double timeout) {
  const double expiry = timeout + now();
  // Refused before the event is touched: a running timer stays as it was.
  if (std::isnan(expiry)) [[unlikely]]
    assertExpiryNotANumber(event, timeout);
  // Already set for this very moment; or, both infinite, not running and
  // staying so.
  if (expiry == event->expirationTime_)
    return;
  if (event->expirationTime_ != infinity)
    timerStop(event);
  event->expirationTime_ = expiry;
  const U64 tick = timeToTickFloor(expiry);
  KESTO_TRACE(Debug::kestoTimerWheel, 9, "TimerWheel", "timer {} set timeout {} expire at {} tick {}",
              DisplayPointer(event), timeout, expiry, tick);
  timeouts_add(timeouts_, entryOf(event), tick);
  event->stateIs(TimerWheelState::inTimerWheel);
  // A master timer set for later must come forward; one set for earlier
  // fires early and timeout() re-arms it.
  if (masterTimerExpiryTime_ > expiry)
    setMasterTimer();
}

void TimerWheel::timerStop(TimerWheelEvent* event) {
  if (event->expirationTime_ == infinity) {
    KESTO_TRACE(Debug::kestoTimerWheel, 9, "TimerWheel", "timer {} del timeout, not running", DisplayPointer(event));
    return;
  }
  KESTO_TRACE(Debug::kestoTimerWheel, 9, "TimerWheel", "timer {} del timeout", DisplayPointer(event));
  switch (event->state()) {
  case TimerWheelState::inTimerWheel:
    timeouts_del(timeouts_, entryOf(event));
    event->stateIs(TimerWheelState::notLinked);
    break;
  case TimerWheelState::inTimersExpiryingSoon:
    timersExpiryingSoonRemove(event);
    break;
  case TimerWheelState::notLinked:
    assertNotLinked(event->expirationTime_);
  }
  event->expirationTime_ = infinity;
  // The master timer stays as it is: a needless firing is cheaper than
  // finding the next expiry on every stop.
}

void TimerWheel::timersExpiryingSoonRemove(TimerWheelEvent* event) {
  const TimerWheelState state = event->state();
  KESTO_ASSERT_H(Debug::kestoTimerWheel, state == TimerWheelState::inTimersExpiryingSoon, "TimerWheel",
                 "Removing from timersExpiryingSoon in state {}", state);
  struct timeout* entry = entryOf(event);
  KESTO_ASSERT_H(Debug::kestoTimerWheel, entry->pending, "TimerWheel", "No timersAtTimeout");
  // The head is needed only when the event is the last of its list. The
  // node stays, possibly empty: processing and setMasterTimer skip it.
  timeout_list_remove(entry->pending, entry);
  event->stateIs(TimerWheelState::notLinked);
}

void TimerWheel::setMasterTimer() {
  const double now = TimerWheelImpl::now();
  setCurrentTime(now);
  if (!timersExpiryingSoon_.empty()) {
    auto first = timersExpiryingSoon_.begin();
    while (first != timersExpiryingSoon_.end() && first->second.empty())
      ++first;
    if (first != timersExpiryingSoon_.end() && first->first != infinity) {
      const double firstExpiryTime = first->first;
      if (now >= firstExpiryTime) {
        KESTO_TRACE(Debug::kestoTimerWheel, 8, "TimerWheel",
                    "has expired timers, firstExpiryTime={} now={}, set master timer timeout 0", firstExpiryTime,
                    now);
        masterTimer_->setTimeout(0.0);
      } else {
        KESTO_TRACE(Debug::kestoTimerWheel, 8, "TimerWheel",
                    "has scheduled timers, firstExpiryTime={} now={}, set master timer timeout {}",
                    firstExpiryTime, now, firstExpiryTime - now);
        masterTimer_->setTimeout(firstExpiryTime - now);
      }
      masterTimerExpiryTime_ = firstExpiryTime;
      return;
    }
  }
  if (timeouts_expired(timeouts_)) {
    KESTO_TRACE(Debug::kestoTimerWheel, 8, "TimerWheel", "has expired timers, set master timer timeout 0");
    masterTimer_->setTimeout(0.0);
    masterTimerExpiryTime_ = 0.0;
    return;
  }
  if (timeouts_pending(timeouts_)) {
    const timeout_t ticks = timeouts_timeout(timeouts_);
    const double seconds = double(ticks) / double(ticksPerSecond);
    KESTO_TRACE(Debug::kestoTimerWheel, 8, "TimerWheel",
                "has scheduled timers, first timer expiry in {} ticks, set master timer timeout {}", ticks, seconds);
    masterTimer_->setTimeout(seconds);
    masterTimerExpiryTime_ = seconds + now;
    return;
  }
  KESTO_TRACE(Debug::kestoTimerWheel, 8, "TimerWheel", "has no timers, del master timer timeout");
  masterTimer_->delTimeout();
  masterTimerExpiryTime_ = infinity;
}

void TimerWheel::timeout() {
  KESTO_TRACE(Debug::kestoTimerWheel, 8, "TimerWheel", "master timer expired");
  _processExpiredTimers();
  setMasterTimer();
}

int TimerWheel::_processExpiredTimers() {
  // Taken once: a long pass does not extend itself.
  const double now = TimerWheelImpl::now();
  setCurrentTime(now);

  // Everything the wheel reports goes into the map, keyed by exact time.
  // Events of one exact time keep the order the wheel delivered them in.
  while (struct timeout* entry = timeouts_get(timeouts_)) {
    TimerWheelEvent* event = eventOf(entry);
    event->stateIs(TimerWheelState::notLinked);
    TimersAtTimeout& list = timersExpiryingSoon_.try_emplace(event->expirationTime_).first->second;
    event->stateIs(TimerWheelState::inTimersExpiryingSoon);
    list.pushBack(event);
  }
  if (timersExpiryingSoon_.empty())
    return 0;

  int count = 0;
  auto node = timersExpiryingSoon_.begin();
  while (node != timersExpiryingSoon_.end()) {
    if (node->first > now) {
      // Reported early by the ticks: waits for its moment, and the
      // setMasterTimer() that follows arms the master timer for it.
      KESTO_TRACE(Debug::kestoTimerWheel, 9, "TimerWheel", "Defer processing timers with expiry time {} > now {}",
                  node->first, now);
      return count;
    }
    // The head is read anew after every handler, which may stop others of
    // this list or start timers (those go to the wheel, not here).
    TimersAtTimeout& list = node->second;
    // Events come out of the map in time order, not in the order they sit in
    // memory: start loading the next node's first event while this one fires.
    if (auto next = std::next(node); next != timersExpiryingSoon_.end())
      __builtin_prefetch(next->second.head()->tqh_first);
    while (TimerWheelEvent* event = list.front()) {
      list.unlink(event);
      event->stateIs(TimerWheelState::notLinked);
      KESTO_WHEEL_TRACE_AS("timerExpired", 9, "timer {} expired", DisplayPointer(event));
      event->expirationTime_ = infinity;
      ++count;
      event->timeout();
    }
    node = timersExpiryingSoon_.erase(node);
  }
  return count;
}

// ---- factories ----------------------------------------------------------

std::shared_ptr<TimerWheel> getTimerWheel() {
  if (hasThreadLocalSingletons()) {
    thread_local const std::shared_ptr<TimerWheel> threadWheel =
        std::make_shared<TimerWheel>(Platform::eventPriorityDefault);
    return threadWheel;
  }
  static const std::shared_ptr<TimerWheel> processWheel = std::make_shared<TimerWheel>(Platform::eventPriorityDefault);
  return processWheel;
}

std::shared_ptr<TimerWheel> getTimerWheelForTaskScheduler(Platform::EventPriority priority) {
  return std::make_shared<TimerWheel>(priority);
}

int processExpiredTimersForTaskScheduler(const std::shared_ptr<TimerWheel>& wheel) {
  KESTO_WHEEL_TRACE_AS("processExpiredTimers", 8, "");
  return wheel->_processExpiredTimers();
}

} // namespace Kesto
