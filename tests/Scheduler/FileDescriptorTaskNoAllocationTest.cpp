// Counts heap allocations along the readiness path of a descriptor task: the
// descriptor event, the run queue, the pass of the root and the run of the
// read and write tasks, with an echo going round through the event loop.
#include "FdTaskTestSupport.h"

#include <ZuSlab/ZuSlab.h>

#include <sys/socket.h>

#ifndef KESTO_SANITIZED
#include <KestoSupport/MallocCounter.h>
#endif

using namespace KestoTest;

namespace {

// One round: the peer sends a byte, the read task takes it and asks for the
// write watch, the write task sends it back, the peer receives it. False if
// the round did not complete within the bound of loop turns. (Unused where
// the sanitizers own malloc and the tests skip.)
[[maybe_unused]] bool echoRound(const SocketPair& sockets, TestFdTask& task, char byte) {
  if (::write(sockets.peer(), &byte, 1) != 1)
    return false;
  const unsigned writesBefore = task.writes;
  char back = 0;
  for (int turn = 0; turn < 200; ++turn) {
    Platform::doEventLoop(0.0);
    if (task.writes != writesBefore && ::recv(sockets.peer(), &back, 1, MSG_DONTWAIT) == 1)
      return back == byte;
  }
  return false;
}

} // namespace

TEST(FileDescriptorTaskNoAllocation, EchoThroughTheEventLoopAllocatesNothing) {
#ifdef KESTO_SANITIZED
  GTEST_SKIP() << "the sanitizers own malloc";
#else
  auto root = TaskSchedulerRoot::TaskSchedulerRootIs("fdAlloc");
  SocketPair sockets;
  auto task = fdTaskIs(root, "echo");
  char pending = 0;
  task->onRead = [&pending](TestFdTask& self) {
    char c;
    if (::read(self.taskWatchFd(), &c, 1) == 1) {
      pending = c;
      self.taskWorkCountInc(1);
      self.taskWatchWritableIs(true);
    }
  };
  task->onWrite = [&pending](TestFdTask& self) {
    if (::write(self.taskWatchFd(), &pending, 1) == 1)
      self.taskWorkCountInc(1);
  };
  task->taskWatchFdIs(sockets.ours());
  // Warm up: first use of every path, the write task made.
  for (int i = 0; i < 100; ++i)
    ASSERT_TRUE(echoRound(sockets, *task, char('a' + i % 26)));
  ASSERT_TRUE(task->writeTask());

  const ZuSlab::SlabStats slabBefore = ZuSlab::slabStats();
  const unsigned readsBefore = task->reads;
  const unsigned writesBefore = task->writes;
  const unsigned long before = KestoSupport::mallocCalls();
  unsigned completed = 0;
  for (int i = 0; i < 1000; ++i)
    completed += echoRound(sockets, *task, char('a' + i % 26));
  const unsigned long allocations = KestoSupport::mallocCalls() - before;

  EXPECT_EQ(0u, allocations);
  EXPECT_EQ(1000u, completed);
  EXPECT_EQ(slabBefore.blocksInUse, ZuSlab::slabStats().blocksInUse);
  EXPECT_GE(task->reads - readsBefore, 1000u);
  EXPECT_EQ(1000u, task->writes - writesBefore);
  EXPECT_EQ(1100u, task->taskWorkCountReadableTotal());
  EXPECT_EQ(1100u, task->taskWorkCountWritableTotal());
#endif
}

TEST(FileDescriptorTaskNoAllocation, CounterSeesAnAllocation) {
#ifdef KESTO_SANITIZED
  GTEST_SKIP() << "the sanitizers own malloc";
#else
  const unsigned long before = KestoSupport::mallocCalls();
  int* volatile p = new int(3);
  const unsigned long after = KestoSupport::mallocCalls();
  delete p;
  EXPECT_EQ(1u, after - before);
#endif
}
