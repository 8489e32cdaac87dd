#include <Kesto/Core/Hooks.h>
#include <Kesto/Core/ThreadControl.h>

namespace Kesto {

bool ThreadControl::tsp_ = false;

void ThreadControl::threadSafePointersIs(bool enabled) {
  if (tsp_ == enabled)
    return;
  tsp_ = enabled;
  Impl::threadSafePointerIsFn()(enabled);
}

} // namespace Kesto
