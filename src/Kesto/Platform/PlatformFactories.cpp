// The Platform:: entry points of the libevent backend.
#include <Kesto/Platform/LibeventControls.h>
#include <Kesto/Platform/Platform.h>

namespace Kesto::Platform {

Ptr<TimerControl> getTimerControl(TimeoutHandler* handler) { return getLeTimerControl(handler); }

Ptr<TimerControl> getTimerControl(TimeoutHandler* handler, EventPriority priority) {
  return getLeTimerControl(handler, priority);
}

Ptr<CallbackControl> getCallbackControl(CallbackHandler* handler) { return getLeCallbackControl(handler); }

Ptr<FdControl> getFdControl(FdEventHandler* handler) { return getLeFdControl(handler); }

void doEventLoop() { doLeEventLoop(); }

void doEventLoop(double timeout) { doLeEventLoop(timeout); }

void doEventLoopInWaitfor(double maxTimeout) { doLeEventLoopInWaitfor(maxTimeout); }

} // namespace Kesto::Platform
