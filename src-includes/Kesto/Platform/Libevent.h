// The libevent backend of the event platform: the thread's event base, the
// loop functions and virtual time.
//
// Each thread that uses the platform gets its own event_base at first use
// (first control made, first loop run, or leInit()), with two priorities and
// edge-triggered support. The base reads libevent's coarse monotonic clock;
// timeouts are lengthened by the coarse clock's lag, so that none fires
// before Kesto::time() says it is due.
//
// The base stays until leFree(); controls are safe to destroy after it.
// Ending the thread does not free it: a thread that used the platform must
// call leFree() before it ends, or its base and the descriptors the base
// holds (four on Linux: epoll, a pipe for signals, an eventfd for
// wake-ups) stay open until the process exits. A program that starts and
// ends threads runs out of descriptors that way.
//
// Time-outs of the loop functions, in seconds: NaN is a programming error
// and asserts before anything happens; a negative one is zero (one pass over
// what is due); from 1e15 on, and +infinity, there is no limit, and the loop
// runs for as long as it has anything to wait for.
//
// Platform::... functions of Kesto/Platform/Platform.h forward to the le... and
// doLe... functions here.
#pragma once

#include <Kesto/Common/Export.h>

#include <Kesto/Platform/PlatformEventPriority.h>

#include <sys/time.h>

struct event;
struct event_base;

namespace Kesto {

// Per-thread state, read on every arming: plain __thread with the
// initial-exec model, so that a read is one load off the thread pointer
// (no TLS wrapper call, no __tls_get_addr).
// The calling thread's base, null until registered.
extern KESTO_EXPORT __thread event_base* ev_base __attribute__((tls_model("initial-exec")));
// isMainThread() of the core library at the moment the base was registered.
extern KESTO_EXPORT __thread bool mainThread __attribute__((tls_model("initial-exec")));
// The thread's virtual time offset, which fast forward moves ahead; tv_usec
// stays below 1000000. Kesto::time() adds it to the monotonic clock.
extern KESTO_EXPORT __thread timeval virtualTimeOffset __attribute__((tls_model("initial-exec")));
// Process-wide fast-forward mode; written on the main thread only.
extern KESTO_EXPORT bool fastForward;

// ---- base management (calling thread) ------------------------------------
// A new base: libevent threading and log hooks set up once per process, then
// a base requiring edge-triggered events, with two priorities.
KESTO_EXPORT event_base* leCreateBase();
// Makes `base` the thread's base and refreshes mainThread. Registering the
// same base again is allowed; another base while one exists asserts.
KESTO_EXPORT void leRegisterBase(event_base* base);
// Creates and registers a base if the thread has none.
KESTO_EXPORT void leInit();
KESTO_EXPORT bool leInitialized() noexcept;
KESTO_EXPORT void setMainThread();
// Frees the thread's base, if any, and with it the base's descriptors. Call
// it on every thread that used the platform before the thread ends: thread
// exit does not free the base.
KESTO_EXPORT void leFree();
// For a forked child: reinitialises the base (or makes one). Never called by
// the library itself.
KESTO_EXPORT void leForkReinit();

// Sets the libevent priority of `ev`; asserts on failure.
KESTO_EXPORT void eventPrioritySet(event* ev, Platform::EventPriority priority);

// ---- the loop ------------------------------------------------------------
KESTO_EXPORT void doLeEventLoop();
KESTO_EXPORT void doLeEventLoop(double timeout);
KESTO_EXPORT void doLeEventLoopInWaitfor(double maxTimeout);
// Dispatches until a timer of `timeout` seconds at default priority breaks
// the loop; without a limit, until nothing is left to wait for.
KESTO_EXPORT void eventLoopTimeout(double timeout);

// Default seconds to wait for a condition: WAITFOR_DEFAULT when set and
// numeric, +infinity otherwise. Read once per process.
KESTO_EXPORT double waitForDefaultTimeout();

// libevent's log and fatal-error hooks, installed by leCreateBase().
KESTO_EXPORT void le_debug_cb(int severity, const char* message);
[[noreturn]] KESTO_EXPORT void le_fatal_cb(int err);

// ---- virtual time ----------------------------------------------------------
// The calling thread's virtual time offset in seconds.
KESTO_EXPORT double leVirtualTimeOffset() noexcept;
KESTO_EXPORT bool leFastForward() noexcept;
// Main thread only; see Platform::setFastForward.
KESTO_EXPORT void setLeFastForward(bool on);
KESTO_EXPORT void leRegisterFastForwardChangeNotifier(void (*notifier)());
// Moves the calling thread's clock and every pending timeout of its base
// forward by `delta` (normalised: tv_usec below 1000000).
KESTO_EXPORT void applyFastForwardDelta(const timeval* delta);
// The jump that reaches the first pending timer, plus 100 microseconds so
// that it is surely due; zero when it is already due. False, with `delay`
// untouched, when nothing is pending. Asserts when the mode is off.
KESTO_EXPORT bool fastForwardDelayToFirstTimer(timeval* delay);
// One jump, to the first timer or by `maxTimeout` if that is nearer, then
// one pass of the loop that runs what became due and never blocks. A
// negative `maxTimeout` jumps nothing; without a limit and without a timer
// the clock stays where it is. Asserts on NaN.
KESTO_EXPORT void eventLoopFastForwardToFirstTimer(double maxTimeout);

} // namespace Kesto
