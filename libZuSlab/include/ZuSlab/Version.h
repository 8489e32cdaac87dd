#pragma once

#include <ZuSlab/Export.h>
#define ZUSLAB_VERSION_STRING "0.1.0"
namespace ZuSlab {
// Version of the loaded library, which may differ from the header's.
ZUSLAB_EXPORT const char* version() noexcept;
} // namespace ZuSlab
