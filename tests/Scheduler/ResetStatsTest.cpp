// Statistics reset: what one reset clears and keeps, how the reset task is
// made and scheduled, its slices against its quantum, the synchronous
// variant, the root's view over all schedulers, the forwarding of descriptor
// tasks, the failure of a walk without its bookmark, and allocation.
#include "FdTaskTestSupport.h"
#include "ResetStatsTestSupport.h"

#ifndef KESTO_SANITIZED
#include <KestoSupport/MallocCounter.h>
#endif

#include <cctype>
#include <chrono>
#include <type_traits>

using namespace KestoTest;
using std::chrono::milliseconds;

namespace {

// Runs of `task` recorded in its scheduler's history (the ring must hold
// them all).
unsigned runStarts(const TaskSchedulerRoot& root, const TaskImpl& task) {
  unsigned n = 0;
  for (const TaskSchedulerHistory::Event& e : *root.taskSchedulerHistory())
    n += e.eventType == TaskSchedulerEventType::runStart && e.identifier == task.taskHistoryIdentifier();
  return n;
}

// The statistics of queueStats() (runnable, completed, run counts) as one
// comparable text; idle counts are left out, since they count the tasks.
std::string queueFiguresText(const TaskSchedulerQueueStats& stats) {
  std::string text;
  for (const auto& [p, line] : stats)
    text += fmt::format("{}:{}/{}/{} ", unsigned(p.value()), line.runnableTasks, line.completedTasks, line.totalRunCount);
  return text;
}

// What follows "file.hpp:line: " in the text of an assertion raised inside
// a Boost.Intrusive header, whose path and line belong to the Boost release.
std::string boostAssertMessage(const std::string& what) {
  const std::size_t hpp = what.find(".hpp:");
  if (hpp == std::string::npos)
    return "no location in: " + what;
  std::size_t i = hpp + 5;
  while (i < what.size() && std::isdigit(static_cast<unsigned char>(what[i])))
    ++i;
  if (what.compare(i, 2, ": ") != 0)
    return "no line in: " + what;
  return what.substr(i + 2);
}

} // namespace

// --- what a reset clears and keeps ---------------------------------------------------

TEST(ResetStats, EveryStatisticsFieldIsClearedAndQuantumQueueStateAndNamesStay) {
  ManualClock clock;
  Ptr<CountingRoot> r = CountingRoot::rootIs("fields");
  ReleaseResetTaskAtEnd release(*r);
  Ptr<TestTask> t = rootTaskIs(r, TaskPriority::low, "busyOne");
  t->taskQuantumIs(TaskDurationMs(30));
  t->taskStatsNameIs("busyKind");
  giveFigures(*t, clock);
  const TaskStat before = t->getStats();
  ASSERT_EQ(2u, before.taskRunCount());
  ASSERT_EQ(TaskTimeDuration(milliseconds(210)), before.taskTotalRunTime());
  ASSERT_NE(TaskTimeStamp{}, before.firstTaskRunTimestamp());
  ASSERT_NE(TaskTimeStamp{}, before.lastTaskRunTimestamp());
  ASSERT_EQ(8u, before.taskWorkCountTotal());
  ASSERT_EQ(4.0f, before.taskWorkCountDecayAvg());
  ASSERT_EQ(4u, before.taskWorkCountHighWaterMark());
  ASSERT_EQ(9u, before.taskWorkPending());
  ASSERT_EQ(9u, before.taskWorkPendingHighWaterMark());
  ASSERT_EQ(1u, before.taskQuantumViolation500());
  ASSERT_EQ(1u, before.taskQuantumViolation200());
  ASSERT_EQ(TaskDurationMs(150), before.taskRunTimeHighWaterMark());
  ASSERT_EQ(TaskDurationMs(7), before.taskLastSchedulingLatency());
  ASSERT_EQ(TaskDurationMs(7), before.taskSchedulingLatencyHighWaterMark());

  // A suspended task stays suspended; a queued one stays queued (the walk
  // runs at normal, before the low task), in the middle of the loop.
  Ptr<TestTask> sleeper = rootTaskIs(r, TaskPriority::normal, "sleeper");
  sleeper->taskWorkCountInc(3);
  sleeper->taskSuspendedIs(true);
  t->scheduleTask();
  bool checked = false;
  Ptr<TestTask> observer = rootTaskIs(r, TaskPriority::normal, "observer", [&](TestTask&) {
    checked = true;
    EXPECT_FALSE(r->resetStatsInProgress());
    EXPECT_TRUE(statsCleared(t->getStats()));
    EXPECT_TRUE(t->onRunQueue());
    EXPECT_EQ(TaskDurationMs(30), t->taskQuantum());
    EXPECT_EQ(TaskPriority::low, t->taskPriority());
    EXPECT_EQ("busyOne", std::string(t->taskName().view()));
    EXPECT_EQ("busyKind", std::string(t->taskStatsName().view()));
    EXPECT_TRUE(statsCleared(sleeper->getStats()));
    EXPECT_TRUE(sleeper->taskSuspended());
    EXPECT_FALSE(sleeper->onRunQueue());
  });
  r->resetStats();
  observer->scheduleTask();
  Platform::doEventLoop();
  EXPECT_TRUE(checked);
  // The low task ran after the reset: its figures start again from there.
  EXPECT_EQ(1u, t->taskRunCount());
}

TEST(ResetStats, SchedulerFiguresRestartRunCountsSlipAndCompletedRecordsButKeepRunnableCounts) {
  ManualClock clock;
  Ptr<CountingRoot> r = CountingRoot::rootIs("figures");
  ReleaseResetTaskAtEnd release(*r);
  {
    Ptr<TestTask> gone = rootTaskIs(r, TaskPriority::high, "gone");
    giveFigures(*gone, clock);
  }
  Ptr<TestTask> waiting = rootTaskIs(r, TaskPriority::low, "waiting");
  waiting->scheduleTask();
  r->suspendedIs(true);
  r->resetStats();
  ASSERT_EQ(2u, r->runTaskCount(TaskPriority::high));
  ASSERT_EQ(1u, r->completedTasksPerPriority(TaskPriority::high));
  ASSERT_EQ(1u, r->completedTaskStatForTest("gone").taskCompletedCount());
  ASSERT_GT(r->maxSchedulerSlip(), TaskTimeDuration(0));
  // Run only the reset task: one pass while the low task waits behind it.
  r->suspendedIs(false);
  resetTaskOf(*r)->taskRunAndRecordFromTest();
  EXPECT_FALSE(r->resetStatsInProgress());
  EXPECT_EQ(0u, r->runTaskCount(TaskPriority::high));
  EXPECT_EQ(0u, r->runTaskCount(TaskPriority::normal));
  EXPECT_EQ(0u, r->completedTasksPerPriority(TaskPriority::high));
  EXPECT_EQ(0u, r->completedTaskStatForTest("gone").taskCompletedCount());
  EXPECT_EQ(TaskTimeDuration(0), r->maxSchedulerSlip());
  // Registered and runnable counts are not statistics.
  EXPECT_EQ(1u, r->runnableTaskCount(TaskPriority::low));
  EXPECT_EQ(1u, r->tasksPerPriority(TaskPriority::low));
  EXPECT_EQ(1u, r->tasksPerPriority(TaskPriority::normal));
  Platform::doEventLoop();
  EXPECT_EQ(1u, r->runTaskCount(TaskPriority::low));
  EXPECT_EQ(0u, r->runnableTaskCount(TaskPriority::low));
}

// --- the reset task ----------------------------------------------------------------------

TEST(ResetStats, ResetTaskIsMadeOnceAtNormalNamedAfterTheScheduler) {
  Ptr<CountingRoot> r = CountingRoot::rootIs("named");
  ReleaseResetTaskAtEnd release(*r);
  EXPECT_FALSE(resetTaskOf(*r));
  EXPECT_FALSE(r->resetStatsInProgress());
  r->resetStats();
  Ptr<TaskImpl> task = resetTaskOf(*r);
  ASSERT_TRUE(task);
  EXPECT_EQ("named;ResetStats", std::string(task->taskName().view()));
  EXPECT_EQ(TaskPriority::normal, task->taskPriority());
  EXPECT_TRUE(task->onRunQueue());
  EXPECT_TRUE(r->resetStatsInProgress());
  // Registered at the head, like any new task.
  EXPECT_EQ(task.get(), TaskSchedulerTestAccess::resetStatsBookmarkNext(*r));
  Platform::doEventLoop();
  EXPECT_FALSE(r->resetStatsInProgress());
  EXPECT_EQ(nullptr, TaskSchedulerTestAccess::resetStatsBookmarkNext(*r));
  r->resetStats();
  EXPECT_EQ(task.get(), resetTaskOf(*r).get());
  EXPECT_EQ(1u, r->registeredTaskCount());
  Platform::doEventLoop();
}

// A second walker would share the scheduler's one bookmark.
static_assert(!std::is_constructible_v<TaskScheduler::ResetStatsTask, TaskScheduler*>);

TEST(ResetStats, SchedulerHoldingOnlyTheResetTaskTakesOneRunCountingOneAndClearsCompletedFigures) {
  Ptr<CountingRoot> r = CountingRoot::rootIs("lonely");
  r->historyEntryCountIs(1000);
  ReleaseResetTaskAtEnd release(*r);
  {
    Ptr<TestTask> gone = rootTaskIs(r, TaskPriority::normal, "gone");
    gone->scheduleTask();
    Platform::doEventLoop();
  }
  ASSERT_EQ(1u, r->completedTaskStatForTest("gone").taskCompletedCount());
  ASSERT_EQ(1u, r->completedTasksPerPriority(TaskPriority::normal));
  r->passes = 0;
  r->resetStats();
  ASSERT_EQ(1u, r->registeredTaskCount());
  Platform::doEventLoop();
  Ptr<TaskImpl> reset = resetTaskOf(*r);
  EXPECT_EQ(1u, runStarts(*r, *reset));
  EXPECT_EQ(2u, r->passes); // its run and the empty pass that ends the chain
  const TaskStat st = reset->getStats();
  EXPECT_EQ(1u, st.taskWorkCountTotal());
  EXPECT_EQ(1u, st.taskWorkCountHighWaterMark());
  // It reset itself while running: the run it was in is not counted.
  EXPECT_EQ(0u, st.taskRunCount());
  EXPECT_EQ(0u, r->completedTaskStatForTest("gone").taskCompletedCount());
  EXPECT_EQ(0u, r->completedTasksPerPriority(TaskPriority::normal));
  EXPECT_EQ(0u, r->runTaskCount(TaskPriority::normal));
  EXPECT_FALSE(r->resetStatsInProgress());
}

TEST(ResetStats, ResetStatsInATaskOfTheSameSchedulerRunsLaterAtNormalByTheQueueRules) {
  Ptr<CountingRoot> r = CountingRoot::rootIs("fromTask");
  ReleaseResetTaskAtEnd release(*r);
  std::vector<std::string> seen;
  Ptr<TestTask> caller;
  const auto callerWork = [&] { return caller->getStats().taskWorkCountTotal(); };
  Ptr<TestTask> low = rootTaskIs(r, TaskPriority::low, "low", [&](TestTask&) {
    seen.push_back(fmt::format("low work={} inProgress={}", callerWork(), r->resetStatsInProgress()));
  });
  Ptr<TestTask> after = rootTaskIs(r, TaskPriority::normal, "after", [&](TestTask&) {
    seen.push_back(fmt::format("after work={} inProgress={}", callerWork(), r->resetStatsInProgress()));
  });
  caller = rootTaskIs(r, TaskPriority::normal, "caller", [&](TestTask& self) {
    self.taskScheduler()->resetStats();
    // Nothing is reset inside the call: the walk is a task of its own.
    seen.push_back(fmt::format("caller work={} inProgress={}", callerWork(), r->resetStatsInProgress()));
    EXPECT_TRUE(resetTaskOf(*r)->onRunQueue());
  });
  caller->taskWorkCountInc(3);
  low->scheduleTask();
  caller->scheduleTask();
  after->scheduleTask();
  Platform::doEventLoop();
  // The reset task joined the normal queue behind "after" and ran before the
  // low queue got its turn.
  EXPECT_EQ((std::vector<std::string>{"caller work=3 inProgress=true", "after work=3 inProgress=true",
                                      "low work=0 inProgress=false"}),
            seen);
}

TEST(ResetStats, RunningTaskCountsZeroAfterAResetAndCanStillAskToYield) {
  ManualClock clock;
  Ptr<CountingRoot> r = CountingRoot::rootIs("running");
  ReleaseResetTaskAtEnd release(*r);
  Ptr<TestTask> t = rootTaskIs(r, TaskPriority::normal, "runner");
  giveFigures(*t, clock);
  bool yieldBefore = true;
  bool yieldAfter = false;
  TaskStat inside;
  t->bodyIs([&](TestTask& self) {
    clock.advance(milliseconds(5));
    self.taskScheduler()->clearStats();
    inside = self.getStats();
    // Still measured from the start of this run: 5 ms used, then 20.
    yieldBefore = self.taskShouldYield();
    clock.advance(milliseconds(15));
    yieldAfter = self.taskShouldYield();
  });
  t->scheduleTask();
  const TaskTimeStamp start = ManualClock::now();
  Platform::doEventLoop();
  EXPECT_EQ(0u, inside.taskRunCount());
  EXPECT_EQ(start, inside.firstTaskRunTimestamp());
  EXPECT_EQ(start, inside.lastTaskRunTimestamp());
  EXPECT_TRUE(inside.taskStatus().taskCurrentlyRunning());
  EXPECT_FALSE(yieldBefore);
  EXPECT_TRUE(yieldAfter);
  // The run in progress at the reset is accounted as the first after it.
  const TaskStat after = t->getStats();
  EXPECT_EQ(0u, after.taskRunCount());
  EXPECT_EQ(TaskTimeDuration(milliseconds(20)), after.taskTotalRunTime());
  EXPECT_EQ(start, after.firstTaskRunTimestamp());
}

TEST(ResetStats, ResetWaitsInASuspendedScheduler) {
  Ptr<CountingRoot> r = CountingRoot::rootIs("suspended");
  ReleaseResetTaskAtEnd release(*r);
  Ptr<TestTask> t = rootTaskIs(r, TaskPriority::normal, "t");
  t->taskWorkCountInc(6);
  r->suspendedIs(true);
  r->resetStats();
  Platform::doEventLoop();
  EXPECT_EQ(0u, r->passes);
  EXPECT_TRUE(resetTaskOf(*r)->onRunQueue());
  EXPECT_TRUE(r->resetStatsInProgress());
  EXPECT_TRUE(r->TaskScheduler::resetStatsInProgress());
  EXPECT_EQ(6u, t->getStats().taskWorkCountTotal());
  r->suspendedIs(false);
  Platform::doEventLoop();
  EXPECT_FALSE(r->resetStatsInProgress());
  EXPECT_TRUE(statsCleared(t->getStats()));
}

// --- slices against the quantum ---------------------------------------------------------

TEST(ResetStats, RunEndsAtTheFirstTaskThatReachesTheQuantum) {
  ManualClock clock;
  Ptr<CountingRoot> r = CountingRoot::rootIs("slices");
  r->historyEntryCountIs(1000);
  ReleaseResetTaskAtEnd release(*r);
  std::vector<Ptr<ResetCountingTask>> tasks;
  for (int i = 0; i < 50; ++i) {
    tasks.push_back(resetCountingTaskIs(r, String(fmt::format("t{}", i))));
    // Each reset costs a millisecond of the walk's run.
    tasks.back()->onReset = [&clock](ResetCountingTask&) { clock.advance(milliseconds(1)); };
  }
  r->resetStats();
  Ptr<TaskImpl> reset = resetTaskOf(*r);
  ASSERT_EQ(TaskDurationMs(20), reset->taskQuantum());
  Platform::doEventLoop();
  // Run 1: itself (free) and 20 tasks; run 2: 20; run 3: the last 10. The
  // walk reset itself in run 1 and still measured that run's quantum.
  EXPECT_EQ(3u, runStarts(*r, *reset));
  const TaskStat st = reset->getStats();
  EXPECT_EQ(2u, st.taskRunCount());
  EXPECT_EQ(51u, st.taskWorkCountTotal());
  EXPECT_EQ(21u, st.taskWorkCountHighWaterMark());
  EXPECT_EQ(TaskDurationMs(20), st.taskRunTimeHighWaterMark());
  EXPECT_EQ(TaskTimeDuration(milliseconds(50)), st.taskTotalRunTime());
  EXPECT_EQ(0u, st.taskQuantumViolation200() + st.taskQuantumViolation500());
  for (const auto& t : tasks)
    EXPECT_EQ(1u, t->resets);
}

TEST(ResetStats, EveryRunResetsAtLeastOneTaskEvenPastTheQuantum) {
  ManualClock clock;
  Ptr<CountingRoot> r = CountingRoot::rootIs("slow");
  r->historyEntryCountIs(1000);
  ReleaseResetTaskAtEnd release(*r);
  std::vector<Ptr<ResetCountingTask>> tasks;
  for (int i = 0; i < 4; ++i) {
    tasks.push_back(resetCountingTaskIs(r, String(fmt::format("t{}", i))));
    tasks.back()->onReset = [&clock](ResetCountingTask&) { clock.advance(milliseconds(50)); };
  }
  r->resetStats();
  Ptr<TaskImpl> reset = resetTaskOf(*r);
  Platform::doEventLoop();
  // Run 1: itself and one task; then one task per run. A run overshoots the
  // quantum by one task's reset and no more.
  EXPECT_EQ(4u, runStarts(*r, *reset));
  const TaskStat st = reset->getStats();
  EXPECT_EQ(TaskDurationMs(50), st.taskRunTimeHighWaterMark());
  EXPECT_EQ(5u, st.taskWorkCountTotal());
  EXPECT_EQ(2u, st.taskWorkCountHighWaterMark());
  for (const auto& t : tasks)
    EXPECT_EQ(1u, t->resets);
}

// --- the synchronous variant -------------------------------------------------------------

TEST(ResetStats, ClearStatsLeavesTheSameFiguresAsResetStats) {
  ManualClock clock;
  Ptr<CountingRoot> walked = CountingRoot::rootIs("walked");
  Ptr<CountingRoot> cleared = CountingRoot::rootIs("cleared");
  ReleaseResetTaskAtEnd release(*walked);
  struct Set {
    std::vector<Ptr<ResetCountingTask>> tasks;
  };
  const auto build = [&](Ptr<CountingRoot>& r) {
    Set set;
    {
      Ptr<TestTask> gone = rootTaskIs(r, TaskPriority::high, "gone");
      giveFigures(*gone, clock);
    }
    for (const char* name : {"a", "b", "c"}) {
      set.tasks.push_back(resetCountingTaskIs(r, name, {}, TaskPriority::low));
      giveFigures(*set.tasks.back(), clock);
    }
    return set;
  };
  Set w = build(walked);
  Set c = build(cleared);
  walked->resetStats();
  resetTaskOf(*walked)->taskTestYieldRatioIs(1);
  Platform::doEventLoop();
  cleared->clearStats();
  Platform::doEventLoop();
  for (std::size_t i = 0; i < w.tasks.size(); ++i) {
    const TaskStat a = w.tasks[i]->getStats();
    const TaskStat b = c.tasks[i]->getStats();
    EXPECT_TRUE(statsCleared(a));
    EXPECT_TRUE(statsCleared(b));
    EXPECT_EQ(a.taskWorkCountHighWaterMark(), b.taskWorkCountHighWaterMark());
    EXPECT_EQ(a.firstTaskRunTimestamp(), b.firstTaskRunTimestamp());
    EXPECT_EQ(1u, w.tasks[i]->resets);
    EXPECT_EQ(1u, c.tasks[i]->resets);
  }
  EXPECT_EQ(queueFiguresText(cleared->queueStats()), queueFiguresText(walked->queueStats()));
  EXPECT_EQ(cleared->maxSchedulerSlip(), walked->maxSchedulerSlip());
  EXPECT_EQ(TaskTimeDuration(0), walked->maxSchedulerSlip());
  EXPECT_EQ(0u, walked->completedTaskStatForTest("gone").taskCompletedCount());
  EXPECT_EQ(0u, cleared->completedTaskStatForTest("gone").taskCompletedCount());
  // clearStats() runs no task and makes none.
  EXPECT_FALSE(resetTaskOf(*cleared));
}

TEST(ResetStats, ClearStatsChecksTheThread) {
  Ptr<TestScheduler> s = TestScheduler::rootIs("threadChecked");
  const unsigned before = s->threadChecks;
  s->clearStats();
  EXPECT_EQ(before + 1, s->threadChecks);
}

TEST(ResetStats, ClearStatsDuringAWalkLeavesTheWalkWhereItStands) {
  Ptr<CountingRoot> r = CountingRoot::rootIs("both");
  ReleaseResetTaskAtEnd release(*r);
  Ptr<ResetCountingTask> a = resetCountingTaskIs(r, "a");
  Ptr<ResetCountingTask> b = resetCountingTaskIs(r, "b");
  Ptr<TaskImpl> reset = resetStatsWithRatio(*r, 1);
  // Run the walk's first slice only: itself.
  reset->taskRunAndRecordFromTest();
  ASSERT_EQ(b.get(), TaskSchedulerTestAccess::resetStatsBookmarkNext(*r));
  r->clearStats();
  EXPECT_EQ(1u, a->resets);
  EXPECT_EQ(1u, b->resets);
  EXPECT_EQ(b.get(), TaskSchedulerTestAccess::resetStatsBookmarkNext(*r));
  Platform::doEventLoop();
  EXPECT_EQ(2u, a->resets);
  EXPECT_EQ(2u, b->resets);
  EXPECT_FALSE(r->resetStatsInProgress());
}

// --- over all schedulers of a root -------------------------------------------------------

TEST(ResetStats, RootReportsAResetInProgressInAnyOfItsSchedulers) {
  Ptr<CountingRoot> r = CountingRoot::rootIs("over");
  Ptr<SubScheduler> sub = SubScheduler::subIs("under", r.get());
  ReleaseResetTaskAtEnd releaseSub(*sub);
  ReleaseResetTaskAtEnd releaseRoot(*r);
  Ptr<ResetCountingTask> t = resetCountingTaskIs(sub, "inSub");
  EXPECT_FALSE(r->resetStatsInProgress());
  sub->resetStats();
  EXPECT_TRUE(sub->resetStatsInProgress());
  EXPECT_FALSE(r->TaskScheduler::resetStatsInProgress());
  EXPECT_TRUE(r->resetStatsInProgress());
  // The stand-in scheduler has no loop of its own: its passes are made here.
  while (sub->_handleSchedulerRun(TaskPriority::scavenge)) {
  }
  EXPECT_EQ(1u, t->resets);
  EXPECT_FALSE(r->resetStatsInProgress());
  // Both at once: true until the last has ended.
  sub->resetStats();
  r->resetStats();
  Platform::doEventLoop();
  EXPECT_FALSE(r->TaskScheduler::resetStatsInProgress());
  EXPECT_TRUE(r->resetStatsInProgress());
  while (sub->_handleSchedulerRun(TaskPriority::scavenge)) {
  }
  EXPECT_FALSE(r->resetStatsInProgress());
}

// --- descriptor tasks ---------------------------------------------------------------------

TEST(ResetStats, DescriptorTaskHearsOfEachResetOnceThroughItsReadTask) {
  Ptr<CountingRoot> r = CountingRoot::rootIs("fds");
  ReleaseResetTaskAtEnd release(*r);
  Ptr<TestFdTask> fd = fdTaskIs(r, "pipe");
  fd->taskWatchWritableIs(true);
  ASSERT_TRUE(fd->writeTask());
  fd->taskWorkCountReadableInc(3);
  fd->taskWorkCountWritableInc(4);
  fd->taskWorkPendingReadableIs(2);
  r->resetStats();
  Platform::doEventLoop();
  EXPECT_EQ(1u, fd->resetCalls);
  EXPECT_EQ(0u, fd->taskWorkCountReadableTotal());
  EXPECT_EQ(0u, fd->taskWorkCountWritableTotal());
  EXPECT_EQ(0u, fd->taskWorkPendingReadable());
  EXPECT_EQ(TaskStat::noValue, fd->taskWorkCountWritableHighWaterMark());
  r->clearStats();
  EXPECT_EQ(2u, fd->resetCalls);
  fd->taskWatchWritableIs(false);
}

TEST(ResetStats, ReadTaskThatOutlivesItsOwnerIsResetWithoutForwarding) {
  Ptr<CountingRoot> r = CountingRoot::rootIs("orphan");
  ReleaseResetTaskAtEnd release(*r);
  Ptr<TestFdTask> fd = fdTaskIs(r, "gone");
  Ptr<TaskImpl> read = fd->readTask();
  fd->taskWorkCountReadableInc(5);
  fd = nullptr;
  r->resetStats();
  Platform::doEventLoop();
  EXPECT_TRUE(statsCleared(read->getStats()));
}

// --- failures --------------------------------------------------------------------------------

TEST(ResetStats, WalkWithoutItsBookmarkFailsInTheList) {
  Ptr<CountingRoot> r = CountingRoot::rootIs("unparked");
  ReleaseResetTaskAtEnd release(*r);
  r->resetStats();
  Platform::doEventLoop();
  ASSERT_FALSE(r->resetStatsInProgress());
  Ptr<TaskImpl> reset = resetTaskOf(*r);
  EXPECT_EQ("ZuIntrusive::iterator_to() !node_algorithms::inited(this->priv_value_traits().to_node_ptr(value))",
            boostAssertMessage(assertText([&] { reset->taskRunFromTest(); })));
}

// --- allocation -------------------------------------------------------------------------------

TEST(ResetStats, ResetAllocatesNothingAfterTheFirstMakesItsTask) {
#ifdef KESTO_SANITIZED
  GTEST_SKIP() << "the sanitizers own malloc";
#else
  ASSERT_TRUE(KestoSupport::mallocCountingWorks());
  Ptr<CountingRoot> r = CountingRoot::rootIs("noAlloc");
  r->historyEntryCountIs(1000);
  ReleaseResetTaskAtEnd release(*r);
  std::vector<Ptr<ResetCountingTask>> tasks;
  for (int i = 0; i < 100; ++i) {
    tasks.push_back(resetCountingTaskIs(r, String(fmt::format("t{}", i))));
    tasks.back()->taskWorkCountInc(1);
  }
  {
    Ptr<TestTask> gone = rootTaskIs(r, TaskPriority::normal, "gone");
  }
  // The first reset makes the task; it walks in slices of 7.
  resetStatsWithRatio(*r, 7);
  Platform::doEventLoop();
  for (auto& t : tasks)
    t->taskWorkCountInc(1);
  const unsigned long before = KestoSupport::mallocCalls();
  r->resetStats();
  r->resetStats(); // a restart before the walk has run
  Platform::doEventLoop();
  r->clearStats();
  const unsigned long allocations = KestoSupport::mallocCalls() - before;
  EXPECT_EQ(0u, allocations);
  EXPECT_GT(runStarts(*r, *resetTaskOf(*r)), 1u);
  for (auto& t : tasks) {
    EXPECT_EQ(3u, t->resets);
    EXPECT_TRUE(statsCleared(t->getStats()));
  }
#endif
}
