#include "SchedulerTestSupport.h"

#include <Kesto/Platform/Libevent.h>


using namespace KestoTest;
using namespace std::chrono_literals;
using Type = TaskSchedulerEventType;

namespace {
bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

// The event types of the history, oldest first.
std::vector<Type::Value> eventsOf(TaskScheduler& s) {
  std::vector<Type::Value> out;
  auto& h = *s.taskSchedulerHistory();
  for (unsigned i = h.historyEventCount(); i-- > 0;)
    out.push_back(h[i].eventType);
  return out;
}

// Moves Kesto::time() of this thread for the life of the object.
class VirtualTimeShift {
public:
  explicit VirtualTimeShift(long seconds) : saved_(virtualTimeOffset) {
    virtualTimeOffset.tv_sec += seconds;
  }
  ~VirtualTimeShift() { virtualTimeOffset = saved_; }

private:
  timeval saved_;
};
} // namespace

TEST(Task, ConstructionRegistersWithoutScheduling) {
  auto s = TestScheduler::rootIs("sched");
  auto t = taskIs(s, TaskPriority::normal, "worker");
  EXPECT_FALSE(t->taskScheduled());
  EXPECT_EQ(t->taskRunCount(), 0u);
  EXPECT_EQ(t->taskQuantum(), s->defaultTaskQuantum());
  EXPECT_EQ(t->taskMagicNumber(), 1119771390u);
  EXPECT_EQ(t->taskName(), "worker");
  EXPECT_EQ(t->taskStatsName(), "worker");
  EXPECT_EQ(t->taskHistoryIdentifier(), "N worker");
  EXPECT_TRUE(t->taskName().copyIsFree());
  EXPECT_TRUE(t->includeInCompletedTask());
  EXPECT_EQ(s->tasksPerPriority(TaskPriority::normal), 1u);
  EXPECT_EQ(s->registeredTaskCount(), 1u);
  EXPECT_EQ(eventsOf(*s), (std::vector<Type::Value>{Type::create}));
  EXPECT_EQ(s->runRequests, 0u);
}

TEST(Task, DisplayForm) {
  auto s = TestScheduler::rootIs("disp");
  auto t = taskIs(s, TaskPriority::high, "shown");
  EXPECT_EQ(fmt::format("{}", *t), fmt::format("disp:high:shown@{}", DisplayPointer(t.get())));
  std::ostringstream os;
  os << static_cast<const _TaskBase*>(t.get());
  EXPECT_EQ(os.str(), fmt::format("{}", *t));
  EXPECT_EQ(fmt::format("{}", *s), "disp:");
}

TEST(Task, NullSchedulerFails) {
  EXPECT_TRUE(contains(assertText([] { TestTask t(Ptr<TaskScheduler>(), TaskPriority::normal, "orphan"); }),
                       "Need a TaskScheduler"));
}

TEST(Task, PlainPointerConstructorHoldsTheScheduler) {
  auto s = TestScheduler::rootIs();
  class Raw : public Task {
  public:
    explicit Raw(TaskScheduler* s) : Task(s, TaskPriority::low, "raw") {}
    void taskExecute() override {}
    static void operator delete(void* p) { ::operator delete(p); }
  };
  U32 before = s->refCount();
  Ptr<Raw> r(new Raw(s.get()));
  EXPECT_EQ(s->refCount(), before + 1);
  EXPECT_EQ(r->taskScheduler(), s);
}

TEST(Task, ScheduleAndUnschedule) {
  ManualClock clock;
  auto s = TestScheduler::rootIs();
  auto t = taskIs(s, TaskPriority::normal, "t");
  t->scheduleTask();
  EXPECT_TRUE(t->taskScheduled());
  EXPECT_EQ(t->taskScheduleTime(), ManualClock::now());
  EXPECT_EQ(s->runnableTaskCount(TaskPriority::normal), 1u);
  EXPECT_TRUE(s->schedulerHasRunnableTasks());
  EXPECT_EQ(s->runRequests, 1u);
  t->scheduleTask();  // already there: nothing
  EXPECT_EQ(s->runnableTaskCount(TaskPriority::normal), 1u);
  clock.advance(7ms);
  t->unscheduleTask();
  EXPECT_FALSE(t->taskScheduled());
  EXPECT_EQ(s->runnableTaskCount(TaskPriority::normal), 0u);
  EXPECT_EQ(t->getStats().taskLastSchedulingLatency().count(), 7u);
  t->unscheduleTask();  // harmless
  EXPECT_EQ(eventsOf(*s), (std::vector<Type::Value>{Type::create, Type::schedule, Type::schedulerHasRunnableTasks,
                                                    Type::schedulerBusy, Type::busy, Type::unschedule, Type::idle}));
}

TEST(Task, SelfSchedulingTaskIsQueuedWhileRunning) {
  auto s = TestScheduler::rootIs();
  TaskStat::TaskStatus during;
  auto t = taskIs(s, TaskPriority::normal, "self", [&](TestTask& me) {
    me.scheduleTask();
    during = me.taskStatus();
  });
  t->scheduleTask();
  ASSERT_TRUE(s->_handleSchedulerRun(TaskPriority::scavenge));
  EXPECT_TRUE(during.taskCurrentlyRunning());
  EXPECT_TRUE(during.taskOnRunQueue());
  EXPECT_EQ(t->getStats().taskStatusString(), " N");
  EXPECT_TRUE(t->taskScheduled());
  t->unscheduleTask();
}

TEST(Task, RunOfExactlyTwiceTheQuantumIsA200Violation) {
  ManualClock clock;
  auto s = TestScheduler::rootIs();
  TaskTimeDuration cost = 40ms;
  auto t = taskIs(s, TaskPriority::normal, "q", [&](TestTask&) { clock.advance(cost); });
  t->taskQuantumIs(TaskDurationMs(20));

  auto runOnce = [&] {
    t->scheduleTask();
    ASSERT_TRUE(s->_handleSchedulerRun(TaskPriority::scavenge));
  };
  cost = 40ms;  // exactly 2x
  runOnce();
  EXPECT_EQ(t->getStats().taskQuantumViolation200(), 1u);
  EXPECT_EQ(t->getStats().taskQuantumViolation500(), 0u);
  cost = 40ms - 1ns;  // just below 2x
  runOnce();
  EXPECT_EQ(t->getStats().taskQuantumViolation200(), 1u);
  cost = 100ms - 1ns;  // just below 5x
  runOnce();
  EXPECT_EQ(t->getStats().taskQuantumViolation200(), 2u);
  EXPECT_EQ(t->getStats().taskQuantumViolation500(), 0u);
  cost = 100ms;  // exactly 5x
  runOnce();
  EXPECT_EQ(t->getStats().taskQuantumViolation200(), 2u);
  EXPECT_EQ(t->getStats().taskQuantumViolation500(), 1u);
  cost = 10s;
  runOnce();
  EXPECT_EQ(t->getStats().taskQuantumViolation500(), 2u);
  // A violation only counts: every run happened in full.
  EXPECT_EQ(t->runs, 5u);
}

TEST(Task, RunAccountingTotalsAndHighWaterMark) {
  ManualClock clock;
  auto s = TestScheduler::rootIs();
  TaskTimeDuration cost = 3500us;
  auto t = taskIs(s, TaskPriority::normal, "acc", [&](TestTask&) { clock.advance(cost); });
  TaskTimeStamp firstStart = ManualClock::now();
  t->scheduleTask();
  clock.advance(12ms);
  ASSERT_TRUE(s->_handleSchedulerRun(TaskPriority::scavenge));
  TaskStat st = t->getStats();
  EXPECT_EQ(st.taskRunCount(), 1u);
  EXPECT_EQ(st.taskTotalRunTime(), 3500us);
  EXPECT_EQ(st.taskRunTimeHighWaterMark().count(), 3u);
  EXPECT_EQ(st.taskLastSchedulingLatency().count(), 12u);
  EXPECT_EQ(st.firstTaskRunTimestamp(), firstStart + 12ms);
  EXPECT_EQ(st.lastTaskRunTimestamp(), firstStart + 12ms);
  cost = 1ms;
  t->scheduleTask();
  ASSERT_TRUE(s->_handleSchedulerRun(TaskPriority::scavenge));
  st = t->getStats();
  EXPECT_EQ(st.taskTotalRunTime(), 4500us);
  EXPECT_EQ(st.taskRunTimeHighWaterMark().count(), 3u);
  EXPECT_EQ(st.taskLastSchedulingLatency().count(), 0u);
  EXPECT_EQ(st.taskSchedulingLatencyHighWaterMark().count(), 12u);
  EXPECT_EQ(st.firstTaskRunTimestamp(), firstStart + 12ms);
  EXPECT_EQ(st.lastTaskRunTimestamp(), firstStart + 12ms + 3500us);
}

TEST(Task, ZeroQuantumNeverViolatesAndAlwaysYields) {
  ManualClock clock;
  auto s = TestScheduler::rootIs();
  s->defaultTaskQuantumIs(TaskDurationMs(0));
  bool yielded = false;
  auto t = taskIs(s, TaskPriority::normal, "zero", [&](TestTask& me) {
    yielded = me.taskShouldYield();
    clock.advance(10s);
  });
  EXPECT_EQ(t->taskQuantum().count(), 0u);
  EXPECT_EQ(t->taskShouldYieldMode(), 0);
  t->scheduleTask();
  ASSERT_TRUE(s->_handleSchedulerRun(TaskPriority::scavenge));
  EXPECT_TRUE(yielded);
  EXPECT_EQ(t->getStats().taskQuantumViolation200(), 0u);
  EXPECT_EQ(t->getStats().taskQuantumViolation500(), 0u);
}

TEST(Task, YieldInRealTimeAtTheQuantum) {
  ManualClock clock;
  auto s = TestScheduler::rootIs();
  std::vector<bool> answers;
  auto t = taskIs(s, TaskPriority::normal, "rt", [&](TestTask& me) {
    answers.push_back(me.taskShouldYield());
    clock.advance(20ms - 1ns);
    answers.push_back(me.taskShouldYield());
    clock.advance(1ns);
    answers.push_back(me.taskShouldYield());
    EXPECT_EQ(me.taskCurrentRunTime(), 20ms);
  });
  t->scheduleTask();
  s->_handleSchedulerRun(TaskPriority::scavenge);
  EXPECT_EQ(answers, (std::vector<bool>{false, false, true}));
}

TEST(Task, YieldWhenTheClockIsBeforeTheRunStart) {
  ManualClock clock;
  auto s = TestScheduler::rootIs();
  bool answer = false;
  auto t = taskIs(s, TaskPriority::normal, "back", [&](TestTask& me) {
    clock.advance(-1ns);
    answer = me.taskShouldYield();
    clock.advance(1ns);
  });
  t->scheduleTask();
  s->_handleSchedulerRun(TaskPriority::scavenge);
  EXPECT_TRUE(answer);
}

TEST(Task, YieldInVirtualTime) {
  auto s = TestScheduler::rootIs();
  auto t = taskIs(s, TaskPriority::normal, "vt");
  s->virtualTimeIs(true);
  EXPECT_EQ(t->taskShouldYieldMode(), 1);
  bool answer = false;
  TaskTimeDuration runTime{};
  t->bodyIs([&](TestTask& me) {
    VirtualTimeShift shift(2);
    answer = me.taskShouldYield();
    runTime = me.taskCurrentRunTime();
  });
  t->scheduleTask();
  s->_handleSchedulerRun(TaskPriority::scavenge);
  EXPECT_TRUE(answer);
  EXPECT_GE(runTime, 2s);
  s->virtualTimeIs(false);
  EXPECT_EQ(t->taskShouldYieldMode(), 0);
}

TEST(Task, VirtualTimeRunIsMeasuredInVirtualTime) {
  auto s = TestScheduler::rootIs();
  auto t = taskIs(s, TaskPriority::normal, "vrun", [&](TestTask&) {
    virtualTimeOffset.tv_sec += 3;
  });
  s->virtualTimeIs(true);
  timeval saved = virtualTimeOffset;
  t->scheduleTask();
  s->_handleSchedulerRun(TaskPriority::scavenge);
  virtualTimeOffset = saved;
  // Three virtual seconds on a quantum of 20 ms: a 500% violation, and a run
  // time of at least three seconds, whatever the steady clock said.
  EXPECT_EQ(t->getStats().taskQuantumViolation500(), 1u);
  EXPECT_GE(t->getStats().taskTotalRunTime(), 3s);
}

TEST(Task, TestYieldRatioYieldsEveryNthCall) {
  auto s = TestScheduler::rootIs();
  std::vector<bool> answers;
  auto t = taskIs(s, TaskPriority::normal, "ratio", [&](TestTask& me) {
    for (int i = 0; i < 6; ++i)
      answers.push_back(me.taskShouldYield());
  });
  t->taskTestYieldRatioIs(3);
  EXPECT_EQ(t->taskShouldYieldMode(), 2);
  EXPECT_EQ(s->forceYieldTaskCount(), 1u);
  EXPECT_EQ(s->forceYieldNotifications, 1u);
  t->scheduleTask();
  s->_handleSchedulerRun(TaskPriority::scavenge);
  EXPECT_EQ(answers, (std::vector<bool>{false, false, true, false, false, true}));
  t->taskForceYieldInTestIs(true);
  answers.clear();
  t->scheduleTask();
  s->_handleSchedulerRun(TaskPriority::scavenge);
  EXPECT_EQ(answers, (std::vector<bool>(6, true)));
  EXPECT_EQ(s->forceYieldNotifications, 1u);  // still in the set: no new notification
  t->taskForceYieldInTestIs(false);
  EXPECT_EQ(t->taskShouldYieldMode(), 0);
  EXPECT_EQ(s->forceYieldTaskCount(), 0u);
  EXPECT_EQ(s->forceYieldNotifications, 2u);
  auto ev = eventsOf(*s);
  EXPECT_EQ(std::count(ev.begin(), ev.end(), Type::frcYieldOn), 2);
  EXPECT_EQ(std::count(ev.begin(), ev.end(), Type::frcYieldOff), 1);
}

TEST(Task, RootTestYieldRatioAppliesUnlessTheTaskHasItsOwn) {
  auto s = TestScheduler::rootIs();
  auto a = taskIs(s, TaskPriority::normal, "a");
  auto b = taskIs(s, TaskPriority::normal, "b");
  b->taskTestYieldRatioIs(5);
  s->testYieldRatioIs(2);
  EXPECT_EQ(a->taskShouldYieldMode(), 2);
  EXPECT_EQ(s->forceYieldTaskCount(), 2u);
  s->testYieldRatioIs(0);
  EXPECT_EQ(a->taskShouldYieldMode(), 0);
  EXPECT_EQ(b->taskShouldYieldMode(), 2);
  EXPECT_EQ(s->forceYieldTaskCount(), 1u);
}

TEST(Task, SuspendedSchedulerMakesTasksYield) {
  auto s = TestScheduler::rootIs();
  bool answer = false;
  auto t = taskIs(s, TaskPriority::normal, "sus", [&](TestTask& me) {
    s->suspendedIs(true);
    answer = me.taskShouldYield();
  });
  t->scheduleTask();
  s->_handleSchedulerRun(TaskPriority::scavenge);
  EXPECT_TRUE(answer);
  EXPECT_TRUE(t->taskStatus().schedulerSuspended());
  s->suspendedIs(false);
}

TEST(Task, AskingToYieldOutsideARunAfterRunningFails) {
  auto s = TestScheduler::rootIs();
  auto t = taskIs(s, TaskPriority::normal, "ask");
  (void)t->taskShouldYield();  // never ran: may ask
  t->scheduleTask();
  s->_handleSchedulerRun(TaskPriority::scavenge);
  EXPECT_TRUE(contains(assertText([&] { t->taskShouldYield(); }), "taskCurrentlyRunning: false taskRunCount: 1"));
}

TEST(Task, UnknownYieldModeFails) {
  auto s = TestScheduler::rootIs();
  auto t = taskIs(s, TaskPriority::normal, "mode");
  t->yieldModeIs(7);
  EXPECT_TRUE(contains(assertText([&] { t->taskShouldYield(); }), "Unexpected value 7"));
  t->yieldModeIs(0);
}

TEST(Task, CurrentRunTimeOutsideARunFails) {
  auto s = TestScheduler::rootIs("crt");
  auto t = taskIs(s, TaskPriority::normal, "idle");
  EXPECT_TRUE(contains(assertText([&] { t->taskCurrentRunTime(); }),
                       fmt::format("Task: {} not currently running", *t)));
}

TEST(Task, QuantumLimits) {
  auto s = TestScheduler::rootIs();
  auto t = taskIs(s, TaskPriority::normal, "quantum");
  t->taskQuantumIs(TaskDurationMs(1000));
  EXPECT_EQ(t->taskQuantum().count(), 1000u);
  EXPECT_TRUE(contains(assertText([&] { t->taskQuantumIs(TaskDurationMs(1001)); }), "Quantum: 1001ms"));
  EXPECT_EQ(t->taskQuantum().count(), 1000u);
  t->taskQuantumNoCheckIs(TaskDurationMs(5000));
  EXPECT_EQ(t->taskQuantum().count(), 5000u);
  EXPECT_TRUE(contains(assertText([&] { t->taskQuantumNoCheckIs(TaskDurationMs(0)); }), "Quantum: 0ns"));
  t->taskQuantumNoCheckIs(TaskDurationMs(5000));  // unchanged: nothing
}

TEST(Task, WorkCounters) {
  auto s = TestScheduler::rootIs();
  auto t = taskIs(s, TaskPriority::normal, "work");
  t->taskWorkCountInc(0);
  TaskStat st = t->getStats();
  EXPECT_EQ(st.taskWorkCountHighWaterMark(), 0u);  // a value now, not "no value"
  EXPECT_FLOAT_EQ(st.taskWorkCountDecayAvg(), 0.0f);
  t->taskWorkCountInc(10);
  st = t->getStats();
  EXPECT_FLOAT_EQ(st.taskWorkCountDecayAvg(), 1.0f);
  EXPECT_EQ(st.taskWorkCountHighWaterMark(), 10u);
  EXPECT_EQ(st.taskWorkCountTotal(), 10u);
  t->taskWorkCountInc(0xFFFFFFFFul);
  st = t->getStats();
  EXPECT_EQ(st.taskWorkCountHighWaterMark(), 0xFFFFFFFEu);
  EXPECT_EQ(st.taskWorkCountTotal(), 10u + 0xFFFFFFFFul);

  auto u = taskIs(s, TaskPriority::normal, "first");
  u->taskWorkCountInc(7);
  EXPECT_FLOAT_EQ(u->getStats().taskWorkCountDecayAvg(), 7.0f);

  t->taskWorkPendingIs(5);
  t->taskWorkPendingIs(3);
  st = t->getStats();
  EXPECT_EQ(st.taskWorkPending(), 3u);
  EXPECT_EQ(st.taskWorkPendingHighWaterMark(), 5u);
  t->taskWorkPendingIs(0xFFFFFFFFu);
  EXPECT_EQ(t->getStats().taskWorkPendingHighWaterMark(), 0xFFFFFFFEu);
}

TEST(Task, UnsuspendingANeverScheduledTaskRunsItOnce) {
  auto s = TestScheduler::rootIs();
  auto t = taskIs(s, TaskPriority::normal, "sleeper");
  t->taskSuspendedIs(true);
  EXPECT_TRUE(t->taskStatus().taskSuspended());
  t->scheduleTask();  // refused
  EXPECT_FALSE(t->taskScheduled());
  EXPECT_EQ(eventsOf(*s).back(), Type::scheduleSus);
  t->taskSuspendedIs(false);
  EXPECT_TRUE(t->taskScheduled());
  s->drive();
  EXPECT_EQ(t->runs, 1u);
  EXPECT_FALSE(t->taskScheduled());
}

TEST(Task, SuspendingTakesTheTaskOffTheQueue) {
  auto s = TestScheduler::rootIs();
  auto t = taskIs(s, TaskPriority::normal, "s");
  t->scheduleTask();
  t->taskSuspendedIs(true);
  t->taskSuspendedIs(true);  // unchanged: nothing
  EXPECT_FALSE(t->taskScheduled());
  EXPECT_EQ(s->runnableTaskCount(), 0u);
  auto ev = eventsOf(*s);
  EXPECT_EQ(std::count(ev.begin(), ev.end(), Type::suspendOn), 1);
  t->taskSuspendedIs(false);
  EXPECT_TRUE(t->taskScheduled());
  t->unscheduleTask();
}

TEST(Task, PriorityChangeOfAQueuedTaskMovesItToTheTail) {
  ManualClock clock;
  auto s = TestScheduler::rootIs();
  auto low1 = taskIs(s, TaskPriority::low, "low1");
  auto mover = taskIs(s, TaskPriority::normal, "mover");
  mover->scheduleTask();
  clock.advance(5ms);
  low1->scheduleTask();
  clock.advance(4ms);
  mover->taskPriorityIs(TaskPriority::low);
  EXPECT_EQ(mover->taskPriority(), TaskPriority::low);
  EXPECT_EQ(mover->taskScheduleTime(), ManualClock::now());
  EXPECT_EQ(mover->getStats().taskLastSchedulingLatency().count(), 9u);
  EXPECT_EQ(s->tasksPerPriority(TaskPriority::normal), 0u);
  EXPECT_EQ(s->tasksPerPriority(TaskPriority::low), 2u);
  EXPECT_EQ(s->runnableTaskCount(TaskPriority::low), 2u);
  EXPECT_EQ(s->runnableTaskCount(TaskPriority::normal), 0u);
  EXPECT_EQ(s->runTaskCount(TaskPriority::normal), 0u);
  EXPECT_EQ(mover->taskHistoryIdentifier(), "L mover");
  s->drive();
  EXPECT_EQ(low1->runs, 1u);
  EXPECT_EQ(mover->runs, 1u);
  EXPECT_LT(low1->getStats().lastTaskRunTimestamp(), mover->getStats().lastTaskRunTimestamp() + 1ns);
}

TEST(Task, PriorityChangeOfAnIdleTaskStaysIdle) {
  auto s = TestScheduler::rootIs();
  auto t = taskIs(s, TaskPriority::normal, "idle");
  t->taskPriorityIs(TaskPriority::high);
  t->taskPriorityIs(TaskPriority::high);
  EXPECT_FALSE(t->taskScheduled());
  EXPECT_EQ(s->tasksPerPriority(TaskPriority::high), 1u);
}

TEST(Task, CriticalPriorityIsFixedBothWays) {
  auto s = TestScheduler::rootIs();
  auto n = taskIs(s, TaskPriority::normal, "n");
  EXPECT_TRUE(contains(assertText([&] { n->taskPriorityIs(TaskPriority::critical); }),
                       "priority != TaskPriority::critical"));
  auto c = taskIs(s, TaskPriority::critical, "criticalTest");
  EXPECT_TRUE(contains(assertText([&] { c->taskPriorityIs(TaskPriority::high); }),
                       "taskPriority_ != TaskPriority::critical"));
}

TEST(Task, StatsNameAndCompletedRecord) {
  auto s = TestScheduler::rootIs();
  {
    auto a = taskIs(s, TaskPriority::normal, "conn#1");
    auto b = taskIs(s, TaskPriority::low, "conn#2");
    a->taskStatsNameIs("conn");
    b->taskStatsNameIs("conn");
    EXPECT_EQ(a->taskName(), "conn#1");
    EXPECT_TRUE(a->taskStatsName().copyIsFree());
    a->scheduleTask();
    b->scheduleTask();
    s->drive();
    auto c = taskIs(s, TaskPriority::normal, "hidden");
    c->includeInCompletedTaskIs(false);
  }
  TaskStat done = s->completedTaskStatForTest("conn");
  EXPECT_EQ(done.taskName(), "conn");
  EXPECT_EQ(done.taskCompletedCount(), 2u);
  EXPECT_EQ(done.taskRunCount(), 2u);
  // The first folded: locals go in reverse order, so conn#2 (low) went first.
  EXPECT_EQ(done.taskPriority(), TaskPriority::low);
  EXPECT_EQ(s->completedTasksPerPriority(TaskPriority::normal), 1u);
  EXPECT_EQ(s->completedTasksPerPriority(TaskPriority::low), 1u);
  EXPECT_TRUE(s->completedTaskStatForTest("hidden").taskName().empty());
  EXPECT_EQ(s->registeredTaskCount(), 0u);
}

TEST(Task, GetStatsCopiesTheTask) {
  auto s = TestScheduler::rootIs();
  auto t = taskIs(s, TaskPriority::scavenge, "stat");
  TaskStat st = t->getStats();
  EXPECT_EQ(st.taskName(), "stat");
  EXPECT_EQ(st.taskKey(), TaskKey(t.get()));
  EXPECT_EQ(st.taskPriority(), TaskPriority::scavenge);
  EXPECT_EQ(st.taskCompletedCount(), 0u);
  EXPECT_EQ(st.taskWorkCountHighWaterMark(), TaskStat::noValue);
  EXPECT_EQ(st.taskStatusString(), " s");
}

TEST(Task, RunFromTestUnlinksAndRuns) {
  ManualClock clock;
  auto s = TestScheduler::rootIs();
  auto t = taskIs(s, TaskPriority::normal, "direct", [&](TestTask&) { clock.advance(2ms); });
  t->scheduleTask();
  t->taskRunFromTest();
  EXPECT_EQ(t->runs, 1u);
  EXPECT_FALSE(t->taskScheduled());
  EXPECT_EQ(s->runTaskCount(TaskPriority::normal), 1u);
  unsigned before = s->runRequests;
  clock.advance(5ms);
  TaskTimeStamp start = ManualClock::now();
  t->taskRunAndRecordFromTest();
  EXPECT_EQ(t->runs, 2u);
  EXPECT_EQ(s->runRequests, before + 1);
  EXPECT_EQ(s->schedulerRunStart(), start);
  EXPECT_EQ(s->lastSchedulerRunEnd(), start + 2ms);
  EXPECT_GE(s->maxSchedulerSlip(), 5ms);
}

TEST(Task, RunStartOnTheQueueFails) {
  auto s = TestScheduler::rootIs("rq");
  auto t = taskIs(s, TaskPriority::normal, "queued");
  t->scheduleTask();
  TaskTimeStamp end;
  std::string text = assertText([&] { t->taskDoRun(taskClockNow(), &end); });
  EXPECT_TRUE(contains(text, fmt::format("{}", *t)));
  EXPECT_EQ(t->runs, 0u);
  EXPECT_FALSE(s->currentlyRunningTask());
  t->unscheduleTask();
}

TEST(Task, OverwrittenMagicNumberFailsAfterTheRun) {
  auto s = TestScheduler::rootIs("magic");
  auto t = taskIs(s, TaskPriority::normal, "m", [](TestTask& me) { me.magicNumberIs(12345); });
  t->scheduleTask();
  std::string text = assertText([&] { s->_handleSchedulerRun(TaskPriority::scavenge); });
  EXPECT_TRUE(contains(text, fmt::format("Task: {} taskMagicNumber: 12345 taskMagicNumberConstructed: 1119771390", *t)));
  t->magicNumberIs(TaskImpl::taskMagicNumberConstructed);
}

TEST(Task, ExceptionFromExecutePassesThrough) {
  auto s = TestScheduler::rootIs();
  auto t = taskIs(s, TaskPriority::normal, "thrower", [](TestTask&) { throw std::runtime_error("boom"); });
  t->scheduleTask();
  EXPECT_THROW(s->_handleSchedulerRun(TaskPriority::scavenge), std::runtime_error);
  EXPECT_FALSE(s->currentlyRunningTask());
  EXPECT_TRUE(t->taskCurrentlyRunning());  // the accounting was skipped
  EXPECT_EQ(t->getStats().taskTotalRunTime().count(), 0);
}

TEST(Task, DoubleLinkingOnTheRunQueueFails) {
  auto s = TestScheduler::rootIs();
  auto t = taskIs(s, TaskPriority::normal, "twice");
  t->scheduleTask();
  EXPECT_TRUE(contains(assertText([&] { s->enqueueForTest(*t); }),
                       "!safemode_or_autounlink || node_algorithms::inited(to_insert)"));
  t->unscheduleTask();
}

TEST(Task, BusyFollowsScheduledAndCallsTheHook) {
  auto s = TestScheduler::rootIs();
  struct Busy : TestTask {
    using TestTask::TestTask;
    void handleTaskBusy() override { ++changes; }
    unsigned changes = 0;
  };
  Ptr<Busy> t(new Busy(s, TaskPriority::normal, "busy"));
  t->scheduleTask();
  EXPECT_EQ(t->changes, 1u);
  s->drive();
  EXPECT_EQ(t->changes, 2u);
  auto ev = eventsOf(*s);
  EXPECT_EQ(std::count(ev.begin(), ev.end(), Type::busy), 1);
  EXPECT_EQ(std::count(ev.begin(), ev.end(), Type::idle), 1);
}

TEST(Task, DestructionUnschedulesAndUnregisters) {
  auto s = TestScheduler::rootIs();
  auto t = taskIs(s, TaskPriority::normal, "gone");
  t->scheduleTask();
  t->taskForceYieldInTestIs(true);
  t = nullptr;
  EXPECT_EQ(s->registeredTaskCount(), 0u);
  EXPECT_EQ(s->runnableTaskCount(), 0u);
  EXPECT_EQ(s->tasksPerPriority(TaskPriority::normal), 0u);
  EXPECT_EQ(s->forceYieldTaskCount(), 0u);
  auto ev = eventsOf(*s);
  EXPECT_EQ(ev.back(), Type::destroy);
  EXPECT_EQ(std::count(ev.begin(), ev.end(), Type::frcYieldOff), 1);
}

TEST(Task, ThreadIsCheckedOnQueueOperations) {
  auto s = TestScheduler::rootIs();
  auto t = taskIs(s, TaskPriority::normal, "checked");
  unsigned before = s->threadChecks;
  t->scheduleTask();
  t->taskScheduled();
  t->unscheduleTask();
  EXPECT_GE(s->threadChecks, before + 3);
  std::string text;
  std::thread other([&] { text = assertText([&] { t->scheduleTask(); }); });
  other.join();
  EXPECT_TRUE(contains(text, "Executing in wrong thread"));
  EXPECT_FALSE(t->taskScheduled());
}

TEST(Task, RootRatioTaskLeavesTheForceYieldSetAtDestruction) {
  auto s = TestScheduler::rootIs();
  s->testYieldRatioIs(4);
  {
    auto t = taskIs(s, TaskPriority::normal, "ratio");
    EXPECT_EQ(t->taskShouldYieldMode(), 2);
    EXPECT_EQ(s->forceYieldTaskCount(), 1u);
  }
  EXPECT_EQ(s->forceYieldTaskCount(), 0u);
  // A refused task does not stay in the set either.
  assertText([&] { taskIs(s, TaskPriority::critical, "unauthorized"); });
  EXPECT_EQ(s->forceYieldTaskCount(), 0u);
}
