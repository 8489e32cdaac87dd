// The workers behind the libevent extensions, for the backend's own use.
#pragma once

#include "Platform/LibeventBase.h"

#include <event2/event.h>
#include <event2/event_struct.h>

namespace Kesto::Platform::Impl {

// A zero-delay timer added for the time of one measurement: its expiry as
// event_pending gives it is the base's present time in event_pending's clock
// (read afresh, not the time cached at the top of the loop's turn).
class NowProbe {
public:
  explicit NowProbe(event_base* base) {
    event_base_update_cache_time(base);
    event_assign(&event_, base, -1, 0, nullptr, nullptr);
    eventPrioritySet(&event_, eventPriorityDefault);
    const timeval zero{0, 0};
    event_add(&event_, &zero);
  }
  ~NowProbe() { event_del(&event_); }
  NowProbe(const NowProbe&) = delete;
  NowProbe& operator=(const NowProbe&) = delete;

  const event* probe() const noexcept { return &event_; }
  timeval now() const noexcept {
    timeval now{0, 0};
    event_pending(&event_, EV_TIMEOUT, &now);
    return now;
  }

private:
  struct event event_;
};

// The earliest pending timeout of `base`, `except` left out; -1 if none.
int firstTimeoutExcept(event_base* base, const event* except, timeval* first);
// The earliest pending timeout and the base's present time, both in the
// clock event_pending reports expiries in. False (first untouched) if none.
bool firstTimeoutAndNow(event_base* base, timeval* first, timeval* now);
int subtractOffset(event_base* base, const timeval* offset);

} // namespace Kesto::Platform::Impl
