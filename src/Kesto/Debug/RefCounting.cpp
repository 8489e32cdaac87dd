#include <Kesto/Debug/RefCounting.h>
#include <Kesto/Debug/Trace.h>

namespace Kesto::Platform {

void refCountingEnabledIs(bool) { KESTO_FAIL("Kesto::Platform", "not available in libEventKesto.so"); }

bool refCountingEnabled() { KESTO_FAIL("Kesto::Platform", "not available in libEventKesto.so"); }

} // namespace Kesto::Platform
