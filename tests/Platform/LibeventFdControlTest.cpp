// What only the libevent descriptor control does. The behaviour it shares with the
// control served by a task runs against both backends from one set of test
// bodies, in tests/Scheduler/TaskFdControlTest.cpp.
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

TEST(LibeventFdControl, DescriptorControlsComeFromTheOrdinaryHeap) {
  TestFdHandler handler;
  Ptr<Platform::FdControl> control = Platform::getFdControl(&handler);
  EXPECT_FALSE(ZuSlab::slabOwns(control.get()));
}

} // namespace
} // namespace Kesto
