// The slab allocator's maintenance tasks. slabAllocatorSchedulerSet keeps its
// tasks in process-wide and thread-local statics that only process and thread
// exit release, so every test runs in a fresh process: the test program run
// again (GoogleTest's "threadsafe" death-test style re-executes it), in which
// the statics start from nothing and the allocator reads its thread mode
// from the environment anew.
#include "RootTestSupport.h"

#include <KestoSupport/PlatformTestSupport.h>

#include <Kesto/Platform/Time.h>
#include <Kesto/Scheduler/SlabAllocatorScheduler.h>
#include <Kesto/Scheduler/TaskSchedulerRoot.h>
#include <Kesto/Scheduler/TimerTask.h>

#include <ZuSlab/ZuSlab.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <thread>
#include <vector>

using namespace KestoTest;

namespace {

const String madviseName("SlabPageMadvise");
const String scannerName("SlabEmptyPageScanner");

class SlabTaskDeathTest : public ::testing::Test {
protected:
  void SetUp() override {
    savedStyle_ = GTEST_FLAG_GET(death_test_style);
    GTEST_FLAG_SET(death_test_style, "threadsafe");
  }
  void TearDown() override { GTEST_FLAG_SET(death_test_style, savedStyle_); }

  // Runs `body` in a fresh process, which exits 0 when no expectation failed
  // there (failures print from the child). The child ends with _Exit, so
  // that what the body leaves behind is not torn down.
  static void expectInFreshProcess(const std::function<void()>& body) {
    EXPECT_EXIT(
        {
          body();
          std::_Exit(::testing::Test::HasFailure() ? 1 : 0);
        },
        ::testing::ExitedWithCode(0), "");
  }

private:
  std::string savedStyle_;
};

TimerTask* timerTaskNamed(TaskScheduler& scheduler, const String& name) {
  Ptr<TaskImpl> task = scheduler.taskForTest(name);
  return dynamic_cast<TimerTask*>(task.get());
}

TEST_F(SlabTaskDeathTest, FirstCallMakesTheMadviseTaskAndTheThreadsScannerAtScavengeDueIn60To75Seconds) {
  expectInFreshProcess([] {
    ASSERT_EQ(2, ZuSlab::slabAllocatorThreadMode());
    Ptr<TaskSchedulerRoot> root = schedulerRootKesto();
    const double before = Kesto::time();
    slabAllocatorSchedulerSet(root, true);
    const double after = Kesto::time();
    for (const String& name : {madviseName, scannerName}) {
      SCOPED_TRACE(std::string(name.view()));
      TimerTask* task = timerTaskNamed(*root, name);
      ASSERT_NE(nullptr, task);
      EXPECT_EQ(TaskPriority::scavenge, task->taskPriority());
      EXPECT_TRUE(task->timerRunning());
      EXPECT_FALSE(task->onRunQueue());
      EXPECT_EQ(0u, task->taskRunCount());
      const double expiry = task->currentExpirationTime();
      EXPECT_GE(expiry, before + 60.0);
      EXPECT_LE(expiry, after + 75.0);
    }
  });
}

TEST_F(SlabTaskDeathTest, FirstRunComesBetween60And75SecondsOfVirtualTime) {
  expectInFreshProcess([] {
    FastForwardOn ff;
    Ptr<TaskSchedulerRoot> root = schedulerRootKesto();
    const double start = Kesto::time();
    slabAllocatorSchedulerSet(root, false);
    TimerTask* madvise = timerTaskNamed(*root, madviseName);
    TimerTask* scanner = timerTaskNamed(*root, scannerName);
    ASSERT_NE(nullptr, madvise);
    ASSERT_NE(nullptr, scanner);
    Platform::doEventLoop(59.0);
    EXPECT_EQ(0u, madvise->taskRunCount());
    EXPECT_EQ(0u, scanner->taskRunCount());
    while (Kesto::time() < start + 75.5 && (madvise->taskRunCount() == 0 || scanner->taskRunCount() == 0))
      Platform::doEventLoop(0.5);
    EXPECT_EQ(1u, madvise->taskRunCount());
    EXPECT_EQ(1u, scanner->taskRunCount());
    // After a run with nothing more pending: again 60 to 75 seconds later.
    for (TimerTask* task : {madvise, scanner}) {
      const TaskStat stat = task->getStats();
      if (task->onRunQueue())
        continue; // more was pending: it runs again at once
      EXPECT_TRUE(task->timerRunning());
      EXPECT_GE(task->currentExpirationTime(), Kesto::time() + 60.0 - 0.5);
      EXPECT_LE(task->currentExpirationTime(), Kesto::time() + 75.0);
      (void)stat;
    }
  });
}

TEST_F(SlabTaskDeathTest, MaintenanceGivesFreedSlabPagesBackAndCountsItsWork) {
  expectInFreshProcess([] {
    FastForwardOn ff;
    Ptr<TaskSchedulerRoot> root = schedulerRootKesto();
    // Some 4 MB of 256-byte blocks on this thread's heap, all freed: whole
    // pages that only the scanner finds and only madvise gives back.
    std::vector<void*> blocks(16384);
    for (void*& p : blocks)
      p = ZuSlab::slabAllocOrStdMalloc(256);
    for (void* p : blocks)
      ZuSlab::slabFreeOrStdFree(p);
    const std::size_t returnedBefore = ZuSlab::slabStats().pagesReturned;
    slabAllocatorSchedulerSet(root, true);
    // Two rounds of each: the scanner's pages are handed back by the
    // madvise run that follows it.
    Platform::doEventLoop(160.0);
    TimerTask* madvise = timerTaskNamed(*root, madviseName);
    TimerTask* scanner = timerTaskNamed(*root, scannerName);
    ASSERT_NE(nullptr, madvise);
    ASSERT_NE(nullptr, scanner);
    EXPECT_GE(madvise->taskRunCount(), 2u);
    EXPECT_GE(scanner->taskRunCount(), 2u);
    EXPECT_GT(ZuSlab::slabStats().pagesReturned, returnedBefore);
    // The work each function reported went into its task's work count.
    EXPECT_GT(scanner->getStats().taskWorkCountTotal(), 0u);
    EXPECT_GT(madvise->getStats().taskWorkCountTotal(), 0u);
  });
}

TEST_F(SlabTaskDeathTest, SecondCallFromTheSameThreadHasNoEffect) {
  expectInFreshProcess([] {
    Ptr<TaskSchedulerRoot> first = schedulerRootKesto();
    slabAllocatorSchedulerSet(first, true);
    Ptr<TaskImpl> madvise = first->taskForTest(madviseName);
    Ptr<TaskImpl> scanner = first->taskForTest(scannerName);
    ASSERT_NE(nullptr, madvise.get());
    ASSERT_NE(nullptr, scanner.get());
    const std::size_t registered = first->registeredTaskCount();
    Ptr<TaskSchedulerRoot> second = schedulerRootKestoNonShared("secondScheduler");
    slabAllocatorSchedulerSet(second, false);
    slabAllocatorSchedulerSet(first, false);
    EXPECT_EQ(0u, second->registeredTaskCount());
    EXPECT_EQ(registered, first->registeredTaskCount());
    EXPECT_EQ(madvise.get(), first->taskForTest(madviseName).get());
    EXPECT_EQ(scanner.get(), first->taskForTest(scannerName).get());
  });
}

TEST_F(SlabTaskDeathTest, AnotherThreadInPerThreadModeGetsItsOwnScannerAndNoSecondMadviseTask) {
  expectInFreshProcess([] {
    ASSERT_EQ(2, ZuSlab::slabAllocatorThreadMode());
    Ptr<TaskSchedulerRoot> mainRoot = schedulerRootKesto();
    slabAllocatorSchedulerSet(mainRoot, true);
    TaskImpl* mainScanner = mainRoot->taskForTest(scannerName).get();
    ASSERT_NE(nullptr, mainScanner);
    // Held beyond the thread, so that its lists can be read after the
    // thread's exit; never destroyed (the child ends with _Exit).
    auto* threadRoot = new Ptr<TaskSchedulerRoot>();
    TaskImpl* threadScanner = nullptr;
    bool threadHasMadvise = true;
    TaskPriority threadScannerPriority = TaskPriority::critical;
    std::size_t registeredAfterFirst = 0;
    std::size_t registeredAfterSecond = 0;
    std::thread([&] {
      *threadRoot = schedulerRootKesto();
      slabAllocatorSchedulerSet(*threadRoot, false);
      threadScanner = (*threadRoot)->taskForTest(scannerName).get();
      threadHasMadvise = (*threadRoot)->taskForTest(madviseName).get() != nullptr;
      if (threadScanner)
        threadScannerPriority = threadScanner->taskPriority();
      registeredAfterFirst = (*threadRoot)->registeredTaskCount();
      slabAllocatorSchedulerSet(*threadRoot, true);
      registeredAfterSecond = (*threadRoot)->registeredTaskCount();
    }).join();
    ASSERT_NE(nullptr, threadScanner);
    EXPECT_NE(mainScanner, threadScanner);
    EXPECT_EQ(TaskPriority::scavenge, threadScannerPriority);
    EXPECT_FALSE(threadHasMadvise);
    EXPECT_EQ(1u, registeredAfterFirst);
    EXPECT_EQ(1u, registeredAfterSecond);
    // The main thread's tasks are untouched.
    EXPECT_EQ(mainScanner, mainRoot->taskForTest(scannerName).get());
    EXPECT_NE(nullptr, mainRoot->taskForTest(madviseName).get());
    // The thread's scanner went with the thread.
    EXPECT_EQ(nullptr, (*threadRoot)->taskForTest(scannerName).get());
  });
}

TEST_F(SlabTaskDeathTest, SharedModeHasOneScannerForTheWholeProcess) {
  // The allocator reads its mode once, when it is loaded: the child gets it
  // from its environment.
  setenv("ZUSLAB_THREAD_MODE", "1", 1);
  expectInFreshProcess([] {
    ASSERT_EQ(1, ZuSlab::slabAllocatorThreadMode());
    Ptr<TaskSchedulerRoot> mainRoot = schedulerRootKesto();
    slabAllocatorSchedulerSet(mainRoot, true);
    EXPECT_NE(nullptr, mainRoot->taskForTest(scannerName).get());
    EXPECT_NE(nullptr, mainRoot->taskForTest(madviseName).get());
    std::size_t threadRegistered = 99;
    std::thread([&] {
      Ptr<TaskSchedulerRoot> root = schedulerRootKestoNonShared("threadScheduler");
      slabAllocatorSchedulerSet(root, true);
      threadRegistered = root->registeredTaskCount();
    }).join();
    EXPECT_EQ(0u, threadRegistered);
  });
  unsetenv("ZUSLAB_THREAD_MODE");
}

TEST_F(SlabTaskDeathTest, TasksAreReleasedAtProcessExit) {
  // An ordinary exit runs the thread-local and static destructors: the
  // scanner's and then the madvise task's stop their timers on the wheel of
  // the scheduler they hold, and the process ends cleanly.
  EXPECT_EXIT(
      {
        slabAllocatorSchedulerSet(schedulerRootKesto(), true);
        std::exit(0);
      },
      ::testing::ExitedWithCode(0), "");
}

} // namespace
