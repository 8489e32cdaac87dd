#include <Kesto/Core/HashMix.h>

#include <gtest/gtest.h>

#include <string_view>

using Kesto::U32;
using Kesto::U64;
using Kesto::Impl::HashMix;

namespace {

U32 fnv32(std::string_view text) {
  return HashMix::mix(HashMix::fnvOffset32, text.data(), static_cast<U32>(text.size()));
}
U64 fnv64(std::string_view text) {
  return HashMix::mix(HashMix::fnvOffset64, text.data(), static_cast<U32>(text.size()));
}

} // namespace

TEST(HashMix, Fnv1a32KnownVectors) {
  EXPECT_EQ(fnv32(""), 0x811c9dc5u);
  EXPECT_EQ(fnv32("a"), 0xe40c292cu);
  EXPECT_EQ(fnv32("foobar"), 0xbf9cf968u);
}

TEST(HashMix, Fnv1a64KnownVectors) {
  EXPECT_EQ(fnv64(""), 0xcbf29ce484222325ull);
  EXPECT_EQ(fnv64("a"), 0xaf63dc4c8601ec8cull);
  EXPECT_EQ(fnv64("foobar"), 0x85944171f73967e8ull);
}

TEST(HashMix, MixingContinuesFromAPartialHash) {
  // Hashing in two pieces equals hashing the whole: the seed is the state.
  const U32 part32 = fnv32("foo");
  EXPECT_EQ(HashMix::mix(part32, "bar", 3), fnv32("foobar"));
  const U64 part64 = fnv64("foo");
  EXPECT_EQ(HashMix::mix(part64, "bar", 3), fnv64("foobar"));
}

TEST(HashMix, BytesAboveSevenBitsAreUnsigned) {
  // 0xff must mix as 255, not as a sign-extended -1.
  const unsigned char byte = 0xff;
  const U32 expected = (HashMix::fnvOffset32 ^ 0xffu) * HashMix::fnvPrime32;
  EXPECT_EQ(HashMix::mix(HashMix::fnvOffset32, &byte, 1), expected);
}
