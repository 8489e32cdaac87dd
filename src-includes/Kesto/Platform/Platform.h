// The event platform: factories of controls, the event loop, fast forward.
//
// Every function here works on the calling thread's event base and creates
// it when missing: each thread that uses the platform has its own base and
// there is no wake-up from one thread to another. Controls made by these
// factories belong to the calling thread.
//
// The base is not freed when its thread ends. A thread that used any of
// these functions must call Kesto::leFree() (Kesto/Platform/Libevent.h)
// before it ends, once its controls are disarmed; otherwise the base and its
// descriptors (four on Linux) stay open until the process exits, and a
// program that starts and ends threads runs out of descriptors.
//
// Further factory overloads (controls served by a task of a scheduler, timers
// on a timer wheel) are declared beside their implementations.
#pragma once

#include <Kesto/Common/Export.h>

#include <Kesto/Core/Ptr.h>
#include <Kesto/Platform/PlatformControls.h>
#include <Kesto/Platform/PlatformEventPriority.h>
#include <Kesto/Platform/PlatformHandlers.h>

namespace Kesto::Platform {

// ---- factories: each returns a new control holding one reference ------
// A libevent timer at eventPriorityDefault.
KESTO_EXPORT Ptr<TimerControl> getTimerControl(TimeoutHandler* handler);
// A libevent timer at the given priority.
KESTO_EXPORT Ptr<TimerControl> getTimerControl(TimeoutHandler* handler, EventPriority priority);
// A deferred callback: a zero-delay libevent timer at eventPriorityDefault.
KESTO_EXPORT Ptr<CallbackControl> getCallbackControl(CallbackHandler* handler);
// A libevent descriptor watch; read interest on, write interest off.
KESTO_EXPORT Ptr<FdControl> getFdControl(FdEventHandler* handler);

// ---- the event loop ----------------------------------------------------
// Dispatches until nothing is left to wait for or the loop is broken.
KESTO_EXPORT void doEventLoop();
// Dispatches for `timeout` seconds and returns.
KESTO_EXPORT void doEventLoop(double timeout);
// One bounded turn, waiting at most `maxTimeout` seconds, for a caller that
// polls a condition. Holds Platform::Loco around the wait.
KESTO_EXPORT void doEventLoopInWaitfor(double maxTimeout);
// For both: a negative time-out is zero, and the call makes one pass over
// what is due. From 1e15 seconds on, and for +infinity, there is no limit:
// the call returns once nothing is left to wait for (at once on an empty
// base). Under fast forward that means no timer left, and the clock does not
// move past the last one. NaN asserts, before anything happens.

// ---- virtual time --------------------------------------------------------
// With fast forward on, the loop does not sleep until the next timer: it
// moves the thread's virtual clock (Kesto::time()) and every pending timeout
// of its base forward to that timer and fires it at once.
KESTO_EXPORT bool fastForward();
// Switches the mode; main thread only (asserts elsewhere, even for a call
// that changes nothing). A change calls every registered notifier.
KESTO_EXPORT void setFastForward(bool on);
// Moves the calling thread's virtual time, and its pending timeouts, forward
// by `seconds`. Asserts when the mode is off, and refuses (asserts, and
// moves nothing) a value that is not finite or is 1e15 seconds or more
// either way. The sign is not checked: a negative value moves them back.
KESTO_EXPORT void fastForwardBy(double seconds);
// Adds a function to call on the main thread whenever the mode changes; a
// function registered twice is held once.
KESTO_EXPORT void registerFastForwardChangeNotifier(void (*notifier)());

} // namespace Kesto::Platform
