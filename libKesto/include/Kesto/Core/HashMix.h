// The family's byte hash: FNV-1a, in 32 and 64 bits.
//
// Callers choose the seed (the FNV offset basis of the width, normally), and
// every library of the family that hashes the same bytes from the same seed
// gets the same value, which is what lets hashes be stored and compared across
// processes.
#pragma once

#include <Kesto/Core/Export.h>

#include <Kesto/Core/Types.h>

namespace Kesto::Impl {

struct KESTO_CORE_EXPORT HashMix {
  static constexpr U32 fnvOffset32 = 0x811c9dc5u;
  static constexpr U64 fnvOffset64 = 0xcbf29ce484222325ull;
  static constexpr U32 fnvPrime32 = 16777619u;
  static constexpr U64 fnvPrime64 = 1099511628211ull;

  static U32 mix(U32 hash, const void* data, U32 length) noexcept {
    auto* p = static_cast<const unsigned char*>(data);
    for (U32 i = 0; i < length; ++i) {
      hash ^= p[i];
      hash *= fnvPrime32;
    }
    return hash;
  }

  static U64 mix(U64 hash, const void* data, U32 length) noexcept {
    auto* p = static_cast<const unsigned char*>(data);
    for (U32 i = 0; i < length; ++i) {
      hash ^= p[i];
      hash *= fnvPrime64;
    }
    return hash;
  }
};

} // namespace Kesto::Impl
