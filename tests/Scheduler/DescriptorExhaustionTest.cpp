// The scheduler with no descriptor left to open: descriptor tasks, timer
// tasks on the wheel, plain libevent timers and a report to a descriptor.
// None of these opens a descriptor once the thread's event base exists, so
// all of them keep working, and none may leave a descriptor behind.
//
// Each case runs in a forked child whose soft RLIMIT_NOFILE is lowered to 20
// and whose remaining slots below it are filled, so that any open() the code
// tried would fail with EMFILE. The child counts its descriptors before and
// after (by asking each number: listing /proc/self/fd would itself need a
// descriptor) and reports by its exit status: bit N set means check N
// failed.
#include "FdTaskTestSupport.h"
#include "TimerTaskTestSupport.h"

#include <KestoSupport/ChildProcess.h>
#include <KestoSupport/DescriptorExhaustion.h>

#include <Kesto/Platform/Libevent.h>
#include <Kesto/Platform/Platform.h>
#include <Kesto/Report/SnapshotShowText.h>
#include <Kesto/Scheduler/TaskSchedulerRoot.h>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

using namespace KestoTest;

namespace {

// Runs one case in a forked child and expects every check to hold. The child
// gives itself a fresh event base (the parent's epoll descriptor must not be
// shared), runs `setup` (which may open what the case needs and drives the
// loop so that the base is complete), takes every descriptor slot up to 20,
// runs `body`, and checks that the process then holds `change` descriptors
// more than before (a report closes the one it was given) and that exactly
// that many slots are free. `body` returns its failed checks as
// bits from 1 << 3 up.
template <typename Setup, typename Body>
void expectInExhaustedChild(Setup&& setup, Body&& body, int change = 0) {
  const int status = statusOfChild([&] {
    int failed = 0;
    leForkReinit();
    auto state = setup();
    driveTurns(2);
    std::vector<int> fillers;
    if (!exhaustDescriptorsAt(20, fillers))
      return 1;
    const int before = descriptorCount();
    failed = body(state);
    driveTurns(5);
    if (descriptorCount() != before + change)
      failed |= 4;
    // Exactly the slots the case gave back are free again, no more.
    std::vector<int> refill;
    for (int i = 0; i < -change; ++i)
      refill.push_back(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    for (int fd : refill)
      if (fd < 0)
        failed |= 2;
    if (!stillOutOfDescriptors())
      failed |= 2;
    return failed;
  });
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
      << (WIFEXITED(status) ? "failed checks (bits): " + std::to_string(WEXITSTATUS(status))
                            : "status " + std::to_string(status));
}

struct CountingTimeout : Platform::TimeoutHandler {
  void timeout() override { ++fired; }
  int fired = 0;
};

} // namespace

TEST(DescriptorExhaustion, DescriptorTaskIsMadeMovedToAnotherDescriptorAndDestroyedWithoutOpeningOne) {
  if (!descriptorExhaustionIsTestable)
    GTEST_SKIP() << descriptorExhaustionSkipReason;
  struct State {
    Ptr<TaskSchedulerRoot> root = TaskSchedulerRoot::TaskSchedulerRootIs("exhausted");
    SocketPair first, second;
  };
  expectInExhaustedChild([] { return std::make_shared<State>(); },
                         [](std::shared_ptr<State>& s) {
                           int failed = 0;
                           auto t = fdTaskIs(s->root, "reader");
                           std::string received;
                           t->onRead = [&](TestFdTask& self) { received += drain(self.taskWatchFd()); };
                           t->taskWatchFdIs(s->first.ours());
                           s->first.sendToOurs("one");
                           if (!driveUntil([&] { return received == "one"; }))
                             failed |= 8;
                           // To another descriptor, with a write watch on it.
                           t->taskWatchFdIs(s->second.ours());
                           t->taskWatchWritableIs(true);
                           t->onWrite = [](TestFdTask& self) { self.taskWatchWritableIs(false); };
                           s->second.sendToOurs("two");
                           if (!driveUntil([&] { return received == "onetwo" && t->writes >= 1; }))
                             failed |= 16;
                           return failed;
                         });
}

TEST(DescriptorExhaustion, TimerTasksOnTheWheelAndLibeventTimersFireWithoutOpeningADescriptor) {
  if (!descriptorExhaustionIsTestable)
    GTEST_SKIP() << descriptorExhaustionSkipReason;
  expectInExhaustedChild([] { return TaskSchedulerRoot::TaskSchedulerRootIs("exhaustedTimers"); },
                         [](Ptr<TaskSchedulerRoot>& root) {
                           int failed = 0;
                           // The first timer task makes the root's wheel, and
                           // with it the wheel's libevent timer: all of it made
                           // with every slot taken.
                           std::vector<Ptr<TestTimerTask>> timers;
                           for (int i = 0; i < 8; ++i) {
                             timers.push_back(timerTaskIs(root, String(fmt::format("t{}", i))));
                             timers.back()->scheduleTaskDelay(0.001 * (i + 1));
                           }
                           CountingTimeout handler;
                           Ptr<Platform::TimerControl> plain = Platform::getTimerControl(&handler);
                           plain->setTimeout(0.002);
                           // The loop waits for the timers themselves, at most
                           // 10 ms a turn, 2 s in all.
                           const auto allFired = [&] {
                             for (const auto& t : timers)
                               if (t->runs == 0)
                                 return false;
                             return handler.fired == 1;
                           };
                           for (int turn = 0; turn < 200 && !allFired(); ++turn)
                             Platform::doEventLoop(0.01);
                           const bool allRan = allFired();
                           if (!allRan)
                             failed |= 8;
                           timers.front()->scheduleTaskDelay(1000.0);
                           plain->setTimeout(1000.0);
                           timers.front()->stopTimerTask();
                           plain->delTimeout();
                           return failed;
                         });
}

TEST(DescriptorExhaustion, ReportToADescriptorIsWrittenWholeAndClosesOnlyThatDescriptor) {
  if (!descriptorExhaustionIsTestable)
    GTEST_SKIP() << descriptorExhaustionSkipReason;
  struct State {
    Ptr<TaskSchedulerRoot> root = TaskSchedulerRoot::TaskSchedulerRootIs("exhaustedReport");
    Ptr<TestFdTask> idle = fdTaskIs(root, "idleTask");
    int reader = -1, writer = -1;
  };
  expectInExhaustedChild(
      [] {
        auto s = std::make_shared<State>();
        int fds[2];
        if (::pipe2(fds, O_CLOEXEC) == 0) {
          s->reader = fds[0];
          s->writer = fds[1];
          ::fcntl(s->reader, F_SETFL, O_NONBLOCK);
        }
        return s;
      },
      [](std::shared_ptr<State>& s) {
        int failed = 0;
        const Ptr<TaskSchedulerSnapshot const> snap =
            s->root->snapshot(String(), true, true, false, String(), TaskScheduler::displayOrderNotSpecified);
        const std::string expected =
            Ptr<SnapshotShowText>(new SnapshotShowText(snap, false, false))->renderToStringWithoutYielding().str();
        int completions = 0;
        s->root->snapshotRenderTextAsync(s->writer, {snap}, false, false, [&] { ++completions; });
        std::string received;
        if (!driveUntil(
                [&] {
                  received += drain(s->reader);
                  return completions == 1;
                },
                5000))
          failed |= 8;
        received += drain(s->reader);
        if (received.empty() || received != expected)
          failed |= 16;
        // The write end was the report's to close.
        if (::fcntl(s->writer, F_GETFD) != -1)
          failed |= 32;
        return failed;
      },
      -1);
}
