// The range of priorities a task can have, critical to scavenge, and the one
// failure every entry point that takes a priority reports outside it. The
// constructors are tried with oneBeyondLast, the first value out of range
// that still has a history letter ('-'), so that the range check is what
// refuses it; each test compares the whole message after the location and
// checks that nothing was registered or counted.
#include "FdTaskTestSupport.h"

#include <KestoSupport/AssertMessage.h>

#include <Kesto/Scheduler/TimerTask.h>

#include <fmt/format.h>

using namespace KestoTest;

namespace {

constexpr const char* outOfRange = "TaskScheduler::failPriority() invalidPriority=6";

class PlainTimerTask : public TimerTask {
public:
  using TimerTask::TimerTask;
  void taskExecute() override {}

  static void* operator new(std::size_t n) { return ::operator new(n); }
  static void operator delete(void* p) { ::operator delete(p); }
};

} // namespace

TEST(PriorityRange, CriticalToScavengeIsTheRange) {
  for (unsigned v = 0; v <= 255; ++v) {
    const TaskPriority p(v);
    EXPECT_EQ(v <= TaskPriority::scavenge, p.isValid()) << v;
    // The formatter draws the same line.
    if (p.isValid())
      EXPECT_STREQ(p.toStrep(), fmt::format("{}", p).c_str());
    else
      EXPECT_EQ(fmt::format("invalidPriority={}", v), fmt::format("{}", p));
  }
}

TEST(PriorityRange, TaskConstructorsRefuseAPriorityOutOfRange) {
  auto s = TestScheduler::rootIs("range");
  EXPECT_EQ(outOfRange, assertMessage(assertText(
                            [&] { Ptr<TestTask> t(new TestTask(s, TaskPriority::oneBeyondLast, "beyond")); })));
  EXPECT_EQ(outOfRange, assertMessage(assertText([&] {
              Ptr<PlainTimerTask> t(new PlainTimerTask(s.get(), TaskPriority::oneBeyondLast, "beyondTimer"));
            })));
  EXPECT_EQ(0u, s->registeredTaskCount());
  EXPECT_EQ(0u, s->tasksPerPriority(TaskPriority::oneBeyondLast));
  // The last real priority is in the range.
  auto t = taskIs(s, TaskPriority::scavenge, "last");
  EXPECT_EQ(1u, s->registeredTaskCount());
}

TEST(PriorityRange, DescriptorTaskConstructorRefusesAPriorityOutOfRange) {
  Ptr<CountingRoot> r = CountingRoot::rootIs("fdRange");
  const std::size_t before = r->registeredTaskCount();
  EXPECT_EQ(outOfRange, assertMessage(assertText([&] { fdTaskIs(r, "beyondFd", TaskPriority::oneBeyondLast); })));
  EXPECT_EQ(before, r->registeredTaskCount());
  EXPECT_EQ(0u, r->tasksPerPriority(TaskPriority::oneBeyondLast));
}

TEST(PriorityRange, QueueCountsRefuseAPriorityOutOfRange) {
  auto s = TestScheduler::rootIs("range");
  for (unsigned v : {unsigned(TaskPriority::oneBeyondLast), 200u}) {
    const std::string expected = fmt::format("TaskScheduler::failPriority() invalidPriority={}", v);
    EXPECT_EQ(expected, assertMessage(assertText([&] { (void)s->runnableTaskCount(TaskPriority(v)); })));
    EXPECT_EQ(expected, assertMessage(assertText([&] { (void)s->runTaskCount(TaskPriority(v)); })));
  }
  EXPECT_EQ(0u, s->runnableTaskCount(TaskPriority::scavenge));
  EXPECT_EQ(0u, s->runTaskCount(TaskPriority::scavenge));
}

// A queued task asked to move beyond scavenge is refused before it leaves its
// queue: its priority, its place and every per-priority count stay.
TEST(PriorityRange, PriorityChangeRefusesAPriorityOutOfRange) {
  auto s = TestScheduler::rootIs("rangeChange");
  auto t = taskIs(s, TaskPriority::low, "moving");
  t->scheduleTask();
  for (const unsigned v : {unsigned(TaskPriority::oneBeyondLast), 200u}) {
    EXPECT_EQ(fmt::format("TaskScheduler::failPriority() invalidPriority={}", v),
              assertMessage(assertText([&] { t->taskPriorityIs(TaskPriority(v)); })));
    EXPECT_EQ(TaskPriority::low, t->taskPriority());
    EXPECT_TRUE(t->taskScheduled());
    EXPECT_EQ(1u, s->tasksPerPriority(TaskPriority::low));
    EXPECT_EQ(1u, s->runnableTaskCount(TaskPriority::low));
  }
  // The last real priority is accepted and moves the task.
  t->taskPriorityIs(TaskPriority::scavenge);
  EXPECT_EQ(TaskPriority::scavenge, t->taskPriority());
  EXPECT_EQ(1u, s->runnableTaskCount(TaskPriority::scavenge));
  t->unscheduleTask();
}
