// Small process and platform facts.
#pragma once

#include <Kesto/Core/Export.h>

#include <Kesto/Core/String.h>

#include <sys/types.h>

#include <typeinfo>

namespace Kesto {

// Kernel thread id of the caller. Cached per thread after the first call, so
// it costs a thread-local load; a fork handler drops the cache in the child.
// (A child made by a raw clone system call, which runs no fork handlers, must
// not call this before exec.)
KESTO_CORE_EXPORT pid_t gettid() noexcept;

// True when the caller is the process's main thread (its tid equals its pid),
// cached alike.
KESTO_CORE_EXPORT bool isMainThread() noexcept;

// Whether singletons of the family (timer wheels, say) are one per thread
// rather than one per process. This family keeps one event base per thread,
// so it answers true.
KESTO_CORE_EXPORT bool hasThreadLocalSingletons() noexcept;

// The text of an errno value, thread-safe.
KESTO_CORE_EXPORT String strerror(int error);

// A readable type name from a mangled one; the input is returned unchanged
// when it does not demangle.
KESTO_CORE_EXPORT String typeName(const char* mangledName);
inline String typeName(const std::type_info& type) { return typeName(type.name()); }
template <typename T>
String typeName() {
  return typeName(typeid(T));
}

// The fcntl command of open-file-description locks on this platform.
KESTO_CORE_EXPORT int cmd_F_OFD_SETLK() noexcept;

} // namespace Kesto
