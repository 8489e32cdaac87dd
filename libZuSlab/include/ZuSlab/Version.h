#pragma once
#define ZUSLAB_VERSION_STRING "0.1.0"
namespace ZuSlab {
// Version of the loaded library, which may differ from the header's.
const char* version() noexcept;
} // namespace ZuSlab
