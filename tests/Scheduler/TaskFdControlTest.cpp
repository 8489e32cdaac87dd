// The descriptor control served by a FileDescriptorTask: first the behaviour
// it shares with the libevent control, run against both backends on real
// sockets, then each way in which it differs, one test apiece.
#include "ControlBackends.h"

#include <Kesto/Core/Publisher.h>
#include <Kesto/Platform/LibeventControls.h>

#include <ZuSlab/ZuSlab.h>

#include <fcntl.h>

#include <string>

using namespace KestoTest;

namespace {

template <typename B>
using FdControlContract = ControlContract<B>;
TYPED_TEST_SUITE(FdControlContract, ControlBackends, ControlBackendNames);

template <typename B>
using FdControlContractDeathTest = ControlContract<B>;
TYPED_TEST_SUITE(FdControlContractDeathTest, ControlBackends, ControlBackendNames);

// Enough non-waiting turns of the loop for a readiness event to reach a
// handler through a task (event, queued run, pass) several times over.
constexpr int quietTurns = 20;

// --- the contract of both backends -------------------------------------------------------------

TYPED_TEST(FdControlContract, NewControlWatchesReadsNotWritesAndHasNoDescriptor) {
  SocketPair sockets;
  TestFdHandler handler;
  Ptr<Platform::FdControl> control = this->backend.fd(&handler);
  EXPECT_EQ(1u, control->refCount());
  EXPECT_EQ(-1, control->getFd());
  handler.onRead = [](int fd) { drainQuietly(fd); };
  control->setFd(sockets.ours());
  sockets.sendToOurs("x");
  EXPECT_TRUE(driveUntil([&] { return handler.reads == 1; }));
  // The socket is writable all along: a write watch would have fired.
  driveTurns(quietTurns);
  EXPECT_EQ(0, handler.writes);
}

TYPED_TEST(FdControlContract, SetFdMakesTheDescriptorNonBlocking) {
  SocketPair sockets;
  TestFdHandler handler;
  Ptr<Platform::FdControl> control = this->backend.fd(&handler);
  ASSERT_EQ(0, fcntl(sockets.ours(), F_GETFL) & O_NONBLOCK);
  control->setFd(sockets.ours());
  EXPECT_EQ(sockets.ours(), control->getFd());
  EXPECT_NE(0, fcntl(sockets.ours(), F_GETFL) & O_NONBLOCK);
}

TYPED_TEST(FdControlContract, ReadableDescriptorReachesTheHandlerThroughTheLoop) {
  SocketPair sockets;
  TestFdHandler handler;
  Ptr<Platform::FdControl> control = this->backend.fd(&handler);
  std::string received;
  handler.onRead = [&](int fd) {
    received += drain(fd);
    control->delFd(); // nothing left: the loop returns
  };
  control->setFd(sockets.ours());
  sockets.sendToOurs("ping");
  Platform::doEventLoop();
  EXPECT_EQ(1, handler.reads);
  EXPECT_EQ(sockets.ours(), handler.lastFd);
  EXPECT_EQ("ping", received);
  EXPECT_EQ(-1, control->getFd());
}

TYPED_TEST(FdControlContract, ReadWatchStaysArmedAfterFiring) {
  SocketPair sockets;
  TestFdHandler handler;
  Ptr<Platform::FdControl> control = this->backend.fd(&handler);
  handler.onRead = [](int fd) { drainQuietly(fd); };
  control->setFd(sockets.ours());
  sockets.sendToOurs("a");
  EXPECT_TRUE(driveUntil([&] { return handler.reads == 1; }));
  driveTurns(quietTurns);
  EXPECT_EQ(1, handler.reads);
  sockets.sendToOurs("b");
  EXPECT_TRUE(driveUntil([&] { return handler.reads == 2; }));
}

TYPED_TEST(FdControlContract, SetReadsFalseWithoutDescriptorOnlyStoresTheFlag) {
  SocketPair sockets;
  TestFdHandler handler;
  Ptr<Platform::FdControl> control = this->backend.fd(&handler);
  control->setReads(false);
  control->setFd(sockets.ours());
  sockets.sendToOurs("ignored");
  driveTurns(quietTurns);
  EXPECT_EQ(0, handler.reads);
}

TYPED_TEST(FdControlContract, SetReadsFalseWithDescriptorRemovesTheWatch) {
  SocketPair sockets;
  TestFdHandler handler;
  Ptr<Platform::FdControl> control = this->backend.fd(&handler);
  control->setFd(sockets.ours());
  control->setReads(false);
  sockets.sendToOurs("waiting");
  driveTurns(quietTurns);
  EXPECT_EQ(0, handler.reads);
  handler.onRead = [](int fd) { drainQuietly(fd); };
  control->setReads(true);
  EXPECT_TRUE(driveUntil([&] { return handler.reads == 1; }));
}

TYPED_TEST(FdControlContractDeathTest, SetFdOnAClosedDescriptorEndsTheProcess) {
  TestFdHandler handler;
  Ptr<Platform::FdControl> control = this->backend.fd(&handler);
  int closedFd;
  {
    SocketPair sockets;
    closedFd = sockets.ours();
  }
  EXPECT_DEATH(control->setFd(closedFd),
               "virtual void Kesto::LibeventFdControl::setFd\\(int\\).*Assertion `flags >= 0' failed");
}

TYPED_TEST(FdControlContract, SetWritesTrueFromTheWriteHandlerGetsTheNextNotification) {
  SocketPair sockets;
  TestFdHandler handler;
  Ptr<Platform::FdControl> control = this->backend.fd(&handler);
  handler.onWrite = [&](int) {
    if (handler.writes < 3)
      control->setWrites(true);
  };
  control->setReads(false);
  control->setWrites(true);
  control->setFd(sockets.ours());
  // The write watch is one-shot in both: without the handler's request the
  // loop has nothing left after a notification and returns.
  Platform::doEventLoop();
  EXPECT_EQ(3, handler.writes);
  EXPECT_EQ(sockets.ours(), handler.lastFd);
}

TYPED_TEST(FdControlContract, EdgeTriggeredReadFiresOncePerArrival) {
  SocketPair sockets;
  TestFdHandler handler;
  Ptr<Platform::FdControl> control = this->backend.fd(&handler);
  control->setEdgeTriggered(true);
  control->setFd(sockets.ours());
  sockets.sendToOurs("x");
  // Nothing is read, yet an edge-triggered watch does not fire again.
  EXPECT_TRUE(driveUntil([&] { return handler.reads == 1; }));
  driveTurns(quietTurns);
  EXPECT_EQ(1, handler.reads);
  sockets.sendToOurs("y");
  EXPECT_TRUE(driveUntil([&] { return handler.reads == 2; }));
  driveTurns(quietTurns);
  EXPECT_EQ(2, handler.reads);
}

TYPED_TEST(FdControlContract, LevelTriggeredReadFiresAgainWhileDataWaits) {
  SocketPair sockets;
  TestFdHandler handler;
  Ptr<Platform::FdControl> control = this->backend.fd(&handler);
  control->setFd(sockets.ours());
  sockets.sendToOurs("x");
  EXPECT_TRUE(driveUntil([&] { return handler.reads >= 3; }));
}

TYPED_TEST(FdControlContract, DelFdForgetsTheDescriptorAndKeepsTheInterest) {
  SocketPair sockets;
  TestFdHandler handler;
  Ptr<Platform::FdControl> control = this->backend.fd(&handler);
  control->setFd(sockets.ours());
  control->delFd();
  EXPECT_EQ(-1, control->getFd());
  sockets.sendToOurs("x");
  driveTurns(quietTurns);
  EXPECT_EQ(0, handler.reads);
  // The read interest is remembered for the next descriptor.
  handler.onRead = [](int fd) { drainQuietly(fd); };
  control->setFd(sockets.ours());
  EXPECT_TRUE(driveUntil([&] { return handler.reads == 1; }));
}

TYPED_TEST(FdControlContract, DestroyingTheControlRemovesItsEvents) {
  SocketPair sockets;
  TestFdHandler handler;
  Ptr<Platform::FdControl> control = this->backend.fd(&handler);
  control->setWrites(true);
  control->setFd(sockets.ours());
  control = nullptr;
  sockets.sendToOurs("x");
  Platform::doEventLoop(); // nothing registered: returns at once
  EXPECT_EQ(0, handler.reads);
  EXPECT_EQ(0, handler.writes);
}

TYPED_TEST(FdControlContract, ExceptionHandledByTheHandlerIsDroppedAndGetsTheDescriptor) {
  SocketPair sockets;
  TestFdHandler handler;
  handler.swallow = true;
  Ptr<Platform::FdControl> control = this->backend.fd(&handler);
  handler.onRead = [&](int fd) {
    drainQuietly(fd);
    control->setReads(false); // nothing left: the loop returns
    throw HandlerError("handled");
  };
  control->setFd(sockets.ours());
  sockets.sendToOurs("x");
  EXPECT_NO_THROW(Platform::doEventLoop());
  EXPECT_EQ(1, handler.reads);
  EXPECT_EQ(1, handler.exceptionsOffered);
  EXPECT_EQ(sockets.ours(), handler.exceptionFd);
}

TYPED_TEST(FdControlContract, ExceptionRefusedByTheHandlerReachesTheLoopCaller) {
  SocketPair sockets;
  TestFdHandler handler;
  Ptr<Platform::FdControl> control = this->backend.fd(&handler);
  handler.onWrite = [&](int) { throw HandlerError("refused"); };
  control->setReads(false);
  control->setWrites(true);
  control->setFd(sockets.ours());
  try {
    Platform::doEventLoop();
    ADD_FAILURE() << "no exception";
  } catch (const HandlerError& e) {
    EXPECT_STREQ("refused", e.what());
  }
  EXPECT_EQ(1, handler.exceptionsOffered);
  EXPECT_EQ(sockets.ours(), handler.exceptionFd);
}

TYPED_TEST(FdControlContract, DefaultExceptionHandlingRethrows) {
  struct Throwing : Platform::FdEventHandler {
    void readFdEvent(int) override { throw HandlerError("read"); }
    void writeFdEvent(int) override {}
  } handler;
  SocketPair sockets;
  Ptr<Platform::FdControl> control = this->backend.fd(&handler);
  control->setFd(sockets.ours());
  sockets.sendToOurs("x");
  EXPECT_TRUE(loopThrows<HandlerError>());
}

TYPED_TEST(FdControlContract, DeferredOperationsRunAfterADescriptorHandler) {
  SocketPair sockets;
  TestFdHandler handler;
  Ptr<Platform::FdControl> control = this->backend.fd(&handler);
  int ran = 0;
  handler.onRead = [&](int fd) {
    drainQuietly(fd);
    Publisher::deferOp([&] { ++ran; });
    control->delFd();
  };
  control->setFd(sockets.ours());
  sockets.sendToOurs("x");
  Platform::doEventLoop();
  EXPECT_EQ(1, ran);
}

TYPED_TEST(FdControlContract, HandlerMayDropItsOwnControl) {
  SocketPair sockets;
  TestFdHandler handler;
  Ptr<Platform::FdControl> control = this->backend.fd(&handler);
  handler.onRead = [&](int fd) {
    drainQuietly(fd);
    control = nullptr;
  };
  control->setFd(sockets.ours());
  sockets.sendToOurs("x");
  Platform::doEventLoop();
  EXPECT_EQ(1, handler.reads);
  EXPECT_EQ(nullptr, control.get());
  sockets.sendToOurs("y");
  driveTurns(quietTurns);
  EXPECT_EQ(1, handler.reads);
}

// --- the task-backed descriptor control and where it differs -------------------------------------

LibeventFdControl& libeventUnder(const Ptr<Platform::FdControl>& control) {
  return dynamic_cast<LibeventFdControl&>(*taskOf(control).fdControl());
}

TEST(TaskFdControl, FactoryTiesAControlToADescriptorTaskOfTheSchedulerAtItsPriorityAndName) {
  TaskBackend backend;
  TestFdHandler handler;
  Ptr<Platform::FdControl> fd = Platform::getFdControl(&handler, backend.root, TaskPriority::low, "peer");
  auto* control = dynamic_cast<Platform::TaskFdControl*>(fd.get());
  ASSERT_NE(nullptr, control);
  EXPECT_EQ(&handler, control->handler());
  Platform::TaskFdControl::TaskWrap& task = *control->task();
  EXPECT_EQ(control, task.control());
  EXPECT_EQ(backend.root.get(), task.taskSchedulerPtr());
  EXPECT_EQ(TaskPriority::low, task.readTask()->taskPriority());
  EXPECT_EQ("peer:read", std::string(task.readTask()->taskName().view()));
  EXPECT_NE(nullptr, backend.root->taskForTest("peer:read").get());
  EXPECT_TRUE(ZuSlab::slabOwns(control));
  EXPECT_TRUE(ZuSlab::slabOwns(&task));
}

TEST(TaskFdControl, NewControlHasTheReadWatchOnAndTheWriteWatchOffAsTheLibeventOne) {
  TaskBackend backend;
  TestFdHandler handler;
  Ptr<Platform::FdControl> fd = backend.fd(&handler);
  Platform::TaskFdControl::TaskWrap& task = taskOf(fd);
  EXPECT_TRUE(task.taskWatchReadable());
  EXPECT_FALSE(task.taskWatchWritable());
  EXPECT_EQ(nullptr, task.writeTask().get());
  EXPECT_EQ(-1, fd->getFd());
  EXPECT_FALSE(dynamic_cast<Platform::TaskFdControl&>(*fd).edgeTriggered());
  TestFdHandler otherHandler;
  Ptr<Platform::FdControl> plain = Platform::getFdControl(&otherHandler);
  auto& le = dynamic_cast<LibeventFdControl&>(*plain);
  EXPECT_EQ(le.reads(), task.taskWatchReadable());
  EXPECT_EQ(le.writes(), task.taskWatchWritable());
  EXPECT_EQ(plain->getFd(), fd->getFd());
}

TEST(TaskFdControl, OperationsMapToTheDescriptorTask) {
  SocketPair sockets;
  TaskBackend backend;
  TestFdHandler handler;
  Ptr<Platform::FdControl> fd = backend.fd(&handler);
  Platform::TaskFdControl::TaskWrap& task = taskOf(fd);
  fd->setFd(sockets.ours());
  EXPECT_EQ(sockets.ours(), task.taskWatchFd());
  fd->setWrites(true);
  EXPECT_TRUE(task.taskWatchWritable());
  EXPECT_NE(nullptr, task.writeTask().get());
  fd->setReads(false);
  EXPECT_FALSE(task.taskWatchReadable());
  fd->setEdgeTriggered(true);
  EXPECT_TRUE(dynamic_cast<Platform::TaskFdControl&>(*fd).edgeTriggered());
  EXPECT_TRUE(libeventUnder(fd).edgeTriggered());
  fd->delFd();
  EXPECT_EQ(-1, task.taskWatchFd());
  EXPECT_TRUE(task.taskWatchWritable());
}

TEST(TaskFdControl, ClearEventsForgetsTheDescriptor) {
  SocketPair sockets;
  TaskBackend backend;
  TestFdHandler handler;
  Ptr<Platform::FdControl> fd = backend.fd(&handler);
  fd->setWrites(true);
  fd->setFd(sockets.ours());
  fd->clearEvents();
  // The libevent control would still give the descriptor here.
  EXPECT_EQ(-1, fd->getFd());
  EXPECT_EQ(-1, taskOf(fd).taskWatchFd());
  // The interest stays, for the next descriptor.
  EXPECT_TRUE(taskOf(fd).taskWatchReadable());
  EXPECT_TRUE(taskOf(fd).taskWatchWritable());
  sockets.sendToOurs("x");
  driveTurns(quietTurns);
  EXPECT_EQ(0, handler.reads);
  EXPECT_EQ(0, handler.writes);
}

TEST(TaskFdControl, SetWritesTrueWithTheWatchOnDoesNotReArm) {
  SocketPair sockets;
  TaskBackend backend;
  TestFdHandler handler;
  Ptr<Platform::FdControl> fd = backend.fd(&handler);
  Platform::TaskFdControl::TaskWrap& task = taskOf(fd);
  fd->setReads(false);
  fd->setWrites(true);
  // Hold the runs back, so that the write event has fired and its run waits
  // on the queue while the watch still reads on.
  backend.root->suspendedIs(true);
  fd->setFd(sockets.ours());
  ASSERT_TRUE(driveUntil([&] { return task.taskScheduledWritable(); }));
  ASSERT_TRUE(task.taskWatchWritable());
  ASSERT_FALSE(libeventUnder(fd).writePending());
  fd->setWrites(true);
  // The libevent control would have armed one more notification here.
  EXPECT_FALSE(libeventUnder(fd).writePending());
  backend.root->suspendedIs(false);
  EXPECT_TRUE(driveUntil([&] { return handler.writes == 1; }));
  driveTurns(quietTurns);
  EXPECT_EQ(1, handler.writes);
  EXPECT_FALSE(task.taskWatchWritable());
}

TEST(TaskFdControl, TheWriteWatchReadsOffInsideWriteFdEvent) {
  SocketPair sockets;
  TaskBackend backend;
  TestFdHandler handler;
  Ptr<Platform::FdControl> fd = backend.fd(&handler);
  bool watchInside = true;
  handler.onWrite = [&](int) { watchInside = taskOf(fd).taskWatchWritable(); };
  fd->setReads(false);
  fd->setWrites(true);
  fd->setFd(sockets.ours());
  Platform::doEventLoop();
  EXPECT_EQ(1, handler.writes);
  EXPECT_FALSE(watchInside);
}

TEST(TaskFdControl, HandleFdExceptionTrueEndsTheRunQuietly) {
  SocketPair sockets;
  TaskBackend backend;
  TestFdHandler handler;
  handler.swallow = true;
  Ptr<Platform::FdControl> fd = backend.fd(&handler);
  Platform::TaskFdControl::TaskWrap& task = taskOf(fd);
  handler.onRead = [&](int f) {
    drainQuietly(f);
    if (handler.reads == 1)
      throw HandlerError("first read fails");
  };
  fd->setFd(sockets.ours());
  sockets.sendToOurs("a");
  EXPECT_TRUE(driveUntil([&] { return handler.reads == 1; }));
  // The run ended as a normal one: no task is left executing and the next
  // notification runs (an exception that left the run would leave the
  // executing task set and make that run fail).
  EXPECT_EQ(nullptr, task.executingTask());
  EXPECT_FALSE(task.readTask()->taskCurrentlyRunning());
  EXPECT_EQ(1u, historyCount(*backend.root, TaskSchedulerEventType::runEnd));
  sockets.sendToOurs("b");
  EXPECT_TRUE(driveUntil([&] { return handler.reads == 2; }));
  EXPECT_EQ(1, handler.exceptionsOffered);
  EXPECT_EQ(sockets.ours(), handler.exceptionFd);
}

TEST(TaskFdControl, HandleFdExceptionFalseRethrowsThroughTheRun) {
  SocketPair sockets;
  TaskBackend backend;
  TestFdHandler handler;
  Ptr<Platform::FdControl> fd = backend.fd(&handler);
  Platform::TaskFdControl::TaskWrap& task = taskOf(fd);
  handler.onRead = [&](int f) {
    drainQuietly(f);
    throw HandlerError("refused");
  };
  fd->setFd(sockets.ours());
  sockets.sendToOurs("a");
  EXPECT_TRUE(loopThrows<HandlerError>());
  EXPECT_EQ(1, handler.exceptionsOffered);
  // Out of the descriptor task's run as any exception: the executing task
  // stays set and the run's accounting was skipped.
  EXPECT_EQ(task.readTask().get(), task.executingTask());
  EXPECT_TRUE(task.readTask()->taskCurrentlyRunning());
  EXPECT_EQ(0u, historyCount(*backend.root, TaskSchedulerEventType::runEnd));
  fd->delFd();
}

TEST(TaskFdControl, StatsNameIsCarriedToTheReadAndWriteTasks) {
  TaskBackend backend;
  TestFdHandler handler;
  Ptr<Platform::FdControl> fd = backend.fd(&handler, "peer");
  Platform::TaskFdControl::TaskWrap& task = taskOf(fd);
  fd->statsNameIs("peers");
  EXPECT_EQ("peers", std::string(task.taskStatsName().view()));
  EXPECT_EQ("peers:read", std::string(task.readTask()->taskStatsName().view()));
  EXPECT_EQ("peer:read", std::string(task.readTask()->taskName().view()));
  // A write task made afterwards takes the stats name too.
  fd->setWrites(true);
  ASSERT_NE(nullptr, task.writeTask().get());
  EXPECT_EQ("peers:write", std::string(task.writeTask()->taskStatsName().view()));
  EXPECT_EQ("peer:write", std::string(task.writeTask()->taskName().view()));
  // And an existing one is renamed with the read task.
  fd->statsNameIs("others");
  EXPECT_EQ("others:read", std::string(task.readTask()->taskStatsName().view()));
  EXPECT_EQ("others:write", std::string(task.writeTask()->taskStatsName().view()));
}

TEST(TaskFdControl, ReadinessRunsAtTheTaskPriority) {
  SocketPair sockets;
  TaskBackend backend;
  std::vector<std::string> order;
  TestFdHandler handler;
  Ptr<Platform::FdControl> fd = Platform::getFdControl(&handler, backend.root, TaskPriority::low, "lowFd");
  handler.onRead = [&](int f) {
    drainQuietly(f);
    order.push_back("read");
    fd->delFd();
  };
  Ptr<TestTask> normal = rootTaskIs(backend.root, TaskPriority::normal, "normal",
                                    [&](TestTask&) { order.push_back("normal"); });
  fd->setFd(sockets.ours());
  sockets.sendToOurs("x");
  backend.root->suspendedIs(true);
  ASSERT_TRUE(driveUntil([&] { return taskOf(fd).taskScheduledReadable(); }));
  normal->scheduleTask();
  backend.root->suspendedIs(false);
  Platform::doEventLoop();
  EXPECT_EQ((std::vector<std::string>{"normal", "read"}), order);
}

} // namespace
