#include <Kesto/EventKesto.h>

#include <gtest/gtest.h>

#include <cstring>
#include <memory>

using Kesto::IntrospectionMap;
using Kesto::String;
using Kesto::Platform::getValuePrinter;
using Kesto::Platform::ValuePrinter;

namespace {

String pointText(const void* value) {
  int xy[2];
  std::memcpy(xy, value, sizeof xy);
  return fmt::format("({}, {})", xy[0], xy[1]);
}

String emptyText(const void*) { return String(); }

} // namespace

TEST(ValuePrinter, FiveByteValueWithoutAFunctionPrintsAsHexWithABlankAfterTheEighthDigit) {
  const unsigned char value[5] = {0x01, 0xab, 0x00, 0xff, 0x7e};
  const std::shared_ptr<ValuePrinter> printer = getValuePrinter("ZqFiveBytes", 5);
  EXPECT_EQ(printer->toString(value), "01ab00ff 7e");
  EXPECT_EQ(printer->customToString(value), "");
}

TEST(ValuePrinter, RegisteredFunctionPrintsTheValue) {
  IntrospectionMap::insert("ZqPoint", &pointText);
  const int point[2] = {3, -4};
  const std::shared_ptr<ValuePrinter> printer = getValuePrinter("ZqPoint", sizeof point);
  EXPECT_EQ(printer->toString(point), "(3, -4)");
  EXPECT_EQ(printer->customToString(point), "(3, -4)");
}

TEST(ValuePrinter, EmptyTextOfTheFunctionFallsBackToHexOnlyInToString) {
  IntrospectionMap::insert("ZqEmpty", &emptyText);
  const unsigned char value[2] = {0x12, 0x34};
  const std::shared_ptr<ValuePrinter> printer = getValuePrinter("ZqEmpty", 2);
  EXPECT_EQ(printer->toString(value), "1234");
  EXPECT_EQ(printer->customToString(value), "");
}

TEST(ValuePrinter, FunctionRegisteredLaterServesAPrinterMadeBefore) {
  const int point[2] = {7, 8};
  const std::shared_ptr<ValuePrinter> printer = getValuePrinter("ZqLatePoint", sizeof point);
  EXPECT_EQ(printer->toString(point), "07000000 08000000");
  IntrospectionMap::insert("ZqLatePoint", &pointText);
  EXPECT_EQ(printer->toString(point), "(7, 8)");
}

TEST(ValuePrinter, EachCallMakesANewPrinterWithTheGivenTypeAndSize) {
  const std::shared_ptr<ValuePrinter> first = getValuePrinter("ZqNew", 4);
  const std::shared_ptr<ValuePrinter> second = getValuePrinter("ZqNew", 4);
  EXPECT_NE(first.get(), second.get());
  EXPECT_EQ(first->typeName, "ZqNew");
  EXPECT_EQ(first->size, 4);
  EXPECT_EQ(first.use_count(), 1);
}

TEST(ValuePrinter, ZeroOrNegativeSizeWithoutAFunctionPrintsNothing) {
  const char byte = 'x';
  EXPECT_EQ(getValuePrinter("ZqNoSize", 0)->toString(&byte), "");
  EXPECT_EQ(getValuePrinter("ZqNoSize", -3)->toString(&byte), "");
}

TEST(ValuePrinter, PrinterAndItsControlBlockAreOneSlabBlock) {
  const std::size_t before = ZuSlab::slabStats().blocksInUse;
  std::shared_ptr<ValuePrinter> printer = getValuePrinter("ZqSlab", 1);
  EXPECT_EQ(ZuSlab::slabStats().blocksInUse, before + 1);
  printer.reset();
  EXPECT_EQ(ZuSlab::slabStats().blocksInUse, before);
}

TEST(ValuePrinter, ToStringIsTheVirtualEntryPoint) {
  class Upper final : public ValuePrinter {
  public:
    Upper() : ValuePrinter("ZqUpper", 1) {}
    String toString(const void* value) override {
      String text = ValuePrinter::toString(value);
      return String("<") + text.view();
    }
  };
  Upper upper;
  ValuePrinter& printer = upper;
  const unsigned char value = 0x5a;
  EXPECT_EQ(printer.toString(&value), "<5a");
}
