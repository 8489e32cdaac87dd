#include <Kesto/Platform/PlatformEventPriority.h>

#include <gtest/gtest.h>

#include <fmt/format.h>

namespace Kesto::Platform {
namespace {

TEST(EventPriority, ValuesAreLibeventPriorityNumbers) {
  EXPECT_EQ(0, int(eventPriorityStrictHigh));
  EXPECT_EQ(1, int(eventPriorityDefault));
  static_assert(sizeof(EventPriority) == 1);
}

TEST(EventPriority, ToStringNamesEachValue) {
  EXPECT_EQ("eventPriorityStrictHigh", toString(eventPriorityStrictHigh));
  EXPECT_EQ("eventPriorityDefault", toString(eventPriorityDefault));
}

TEST(EventPriority, FormatterPrintsToString) {
  EXPECT_EQ("[eventPriorityStrictHigh|eventPriorityDefault]",
            fmt::format("[{}|{}]", eventPriorityStrictHigh, eventPriorityDefault));
}

TEST(EventPriorityDeathTest, InvalidValueRecursesThroughItsFormatterUntilTheStackEnds) {
  // The message's {} is filled by the formatter, which is toString again.
  EXPECT_DEATH((void)toString(static_cast<EventPriority>(2)), "");
}

} // namespace
} // namespace Kesto::Platform
