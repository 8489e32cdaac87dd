#include "SchedulerTestSupport.h"

#include <Kesto/Scheduler/TaskTypes.h>

#include <unordered_set>

using namespace KestoTest;

TEST(TaskTypes, Time2DurationOfZeroAndNegativeZero) {
  EXPECT_EQ(time2Duration(0.0).count(), 0);
  EXPECT_EQ(time2Duration(-0.0).count(), 0);
}

TEST(TaskTypes, Time2DurationTruncates) {
  EXPECT_EQ(time2Duration(1.5).count(), 1500000000);
  EXPECT_EQ(time2Duration(2.9999999999e-9).count(), 2);
}

TEST(TaskTypes, Time2DurationOfNegativeTimeFails) {
  EXPECT_NE(assertText([] { time2Duration(-1e-9); }).find("t >= 0 && \"time2Duration() negative Time input\""),
            std::string::npos);
}

TEST(TaskTypes, ToDurationMsTruncatesAndClamps) {
  EXPECT_EQ(toDurationMs(std::chrono::microseconds(1999)).count(), 1u);
  EXPECT_EQ(toDurationMs(std::chrono::milliseconds(-5)).count(), 0u);
  EXPECT_EQ(toDurationMs(std::chrono::hours(24 * 365 * 200)).count(), ~0u);
}

TEST(TaskTypes, TaskKeyShowsAddressAndHashesByObject) {
  int a = 0, b = 0;
  TaskKey ka(&a), ka2(&a), kb(&b);
  EXPECT_EQ(ka, ka2);
  EXPECT_NE(ka, kb);
  EXPECT_EQ(std::hash<TaskKey>()(ka), std::hash<TaskKey>()(ka2));
  EXPECT_EQ(ka.toStrep().str(), fmt::format("@{}", DisplayPointer(&a)));
  EXPECT_EQ(ka.toStrep().size(), 19u);
  EXPECT_EQ(TaskKey().toStrep(), "@NULL");
  std::unordered_set<TaskKey> set{ka, ka2, kb};
  EXPECT_EQ(set.size(), 2u);
}

TEST(TaskTypes, ClockCanBeReplacedAndRestored) {
  {
    ManualClock clock;
    TaskTimeStamp t0 = taskClockNow();
    clock.advance(std::chrono::milliseconds(7));
    EXPECT_EQ(taskClockNow() - t0, std::chrono::milliseconds(7));
  }
  TaskTimeStamp a = taskClockNow();
  TaskTimeStamp b = taskClockNow();
  EXPECT_LE(a, b);
  EXPECT_GT(a.time_since_epoch().count(), 0);
}
