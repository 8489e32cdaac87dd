#include "RootTestSupport.h"
#include <KestoSupport/TaskSchedulerTestAccess.h>

#include <Kesto/Core/System.h>
#include <Kesto/Platform/Libevent.h>
#include <Kesto/TimerWheel/TimerWheel.h>

#include <fmt/format.h>

#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <latch>
#include <sstream>
#include <thread>

using namespace KestoTest;

namespace {

constexpr const char* sanityEnv = "KESTO_SCHEDULER_THREAD_SANITY_DISABLED";

bool endsWith(const std::string& text, const std::string& tail) {
  return text.size() >= tail.size() && text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

std::string idText(std::thread::id id) {
  std::ostringstream os;
  os << id;
  return os.str();
}

// Whether `fn` raises an AssertException (quietly).
template <typename Fn>
bool asserts(Fn&& fn) {
  QuietAsserts quiet;
  try {
    fn();
  } catch (const AssertException&) {
    return true;
  }
  return false;
}

// A libevent timer's or a wheel timer's handler that counts and may act.
class TimeoutCounter : public Platform::TimeoutHandler {
public:
  void timeout() override {
    ++timeouts;
    if (action)
      action();
  }
  unsigned timeouts = 0;
  std::function<void()> action;
};

// The clock of the timer wheels, set by hand.
double wheelNow = 0.0;
double wheelClock() { return wheelNow; }

// The counters of queue statistics as one comparable text.
std::string queueStatsText(const TaskSchedulerQueueStats& stats) {
  std::string text;
  for (const auto& [p, line] : stats)
    text += fmt::format("{}:{}/{}/{}/{} ", unsigned(p.value()), line.runnableTasks, line.idleTasks, line.completedTasks,
                        line.totalRunCount);
  return text;
}

} // namespace

// --- the thread's shared root -------------------------------------------------------

TEST(TaskSchedulerRoot, SharedRootIsTheSameObjectOnOneThreadAndAnotherOnEachThread) {
  Ptr<TaskSchedulerRoot> first = schedulerRootKesto();
  Ptr<TaskSchedulerRoot> second = schedulerRootKesto();
  EXPECT_EQ(first.get(), second.get());
  EXPECT_EQ(std::string("main"), std::string(first->schedulerName().view()));
  EXPECT_TRUE(first->isMainThread());

  Ptr<TaskSchedulerRoot> other;
  pid_t otherTid = 0;
  bool sameInThread = false;
  std::thread([&] {
    Ptr<TaskSchedulerRoot> a = schedulerRootKesto();
    Ptr<TaskSchedulerRoot> b = schedulerRootKesto();
    sameInThread = a.get() == b.get();
    otherTid = Kesto::gettid();
    other = a;
    // Nothing else holds it once this thread is gone.
    other->threadSanityDisabledIs(true);
    leFree();
  }).join();
  EXPECT_TRUE(sameInThread);
  ASSERT_TRUE(other);
  EXPECT_NE(first.get(), other.get());
  EXPECT_EQ(fmt::format("thread:{}", otherTid), std::string(other->schedulerName().view()));
  EXPECT_FALSE(other->isMainThread());
  // The thread-exit clean-up dropped the thread's own reference.
  EXPECT_EQ(1u, other->refCount());
}

TEST(TaskSchedulerRoot, NonSharedRootsAreSeparateFromTheSharedOne) {
  Ptr<TaskSchedulerRoot> shared = schedulerRootKesto();
  Ptr<TaskSchedulerRoot> a = schedulerRootKestoNonShared("separateA");
  Ptr<TaskSchedulerRoot> b = TaskSchedulerRoot::TaskSchedulerRootIs("separateB");
  EXPECT_NE(shared.get(), a.get());
  EXPECT_NE(a.get(), b.get());
  EXPECT_EQ(std::string("separateA"), std::string(a->schedulerName().view()));
  EXPECT_EQ(a.get(), a->rootScheduler());
  EXPECT_EQ(a.get(), a->taskSchedulerRoot());
  EXPECT_EQ(0u, a->taskGroupCount());
  EXPECT_EQ(getpid(), a->pid());
  EXPECT_EQ(std::this_thread::get_id(), a->threadId());
}

TEST(TaskSchedulerRoot, ConstructionTakesTheThreadNameAndTheDefaultHistorySize) {
  char saved[16];
  pthread_getname_np(pthread_self(), saved, sizeof saved);
  pthread_setname_np(pthread_self(), "rootNamed");
  const unsigned savedDefault = TaskSchedulerRoot::historyEntryCountDefault;
  EXPECT_EQ(100u, savedDefault);
  TaskSchedulerRoot::historyEntryCountDefault = 7;
  Ptr<TaskSchedulerRoot> r = schedulerRootKestoNonShared("named");
  TaskSchedulerRoot::historyEntryCountDefault = savedDefault;
  pthread_setname_np(pthread_self(), saved);
  EXPECT_EQ(std::string("rootNamed"), std::string(r->threadName()));
  EXPECT_EQ(7u, r->historyEntryCount());
  EXPECT_EQ(100u, schedulerRootKestoNonShared("plain")->historyEntryCount());
}

// --- the pass chain through the event loop ---------------------------------------------

TEST(TaskSchedulerRoot, SelfSchedulingTaskRunsOnePassEachAndTheLoopServesTimersBetween) {
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  TimeoutCounter timerHandler;
  Ptr<Platform::TimerControl> timer = Platform::getTimerControl(&timerHandler);
  unsigned runsWhenTimerFired = 0;
  Ptr<TestTask> task = rootTaskIs(r, TaskPriority::normal, "chain", [&](TestTask& t) {
    if (t.runs == 10)
      timer->setTimeout(0.0);
    if (t.runs < 1000)
      t.scheduleTask();
  });
  Ptr<TestTask> observed = task;
  timerHandler.action = [&] { runsWhenTimerFired = observed->runs; };
  task->scheduleTask();
  EXPECT_TRUE(r->callbackControl()->pendingCallback());
  Platform::doEventLoop();
  EXPECT_EQ(1000u, task->runs);
  // One pass per run and one empty pass that ends the chain.
  EXPECT_EQ(1001u, r->passes);
  EXPECT_EQ(1000u, r->runTaskCount(TaskPriority::normal));
  EXPECT_EQ(1u, timerHandler.timeouts);
  // Armed in the 10th run, due at once: served before the 12th run at the
  // latest (the 11th run's request may share its expiry time).
  EXPECT_GE(runsWhenTimerFired, 10u);
  EXPECT_LE(runsWhenTimerFired, 11u);
  EXPECT_FALSE(r->schedulerHasRunnableTasks());
  EXPECT_FALSE(r->callbackControl()->pendingCallback());
}

TEST(TaskSchedulerRoot, HandleSchedulerRunIsOnePass) {
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  Ptr<TestTask> a = rootTaskIs(r, TaskPriority::normal, "a");
  Ptr<TestTask> b = rootTaskIs(r, TaskPriority::normal, "b");
  a->scheduleTask();
  b->scheduleTask();
  EXPECT_TRUE(r->handleSchedulerRun());
  EXPECT_EQ(1u, a->runs);
  EXPECT_EQ(0u, b->runs);
  EXPECT_TRUE(r->handleSchedulerRun());
  EXPECT_FALSE(r->handleSchedulerRun());
  EXPECT_FALSE(r->schedulerHasRunnableTasks());
  // Those passes requested more; the loop delivers the one left.
  Platform::doEventLoop();
  EXPECT_EQ(1u, r->passes);
}

// --- suspension -------------------------------------------------------------------------

TEST(TaskSchedulerRoot, UnsuspendingWithNothingRunnableCausesOneEmptyPass) {
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  r->suspendedIs(true);
  EXPECT_TRUE(r->suspended());
  EXPECT_EQ(TaskSchedulerEventType::schedulerSuspended, (*r->taskSchedulerHistory())[0].eventType);
  const unsigned events = r->historyEventCount();
  r->suspendedIs(true); // unchanged
  EXPECT_EQ(events, r->historyEventCount());
  r->suspendedIs(false);
  EXPECT_EQ(TaskSchedulerEventType::schedulerUnsuspended, (*r->taskSchedulerHistory())[0].eventType);
  EXPECT_TRUE(r->callbackControl()->pendingCallback());
  Platform::doEventLoop();
  EXPECT_EQ(1u, r->passes);
  EXPECT_FALSE(r->callbackControl()->pendingCallback());
  EXPECT_FALSE(r->schedulerHasRunnableTasks());
}

TEST(TaskSchedulerRoot, RequestWhileSuspendedLeavesTheControlUntouched) {
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  r->suspendedIs(true);
  r->requestSchedulerRun();
  EXPECT_FALSE(r->callbackControl()->pendingCallback());
  // Scheduling asks for a run too, and is ignored the same way; the task
  // keeps its queue place.
  Ptr<TestTask> t = rootTaskIs(r, TaskPriority::normal, "waiting");
  t->scheduleTask();
  EXPECT_FALSE(r->callbackControl()->pendingCallback());
  EXPECT_TRUE(t->onRunQueue());
  Platform::doEventLoop();
  EXPECT_EQ(0u, r->passes);
  EXPECT_EQ(0u, t->runs);
  r->suspendedIs(false);
  Platform::doEventLoop();
  EXPECT_EQ(1u, t->runs);
  EXPECT_EQ(2u, r->passes);
}

TEST(TaskSchedulerRoot, PassDuringSuspensionRequestsNoFurtherRun) {
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  Ptr<TestTask> t = rootTaskIs(r, TaskPriority::normal, "held");
  t->scheduleTask();
  r->suspendedIs(true); // the pass already requested still arrives
  Platform::doEventLoop();
  EXPECT_EQ(1u, r->passes);
  EXPECT_EQ(0u, t->runs);
  EXPECT_EQ(1u, historyCount(*r, TaskSchedulerEventType::schedulerRunIgnoredWhileSuspended));
  EXPECT_FALSE(r->callbackControl()->pendingCallback());
  r->suspendedIs(false);
  Platform::doEventLoop();
  EXPECT_EQ(1u, t->runs);
}

TEST(TaskSchedulerRoot, SuspendedTimeIsNotSlip) {
  ManualClock clock;
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  r->suspendedIs(true);
  clock.advance(std::chrono::seconds(5));
  r->suspendedIs(false);
  EXPECT_EQ(ManualClock::now(), r->lastSchedulerRunEnd());
  Platform::doEventLoop();
  EXPECT_EQ(1u, r->passes);
  EXPECT_EQ(TaskTimeDuration(0), r->maxSchedulerSlip());
}

TEST(TaskSchedulerRoot, RunningTaskSeesSuspensionInTaskShouldYield) {
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  bool before = true;
  bool during = false;
  Ptr<TestTask> t = rootTaskIs(r, TaskPriority::normal, "poller", [&](TestTask& self) {
    self.taskQuantumIs(TaskDurationMs(1000));
    before = self.taskShouldYield();
    r->suspendedIs(true);
    during = self.taskShouldYield();
    r->suspendedIs(false);
  });
  t->scheduleTask();
  Platform::doEventLoop();
  EXPECT_FALSE(before);
  EXPECT_TRUE(during);
}

// --- critical work from inside a task ------------------------------------------------------

TEST(TaskSchedulerRoot, RunCriticalPriorityTasksFromANormalTaskRunsTheCriticalTaskAndRestoresTheRunningTask) {
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  TaskImpl* runningInCritical = nullptr;
  bool normalStillRunning = false;
  TaskImpl* runningAfter = nullptr;
  Ptr<TestTask> critical = rootTaskIs(r, TaskPriority::critical, "criticalTest", [&](TestTask&) {
    runningInCritical = r->currentlyRunningTask().get();
  });
  Ptr<TestTask> normal;
  normal = rootTaskIs(r, TaskPriority::normal, "worker", [&](TestTask&) {
    critical->scheduleTask();
    r->runCriticalPriorityTasks();
    normalStillRunning = normal->taskCurrentlyRunning();
    runningAfter = r->currentlyRunningTask().get();
  });
  normal->scheduleTask();
  Platform::doEventLoop();
  EXPECT_EQ(1u, critical->runs);
  EXPECT_EQ(1u, normal->runs);
  EXPECT_EQ(critical.get(), runningInCritical);
  EXPECT_TRUE(normalStillRunning);
  EXPECT_EQ(normal.get(), runningAfter);
  EXPECT_FALSE(r->currentlyRunningTask());
  EXPECT_EQ(0u, runningCriticalTaskCount());

  // Newest first: the critical run sits between start and end, inside the
  // normal task's run.
  const std::vector<std::string> lines = historyLines(*r);
  auto at = [&](const std::string& line) {
    return std::find(lines.begin(), lines.end(), line) - lines.begin();
  };
  EXPECT_LT(at("run end N worker"), at("schedulerRunCriticalEnd countingRoot"));
  EXPECT_LT(at("schedulerRunCriticalEnd countingRoot"), at("run end C criticalTest"));
  EXPECT_LT(at("run end C criticalTest"), at("run start C criticalTest"));
  EXPECT_LT(at("run start C criticalTest"), at("schedulerRunCriticalStart countingRoot"));
  EXPECT_LT(at("schedulerRunCriticalStart countingRoot"), at("run start N worker"));
  EXPECT_LT(at("run start N worker"), ptrdiff_t(lines.size()));
}

TEST(TaskSchedulerRoot, RunCriticalPriorityTasksOfAnySchedulerIsTheRoots) {
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  Ptr<SubScheduler> sub = SubScheduler::subIs("sub", r.get());
  Ptr<TestTask> critical = rootTaskIs(r, TaskPriority::critical, "criticalTest");
  critical->scheduleTask();
  static_cast<TaskScheduler*>(sub.get())->runCriticalPriorityTasks();
  EXPECT_EQ(1u, critical->runs);
  Platform::doEventLoop();
}

TEST(TaskSchedulerRoot, RunCriticalPriorityTasksRunsOnlyCriticalTasksAndStopsWhenSuspended) {
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  Ptr<TestTask> first = rootTaskIs(r, TaskPriority::critical, "firstTest", [&](TestTask&) { r->suspendedIs(true); });
  Ptr<TestTask> second = rootTaskIs(r, TaskPriority::critical, "secondTest");
  Ptr<TestTask> high = rootTaskIs(r, TaskPriority::high, "high");
  high->scheduleTask();
  first->scheduleTask();
  second->scheduleTask();
  r->runCriticalPriorityTasks();
  EXPECT_EQ(1u, first->runs);
  EXPECT_EQ(0u, second->runs);
  EXPECT_EQ(0u, high->runs);
  EXPECT_TRUE(second->onRunQueue());
  r->suspendedIs(false);
  r->runCriticalPriorityTasks();
  EXPECT_EQ(1u, second->runs);
  EXPECT_EQ(0u, high->runs);
  EXPECT_TRUE(high->onRunQueue());
  Platform::doEventLoop();
  EXPECT_EQ(1u, high->runs);
}

TEST(TaskSchedulerRoot, RunCriticalPriorityTasksWithNothingToDoRecordsStartAndEndOnly) {
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  Ptr<TestTask> idle = rootTaskIs(r, TaskPriority::normal, "idle");
  Ptr<TestTask> queued = rootTaskIs(r, TaskPriority::low, "queued");
  queued->scheduleTask();
  Platform::doEventLoop();
  ASSERT_EQ(1u, queued->runs);
  queued->scheduleTask();
  const bool pending = r->callbackControl()->pendingCallback();
  EXPECT_TRUE(pending);
  const std::string before = queueStatsText(r->queueStats());
  r->clearHistory();
  r->runCriticalPriorityTasks();
  EXPECT_EQ((std::vector<std::string>{"schedulerRunCriticalEnd countingRoot",
                                      "schedulerRunCriticalStart countingRoot"}),
            historyLines(*r));
  EXPECT_FALSE(r->currentlyRunningTask());
  EXPECT_EQ(pending, r->callbackControl()->pendingCallback());
  EXPECT_EQ(before, queueStatsText(r->queueStats()));
  EXPECT_TRUE(queued->onRunQueue());
  EXPECT_EQ(1u, queued->runs);
  EXPECT_EQ(0u, idle->runs);
  Platform::doEventLoop();
  EXPECT_EQ(2u, queued->runs);
}

TEST(TaskSchedulerRoot, RunCriticalPriorityTasksExpiresTheTimersOfTheRootsWheel) {
  wheelNow = 1000.0;
  timerWheelClockIsForTest(wheelClock);
  {
    Ptr<CountingRoot> r = CountingRoot::rootIs();
    TimeoutCounter handler;
    Ptr<Platform::TimerControl> timer = Platform::getTimerControl(&handler, r->timerWheel());
    Ptr<TestTask> critical = rootTaskIs(r, TaskPriority::critical, "timerDrivenTest");
    handler.action = [&] { critical->scheduleTask(); };
    timer->setTimeout(0.5);
    r->runCriticalPriorityTasks();
    EXPECT_EQ(0u, handler.timeouts);
    wheelNow = 1001.0;
    r->runCriticalPriorityTasks();
    EXPECT_EQ(1u, handler.timeouts);
    // The timer that fired drove a critical task, which ran in the same call.
    EXPECT_EQ(1u, critical->runs);
    timer->delTimeout();
  }
  timerWheelClockIsForTest(nullptr);
}

TEST(TaskSchedulerRoot, PreserveAnchorFailsIfTheNestedRunLeftATaskBehind) {
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  Ptr<TestTask> outer = rootTaskIs(r, TaskPriority::normal, "outer");
  Ptr<TestTask> stray = rootTaskIs(r, TaskPriority::normal, "stray");
  TaskSchedulerTestAccess::currentlyRunningTaskIs(*r, outer);
  std::string text = assertText([&] {
    TaskSchedulerRoot::PreserveCurrentlyRunningTaskAnchor anchor(*r);
    EXPECT_EQ(outer.get(), anchor.preserved().get());
    EXPECT_FALSE(r->currentlyRunningTask());
    TaskSchedulerTestAccess::currentlyRunningTaskIs(*r, stray);
  });
  EXPECT_NE(std::string::npos, text.find(fmt::format("currentlyRunningTask_ is not NULL {}",
                                                     fmt::format("{}", DisplayPointer(stray.get())))));
  TaskSchedulerTestAccess::currentlyRunningTaskIs(*r, nullptr);
  {
    TaskSchedulerRoot::PreserveCurrentlyRunningTaskAnchor anchor(*r);
  }
  EXPECT_FALSE(r->currentlyRunningTask());
}

// --- virtual time ------------------------------------------------------------------------

TEST(TaskSchedulerRoot, VirtualTimeFollowsFastForwardOnTheMainThread) {
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  Ptr<SubScheduler> sub = SubScheduler::subIs("sub", r.get());
  Ptr<TestTask> rootTask = rootTaskIs(r, TaskPriority::normal, "rootTask");
  Ptr<TestTask> subTask = rootTaskIs(sub, TaskPriority::normal, "subTask");
  EXPECT_FALSE(r->virtualTime());
  EXPECT_EQ(0, rootTask->taskShouldYieldMode());
  {
    FastForwardOn ff;
    // Noticed at the next check, not before.
    EXPECT_FALSE(r->virtualTime());
    r->handleSchedulerRun();
    EXPECT_TRUE(r->virtualTime());
    EXPECT_EQ(1, rootTask->taskShouldYieldMode());
    EXPECT_EQ(1, subTask->taskShouldYieldMode());
    EXPECT_EQ(1u, sub->virtualTimeChanges);
    EXPECT_EQ(1u, historyCount(*r, TaskSchedulerEventType::schedulerVirtualTimeOn));
    r->virtualTimeCheck(); // unchanged
    EXPECT_EQ(1u, sub->virtualTimeChanges);
    // A root made while it is on starts with it.
    EXPECT_TRUE(schedulerRootKestoNonShared("bornVirtual")->virtualTime());
  }
  r->virtualTimeCheck();
  EXPECT_FALSE(r->virtualTime());
  EXPECT_EQ(0, rootTask->taskShouldYieldMode());
  EXPECT_EQ(2u, sub->virtualTimeChanges);
  EXPECT_EQ(1u, historyCount(*r, TaskSchedulerEventType::schedulerVirtualTimeOff));
  Platform::doEventLoop();
}

TEST(TaskSchedulerRoot, SharedRootChecksVirtualTimeOnEveryCall) {
  Ptr<TaskSchedulerRoot> shared = schedulerRootKesto();
  EXPECT_FALSE(shared->virtualTime());
  {
    FastForwardOn ff;
    EXPECT_TRUE(schedulerRootKesto()->virtualTime());
  }
  EXPECT_FALSE(schedulerRootKesto()->virtualTime());
}

TEST(TaskSchedulerRoot, RootOnAnotherThreadIgnoresFastForward) {
  FastForwardOn ff;
  bool virtualAtStart = true;
  bool virtualAfterPass = true;
  unsigned onEvents = 1;
  std::thread([&] {
    {
      Ptr<TaskSchedulerRoot> r = schedulerRootKesto();
      virtualAtStart = r->virtualTime();
      r->handleSchedulerRun();
      virtualAfterPass = r->virtualTime();
      onEvents = historyCount(*r, TaskSchedulerEventType::schedulerVirtualTimeOn);
      Ptr<TaskSchedulerRoot> separate = schedulerRootKestoNonShared("separate");
      virtualAfterPass = virtualAfterPass || separate->virtualTime();
    }
    leFree();
  }).join();
  EXPECT_FALSE(virtualAtStart);
  EXPECT_FALSE(virtualAfterPass);
  EXPECT_EQ(0u, onEvents);
  EXPECT_TRUE(schedulerRootKesto()->virtualTime());
}

TEST(TaskSchedulerRoot, UnderVirtualTimeAQuantumIsMeasuredInVirtualTime) {
  FastForwardOn ff;
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  bool atStart = true;
  bool afterJump = false;
  Ptr<TestTask> t = rootTaskIs(r, TaskPriority::normal, "virtualWorker", [&](TestTask& self) {
    atStart = self.taskShouldYield();
    Platform::fastForwardBy(0.05); // 2.5 quanta of 20 ms
    afterJump = self.taskShouldYield();
  });
  t->scheduleTask();
  Platform::doEventLoop();
  EXPECT_EQ(1u, t->runs);
  EXPECT_FALSE(atStart);
  EXPECT_TRUE(afterJump);
  const TaskStat stat = t->getStats();
  EXPECT_EQ(1u, stat.taskQuantumViolation200());
  EXPECT_EQ(0u, stat.taskQuantumViolation500());
}

TEST(TaskSchedulerRoot, TimerOnTheRootsWheelSchedulesATaskAfterAFastForwardedWait) {
  FastForwardOn ff;
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  Ptr<TestTask> t = rootTaskIs(r, TaskPriority::normal, "woken");
  TimeoutCounter handler;
  handler.action = [&] { t->scheduleTask(); };
  Ptr<Platform::TimerControl> timer = Platform::getTimerControl(&handler, r->timerWheel());
  const Time start = Kesto::time();
  timer->setTimeout(3600.0);
  // Jumps from timer to timer until the virtual clock has gone the hour.
  Platform::doEventLoop(3700.0);
  EXPECT_EQ(1u, handler.timeouts);
  EXPECT_EQ(1u, t->runs);
  EXPECT_GE(Kesto::time() - start, 3600.0);
  EXPECT_EQ(2u, r->passes);
}

// --- test yield ratio ----------------------------------------------------------------------

TEST(TaskSchedulerRoot, TestYieldRatioAppliesToEveryTaskOfEveryScheduler) {
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  Ptr<SubScheduler> sub = SubScheduler::subIs("sub", r.get());
  Ptr<TestTask> subTask = rootTaskIs(sub, TaskPriority::normal, "subTask");
  std::vector<bool> answers;
  Ptr<TestTask> t = rootTaskIs(r, TaskPriority::normal, "ratioWorker", [&](TestTask& self) {
    for (int i = 0; i < 6; ++i)
      answers.push_back(self.taskShouldYield());
  });
  const unsigned events = r->historyEventCount();
  r->taskTestYieldRatioIs(3);
  EXPECT_EQ(3, r->taskTestYieldRatio());
  EXPECT_EQ(TaskSchedulerEventType::schedulerTestYieldRatioOn, (*r->taskSchedulerHistory())[0].eventType);
  EXPECT_EQ(2, t->taskShouldYieldMode());
  EXPECT_EQ(2, subTask->taskShouldYieldMode());
  EXPECT_EQ(1u, r->forceYieldTaskCount());
  EXPECT_EQ(1u, sub->forceYieldTaskCount());
  EXPECT_EQ(events + 1, r->historyEventCount());
  r->taskTestYieldRatioIs(3); // unchanged
  EXPECT_EQ(events + 1, r->historyEventCount());
  // A task made while the ratio is on gets it at construction.
  EXPECT_EQ(2, rootTaskIs(r, TaskPriority::low, "late")->taskShouldYieldMode());
  t->scheduleTask();
  Platform::doEventLoop();
  EXPECT_EQ((std::vector<bool>{false, false, true, false, false, true}), answers);
  r->taskTestYieldRatioIs(0);
  EXPECT_EQ(TaskSchedulerEventType::schedulerTestYieldRatioOff, (*r->taskSchedulerHistory())[0].eventType);
  EXPECT_EQ(0, t->taskShouldYieldMode());
  EXPECT_EQ(0, subTask->taskShouldYieldMode());
  EXPECT_EQ(0u, r->forceYieldTaskCount());
}

// --- the thread check ------------------------------------------------------------------------

TEST(TaskSchedulerRoot, TwoThreadsEachRunTheirOwnRootAndTheCheckRefusesTheOther) {
  const bool savedThrow = throwOnAssertFail();
  const bool savedTrace = forceTraceOnAssert();
  throwOnAssertFailIs(true);
  forceTraceOnAssertIs(false);

  struct Side {
    Ptr<TestTask> task;
    std::string rootName;
    std::thread::id id;
    unsigned runs = 0;
    std::string crossText;
    bool crossScheduleFailed = false;
  };
  Side sides[2];
  std::latch ready(2);
  std::latch crossed(2);
  auto body = [&](int self, const char* name) {
    pthread_setname_np(pthread_self(), name);
    Side& mine = sides[self];
    Side& theirs = sides[1 - self];
    {
      Ptr<TaskSchedulerRoot> r = schedulerRootKesto();
      mine.rootName = std::string(r->schedulerName().view());
      mine.id = std::this_thread::get_id();
      mine.task = rootTaskIs(r, TaskPriority::normal, "loopTask", [](TestTask& t) {
        if (t.runs < 500)
          t.scheduleTask();
      });
      mine.task->scheduleTask();
      Platform::doEventLoop();
      mine.runs = mine.task->runs;
      ready.arrive_and_wait();
      try {
        theirs.task->taskScheduled();
      } catch (const AssertException& e) {
        mine.crossText = e.what();
      }
      try {
        theirs.task->scheduleTask();
      } catch (const AssertException&) {
        mine.crossScheduleFailed = true;
      }
      crossed.arrive_and_wait();
      mine.task = nullptr;
    }
    leFree();
  };
  std::thread a(body, 0, "rootA");
  std::thread b(body, 1, "rootB");
  a.join();
  b.join();
  throwOnAssertFailIs(savedThrow);
  forceTraceOnAssertIs(savedTrace);

  EXPECT_EQ(500u, sides[0].runs);
  EXPECT_EQ(500u, sides[1].runs);
  EXPECT_NE(sides[0].rootName, sides[1].rootName);
  for (int self = 0; self < 2; ++self) {
    const Side& mine = sides[self];
    const Side& theirs = sides[1 - self];
    const std::string expected =
        fmt::format("Executing in wrong thread {}({}) pid {} scheduler belongs to thread {}({}) pid {}",
                    idText(mine.id), self == 0 ? "rootA" : "rootB", getpid(), idText(theirs.id),
                    self == 0 ? "rootB" : "rootA", getpid());
    EXPECT_TRUE(endsWith(mine.crossText, expected)) << mine.crossText << "\n expected end: " << expected;
    EXPECT_TRUE(mine.crossScheduleFailed);
  }
}

TEST(TaskSchedulerRoot, AnyValueOfTheEnvironmentVariableDisablesTheCheck) {
  for (const char* value : {"", "0", "yes"}) {
    setenv(sanityEnv, value, 1);
    Ptr<TaskSchedulerRoot> r = schedulerRootKestoNonShared("envDisabled");
    unsetenv(sanityEnv);
    EXPECT_TRUE(r->threadSanityDisabled()) << "value '" << value << "'";
    Ptr<TestTask> t = rootTaskIs(r, TaskPriority::normal, "envTask");
    bool failed = true;
    std::thread([&] { failed = asserts([&] { (void)t->taskScheduled(); }); }).join();
    EXPECT_FALSE(failed) << "value '" << value << "'";
  }
  Ptr<TaskSchedulerRoot> checked = schedulerRootKestoNonShared("envEnabled");
  EXPECT_FALSE(checked->threadSanityDisabled());
  Ptr<TestTask> t = rootTaskIs(checked, TaskPriority::normal, "checkedTask");
  bool failed = false;
  std::thread([&] { failed = asserts([&] { (void)t->taskScheduled(); }); }).join();
  EXPECT_TRUE(failed);
}

TEST(TaskSchedulerRoot, CheckIsSwitchedOffPerRootOrByAuxThreads) {
  Ptr<TaskSchedulerRoot> r = schedulerRootKestoNonShared("switchable");
  Ptr<TestTask> t = rootTaskIs(r, TaskPriority::normal, "switchTask");
  auto failsElsewhere = [&] {
    bool failed = false;
    std::thread([&] { failed = asserts([&] { (void)t->taskScheduled(); }); }).join();
    return failed;
  };
  EXPECT_TRUE(failsElsewhere());
  r->threadSanityDisabledIs(true);
  EXPECT_TRUE(r->threadSanityDisabled());
  EXPECT_FALSE(failsElsewhere());
  r->threadSanityDisabledIs(false);
  EXPECT_TRUE(failsElsewhere());
  auxThreadCount = 1;
  EXPECT_FALSE(failsElsewhere());
  auxThreadCount = 0;
  EXPECT_TRUE(failsElsewhere());
}

TEST(TaskSchedulerRoot, ForkedChildPassesTheCheckWhateverTheThread) {
  // The root belongs to a thread that is gone: in this process any touch
  // fails, in a forked child none does.
  Ptr<TaskSchedulerRoot> r;
  Ptr<TestTask> t;
  std::thread([&] {
    r = schedulerRootKestoNonShared("forkParent");
    t = rootTaskIs(r, TaskPriority::normal, "parentTask");
    leFree(); // the root's controls stay safe to destroy
  }).join();
  EXPECT_TRUE(asserts([&] { (void)t->taskScheduled(); }));

  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    int rc = 0;
    throwOnAssertFailIs(true);
    forceTraceOnAssertIs(false);
    try {
      (void)t->taskScheduled();
      Ptr<TestTask> inChild = rootTaskIs(r, TaskPriority::normal, "childTask");
      if (r->totalRegisteredTaskCount() != 2)
        rc = 2;
      inChild = nullptr;
      r->sanityCheckCurrentRunningThread();
    } catch (...) {
      rc = 1;
    }
    _exit(rc);
  }
  int status = 0;
  ASSERT_EQ(child, waitpid(child, &status, 0));
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(0, WEXITSTATUS(status));

  r->threadSanityDisabledIs(true);
  t = nullptr;
}

// --- the schedulers of the thread -----------------------------------------------------------

TEST(TaskSchedulerRoot, SchedulersAreCountedSummedAndFound) {
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  Ptr<SubScheduler> one = SubScheduler::subIs("one", r.get());
  Ptr<SubScheduler> two = SubScheduler::subIs("two", r.get());
  EXPECT_EQ(2u, r->taskGroupCount());
  EXPECT_EQ(3u, r->schedulers().size());
  Ptr<TestTask> a = rootTaskIs(r, TaskPriority::normal, "a");
  Ptr<TestTask> b = rootTaskIs(one, TaskPriority::normal, "b");
  Ptr<TestTask> c = rootTaskIs(two, TaskPriority::low, "c");
  Ptr<TestTask> d = rootTaskIs(two, TaskPriority::low, "d");
  EXPECT_EQ(4u, r->totalRegisteredTaskCount());
  b->scheduleTask();
  c->scheduleTask();
  const TaskSchedulerQueueStats stats = r->queueStatsRoot();
  EXPECT_EQ(1u, stats.at(TaskPriority::normal).runnableTasks);
  EXPECT_EQ(1u, stats.at(TaskPriority::normal).idleTasks);
  EXPECT_EQ(1u, stats.at(TaskPriority::low).runnableTasks);
  EXPECT_EQ(1u, stats.at(TaskPriority::low).idleTasks);
  EXPECT_EQ(one.get(), r->findSchedulerForTest("one"));
  EXPECT_EQ(r.get(), r->findSchedulerForTest("countingRoot"));
  EXPECT_EQ(nullptr, static_cast<const TaskSchedulerRoot&>(*r).findSchedulerForTest("three"));
  EXPECT_FALSE(r->resetStatsInProgress());
  b->unscheduleTask();
  c->unscheduleTask();
  d = nullptr;
  two = nullptr;
  // Its last task still holds it.
  EXPECT_EQ(2u, r->taskGroupCount());
  c = nullptr;
  EXPECT_EQ(1u, r->taskGroupCount());
  EXPECT_EQ(nullptr, r->findSchedulerForTest("two"));
}

TEST(TaskSchedulerRoot, RegisteringTwiceOrUnregisteringAnUnknownSchedulerFails) {
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  EXPECT_TRUE(endsWith(assertText([&] { r->registerScheduler(r.get()); }), "insert failed for countingRoot:"));
  Ptr<SubScheduler> sub = SubScheduler::subIs("loose", r.get());
  r->unregisterScheduler(sub.get());
  EXPECT_TRUE(endsWith(assertText([&] { r->unregisterScheduler(sub.get()); }), "delete failed for loose:"));
  r->registerScheduler(sub.get());
  // With the set empty (never so outside this test) the group count fails
  // with an empty text.
  r->unregisterScheduler(r.get());
  r->unregisterScheduler(sub.get());
  EXPECT_TRUE(endsWith(assertText([&] { r->taskGroupCount(); }), "TaskSchedulerRoot::taskGroupCount() "));
  r->registerScheduler(sub.get());
  r->registerScheduler(r.get());
  EXPECT_EQ(1u, r->taskGroupCount());
}

TEST(TaskSchedulerRoot, TimersRunningKeepTheRootBusy) {
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  const TaskTimeStamp now = taskClockNow();
  r->timerRunningInc(now);
  EXPECT_TRUE(r->schedulerBusy());
  r->timerRunningInc(now);
  r->timerRunningDec(now);
  EXPECT_TRUE(r->schedulerBusy());
  r->timerRunningDec(now);
  EXPECT_FALSE(r->schedulerBusy());
  EXPECT_TRUE(endsWith(assertText([&] { r->timerRunningDec(now); }), "timerRunningCount_ > 0"));
}

// --- latency and history -------------------------------------------------------------------------

TEST(TaskSchedulerRoot, UpdateSchedulerLatencyCountsTheHeldTimeAsSlip) {
  ManualClock clock;
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  clock.advance(std::chrono::milliseconds(7));
  r->doUpdateSchedulerLatency();
  EXPECT_EQ(TaskTimeDuration(std::chrono::milliseconds(7)), r->maxSchedulerSlip());
  EXPECT_EQ(ManualClock::now(), r->schedulerRunStart());
  EXPECT_EQ(ManualClock::now(), r->lastSchedulerRunEnd());
  clock.advance(std::chrono::milliseconds(3));
  r->doUpdateSchedulerLatency();
  EXPECT_EQ(TaskTimeDuration(std::chrono::milliseconds(7)), r->maxSchedulerSlip());
}

TEST(TaskSchedulerRoot, HistoryInterfaceOfTheRoot) {
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  EXPECT_EQ(100u, r->historyEntryCount());
  for (int i = 0; i < 50; ++i)
    r->taskTestYieldRatioIs(U8(i % 2 ? 0 : 1));
  EXPECT_EQ(50u, r->historyEventCount());
  r->historyEntryCountIs(10);
  EXPECT_EQ(10u, r->historyEntryCount());
  EXPECT_EQ(10u, r->historyEventCount());
  r->clearHistory();
  EXPECT_EQ(0u, r->historyEventCount());
  r->suspendedIs(true);
  EXPECT_EQ(1u, r->historyEventCount());
  EXPECT_EQ(10u, r->historyEntryCount());
  r->historyEntryCountIs(0);
  r->suspendedIs(false);
  EXPECT_EQ(0u, r->historyEventCount());
  Platform::doEventLoop();
}

TEST(TaskSchedulerRoot, ExceptionOfATaskLeavesTheEventLoop) {
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  Ptr<TestTask> thrower = rootTaskIs(r, TaskPriority::normal, "thrower",
                                     [](TestTask&) { throw std::runtime_error("task failed"); });
  thrower->scheduleTask();
  EXPECT_THROW(Platform::doEventLoop(), std::runtime_error);
  EXPECT_EQ(1u, r->passes);
  // The anchor closed on the way out; the task's own flag stays set.
  EXPECT_FALSE(r->currentlyRunningTask());
  EXPECT_TRUE(thrower->taskCurrentlyRunning());
  // The chain starts again at the next request.
  r->requestSchedulerRun();
  Platform::doEventLoop();
  EXPECT_EQ(2u, r->passes);
}
