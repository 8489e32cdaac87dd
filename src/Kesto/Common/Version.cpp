#include <Kesto/Common/Version.h>

namespace Kesto {
const char* eventKestoVersion() noexcept { return EVENTKESTO_VERSION_STRING; }
} // namespace Kesto
