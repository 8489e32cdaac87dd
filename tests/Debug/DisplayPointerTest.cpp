#include <Kesto/EventKesto.h>

#include <fmt/format.h>
#include <gtest/gtest.h>

TEST(DisplayPointer, NullIsWrittenNULL) { EXPECT_EQ(fmt::format("{}", Kesto::DisplayPointer(nullptr)), "NULL"); }

TEST(DisplayPointer, ValueIsZeroXAndSixteenDigits) {
  const void* p = reinterpret_cast<const void*>(std::uintptr_t(0xabc));
  EXPECT_EQ(fmt::format("{}", Kesto::DisplayPointer(p)), "0x0000000000000abc");
  const void* high = reinterpret_cast<const void*>(std::uintptr_t(0x7fffdeadbeef1234));
  EXPECT_EQ(fmt::format("[{}]", Kesto::DisplayPointer(high)), "[0x7fffdeadbeef1234]");
}
