#pragma once
#define EVENTKESTO_VERSION_STRING "0.1.0"
namespace Kesto {
// Version of the loaded libEventKesto, which may differ from the header's.
const char* eventKestoVersion() noexcept;
} // namespace Kesto
