// The timer control served by a TimerTask: first the behaviour it shares with
// the libevent timer, run against both backends, then each way in which it
// differs, one test apiece.
#include "ControlBackends.h"

#include <Kesto/Core/Publisher.h>
#include <Kesto/Platform/Time.h>

#include <ZuSlab/ZuSlab.h>

#include <limits>
#include <vector>

using namespace KestoTest;

namespace {

constexpr double inf = std::numeric_limits<double>::infinity();

template <typename B>
using TimerControlContract = ControlContract<B>;
TYPED_TEST_SUITE(TimerControlContract, ControlBackends, ControlBackendNames);

// --- the contract of both backends -------------------------------------------------------------

TYPED_TEST(TimerControlContract, FactoryGivesAControlHoldingOneReference) {
  TestTimeoutHandler handler;
  Ptr<Platform::TimerControl> timer = this->backend.timer(&handler);
  EXPECT_EQ(1u, timer->refCount());
}

TYPED_TEST(TimerControlContract, ZeroTimeoutReachesTheHandlerThroughTheLoop) {
  TestTimeoutHandler handler;
  Ptr<Platform::TimerControl> timer = this->backend.timer(&handler);
  timer->setTimeout(0.0);
  EXPECT_EQ(0, handler.timeouts);
  Platform::doEventLoop();
  EXPECT_EQ(1, handler.timeouts);
  EXPECT_EQ(inf, timer->remainingTimeout());
}

TYPED_TEST(TimerControlContract, UnarmedTimerHasInfiniteRemainingTime) {
  TestTimeoutHandler handler;
  Ptr<Platform::TimerControl> timer = this->backend.timer(&handler);
  EXPECT_EQ(inf, timer->remainingTimeout());
  timer->delTimeout(); // no effect on an unarmed timer
  EXPECT_EQ(inf, timer->remainingTimeout());
  Platform::doEventLoop();
  EXPECT_EQ(0, handler.timeouts);
}

TYPED_TEST(TimerControlContract, RemainingTimeCountsFromTheArming) {
  TestTimeoutHandler handler;
  Ptr<Platform::TimerControl> timer = this->backend.timer(&handler);
  const double before = time();
  timer->setTimeout(10.0);
  const double remaining = timer->remainingTimeout();
  const double elapsed = time() - before;
  EXPECT_LE(remaining, 10.0 + PlatformTest::baseClockSlack());
  EXPECT_GE(remaining, 10.0 - elapsed - 1e-6);
  timer->delTimeout();
  EXPECT_EQ(inf, timer->remainingTimeout());
}

TYPED_TEST(TimerControlContract, TimerFiresOnceAfterItsDelay) {
  TestTimeoutHandler handler;
  Ptr<Platform::TimerControl> timer = this->backend.timer(&handler);
  double firedAt = 0.0;
  handler.onTimeout = [&] { firedAt = PlatformTest::monotonicSeconds(); };
  const double armedAt = PlatformTest::monotonicSeconds();
  timer->setTimeout(0.02);
  Platform::doEventLoop();
  EXPECT_EQ(1, handler.timeouts);
  EXPECT_GE(firedAt - armedAt, 0.02 - 1e-6);
  EXPECT_EQ(inf, timer->remainingTimeout());
}

TYPED_TEST(TimerControlContract, SetTimeoutReplacesTheArmedExpiry) {
  TestTimeoutHandler handler;
  Ptr<Platform::TimerControl> timer = this->backend.timer(&handler);
  timer->setTimeout(3600.0);
  timer->setTimeout(0.0);
  EXPECT_TRUE(driveUntil([&] { return handler.timeouts == 1; }));
  // Nothing is left of the hour-long expiry.
  EXPECT_EQ(inf, timer->remainingTimeout());
  for (int i = 0; i < 20; ++i)
    Platform::doEventLoop(0.0);
  EXPECT_EQ(1, handler.timeouts);
}

TYPED_TEST(TimerControlContract, DelTimeoutDisarms) {
  TestTimeoutHandler handler;
  Ptr<Platform::TimerControl> timer = this->backend.timer(&handler);
  timer->setTimeout(0.001);
  timer->delTimeout();
  EXPECT_EQ(inf, timer->remainingTimeout());
  Platform::doEventLoop(0.01);
  EXPECT_EQ(0, handler.timeouts);
}

TYPED_TEST(TimerControlContract, DestroyingTheControlDisarmsIt) {
  TestTimeoutHandler handler;
  Ptr<Platform::TimerControl> timer = this->backend.timer(&handler);
  timer->setTimeout(0.001);
  timer = nullptr;
  Platform::doEventLoop(0.01);
  EXPECT_EQ(0, handler.timeouts);
}

TYPED_TEST(TimerControlContract, HandlerThatKeepsDefaultExceptionHandlingLetsTheExceptionReachTheLoopCaller) {
  struct Throwing : Platform::TimeoutHandler {
    void timeout() override { throw HandlerError("timer failed"); }
  } handler;
  Ptr<Platform::TimerControl> timer = this->backend.timer(&handler);
  timer->setTimeout(0.0);
  EXPECT_THROW(Platform::doEventLoop(), HandlerError);
}

TYPED_TEST(TimerControlContract, DeferredOperationsRunAfterAHandlerThatReturned) {
  TestTimeoutHandler handler;
  int ran = 0;
  int timeoutsWhenRan = -1;
  handler.onTimeout = [&] {
    Publisher::deferOp([&] {
      ++ran;
      timeoutsWhenRan = handler.timeouts;
    });
    EXPECT_EQ(0, ran);
  };
  Ptr<Platform::TimerControl> timer = this->backend.timer(&handler);
  timer->setTimeout(0.0);
  Platform::doEventLoop();
  EXPECT_EQ(1, ran);
  EXPECT_EQ(1, timeoutsWhenRan);
}

TYPED_TEST(TimerControlContract, DeferredOperationsAreSkippedWhenTheHandlerThrows) {
  TestTimeoutHandler handler;
  int ran = 0;
  handler.onTimeout = [&] {
    Publisher::deferOp([&] { ++ran; });
    throw HandlerError("skip");
  };
  Ptr<Platform::TimerControl> timer = this->backend.timer(&handler);
  timer->setTimeout(0.0);
  EXPECT_THROW(Platform::doEventLoop(), HandlerError);
  EXPECT_EQ(0, ran);
  EXPECT_EQ(1u, Publisher::deferredOpCount());
  Publisher::runDeferredOps();
  EXPECT_EQ(1, ran);
}

TYPED_TEST(TimerControlContract, HandlerMayDropItsOwnControl) {
  TestTimeoutHandler handler;
  Ptr<Platform::TimerControl> timer = this->backend.timer(&handler);
  handler.onTimeout = [&] { timer = nullptr; };
  timer->setTimeout(0.0);
  Platform::doEventLoop();
  EXPECT_EQ(1, handler.timeouts);
  EXPECT_EQ(nullptr, timer.get());
}

TYPED_TEST(TimerControlContract, HandlerMayArmItsOwnControlAgain) {
  TestTimeoutHandler handler;
  Ptr<Platform::TimerControl> timer = this->backend.timer(&handler);
  handler.onTimeout = [&] {
    if (handler.timeouts < 3)
      timer->setTimeout(0.001);
  };
  timer->setTimeout(0.001);
  Platform::doEventLoop();
  EXPECT_EQ(3, handler.timeouts);
}

// --- the task-backed timer and where it differs ------------------------------------------------

TEST(TaskTimerControl, FactoryTiesAControlToATimerTaskOfTheSchedulerAtItsPriorityAndName) {
  TaskBackend backend;
  TestTimeoutHandler handler;
  Ptr<Platform::TimerControl> timer =
      Platform::getTimerControl(&handler, backend.root, TaskPriority::low, "pollTimer");
  auto* control = dynamic_cast<Platform::TaskTimerControl*>(timer.get());
  ASSERT_NE(nullptr, control);
  EXPECT_EQ(&handler, control->handler());
  Platform::TaskTimerControl::TaskWrap& task = *control->task();
  EXPECT_EQ(control, task.control());
  EXPECT_EQ(backend.root.get(), task.taskSchedulerPtr());
  EXPECT_EQ(TaskPriority::low, task.taskPriority());
  EXPECT_EQ("pollTimer", std::string(task.taskName().view()));
  EXPECT_FALSE(task.taskScheduled());
  EXPECT_EQ(backend.root->taskForTest("pollTimer").get(), static_cast<TaskImpl*>(&task));
  // The library's own objects come from the slab allocator.
  EXPECT_TRUE(ZuSlab::slabOwns(control));
  EXPECT_TRUE(ZuSlab::slabOwns(&task));
}

TEST(TaskTimerControl, OperationsMapToTheTimerTask) {
  FastForwardOn ff;
  TaskBackend backend;
  TestTimeoutHandler handler;
  Ptr<Platform::TimerControl> timer = backend.timer(&handler);
  Platform::TaskTimerControl::TaskWrap& task = taskOf(timer);
  timer->setTimeout(30.0);
  EXPECT_TRUE(task.timerRunning());
  // Read one after the other, on a clock that moves on in between.
  const double fromControl = timer->remainingTimeout();
  const double fromTask = task.timerRemaining();
  EXPECT_LE(fromTask, fromControl);
  EXPECT_NEAR(fromTask, fromControl, 1e-3);
  EXPECT_GT(timer->remainingTimeout(), 29.0);
  EXPECT_EQ(1u, historyCount(*backend.root, TaskSchedulerEventType::timerStart));
  timer->delTimeout();
  EXPECT_FALSE(task.taskScheduled());
  EXPECT_EQ(1u, historyCount(*backend.root, TaskSchedulerEventType::timerStop));
  // The expiry is on Kesto::time(): a minute of virtual time fires it.
  timer->setTimeout(30.0);
  Platform::doEventLoop(60.0);
  EXPECT_EQ(1, handler.timeouts);
  EXPECT_EQ(1u, task.taskRunCount());
}

TEST(TaskTimerControl, SetTimeoutZeroPutsTheTaskOnTheRunQueueAtOnce) {
  TaskBackend backend;
  TestTimeoutHandler handler;
  Ptr<Platform::TimerControl> timer = backend.timer(&handler);
  Platform::TaskTimerControl::TaskWrap& task = taskOf(timer);
  timer->setTimeout(5.0);
  ASSERT_TRUE(task.timerRunning());
  timer->setTimeout(0.0);
  // Queued, not timed: no timer runs, so nothing remains to count down
  // (a libevent timer reads 0.0 here, due but not delivered).
  EXPECT_TRUE(task.onRunQueue());
  EXPECT_FALSE(task.timerRunning());
  EXPECT_EQ(0u, backend.root->timerRunningCount());
  EXPECT_EQ(1u, backend.root->runnableTaskCount(TaskPriority::normal));
  EXPECT_EQ(inf, timer->remainingTimeout());
  EXPECT_EQ(0, handler.timeouts);
  Platform::doEventLoop();
  EXPECT_EQ(1, handler.timeouts);
}

TEST(TaskTimerControl, SetTimeoutWithPositiveInfinityIsAStop) {
  FastForwardOn ff;
  TaskBackend backend;
  TestTimeoutHandler handler;
  Ptr<Platform::TimerControl> timer = backend.timer(&handler);
  Platform::TaskTimerControl::TaskWrap& task = taskOf(timer);
  // From a running timer.
  timer->setTimeout(5.0);
  timer->setTimeout(inf);
  EXPECT_FALSE(task.timerRunning());
  EXPECT_FALSE(task.taskScheduled());
  EXPECT_EQ(inf, timer->remainingTimeout());
  EXPECT_EQ(1u, historyCount(*backend.root, TaskSchedulerEventType::timerStop));
  // From the run queue.
  timer->setTimeout(0.0);
  ASSERT_TRUE(task.onRunQueue());
  timer->setTimeout(inf);
  EXPECT_FALSE(task.onRunQueue());
  // An hour of virtual time: nothing fires.
  Platform::doEventLoop(3600.0);
  EXPECT_EQ(0, handler.timeouts);
  EXPECT_EQ(0u, task.taskRunCount());
}

TEST(TaskTimerControl, TimeoutExceptionIsNotOfferedToHandleTimeoutException) {
  TaskBackend backend;
  TestTimeoutHandler handler;
  handler.swallow = true; // would drop the exception, if it were asked
  handler.onTimeout = [] { throw HandlerError("not offered"); };
  Ptr<Platform::TimerControl> timer = backend.timer(&handler);
  timer->setTimeout(0.0);
  try {
    Platform::doEventLoop();
    ADD_FAILURE() << "no exception";
  } catch (const HandlerError& e) {
    EXPECT_STREQ("not offered", e.what());
  }
  EXPECT_EQ(1, handler.timeouts);
  EXPECT_EQ(0, handler.exceptionsOffered);
}

TEST(TaskTimerControl, TimeoutExceptionLeavesTheTaskRunAsTheSchedulerDoesForAnyTask) {
  TaskBackend backend;
  TestTimeoutHandler handler;
  handler.onTimeout = [] { throw HandlerError("through the run"); };
  Ptr<Platform::TimerControl> timer = backend.timer(&handler);
  Platform::TaskTimerControl::TaskWrap& task = taskOf(timer);
  timer->setTimeout(0.0);
  EXPECT_THROW(Platform::doEventLoop(), HandlerError);
  // The run was counted and the running-task anchor closed, but the
  // accounting after taskExecute() was skipped: the task still reads as
  // running and no run time was added.
  EXPECT_EQ(1u, task.taskRunCount());
  EXPECT_TRUE(task.taskCurrentlyRunning());
  EXPECT_EQ(nullptr, backend.root->currentlyRunningTask().get());
  EXPECT_EQ(0, task.getStats().taskTotalRunTime().count());
  EXPECT_EQ(0u, historyCount(*backend.root, TaskSchedulerEventType::runEnd));
  EXPECT_EQ(1u, historyCount(*backend.root, TaskSchedulerEventType::runStart));
}

TEST(TaskTimerControl, StatsNameIsChangesTheTaskStatsName) {
  TaskBackend backend;
  TestTimeoutHandler handler;
  Ptr<Platform::TimerControl> timer = backend.timer(&handler, "pollTimer");
  Platform::TaskTimerControl::TaskWrap& task = taskOf(timer);
  EXPECT_EQ("pollTimer", std::string(task.taskStatsName().view()));
  timer->statsNameIs("pollers");
  EXPECT_EQ("pollers", std::string(task.taskStatsName().view()));
  EXPECT_EQ("pollTimer", std::string(task.taskName().view()));
  // The libevent timer has no statistics: the call does nothing there.
  TestTimeoutHandler other;
  Ptr<Platform::TimerControl> plain = Platform::getTimerControl(&other);
  plain->statsNameIs("ignored");
}

TEST(TaskTimerControl, ATaskHeldBeyondItsControlRunsAsANoOp) {
  TaskBackend backend;
  TestTimeoutHandler handler;
  Ptr<Platform::TimerControl> timer = backend.timer(&handler);
  Ptr<Platform::TaskTimerControl::TaskWrap> task = dynamic_cast<Platform::TaskTimerControl&>(*timer).task();
  timer = nullptr;
  EXPECT_EQ(nullptr, task->control());
  task->scheduleTask();
  Platform::doEventLoop();
  EXPECT_EQ(1u, task->taskRunCount());
  EXPECT_EQ(0, handler.timeouts);
}

} // namespace

// What a careless caller might give the task-backed timer: the timer task's
// own checks answer, and the control keeps what it had.
TEST(TaskTimerControl, HostileDelaysAreRefusedOrTakenWithoutHarm) {
  TaskBackend backend;
  TestTimeoutHandler handler;
  Ptr<Platform::TimerControl> timer = backend.timer(&handler);
  Platform::TaskTimerControl::TaskWrap& task = taskOf(timer);
  timer->setTimeout(5.0);
  const double before = timer->remainingTimeout();
  // Not a number: the timer task's assertion, and the armed timer stays.
  EXPECT_NE(std::string::npos,
            assertText([&] { timer->setTimeout(std::numeric_limits<double>::quiet_NaN()); })
                .find("Delay is not a number"));
  EXPECT_TRUE(task.timerRunning());
  EXPECT_LE(timer->remainingTimeout(), before);
  // A negative delay is due now.
  timer->setTimeout(-1.0);
  Platform::doEventLoop(0.0);
  Platform::doEventLoop(0.0);
  EXPECT_EQ(1, handler.timeouts);
  // A huge finite delay arms and can be withdrawn.
  timer->setTimeout(1e300);
  EXPECT_TRUE(task.timerRunning());
  EXPECT_GT(timer->remainingTimeout(), 1e6);
  timer->delTimeout();
  EXPECT_EQ(inf, timer->remainingTimeout());
  EXPECT_EQ(1, handler.timeouts);
}
