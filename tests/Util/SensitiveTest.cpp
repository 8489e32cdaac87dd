// Sensitive buffers: wiped at the last release, shared by copies, never
// printed.
//
// This test binary replaces the global operator new and delete (scalar and
// array) with thin layers over malloc and free, so that it can look at a
// buffer's bytes at the moment the library hands it to delete[], and make the
// allocation of a shared pointer's control block fail on request.
#include <Kesto/Debug/Trace.h>
#include <Kesto/Util/Sensitive.h>

#include <KestoSupport/AssertMessage.h>
#include <KestoSupport/TraceCapture.h>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <new>
#include <sstream>
#include <string>
#include <utility>

namespace {

// What the replaced operators watch. Only the test's own thread sets them.
struct Watch {
  const void* buffer = nullptr;   // the delete[] to look at
  std::size_t size = 0;
  bool deleted = false;           // that buffer reached delete[]
  bool zeroAtDelete = false;      // and all of its bytes were 0 then
  bool recordArrayNew = false;    // take the next new[] as the buffer
  bool failScalarNew = false;     // the next scalar new throws
};
thread_local Watch watch;

void inspect(void* p) noexcept {
  if (p && p == watch.buffer) {
    const unsigned char* bytes = static_cast<const unsigned char*>(p);
    bool zero = true;
    for (std::size_t i = 0; i < watch.size; ++i)
      zero = zero && bytes[i] == 0;
    watch.deleted = true;
    watch.zeroAtDelete = zero;
  }
}

void* allocateOrThrow(std::size_t n) {
  void* p = std::malloc(n ? n : 1);
  if (!p)
    throw std::bad_alloc();
  return p;
}

} // namespace

void* operator new(std::size_t n) {
  if (watch.failScalarNew) {
    watch.failScalarNew = false;
    throw std::bad_alloc();
  }
  return allocateOrThrow(n);
}
void* operator new[](std::size_t n) {
  void* p = allocateOrThrow(n);
  if (watch.recordArrayNew) {
    watch.recordArrayNew = false;
    watch.buffer = p;
    watch.size = n;
  }
  return p;
}
__attribute__((noinline)) void operator delete(void* p) noexcept { std::free(p); }
__attribute__((noinline)) void operator delete(void* p, std::size_t) noexcept { std::free(p); }
__attribute__((noinline)) void operator delete[](void* p) noexcept {
  inspect(p);
  std::free(p);
}
__attribute__((noinline)) void operator delete[](void* p, std::size_t) noexcept {
  inspect(p);
  std::free(p);
}

namespace {

using Kesto::Sensitive;

const unsigned char secret[] = {'h', 'u', 'n', 't', 'e', 'r', '2', '!', 0x5a, 0xa5, 0x42, 0x17};
constexpr unsigned int secretSize = sizeof secret;

class SensitiveTest : public ::testing::Test {
protected:
  void SetUp() override { watch = Watch(); }
  void TearDown() override { watch = Watch(); }

  static void watchBuffer(const Sensitive& s) {
    watch.buffer = s.data();
    watch.size = s.size();
    watch.deleted = false;
    watch.zeroAtDelete = false;
  }

  static std::string printed(const Sensitive& s) {
    std::ostringstream os;
    os << s;
    return os.str();
  }
};

TEST_F(SensitiveTest, SizeZeroHasANullBufferAndPrintsIt) {
  const Sensitive empty(secret, 0);
  EXPECT_EQ(empty.size(), 0u);
  EXPECT_EQ(empty.data(), nullptr);
  EXPECT_EQ(printed(empty), "sensitive(0x0,0)");
  EXPECT_EQ(fmt::format("{}", empty), "sensitive(0x0,0)");
  EXPECT_EQ(Sensitive::allocate(0), nullptr);
}

TEST_F(SensitiveTest, AllocateGivesZeroFilledBytes) {
  const std::shared_ptr<unsigned char> buffer = Sensitive::allocate(64);
  ASSERT_NE(buffer, nullptr);
  for (int i = 0; i < 64; ++i)
    EXPECT_EQ(buffer.get()[i], 0) << "byte " << i;
}

TEST_F(SensitiveTest, HoldsACopyOfTheBytes) {
  unsigned char source[secretSize];
  std::memcpy(source, secret, secretSize);
  const Sensitive s(source, secretSize);
  std::memset(source, 0, secretSize);
  ASSERT_EQ(s.size(), secretSize);
  EXPECT_EQ(std::memcmp(s.data(), secret, secretSize), 0);
}

TEST_F(SensitiveTest, MovedFromObjectPrintsSizeZero) {
  Sensitive source(secret, secretSize);
  const unsigned char* buffer = source.data();
  Sensitive target(std::move(source));
  EXPECT_EQ(source.size(), 0u);
  EXPECT_EQ(source.data(), nullptr);
  EXPECT_EQ(printed(source), "sensitive(0x0,0)");
  EXPECT_EQ(target.data(), buffer);
  EXPECT_EQ(target.size(), secretSize);

  Sensitive assigned;
  assigned = std::move(target);
  EXPECT_EQ(printed(target), "sensitive(0x0,0)");
  EXPECT_EQ(target.data(), nullptr);
  EXPECT_EQ(assigned.data(), buffer);
  EXPECT_EQ(assigned.size(), secretSize);
}

TEST_F(SensitiveTest, MoveAssignmentToItselfKeepsTheBuffer) {
  Sensitive s(secret, secretSize);
  const unsigned char* buffer = s.data();
  watchBuffer(s);
  Sensitive& alias = s;
  s = std::move(alias);
  EXPECT_EQ(s.data(), buffer);
  EXPECT_EQ(s.size(), secretSize);
  EXPECT_FALSE(watch.deleted);
  EXPECT_EQ(std::memcmp(s.data(), secret, secretSize), 0);
}

TEST_F(SensitiveTest, MoveAssignmentWipesTheTargetsOldBufferWhenItWasTheLastOwner) {
  Sensitive target(secret, secretSize);
  watchBuffer(target);
  Sensitive other(secret, 4);
  target = std::move(other);
  EXPECT_TRUE(watch.deleted);
  EXPECT_TRUE(watch.zeroAtDelete);
  EXPECT_EQ(target.size(), 4u);
}

TEST_F(SensitiveTest, MoveAssignmentLeavesAnOldBufferWithAnotherOwnerAlone) {
  Sensitive target(secret, secretSize);
  const Sensitive keeper = target;
  watchBuffer(target);
  target = Sensitive(secret, 4);
  EXPECT_FALSE(watch.deleted);
  EXPECT_EQ(std::memcmp(keeper.data(), secret, secretSize), 0);
}

TEST_F(SensitiveTest, BytesAreZeroWhenTheLastCopyDeletesTheBuffer) {
  auto* first = new Sensitive(secret, secretSize);
  watchBuffer(*first);
  auto* second = new Sensitive(*first);
  delete first;
  EXPECT_FALSE(watch.deleted) << "a copy still holds the buffer";
  EXPECT_EQ(std::memcmp(second->data(), secret, secretSize), 0);
  delete second;
  EXPECT_TRUE(watch.deleted);
  EXPECT_TRUE(watch.zeroAtDelete);
}

TEST_F(SensitiveTest, BytesAreZeroWhenTheTwoPieceBufferIsDeleted) {
  {
    const Sensitive s(secret, 5, secret + 5, secretSize - 5);
    watchBuffer(s);
  }
  EXPECT_TRUE(watch.deleted);
  EXPECT_TRUE(watch.zeroAtDelete);
}

TEST_F(SensitiveTest, AFailedControlBlockWipesAndFreesTheBuffer) {
  watch.recordArrayNew = true;
  watch.failScalarNew = true;
  EXPECT_THROW(Sensitive::allocate(32), std::bad_alloc);
  ASSERT_NE(watch.buffer, nullptr) << "the buffer was not allocated with new[]";
  EXPECT_EQ(watch.size, 32u);
  EXPECT_TRUE(watch.deleted) << "the buffer leaked";
  EXPECT_TRUE(watch.zeroAtDelete);
}

TEST_F(SensitiveTest, ObjectsBuiltFromTheSameBytesCompareUnequal) {
  const Sensitive a(secret, secretSize);
  const Sensitive b(secret, secretSize);
  EXPECT_FALSE(a == b);
  EXPECT_TRUE(a != b);
  const Sensitive copy = a;
  EXPECT_TRUE(copy == a);
  EXPECT_FALSE(copy != a);
  EXPECT_EQ(copy.data(), a.data());
  EXPECT_TRUE(Sensitive() == Sensitive(secret, 0));
}

TEST_F(SensitiveTest, TwoPiecesAreJoinedInOrder) {
  const Sensitive s(secret + 8, 4, secret, 8);
  ASSERT_EQ(s.size(), secretSize);
  EXPECT_EQ(std::memcmp(s.data(), secret + 8, 4), 0);
  EXPECT_EQ(std::memcmp(s.data() + 4, secret, 8), 0);
}

TEST_F(SensitiveTest, TwoPiecesWithOneEmptyGiveTheOther) {
  const Sensitive firstOnly(secret, secretSize, nullptr, 0);
  ASSERT_EQ(firstOnly.size(), secretSize);
  EXPECT_EQ(std::memcmp(firstOnly.data(), secret, secretSize), 0);
  const Sensitive secondOnly(nullptr, 0, secret, secretSize);
  ASSERT_EQ(secondOnly.size(), secretSize);
  EXPECT_EQ(std::memcmp(secondOnly.data(), secret, secretSize), 0);
  const Sensitive neither(nullptr, 0, nullptr, 0);
  EXPECT_EQ(neither.size(), 0u);
  EXPECT_EQ(neither.data(), nullptr);
}

TEST_F(SensitiveTest, PiecesBeyond32BitsAssertBeforeAllocating) {
  Kesto::throwOnAssertFailIs(true);
  watch.recordArrayNew = true;
  try {
    Sensitive s(secret, 0xffffffffu, secret, 2);
    ADD_FAILURE() << "no assertion";
  } catch (const Kesto::AssertException& e) {
    EXPECT_EQ(KestoTest::assertMessage(e.what()),
              "Kesto::Sensitive::joinedSize() pieces of 4294967295 and 2 bytes exceed 32 bits");
  }
  Kesto::throwOnAssertFailIs(false);
  EXPECT_TRUE(watch.recordArrayNew) << "new[] was called";
}

TEST_F(SensitiveTest, NullDataOfNonZeroSizeAssertsBeforeAllocating) {
  Kesto::throwOnAssertFailIs(true);
  watch.recordArrayNew = true;
  const auto messageOf = [](auto&& build) {
    try {
      build();
    } catch (const Kesto::AssertException& e) {
      return KestoTest::assertMessage(e.what());
    }
    return std::string("no assertion");
  };
  EXPECT_EQ(messageOf([] { Sensitive s(nullptr, 3); }), "Kesto::Sensitive::checkPiece() null data of 3 bytes");
  EXPECT_EQ(messageOf([] { Sensitive s(secret, 2, nullptr, 5); }),
            "Kesto::Sensitive::checkPiece() null data of 5 bytes");
  Kesto::throwOnAssertFailIs(false);
  EXPECT_TRUE(watch.recordArrayNew) << "new[] was called";
}

// The printed forms: address and size, and nothing of the content, whether
// as raw bytes or as their hexadecimal text.
TEST_F(SensitiveTest, PrintedFormsShowAddressAndSizeButNeverTheBytes) {
  const Sensitive s(secret, secretSize);
  const std::string expected = fmt::format("sensitive({},{})", fmt::ptr(s.data()), secretSize);
  ASSERT_EQ(expected.rfind("sensitive(0x", 0), 0u);

  const std::string streamed = printed(s);
  const std::string formatted = fmt::format("{}", s);
  std::string traced;
  {
    KestoTest::TraceCapture trace({5}, *Kesto::Debug::kestoUtil);
    KESTO_TRACE(Kesto::Debug::kestoUtil, 5, "Kesto::Util", "key {}", s);
    traced = trace.onlyLineWith("key ");
  }
  EXPECT_EQ(streamed, expected);
  EXPECT_EQ(formatted, expected);
  EXPECT_EQ(traced, "KestoUtil 5 Kesto::Util::TestBody() key " + expected);

  std::string hex;
  for (unsigned char c : secret)
    hex += fmt::format("{:02x}", c);
  const std::string raw(reinterpret_cast<const char*>(secret), 7);
  for (const std::string* text : {&streamed, &formatted, static_cast<const std::string*>(&traced)}) {
    EXPECT_EQ(text->find(raw), std::string::npos) << *text;
    EXPECT_EQ(text->find("hunter"), std::string::npos) << *text;
    EXPECT_EQ(text->find(hex.substr(0, 8)), std::string::npos) << *text;
  }
}

} // namespace
