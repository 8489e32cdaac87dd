// Groups given what a careless caller might pass: a priority out of range,
// critical, an empty or a 64 KiB name, a quantum of zero or beyond the
// limit. Each is refused with an assertion or taken as it is, and a refusal
// leaves the root as it was.
#include "GroupTestSupport.h"

using namespace KestoTest;

TEST(TaskGroupHostileInput, PriorityOutOfRangeOrCriticalIsRefusedAndLeavesTheRootAsItWas) {
  Ptr<CountingRoot> r = CountingRoot::rootIs("hostileGroups");
  const U32 groupsBefore = r->taskGroupCount();
  const std::size_t tasksBefore = r->registeredTaskCount();
  for (unsigned p : {unsigned(TaskPriority::critical), unsigned(TaskPriority::oneBeyondLast), 200u}) {
    const std::string text = assertText([&] { groupIs("bad", r, TaskPriority(p)); });
    EXPECT_FALSE(text.empty()) << "priority " << p;
    EXPECT_EQ(groupsBefore, r->taskGroupCount()) << "priority " << p;
    EXPECT_EQ(tasksBefore, r->registeredTaskCount()) << "priority " << p;
  }
  // The root still schedules as before.
  Ptr<TestTask> t = rootTaskIs(r, TaskPriority::normal, "after");
  t->scheduleTask();
  Platform::doEventLoop();
  EXPECT_EQ(1u, t->runs);
}

TEST(TaskGroupHostileInput, EmptyAndVeryLongNamesAreTakenAsTheyAre) {
  Ptr<CountingRoot> r = CountingRoot::rootIs("names");
  const std::string longName(64 * 1024, 'g');
  for (const std::string& name : {std::string(), longName, std::string("with\0nul", 8)}) {
    Ptr<TaskGroup> g = groupIs(String(name), r);
    EXPECT_EQ(g->schedulerName().view(), name);
    EXPECT_EQ(g->parentTask()->taskName().view(), "TaskGroup;" + name);
    Ptr<TestTask> t = rootTaskIs(g, TaskPriority::normal, "inside");
    t->scheduleTask();
    Platform::doEventLoop();
    EXPECT_EQ(1u, t->runs);
  }
}

TEST(TaskGroupHostileInput, QuantumOfZeroOrBeyondTheLimitIsRefusedAndKeepsTheOldOne) {
  Ptr<CountingRoot> r = CountingRoot::rootIs("quanta");
  Ptr<TaskGroup> g = groupIs("g", r);
  const TaskDurationMs before = g->taskGroupQuantum();
  EXPECT_FALSE(assertText([&] { g->taskGroupQuantumIs(TaskDurationMs(0)); }).empty());
  EXPECT_EQ(before, g->taskGroupQuantum());
  EXPECT_FALSE(assertText([&] { g->taskGroupQuantumIs(TaskDurationMs(~U32(0))); }).empty());
  EXPECT_EQ(before, g->taskGroupQuantum());
  EXPECT_FALSE(assertText([&] { g->taskGroupQuantumNoCheckIs(TaskDurationMs(0)); }).empty());
  EXPECT_EQ(before, g->taskGroupQuantum());
}
