#include <Kesto/TimerWheel/TimerWheel.h>

#include <Kesto/Core/System.h>
#include <Kesto/Platform/Platform.h>
#include "TimerWheel/TimerWheelClock.h"
#include <Kesto/Debug/Trace.h>

#include <Timeouts/timeouts.h>

#include <algorithm>
#include <bit>
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
// The `expires` of an event in timersExpiryingSoon_ that has no place in
// the ring of the firing order.
constexpr U64 noFireOrder = ~U64(0);
// Events fetched ahead of the one that fires: enough to cover a memory
// latency with the work of firing the ones before.
constexpr U64 fireLookAhead = 12;

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

// ---- sorting a drain ----------------------------------------------------

namespace {

// A key whose unsigned order is the order of the double (no NaN reaches
// here): negative values have every bit flipped, others only the sign.
inline U64 orderKey(double time) noexcept {
  const U64 bits = std::bit_cast<U64>(time);
  return (bits >> 63) ? ~bits : bits | (U64(1) << 63);
}

// Below this many events an insertion sort beats the radix passes.
constexpr std::size_t radixThreshold = 64;
constexpr unsigned radixBits = 11;
constexpr std::size_t radixBuckets = std::size_t(1) << radixBits;

// Sorts `items` by key, stable, using `spare` (same size) as the second
// buffer; the result may end up in either, and the one that holds it is
// returned. Least significant digit first, over only the bits in which the
// keys differ: the drain of one tick spans 10 ms of expiry, some 30 bits,
// so three passes of 11 bits.
TimerWheel::Drained* sortDrain(TimerWheel::Drained* items, TimerWheel::Drained* spare, std::size_t n) noexcept {
  if (n < 2)
    return items;
  if (n < radixThreshold) {
    for (std::size_t i = 1; i < n; ++i) {
      const TimerWheel::Drained item = items[i];
      std::size_t j = i;
      for (; j > 0 && items[j - 1].key > item.key; --j)
        items[j] = items[j - 1];
      items[j] = item;
    }
    return items;
  }
  U64 low = items[0].key, high = items[0].key, ordered = 1;
  for (std::size_t i = 1; i < n; ++i) {
    const U64 key = items[i].key;
    ordered &= key >= items[i - 1].key;
    low = key < low ? key : low;
    high = key > high ? key : high;
  }
  if (ordered)
    return items;
  const unsigned width = 64u - unsigned(__builtin_clzll(low ^ high));
  U32 counts[radixBuckets];
  for (unsigned shift = 0; shift < width; shift += radixBits) {
    std::fill(counts, counts + radixBuckets, 0u);
    for (std::size_t i = 0; i < n; ++i)
      ++counts[(items[i].key >> shift) & (radixBuckets - 1)];
    U32 sum = 0;
    for (U32& count : counts) {
      const U32 c = count;
      count = sum;
      sum += c;
    }
    for (std::size_t i = 0; i < n; ++i)
      spare[counts[(items[i].key >> shift) & (radixBuckets - 1)]++] = items[i];
    std::swap(items, spare);
  }
  return items;
}

} // namespace

// ---- TimersAtTimeout ----------------------------------------------------

static_assert(sizeof(timeout_list) == 2 * sizeof(void*) &&
              alignof(timeout_list) <= alignof(TimerWheel::TimersAtTimeout) &&
              offsetof(timeout_list, tqh_first) == 0);

double TimerWheel::TimersAtTimeout::expiryOf(const struct timeout* entry) noexcept {
  return eventOf(const_cast<struct timeout*>(entry))->expirationTime_;
}

// Stable: a tie takes the earlier delivered event first.
struct timeout* TimerWheel::TimersAtTimeout::mergeByExpiry(struct timeout* early, struct timeout* late) noexcept {
  struct timeout* merged = nullptr;
  struct timeout** tail = &merged;
  while (early && late) {
    if (expiryOf(late) < expiryOf(early)) {
      *tail = late;
      tail = &late->tqe.tqe_next;
      late = late->tqe.tqe_next;
    } else {
      *tail = early;
      tail = &early->tqe.tqe_next;
      early = early->tqe.tqe_next;
    }
  }
  *tail = early ? early : late;
  return merged;
}

double TimerWheel::bucketOf(double expiry) noexcept {
  // Scaling by a power of two is exact; so is the floor. Infinities stay.
  constexpr double perSecond = 65536.0;
  return std::floor(expiry * perSecond) / perSecond;
}

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
  timeout_list* head = list();
  // The last event was appended just before, so it is in cache: comparing
  // with it costs nothing, and a bucket filled in time order (one timer, or
  // timers started in a loop with one delay) never needs sorting.
  if (sorted_ && head->tqh_first) {
    const struct timeout* last =
        reinterpret_cast<const struct timeout*>(reinterpret_cast<const char*>(head->tqh_last) -
                                                offsetof(struct timeout, tqe.tqe_next));
    if (event->expirationTime() < expiryOf(last))
      sorted_ = false;
  }
  timeout_list_insert_tail(head, entry);
}

void TimerWheel::TimersAtTimeout::sortSlow() noexcept {
  timeout_list* head = list();
  // A bottom-up merge sort of runs already in order (a binary counter of
  // merged runs, as many slots as a 64-bit count has bits). Slot k holds
  // events delivered before those of any lower slot and of the run in
  // hand, so each merge takes them as the earlier side.
  struct timeout* slots[64] = {};
  struct timeout* rest = head->tqh_first;
  while (rest) {
    struct timeout* run = rest;
    struct timeout* end = rest;
    while (end->tqe.tqe_next && expiryOf(end->tqe.tqe_next) >= expiryOf(end))
      end = end->tqe.tqe_next;
    rest = end->tqe.tqe_next;
    end->tqe.tqe_next = nullptr;
    unsigned k = 0;
    for (; slots[k]; ++k) {
      run = mergeByExpiry(slots[k], run);
      slots[k] = nullptr;
    }
    slots[k] = run;
  }
  struct timeout* merged = nullptr;
  for (struct timeout* slot : slots)
    if (slot)
      merged = merged ? mergeByExpiry(slot, merged) : slot;
  // Relink the backward links; `pending` still names this list.
  struct timeout** prev = &head->tqh_first;
  *prev = merged;
  for (struct timeout* entry = merged; entry; entry = entry->tqe.tqe_next) {
    entry->tqe.tqe_prev = prev;
    prev = &entry->tqe.tqe_next;
  }
  head->tqh_last = prev;
  sorted_ = true;
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
  // Among a million timers the event is rarely in cache. Reading the clock
  // orders the instruction stream (the counter read is fenced), so a load of
  // the event issued after it would start only once the clock is read: ask
  // for the event first, and the two waits overlap. The fields span 48
  // bytes from the second word, which may straddle two lines.
  __builtin_prefetch(event, 1);
  __builtin_prefetch(reinterpret_cast<const char*>(event) + sizeof(TimerWheelEvent) - 1, 1);
  const double expiry = timeout + now();
  // Refused before the event is touched: a running timer stays as it was.
  if (std::isnan(expiry)) [[unlikely]]
    assertExpiryNotANumber(event, timeout);
  // Already set for this very moment; or, both infinite, not running and
  // staying so.
  if (expiry == event->expirationTime_)
    return;
  const U64 tick = timeToTickFloor(expiry);
  if (event->expirationTime_ != infinity) {
    // A running timer moved to a later tick stays where the wheel holds it:
    // it is reported at its old tick, too early, and the drain puts it back
    // at its new one (see _processExpiredTimers). Unlinking would write to
    // both its neighbours, two cache misses among a million timers, for a
    // move that the wheel's next report of it can make in cache. An
    // infinite expiry is not moved so: it stops the timer for good.
    if (expiry != infinity && event->state() == TimerWheelState::inTimerWheel &&
        tick >= entryOf(event)->expires) {
      KESTO_TRACE(Debug::kestoTimerWheel, 9, "TimerWheel", "timer {} del timeout", DisplayPointer(event));
      event->expirationTime_ = expiry;
      KESTO_TRACE(Debug::kestoTimerWheel, 9, "TimerWheel", "timer {} set timeout {} expire at {} tick {}",
                  DisplayPointer(event), timeout, expiry, tick);
      if (masterTimerExpiryTime_ > expiry)
        setMasterTimer();
      return;
    }
    timerStop(event);
  }
  event->expirationTime_ = expiry;
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
    if (first != timersExpiryingSoon_.end())
      first->second.sortByExpiry();
    if (first != timersExpiryingSoon_.end() && first->second.front()->expirationTime() != infinity) {
      const double firstExpiryTime = first->second.front()->expirationTime();
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

  // Everything the wheel reports goes into the map, in the bucket of its
  // exact time. Events of one exact time keep the order the wheel delivered
  // them in: they share a bucket, and its sort is stable. Consecutive events
  // often share a bucket; the last one is looked up only when it changes.
  //
  // The wheel hands events out in tick order, which within a tick is the
  // order of their starts, not of their exact times. Each event is read
  // once here, while timeouts_get() has it in cache, into a flat array that
  // is sorted by exact time (stable); the map then receives every bucket in
  // order, and the events, now at known addresses, are fetched ahead.
  drained_.clear();
  const U64 currentTick = timeouts_now(timeouts_);
  while (struct timeout* entry = timeouts_get(timeouts_)) {
    TimerWheelEvent* event = eventOf(entry);
    // A timer moved later while the wheel held it is reported at its old
    // tick; if its own tick is still ahead, it goes back to the wheel there.
    if (const U64 tick = timeToTickFloor(event->expirationTime_); tick > entry->expires && tick > currentTick) {
      timeouts_add(timeouts_, entry, tick);
      continue;
    }
    event->stateIs(TimerWheelState::notLinked);
    drained_.push_back(Drained{orderKey(event->expirationTime_), event});
  }
  const std::size_t drainedCount = drained_.size();
  if (drainedSpare_.size() < drainedCount)
    drainedSpare_.resize(drained_.capacity());
  const Drained* sorted = sortDrain(drained_.data(), drainedSpare_.data(), drainedCount);
  const U64 firstFireOrder = fireOrderAppend(sorted, drainedCount);
  constexpr std::size_t lookAhead = 8;
  TimersAtTimeout* list = nullptr;
  double listBucket = 0.0;
  for (std::size_t i = 0; i < drainedCount; ++i) {
    if (i + lookAhead < drainedCount)
      __builtin_prefetch(sorted[i + lookAhead].event, 1);
    TimerWheelEvent* event = sorted[i].event;
    const double bucket = bucketOf(event->expirationTime_);
    if (!list || bucket != listBucket) {
      list = &timersExpiryingSoon_.try_emplace(bucket).first->second;
      listBucket = bucket;
    }
    event->stateIs(TimerWheelState::inTimersExpiryingSoon);
    entryOf(event)->expires = firstFireOrder == noFireOrder ? noFireOrder : firstFireOrder + i;
    list->pushBack(event);
  }
  if (timersExpiryingSoon_.empty()) {
    fireOrderBegin_ = fireOrderEnd_;
    return 0;
  }

  int count = 0;
  auto node = timersExpiryingSoon_.begin();
  while (node != timersExpiryingSoon_.end()) {
    // The head is read anew after every handler, which may stop others of
    // this list or start timers (those go to the wheel, not here). Taking
    // events off keeps the list in order, so it is sorted once per drain.
    TimersAtTimeout& list = node->second;
    list.sortByExpiry();
    // Events come out of the map in time order, not in the order they sit in
    // memory: start loading the next node's first event while this one fires.
    if (auto next = std::next(node); next != timersExpiryingSoon_.end())
      __builtin_prefetch(next->second.head()->tqh_first);
    while (TimerWheelEvent* event = list.front()) {
      if (event->expirationTime_ > now) {
        // Reported early by the ticks: waits for its moment, and the
        // setMasterTimer() that follows arms the master timer for it. Every
        // later event, here and in later buckets, is later still.
        KESTO_TRACE(Debug::kestoTimerWheel, 9, "TimerWheel",
                    "Defer processing timers with expiry time {} > now {}", event->expirationTime_, now);
        // What the ring holds before this event has fired or was stopped.
        if (const U64 seq = entryOf(event)->expires; seq >= fireOrderBegin_ && seq < fireOrderEnd_)
          fireOrderBegin_ = seq;
        return count;
      }
      fireOrderPrefetch(event);
      list.unlink(event);
      event->stateIs(TimerWheelState::notLinked);
      KESTO_WHEEL_TRACE_AS("timerExpired", 9, "timer {} expired", DisplayPointer(event));
      event->expirationTime_ = infinity;
      ++count;
      event->timeout();
    }
    node = timersExpiryingSoon_.erase(node);
  }
  fireOrderBegin_ = fireOrderEnd_;
  return count;
}

U64 TimerWheel::fireOrderAppend(const Drained* sorted, std::size_t count) {
  if (count == 0)
    return noFireOrder;
  const bool empty = fireOrderBegin_ == fireOrderEnd_;
  // Out of order with the ring (a timer started after the last drain with a
  // very short delay): these fire without the look-ahead.
  if (!empty && sorted[0].key < fireOrderLastKey_)
    return noFireOrder;
  const U64 live = fireOrderEnd_ - fireOrderBegin_;
  if (live + count > fireOrder_.size()) {
    std::size_t capacity = fireOrder_.empty() ? 1024 : fireOrder_.size();
    while (capacity < 2 * (live + count))
      capacity *= 2;
    decltype(fireOrder_) grown(capacity);
    for (U64 seq = fireOrderBegin_; seq != fireOrderEnd_; ++seq)
      grown[seq & (capacity - 1)] = fireOrder_[seq & (fireOrder_.size() - 1)];
    fireOrder_.swap(grown);
  }
  const std::size_t mask = fireOrder_.size() - 1;
  const U64 first = fireOrderEnd_;
  for (std::size_t i = 0; i < count; ++i)
    fireOrder_[fireOrderEnd_++ & mask] = sorted[i].event;
  fireOrderLastKey_ = sorted[count - 1].key;
  return first;
}

void TimerWheel::fireOrderPrefetch(const TimerWheelEvent* event) noexcept {
  const U64 seq = event->timeoutEntry().expires;
  if (seq < fireOrderBegin_ || seq >= fireOrderEnd_)
    return;
  // Everything before it in the ring has fired or was stopped.
  fireOrderBegin_ = seq + 1;
  if (seq + fireLookAhead < fireOrderEnd_)
    __builtin_prefetch(fireOrder_[(seq + fireLookAhead) & (fireOrder_.size() - 1)], 1);
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
