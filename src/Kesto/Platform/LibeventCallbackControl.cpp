#include <Kesto/Platform/LibeventControls.h>
#include "Platform/LibeventBase.h"
#include <Kesto/Debug/Trace.h>

#include <ZuSlab/Allocator.h>

#include <cstddef>

namespace Kesto {

LibeventCallbackControl::LibeventCallbackControl(Platform::CallbackHandler* handler)
    : CallbackControl(handler), backend_() {}

LibeventCallbackControl::~LibeventCallbackControl() { LibeventCallbackControl::cancelCallback(); }

void LibeventCallbackControl::requestCallback() {
  KESTO_TRACE(Debug::kestoLibevent, 9, "Kesto", "Callback {} request", DisplayPointer(this));
  // A zero-delay timer: it runs in the next pass of the loop, and a repeated
  // request deletes and re-adds the same event, so requests collapse.
  backend_.setTimeout(0.0);
}

void LibeventCallbackControl::cancelCallback() {
  KESTO_TRACE(Debug::kestoLibevent, 9, "Kesto", "Callback {} cancel", DisplayPointer(this));
  backend_.delTimeout();
}

bool LibeventCallbackControl::pendingCallback() const {
  // The same answer as remainingTimeout() being finite, without reading the
  // clock: the backend's timer is pending.
  return backend_.pending();
}

void* LibeventCallbackControl::operator new(std::size_t size) { return Allocator<std::byte>().allocate(size); }
void LibeventCallbackControl::operator delete(void* p) noexcept {
  Allocator<std::byte>().deallocate(static_cast<std::byte*>(p), 0);
}

LibeventCallbackControl::Backend::Backend()
    : TimeoutHandler(), LibeventTimerControl(static_cast<Platform::TimeoutHandler*>(this),
                                             Platform::eventPriorityDefault) {}

LibeventCallbackControl* LibeventCallbackControl::Backend::owner() noexcept {
  // The backend is always the member backend_ of its control.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winvalid-offsetof"
  constexpr std::size_t offset = offsetof(LibeventCallbackControl, backend_);
#pragma GCC diagnostic pop
  return reinterpret_cast<LibeventCallbackControl*>(reinterpret_cast<char*>(this) - offset);
}

void LibeventCallbackControl::Backend::timeout() {
  LibeventCallbackControl* control = owner();
  KESTO_TRACE(Debug::kestoLibevent, 9, "Kesto", "Callback {} execute", DisplayPointer(control));
  Platform::CallbackHandler* handler = control->handler_;
  try {
    handler->callback();
  } catch (...) {
    if (!handler->handleCallbackException())
      throw;
    KESTO_TRACE(Debug::kestoLibevent, 9, "Kesto", "Callback notification exception was handled");
  }
}

Ptr<Platform::CallbackControl> getLeCallbackControl(Platform::CallbackHandler* handler) {
  return Ptr<Platform::CallbackControl>(new LibeventCallbackControl(handler));
}

} // namespace Kesto
