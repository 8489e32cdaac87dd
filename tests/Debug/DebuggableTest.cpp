#include <Kesto/EventKesto.h>

#include <gtest/gtest.h>

using Kesto::Debuggable;
using Kesto::Ptr;
using Kesto::Platform::DebugHandler;
using Kesto::Platform::getDebugHandler;

TEST(Debuggable, DefaultHoldsNoHandler) {
  Debuggable d;
  EXPECT_FALSE(d.debugHandler());
}

TEST(Debuggable, SharesAndReleasesTheHandler) {
  Ptr<DebugHandler> handler = getDebugHandler("ZqShared");
  EXPECT_EQ(handler->refCount(), 1u);
  {
    Debuggable a(handler);
    Debuggable b(a);
    EXPECT_EQ(handler->refCount(), 3u);
    Debuggable c(std::move(b));
    EXPECT_EQ(handler->refCount(), 3u);
    EXPECT_FALSE(b.debugHandler());
  }
  EXPECT_EQ(handler->refCount(), 1u);
}

TEST(Debuggable, FromReferenceTakesACount) {
  Ptr<DebugHandler> handler = getDebugHandler("ZqByRef");
  Debuggable d(*handler);
  EXPECT_EQ(handler->refCount(), 2u);
  EXPECT_EQ(d.debugHandler().get(), handler.get());
}

TEST(Debuggable, FromNameMakesAHandler) {
  Debuggable d(Kesto::String("ZqByName"), true);
  ASSERT_TRUE(d.debugHandler());
  EXPECT_EQ(d.debugHandler()->name, "ZqByName");
  EXPECT_FALSE(d.debugHandler()->independent_);
}

TEST(Debuggable, AssignmentSwapsHandlers) {
  Ptr<DebugHandler> first = getDebugHandler("ZqFirst");
  Ptr<DebugHandler> second = getDebugHandler("ZqSecond");
  Debuggable a(first), b(second);
  a = b;
  EXPECT_EQ(first->refCount(), 1u);
  EXPECT_EQ(second->refCount(), 3u);
  a = b;
  EXPECT_EQ(second->refCount(), 3u);
}

TEST(Debuggable, LastReferenceDestroysTheHandler) {
  Kesto::String name("ZqLast");
  auto count = [&] {
    Kesto::Platform::Loco::Guard guard;
    return Kesto::Ixo::DebugHandler::handlerMap_->count(name);
  };
  const std::size_t before = count();
  {
    Debuggable d(name, false);
    EXPECT_EQ(count(), before + 1);
  }
  EXPECT_EQ(count(), before);
}

TEST(Debuggable, TraceMacroTakesADebuggable) {
  Debuggable d(Kesto::String("ZqMacroHolder"), false);
  int evaluated = 0;
  KESTO_TRACE(d, 2, "C", "{}", ++evaluated);
  EXPECT_EQ(evaluated, 0);
}
