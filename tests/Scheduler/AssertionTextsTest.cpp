// The invariant checks of tasks and schedulers that need a broken state to
// fire: a task whose priority changed behind the scheduler's back, counters
// about to wrap, a queue driven negative, a scheduler that claims to be its
// own root, a critical run whose process-wide guard was tampered with. Each
// test compares the whole message after the location, and checks that the
// failure left the state it guards as it was.
#include "SchedulerTestSupport.h"

#include <KestoSupport/AssertMessage.h>
#include <KestoSupport/TaskSchedulerTestAccess.h>

#include <fmt/format.h>

using namespace KestoTest;

namespace {

// A task whose priority field a test can set without the checks and the
// counting of taskPriorityIs, as memory corruption or a bug would.
class RawPriorityTask : public TestTask {
public:
  using TestTask::TestTask;
  void priorityFieldIs(TaskPriority p) { taskPriority_ = p; }
};

Ptr<RawPriorityTask> rawTaskIs(const Ptr<TestScheduler>& s, TaskPriority p, const String& name,
                               TestTask::Body body = {}) {
  return Ptr<RawPriorityTask>(new RawPriorityTask(s, p, name, std::move(body)));
}

// A scheduler that names itself as its root but answers none of the root's
// questions: what a concrete scheduler that forgot them looks like.
class SelfRootedScheduler : public TaskScheduler {
public:
  static Ptr<SelfRootedScheduler> schedulerIs(const String& name) {
    return Ptr<SelfRootedScheduler>(new SelfRootedScheduler(name));
  }
  void suspendedIs(bool suspended) override { suspended_ = suspended; }
  void requestSchedulerRun() override {}
  void handleTaskForceYieldInTest() override {}
  void handleVirtualTimeChange() override {}
  void timerRunningInc(const TaskTimeStamp& now) override { doTimerRunningInc(now); }
  void timerRunningDec(const TaskTimeStamp& now) override { doTimerRunningDec(now); }
  TaskScheduler* rootScheduler() const override { return const_cast<SelfRootedScheduler*>(this); }

  static void operator delete(void* p) { ::operator delete(p); }

private:
  explicit SelfRootedScheduler(const String& name)
      : TaskScheduler(name, nullptr, Ptr<TaskSchedulerHistory>(new TaskSchedulerHistory(10))) {}
};

void otherGuard() {}

} // namespace

// --- the currently-running anchor --------------------------------------------------------------

TEST(CurrentlyRunningTaskAnchor, ClosingACriticalRunThatNeverSetTheFlagFails) {
  auto s = TestScheduler::rootIs("anchor");
  // The anchor opened for a normal task; the task turned critical during its
  // run, so the close looks for a running-critical flag nobody set.
  auto t = rawTaskIs(s, TaskPriority::normal, "turncoat",
                     [](TestTask& me) { static_cast<RawPriorityTask&>(me).priorityFieldIs(TaskPriority::critical); });
  t->scheduleTask();
  const std::string what = assertText([&] { s->_handleSchedulerRun(TaskPriority::scavenge); });
  EXPECT_EQ("running=0", debugAssertMessage(what, "runningIs"));
  EXPECT_EQ(1u, t->runs);
  EXPECT_EQ(0u, runningCriticalTaskCount());
  EXPECT_EQ(nullptr, assertNotRunningCriticalTaskFn);
  // The failed close left the task in place; put the state back.
  EXPECT_EQ(t.get(), s->currentlyRunningTask().get());
  t->priorityFieldIs(TaskPriority::normal);
  s->currentlyRunningTaskForTest(nullptr);
}

TEST(CurrentlyRunningTaskAnchor, ReplacedGuardPointerFailsAtTheLastCriticalClose) {
  auto s = TestScheduler::rootIs("guard");
  auto c = taskIs(s, TaskPriority::critical, "guardTest",
                  [](TestTask&) { assertNotRunningCriticalTaskFn = &otherGuard; });
  c->scheduleTask();
  const std::string what = assertText([&] { s->_handleSchedulerRun(TaskPriority::scavenge); });
  EXPECT_EQ(fmt::format("assertNotRunningCriticalTaskFn={}", reinterpret_cast<const void*>(&otherGuard)),
            debugAssertMessage(what, "runningIs"));
  EXPECT_EQ(1u, c->runs);
  // The count and the flag were taken back before the check.
  EXPECT_EQ(0u, runningCriticalTaskCount());
  EXPECT_EQ(&otherGuard, assertNotRunningCriticalTaskFn);
  assertNotRunningCriticalTaskFn = nullptr;
  s->currentlyRunningTaskForTest(nullptr);
  // Nothing is left behind: the next critical run passes.
  c->bodyIs({});
  c->scheduleTask();
  EXPECT_TRUE(s->_handleSchedulerRun(TaskPriority::scavenge));
  EXPECT_EQ(2u, c->runs);
  EXPECT_EQ(nullptr, assertNotRunningCriticalTaskFn);
}

// --- priorities out of range --------------------------------------------------------------------

TEST(TaskScheduler, PriorityOutOfRangeFailsAtUnlinkUnscheduleAndUnregister) {
  auto s = TestScheduler::rootIs("range");
  auto t = rawTaskIs(s, TaskPriority::normal, "drifter");
  t->scheduleTask();
  t->priorityFieldIs(TaskPriority(9u));
  const std::string expected = "TaskScheduler::failPriority() invalidPriority=9";
  EXPECT_EQ(expected, assertMessage(assertText([&] { s->taskSchedulerUnlinkTask(taskClockNow(), t.get()); })));
  EXPECT_EQ(expected, assertMessage(assertText([&] { s->unscheduleTask(taskClockNow(), t.get()); })));
  // Neither touched the queue.
  EXPECT_TRUE(t->onRunQueue());
  EXPECT_EQ(1u, s->runnableTaskCount(TaskPriority::normal));
  EXPECT_EQ(0u, s->runTaskCount(TaskPriority::normal));
  t->priorityFieldIs(TaskPriority::normal);
  t->unscheduleTask();

  t->priorityFieldIs(TaskPriority(9u));
  EXPECT_EQ(expected, assertMessage(assertText([&] { s->taskUnregister(t.get()); })));
  t->priorityFieldIs(TaskPriority::normal);
  // The completed record was refused before it was folded.
  EXPECT_EQ(0u, s->completedTasksPerPriority(TaskPriority::normal));
  EXPECT_EQ(0u, s->completedTaskStatForTest("drifter").taskCompletedCount());
  EXPECT_EQ(1u, s->registeredTaskCount());
  EXPECT_EQ(1u, s->tasksPerPriority(TaskPriority::normal));
}

// --- counters that wrap -------------------------------------------------------------------------

TEST(TaskScheduler, RegisteredTaskCountFailsWhenItWraps) {
  auto s = TestScheduler::rootIs("wrap");
  auto t = taskIs(s, TaskPriority::normal, "one");
  TaskSchedulerTestAccess::tasksPerPriorityIs(*s, TaskPriority::normal, 0xFFFFFFFFu);
  EXPECT_EQ("TaskScheduler::tasksPerPriorityInc() Priority: normal count: 0",
            assertMessage(assertText([&] { s->tasksPerPriorityInc(TaskPriority::normal); })));
  // One below the wrap still counts.
  TaskSchedulerTestAccess::tasksPerPriorityIs(*s, TaskPriority::normal, 0xFFFFFFFEu);
  s->tasksPerPriorityInc(TaskPriority::normal);
  EXPECT_EQ(0xFFFFFFFFu, s->tasksPerPriority(TaskPriority::normal));
  TaskSchedulerTestAccess::tasksPerPriorityIs(*s, TaskPriority::normal, 1);
}

TEST(TaskScheduler, CompletedTaskCountFailsWhenItWraps) {
  auto s = TestScheduler::rootIs("wrap");
  auto t = taskIs(s, TaskPriority::low, "finisher");
  TaskSchedulerTestAccess::completedTasksPerPriorityIs(*s, TaskPriority::low, ~U64(0));
  EXPECT_EQ("TaskScheduler::completedTasksPerPriorityInc() Priority: low count: 0",
            assertMessage(assertText([&] { s->taskUnregister(t.get()); })));
  // The record was folded before the count; the task is still registered.
  EXPECT_EQ(1u, s->completedTaskStatForTest("finisher").taskCompletedCount());
  EXPECT_EQ(1u, s->registeredTaskCount());
  EXPECT_EQ(1u, s->tasksPerPriority(TaskPriority::low));
  TaskSchedulerTestAccess::completedTasksPerPriorityIs(*s, TaskPriority::low, 0);
}

// --- queues driven negative ---------------------------------------------------------------------

TEST(TaskScheduler, TakingOutMoreThanWasScheduledFailsWithAnEmptyText) {
  auto s = TestScheduler::rootIs("negative");
  auto t = taskIs(s, TaskPriority::normal, "t");
  t->scheduleTask();
  // Taking the task out through the empty low queue drives that queue below
  // zero; the check fires before the list is touched.
  EXPECT_EQ("TaskScheduler::taskSchedulerUnlinkTask() ",
            assertMessage(assertText(
                [&] { s->taskSchedulerUnlinkTask(taskClockNow(), s->queue(TaskPriority::low), t.get()); })));
  EXPECT_TRUE(t->onRunQueue());
  EXPECT_EQ(1u, s->runnableTaskCount(TaskPriority::normal));
  t->unscheduleTask();
}

TEST(TaskScheduler, BumpFailsWhenTheBumpingQueueIsNegative) {
  auto s = TestScheduler::rootIs("negative");
  auto n = taskIs(s, TaskPriority::normal, "n");
  auto l = taskIs(s, TaskPriority::low, "l");
  n->scheduleTask();
  l->scheduleTask();
  // The high queue goes to -1 while the queues below it hold tasks, so the
  // bump gets past its sum and finds its own queue negative.
  assertText([&] { s->taskSchedulerUnlinkTask(taskClockNow(), s->queue(TaskPriority::high), n.get()); });
  EXPECT_EQ("TaskScheduler::attemptLowerPriorityBump() RunnableTasks negative -1",
            assertMessage(assertText([&] { s->attemptLowerPriorityBump(TaskPriority::high, 1); })));
  // The queues below are intact.
  EXPECT_EQ(1u, s->runnableTaskCount(TaskPriority::normal));
  EXPECT_EQ(1u, s->runnableTaskCount(TaskPriority::low));
  n->unscheduleTask();
  l->unscheduleTask();
}

// --- a scheduler without a root -------------------------------------------------------------------

TEST(TaskScheduler, RootWideQuestionsFailOnASchedulerThatIsItsOwnRoot) {
  auto s = SelfRootedScheduler::schedulerIs("selfRooted");
  EXPECT_EQ("TaskScheduler::runCriticalPriorityTasks() selfRooted: runCriticalPriorityTasks not provided by the root",
            assertMessage(assertText([&] { s->runCriticalPriorityTasks(); })));
  EXPECT_EQ("TaskScheduler::sanityCheckCurrentRunningThread() selfRooted: thread check not provided by the root",
            assertMessage(assertText([&] { s->sanityCheckCurrentRunningThread(); })));
  EXPECT_EQ("TaskScheduler::virtualTime() selfRooted: virtual time not provided by the root",
            assertMessage(assertText([&] { (void)s->virtualTime(); })));
  const std::string ratio =
      "TaskScheduler::taskTestYieldRatio() selfRooted: test yield ratio not provided by the root";
  EXPECT_EQ(ratio, assertMessage(assertText([&] { (void)s->taskTestYieldRatio(); })));
  // A task asks for the ratio before it registers, so it never gets in.
  EXPECT_EQ(ratio, assertMessage(assertText(
                       [&] { Ptr<TestTask> t(new TestTask(s, TaskPriority::normal, "refused")); })));
  EXPECT_EQ(0u, s->registeredTaskCount());
  EXPECT_EQ(0u, s->tasksPerPriority(TaskPriority::normal));
}
