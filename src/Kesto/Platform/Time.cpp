#include <Kesto/Platform/Libevent.h>
#include <Kesto/Platform/Time.h>

#include <ctime>

namespace Kesto {

__thread timeval virtualTimeOffset __attribute__((tls_model("initial-exec"))) = {0, 0};

double leVirtualTimeOffset() noexcept {
  const timeval& offset = virtualTimeOffset;
  return double(offset.tv_usec) / 1e6 + double(offset.tv_sec);
}

Time time() noexcept {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return double(ts.tv_nsec) / 1e9 + double(ts.tv_sec) + leVirtualTimeOffset();
}

} // namespace Kesto
