#include <ZuSlab/Version.h>

namespace ZuSlab {
const char* version() noexcept { return ZUSLAB_VERSION_STRING; }
} // namespace ZuSlab
