#include <KestoSupport/PlatformTestSupport.h>

#include <Kesto/Platform/LibeventControls.h>
#include <Kesto/Debug/Trace.h>

#include <event2/event.h>

#include <dirent.h>
#include <sys/wait.h>

#include <thread>

namespace Kesto {
namespace {

using PlatformTest::assertionText;
using PlatformTest::TestTimeoutHandler;
using ::testing::HasSubstr;

TEST(LibeventBase, LeInitCreatesTheThreadsBaseOnce) {
  leInit();
  ASSERT_TRUE(leInitialized());
  event_base* base = ev_base;
  leInit();
  EXPECT_EQ(base, ev_base);
}

TEST(LibeventBase, BaseHasTwoPriorities) {
  leInit();
  EXPECT_EQ(2, event_base_get_npriorities(ev_base));
}

TEST(LibeventBase, BaseSupportsEdgeTriggeredEvents) {
  leInit();
  EXPECT_NE(0, event_base_get_features(ev_base) & EV_FEATURE_ET);
}

TEST(LibeventBase, RegisteringAnotherBaseAsserts) {
  leInit();
  event_base* other = leCreateBase();
  const std::string text = assertionText([&] { leRegisterBase(other); });
  EXPECT_THAT(text, HasSubstr(fmt::format("Tried to register a base:{} but a thread_local  base already exists: {}",
                                          DisplayPointer(other), DisplayPointer(ev_base))));
  EXPECT_NE(other, ev_base);
  event_base_free(other);
}

TEST(LibeventBase, RegisteringTheSameBaseOnlyRefreshesMainThread) {
  leInit();
  event_base* base = ev_base;
  mainThread = false;
  leRegisterBase(base);
  EXPECT_EQ(base, ev_base);
  EXPECT_TRUE(mainThread); // gtest runs the tests on the process's main thread
}

TEST(LibeventBase, SetMainThreadReadsIsMainThreadAgain) {
  leInit();
  mainThread = false;
  setMainThread();
  EXPECT_TRUE(mainThread);
}

TEST(LibeventBase, EachThreadHasItsOwnBaseAndIsNotMain) {
  leInit();
  event_base* mainBase = ev_base;
  event_base* threadBase = nullptr;
  bool threadIsMain = true;
  std::thread([&] {
    EXPECT_FALSE(leInitialized());
    TestTimeoutHandler handler;
    Ptr<Platform::TimerControl> timer = Platform::getTimerControl(&handler);
    threadBase = ev_base;
    threadIsMain = mainThread;
    timer->setTimeout(0.0);
    Platform::doEventLoop();
    EXPECT_EQ(1, handler.timeouts);
    timer = nullptr;
    leFree();
  }).join();
  EXPECT_NE(nullptr, threadBase);
  EXPECT_NE(mainBase, threadBase);
  EXPECT_FALSE(threadIsMain);
  EXPECT_EQ(mainBase, ev_base);
}

TEST(LibeventBase, ControlsStaySafeToDisarmAndDestroyAfterLeFree) {
  std::thread([] {
    TestTimeoutHandler timeoutHandler;
    PlatformTest::TestCallbackHandler callbackHandler;
    PlatformTest::TestFdHandler fdHandler;
    PlatformTest::SocketPair sockets;
    Ptr<Platform::TimerControl> timer = Platform::getTimerControl(&timeoutHandler);
    Ptr<Platform::CallbackControl> callback = Platform::getCallbackControl(&callbackHandler);
    Ptr<Platform::FdControl> fd = Platform::getFdControl(&fdHandler);
    timer->setTimeout(5.0);
    callback->requestCallback();
    fd->setWrites(true);
    fd->setFd(sockets.ours());
    leFree();
    EXPECT_FALSE(leInitialized());
    timer->delTimeout();
    EXPECT_EQ(std::numeric_limits<double>::infinity(), timer->remainingTimeout());
    callback->cancelCallback();
    EXPECT_FALSE(callback->pendingCallback());
    fd->clearEvents();
    EXPECT_EQ(sockets.ours(), fd->getFd());
    fd->delFd();
    EXPECT_EQ(-1, fd->getFd());
    timer = nullptr;
    callback = nullptr;
    fd = nullptr;
    EXPECT_FALSE(leInitialized());
  }).join();
}

TEST(LibeventBase, ControlsOfAFreedBaseAreLeftAloneUnderANewOne) {
  std::thread([] {
    TestTimeoutHandler handler;
    Ptr<Platform::TimerControl> stale = Platform::getTimerControl(&handler);
    stale->setTimeout(5.0);
    leFree();
    leInit();
    // The stale control's event belongs to the freed base: disarming and
    // querying it must not touch that base.
    stale->delTimeout();
    EXPECT_EQ(std::numeric_limits<double>::infinity(), stale->remainingTimeout());
    stale = nullptr;
    Ptr<Platform::TimerControl> fresh = Platform::getTimerControl(&handler);
    fresh->setTimeout(0.0);
    Platform::doEventLoop();
    EXPECT_EQ(1, handler.timeouts);
    fresh = nullptr;
    leFree();
  }).join();
}

// The descriptors the process has open, the one that reads them left out.
int openDescriptorCount() {
  DIR* dir = opendir("/proc/self/fd");
  if (!dir) {
    ADD_FAILURE() << "cannot read /proc/self/fd";
    return -1;
  }
  int count = 0;
  while (const dirent* entry = readdir(dir))
    if (entry->d_name[0] != '.')
      ++count;
  closedir(dir);
  return count - 1;
}

// How many descriptors one base holds, measured on a base of its own.
int descriptorsOfABase() {
  const int before = openDescriptorCount();
  event_base* base = leCreateBase();
  const int with = openDescriptorCount();
  event_base_free(base);
  EXPECT_EQ(before, openDescriptorCount());
  return with - before;
}

TEST(LibeventBase, AThreadThatCallsLeFreeBeforeItEndsLeavesNoDescriptorBehind) {
  const int baseDescriptors = descriptorsOfABase();
  ASSERT_GT(baseDescriptors, 0);
  const int before = openDescriptorCount();
  int during = -1;
  std::thread([&] {
    TestTimeoutHandler handler;
    Ptr<Platform::TimerControl> timer = Platform::getTimerControl(&handler);
    timer->setTimeout(0.0);
    Platform::doEventLoop();
    EXPECT_EQ(1, handler.timeouts);
    during = openDescriptorCount();
    timer = nullptr;
    leFree();
  }).join();
  EXPECT_EQ(before + baseDescriptors, during);
  EXPECT_EQ(before, openDescriptorCount());
}

TEST(LibeventBase, AThreadThatEndsWithoutLeFreeKeepsItsBaseAndItsDescriptors) {
  // What the contract says of a thread that forgets leFree(): its base, and
  // every descriptor of it, outlive the thread.
  const int baseDescriptors = descriptorsOfABase();
  ASSERT_GT(baseDescriptors, 0);
  const int before = openDescriptorCount();
  event_base* leaked = nullptr;
  std::thread([&] {
    TestTimeoutHandler handler;
    Ptr<Platform::TimerControl> timer = Platform::getTimerControl(&handler);
    timer->setTimeout(0.0);
    Platform::doEventLoop();
    timer = nullptr;
    leaked = ev_base;
  }).join();
  ASSERT_NE(nullptr, leaked);
  EXPECT_EQ(before + baseDescriptors, openDescriptorCount());
  // Freed here, so that the suite does not keep them: a base may be freed
  // from another thread once nothing runs its loop.
  event_base_free(leaked);
  EXPECT_EQ(before, openDescriptorCount());
}

TEST(LibeventBaseDeathTest, ForkReinitGivesTheChildAWorkingBase) {
  leInit();
  EXPECT_EXIT(
      {
        leForkReinit();
        TestTimeoutHandler handler;
        Ptr<Platform::TimerControl> timer = Platform::getTimerControl(&handler);
        timer->setTimeout(0.0);
        Platform::doEventLoop();
        std::_Exit(handler.timeouts == 1 ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST(LibeventBaseDeathTest, ForkReinitWithoutABaseMakesOne) {
  EXPECT_EXIT(
      {
        std::thread([] {
          leForkReinit();
          std::_Exit(leInitialized() ? 0 : 1);
        }).join();
        std::_Exit(2);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST(LibeventBase, EventPrioritySetOnAnActiveEventAsserts) {
  leInit();
  event ev;
  event_assign(&ev, ev_base, -1, 0, [](evutil_socket_t, short, void*) {}, nullptr);
  event_active(&ev, EV_TIMEOUT, 1);
  const std::string text = assertionText([&] { eventPrioritySet(&ev, Platform::eventPriorityStrictHigh); });
  EXPECT_THAT(text, HasSubstr(fmt::format("Failed to set priority on {} to eventPriorityStrictHigh rc -1",
                                          DisplayPointer(&ev))));
  event_del(&ev);
}

TEST(LibeventBase, EventPrioritySetAppliesThePriority) {
  leInit();
  event ev;
  event_assign(&ev, ev_base, -1, 0, nullptr, nullptr);
  eventPrioritySet(&ev, Platform::eventPriorityStrictHigh);
  EXPECT_EQ(0, event_get_priority(&ev));
  eventPrioritySet(&ev, Platform::eventPriorityDefault);
  EXPECT_EQ(1, event_get_priority(&ev));
}

TEST(LibeventBase, InvalidLogSeverityAsserts) {
  EXPECT_THAT(assertionText([] { le_debug_cb(4, "odd"); }), HasSubstr("invalid libevent severity:4 msg:odd"));
}

TEST(LibeventBase, KnownLogSeveritiesOnlyTrace) {
  EXPECT_EQ("", assertionText([] {
              le_debug_cb(EVENT_LOG_DEBUG, "d");
              le_debug_cb(EVENT_LOG_MSG, "m");
              le_debug_cb(EVENT_LOG_WARN, "w");
              le_debug_cb(EVENT_LOG_ERR, "e");
            }));
}

TEST(LibeventBase, FatalErrorAsserts) {
  EXPECT_THAT(assertionText([] { le_fatal_cb(17); }), HasSubstr("libevent fatal error:17"));
}

} // namespace
} // namespace Kesto
