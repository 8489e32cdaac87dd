// The command's options: where they may stand, how values are given, and
// which values are refused.
#include "Arguments.h"
#include "Usage.h"

#include <gtest/gtest.h>

#include <functional>

using Kesto::Cmd::Arguments;
using Kesto::Cmd::Failure;

namespace {

int usageStatus(const std::function<void()>& parse) {
  try {
    parse();
  } catch (const Failure& failure) {
    return failure.status();
  }
  return 0;
}

TEST(Arguments, OptionsStandAnywhereAmongOperands) {
  const Arguments a("show", {"--json", "agent", "--match", "^feed", "--flat"}, {"json", "flat"}, {"match"});
  EXPECT_TRUE(a.flag("json"));
  EXPECT_TRUE(a.flag("flat"));
  EXPECT_EQ(a.value("match"), "^feed");
  ASSERT_EQ(a.operands().size(), 1u);
  EXPECT_EQ(a.operands()[0], "agent");
}

TEST(Arguments, ValueMayFollowAnEqualsSign) {
  const Arguments a("watch", {"--interval=0.5"}, {}, {"interval"});
  EXPECT_EQ(a.value("interval"), "0.5");
}

TEST(Arguments, LastOccurrenceOfAValuedOptionWins) {
  const Arguments a("watch", {"--count", "3", "--count", "5"}, {}, {"count"});
  EXPECT_EQ(a.value("count"), "5");
}

TEST(Arguments, DoubleDashEndsTheOptions) {
  const Arguments a("trace", {"agent", "--", "--clear"}, {"clear"}, {});
  EXPECT_FALSE(a.flag("clear"));
  ASSERT_EQ(a.operands().size(), 2u);
  EXPECT_EQ(a.operands()[1], "--clear");
}

TEST(Arguments, HelpIsUnderstoodByEveryCommand) {
  EXPECT_TRUE(Arguments("reset", {"-h"}, {}, {}).help());
  EXPECT_TRUE(Arguments("reset", {"agent", "--help"}, {}, {}).help());
}

TEST(Arguments, UndeclaredOptionsAreUsageErrors) {
  EXPECT_EQ(usageStatus([] { Arguments("list", {"--json"}, {}, {}); }), Kesto::Cmd::exitUsage);
  EXPECT_EQ(usageStatus([] { Arguments("list", {"-j"}, {}, {}); }), Kesto::Cmd::exitUsage);
  EXPECT_EQ(usageStatus([] { Arguments("show", {"--json=yes"}, {"json"}, {}); }), Kesto::Cmd::exitUsage);
  EXPECT_EQ(usageStatus([] { Arguments("show", {"--match"}, {}, {"match"}); }), Kesto::Cmd::exitUsage);
}

TEST(Arguments, OperandCountIsChecked) {
  const Arguments a("trace", {"agent"}, {}, {});
  EXPECT_EQ(usageStatus([&] { a.expectOperands(2, 2, "LEVELS"); }), Kesto::Cmd::exitUsage);
  EXPECT_EQ(usageStatus([&] { a.expectOperands(0, 0, ""); }), Kesto::Cmd::exitUsage);
  EXPECT_EQ(usageStatus([&] { a.expectOperands(1, 1, "AGENT"); }), 0);
}

TEST(Arguments, SecondsMustBePositiveAndFinite) {
  EXPECT_DOUBLE_EQ(Arguments::parseSeconds("interval", "0.25"), 0.25);
  for (const char* bad : {"0", "-1", "nan", "inf", "", "1s", "1e999"})
    EXPECT_EQ(usageStatus([&] { Arguments::parseSeconds("interval", bad); }), Kesto::Cmd::exitUsage) << bad;
}

TEST(Arguments, CountMustBeAWholeNumberOfOneOrMore) {
  EXPECT_EQ(Arguments::parseCount("count", "2"), 2u);
  for (const char* bad : {"0", "-1", "+1", "1.5", "", "x", "99999999999999999999999"})
    EXPECT_EQ(usageStatus([&] { Arguments::parseCount("count", bad); }), Kesto::Cmd::exitUsage) << bad;
}

} // namespace
