// Hooks through which a library above the core plugs its own behaviour in.
//
// The core reads time and learns of the switch to thread-safe pointers
// through these, so that it never depends on the libraries built on it.
#pragma once

#include <Kesto/Core/Export.h>

namespace Kesto::Impl {

using TimeFn = double (*)();
using ThreadSafePointerFn = void (*)(bool enabled);

// The clock of the family, in seconds. Defaults to CLOCK_MONOTONIC; the event
// library installs its own (which adds the thread's virtual time offset).
KESTO_CORE_EXPORT void timeIndirectFnIs(TimeFn fn) noexcept;
KESTO_CORE_EXPORT TimeFn timeIndirectFn() noexcept;
KESTO_CORE_EXPORT double timeIndirect() noexcept;

// Told whenever ThreadControl::tsp_ changes. Defaults to a function that does
// nothing.
KESTO_CORE_EXPORT void threadSafePointerIsFnIs(ThreadSafePointerFn fn) noexcept;
KESTO_CORE_EXPORT ThreadSafePointerFn threadSafePointerIsFn() noexcept;

} // namespace Kesto::Impl
