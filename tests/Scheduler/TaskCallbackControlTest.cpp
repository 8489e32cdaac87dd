// The deferred callback served by a Task: first the behaviour it shares with
// the libevent callback, run against both backends, then each way in which
// it differs, one test apiece.
#include "ControlBackends.h"

#include <Kesto/Core/Publisher.h>

#include <ZuSlab/ZuSlab.h>

#include <string>
#include <vector>

using namespace KestoTest;

namespace {

template <typename B>
using CallbackControlContract = ControlContract<B>;
TYPED_TEST_SUITE(CallbackControlContract, ControlBackends, ControlBackendNames);

// --- the contract of both backends -------------------------------------------------------------

TYPED_TEST(CallbackControlContract, RequestIsDeliveredByTheLoopNotByTheRequest) {
  TestCallbackHandler handler;
  Ptr<Platform::CallbackControl> callback = this->backend.callback(&handler);
  EXPECT_EQ(1u, callback->refCount());
  EXPECT_FALSE(callback->pendingCallback());
  callback->requestCallback();
  EXPECT_EQ(0, handler.callbacks);
  EXPECT_TRUE(callback->pendingCallback());
  Platform::doEventLoop();
  EXPECT_EQ(1, handler.callbacks);
  EXPECT_FALSE(callback->pendingCallback());
}

TYPED_TEST(CallbackControlContract, TwoRequestsBeforeTheLoopGiveOneCallback) {
  TestCallbackHandler handler;
  Ptr<Platform::CallbackControl> callback = this->backend.callback(&handler);
  callback->requestCallback();
  callback->requestCallback();
  Platform::doEventLoop();
  EXPECT_EQ(1, handler.callbacks);
}

TYPED_TEST(CallbackControlContract, PendingIsFalseInsideTheCallback) {
  TestCallbackHandler handler;
  Ptr<Platform::CallbackControl> callback = this->backend.callback(&handler);
  bool pendingInside = true;
  handler.onCallback = [&] { pendingInside = callback->pendingCallback(); };
  callback->requestCallback();
  Platform::doEventLoop();
  EXPECT_EQ(1, handler.callbacks);
  EXPECT_FALSE(pendingInside);
}

TYPED_TEST(CallbackControlContract, ARequestFromTheCallbackRunsInALaterPass) {
  TestCallbackHandler handler;
  Ptr<Platform::CallbackControl> callback = this->backend.callback(&handler);
  bool pendingAfterRequest = false;
  handler.onCallback = [&] {
    if (handler.callbacks < 5) {
      callback->requestCallback();
      pendingAfterRequest = callback->pendingCallback();
    }
  };
  callback->requestCallback();
  Platform::doEventLoop();
  EXPECT_EQ(5, handler.callbacks);
  EXPECT_TRUE(pendingAfterRequest);
}

TYPED_TEST(CallbackControlContract, CancelWithdrawsTheRequest) {
  TestCallbackHandler handler;
  Ptr<Platform::CallbackControl> callback = this->backend.callback(&handler);
  callback->cancelCallback(); // nothing to withdraw: no effect
  callback->requestCallback();
  callback->cancelCallback();
  EXPECT_FALSE(callback->pendingCallback());
  Platform::doEventLoop();
  EXPECT_EQ(0, handler.callbacks);
}

TYPED_TEST(CallbackControlContract, DestroyingTheControlWithdrawsTheRequest) {
  TestCallbackHandler handler;
  Ptr<Platform::CallbackControl> callback = this->backend.callback(&handler);
  callback->requestCallback();
  callback = nullptr;
  Platform::doEventLoop();
  EXPECT_EQ(0, handler.callbacks);
}

TYPED_TEST(CallbackControlContract, DefaultExceptionHandlingRethrows) {
  struct Throwing : Platform::CallbackHandler {
    void callback() override { throw HandlerError("default"); }
  } handler;
  Ptr<Platform::CallbackControl> callback = this->backend.callback(&handler);
  callback->requestCallback();
  EXPECT_THROW(Platform::doEventLoop(), HandlerError);
}

TYPED_TEST(CallbackControlContract, DeferredOperationsRunAfterTheCallback) {
  TestCallbackHandler handler;
  int ran = 0;
  handler.onCallback = [&] { Publisher::deferOp([&] { ++ran; }); };
  Ptr<Platform::CallbackControl> callback = this->backend.callback(&handler);
  callback->requestCallback();
  Platform::doEventLoop();
  EXPECT_EQ(1, ran);
}

TYPED_TEST(CallbackControlContract, CallbackMayDropItsOwnControl) {
  TestCallbackHandler handler;
  Ptr<Platform::CallbackControl> callback = this->backend.callback(&handler);
  handler.onCallback = [&] { callback = nullptr; };
  callback->requestCallback();
  Platform::doEventLoop();
  EXPECT_EQ(1, handler.callbacks);
  EXPECT_EQ(nullptr, callback.get());
}

// --- the task-backed callback and where it differs ---------------------------------------------

TEST(TaskCallbackControl, FactoryTiesAControlToATaskOfTheSchedulerAtItsPriorityAndName) {
  TaskBackend backend;
  TestCallbackHandler handler;
  Ptr<Platform::CallbackControl> callback =
      Platform::getCallbackControl(&handler, backend.root, TaskPriority::high, "wakeUp");
  auto* control = dynamic_cast<Platform::TaskCallbackControl*>(callback.get());
  ASSERT_NE(nullptr, control);
  EXPECT_EQ(&handler, control->handler());
  Platform::TaskCallbackControl::TaskWrap& task = *control->task();
  EXPECT_EQ(control, task.control());
  EXPECT_EQ(backend.root.get(), task.taskSchedulerPtr());
  EXPECT_EQ(TaskPriority::high, task.taskPriority());
  EXPECT_EQ("wakeUp", std::string(task.taskName().view()));
  EXPECT_EQ(backend.root->taskForTest("wakeUp").get(), static_cast<TaskImpl*>(&task));
  EXPECT_TRUE(ZuSlab::slabOwns(control));
  EXPECT_TRUE(ZuSlab::slabOwns(&task));
}

TEST(TaskCallbackControl, OperationsMapToTheTask) {
  TaskBackend backend;
  TestCallbackHandler handler;
  Ptr<Platform::CallbackControl> callback = backend.callback(&handler);
  Platform::TaskCallbackControl::TaskWrap& task = taskOf(callback);
  callback->requestCallback();
  EXPECT_TRUE(task.onRunQueue());
  EXPECT_EQ(1u, historyCount(*backend.root, TaskSchedulerEventType::schedule));
  callback->cancelCallback();
  EXPECT_FALSE(task.onRunQueue());
  EXPECT_EQ(1u, historyCount(*backend.root, TaskSchedulerEventType::unschedule));
  callback->requestCallback();
  Platform::doEventLoop();
  EXPECT_EQ(1u, task.taskRunCount());
  EXPECT_EQ(1, handler.callbacks);
}

TEST(TaskCallbackControl, RequestWhileTheTaskIsQueuedDoesNothingMore) {
  TaskBackend backend;
  std::vector<std::string> order;
  TestCallbackHandler handler;
  handler.onCallback = [&] { order.push_back("callback"); };
  Ptr<Platform::CallbackControl> callback = backend.callback(&handler);
  Platform::TaskCallbackControl::TaskWrap& task = taskOf(callback);
  Ptr<TestTask> other = rootTaskIs(backend.root, TaskPriority::normal, "other",
                                   [&](TestTask&) { order.push_back("other"); });
  callback->requestCallback();
  const TaskTimeStamp queuedAt = task.taskScheduleTime();
  other->scheduleTask();
  callback->requestCallback();
  // Neither a second place nor a move behind `other`; the time it entered
  // the queue, from which its latency counts, stays.
  EXPECT_EQ(queuedAt, task.taskScheduleTime());
  EXPECT_EQ(2u, backend.root->runnableTaskCount(TaskPriority::normal));
  EXPECT_EQ(2u, historyCount(*backend.root, TaskSchedulerEventType::schedule));
  Platform::doEventLoop();
  EXPECT_EQ((std::vector<std::string>{"callback", "other"}), order);
  EXPECT_EQ(1, handler.callbacks);
}

TEST(TaskCallbackControl, CallbackRunsAtTheTaskPriorityAmongTheSchedulersTasks) {
  TaskBackend backend;
  std::vector<std::string> order;
  auto note = [&](const char* what) { return [&order, what](TestTask&) { order.push_back(what); }; };
  Ptr<TestTask> normal = rootTaskIs(backend.root, TaskPriority::normal, "normal", note("normal"));
  Ptr<TestTask> scavenge = rootTaskIs(backend.root, TaskPriority::scavenge, "scavenge", note("scavenge"));
  Ptr<TestTask> absolute = rootTaskIs(backend.root, TaskPriority::absolute, "absolute", note("absolute"));
  TestCallbackHandler highHandler;
  highHandler.onCallback = [&] { order.push_back("high callback"); };
  TestCallbackHandler lowHandler;
  lowHandler.onCallback = [&] { order.push_back("low callback"); };
  Ptr<Platform::CallbackControl> high =
      Platform::getCallbackControl(&highHandler, backend.root, TaskPriority::high, "highCallback");
  Ptr<Platform::CallbackControl> low =
      Platform::getCallbackControl(&lowHandler, backend.root, TaskPriority::low, "lowCallback");
  // Requested in the reverse of the order they run in: the queues decide,
  // not the order of requests (a libevent callback would run in the order of
  // its event, ahead of every task of the scheduler).
  scavenge->scheduleTask();
  low->requestCallback();
  normal->scheduleTask();
  high->requestCallback();
  absolute->scheduleTask();
  Platform::doEventLoop();
  EXPECT_EQ((std::vector<std::string>{"absolute", "high callback", "normal", "low callback", "scavenge"}), order);
}

TEST(TaskCallbackControl, CallbackExceptionIsNotOfferedToHandleCallbackException) {
  TaskBackend backend;
  TestCallbackHandler handler;
  handler.swallow = true;
  handler.onCallback = [] { throw HandlerError("not offered"); };
  Ptr<Platform::CallbackControl> callback = backend.callback(&handler);
  callback->requestCallback();
  EXPECT_THROW(Platform::doEventLoop(), HandlerError);
  EXPECT_EQ(1, handler.callbacks);
  EXPECT_EQ(0, handler.exceptionsOffered);
  EXPECT_TRUE(taskOf(callback).taskCurrentlyRunning());
}

TEST(TaskCallbackControl, StatsNameIsChangesTheTaskStatsName) {
  TaskBackend backend;
  TestCallbackHandler handler;
  Ptr<Platform::CallbackControl> callback = backend.callback(&handler, "wakeUp");
  callback->statsNameIs("wakeUps");
  EXPECT_EQ("wakeUps", std::string(taskOf(callback).taskStatsName().view()));
  EXPECT_EQ("wakeUp", std::string(taskOf(callback).taskName().view()));
}

} // namespace
