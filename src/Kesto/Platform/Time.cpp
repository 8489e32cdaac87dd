#include <Kesto/Platform/Libevent.h>
#include <Kesto/Platform/Time.h>
#include "Platform/SteadyClockImpl.h"

namespace Kesto {

__thread timeval virtualTimeOffset __attribute__((tls_model("initial-exec"))) = {0, 0};

double leVirtualTimeOffset() noexcept {
  const timeval& offset = virtualTimeOffset;
  return double(offset.tv_usec) / 1e6 + double(offset.tv_sec);
}

Time time() noexcept {
  // The reading is scaled by a multiplication, not a division: it waits for
  // the counter, so its latency adds to the call's. The offset's conversion
  // does not depend on the counter and overlaps with it. Nanoseconds since
  // boot stay exact in a double for 104 days (2^53 ns); after that a
  // reading rounds to 2 ns. The offset stays a double of its own: it may be
  // far beyond what 64-bit nanoseconds hold.
  return double(Platform::Impl::steadyClockRead()) * 1e-9 + leVirtualTimeOffset();
}

} // namespace Kesto
