// The platform's one process-wide recursive lock.
//
// It guards the registries that several threads may reach: the trace
// handlers and controls, the trace format and trace file, the plugin table
// and the introspection map; the event loop also holds it around its wait.
// It is recursive because building a handler or a control under it calls
// code that takes it again and asserts that it is held.
//
// The lock is made at first use and never destroyed, so that static
// initialisers and destructors of any library may take it in any order.
#pragma once

#include <Kesto/Common/Export.h>

#include <Kesto/Core/Locking.h>

namespace Kesto::Platform {

class KESTO_EXPORT Loco {
public:
  Loco() = delete;

  // The one lock of the process.
  static Locking::RecursiveLock& loco();
  // True when the calling thread holds it.
  static bool owns_loco() noexcept;

  // Holds the lock for its scope.
  class Guard {
  public:
    Guard() : lock_(loco()) { lock_.lock(); }
    ~Guard() { lock_.unlock(); }
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;

  private:
    Locking::RecursiveLock& lock_;
  };
};

} // namespace Kesto::Platform
