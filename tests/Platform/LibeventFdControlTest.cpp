#include <KestoSupport/PlatformTestSupport.h>

#include <Kesto/Core/Publisher.h>
#include <Kesto/Platform/LibeventControls.h>

#include <ZuSlab/ZuSlab.h>

#include <fcntl.h>

namespace Kesto {
namespace {

using PlatformTest::HandlerError;
using PlatformTest::SocketPair;
using PlatformTest::TestFdHandler;

LibeventFdControl* le(const Ptr<Platform::FdControl>& control) {
  return dynamic_cast<LibeventFdControl*>(control.get());
}

// Reads what is waiting so that a level-triggered watch goes quiet.
void drain(int fd) {
  char buffer[256];
  while (::read(fd, buffer, sizeof buffer) > 0) {
  }
}

TEST(LibeventFdControl, NewControlHasReadInterestOnlyAndNoDescriptor) {
  TestFdHandler handler;
  Ptr<Platform::FdControl> control = Platform::getFdControl(&handler);
  ASSERT_NE(nullptr, le(control));
  EXPECT_EQ(1u, control->refCount());
  EXPECT_EQ(-1, control->getFd());
  EXPECT_TRUE(le(control)->reads());
  EXPECT_FALSE(le(control)->writes());
  EXPECT_FALSE(le(control)->edgeTriggered());
  EXPECT_FALSE(le(control)->readPending());
}

TEST(LibeventFdControl, SetFdMakesTheDescriptorNonBlockingAndWatchesReads) {
  SocketPair sockets;
  TestFdHandler handler;
  Ptr<Platform::FdControl> control = Platform::getFdControl(&handler);
  control->setFd(sockets.ours());
  EXPECT_EQ(sockets.ours(), control->getFd());
  EXPECT_NE(0, fcntl(sockets.ours(), F_GETFL) & O_NONBLOCK);
  EXPECT_TRUE(le(control)->readPending());
  EXPECT_FALSE(le(control)->writePending());
}

TEST(LibeventFdControl, ReadableDescriptorReachesTheHandlerThroughTheLoop) {
  SocketPair sockets;
  TestFdHandler handler;
  Ptr<Platform::FdControl> control = Platform::getFdControl(&handler);
  std::string received;
  handler.onRead = [&](int fd) {
    char buffer[64];
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n > 0)
      received.append(buffer, size_t(n));
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

TEST(LibeventFdControl, ReadWatchStaysArmedAfterFiring) {
  SocketPair sockets;
  TestFdHandler handler;
  Ptr<Platform::FdControl> control = Platform::getFdControl(&handler);
  handler.onRead = [](int fd) { drain(fd); };
  control->setFd(sockets.ours());
  sockets.sendToOurs("a");
  Platform::doEventLoop(0.0);
  EXPECT_EQ(1, handler.reads);
  EXPECT_TRUE(le(control)->readPending());
  sockets.sendToOurs("b");
  Platform::doEventLoop(0.0);
  EXPECT_EQ(2, handler.reads);
}

TEST(LibeventFdControl, SetReadsFalseWithoutDescriptorOnlyStoresTheFlag) {
  SocketPair sockets;
  TestFdHandler handler;
  Ptr<Platform::FdControl> control = Platform::getFdControl(&handler);
  control->setReads(false);
  EXPECT_FALSE(le(control)->reads());
  control->setFd(sockets.ours());
  EXPECT_FALSE(le(control)->readPending());
  sockets.sendToOurs("ignored");
  Platform::doEventLoop(0.0);
  EXPECT_EQ(0, handler.reads);
}

TEST(LibeventFdControl, SetReadsFalseWithDescriptorRemovesTheWatch) {
  SocketPair sockets;
  TestFdHandler handler;
  Ptr<Platform::FdControl> control = Platform::getFdControl(&handler);
  control->setFd(sockets.ours());
  control->setReads(false);
  EXPECT_FALSE(le(control)->readPending());
  sockets.sendToOurs("ignored");
  Platform::doEventLoop(0.0);
  EXPECT_EQ(0, handler.reads);
  control->setReads(true);
  Platform::doEventLoop(0.0);
  EXPECT_EQ(1, handler.reads);
}

TEST(LibeventFdControlDeathTest, SetFdOnAClosedDescriptorEndsTheProcess) {
  TestFdHandler handler;
  Ptr<Platform::FdControl> control = Platform::getFdControl(&handler);
  int closedFd;
  {
    SocketPair sockets;
    closedFd = sockets.ours();
  }
  EXPECT_DEATH(control->setFd(closedFd),
               "virtual void Kesto::LibeventFdControl::setFd\\(int\\).*Assertion `flags >= 0' failed");
}

TEST(LibeventFdControl, WriteWatchIsOneShotAndSetWritesTrueArmsItAgain) {
  SocketPair sockets;
  TestFdHandler handler;
  Ptr<Platform::FdControl> control = Platform::getFdControl(&handler);
  control->setReads(false);
  control->setWrites(true);
  control->setFd(sockets.ours());
  EXPECT_TRUE(le(control)->writePending());
  // The only event is the write watch: once it has fired nothing is left and
  // the loop returns.
  Platform::doEventLoop();
  EXPECT_EQ(1, handler.writes);
  EXPECT_EQ(sockets.ours(), handler.lastFd);
  EXPECT_TRUE(le(control)->writes());
  EXPECT_FALSE(le(control)->writePending());
  Platform::doEventLoop();
  EXPECT_EQ(1, handler.writes);
  // Same value again: one more notification.
  control->setWrites(true);
  EXPECT_TRUE(le(control)->writePending());
  Platform::doEventLoop();
  EXPECT_EQ(2, handler.writes);
}

TEST(LibeventFdControl, SetWritesTrueFromTheWriteHandlerGetsTheNextNotification) {
  SocketPair sockets;
  TestFdHandler handler;
  Ptr<Platform::FdControl> control = Platform::getFdControl(&handler);
  handler.onWrite = [&](int) {
    if (handler.writes < 3)
      control->setWrites(true);
  };
  control->setReads(false);
  control->setWrites(true);
  control->setFd(sockets.ours());
  Platform::doEventLoop();
  EXPECT_EQ(3, handler.writes);
}

TEST(LibeventFdControl, SetEdgeTriggeredWithTheCurrentValueDoesNothing) {
  SocketPair sockets;
  TestFdHandler handler;
  Ptr<Platform::FdControl> control = Platform::getFdControl(&handler);
  control->setReads(false);
  control->setWrites(true);
  control->setFd(sockets.ours());
  Platform::doEventLoop();
  ASSERT_EQ(1, handler.writes);
  ASSERT_FALSE(le(control)->writePending());
  // Unchanged: the fired write watch is not re-created.
  control->setEdgeTriggered(false);
  EXPECT_FALSE(le(control)->writePending());
  // Changed: both events are re-created with the new bits, which re-arms
  // the write watch.
  control->setEdgeTriggered(true);
  EXPECT_TRUE(le(control)->edgeTriggered());
  EXPECT_TRUE(le(control)->writePending());
  Platform::doEventLoop();
  EXPECT_EQ(2, handler.writes);
}

TEST(LibeventFdControl, EdgeTriggeredReadFiresOncePerArrival) {
  SocketPair sockets;
  TestFdHandler handler;
  Ptr<Platform::FdControl> control = Platform::getFdControl(&handler);
  control->setEdgeTriggered(true);
  control->setFd(sockets.ours());
  sockets.sendToOurs("x");
  // Nothing is read, yet an edge-triggered watch does not fire again.
  Platform::doEventLoop(0.0);
  Platform::doEventLoop(0.0);
  EXPECT_EQ(1, handler.reads);
  sockets.sendToOurs("y");
  Platform::doEventLoop(0.0);
  EXPECT_EQ(2, handler.reads);
}

TEST(LibeventFdControl, LevelTriggeredReadFiresWhileDataWaits) {
  SocketPair sockets;
  TestFdHandler handler;
  Ptr<Platform::FdControl> control = Platform::getFdControl(&handler);
  control->setFd(sockets.ours());
  sockets.sendToOurs("x");
  Platform::doEventLoop(0.0);
  Platform::doEventLoop(0.0);
  EXPECT_EQ(2, handler.reads);
}

TEST(LibeventFdControl, ClearEventsKeepsTheDescriptorAndTheInterest) {
  SocketPair sockets;
  TestFdHandler handler;
  Ptr<Platform::FdControl> control = Platform::getFdControl(&handler);
  control->setWrites(true);
  control->setFd(sockets.ours());
  control->clearEvents();
  EXPECT_EQ(sockets.ours(), control->getFd());
  EXPECT_TRUE(le(control)->reads());
  EXPECT_TRUE(le(control)->writes());
  EXPECT_FALSE(le(control)->readPending());
  EXPECT_FALSE(le(control)->writePending());
  sockets.sendToOurs("x");
  Platform::doEventLoop();
  EXPECT_EQ(0, handler.reads);
  EXPECT_EQ(0, handler.writes);
}

TEST(LibeventFdControl, DelFdForgetsTheDescriptor) {
  SocketPair sockets;
  TestFdHandler handler;
  Ptr<Platform::FdControl> control = Platform::getFdControl(&handler);
  control->setFd(sockets.ours());
  control->delFd();
  EXPECT_EQ(-1, control->getFd());
  EXPECT_FALSE(le(control)->readPending());
  // The interest is remembered for the next descriptor.
  EXPECT_TRUE(le(control)->reads());
}

TEST(LibeventFdControl, DestroyingTheControlRemovesItsEvents) {
  SocketPair sockets;
  TestFdHandler handler;
  Ptr<Platform::FdControl> control = Platform::getFdControl(&handler);
  control->setFd(sockets.ours());
  control = nullptr;
  sockets.sendToOurs("x");
  Platform::doEventLoop(); // nothing registered: returns at once
  EXPECT_EQ(0, handler.reads);
}

TEST(LibeventFdControl, ExceptionHandledByTheHandlerIsDroppedAndGetsTheDescriptor) {
  SocketPair sockets;
  TestFdHandler handler;
  handler.swallow = true;
  Ptr<Platform::FdControl> control = Platform::getFdControl(&handler);
  handler.onRead = [&](int fd) {
    drain(fd);
    control->clearEvents();
    throw HandlerError("handled");
  };
  control->setFd(sockets.ours());
  sockets.sendToOurs("x");
  EXPECT_NO_THROW(Platform::doEventLoop());
  EXPECT_EQ(1, handler.exceptionsOffered);
  EXPECT_EQ(sockets.ours(), handler.exceptionFd);
}

TEST(LibeventFdControl, ExceptionRefusedByTheHandlerReachesTheLoopCaller) {
  SocketPair sockets;
  TestFdHandler handler;
  Ptr<Platform::FdControl> control = Platform::getFdControl(&handler);
  handler.onWrite = [&](int) { throw HandlerError("refused"); };
  control->setReads(false);
  control->setWrites(true);
  control->setFd(sockets.ours());
  EXPECT_THROW(Platform::doEventLoop(), HandlerError);
  EXPECT_EQ(1, handler.exceptionsOffered);
}

TEST(LibeventFdControl, DefaultExceptionHandlingRethrows) {
  struct Throwing : Platform::FdEventHandler {
    void readFdEvent(int) override { throw HandlerError("read"); }
    void writeFdEvent(int) override {}
  } handler;
  SocketPair sockets;
  Ptr<Platform::FdControl> control = Platform::getFdControl(&handler);
  control->setFd(sockets.ours());
  sockets.sendToOurs("x");
  EXPECT_THROW(Platform::doEventLoop(), HandlerError);
}

TEST(LibeventFdControl, DeferredOperationsRunAfterADescriptorHandler) {
  SocketPair sockets;
  TestFdHandler handler;
  Ptr<Platform::FdControl> control = Platform::getFdControl(&handler);
  int ran = 0;
  handler.onRead = [&](int fd) {
    drain(fd);
    Publisher::deferOp([&] { ++ran; });
    control->delFd();
  };
  control->setFd(sockets.ours());
  sockets.sendToOurs("x");
  Platform::doEventLoop();
  EXPECT_EQ(1, ran);
}

TEST(LibeventFdControl, DescriptorControlsComeFromTheOrdinaryHeap) {
  TestFdHandler handler;
  Ptr<Platform::FdControl> control = Platform::getFdControl(&handler);
  EXPECT_FALSE(ZuSlab::slabOwns(control.get()));
}

} // namespace
} // namespace Kesto
