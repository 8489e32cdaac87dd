#pragma once

#include <Kesto/Common/Export.h>
#define EVENTKESTO_VERSION_STRING "0.1.0"
namespace Kesto {
// Version of the loaded libEventKesto, which may differ from the header's.
KESTO_EXPORT const char* eventKestoVersion() noexcept;
} // namespace Kesto
