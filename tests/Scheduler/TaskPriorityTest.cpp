#include "SchedulerTestSupport.h"

#include <Kesto/Scheduler/TaskPriority.h>

#include <fmt/format.h>

using namespace KestoTest;

TEST(TaskPriority, NamesAndLettersOfAllValues) {
  const char* names[] = {"critical", "absolute", "high", "normal", "low", "scavenge", "oneBeyondLast"};
  const char letters[] = {'C', 'A', 'H', 'N', 'L', 'S', '-'};
  for (unsigned v = 0; v <= TaskPriority::oneBeyondLast; ++v) {
    TaskPriority p(v);
    EXPECT_STREQ(p.toStrep(), names[v]);
    EXPECT_EQ(p.oneChar(), letters[v]);
    EXPECT_EQ(p.oneCharString(), std::string_view(&letters[v], 1));
    EXPECT_TRUE(p.oneCharString().isShort());
  }
}

TEST(TaskPriority, OneBeyondLastFormatsAsInvalid) {
  TaskPriority p = TaskPriority::oneBeyondLast;
  EXPECT_EQ(p.oneChar(), '-');
  EXPECT_STREQ(p.toStrep(), "oneBeyondLast");
  EXPECT_EQ(fmt::format("{}", p), "invalidPriority=6");
  EXPECT_EQ(fmt::format("{}", TaskPriority(200u)), "invalidPriority=200");
}

TEST(TaskPriority, FormatterPrintsNamesOfRealPriorities) {
  EXPECT_EQ(fmt::format("{}", TaskPriority(TaskPriority::critical)), "critical");
  EXPECT_EQ(fmt::format("{}", TaskPriority(TaskPriority::scavenge)), "scavenge");
  EXPECT_EQ(fmt::format("{}", TaskPriority::high), "high");
}

TEST(TaskPriority, UnknownValueFailsToStrepAndOneChar) {
  EXPECT_NE(assertText([] { TaskPriority(7u).toStrep(); }).find("unexpected priority value 7"), std::string::npos);
  std::string t = assertText([] { TaskPriority(9u).oneChar(); });
  EXPECT_NE(t.find("unexpected priority 9"), std::string::npos);
  EXPECT_EQ(t.find("unexpected priority value"), std::string::npos);
}

TEST(TaskPriority, OrderIsUrgencyAndIndexesQueues) {
  EXPECT_LT(TaskPriority(TaskPriority::critical), TaskPriority(TaskPriority::absolute));
  EXPECT_LT(TaskPriority(TaskPriority::low), TaskPriority(TaskPriority::scavenge));
  EXPECT_EQ(TaskPriority(TaskPriority::normal).value(), 3);
  static_assert(sizeof(TaskPriority) == 1);
}

TEST(TaskGroupPriorityEnforcement, NamesAndFormatter) {
  EXPECT_STREQ(TaskGroupPriorityEnforcement(TaskGroupPriorityEnforcement::sameAsGroupPriority).toStrep(),
               "sameAsGroupPriority");
  EXPECT_STREQ(TaskGroupPriorityEnforcement(TaskGroupPriorityEnforcement::onlyAllowRegularPriorities).toStrep(),
               "onlyAllowRegularPriorities");
  EXPECT_STREQ(TaskGroupPriorityEnforcement(TaskGroupPriorityEnforcement::allowAny).toStrep(), "allowAny");
  EXPECT_EQ(fmt::format("{}", TaskGroupPriorityEnforcement(TaskGroupPriorityEnforcement::allowAny)), "allowAny");
  EXPECT_EQ(fmt::format("{}", TaskGroupPriorityEnforcement(3u)), "invalidPriorityEnforcement=3");
  EXPECT_NE(assertText([] { TaskGroupPriorityEnforcement(3u).toStrep(); }).find("unexpected priority value 3"),
            std::string::npos);
}
