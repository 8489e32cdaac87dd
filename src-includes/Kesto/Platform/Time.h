// The library's clock.
//
// Kesto::time() is the monotonic clock plus the calling thread's virtual time
// offset, which fast forward moves ahead to skip waits. Everything that
// measures or schedules (timer wheel, task run times, quanta) reads this
// clock, so a jump of virtual time is seen by all of them alike.
#pragma once

#include <Kesto/Common/Export.h>

namespace Kesto {

// Seconds, monotonic, virtual time included.
using Time = double;

KESTO_EXPORT Time time() noexcept;

} // namespace Kesto
