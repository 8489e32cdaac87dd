#include "Platform/EvLoopBreak.h"
#include "Platform/LibeventBase.h"
#include <Kesto/Debug/Trace.h>

#include <optional>

namespace Kesto {

EvLoopBreak::EvLoopBreak(double timeout) {
  KESTO_TRACE(Debug::kestoLibevent, 8, "Kesto", "{} timeout {}", DisplayPointer(this), timeout);
  event_assign(&event_, ev_base, -1, 0, EvLoopBreak::handleBaseLoopBreak, this);
  eventPrioritySet(&event_, Platform::eventPriorityDefault);
  // Without a limit the break is never added, and the loop runs for as long
  // as it has anything to wait for.
  if (const std::optional<timeval> tv = Platform::Impl::secondsToTimeval(timeout)) {
    const timeval onBaseClock = Platform::Impl::forBaseClock(*tv);
    event_add(&event_, &onBaseClock);
  }
}

EvLoopBreak::~EvLoopBreak() {
  KESTO_TRACE(Debug::kestoLibevent, 9, "Kesto", "{}", DisplayPointer(this));
  if (Platform::Impl::eventOnLiveBase(&event_))
    event_del(&event_);
}

namespace {
// Marks the second delivery of a break that let others go first; a timer
// never gets EV_SIGNAL from libevent.
constexpr short requeued = EV_SIGNAL;
} // namespace

void EvLoopBreak::handleBaseLoopBreak(int, short what, void* self) {
  auto* loopBreak = static_cast<EvLoopBreak*>(self);
  // Timers due at the same microsecond as the break are popped in no set
  // order, so the break may come first among events that are due with it.
  // Going once to the back of the active queue lets every event that became
  // due in this pass run before the loop stops.
  if (!(what & requeued) && event_base_get_num_events(ev_base, EVENT_BASE_COUNT_ACTIVE) > 0) {
    event_active(&loopBreak->event_, EV_TIMEOUT | requeued, 1);
    return;
  }
  KESTO_TRACE(Debug::kestoLibevent, 8, "Kesto", "{}", DisplayPointer(loopBreak));
  event_base_loopbreak(ev_base);
  event_del(&loopBreak->event_);
  try {
    Platform::Impl::afterHandler();
  } catch (...) {
    Platform::Impl::handlerThrew(std::current_exception());
  }
}

} // namespace Kesto
