#include "TimerWheel/TimerWheelTimerControl.h"

#include <Kesto/Debug/Trace.h>

namespace Kesto {

TimerWheelTimerControl::~TimerWheelTimerControl() noexcept {
  wheel_.reset();
  KESTO_ASSERT_H(Debug::kestoTimerWheel, state() == TimerWheelState::notLinked, "TimerWheelEvent",
                 "TimerWheelEvent {} destroyed while {}", DisplayPointer(static_cast<TimerWheelEvent*>(this)), state());
}

namespace Platform {
Ptr<TimerControl> getTimerControl(TimeoutHandler* handler, std::shared_ptr<TimerWheel> wheel) {
  return Ptr<TimerControl>(new TimerWheelTimerControl(handler, std::move(wheel)));
}
} // namespace Platform

} // namespace Kesto
