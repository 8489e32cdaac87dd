#include <KestoSupport/PlatformTestSupport.h>

#include <Kesto/Platform/LibeventControls.h>
#include <Kesto/Debug/Loco.h>
#include <Kesto/Platform/Time.h>

#include <event2/event.h>

#include <limits>
#include <string>
#include <thread>
#include <vector>

namespace Kesto {
namespace {

using PlatformTest::expectToReturnInAChild;
using PlatformTest::HandlerError;
using PlatformTest::monotonicSeconds;
using PlatformTest::SocketPair;
using PlatformTest::TestCallbackHandler;
using PlatformTest::TestFdHandler;
using PlatformTest::TestTimeoutHandler;

// Counts the events of the thread's base, internal ones left out.
int eventCount() {
  return event_base_get_num_events(ev_base, EVENT_BASE_COUNT_ADDED | EVENT_BASE_COUNT_ACTIVE);
}

TEST(EventLoop, DoEventLoopWithNothingRegisteredReturnsAtOnce) {
  std::thread([] {
    Platform::doEventLoop(); // makes the base, finds nothing, returns
    EXPECT_TRUE(leInitialized());
    leFree();
  }).join();
  leInit();
  ASSERT_EQ(0, eventCount());
  Platform::doEventLoop();
}

TEST(EventLoop, LoopFunctionsMakeTheBaseWhenMissing) {
  std::thread([] {
    Platform::doEventLoop(0.0);
    EXPECT_TRUE(leInitialized());
    leFree();
    Platform::doEventLoopInWaitfor(0.0);
    EXPECT_TRUE(leInitialized());
    leFree();
  }).join();
}

TEST(EventLoop, DoEventLoopZeroDispatchesUntilTheZeroDelayBreakFires) {
  // A timer due now and a callback requested before the loop run in the
  // pass; a timer due later does not, and the loop does not wait for it.
  TestTimeoutHandler due;
  TestTimeoutHandler later;
  TestCallbackHandler callbackHandler;
  Ptr<Platform::TimerControl> dueTimer = Platform::getTimerControl(&due);
  Ptr<Platform::TimerControl> laterTimer = Platform::getTimerControl(&later);
  Ptr<Platform::CallbackControl> callback = Platform::getCallbackControl(&callbackHandler);
  dueTimer->setTimeout(0.0);
  laterTimer->setTimeout(3600.0);
  callback->requestCallback();
  Platform::doEventLoop(0.0);
  EXPECT_EQ(1, due.timeouts);
  EXPECT_EQ(1, callbackHandler.callbacks);
  EXPECT_EQ(0, later.timeouts);
  // The break event is gone with the call; only the hour-long timer is left.
  EXPECT_EQ(1, eventCount());
}

TEST(EventLoop, DescriptorTimerAndCallbackAllReachTheirHandlers) {
  SocketPair sockets;
  TestFdHandler fdHandler;
  TestTimeoutHandler timeoutHandler;
  TestCallbackHandler callbackHandler;
  Ptr<Platform::FdControl> fd = Platform::getFdControl(&fdHandler);
  Ptr<Platform::TimerControl> timer = Platform::getTimerControl(&timeoutHandler);
  Ptr<Platform::CallbackControl> callback = Platform::getCallbackControl(&callbackHandler);
  std::vector<std::string> seen;
  fdHandler.onRead = [&](int descriptor) {
    char buffer[16];
    const ssize_t n = ::read(descriptor, buffer, sizeof buffer);
    seen.push_back("read:" + std::string(buffer, n > 0 ? size_t(n) : 0));
    fd->delFd();
    timer->setTimeout(0.0);
  };
  timeoutHandler.onTimeout = [&] {
    seen.push_back("timeout");
    callback->requestCallback();
  };
  callbackHandler.onCallback = [&] { seen.push_back("callback"); };
  fd->setFd(sockets.ours());
  sockets.sendToOurs("go");
  Platform::doEventLoop();
  EXPECT_EQ((std::vector<std::string>{"read:go", "timeout", "callback"}), seen);
}

TEST(EventLoop, ExceptionsTravelToTheCallerOfEachLoopFunction) {
  TestTimeoutHandler handler;
  handler.onTimeout = [] { throw HandlerError("up"); };
  Ptr<Platform::TimerControl> timer = Platform::getTimerControl(&handler);
  timer->setTimeout(0.0);
  EXPECT_THROW(Platform::doEventLoop(), HandlerError);
  timer->setTimeout(0.0);
  EXPECT_THROW(Platform::doEventLoop(5.0), HandlerError);
  timer->setTimeout(0.0);
  EXPECT_THROW(Platform::doEventLoopInWaitfor(5.0), HandlerError);
  EXPECT_FALSE(Platform::Loco::owns_loco());
  // The break events of the interrupted calls are gone with them.
  EXPECT_EQ(0, eventCount());
}

TEST(EventLoop, TheLoopStopsRunningHandlersOnceOneThrew) {
  TestTimeoutHandler first;
  TestTimeoutHandler second;
  first.onTimeout = [] { throw HandlerError("first"); };
  Ptr<Platform::TimerControl> firstTimer = Platform::getTimerControl(&first);
  Ptr<Platform::TimerControl> secondTimer = Platform::getTimerControl(&second);
  firstTimer->setTimeout(0.0);
  secondTimer->setTimeout(0.0);
  EXPECT_THROW(Platform::doEventLoop(), HandlerError);
  EXPECT_EQ(0, second.timeouts);
  Platform::doEventLoop();
  EXPECT_EQ(1, second.timeouts);
}

TEST(EventLoop, DoEventLoopInWaitforHoldsTheLockAroundItsWait) {
  TestCallbackHandler handler;
  bool heldInside = false;
  handler.onCallback = [&] { heldInside = Platform::Loco::owns_loco(); };
  Ptr<Platform::CallbackControl> callback = Platform::getCallbackControl(&handler);
  callback->requestCallback();
  Platform::doEventLoopInWaitfor(0.0);
  EXPECT_EQ(1, handler.callbacks);
  EXPECT_TRUE(heldInside);
  EXPECT_FALSE(Platform::Loco::owns_loco());
}

TEST(EventLoop, OtherLoopFunctionsDoNotTakeTheLock) {
  TestCallbackHandler handler;
  bool heldInside = true;
  handler.onCallback = [&] { heldInside = Platform::Loco::owns_loco(); };
  Ptr<Platform::CallbackControl> callback = Platform::getCallbackControl(&handler);
  callback->requestCallback();
  Platform::doEventLoop(0.0);
  EXPECT_FALSE(heldInside);
  heldInside = true;
  callback->requestCallback();
  Platform::doEventLoop();
  EXPECT_FALSE(heldInside);
}

TEST(EventLoop, TimedLoopReturnsWhenItsBreakFiresEvenWithWorkPending) {
  // A callback that re-requests itself forever: only the break ends the loop.
  TestCallbackHandler handler;
  Ptr<Platform::CallbackControl> callback = Platform::getCallbackControl(&handler);
  handler.onCallback = [&] { callback->requestCallback(); };
  callback->requestCallback();
  Platform::doEventLoop(0.001);
  EXPECT_GE(handler.callbacks, 1);
  callback->cancelCallback();
}

// ---- endless and huge time-outs in real time --------------------------------

constexpr double infinity = std::numeric_limits<double>::infinity();

// The loop functions with a time-out, each under the name a failure shows.
struct TimedLoop {
  const char* name;
  double timeout;
  void (*run)(double);
};
const TimedLoop endlessLoops[] = {
    {"doEventLoop(inf)", infinity, [](double t) { Platform::doEventLoop(t); }},
    {"doEventLoop(1e30)", 1e30, [](double t) { Platform::doEventLoop(t); }},
    {"doEventLoop(1e15)", 1e15, [](double t) { Platform::doEventLoop(t); }},
    {"doEventLoopInWaitfor(inf)", infinity, [](double t) { Platform::doEventLoopInWaitfor(t); }},
    {"doEventLoopInWaitfor(1e30)", 1e30, [](double t) { Platform::doEventLoopInWaitfor(t); }},
};

// Each loop runs in a child that an alarm ends: a loop that waits for ever
// fails the test without hanging the suite.

TEST(EventLoopDeathTest, EndlessLoopOnAnEmptyBaseReturnsAtOnce) {
  for (const TimedLoop& loop : endlessLoops) {
    expectToReturnInAChild([&loop] {
      loop.run(loop.timeout);
      EXPECT_EQ(0, eventCount()) << loop.name;
    });
  }
}

TEST(EventLoopDeathTest, EndlessLoopWaitsForATimerAndReturnsOnceNothingIsLeft) {
  for (const TimedLoop& loop : endlessLoops) {
    expectToReturnInAChild([&loop] {
      TestTimeoutHandler handler;
      Ptr<Platform::TimerControl> timer = Platform::getTimerControl(&handler);
      const double start = monotonicSeconds();
      timer->setTimeout(0.02);
      loop.run(loop.timeout);
      const double elapsed = monotonicSeconds() - start;
      EXPECT_EQ(1, handler.timeouts) << loop.name;
      EXPECT_GE(elapsed, 0.02) << loop.name;
      EXPECT_EQ(0, eventCount()) << loop.name;
      timer = nullptr;
    });
  }
}

TEST(EventLoopDeathTest, EndlessLoopWaitsForADescriptorOnceNoTimerIsLeft) {
  for (const TimedLoop& loop : endlessLoops) {
    expectToReturnInAChild([&loop] {
      // A timer writes to the peer of a watched socket 20 ms on; the read
      // handler stops the watch, and with it the last thing to wait for.
      SocketPair sockets;
      TestFdHandler fdHandler;
      TestTimeoutHandler writerHandler;
      Ptr<Platform::FdControl> fd = Platform::getFdControl(&fdHandler);
      Ptr<Platform::TimerControl> writer = Platform::getTimerControl(&writerHandler);
      std::string received;
      writerHandler.onTimeout = [&] { sockets.sendToOurs("x"); };
      fdHandler.onRead = [&](int descriptor) {
        char buffer[8];
        const ssize_t n = ::read(descriptor, buffer, sizeof buffer);
        received.assign(buffer, n > 0 ? size_t(n) : 0);
        fd->delFd();
      };
      fd->setFd(sockets.ours());
      const double start = monotonicSeconds();
      writer->setTimeout(0.02);
      loop.run(loop.timeout);
      const double elapsed = monotonicSeconds() - start;
      EXPECT_EQ(1, writerHandler.timeouts) << loop.name;
      EXPECT_EQ(1, fdHandler.reads) << loop.name;
      EXPECT_EQ("x", received) << loop.name;
      EXPECT_GE(elapsed, 0.02) << loop.name;
      EXPECT_EQ(0, eventCount()) << loop.name;
      fd = nullptr;
      writer = nullptr;
    });
  }
}

} // namespace
} // namespace Kesto
