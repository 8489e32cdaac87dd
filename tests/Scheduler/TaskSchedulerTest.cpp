#include "SchedulerTestSupport.h"

using namespace KestoTest;
using namespace std::chrono_literals;
using Type = TaskSchedulerEventType;

namespace {
bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

std::vector<Type::Value> eventsOf(TaskScheduler& s) {
  std::vector<Type::Value> out;
  auto& h = *s.taskSchedulerHistory();
  for (unsigned i = h.historyEventCount(); i-- > 0;)
    out.push_back(h[i].eventType);
  return out;
}

// Tasks that write one letter per run into a shared log and schedule
// themselves again, so that every queue stays as full as it started.
struct Letters {
  explicit Letters(Ptr<TestScheduler> s) : sched(std::move(s)) {}
  Ptr<TestTask> add(TaskPriority p, char letter) {
    // "test" in the name authorizes critical priority.
    auto t = taskIs(sched, p, std::string(1, letter) + "test" + std::to_string(tasks.size()),
                    [this, letter](TestTask& me) {
      log += letter;
      me.scheduleTask();
    });
    t->scheduleTask();
    tasks.push_back(t);
    return t;
  }
  std::string run(unsigned passes, TaskPriority last = TaskPriority::scavenge) {
    log.clear();
    for (unsigned i = 0; i < passes; ++i)
      sched->_handleSchedulerRun(last);
    return log;
  }
  ~Letters() {
    for (auto& t : tasks)
      t->unscheduleTask();
  }
  Ptr<TestScheduler> sched;
  std::vector<Ptr<TestTask>> tasks;
  std::string log;
};

std::string repeat(char c, unsigned n) { return std::string(n, c); }
} // namespace

// --- the bump, as exact pick sequences ------------------------------------------

TEST(TaskScheduler, HighAgainstNormalBumpsAfterNine) {
  Letters l(TestScheduler::rootIs());
  l.add(TaskPriority::high, 'H');
  l.add(TaskPriority::normal, 'N');
  EXPECT_EQ(l.run(20), repeat('H', 9) + "N" + repeat('H', 9) + "N");
}

TEST(TaskScheduler, TwoHighAgainstOneNormalBumpsAfterSeventeen) {
  Letters l(TestScheduler::rootIs());
  l.add(TaskPriority::high, 'H');
  l.add(TaskPriority::high, 'H');
  l.add(TaskPriority::normal, 'N');
  EXPECT_EQ(l.run(36), repeat('H', 17) + "N" + repeat('H', 17) + "N");
}

TEST(TaskScheduler, HighAgainstLowBumpsAfterSixtyFive) {
  Letters l(TestScheduler::rootIs());
  l.add(TaskPriority::high, 'H');
  l.add(TaskPriority::low, 'L');
  EXPECT_EQ(l.run(132), repeat('H', 65) + "L" + repeat('H', 65) + "L");
}

TEST(TaskScheduler, NormalAgainstLowBumpsAfterNine) {
  Letters l(TestScheduler::rootIs());
  l.add(TaskPriority::normal, 'N');
  l.add(TaskPriority::low, 'L');
  EXPECT_EQ(l.run(20), repeat('N', 9) + "L" + repeat('N', 9) + "L");
}

TEST(TaskScheduler, HighNormalLowBumpCascades) {
  // high's bump goes to normal, whose own test (one low waiting, one normal)
  // is made in the nested call with normal's own count.
  Letters l(TestScheduler::rootIs());
  l.add(TaskPriority::high, 'H');
  l.add(TaskPriority::normal, 'N');
  l.add(TaskPriority::low, 'L');
  // high: sum = 8 + 1 = 9, bumps when consecutive * 9 > 64, after 8 picks.
  std::string expected = repeat('H', 8) + "N";
  EXPECT_EQ(l.run(9), expected);
  EXPECT_EQ(l.sched->taskRunQueue(TaskPriority::high).consecutiveRuns(), 0u);
  EXPECT_EQ(l.sched->taskRunQueue(TaskPriority::normal).consecutiveRuns(), 1u);
  // normal bumps to low at its 10th turn (consecutive 9: 9 * 1 > 8).
  std::string seq = l.run(81);
  EXPECT_EQ(seq, repeat('H', 8) + "N" + repeat('H', 8) + "N" + repeat('H', 8) + "N" + repeat('H', 8) + "N" +
                     repeat('H', 8) + "N" + repeat('H', 8) + "N" + repeat('H', 8) + "N" + repeat('H', 8) + "N" +
                     repeat('H', 8) + "L");
}

TEST(TaskScheduler, CriticalAndAbsoluteNeverYieldPlace) {
  Letters l(TestScheduler::rootIs());
  l.add(TaskPriority::critical, 'C');
  l.add(TaskPriority::absolute, 'A');
  l.add(TaskPriority::high, 'H');
  l.add(TaskPriority::low, 'L');
  EXPECT_EQ(l.run(500), repeat('C', 500));
  l.tasks[0]->unscheduleTask();
  EXPECT_EQ(l.run(500), repeat('A', 500));
}

TEST(TaskScheduler, ScavengeRunsOnlyWhenAllElseIsEmpty) {
  auto s = TestScheduler::rootIs();
  Letters l(s);
  l.add(TaskPriority::scavenge, 'S');
  l.add(TaskPriority::low, 'L');
  EXPECT_EQ(l.run(1000), repeat('L', 1000));
  l.tasks[1]->unscheduleTask();
  EXPECT_EQ(l.run(3), "SSS");
}

TEST(TaskScheduler, ScavengeDoesNotCountInTheBump) {
  Letters l(TestScheduler::rootIs());
  l.add(TaskPriority::normal, 'N');
  l.add(TaskPriority::scavenge, 'S');
  EXPECT_EQ(l.run(100), repeat('N', 100));
  EXPECT_FALSE(l.sched->attemptLowerPriorityBump(TaskPriority::normal, 1000000));
}

TEST(TaskScheduler, PickLimitedToCriticalNeverBumps) {
  Letters l(TestScheduler::rootIs());
  l.add(TaskPriority::critical, 'C');
  l.add(TaskPriority::low, 'L');
  EXPECT_EQ(l.run(200, TaskPriority::critical), repeat('C', 200));
  EXPECT_FALSE(l.sched->attemptLowerPriorityBump(TaskPriority::critical, 1000000));
  EXPECT_FALSE(l.sched->attemptLowerPriorityBump(TaskPriority::absolute, 1000000));
  EXPECT_FALSE(l.sched->attemptLowerPriorityBump(TaskPriority::low, 1000000));
  EXPECT_FALSE(l.sched->attemptLowerPriorityBump(TaskPriority::scavenge, 1000000));
}

TEST(TaskScheduler, BumpWithNothingInRangeTakesOwnHeadAndKeepsCounting) {
  Letters l(TestScheduler::rootIs());
  l.add(TaskPriority::high, 'H');
  l.add(TaskPriority::low, 'L');
  // The low task counts in the bump but lies beyond `last`.
  EXPECT_EQ(l.run(100, TaskPriority::normal), repeat('H', 100));
  EXPECT_EQ(l.sched->taskRunQueue(TaskPriority::high).consecutiveRuns(), 100u);
  // A pass limited to fewer priorities says nothing about runnability.
  EXPECT_TRUE(l.sched->schedulerHasRunnableTasks());
  // A full pass then bumps at once.
  EXPECT_EQ(l.run(1), "L");
  EXPECT_EQ(l.sched->taskRunQueue(TaskPriority::high).consecutiveRuns(), 0u);
}

TEST(TaskScheduler, ConsecutiveRunsSurvivePicksFromAboveAndResetWhenSeenEmpty) {
  auto s = TestScheduler::rootIs();
  Letters l(s);
  l.add(TaskPriority::normal, 'N');
  l.add(TaskPriority::low, 'L');
  EXPECT_EQ(l.run(5), "NNNNN");
  auto a = taskIs(s, TaskPriority::absolute, "a", [&](TestTask&) { l.log += 'A'; });
  a->scheduleTask();
  EXPECT_EQ(l.run(1), "A");
  EXPECT_EQ(s->taskRunQueue(TaskPriority::normal).consecutiveRuns(), 5u);
  EXPECT_EQ(l.run(5), "NNNNL");
  // Seen empty on a scan: reset.
  l.tasks[0]->unscheduleTask();
  l.run(1);
  EXPECT_EQ(s->taskRunQueue(TaskPriority::normal).consecutiveRuns(), 0u);
}

TEST(TaskScheduler, FifoWithinAQueue) {
  auto s = TestScheduler::rootIs();
  std::string log;
  std::vector<Ptr<TestTask>> tasks;
  for (char c : std::string("abcd"))
    tasks.push_back(taskIs(s, TaskPriority::normal, std::string(1, c), [&log, c](TestTask&) { log += c; }));
  tasks[2]->scheduleTask();
  tasks[0]->scheduleTask();
  tasks[3]->scheduleTask();
  tasks[1]->scheduleTask();
  s->drive();
  EXPECT_EQ(log, "cadb");
}

// --- the pass ---------------------------------------------------------------------

TEST(TaskScheduler, SelfSchedulingTaskRunsOncePerPassAndRequestsTheNext) {
  auto s = TestScheduler::rootIs();
  auto t = selfSchedulingTaskIs(s, TaskPriority::normal, "loop");
  t->scheduleTask();
  EXPECT_EQ(s->runRequests, 1u);
  for (unsigned i = 1; i <= 5; ++i) {
    ASSERT_TRUE(s->pendingCallback);
    s->pendingCallback = false;
    EXPECT_TRUE(s->_handleSchedulerRun(TaskPriority::scavenge));
    EXPECT_EQ(t->runs, i);
    EXPECT_EQ(s->runRequests, 1u + i);
  }
  t->unscheduleTask();
}

TEST(TaskScheduler, OneEmptyPassEndsTheChain) {
  ManualClock clock;
  auto s = TestScheduler::rootIs();
  auto t = taskIs(s, TaskPriority::normal, "once", [&](TestTask&) { clock.advance(1ms); });
  t->scheduleTask();
  EXPECT_EQ(s->drive(), 2u);  // the run and one empty pass
  EXPECT_EQ(t->runs, 1u);
  EXPECT_FALSE(s->schedulerHasRunnableTasks());
  EXPECT_FALSE(s->schedulerBusy());
  EXPECT_FALSE(s->pendingCallback);
  auto ev = eventsOf(*s);
  EXPECT_EQ(ev.back(), Type::schedulerIdle);
  EXPECT_EQ(ev[ev.size() - 2], Type::schedulerHasNoRunnableTasks);
}

TEST(TaskScheduler, UnschedulingTheLastTaskLeavesRunnableUntilTheNextPass) {
  auto s = TestScheduler::rootIs();
  auto t = taskIs(s, TaskPriority::normal, "t");
  t->scheduleTask();
  t->unscheduleTask();
  EXPECT_TRUE(s->schedulerHasRunnableTasks());
  EXPECT_EQ(s->runnableTaskCount(), 0u);
  EXPECT_EQ(s->runTaskCount(TaskPriority::normal), 0u);
  EXPECT_FALSE(s->_handleSchedulerRun(TaskPriority::scavenge));
  EXPECT_FALSE(s->schedulerHasRunnableTasks());
}

TEST(TaskScheduler, PassDuringSuspensionRequestsNothingAndUnsuspendRestarts) {
  auto s = TestScheduler::rootIs();
  auto t = taskIs(s, TaskPriority::normal, "t");
  t->scheduleTask();
  s->suspendedIs(true);
  unsigned requests = s->runRequests;
  EXPECT_FALSE(s->_handleSchedulerRun(TaskPriority::scavenge));
  EXPECT_EQ(s->runRequests, requests);
  EXPECT_EQ(t->runs, 0u);
  EXPECT_TRUE(t->taskScheduled());  // keeps its place
  EXPECT_EQ(eventsOf(*s).back(), Type::schedulerRunIgnoredWhileSuspended);
  s->pendingCallback = false;
  s->suspendedIs(false);
  EXPECT_EQ(s->runRequests, requests + 1);
  EXPECT_TRUE(s->pendingCallback);
  s->drive();
  EXPECT_EQ(t->runs, 1u);
}

TEST(TaskScheduler, ChildPassStopsWhenTheRootIsSuspended) {
  auto root = TestScheduler::rootIs();
  auto child = TestScheduler::childIs("child", root.get());
  auto t = taskIs(child, TaskPriority::normal, "inner");
  t->scheduleTask();
  root->suspendedIs(true);
  EXPECT_FALSE(child->_handleSchedulerRun(TaskPriority::scavenge));
  EXPECT_TRUE(t->taskStatus().schedulerSuspended());
  root->suspendedIs(false);
  EXPECT_TRUE(child->_handleSchedulerRun(TaskPriority::scavenge));
  EXPECT_FALSE(t->taskStatus().schedulerSuspended());
}

TEST(TaskScheduler, SlipAndRunTimes) {
  ManualClock clock;
  auto s = TestScheduler::rootIs();
  auto t = taskIs(s, TaskPriority::normal, "t", [&](TestTask&) { clock.advance(3ms); });
  t->scheduleTask();
  TaskTimeStamp requested = ManualClock::now();
  EXPECT_EQ(s->lastSchedulerRunEnd(), requested);
  clock.advance(8ms);
  s->_handleSchedulerRun(TaskPriority::scavenge);
  EXPECT_EQ(s->maxSchedulerSlip(), 8ms);
  EXPECT_EQ(s->schedulerRunStart(), requested + 8ms);
  EXPECT_EQ(s->lastSchedulerRunEnd(), requested + 11ms);
  clock.advance(2ms);
  t->scheduleTask();
  s->_handleSchedulerRun(TaskPriority::scavenge);
  EXPECT_EQ(s->maxSchedulerSlip(), 8ms);
}

// --- counts, stats and look-ups -------------------------------------------------------

TEST(TaskScheduler, CountersAndQueueStats) {
  auto s = TestScheduler::rootIs();
  auto a = taskIs(s, TaskPriority::normal, "a");
  auto b = taskIs(s, TaskPriority::normal, "b");
  auto c = taskIs(s, TaskPriority::low, "c");
  { auto d = taskIs(s, TaskPriority::low, "d"); }
  a->scheduleTask();
  b->scheduleTask();
  c->scheduleTask();
  s->_handleSchedulerRun(TaskPriority::scavenge);  // runs a
  EXPECT_EQ(s->runnableTaskCount(TaskPriority::normal), 1u);
  EXPECT_EQ(s->runnableTaskCount(), 2u);
  EXPECT_EQ(s->runTaskCount(TaskPriority::normal), 1u);
  TaskSchedulerQueueStats q = s->queueStats();
  ASSERT_EQ(q.size(), 6u);
  unsigned i = 0;
  for (auto& [p, line] : q)
    EXPECT_EQ(p.value(), i++);
  EXPECT_EQ(q.at(TaskPriority::normal).runnableTasks, 1u);
  EXPECT_EQ(q.at(TaskPriority::normal).idleTasks, 1u);
  EXPECT_EQ(q.at(TaskPriority::normal).totalRunCount, 1u);
  EXPECT_EQ(q.at(TaskPriority::low).runnableTasks, 1u);
  EXPECT_EQ(q.at(TaskPriority::low).idleTasks, 0u);
  EXPECT_EQ(q.at(TaskPriority::low).completedTasks, 1u);
  EXPECT_EQ(q.at(TaskPriority::critical).runnableTasks, 0u);
  EXPECT_EQ(s->tasksPerPriority(TaskPriority::critical), 0u);
  b->unscheduleTask();
  c->unscheduleTask();
}

TEST(TaskScheduler, TestLookups) {
  auto s = TestScheduler::rootIs();
  auto older = taskIs(s, TaskPriority::normal, "same");
  auto newer = taskIs(s, TaskPriority::low, "same");
  EXPECT_EQ(s->taskForTest("same").get(), newer.get());  // newest first
  EXPECT_FALSE(s->taskForTest("none"));
  EXPECT_EQ(s->taskStatForTest("same").taskPriority(), TaskPriority::low);
  TaskStat none = s->taskStatForTest("none");
  EXPECT_TRUE(none.taskKey().isNull());
  EXPECT_EQ(none.taskPriority(), TaskPriority::absolute);
  EXPECT_TRUE(none.taskName().empty());
  newer = nullptr;
  EXPECT_EQ(s->completedTaskStatForTest("same").taskCompletedCount(), 1u);
  EXPECT_EQ(s->taskForTest("same").get(), older.get());
}

TEST(TaskScheduler, DefaultQuantumAppliesToLaterTasks) {
  auto s = TestScheduler::rootIs();
  EXPECT_EQ(s->defaultTaskQuantum().count(), 20u);
  auto a = taskIs(s, TaskPriority::normal, "a");
  s->defaultTaskQuantumIs(TaskDurationMs(5000));
  auto b = taskIs(s, TaskPriority::normal, "b");
  EXPECT_EQ(a->taskQuantum().count(), 20u);
  EXPECT_EQ(b->taskQuantum().count(), 5000u);
}

// --- busy state and callbacks ------------------------------------------------------------

TEST(TaskScheduler, BusyCallbacksRunInKeyOrderOnChanges) {
  auto s = TestScheduler::rootIs();
  std::string calls;
  int k1 = 0, k2 = 0;
  void* first = std::min<void*>(&k1, &k2);
  void* second = std::max<void*>(&k1, &k2);
  s->registerBusyCallback(second, [&] { calls += '2'; });
  s->registerBusyCallback(first, [&] { calls += 'x'; });
  s->registerBusyCallback(first, [&] { calls += '1'; });  // replaces
  EXPECT_EQ(s->schedulerBaseBusyCallbacksRegistered(), 2u);
  auto t = taskIs(s, TaskPriority::normal, "t");
  t->scheduleTask();
  EXPECT_EQ(calls, "12");
  EXPECT_TRUE(s->schedulerBusy());
  s->drive();
  EXPECT_EQ(calls, "1212");
  s->unregisterBusyCallback(first);
  s->unregisterBusyCallback(&calls);  // unknown: nothing
  EXPECT_EQ(s->schedulerBaseBusyCallbacksRegistered(), 1u);
  t->scheduleTask();
  EXPECT_EQ(calls, "12122");
  s->drive();
}

TEST(TaskScheduler, EmptyBusyCallbackThrowsBadFunctionCall) {
  auto s = TestScheduler::rootIs();
  int key = 0;
  s->registerBusyCallback(&key, std::function<void()>());
  auto t = taskIs(s, TaskPriority::normal, "t");
  EXPECT_THROW(t->scheduleTask(), std::bad_function_call);
  // The request for a run was made before the callbacks.
  EXPECT_EQ(s->runRequests, 1u);
  s->unregisterBusyCallback(&key);
  t->unscheduleTask();
}

TEST(TaskScheduler, RunningTimersKeepTheDomainBusy) {
  auto s = TestScheduler::rootIs();
  unsigned changes = 0;
  int key = 0;
  s->registerBusyCallback(&key, [&] { ++changes; });
  s->doTimerInc();
  EXPECT_TRUE(s->schedulerBusy());
  EXPECT_EQ(changes, 1u);
  s->doTimerInc();
  EXPECT_EQ(changes, 1u);
  auto t = taskIs(s, TaskPriority::normal, "t");
  t->scheduleTask();
  s->drive();
  EXPECT_TRUE(s->schedulerBusy());  // busy on timers only
  EXPECT_FALSE(s->schedulerHasRunnableTasks());
  EXPECT_EQ(changes, 1u);
  s->doTimerDec();
  EXPECT_EQ(changes, 1u);
  s->doTimerDec();
  EXPECT_FALSE(s->schedulerBusy());
  EXPECT_EQ(changes, 2u);
  EXPECT_EQ(s->timerRunningCount(), 0u);
  EXPECT_TRUE(contains(assertText([&] { s->doTimerDec(); }), "timerRunningCount_ > 0"));
}

TEST(TaskScheduler, ForceYieldNotificationOnlyAtEmptyEdges) {
  auto s = TestScheduler::rootIs();
  auto a = taskIs(s, TaskPriority::normal, "a");
  auto b = taskIs(s, TaskPriority::normal, "b");
  a->taskForceYieldInTestIs(true);
  b->taskForceYieldInTestIs(true);
  EXPECT_EQ(s->forceYieldNotifications, 1u);
  a->taskForceYieldInTestIs(false);
  EXPECT_EQ(s->forceYieldNotifications, 1u);
  b->taskForceYieldInTestIs(false);
  EXPECT_EQ(s->forceYieldNotifications, 2u);
}

TEST(TaskScheduler, TemporaryListIsReadAndMergedBackFirst) {
  auto s = TestScheduler::rootIs();
  std::string log;
  auto mk = [&](char c) { return taskIs(s, TaskPriority::normal, std::string(1, c), [&log, c](TestTask&) { log += c; }); };
  auto a = mk('a'), b = mk('b'), c = mk('c');
  a->scheduleTask();
  b->scheduleTask();
  s->queue(TaskPriority::normal).movePersistentToTemporary();
  EXPECT_TRUE(s->queue(TaskPriority::normal).usingTemporary());
  c->scheduleTask();  // goes to the persistent list
  s->_handleSchedulerRun(TaskPriority::scavenge);
  EXPECT_EQ(log, "a");
  s->queue(TaskPriority::normal).moveTemporaryToPersistent();
  s->drive();
  EXPECT_EQ(log, "abc");
}

// --- registration --------------------------------------------------------------------------

TEST(TaskScheduler, CriticalNamesMustBeAuthorized) {
  auto s = TestScheduler::rootIs("root");
  auto ok1 = taskIs(s, TaskPriority::critical, "MyTESTTask");
  auto ok2 = taskIs(s, TaskPriority::critical, "RibOutKeepalive#3");
  EXPECT_EQ(s->tasksPerPriority(TaskPriority::critical), 2u);
  std::string text = assertText([&] { taskIs(s, TaskPriority::critical, "RibOutkeepalive"); });
  EXPECT_TRUE(contains(text, "Use of critical priority task root:critical:RibOutkeepalive@"));
  EXPECT_TRUE(contains(text, " must be authorized"));
  EXPECT_EQ(s->tasksPerPriority(TaskPriority::critical), 2u);
  EXPECT_EQ(s->registeredTaskCount(), 2u);
}

TEST(TaskScheduler, CriticalTaskOutsideTheRootFailsAtConstruction) {
  auto root = TestScheduler::rootIs("root");
  auto group = TestScheduler::childIs("group", root.get());
  std::string text = assertText([&] { taskIs(group, TaskPriority::critical, "criticalTest"); });
  EXPECT_TRUE(contains(text, "Critical priority task group:critical:criticalTest@"));
  EXPECT_TRUE(contains(text, " can only be registered against root scheduler, not group:"));
  EXPECT_EQ(group->registeredTaskCount(), 0u);
}

TEST(TaskScheduler, InvalidPriorityFailsAtRegistration) {
  auto s = TestScheduler::rootIs();
  EXPECT_TRUE(contains(assertText([&] { taskIs(s, TaskPriority::oneBeyondLast, "bad"); }), "invalidPriority=6"));
  EXPECT_TRUE(contains(assertText([&] { s->runnableTaskCount(TaskPriority::oneBeyondLast); }), "invalidPriority=6"));
  EXPECT_TRUE(contains(assertText([&] { s->runTaskCount(TaskPriority(9u)); }), "invalidPriority=9"));
}

TEST(TaskScheduler, RegistrationMisuseFails) {
  auto s = TestScheduler::rootIs("r");
  auto t = taskIs(s, TaskPriority::normal, "t");
  std::string shown = fmt::format("{}", *t);
  EXPECT_TRUE(contains(assertText([&] { s->taskRegister(t.get()); }), "Task: " + shown + " already registered"));
  t->scheduleTask();
  EXPECT_TRUE(contains(assertText([&] { s->taskUnregister(t.get()); }), "Task: " + shown + " scheduled on unregister"));
  t->unscheduleTask();
  s->taskUnregister(t.get());
  s->tasksPerPriorityInc(TaskPriority::normal);  // so that only the list check fails
  EXPECT_TRUE(contains(assertText([&] { s->taskUnregister(t.get()); }), "Task: " + shown + " not registered"));
  // Put it back so that its destruction finds it.
  s->taskRegister(t.get());
}

TEST(TaskScheduler, UnschedulingAnUnlinkedTaskFails) {
  auto s = TestScheduler::rootIs("r");
  auto t = taskIs(s, TaskPriority::normal, "t");
  EXPECT_TRUE(contains(assertText([&] { s->unscheduleTask(taskClockNow(), t.get()); }),
                       fmt::format("Task: {} not on run queue", *t)));
}

TEST(TaskScheduler, PriorityCountFailsBelowZero) {
  auto s = TestScheduler::rootIs();
  EXPECT_TRUE(contains(assertText([&] { s->tasksPerPriorityDec(TaskPriority::scavenge); }),
                       "Priority: scavenge count: 0"));
}

TEST(TaskScheduler, NegativeRunnableCountsFail) {
  auto s = TestScheduler::rootIs();
  auto t = taskIs(s, TaskPriority::normal, "t");
  auto h = taskIs(s, TaskPriority::high, "h");
  t->scheduleTask();
  // Taking a task out through the wrong queue drives that queue negative.
  std::string text = assertText(
      [&] { s->taskSchedulerUnlinkTask(taskClockNow(), s->queue(TaskPriority::low), t.get()); });
  EXPECT_TRUE(contains(text, "TaskScheduler"));
  EXPECT_TRUE(t->taskScheduled());
  EXPECT_TRUE(contains(assertText([&] { s->runnableTaskCount(TaskPriority::low); }),
                       "Priority: low runnableTasks: -1"));
  EXPECT_TRUE(contains(assertText([&] { s->attemptLowerPriorityBump(TaskPriority::normal, 1); }),
                       "RunnableTasks negative -1"));
  t->unscheduleTask();
}

TEST(TaskScheduler, TemporaryListMustBeEmptyToFill) {
  auto s = TestScheduler::rootIs();
  auto t = taskIs(s, TaskPriority::normal, "t");
  t->scheduleTask();
  s->queue(TaskPriority::normal).movePersistentToTemporary();
  EXPECT_TRUE(contains(assertText([&] { s->queue(TaskPriority::normal).movePersistentToTemporary(); }),
                       "The temporary run queue should always be empty at this point"));
  s->queue(TaskPriority::normal).moveTemporaryToPersistent();
  t->unscheduleTask();
}

TEST(TaskScheduler, TaskOutlivesTheDropOfItsLastReferenceDuringItsRun) {
  auto s = TestScheduler::rootIs();
  Ptr<TestTask> holder = taskIs(s, TaskPriority::normal, "selfdrop");
  bool stillAlive = false;
  holder->bodyIs([&](TestTask& me) {
    holder = nullptr;
    stillAlive = me.taskMagicNumber() == TaskImpl::taskMagicNumberConstructed;
  });
  holder->scheduleTask();
  s->_handleSchedulerRun(TaskPriority::scavenge);
  EXPECT_TRUE(stillAlive);
  EXPECT_EQ(s->registeredTaskCount(), 0u);
  EXPECT_FALSE(s->currentlyRunningTask());
  EXPECT_EQ(s->completedTaskStatForTest("selfdrop").taskRunCount(), 1u);
}

TEST(TaskScheduler, ScheduledTasksHoldNoReference) {
  auto s = TestScheduler::rootIs();
  auto t = taskIs(s, TaskPriority::normal, "t");
  U32 refs = t->refCount();
  t->scheduleTask();
  EXPECT_EQ(t->refCount(), refs);
  t->unscheduleTask();
}
