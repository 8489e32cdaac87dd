// The libevent backend of the event platform: the thread's event base, the
// loop functions and virtual time.
//
// Each thread that uses the platform gets its own event_base at first use
// (first control made, first loop run, or leInit()), with two priorities and
// edge-triggered support, on libevent's monotonic clock read precisely and
// without a per-iteration cache, so that its timeouts and Kesto::time() agree.
// The base stays until leFree(); controls are safe to destroy after it.
//
// Platform::... functions of Kesto/Platform/Platform.h forward to the le... and
// doLe... functions here.
#pragma once

#include <Kesto/Platform/PlatformEventPriority.h>

#include <sys/time.h>

struct event;
struct event_base;

namespace Kesto {

// Per-thread state, read on every arming: plain __thread with the
// initial-exec model, so that a read is one load off the thread pointer
// (no TLS wrapper call, no __tls_get_addr).
// The calling thread's base, null until registered.
extern __thread event_base* ev_base __attribute__((tls_model("initial-exec")));
// isMainThread() of the core library at the moment the base was registered.
extern __thread bool mainThread __attribute__((tls_model("initial-exec")));
// The thread's virtual time offset, which fast forward moves ahead; tv_usec
// stays below 1000000. Kesto::time() adds it to the monotonic clock.
extern __thread timeval virtualTimeOffset __attribute__((tls_model("initial-exec")));
// Process-wide fast-forward mode; written on the main thread only.
extern bool fastForward;

// ---- base management (calling thread) ------------------------------------
// A new base: libevent threading and log hooks set up once per process, then
// a base requiring edge-triggered events, with two priorities.
event_base* leCreateBase();
// Makes `base` the thread's base and refreshes mainThread. Registering the
// same base again is allowed; another base while one exists asserts.
void leRegisterBase(event_base* base);
// Creates and registers a base if the thread has none.
void leInit();
bool leInitialized() noexcept;
void setMainThread();
// Frees the thread's base, if any.
void leFree();
// For a forked child: reinitialises the base (or makes one). Never called by
// the library itself.
void leForkReinit();

// Sets the libevent priority of `ev`; asserts on failure.
void eventPrioritySet(event* ev, Platform::EventPriority priority);

// ---- the loop ------------------------------------------------------------
void doLeEventLoop();
void doLeEventLoop(double timeout);
void doLeEventLoopInWaitfor(double maxTimeout);
// Dispatches until a timer of `timeout` seconds at default priority breaks
// the loop.
void eventLoopTimeout(double timeout);

// Default seconds to wait for a condition: WAITFOR_DEFAULT when set and
// numeric, +infinity otherwise. Read once per process.
double waitForDefaultTimeout();

// libevent's log and fatal-error hooks, installed by leCreateBase().
void le_debug_cb(int severity, const char* message);
[[noreturn]] void le_fatal_cb(int err);

// ---- virtual time ----------------------------------------------------------
// The calling thread's virtual time offset in seconds.
double leVirtualTimeOffset() noexcept;
bool leFastForward() noexcept;
// Main thread only; see Platform::setFastForward.
void setLeFastForward(bool on);
void leRegisterFastForwardChangeNotifier(void (*notifier)());
// Moves the calling thread's clock and every pending timeout of its base
// forward by `delta` (normalised: tv_usec below 1000000).
void applyFastForwardDelta(const timeval* delta);
// The jump that reaches the first pending timer, plus 100 microseconds so
// that it is surely due; zero when it is already due. False, with `delay`
// untouched, when nothing is pending. Asserts when the mode is off.
bool fastForwardDelayToFirstTimer(timeval* delay);
// One jump, to the first timer or by `maxTimeout` if that is nearer, then
// one pass of the loop that runs what became due and never blocks.
void eventLoopFastForwardToFirstTimer(double maxTimeout);

} // namespace Kesto
