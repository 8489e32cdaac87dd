#include <Kesto/RefCounting.h>
#include <Kesto/Trace.h>

namespace Kesto::Platform {

void refCountingEnabledIs(bool) { KESTO_FAIL("Kesto::Platform", "not available in libEventKesto.so"); }

bool refCountingEnabled() { KESTO_FAIL("Kesto::Platform", "not available in libEventKesto.so"); }

} // namespace Kesto::Platform
