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

TEST(LibeventCallbackControl, RequestIsDeliveredByTheLoopNotByTheRequest) {
  TestCallbackHandler handler;
  Ptr<Platform::CallbackControl> callback = Platform::getCallbackControl(&handler);
  EXPECT_FALSE(callback->pendingCallback());
  callback->requestCallback();
  EXPECT_EQ(0, handler.callbacks);
  EXPECT_TRUE(callback->pendingCallback());
  Platform::doEventLoop();
  EXPECT_EQ(1, handler.callbacks);
  EXPECT_FALSE(callback->pendingCallback());
}

TEST(LibeventCallbackControl, TwoRequestsBeforeTheLoopGiveOneCallback) {
  TestCallbackHandler handler;
  Ptr<Platform::CallbackControl> callback = Platform::getCallbackControl(&handler);
  callback->requestCallback();
  callback->requestCallback();
  Platform::doEventLoop();
  EXPECT_EQ(1, handler.callbacks);
}

TEST(LibeventCallbackControl, PendingIsFalseInsideTheCallback) {
  TestCallbackHandler handler;
  Ptr<Platform::CallbackControl> callback = Platform::getCallbackControl(&handler);
  bool pendingInside = true;
  handler.onCallback = [&] { pendingInside = callback->pendingCallback(); };
  callback->requestCallback();
  Platform::doEventLoop();
  EXPECT_EQ(1, handler.callbacks);
  EXPECT_FALSE(pendingInside);
}

TEST(LibeventCallbackControl, ARequestFromTheCallbackRunsInALaterPass) {
  TestCallbackHandler handler;
  Ptr<Platform::CallbackControl> callback = Platform::getCallbackControl(&handler);
  handler.onCallback = [&] {
    if (handler.callbacks < 5)
      callback->requestCallback();
  };
  callback->requestCallback();
  Platform::doEventLoop();
  EXPECT_EQ(5, handler.callbacks);
}

TEST(LibeventCallbackControl, CancelWithdrawsTheRequest) {
  TestCallbackHandler handler;
  Ptr<Platform::CallbackControl> callback = Platform::getCallbackControl(&handler);
  callback->requestCallback();
  callback->cancelCallback();
  EXPECT_FALSE(callback->pendingCallback());
  Platform::doEventLoop();
  EXPECT_EQ(0, handler.callbacks);
}

TEST(LibeventCallbackControl, DestroyingTheControlWithdrawsTheRequest) {
  TestCallbackHandler handler;
  Ptr<Platform::CallbackControl> callback = Platform::getCallbackControl(&handler);
  callback->requestCallback();
  callback = nullptr;
  Platform::doEventLoop();
  EXPECT_EQ(0, handler.callbacks);
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

TEST(LibeventCallbackControl, DefaultExceptionHandlingRethrows) {
  struct Throwing : Platform::CallbackHandler {
    void callback() override { throw HandlerError("default"); }
  } handler;
  Ptr<Platform::CallbackControl> callback = Platform::getCallbackControl(&handler);
  callback->requestCallback();
  EXPECT_THROW(Platform::doEventLoop(), HandlerError);
}

TEST(LibeventCallbackControl, DeferredOperationsRunAfterTheCallback) {
  TestCallbackHandler handler;
  int ran = 0;
  handler.onCallback = [&] { Publisher::deferOp([&] { ++ran; }); };
  Ptr<Platform::CallbackControl> callback = Platform::getCallbackControl(&handler);
  callback->requestCallback();
  Platform::doEventLoop();
  EXPECT_EQ(1, ran);
}

TEST(LibeventCallbackControl, CallbackMayDropItsOwnControl) {
  TestCallbackHandler handler;
  Ptr<Platform::CallbackControl> callback = Platform::getCallbackControl(&handler);
  handler.onCallback = [&] { callback = nullptr; };
  callback->requestCallback();
  Platform::doEventLoop();
  EXPECT_EQ(1, handler.callbacks);
}

} // namespace
} // namespace Kesto
