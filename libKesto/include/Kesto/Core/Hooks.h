// Hooks through which a library above the core plugs its own behaviour in.
//
// The core reads time and learns of the switch to thread-safe pointers
// through these, so that it never depends on the libraries built on it.
#pragma once

namespace Kesto::Impl {

using TimeFn = double (*)();
using ThreadSafePointerFn = void (*)(bool enabled);

// The clock of the family, in seconds. Defaults to CLOCK_MONOTONIC; the event
// library installs its own (which adds the thread's virtual time offset).
void timeIndirectFnIs(TimeFn fn) noexcept;
TimeFn timeIndirectFn() noexcept;
double timeIndirect() noexcept;

// Told whenever ThreadControl::tsp_ changes. Defaults to a function that does
// nothing.
void threadSafePointerIsFnIs(ThreadSafePointerFn fn) noexcept;
ThreadSafePointerFn threadSafePointerIsFn() noexcept;

} // namespace Kesto::Impl
