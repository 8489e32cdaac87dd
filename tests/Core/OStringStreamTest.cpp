#include <Kesto/Core/OStringStream.h>

#include <gtest/gtest.h>

#include <iomanip>
#include <string>

using Kesto::OStringStream;
using Kesto::String;

TEST(OStringStream, CollectsFormattedOutput) {
  OStringStream os;
  os << "count=" << 42 << ' ' << std::hex << 255 << std::dec << ' ' << 1.5 << ' ' << String("name");
  EXPECT_EQ(os.str(), "count=42 ff 1.5 name");
  EXPECT_EQ(os.view(), "count=42 ff 1.5 name");
}

TEST(OStringStream, StartsEmpty) {
  OStringStream os;
  EXPECT_TRUE(os.str().empty());
  EXPECT_TRUE(os.good());
}

TEST(OStringStream, KeepsEveryByteBeyondItsBuffer) {
  OStringStream os;
  std::string expected;
  for (int i = 0; i < 1000; ++i) {
    os << i << ',';
    expected += std::to_string(i) + ',';
  }
  const std::string big(5000, 'b'); // longer than the put area in one write
  os << big;
  expected += big;
  EXPECT_EQ(os.str().view(), expected);
  EXPECT_EQ(os.str().size(), expected.size());
}

TEST(OStringStream, WritingGoesOnAfterReading) {
  OStringStream os;
  os << "abc";
  EXPECT_EQ(os.str(), "abc");
  os << std::setw(5) << 7;
  EXPECT_EQ(os.str(), "abc    7");
}

TEST(OStringStream, TakeMovesTheTextOut) {
  OStringStream os;
  os << std::string(40, 't');
  const String taken = os.take();
  EXPECT_EQ(taken.view(), std::string(40, 't'));
  EXPECT_TRUE(os.str().empty());
  os << "again";
  EXPECT_EQ(os.str(), "again");
}

TEST(OStringStream, TextCanBeReplacedOrGivenAtStart) {
  OStringStream os(String("prefix:"));
  os << 1;
  EXPECT_EQ(os.str(), "prefix:1");
  os << "pending";
  os.str(String("new"));
  os << '!';
  EXPECT_EQ(os.str(), "new!");
}
