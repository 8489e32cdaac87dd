#include <Kesto/Debug/Loco.h>

namespace Kesto::Platform {

Locking::RecursiveLock& Loco::loco() {
  // Never destroyed: handlers and plugins are released from static
  // destructors of any library, in any order, and each takes this lock.
  static Locking::RecursiveLock* const lock = new Locking::RecursiveLock;
  return *lock;
}

bool Loco::owns_loco() noexcept { return loco().ownedByCaller(); }

} // namespace Kesto::Platform
