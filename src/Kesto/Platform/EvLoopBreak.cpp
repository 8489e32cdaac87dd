#include <Kesto/Platform/EvLoopBreak.h>
#include <Kesto/Platform/LibeventBase.h>
#include <Kesto/Trace.h>

namespace Kesto {

EvLoopBreak::EvLoopBreak(double timeout) {
  KESTO_TRACE(Debug::kestoLibevent, 8, "Kesto", "{} timeout {}", DisplayPointer(this), timeout);
  event_assign(&event_, ev_base, -1, 0, EvLoopBreak::handleBaseLoopBreak, this);
  eventPrioritySet(&event_, Platform::eventPriorityDefault);
  const timeval tv = Platform::Impl::secondsToTimeval(timeout);
  event_add(&event_, &tv);
}

EvLoopBreak::~EvLoopBreak() {
  KESTO_TRACE(Debug::kestoLibevent, 9, "Kesto", "{}", DisplayPointer(this));
  if (Platform::Impl::eventOnLiveBase(&event_))
    event_del(&event_);
}

void EvLoopBreak::handleBaseLoopBreak(int, short, void* self) {
  auto* loopBreak = static_cast<EvLoopBreak*>(self);
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
