// TimerWheelTimerControl: a platform timer control served by a TimerWheel.
//
// It is the event itself (TimerWheelEvent) and holds a share of its wheel,
// so the wheel outlives every control on it. Made with plain new by
// Platform::getTimerControl(handler, wheel) and owned by the Ptr it returns.
// It does not stop itself when destroyed: its owner stops it first, and a
// control destroyed while running ends the process with the event's
// assertion.
#pragma once

#include <Kesto/Platform/PlatformControls.h>
#include <Kesto/TimerWheel/TimerWheel.h>
#include <Kesto/TimerWheel/TimerWheelEvent.h>

#include <memory>

namespace Kesto {

class TimerWheelTimerControl final : public Platform::TimerControl, public TimerWheelEvent {
public:
  TimerWheelTimerControl(Platform::TimeoutHandler* handler, std::shared_ptr<TimerWheel> wheel) noexcept
      : TimerControl(handler), wheel_(std::move(wheel)) {}
  // Gives up the share of the wheel, then asserts unless notLinked.
  ~TimerWheelTimerControl() noexcept override;

  void setTimeout(double seconds) override { TimerWheelEvent::setTimeout(wheel_, seconds); }
  void delTimeout() override { TimerWheelEvent::delTimeout(wheel_); }
  double remainingTimeout() const override { return TimerWheelEvent::remainingTimeout(); }
  // The wheel's exceptions policy is the handler's own: none is caught here.
  void timeout() override { handler_->timeout(); }

private:
  std::shared_ptr<TimerWheel> wheel_;
};

} // namespace Kesto
