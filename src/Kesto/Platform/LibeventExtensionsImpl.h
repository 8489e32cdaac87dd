// The workers behind the libevent extensions, for the backend's own use.
#pragma once

#include <Kesto/Platform/LibeventBase.h>

namespace Kesto::Platform::Impl {

// The earliest pending timeout of `base`, `except` left out; -1 if none.
int firstTimeoutExcept(event_base* base, const event* except, timeval* first);
// The earliest pending timeout and the base's present time, both in the
// clock event_pending reports expiries in. False (first untouched) if none.
bool firstTimeoutAndNow(event_base* base, timeval* first, timeval* now);
int subtractOffset(event_base* base, const timeval* offset);

} // namespace Kesto::Platform::Impl
