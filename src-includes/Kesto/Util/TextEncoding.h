// The library's small text encodings and value comparisons: a six-character
// code of a 32-bit number that fits a file name, the family's byte hash, the
// text of an eight-byte magic number, short unique names of trace handlers
// of files, byte-wise equality by type, and a hexadecimal dump.
//
// The hashes are FNV-1a from the FNV offset basis of their width, mixed by
// the core library's Impl::HashMix, so that a hash computed here equals the
// one any library of the family computes for the same bytes.
#pragma once

#include <Kesto/Common/Export.h>

#include <Kesto/Core/String.h>

#include <cstring>

namespace Kesto::Util {

// Six characters, the least significant six bits first, from the table
// "A-Z a-z 0-9 _ =". Not the standard base64: one 32-bit number, always six
// characters, and no '/' or '+', so that it fits a file name.
KESTO_EXPORT String base64Encode(unsigned int value);

KESTO_EXPORT unsigned int hash(const String& text) noexcept;
KESTO_EXPORT unsigned int hash(const void* data, unsigned int length) noexcept;
KESTO_EXPORT unsigned long hash64(const String& text) noexcept;
KESTO_EXPORT unsigned long hash64(const void* data, unsigned int length) noexcept;

// The eight bytes of `magic` in memory order (least significant first) up to
// the first NUL: a magic number stored as eight characters reads as a word.
KESTO_EXPORT String decodeMagic(unsigned long magic);

// "{prefix}{Temp-}{code}-{base name}": a short name for the trace handler of
// a file, unique by the six-character code of the hash of the whole path
// (without its trailing '/' characters).
KESTO_EXPORT String traceHandleName(String path, const String& prefix, bool temporary);

// Whether the values of type T at two addresses are equal. Only the
// specialisations below exist. The signed integers compare the bytes of the
// unsigned ones of their width; float and double compare as numbers, so a
// NaN is unequal to itself and 0.0 equals -0.0. The addresses need not be
// aligned.
template <typename T>
struct IsEq;

// The values compared as `Stored`, the type whose equality IsEq<T> uses.
template <typename Stored>
struct IsEqAs {
  static bool isEq(const void* a, const void* b) noexcept {
    Stored x, y;
    std::memcpy(&x, a, sizeof x);
    std::memcpy(&y, b, sizeof y);
    return x == y;
  }
};

template <> struct IsEq<unsigned char> : IsEqAs<unsigned char> {};
template <> struct IsEq<signed char> : IsEqAs<unsigned char> {};
template <> struct IsEq<unsigned short> : IsEqAs<unsigned short> {};
template <> struct IsEq<short> : IsEqAs<unsigned short> {};
template <> struct IsEq<unsigned int> : IsEqAs<unsigned int> {};
template <> struct IsEq<int> : IsEqAs<unsigned int> {};
template <> struct IsEq<unsigned long> : IsEqAs<unsigned long> {};
template <> struct IsEq<long> : IsEqAs<unsigned long> {};
template <> struct IsEq<float> : IsEqAs<float> {};
template <> struct IsEq<double> : IsEqAs<double> {};

// Two pointers' worth of bytes at the addresses are the same.
struct IsEqPtr {
  static bool isEq(const void* a, const void* b) noexcept { return std::memcmp(a, b, sizeof(void*)) == 0; }
};

} // namespace Kesto::Util

namespace Kesto {

// The bytes in lower-case hexadecimal, two digits each, a blank after every
// fourth byte but the last: "00010203 0405". A length of 0 or below gives "".
KESTO_EXPORT String dumpHex(const void* data, int length);

} // namespace Kesto
