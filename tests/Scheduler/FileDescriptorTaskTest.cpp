#include "FdTaskTestSupport.h"

#include <Kesto/Platform/LibeventControls.h>

#include <event2/event.h>

#include <fcntl.h>

#include <stdexcept>
#include <thread>

using namespace KestoTest;

namespace {

Ptr<TaskSchedulerRoot> rootIs(const char* name = "fdRoot") { return TaskSchedulerRoot::TaskSchedulerRootIs(name); }

// Events of one type recorded for `identifier` in the root's history.
unsigned eventCount(const TaskSchedulerRoot& root, TaskSchedulerEventType type, const String& identifier) {
  unsigned n = 0;
  for (const TaskSchedulerHistory::Event& e : *root.taskSchedulerHistory())
    n += e.eventType == type && e.identifier == identifier;
  return n;
}

std::string text(const String& s) { return std::string(s.view()); }

LibeventFdControl& leControl(const FileDescriptorTask& t) {
  auto* control = dynamic_cast<LibeventFdControl*>(t.fdControl().get());
  if (!control)
    throw std::logic_error("not a libevent control");
  return *control;
}

// The text of the AssertException that escapes the event loop while it is
// driven for a few turns; "" when none does.
std::string loopAssertText(int turns = 50) {
  QuietAsserts quiet;
  try {
    driveTurns(turns);
  } catch (const AssertException& e) {
    return e.what();
  }
  return {};
}

} // namespace

// --- a new task -----------------------------------------------------------------

TEST(FileDescriptorTask, NewTaskWatchesReadsOnlyWithNoDescriptorAndNoWriteTask) {
  auto root = rootIs();
  auto t = fdTaskIs(root, "fresh");
  EXPECT_TRUE(t->taskWatchReadable());
  EXPECT_FALSE(t->taskWatchWritable());
  EXPECT_EQ(-1, t->taskWatchFd());
  EXPECT_FALSE(t->writeTask());
  ASSERT_TRUE(t->readTask());
  EXPECT_EQ(0u, t->taskWorkCountWritableTotal());
  EXPECT_EQ(0u, t->taskWorkCountWritableHighWaterMark());
  EXPECT_EQ(0.0f, t->taskWorkCountWritableDecayAvg());
  EXPECT_EQ(0u, t->taskWorkPendingWritable());
  EXPECT_EQ(0u, t->taskWorkPendingWritableHighWaterMark());
  EXPECT_EQ(0u, t->taskRunCountWritable());
  EXPECT_FALSE(t->taskCurrentlyRunningWritable());
  EXPECT_FALSE(t->taskScheduledWritable());
  EXPECT_FALSE(t->taskScheduled());
  EXPECT_EQ(nullptr, t->executingTask());
  // Only the read task is known to the scheduler.
  EXPECT_EQ(1u, root->registeredTaskCount());
  EXPECT_EQ("fresh:read", text(t->readTask()->taskName()));
  EXPECT_EQ("fresh:read", text(t->readTask()->taskStatsName()));
  EXPECT_TRUE(root->taskForTest("fresh:read"));
  EXPECT_FALSE(root->taskForTest("fresh:write"));
  EXPECT_FALSE(root->taskForTest("fresh"));
  EXPECT_EQ(t.get(), t->readTask()->owner());
  EXPECT_EQ(TaskPriority::normal, t->readTask()->taskPriority());
  // The control is the libevent one with the task as its handler.
  EXPECT_TRUE(leControl(*t).reads());
  EXPECT_FALSE(leControl(*t).writes());
}

TEST(FileDescriptorTask, BothConstructorsTakeTheSchedulerPriorityAndName) {
  auto root = rootIs();
  Ptr<TestFdTask> fromRaw(new TestFdTask(Ptr<TaskScheduler>(root.get()), TaskPriority::high, "raw"));
  auto fromPtr = fdTaskIs(root, "ptr", TaskPriority::low);
  EXPECT_EQ(root.get(), fromRaw->taskSchedulerPtr());
  EXPECT_EQ(TaskPriority::high, fromRaw->taskPriority());
  EXPECT_EQ(TaskPriority::high, fromRaw->readTask()->taskPriority());
  EXPECT_EQ(TaskPriority::low, fromPtr->readTask()->taskPriority());
  EXPECT_EQ(root.get(), fromPtr->readTask()->taskSchedulerPtr());
}

// A class that uses the constructor taking a plain scheduler pointer.
class RawSchedulerFdTask : public FileDescriptorTask {
public:
  explicit RawSchedulerFdTask(TaskScheduler* s) : FileDescriptorTask(s, TaskPriority::low, "rawPointer") {}
  void taskExecuteReadable() override {}
  void taskExecuteWritable() override {}
  static void operator delete(void* p) { ::operator delete(p); }
};

TEST(FileDescriptorTask, PlainSchedulerPointerConstructorHoldsTheScheduler) {
  auto root = rootIs();
  const unsigned before = root->refCount();
  {
    Ptr<RawSchedulerFdTask> t(new RawSchedulerFdTask(root.get()));
    EXPECT_GT(root->refCount(), before);
    EXPECT_EQ(TaskPriority::low, t->readTask()->taskPriority());
    EXPECT_EQ("rawPointer:read", text(t->readTask()->taskName()));
  }
  EXPECT_EQ(before, root->refCount());
}

TEST(FileDescriptorTask, WritableWorkCountersBeforeAnyWriteWatchAssert) {
  auto root = rootIs();
  auto t = fdTaskIs(root, "counters");
  const std::string message = assertText([&] { t->taskWorkCountWritableInc(1); });
  EXPECT_TRUE(contains(message, "WriteTask not created by taskWatchWritableIs( true )")) << message;
  EXPECT_TRUE(contains(message, "FileDescriptorTask::")) << message;
  EXPECT_TRUE(contains(assertText([&] { t->taskWorkPendingWritableIs(1); }),
                       "WriteTask not created by taskWatchWritableIs( true )"));
  EXPECT_FALSE(t->writeTask());
  t->taskWorkCountReadableInc(1);
  EXPECT_EQ(1u, t->taskWorkCountReadableTotal());
  EXPECT_EQ(1u, t->taskWorkCountReadableHighWaterMark());
  // Once the write task exists the write side counts.
  t->taskWatchWritableIs(true);
  t->taskWorkCountWritableInc(4);
  t->taskWorkPendingWritableIs(6);
  EXPECT_EQ(4u, t->taskWorkCountWritableTotal());
  EXPECT_EQ(4.0f, t->taskWorkCountWritableDecayAvg());
  EXPECT_EQ(4u, t->taskWorkCountWritableHighWaterMark());
  EXPECT_EQ(6u, t->taskWorkPendingWritable());
  EXPECT_EQ(6u, t->taskWorkPendingWritableHighWaterMark());
  EXPECT_EQ(1u, t->taskWorkCountReadableTotal());
}

TEST(FileDescriptorTask, WatchWritableOffOnANewTaskMakesNoWriteTask) {
  auto root = rootIs();
  auto t = fdTaskIs(root, "readOnly");
  t->taskWatchWritableIs(false);
  EXPECT_FALSE(t->writeTask());
  EXPECT_EQ(1u, root->registeredTaskCount());
  t->taskWatchWritableIs(true);
  ASSERT_TRUE(t->writeTask());
  EXPECT_EQ("readOnly:write", text(t->writeTask()->taskName()));
  EXPECT_EQ(2u, root->registeredTaskCount());
  EXPECT_TRUE(root->taskForTest("readOnly:write"));
}

// --- readiness through the loop ---------------------------------------------------------

TEST(FileDescriptorTask, ReadableDescriptorRunsTheReadTaskFromTheRunQueue) {
  auto root = rootIs();
  SocketPair sockets;
  auto t = fdTaskIs(root, "reader");
  std::string received;
  bool sawSelfRunning = false;
  t->onRead = [&](TestFdTask& self) {
    sawSelfRunning = self.executingTask() == self.readTask().get() && self.taskCurrentlyRunningReadable() &&
                     root->currentlyRunningTask().get() == self.readTask().get();
    received += drain(self.taskWatchFd());
  };
  t->taskWatchFdIs(sockets.ours());
  EXPECT_EQ(sockets.ours(), t->taskWatchFd());
  EXPECT_NE(0, fcntl(sockets.ours(), F_GETFL) & O_NONBLOCK);
  sockets.sendToOurs("hello");
  ASSERT_TRUE(driveUntil([&] { return t->reads == 1; }));
  EXPECT_EQ("hello", received);
  EXPECT_TRUE(sawSelfRunning);
  EXPECT_EQ(nullptr, t->executingTask());
  EXPECT_EQ(1u, t->taskRunCountReadable());
  EXPECT_EQ(1u, t->taskRunCount());
  EXPECT_EQ(0u, t->writes);
  EXPECT_FALSE(t->writeTask());
  // The event may fire again while the task waits on the queue: that adds
  // history only.
  EXPECT_GE(eventCount(*root, TaskSchedulerEventType::fdReadable, t->taskHistoryIdentifier()), 1u);
  EXPECT_EQ(1u, eventCount(*root, TaskSchedulerEventType::schedule, t->readTask()->taskHistoryIdentifier()));
  EXPECT_EQ(1u, eventCount(*root, TaskSchedulerEventType::runStart, t->readTask()->taskHistoryIdentifier()));
  // Drained: no further run however long the loop turns.
  driveTurns(20);
  EXPECT_EQ(1u, t->reads);
  sockets.sendToOurs("again");
  ASSERT_TRUE(driveUntil([&] { return t->reads == 2; }));
  EXPECT_EQ("helloagain", received);
}

TEST(FileDescriptorTask, ReadWatchStaysOnAndALevelTriggeredDescriptorQueuesTheTaskAgain) {
  auto root = rootIs();
  SocketPair sockets;
  auto t = fdTaskIs(root, "byteAtATime");
  std::string received;
  t->onRead = [&](TestFdTask& self) {
    char c;
    if (::read(self.taskWatchFd(), &c, 1) == 1)
      received += c;
    EXPECT_TRUE(self.taskWatchReadable());
  };
  t->taskWatchFdIs(sockets.ours());
  sockets.sendToOurs("abcd");
  ASSERT_TRUE(driveUntil([&] { return received == "abcd"; }));
  EXPECT_GE(t->reads, 4u);
  EXPECT_TRUE(t->taskWatchReadable());
}

TEST(FileDescriptorTask, ReadEventOnAQueuedTaskOnlyAddsTheHistoryEntry) {
  auto root = rootIs();
  SocketPair sockets;
  auto t = fdTaskIs(root, "queued");
  t->taskWatchFdIs(sockets.ours());
  t->scheduleTaskReadable();
  ASSERT_TRUE(t->taskScheduledReadable());
  const U64 enqueued = root->taskRunQueue(TaskPriority::normal).runnableTasks();
  t->readFdEvent(sockets.ours());
  t->readFdEvent(sockets.ours());
  EXPECT_EQ(enqueued, root->taskRunQueue(TaskPriority::normal).runnableTasks());
  EXPECT_EQ(2u, eventCount(*root, TaskSchedulerEventType::fdReadable, t->taskHistoryIdentifier()));
  EXPECT_EQ(1u, eventCount(*root, TaskSchedulerEventType::schedule, t->readTask()->taskHistoryIdentifier()));
  ASSERT_TRUE(driveUntil([&] { return t->reads == 1; }));
  driveTurns(10);
  EXPECT_EQ(1u, t->reads);
}

TEST(FileDescriptorTask, WriteNotificationClearsTheWriteWatchBeforeTheRun) {
  auto root = rootIs();
  SocketPair sockets;
  auto t = fdTaskIs(root, "writer");
  bool watchInside = true;
  bool executingIsWriteTask = false;
  t->onWrite = [&](TestFdTask& self) {
    watchInside = self.taskWatchWritable();
    executingIsWriteTask = self.executingTask() == self.writeTask().get();
    EXPECT_TRUE(self.taskCurrentlyRunningWritable());
    EXPECT_EQ(1, ::write(self.taskWatchFd(), "w", 1));
  };
  t->taskWatchFdIs(sockets.ours());
  t->taskWatchWritableIs(true);
  EXPECT_TRUE(leControl(*t).writePending());
  ASSERT_TRUE(driveUntil([&] { return t->writes == 1; }));
  EXPECT_FALSE(watchInside);
  EXPECT_TRUE(executingIsWriteTask);
  EXPECT_FALSE(t->taskWatchWritable());
  EXPECT_FALSE(leControl(*t).writePending());
  EXPECT_EQ(1u, eventCount(*root, TaskSchedulerEventType::fdWritable, t->taskHistoryIdentifier()));
  // One-shot: the socket stays writable, yet nothing runs again.
  driveTurns(20);
  EXPECT_EQ(1u, t->writes);
  EXPECT_EQ("w", peerReceived(sockets));
  EXPECT_EQ(1u, t->taskRunCountWritable());
  EXPECT_EQ(1u, t->taskRunCount());
}

TEST(FileDescriptorTask, AskingAgainFromInsideTheWriteRunGivesOneMoreRun) {
  auto root = rootIs();
  SocketPair sockets;
  auto t = fdTaskIs(root, "chunks");
  t->onWrite = [&](TestFdTask& self) {
    EXPECT_EQ(1, ::write(self.taskWatchFd(), "c", 1));
    if (self.writes < 3)
      self.taskWatchWritableIs(true);
  };
  t->taskWatchFdIs(sockets.ours());
  t->taskWatchWritableIs(true);
  ASSERT_TRUE(driveUntil([&] { return t->writes == 3; }));
  driveTurns(20);
  EXPECT_EQ(3u, t->writes);
  EXPECT_EQ("ccc", peerReceived(sockets));
  EXPECT_EQ(3u, eventCount(*root, TaskSchedulerEventType::fdWritable, t->taskHistoryIdentifier()));
}

TEST(FileDescriptorTask, WriteEventQueuesTheWriteTask) {
  auto root = rootIs();
  SocketPair sockets;
  auto t = fdTaskIs(root, "lateWriter");
  t->taskWatchFdIs(sockets.ours());
  t->taskWatchWritableIs(true);
  ASSERT_TRUE(t->writeTask());
  t->writeFdEvent(sockets.ours());
  EXPECT_TRUE(t->taskScheduledWritable());
  EXPECT_TRUE(t->taskScheduled());
  ASSERT_TRUE(driveUntil([&] { return t->writes == 1; }));
}

// --- scheduling by hand ---------------------------------------------------------------------

TEST(FileDescriptorTask, ScheduleTaskReadableWithTheReadWatchOffAssertsWhenTheTaskRuns) {
  auto root = rootIs();
  auto t = fdTaskIs(root, "unwatched");
  t->taskWatchReadableIs(false);
  EXPECT_FALSE(leControl(*t).reads());
  t->scheduleTaskReadable();
  EXPECT_TRUE(t->taskScheduledReadable());
  const std::string message = loopAssertText();
  EXPECT_TRUE(contains(message, "FileDescriptorTask::_taskExecuteReadable() ReadTask should only run if "
                                "taskWatchReadable"))
      << message;
  EXPECT_EQ(0u, t->reads);
  EXPECT_EQ(nullptr, t->executingTask());
  root->requestSchedulerRun();
}

TEST(FileDescriptorTask, ScheduleTaskWritableWithTheWriteWatchOffRunsTheWriteTask) {
  auto root = rootIs();
  auto t = fdTaskIs(root, "pushed");
  EXPECT_FALSE(t->taskWatchWritable());
  t->scheduleTaskWritable();
  ASSERT_TRUE(t->writeTask());
  EXPECT_TRUE(t->taskScheduledWritable());
  EXPECT_FALSE(t->taskScheduledReadable());
  bool watchInside = true;
  t->onWrite = [&](TestFdTask& self) { watchInside = self.taskWatchWritable(); };
  ASSERT_TRUE(driveUntil([&] { return t->writes == 1; }));
  EXPECT_FALSE(watchInside);
  EXPECT_EQ(0u, t->reads);
  EXPECT_EQ(1u, t->taskRunCountWritable());
}

TEST(FileDescriptorTask, ScheduleTaskReadableRunsWithoutAnEvent) {
  auto root = rootIs();
  auto t = fdTaskIs(root, "nudged");
  t->scheduleTaskReadable();
  ASSERT_TRUE(driveUntil([&] { return t->reads == 1; }));
  EXPECT_EQ(0u, eventCount(*root, TaskSchedulerEventType::fdReadable, t->taskHistoryIdentifier()));
}

// --- changing the descriptor -------------------------------------------------------------------

TEST(FileDescriptorTask, WatchingTheSameDescriptorAgainLeavesAQueuedRunInPlace) {
  auto root = rootIs();
  SocketPair sockets;
  auto t = fdTaskIs(root, "same");
  t->taskWatchFdIs(sockets.ours());
  t->scheduleTaskReadable();
  t->scheduleTaskWritable();
  t->taskWatchFdIs(sockets.ours());
  EXPECT_TRUE(t->taskScheduledReadable());
  EXPECT_TRUE(t->taskScheduledWritable());
  EXPECT_EQ(sockets.ours(), t->taskWatchFd());
}

TEST(FileDescriptorTask, WatchingAnotherDescriptorWithdrawsQueuedRuns) {
  auto root = rootIs();
  SocketPair first;
  SocketPair second;
  auto t = fdTaskIs(root, "moved");
  t->taskWatchFdIs(first.ours());
  t->scheduleTaskReadable();
  t->scheduleTaskWritable();
  t->taskWatchFdIs(second.ours());
  EXPECT_FALSE(t->taskScheduledReadable());
  EXPECT_FALSE(t->taskScheduledWritable());
  EXPECT_EQ(second.ours(), t->taskWatchFd());
  // The watch follows: the old descriptor is quiet, the new one is served.
  first.sendToOurs("old");
  driveTurns(20);
  EXPECT_EQ(0u, t->reads);
  t->onRead = [](TestFdTask& self) { drain(self.taskWatchFd()); };
  second.sendToOurs("new");
  ASSERT_TRUE(driveUntil([&] { return t->reads == 1; }));
}

TEST(FileDescriptorTask, WatchFdDelWithdrawsRunsAndKeepsTheFlags) {
  auto root = rootIs();
  SocketPair sockets;
  auto t = fdTaskIs(root, "deleted");
  t->taskWatchFdIs(sockets.ours());
  t->taskWatchWritableIs(true);
  t->scheduleTaskReadable();
  t->scheduleTaskWritable();
  t->taskWatchFdDel();
  EXPECT_EQ(-1, t->taskWatchFd());
  EXPECT_FALSE(t->taskScheduled());
  EXPECT_TRUE(t->taskWatchReadable());
  EXPECT_TRUE(t->taskWatchWritable());
  sockets.sendToOurs("ignored");
  driveTurns(20);
  EXPECT_EQ(0u, t->reads);
  EXPECT_EQ(0u, t->writes);
}

TEST(FileDescriptorTask, TurningTheReadWatchOffWithdrawsAQueuedReadableRun) {
  auto root = rootIs();
  SocketPair sockets;
  auto t = fdTaskIs(root, "readOff");
  t->taskWatchFdIs(sockets.ours());
  t->scheduleTaskReadable();
  t->taskWatchReadableIs(false);
  EXPECT_FALSE(t->taskScheduledReadable());
  EXPECT_FALSE(leControl(*t).readPending());
  sockets.sendToOurs("x");
  driveTurns(20);
  EXPECT_EQ(0u, t->reads);
  t->onRead = [](TestFdTask& self) { drain(self.taskWatchFd()); };
  t->taskWatchReadableIs(true);
  ASSERT_TRUE(driveUntil([&] { return t->reads == 1; }));
}

TEST(FileDescriptorTask, TurningTheWriteWatchOffWithdrawsAQueuedWritableRun) {
  auto root = rootIs();
  SocketPair sockets;
  auto t = fdTaskIs(root, "writeOff");
  t->taskWatchFdIs(sockets.ours());
  t->taskWatchWritableIs(true);
  t->scheduleTaskWritable();
  t->taskWatchWritableIs(false);
  EXPECT_FALSE(t->taskScheduledWritable());
  EXPECT_FALSE(leControl(*t).writePending());
  driveTurns(20);
  EXPECT_EQ(0u, t->writes);
}

// --- work statistics -----------------------------------------------------------------------------

TEST(FileDescriptorTask, WorkCountTenThenZeroDecaysToNineAndKeepsTheMark) {
  auto root = rootIs();
  auto t = fdTaskIs(root, "decay");
  t->taskWorkCountReadableInc(10);
  EXPECT_EQ(10.0f, t->taskWorkCountReadableDecayAvg());
  EXPECT_EQ(10u, t->taskWorkCountReadableHighWaterMark());
  t->taskWorkCountReadableInc(0);
  EXPECT_EQ(9.0f, t->taskWorkCountReadableDecayAvg());
  EXPECT_EQ(10u, t->taskWorkCountReadableHighWaterMark());
  EXPECT_EQ(10u, t->taskWorkCountReadableTotal());
  t->taskWorkCountReadableInc(20);
  EXPECT_FLOAT_EQ((9.0f * 9.0f + 20.0f) / 10.0f, t->taskWorkCountReadableDecayAvg());
  EXPECT_EQ(20u, t->taskWorkCountReadableHighWaterMark());
  EXPECT_EQ(30u, t->taskWorkCountReadableTotal());
}

TEST(FileDescriptorTask, WorkCountZeroAsFirstSampleSetsTheMarkToZero) {
  auto root = rootIs();
  auto t = fdTaskIs(root, "zeroFirst");
  EXPECT_EQ(TaskStat::noValue, t->taskWorkCountReadableHighWaterMark());
  t->taskWorkCountReadableInc(0);
  EXPECT_EQ(0.0f, t->taskWorkCountReadableDecayAvg());
  EXPECT_EQ(0u, t->taskWorkCountReadableHighWaterMark());
  EXPECT_EQ(0u, t->taskWorkCountReadableTotal());
}

TEST(FileDescriptorTask, WorkPendingOfAllOnesReadsBackButMarksOneBelow) {
  auto root = rootIs();
  auto t = fdTaskIs(root, "pending");
  EXPECT_EQ(TaskStat::noValue, t->taskWorkPendingReadableHighWaterMark());
  t->taskWorkPendingReadableIs(0xFFFFFFFFu);
  EXPECT_EQ(0xFFFFFFFFu, t->taskWorkPendingReadable());
  EXPECT_EQ(0xFFFFFFFEu, t->taskWorkPendingReadableHighWaterMark());
  t->taskWorkPendingReadableIs(3);
  EXPECT_EQ(3u, t->taskWorkPendingReadable());
  EXPECT_EQ(0xFFFFFFFEu, t->taskWorkPendingReadableHighWaterMark());
}

TEST(FileDescriptorTask, WorkPendingZeroAsFirstSampleSetsTheMarkToZero) {
  auto root = rootIs();
  auto t = fdTaskIs(root, "pendingZero");
  t->taskWorkPendingReadableIs(0);
  EXPECT_EQ(0u, t->taskWorkPendingReadableHighWaterMark());
  t->taskWorkPendingReadableIs(7);
  t->taskWorkPendingReadableIs(2);
  EXPECT_EQ(2u, t->taskWorkPendingReadable());
  EXPECT_EQ(7u, t->taskWorkPendingReadableHighWaterMark());
}

TEST(FileDescriptorTask, WideWorkCountIsComparedInFullAndMarkedInItsLowBits) {
  auto root = rootIs();
  auto t = fdTaskIs(root, "wide");
  t->taskWorkCountReadableInc(10);
  // Larger than the mark in 64 bits; stored truncated.
  t->taskWorkCountReadableInc(0x100000005ul);
  EXPECT_EQ(5u, t->taskWorkCountReadableHighWaterMark());
  EXPECT_EQ(10u + 0x100000005ul, t->taskWorkCountReadableTotal());
  // Low bits all ones: one below, never "no value".
  t->taskWorkCountReadableInc(0x1FFFFFFFFul);
  EXPECT_EQ(0xFFFFFFFEu, t->taskWorkCountReadableHighWaterMark());
  // A first sample of all ones is a value too.
  auto u = fdTaskIs(root, "wideFirst");
  u->taskWorkCountReadableInc(0xFFFFFFFFul);
  EXPECT_EQ(0xFFFFFFFEu, u->taskWorkCountReadableHighWaterMark());
  EXPECT_EQ(float(0xFFFFFFFFul), u->taskWorkCountReadableDecayAvg());
}

TEST(FileDescriptorTask, WorkCountersInsideARunGoToTheDirectionThatRuns) {
  auto root = rootIs();
  auto t = fdTaskIs(root, "perDirection");
  t->onRead = [](TestFdTask& self) {
    self.taskWorkCountInc(3);
    self.taskWorkPendingIs(8);
  };
  t->onWrite = [](TestFdTask& self) {
    self.taskWorkCountInc(5);
    self.taskWorkPendingIs(1);
  };
  t->scheduleTaskReadable();
  ASSERT_TRUE(driveUntil([&] { return t->reads == 1; }));
  EXPECT_EQ(3u, t->taskWorkCountReadableTotal());
  EXPECT_EQ(8u, t->taskWorkPendingReadable());
  EXPECT_EQ(0u, t->taskWorkCountWritableTotal());
  t->scheduleTaskWritable();
  ASSERT_TRUE(driveUntil([&] { return t->writes == 1; }));
  EXPECT_EQ(5u, t->taskWorkCountWritableTotal());
  EXPECT_EQ(1u, t->taskWorkPendingWritable());
  EXPECT_EQ(3u, t->taskWorkCountReadableTotal());
  EXPECT_EQ(8u, t->taskWorkPendingReadable());
  // A non-zero backlog schedules nothing.
  driveTurns(20);
  EXPECT_EQ(1u, t->reads);
  EXPECT_EQ(1u, t->writes);
}

TEST(FileDescriptorTask, ShouldYieldInsideARunAnswersForTheRunningTask) {
  auto root = rootIs();
  auto t = fdTaskIs(root, "yielder");
  t->scheduleTaskWritable();
  // Ratios make the answers independent of the clock: the write task yields
  // at every second call, the read task at every call.
  t->writeTask()->testYieldRatioStepIs(2);
  t->readTask()->testYieldRatioStepIs(1);
  std::vector<bool> answers;
  t->onRead = [&](TestFdTask& self) { answers.push_back(self.taskShouldYield()); };
  t->onWrite = [&](TestFdTask& self) { answers.push_back(self.taskShouldYield()); };
  t->scheduleTaskReadable();
  ASSERT_TRUE(driveUntil([&] { return t->reads == 1 && t->writes == 1; }));
  ASSERT_EQ(2u, answers.size());
  // Order of the two runs follows the queue: the write task was queued first.
  EXPECT_FALSE(answers[0]);  // write task, first call of two
  EXPECT_TRUE(answers[1]);   // read task
}

// --- dropping the owner ----------------------------------------------------------------------------

TEST(FileDescriptorTask, DroppingTheOwnerTakesAQueuedReadTaskOffTheQueue) {
  auto root = rootIs();
  auto t = fdTaskIs(root, "dropped");
  t->scheduleTaskReadable();
  t->scheduleTaskWritable();
  EXPECT_EQ(2u, root->runnableTaskCount(TaskPriority::normal));
  EXPECT_EQ(2u, root->registeredTaskCount());
  t = nullptr;
  EXPECT_EQ(0u, root->runnableTaskCount(TaskPriority::normal));
  EXPECT_EQ(0u, root->registeredTaskCount());
  EXPECT_FALSE(root->taskForTest("dropped:read"));
  // The empty pass ends the chain.
  driveTurns(5);
}

TEST(FileDescriptorTask, AReadTaskHeldElsewhereRunsAsANoOpAfterTheOwnerIsGone) {
  auto root = rootIs();
  SocketPair sockets;
  unsigned bodyRuns = 0;
  auto t = fdTaskIs(root, "orphan");
  t->onRead = [&](TestFdTask&) { ++bodyRuns; };
  t->taskWatchFdIs(sockets.ours());
  Ptr<FileDescriptorTask::ReadTask> held = t->readTask();
  Ptr<FileDescriptorTask::WriteTask> heldWrite;
  t->scheduleTaskWritable();
  heldWrite = t->writeTask();
  t->scheduleTaskReadable();
  t = nullptr;
  EXPECT_EQ(nullptr, held->owner());
  EXPECT_EQ(nullptr, heldWrite->owner());
  // Still queued, since it still exists; the descriptor watch is gone.
  EXPECT_TRUE(held->taskScheduled());
  sockets.sendToOurs("nobody listens");
  ASSERT_TRUE(driveUntil([&] { return held->taskRunCount() == 1 && heldWrite->taskRunCount() == 1; }));
  EXPECT_EQ(0u, bodyRuns);
  held->scheduleTask();
  ASSERT_TRUE(driveUntil([&] { return held->taskRunCount() == 2; }));
  EXPECT_EQ(0u, bodyRuns);
  // Busy changes and resets of an orphan reach nobody.
  held->handleTaskBusy();
  held->handleResetStats();
}

TEST(FileDescriptorTask, UserCodeMayDropTheLastReferenceToTheOwnerDuringItsRun) {
  auto root = rootIs();
  SocketPair sockets;
  auto t = fdTaskIs(root, "selfDropping");
  Ptr<TestFdTask>* holder = &t;
  bool ranToTheEnd = false;
  t->onRead = [&](TestFdTask& self) {
    drain(self.taskWatchFd());
    *holder = nullptr;
    // The owner is still alive for the rest of the run.
    EXPECT_EQ(self.readTask().get(), self.executingTask());
    ranToTheEnd = true;
  };
  t->taskWatchFdIs(sockets.ours());
  sockets.sendToOurs("bye");
  ASSERT_TRUE(driveUntil([&] { return ranToTheEnd; }));
  EXPECT_FALSE(t);
  driveTurns(5);
  EXPECT_EQ(0u, root->registeredTaskCount());
}

TEST(FileDescriptorTask, DroppingTheOwnerRemovesTheDescriptorEvents) {
  auto root = rootIs();
  SocketPair sockets;
  auto t = fdTaskIs(root, "unwatchedAtEnd");
  const int before = event_base_get_num_events(ev_base, EVENT_BASE_COUNT_ADDED);
  t->taskWatchFdIs(sockets.ours());
  t->taskWatchWritableIs(true);
  EXPECT_EQ(before + 2, event_base_get_num_events(ev_base, EVENT_BASE_COUNT_ADDED));
  t = nullptr;
  EXPECT_EQ(before, event_base_get_num_events(ev_base, EVENT_BASE_COUNT_ADDED));
  sockets.sendToOurs("late");
  driveTurns(20);
  EXPECT_EQ(0u, root->registeredTaskCount());
}

// --- priorities and forwarded settings ---------------------------------------------------------------

TEST(FileDescriptorTask, PriorityChangeBeforeTheFirstWriteWatchLeavesTheTasksApart) {
  auto root = rootIs();
  auto t = fdTaskIs(root, "split", TaskPriority::normal);
  t->taskPriorityIs(TaskPriority::high);
  EXPECT_EQ(TaskPriority::high, t->readTask()->taskPriority());
  EXPECT_EQ(TaskPriority::normal, t->taskPriority());
  t->taskWatchWritableIs(true);
  ASSERT_TRUE(t->writeTask());
  EXPECT_EQ(TaskPriority::normal, t->writeTask()->taskPriority());
  // Later changes reach both.
  t->taskPriorityIs(TaskPriority::low);
  EXPECT_EQ(TaskPriority::low, t->readTask()->taskPriority());
  EXPECT_EQ(TaskPriority::low, t->writeTask()->taskPriority());
}

TEST(FileDescriptorTask, QuantumAndSuspensionGoToBothTasksAndReadFromTheReadTask) {
  auto root = rootIs();
  auto t = fdTaskIs(root, "settings");
  t->taskQuantumIs(TaskDurationMs(50));
  EXPECT_EQ(TaskDurationMs(50), t->taskQuantum());
  t->taskWatchWritableIs(true);
  // Copied when made.
  EXPECT_EQ(TaskDurationMs(50), t->writeTask()->taskQuantum());
  t->taskQuantumIs(TaskDurationMs(70));
  EXPECT_EQ(TaskDurationMs(70), t->readTask()->taskQuantum());
  EXPECT_EQ(TaskDurationMs(70), t->writeTask()->taskQuantum());
  EXPECT_TRUE(contains(assertText([&] { t->taskQuantumIs(TaskDurationMs(1001)); }), "Quantum: "));
  t->taskSuspendedIs(true);
  EXPECT_TRUE(t->taskSuspended());
  EXPECT_TRUE(t->readTask()->taskSuspended());
  EXPECT_TRUE(t->writeTask()->taskSuspended());
  t->scheduleTaskReadable();
  t->scheduleTaskWritable();
  EXPECT_FALSE(t->taskScheduled());
  // Unsuspending runs each once.
  t->taskSuspendedIs(false);
  EXPECT_FALSE(t->taskSuspended());
  EXPECT_TRUE(t->taskScheduledReadable());
  EXPECT_TRUE(t->taskScheduledWritable());
}

TEST(FileDescriptorTask, WriteTaskMadeLaterCopiesSuspensionAndRatio) {
  auto root = rootIs();
  auto t = fdTaskIs(root, "copied");
  t->taskSuspendedIs(true);
  t->taskTestYieldRatioIs(3);
  t->taskWatchWritableIs(true);
  ASSERT_TRUE(t->writeTask());
  EXPECT_TRUE(t->writeTask()->taskSuspended());
  EXPECT_EQ(3u, t->writeTask()->taskTestYieldRatio());
  EXPECT_EQ(2u, t->writeTask()->taskShouldYieldMode());
  EXPECT_EQ(1u, eventCount(*root, TaskSchedulerEventType::frcYieldOn, t->writeTask()->taskHistoryIdentifier()));
  EXPECT_EQ(1u, eventCount(*root, TaskSchedulerEventType::suspendOn, t->writeTask()->taskHistoryIdentifier()));
}

TEST(FileDescriptorTask, WriteTaskMadeUnderAForcedYieldKeepsTheDefaultQuantum) {
  auto root = rootIs();
  auto t = fdTaskIs(root, "forcedQuantum");
  t->taskQuantumIs(TaskDurationMs(40));
  t->taskForceYieldInTestIs(true);
  t->taskWatchWritableIs(true);
  EXPECT_EQ(root->defaultTaskQuantum(), t->writeTask()->taskQuantum());
  EXPECT_EQ(1u, t->writeTask()->taskTestYieldRatio());
  // With another ratio the quantum is copied.
  auto u = fdTaskIs(root, "ratioQuantum");
  u->taskQuantumIs(TaskDurationMs(40));
  u->taskTestYieldRatioIs(2);
  u->taskWatchWritableIs(true);
  EXPECT_EQ(TaskDurationMs(40), u->writeTask()->taskQuantum());
}

TEST(FileDescriptorTask, ForceYieldStepsRecordHistoryOnlyForTasksWhoseRatioChanges) {
  auto root = rootIs();
  auto t = fdTaskIs(root, "forced");
  const String& readId = t->readTask()->taskHistoryIdentifier();
  t->taskForceYieldInTestIs(true);
  EXPECT_TRUE(t->taskForceYieldInTest());
  EXPECT_EQ(1u, t->taskTestYieldRatio());
  EXPECT_EQ(2u, t->readTask()->taskShouldYieldMode());
  EXPECT_EQ(1u, eventCount(*root, TaskSchedulerEventType::frcYieldOn, readId));
  EXPECT_EQ(1u, root->forceYieldTaskCount());
  // Unchanged: nothing recorded.
  t->taskForceYieldInTestIs(true);
  EXPECT_EQ(1u, eventCount(*root, TaskSchedulerEventType::frcYieldOn, readId));
  t->taskWatchWritableIs(true);
  const String& writeId = t->writeTask()->taskHistoryIdentifier();
  EXPECT_EQ(1u, eventCount(*root, TaskSchedulerEventType::frcYieldOn, writeId));
  EXPECT_EQ(2u, root->forceYieldTaskCount());
  t->taskTestYieldRatioIs(4);
  EXPECT_FALSE(t->taskForceYieldInTest());
  EXPECT_EQ(4u, t->taskTestYieldRatio());
  EXPECT_EQ(4u, t->writeTask()->taskTestYieldRatio());
  EXPECT_EQ(2u, eventCount(*root, TaskSchedulerEventType::frcYieldOn, readId));
  EXPECT_EQ(2u, eventCount(*root, TaskSchedulerEventType::frcYieldOn, writeId));
  t->taskForceYieldInTestIs(false);
  EXPECT_EQ(0u, t->taskTestYieldRatio());
  EXPECT_EQ(1u, eventCount(*root, TaskSchedulerEventType::frcYieldOff, readId));
  EXPECT_EQ(1u, eventCount(*root, TaskSchedulerEventType::frcYieldOff, writeId));
  EXPECT_EQ(0u, t->readTask()->taskShouldYieldMode());
  EXPECT_EQ(0u, t->writeTask()->taskShouldYieldMode());
  EXPECT_EQ(0u, root->forceYieldTaskCount());
  t->taskTestYieldRatioIs(0);
  EXPECT_EQ(1u, eventCount(*root, TaskSchedulerEventType::frcYieldOff, readId));
}

TEST(FileDescriptorTask, ForceYieldReachesOnlyTheReadTaskWhileThereIsNoWriteTask) {
  auto root = rootIs();
  auto t = fdTaskIs(root, "forcedReadOnly");
  t->taskForceYieldInTestIs(true);
  EXPECT_FALSE(t->writeTask());
  EXPECT_EQ(1u, root->registeredTaskCount());
}

TEST(FileDescriptorTask, RunCountsAddBothDirections) {
  auto root = rootIs();
  auto t = fdTaskIs(root, "counted");
  t->scheduleTaskReadable();
  ASSERT_TRUE(driveUntil([&] { return t->reads == 1; }));
  t->scheduleTaskReadable();
  ASSERT_TRUE(driveUntil([&] { return t->reads == 2; }));
  t->scheduleTaskWritable();
  ASSERT_TRUE(driveUntil([&] { return t->writes == 1; }));
  EXPECT_EQ(2u, t->taskRunCountReadable());
  EXPECT_EQ(1u, t->taskRunCountWritable());
  EXPECT_EQ(3u, t->taskRunCount());
  EXPECT_FALSE(t->taskCurrentlyRunningReadable());
  EXPECT_FALSE(t->taskCurrentlyRunningWritable());
}

// --- names ------------------------------------------------------------------------------------------

TEST(FileDescriptorTask, StatsNameReachesTheOwnerAndBothTasksWithTheirSuffixes) {
  auto root = rootIs();
  auto t = fdTaskIs(root, "named");
  t->taskWatchWritableIs(true);
  t->taskStatsNameIs("shared");
  EXPECT_EQ("shared", text(t->taskStatsName()));
  EXPECT_EQ("shared:read", text(t->readTask()->taskStatsName()));
  EXPECT_EQ("shared:write", text(t->writeTask()->taskStatsName()));
  // Held deduplicated, so that copying them never allocates.
  t->taskStatsNameIs("a stats name longer than the short form");
  EXPECT_EQ(String::Form::dedupForm, t->taskStatsName().form());
  EXPECT_EQ(String::Form::dedupForm, t->readTask()->taskStatsName().form());
  EXPECT_EQ(String::Form::dedupForm, t->writeTask()->taskStatsName().form());
  EXPECT_EQ("a stats name longer than the short form:write", text(t->writeTask()->taskStatsName()));
  EXPECT_EQ("named", text(t->taskName()));
  EXPECT_EQ("named:read", text(t->readTask()->taskName()));
  EXPECT_EQ("named:write", text(t->writeTask()->taskName()));
}

TEST(FileDescriptorTask, WriteTaskMadeAfterAStatsNameCarriesIt) {
  auto root = rootIs();
  auto t = fdTaskIs(root, "lateName");
  t->taskStatsNameIs("group");
  EXPECT_EQ("group:read", text(t->readTask()->taskStatsName()));
  t->scheduleTaskWritable();
  EXPECT_EQ("lateName:write", text(t->writeTask()->taskName()));
  EXPECT_EQ("group:write", text(t->writeTask()->taskStatsName()));
  // Without a stats name of its own the task's name is its stats name.
  auto u = fdTaskIs(root, "plainName");
  u->scheduleTaskWritable();
  EXPECT_EQ("plainName:write", text(u->writeTask()->taskStatsName()));
}

TEST(FileDescriptorTask, TasksFoldIntoCompletedRecordsUnderTheirStatsNames) {
  auto root = rootIs();
  for (int i = 0; i < 2; ++i) {
    auto t = fdTaskIs(root, fmt::format("conn{}", i).c_str());
    t->taskStatsNameIs("conn");
    t->scheduleTaskReadable();
    ASSERT_TRUE(driveUntil([&] { return t->reads == 1; }));
  }
  EXPECT_EQ(2u, root->completedTaskStatForTest("conn:read").taskRunCount());
}

// --- statistics reset --------------------------------------------------------------------------------

TEST(FileDescriptorTask, ResetOfTheReadTaskReachesTheOwnerOnce) {
  auto root = rootIs();
  auto t = fdTaskIs(root, "reset");
  t->taskWatchWritableIs(true);
  t->readTask()->handleResetStats();
  EXPECT_EQ(1u, t->resetCalls);
  t->writeTask()->handleResetStats();
  EXPECT_EQ(1u, t->resetCalls);
}

// --- busy and idle ---------------------------------------------------------------------------------------

TEST(FileDescriptorTask, OwnerTurnsBusyAndIdleWithTheReadDirection) {
  auto root = rootIs();
  SocketPair sockets;
  auto t = fdTaskIs(root, "busyRead");
  const String& id = t->taskHistoryIdentifier();
  t->onRead = [](TestFdTask& self) { drain(self.taskWatchFd()); };
  t->taskWatchFdIs(sockets.ours());
  sockets.sendToOurs("x");
  ASSERT_TRUE(driveUntil([&] { return t->taskScheduled(); }));
  EXPECT_EQ(1u, eventCount(*root, TaskSchedulerEventType::busy, id));
  EXPECT_EQ(1u, t->busyCalls);
  ASSERT_TRUE(driveUntil([&] { return t->reads == 1; }));
  EXPECT_FALSE(t->taskScheduled());
  EXPECT_EQ(1u, eventCount(*root, TaskSchedulerEventType::idle, id));
  EXPECT_EQ(2u, t->busyCalls);
}

TEST(FileDescriptorTask, OwnerTurnsBusyAndIdleWithTheWriteDirection) {
  auto root = rootIs();
  SocketPair sockets;
  auto t = fdTaskIs(root, "busyWrite");
  const String& id = t->taskHistoryIdentifier();
  t->taskWatchFdIs(sockets.ours());
  t->taskWatchWritableIs(true);
  ASSERT_TRUE(driveUntil([&] { return t->taskScheduledWritable(); }));
  EXPECT_EQ(1u, eventCount(*root, TaskSchedulerEventType::busy, id));
  EXPECT_EQ(1u, t->busyCalls);
  ASSERT_TRUE(driveUntil([&] { return t->writes == 1; }));
  EXPECT_EQ(1u, eventCount(*root, TaskSchedulerEventType::idle, id));
  EXPECT_EQ(2u, t->busyCalls);
}

TEST(FileDescriptorTask, OwnerStaysBusyWhileEitherDirectionIsQueued) {
  auto root = rootIs();
  auto t = fdTaskIs(root, "busyBoth");
  const String& id = t->taskHistoryIdentifier();
  t->scheduleTaskReadable();
  t->scheduleTaskWritable();
  EXPECT_EQ(1u, eventCount(*root, TaskSchedulerEventType::busy, id));
  EXPECT_EQ(1u, t->busyCalls);
  // The read task leaves the queue; the write task keeps the owner busy.
  t->readTask()->unscheduleTask();
  EXPECT_TRUE(t->taskScheduled());
  EXPECT_EQ(0u, eventCount(*root, TaskSchedulerEventType::idle, id));
  EXPECT_EQ(1u, t->busyCalls);
  t->writeTask()->unscheduleTask();
  EXPECT_FALSE(t->taskScheduled());
  EXPECT_EQ(1u, eventCount(*root, TaskSchedulerEventType::idle, id));
  EXPECT_EQ(2u, t->busyCalls);
  // And through runs: busy once, idle once after both ran.
  t->scheduleTaskWritable();
  t->scheduleTaskReadable();
  ASSERT_TRUE(driveUntil([&] { return t->reads == 1 && t->writes == 1; }));
  EXPECT_EQ(2u, eventCount(*root, TaskSchedulerEventType::busy, id));
  EXPECT_EQ(2u, eventCount(*root, TaskSchedulerEventType::idle, id));
  EXPECT_EQ(4u, t->busyCalls);
}

// --- assertions ----------------------------------------------------------------------------------------------

TEST(FileDescriptorTask, ReadEventWithTheReadWatchOffAsserts) {
  auto root = rootIs();
  SocketPair sockets;
  auto t = fdTaskIs(root, "readEventOff");
  t->taskWatchFdIs(sockets.ours());
  t->taskWatchReadableIs(false);
  const std::string message = assertText([&] { t->readFdEvent(sockets.ours()); });
  EXPECT_TRUE(contains(message, "FileDescriptorTask::readFdEvent() readFdEvent() called with taskWatchReadable off"))
      << message;
  EXPECT_FALSE(t->taskScheduled());
}

TEST(FileDescriptorTask, WriteEventWithTheWriteWatchOffAsserts) {
  auto root = rootIs();
  SocketPair sockets;
  auto t = fdTaskIs(root, "writeEventOff");
  t->taskWatchFdIs(sockets.ours());
  const std::string message = assertText([&] { t->writeFdEvent(sockets.ours()); });
  EXPECT_TRUE(
      contains(message, "FileDescriptorTask::writeFdEvent() writeFdEvent() called with taskWatchWritable off"))
      << message;
  EXPECT_FALSE(t->writeTask());
}

TEST(FileDescriptorTask, EventForAnotherDescriptorAsserts) {
  auto root = rootIs();
  SocketPair sockets;
  auto t = fdTaskIs(root, "wrongFd");
  t->taskWatchFdIs(sockets.ours());
  t->taskWatchWritableIs(true);
  const int other = sockets.ours() + 100;
  const std::string expected = fmt::format("Notified about {} watching {}", other, sockets.ours());
  const std::string readMessage = assertText([&] { t->readFdEvent(other); });
  EXPECT_TRUE(contains(readMessage, "FileDescriptorTask::readFdEvent() " + expected)) << readMessage;
  const std::string writeMessage = assertText([&] { t->writeFdEvent(other); });
  EXPECT_TRUE(contains(writeMessage, "FileDescriptorTask::writeFdEvent() " + expected)) << writeMessage;
  EXPECT_FALSE(t->taskScheduled());
  EXPECT_EQ(0u, eventCount(*root, TaskSchedulerEventType::fdReadable, t->taskHistoryIdentifier()));
}

TEST(FileDescriptorTask, ExceptionOutOfTheReadableRunMakesTheNextRunAssert) {
  auto root = rootIs();
  SocketPair sockets;
  auto t = fdTaskIs(root, "thrower");
  t->onRead = [](TestFdTask&) { throw std::runtime_error("read failed"); };
  t->taskWatchFdIs(sockets.ours());
  sockets.sendToOurs("data stays");
  ASSERT_TRUE(loopThrows<std::runtime_error>());
  EXPECT_EQ(t->readTask().get(), t->executingTask());
  // The held reference went with the exception.
  EXPECT_EQ(1u, t->refCount());
  // The exception cut the pass chain; the next request restarts it. The
  // descriptor is still readable, so the read task runs again.
  root->requestSchedulerRun();
  const std::string message = loopAssertText();
  EXPECT_TRUE(contains(message, "FileDescriptorTask::_taskExecuteReadable() Executing task already set")) << message;
  EXPECT_EQ(1u, t->reads);
  // The write direction fails the same way, after clearing its watch.
  root->requestSchedulerRun();
  t->taskWatchReadableIs(false);
  t->taskWatchWritableIs(true);
  const std::string writeMessage = loopAssertText();
  EXPECT_TRUE(contains(writeMessage, "FileDescriptorTask::_taskExecuteWritable() Executing task already set"))
      << writeMessage;
  EXPECT_FALSE(t->taskWatchWritable());
  EXPECT_EQ(0u, t->writes);
  root->requestSchedulerRun();
}

TEST(FileDescriptorTask, ExceptionOutOfTheWritableRunMakesTheNextReadAssert) {
  auto root = rootIs();
  auto t = fdTaskIs(root, "writeThrower");
  t->onWrite = [](TestFdTask&) { throw std::runtime_error("write failed"); };
  t->scheduleTaskWritable();
  ASSERT_TRUE(loopThrows<std::runtime_error>());
  EXPECT_EQ(t->writeTask().get(), t->executingTask());
  root->requestSchedulerRun();
  t->scheduleTaskReadable();
  const std::string message = loopAssertText();
  EXPECT_TRUE(contains(message, "FileDescriptorTask::_taskExecuteReadable() Executing task already set")) << message;
  EXPECT_EQ(0u, t->reads);
  root->requestSchedulerRun();
}

// --- edge-triggered ---------------------------------------------------------------------------------------------

TEST(FileDescriptorTask, EdgeTriggeredRunThatLeavesDataBehindGetsNoFurtherEvent) {
  auto root = rootIs();
  SocketPair sockets;
  auto t = fdTaskIs(root, "edge");
  std::string received;
  t->onRead = [&](TestFdTask& self) {
    char c;
    if (::read(self.taskWatchFd(), &c, 1) == 1)
      received += c;
  };
  t->edgeTriggeredIs(true);
  EXPECT_TRUE(leControl(*t).edgeTriggered());
  t->taskWatchFdIs(sockets.ours());
  sockets.sendToOurs("abc");
  ASSERT_TRUE(driveUntil([&] { return t->reads == 1; }));
  driveTurns(30);
  EXPECT_EQ(1u, t->reads);
  EXPECT_EQ("a", received);
  EXPECT_FALSE(t->taskScheduled());
  // The task itself must come back for the rest.
  t->scheduleTaskReadable();
  ASSERT_TRUE(driveUntil([&] { return t->reads == 2; }));
  EXPECT_EQ("ab", received);
  // A change of the descriptor's state is a new edge.
  sockets.sendToOurs("d");
  ASSERT_TRUE(driveUntil([&] { return t->reads == 3; }));
  EXPECT_EQ("abc", received);
  driveTurns(30);
  EXPECT_EQ(3u, t->reads);
  // Back to level-triggered: the data left behind brings the task again.
  t->edgeTriggeredIs(false);
  EXPECT_FALSE(leControl(*t).edgeTriggered());
  ASSERT_TRUE(driveUntil([&] { return received == "abcd"; }));
}

TEST(FileDescriptorTask, EdgeTriggeredWriteWatchStillClearsAtEachRun) {
  auto root = rootIs();
  SocketPair sockets;
  auto t = fdTaskIs(root, "edgeWrite");
  bool watchInside = true;
  t->onWrite = [&](TestFdTask& self) { watchInside = self.taskWatchWritable(); };
  t->edgeTriggeredIs(true);
  t->taskWatchFdIs(sockets.ours());
  t->taskWatchWritableIs(true);
  ASSERT_TRUE(driveUntil([&] { return t->writes == 1; }));
  EXPECT_FALSE(watchInside);
  EXPECT_FALSE(t->taskWatchWritable());
  driveTurns(20);
  EXPECT_EQ(1u, t->writes);
}

// --- the owning thread --------------------------------------------------------------------------------------------

TEST(FileDescriptorTask, ScheduledQueriesCheckTheThread) {
  auto root = rootIs();
  auto t = fdTaskIs(root, "threaded");
  // No write task: the writable query checks the thread itself.
  t->scheduleTaskReadable();
  std::string scheduled, readable, writable;
  std::thread([&] {
    scheduled = assertText([&] { (void)t->taskScheduled(); });
    readable = assertText([&] { (void)t->taskScheduledReadable(); });
    writable = assertText([&] { (void)t->taskScheduledWritable(); });
  }).join();
  EXPECT_TRUE(contains(scheduled, "Executing in wrong thread")) << scheduled;
  EXPECT_TRUE(contains(readable, "Executing in wrong thread")) << readable;
  EXPECT_TRUE(contains(writable, "Executing in wrong thread")) << writable;
  EXPECT_FALSE(t->writeTask());
  EXPECT_TRUE(t->taskScheduled());
}
