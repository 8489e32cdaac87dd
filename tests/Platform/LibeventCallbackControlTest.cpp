// What only the libevent callback control does. The behaviour it shares with the
// control served by a task runs against both backends from one set of test
// bodies, in tests/Scheduler/TaskCallbackControlTest.cpp.
#include <KestoSupport/PlatformTestSupport.h>

#include <Kesto/Core/Publisher.h>
#include <Kesto/Platform/LibeventControls.h>

#include <ZuSlab/ZuSlab.h>

#include <event2/event.h>

namespace Kesto {
namespace {

using PlatformTest::HandlerError;
using PlatformTest::TestCallbackHandler;

TEST(LibeventCallbackControl, FactoryMakesALibeventCallbackFromTheSlab) {
  TestCallbackHandler handler;
  Ptr<Platform::CallbackControl> callback = Platform::getCallbackControl(&handler);
  EXPECT_NE(nullptr, dynamic_cast<LibeventCallbackControl*>(callback.get()));
  EXPECT_EQ(1u, callback->refCount());
  EXPECT_TRUE(ZuSlab::slabOwns(callback.get()));
}

TEST(LibeventCallbackControl, RunsAsADefaultPriorityTimer) {
  TestCallbackHandler handler;
  Ptr<Platform::CallbackControl> callback = Platform::getCallbackControl(&handler);
  // A strict-high timer due at the same time runs first.
  std::vector<int> order;
  handler.onCallback = [&] { order.push_back(1); };
  PlatformTest::TestTimeoutHandler urgent;
  urgent.onTimeout = [&] { order.push_back(0); };
  Ptr<Platform::TimerControl> urgentTimer = Platform::getTimerControl(&urgent, Platform::eventPriorityStrictHigh);
  callback->requestCallback();
  urgentTimer->setTimeout(0.0);
  Platform::doEventLoop();
  EXPECT_EQ((std::vector<int>{0, 1}), order);
}

TEST(LibeventCallbackControl, ExceptionHandledByTheHandlerIsDropped) {
  TestCallbackHandler handler;
  handler.swallow = true;
  handler.onCallback = [] { throw HandlerError("handled"); };
  Ptr<Platform::CallbackControl> callback = Platform::getCallbackControl(&handler);
  callback->requestCallback();
  EXPECT_NO_THROW(Platform::doEventLoop());
  EXPECT_EQ(1, handler.exceptionsOffered);
}

TEST(LibeventCallbackControl, ExceptionRefusedByTheHandlerReachesTheLoopCaller) {
  TestCallbackHandler handler;
  handler.onCallback = [] { throw HandlerError("refused"); };
  Ptr<Platform::CallbackControl> callback = Platform::getCallbackControl(&handler);
  callback->requestCallback();
  EXPECT_THROW(Platform::doEventLoop(), HandlerError);
  EXPECT_EQ(1, handler.exceptionsOffered);
}

} // namespace
} // namespace Kesto
