// The calling thread's virtual time offset, kept beside its event base.
#pragma once

#include <sys/time.h>

namespace Kesto {

namespace Platform::Impl {
// tv_usec stays below 1000000.
extern thread_local timeval virtualTimeOffset;
} // namespace Platform::Impl

// The offset in seconds.
double leVirtualTimeOffset() noexcept;

} // namespace Kesto
