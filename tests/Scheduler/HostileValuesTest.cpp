// Hostile values at the scheduler's entry points that take a name, a
// priority, a quantum or a time: empty and 64 KiB names, embedded NULs and
// bytes above 0x7f, priorities beyond the last queue, quanta of zero or of
// 2^32-1 ms, times that are not a number, negative, endless or huge. Each is
// either taken as it is or refused by an assertion with its text, and a
// refusal leaves the task and its scheduler as they were. Timer delays have
// their own files (TimerTaskHostileDelayTest, TaskTimerControlTest).
#include "RootTestSupport.h"

#include <KestoSupport/AssertMessage.h>

#include <Kesto/Platform/Platform.h>
#include <Kesto/Scheduler/TaskTypes.h>

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

using namespace KestoTest;

namespace {

const std::vector<std::string>& hostileNames() {
  static const std::vector<std::string> names = {
      std::string(), std::string(64 * 1024, 't'), std::string("with\0nul", 8), "\xff\xfe\x80",
      std::string(1, '\0')};
  return names;
}

} // namespace

TEST(SchedulerHostileValues, TaskAndRootNamesAreTakenAsTheyAreAndTheTaskRuns) {
  for (const std::string& name : hostileNames()) {
    SCOPED_TRACE(name.size());
    Ptr<CountingRoot> root = CountingRoot::rootIs(String(name));
    EXPECT_EQ(name, std::string(root->schedulerName().view()));
    Ptr<TestTask> t = rootTaskIs(root, TaskPriority::normal, String(name));
    EXPECT_EQ(name, std::string(t->taskName().view()));
    t->taskStatsNameIs(String(name + "stats"));
    t->scheduleTask();
    Platform::doEventLoop();
    EXPECT_EQ(1u, t->runs);
  }
}

TEST(SchedulerHostileValues, PrioritiesBeyondTheLastQueueAreRefusedAtCreationAndLeaveTheSchedulerAsItWas) {
  Ptr<CountingRoot> root = CountingRoot::rootIs("hostilePriorities");
  const std::size_t before = root->registeredTaskCount();
  for (unsigned p : {unsigned(TaskPriority::oneBeyondLast), 7u, 200u, 255u}) {
    SCOPED_TRACE(p);
    EXPECT_FALSE(assertText([&] { rootTaskIs(root, TaskPriority(p), "bad"); }).empty());
    EXPECT_EQ(before, root->registeredTaskCount());
  }
}

TEST(SchedulerHostileValues, PriorityChangesToCriticalOrBeyondTheLastQueueAreRefusedAndKeepTheOldPriority) {
  Ptr<CountingRoot> root = CountingRoot::rootIs("hostilePriorityChanges");
  Ptr<TestTask> t = rootTaskIs(root, TaskPriority::low, "t");
  t->scheduleTask();
  struct Case {
    unsigned priority;
    const char* text; // what the message holds
  };
  const std::vector<Case> cases = {
      {unsigned(TaskPriority::critical), "priority != TaskPriority::critical"},
      {unsigned(TaskPriority::oneBeyondLast), ""},
      {200u, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.priority);
    const std::string text = assertText([&] { t->taskPriorityIs(TaskPriority(c.priority)); });
    EXPECT_NE(std::string::npos, text.find(c.text)) << text;
    EXPECT_EQ(TaskPriority::low, t->taskPriority());
    EXPECT_TRUE(t->taskStatus().taskOnRunQueue());
  }
  Platform::doEventLoop();
  EXPECT_EQ(1u, t->runs);
}

TEST(SchedulerHostileValues, QuantaOfZeroOrBeyondOneSecondAreRefusedAndKeepTheOldQuantum) {
  Ptr<CountingRoot> root = CountingRoot::rootIs("hostileQuanta");
  Ptr<TestTask> t = rootTaskIs(root, TaskPriority::normal, "t");
  t->taskQuantumIs(TaskDurationMs(7));
  struct Case {
    U32 ms;
    bool checked; // taskQuantumIs, or taskQuantumNoCheckIs
  };
  const std::vector<Case> refused = {
      {0, true}, {1001, true}, {~U32(0), true}, {0, false},
  };
  for (const Case& c : refused) {
    SCOPED_TRACE(c.ms);
    const std::string text = assertText([&] {
      if (c.checked)
        t->taskQuantumIs(TaskDurationMs(c.ms));
      else
        t->taskQuantumNoCheckIs(TaskDurationMs(c.ms));
    });
    EXPECT_NE(std::string::npos, assertMessage(text).find("Quantum: ")) << text;
    EXPECT_EQ(TaskDurationMs(7), t->taskQuantum());
  }
  // The largest values each setter takes.
  t->taskQuantumIs(TaskDurationMs(1000));
  EXPECT_EQ(TaskDurationMs(1000), t->taskQuantum());
  t->taskQuantumNoCheckIs(TaskDurationMs(~U32(0)));
  EXPECT_EQ(TaskDurationMs(~U32(0)), t->taskQuantum());
  // With the longest quantum a run never counts as a violation, and the
  // doubled quantum does not wrap to a short one.
  t->scheduleTask();
  Platform::doEventLoop();
  EXPECT_EQ(0u, t->getStats().taskQuantumViolation200());
}

TEST(SchedulerHostileValues, TimesThatAreNotANumberOrNegativeAreRefusedAndEndlessOrHugeOnesSaturate) {
  constexpr double nan = std::numeric_limits<double>::quiet_NaN();
  constexpr double inf = std::numeric_limits<double>::infinity();
  for (double t : {nan, -nan, -1.0, -inf, -std::numeric_limits<double>::denorm_min()}) {
    SCOPED_TRACE(t);
    EXPECT_NE(std::string::npos, assertText([&] { time2Duration(t); }).find("time2Duration() negative Time input"));
  }
  // Beyond 2^63 ns (292 years) a duration can't hold the value: it is the
  // largest duration, never a wrapped negative one.
  for (double t : {inf, 1e300, std::numeric_limits<double>::max(), 9.3e9}) {
    SCOPED_TRACE(t);
    EXPECT_EQ(TaskTimeDuration::max(), time2Duration(t));
  }
  EXPECT_EQ(TaskTimeDuration(0), time2Duration(std::numeric_limits<double>::denorm_min()));
  EXPECT_EQ(TaskTimeDuration(0), time2Duration(-0.0));
  EXPECT_EQ(TaskTimeDuration(9000000000000000000), time2Duration(9e9));
}
