// The calling thread's virtual time offset, kept beside its event base.
#pragma once

#include <sys/time.h>

namespace Kesto {

namespace Platform::Impl {
// tv_usec stays below 1000000. Read by every Kesto::time(): initial-exec
// so that the read is one load off the thread pointer.
extern __thread timeval virtualTimeOffset __attribute__((tls_model("initial-exec")));
} // namespace Platform::Impl

// The offset in seconds.
double leVirtualTimeOffset() noexcept;

} // namespace Kesto
