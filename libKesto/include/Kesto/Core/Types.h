// Fixed-width integer names shared by the whole family.
#pragma once

#include <cstdint>

namespace Kesto {

using U8 = std::uint8_t;
using U16 = std::uint16_t;
using U32 = std::uint32_t;
using U64 = std::uint64_t;
using I32 = std::int32_t;
using I64 = std::int64_t;

} // namespace Kesto
