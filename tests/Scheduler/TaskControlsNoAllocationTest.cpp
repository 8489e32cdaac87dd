// Counts the heap allocations of the test thread to show that the
// task-backed controls' run paths allocate nothing: a callback request and
// its run, a zero-delay timer and its run, a descriptor event, its queued run
// and the handler, all through the real event loop.
#include "ControlBackends.h"

#include <ZuSlab/ZuSlab.h>

#ifndef KESTO_SANITIZED
#include <KestoSupport/MallocCounter.h>
#endif

using namespace KestoTest;

namespace {

constexpr int rounds = 1000;

// A handler that arms its control again until the round's count is reached;
// plain members, so that the handler itself allocates nothing.
class Rearming : public Platform::CallbackHandler, public Platform::TimeoutHandler {
public:
  void callback() override {
    if (++count < limit)
      callbackControl->requestCallback();
  }
  void timeout() override {
    if (++count < limit)
      timerControl->setTimeout(0.0);
  }
  int count = 0;
  int limit = 0;
  Platform::CallbackControl* callbackControl = nullptr;
  Platform::TimerControl* timerControl = nullptr;
};

class Echo : public Platform::FdEventHandler {
public:
  void readFdEvent(int fd) override {
    char b[16];
    while (::read(fd, b, sizeof b) > 0)
      ++reads;
  }
  void writeFdEvent(int) override {}
  int reads = 0;
};

TEST(TaskControlsNoAllocation, CallbackTimerAndDescriptorRunsAllocateNothing) {
#ifdef KESTO_SANITIZED
  GTEST_SKIP() << "the sanitizers own malloc";
#else
  TaskBackend backend;
  Rearming handler;
  Ptr<Platform::CallbackControl> callback = backend.callback(&handler);
  Ptr<Platform::TimerControl> timer = backend.timer(&handler);
  handler.callbackControl = callback.get();
  handler.timerControl = timer.get();
  SocketPair sockets;
  Echo echo;
  Ptr<Platform::FdControl> fd = backend.fd(&echo);
  fd->setFd(sockets.ours());
  auto round = [&] {
    handler.count = 0;
    handler.limit = rounds;
    callback->requestCallback();
    Platform::doEventLoop(0.0);
    while (handler.count < rounds)
      Platform::doEventLoop(0.0);
    handler.count = 0;
    timer->setTimeout(0.0);
    while (handler.count < rounds)
      Platform::doEventLoop(0.0);
    const int before = echo.reads;
    sockets.sendToOurs("x");
    while (echo.reads == before)
      Platform::doEventLoop(0.0);
  };
  round(); // the first turns size libevent's and the wheel's buffers
  const ZuSlab::SlabStats slabBefore = ZuSlab::slabStats();
  const unsigned long before = KestoSupport::mallocCalls();
  for (int i = 0; i < 5; ++i)
    round();
  EXPECT_EQ(0u, KestoSupport::mallocCalls() - before);
  EXPECT_EQ(slabBefore.blocksInUse, ZuSlab::slabStats().blocksInUse);
  EXPECT_EQ(6, echo.reads);
#endif
}

} // namespace
