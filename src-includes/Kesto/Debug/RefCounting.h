// Switching reference counting on or off is a decision of the core library
// (ThreadControl::threadSafePointersIs); this library keeps the two entry
// points only so that a caller written against another platform fails loudly
// instead of silently doing nothing. Both assert.
#pragma once

#include <Kesto/Common/Export.h>

namespace Kesto::Platform {

[[noreturn]] KESTO_EXPORT void refCountingEnabledIs(bool enabled);
[[noreturn]] KESTO_EXPORT bool refCountingEnabled();

} // namespace Kesto::Platform
