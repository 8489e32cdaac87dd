// The small encodings: the six-character code, the family's hashes, magic
// numbers, trace handle names, typed equality and the hexadecimal dump.
#include <Kesto/EventKesto.h>

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <string>

namespace Util = Kesto::Util;

// --- base64Encode -------------------------------------------------------------------------------

TEST(Base64Encode, ZeroIsSixAs) { EXPECT_EQ("AAAAAA", Util::base64Encode(0)); }

TEST(Base64Encode, LeastSignificantSixBitsComeFirst) {
  EXPECT_EQ("BAAAAA", Util::base64Encode(1));
  EXPECT_EQ("ABAAAA", Util::base64Encode(64));
  EXPECT_EQ("_AAAAA", Util::base64Encode(62));
  EXPECT_EQ("=AAAAA", Util::base64Encode(63));
  EXPECT_EQ("aAAAAA", Util::base64Encode(26));
  EXPECT_EQ("0AAAAA", Util::base64Encode(52));
  // 32 bits: five full digits and the two top bits in the sixth.
  EXPECT_EQ("=====D", Util::base64Encode(0xffffffffu));
  EXPECT_EQ("AAAAAC", Util::base64Encode(0x80000000u));
}

TEST(Base64Encode, EveryCodeIsSixCharactersThatFitAFileName) {
  for (unsigned value : {0u, 1u, 12345u, 0xdeadbeefu, 0xffffffffu}) {
    const Kesto::String code = Util::base64Encode(value);
    ASSERT_EQ(6u, code.size());
    EXPECT_EQ(std::string::npos, code.view().find_first_not_of(
                                     "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_="));
  }
}

// --- hashes -------------------------------------------------------------------------------------

// The published FNV-1a values: the seeds are the FNV offset bases.
TEST(Hash, IsFnv1aFromTheOffsetBasis) {
  EXPECT_EQ(0x811c9dc5u, Util::hash(Kesto::String("")));
  EXPECT_EQ(0xe40c292cu, Util::hash(Kesto::String("a")));
  EXPECT_EQ(0xbf9cf968u, Util::hash(Kesto::String("foobar")));
  EXPECT_EQ(0xcbf29ce484222325ul, Util::hash64(Kesto::String("")));
  EXPECT_EQ(0xaf63dc4c8601ec8cul, Util::hash64(Kesto::String("a")));
  EXPECT_EQ(0x85944171f73967e8ul, Util::hash64(Kesto::String("foobar")));
}

TEST(Hash, MatchesTheCoreLibraryForTheSameBytes) {
  const unsigned char bytes[] = {0, 1, 2, 0xff, 'x', 0};
  using Kesto::Impl::HashMix;
  EXPECT_EQ(HashMix::mix(HashMix::fnvOffset32, bytes, sizeof bytes), Util::hash(bytes, sizeof bytes));
  EXPECT_EQ(HashMix::mix(HashMix::fnvOffset64, bytes, sizeof bytes), Util::hash64(bytes, sizeof bytes));
  // A String and its bytes hash alike, NUL bytes included.
  const Kesto::String text(std::string_view(reinterpret_cast<const char*>(bytes), sizeof bytes));
  EXPECT_EQ(Util::hash(bytes, sizeof bytes), Util::hash(text));
  EXPECT_EQ(Util::hash64(bytes, sizeof bytes), Util::hash64(text));
  EXPECT_EQ(0x811c9dc5u, Util::hash(nullptr, 0));
}

// --- decodeMagic --------------------------------------------------------------------------------

TEST(DecodeMagic, EightCharactersReadAsAWord) {
  unsigned long magic;
  std::memcpy(&magic, "KESTOLOG", 8);
  EXPECT_EQ("KESTOLOG", Util::decodeMagic(magic));
  EXPECT_EQ("ABC", Util::decodeMagic(0x434241ul));
}

TEST(DecodeMagic, EndsAtTheFirstNulByte) {
  EXPECT_EQ("", Util::decodeMagic(0));
  EXPECT_EQ("", Util::decodeMagic(0x4142434400000000ul));
  EXPECT_EQ("AB", Util::decodeMagic(0x4300004241ul));
}

// --- traceHandleName ----------------------------------------------------------------------------

TEST(TraceHandleName, PrefixCodeOfTheWholePathAndBaseName) {
  const Kesto::String code = Util::base64Encode(Util::hash(Kesto::String("/var/log/app.log")));
  EXPECT_EQ("File" + code.str() + "-app.log", Util::traceHandleName("/var/log/app.log", "File", false));
  EXPECT_EQ("FileTemp-" + code.str() + "-app.log", Util::traceHandleName("/var/log/app.log", "File", true));
}

TEST(TraceHandleName, TrailingSlashesAreDropped) {
  EXPECT_EQ(Util::traceHandleName("/var/log/dir", "P", false), Util::traceHandleName("/var/log/dir///", "P", false));
  const Kesto::String code = Util::base64Encode(Util::hash(Kesto::String("/var/log/dir")));
  EXPECT_EQ("P" + code.str() + "-dir", Util::traceHandleName("/var/log/dir/", "P", false));
}

TEST(TraceHandleName, PathsOfOneBaseNameGetDifferentCodes) {
  EXPECT_NE(Util::traceHandleName("/a/name", "", false), Util::traceHandleName("/b/name", "", false));
}

TEST(TraceHandleName, NoSlashEmptyAndRoot) {
  const Kesto::String plain = Util::base64Encode(Util::hash(Kesto::String("name")));
  EXPECT_EQ(plain.str() + "-name", Util::traceHandleName("name", "", false));
  const Kesto::String empty = Util::base64Encode(Util::hash(Kesto::String("")));
  EXPECT_EQ("x" + empty.str() + "-", Util::traceHandleName("", "x", false));
  EXPECT_EQ("x" + empty.str() + "-", Util::traceHandleName("///", "x", false));
}

// --- IsEq -----------------------------------------------------------------------------------------

template <typename T>
bool eq(T a, T b) {
  return Util::IsEq<T>::isEq(&a, &b);
}

TEST(IsEq, IntegersCompareTheirValues) {
  EXPECT_TRUE(eq<unsigned char>(200, 200));
  EXPECT_FALSE(eq<unsigned char>(200, 201));
  EXPECT_TRUE(eq<signed char>(-1, -1));
  EXPECT_FALSE(eq<signed char>(-1, 1));
  EXPECT_TRUE(eq<unsigned short>(65535, 65535));
  EXPECT_FALSE(eq<short>(-2, 2));
  EXPECT_TRUE(eq<unsigned int>(0xdeadbeefu, 0xdeadbeefu));
  EXPECT_FALSE(eq<int>(std::numeric_limits<int>::min(), std::numeric_limits<int>::max()));
  EXPECT_TRUE(eq<unsigned long>(~0ul, ~0ul));
  EXPECT_TRUE(eq<long>(std::numeric_limits<long>::min(), std::numeric_limits<long>::min()));
  EXPECT_FALSE(eq<long>(0, 1l << 40));
}

TEST(IsEq, SignedAndUnsignedOfAWidthCompareTheSameBytes) {
  const short minusOne = -1;
  const unsigned short allOnes = 0xffff;
  EXPECT_TRUE(Util::IsEq<short>::isEq(&minusOne, &allOnes));
  EXPECT_TRUE(Util::IsEq<unsigned short>::isEq(&minusOne, &allOnes));
}

TEST(IsEq, FloatingPointComparesAsNumbers) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  EXPECT_FALSE(eq<double>(nan, nan));
  EXPECT_TRUE(eq<double>(0.0, -0.0));
  EXPECT_TRUE(eq<double>(1.5, 1.5));
  EXPECT_FALSE(eq<double>(1.5, std::nextafter(1.5, 2.0)));
  EXPECT_TRUE(eq<double>(INFINITY, INFINITY));
  EXPECT_FALSE(eq<float>(NAN, NAN));
  EXPECT_TRUE(eq<float>(0.0f, -0.0f));
  EXPECT_FALSE(eq<float>(INFINITY, -INFINITY));
}

TEST(IsEq, ValuesNeedNotBeAligned) {
  alignas(8) unsigned char buffer[32] = {};
  const long value = 0x0102030405060708l;
  std::memcpy(buffer + 1, &value, sizeof value);
  std::memcpy(buffer + 13, &value, sizeof value);
  EXPECT_TRUE(Util::IsEq<long>::isEq(buffer + 1, buffer + 13));
  EXPECT_FALSE(Util::IsEq<long>::isEq(buffer + 1, buffer + 12));
}

TEST(IsEqPtr, ComparesAPointersWorthOfBytes) {
  int a = 0, b = 0;
  int* p = &a;
  int* q = &a;
  int* r = &b;
  EXPECT_TRUE(Util::IsEqPtr::isEq(&p, &q));
  EXPECT_FALSE(Util::IsEqPtr::isEq(&p, &r));
}

// --- dumpHex --------------------------------------------------------------------------------------

TEST(DumpHex, LowerCaseWithABlankAfterEveryFourthByteButTheLast) {
  const unsigned char bytes[] = {0x00, 0x01, 0xab, 0xcd, 0xef, 0x10, 0x7f, 0xff, 0x42};
  EXPECT_EQ("00", Kesto::dumpHex(bytes, 1));
  EXPECT_EQ("0001abcd", Kesto::dumpHex(bytes, 4));
  EXPECT_EQ("0001abcd ef", Kesto::dumpHex(bytes, 5));
  EXPECT_EQ("0001abcd ef107fff", Kesto::dumpHex(bytes, 8));
  EXPECT_EQ("0001abcd ef107fff 42", Kesto::dumpHex(bytes, 9));
}

TEST(DumpHex, ZeroOrNegativeLengthIsEmpty) {
  EXPECT_EQ("", Kesto::dumpHex(nullptr, 0));
  EXPECT_EQ("", Kesto::dumpHex("abc", -1));
  EXPECT_EQ("", Kesto::dumpHex("abc", std::numeric_limits<int>::min()));
}
