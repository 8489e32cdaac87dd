// The asynchronous reports: a show task writing to a real socket pair,
// driven through the event loop one pass at a time, against readers that
// read nothing, read slowly or go away, and against write faults.
//
// Faults: the library calls ::write and ::close through the dynamic
// linker, so this binary defines both. They pass everything through with
// the system calls, except on the one descriptor a test names: there
// write() may be told to fail with EINTR, EAGAIN or EPIPE or to write
// less than asked, and close() is counted. A fake stands in here because
// a real socket cannot be made to return EINTR or a short write on cue.
#include "ReportFixtures.h"

#include <Kesto/Platform/Platform.h>
#include <Kesto/Report/SnapshotShowJson.h>
#include <Kesto/Report/SnapshotShowTask.h>
#include <Kesto/Report/SnapshotShowText.h>
#include <Kesto/Scheduler/TaskSchedulerRoot.h>

#include <KestoSupport/SocketPair.h>
#include <KestoSupport/TestScheduler.h>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <deque>
#include <fcntl.h>
#include <random>
#include <string>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

using namespace Kesto;
using namespace ReportTest;

namespace {

// What the next write() on the watched descriptor does.
struct Fault {
  enum Kind { pass, fail, shortWrite } kind = pass;
  int error = 0;       // for fail
  std::size_t max = 0; // for shortWrite: at most this many bytes
};

int faultFd = -1;
std::deque<Fault> faults;
std::size_t writeCalls = 0;
// Where each write() on the watched descriptor started and how much it was
// asked to write.
std::vector<std::pair<const char*, std::size_t>> writeArgs;
int closesOfFaultFd = 0;

} // namespace

extern "C" ssize_t write(int fd, const void* buf, size_t n) {
  if (fd == faultFd && fd >= 0) {
    ++writeCalls;
    writeArgs.emplace_back(static_cast<const char*>(buf), n);
    if (!faults.empty()) {
      const Fault f = faults.front();
      faults.pop_front();
      if (f.kind == Fault::fail) {
        errno = f.error;
        return -1;
      }
      if (f.kind == Fault::shortWrite)
        n = std::min(n, f.max);
    }
  }
  return syscall(SYS_write, fd, buf, n);
}

extern "C" int close(int fd) {
  if (fd == faultFd && fd >= 0)
    ++closesOfFaultFd;
  return int(syscall(SYS_close, fd));
}

namespace {

// A socket pair whose reading end this test drains by hand. Our end goes
// to the report, which closes it.
class Pipe {
public:
  Pipe() {
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0)
      throw std::runtime_error("socketpair");
    writer = fds[0];
    reader = fds[1];
    fcntl(reader, F_SETFL, fcntl(reader, F_GETFL) | O_NONBLOCK);
  }
  ~Pipe() {
    if (reader >= 0)
      ::close(reader);
  }
  // Small buffers, so that a report of a few hundred kilobytes fills them.
  void shrink() {
    int size = 4096;
    setsockopt(writer, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    setsockopt(reader, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
  }
  // Reads up to `max` bytes that are there now.
  std::size_t drain(std::size_t max = std::size_t(-1)) {
    std::size_t total = 0;
    char buf[65536];
    while (total < max) {
      const ssize_t n = ::read(reader, buf, std::min(sizeof buf, max - total));
      if (n <= 0)
        break;
      received.append(buf, std::size_t(n));
      total += std::size_t(n);
    }
    return total;
  }
  void closeReader() {
    ::close(reader);
    reader = -1;
  }
  bool writerClosed() const { return fcntl(writer, F_GETFD) == -1 && errno == EBADF; }

  int writer = -1;
  int reader = -1;
  std::string received;
};

// Resets the fault plan around each test.
class ShowTaskTest : public ::testing::Test {
protected:
  void SetUp() override {
    std::signal(SIGPIPE, SIG_IGN); // for EPIPE to reach the write, not kill us
    root = TaskSchedulerRoot::TaskSchedulerRootIs("shows");
  }
  void TearDown() override {
    faultFd = -1;
    faults.clear();
    writeCalls = 0;
    writeArgs.clear();
    closesOfFaultFd = 0;
  }

  // The show task of descriptor `fd`, found by its write task's name.
  SnapshotShowTask* showTask(int fd) {
    Ptr<TaskImpl> t = root->taskForTest(String(fmt::format("TaskSchedulerShow-fd:{}:write", fd)));
    if (!t)
      return nullptr;
    auto* w = dynamic_cast<FileDescriptorTask::WriteTask*>(t.get());
    return w ? dynamic_cast<SnapshotShowTask*>(w->owner()) : nullptr;
  }

  // One pass of the event loop: at most one task runs.
  void pass() { Platform::doEventLoop(0.0); }

  // Passes until `done` or the limit; the reader drains `perPass` bytes
  // between passes.
  template <typename Done>
  bool runUntil(Pipe& p, Done done, std::size_t perPass = std::size_t(-1), int limit = 2000000) {
    for (int i = 0; i < limit; ++i) {
      if (done()) {
        p.drain(); // what the report wrote before it ended
        return true;
      }
      pass();
      p.drain(perPass);
    }
    return done();
  }

  Ptr<TaskSchedulerRoot> root;
};

// A snapshot of `n` tasks with distinct names and times, plus history.
SnapshotPtr bigSnapshot(std::size_t n, const char* name = "big") {
  Snapshot s = goldenTree();
  s.schedulerName = name;
  s.tasks.reserve(s.tasks.size() + n);
  for (std::size_t i = 0; i < n; ++i) {
    TaskStat t = stat({"", TaskPriority::normal, i + 1, I64(i * 1000 + 17), 0x100000 + i * 64});
    t.taskNameIs(String(fmt::format("task-{:06d}", i)));
    if (i % 3 == 0) {
      t.taskWorkCountTotalInc(i);
      t.taskWorkCountHighWaterMarkIs(U32(i % 1000));
    }
    s.tasks.push_back(std::move(t));
  }
  return share(std::move(s));
}

SnapshotPtr smallSnapshot(const char* name, U32 order = 0xFFFFFFFF) {
  Snapshot s;
  s.schedulerName = name;
  s.displayOrder = order;
  s.tasks.push_back(stat({"only", TaskPriority::normal, 1, 0, 0x10}));
  return share(std::move(s));
}

} // namespace

TEST_F(ShowTaskTest, ReportUnder768BytesIsOneForcedWriteAtTheVeryEnd) {
  Pipe p;
  faultFd = p.writer;
  // An invalid filter: the message, the empty header and a blank line.
  Snapshot s;
  s.schedulerName = "tiny";
  s.displayOrder = 0xFFFFFFFF;
  s.taskNameRegex = "(";
  s.taskNameRegexError = "e";
  const SnapshotPtr snap = share(std::move(s));
  const std::string expected = renderText(snap, false, false);
  ASSERT_LT(expected.size(), 768u);
  int completions = 0;
  root->snapshotRenderTextAsync(p.writer, {snap}, false, false, [&] { ++completions; });
  EXPECT_EQ(0u, writeCalls); // nothing happens inside the call
  ASSERT_TRUE(runUntil(p, [&] { return completions == 1; }));
  EXPECT_EQ(1u, writeCalls);
  EXPECT_EQ(expected, p.received);
  EXPECT_EQ(1, closesOfFaultFd);
  EXPECT_EQ(0u, root->snapshotShowCount());
}

TEST_F(ShowTaskTest, ReaderThatReadsNothingBlocksWithWritableWatchAndNoRuns) {
  Pipe p;
  p.shrink();
  const SnapshotPtr snap = bigSnapshot(5000);
  int completions = 0;
  root->snapshotRenderTextAsync(p.writer, {snap}, false, false, [&] { ++completions; });
  SnapshotShowTask* task = showTask(p.writer);
  ASSERT_NE(nullptr, task);
  for (int i = 0; i < 1000 && task->state() != SnapshotShowTask::State::blocked; ++i)
    pass();
  ASSERT_EQ(SnapshotShowTask::State::blocked, task->state());
  EXPECT_TRUE(task->taskWatchWritable());
  EXPECT_FALSE(task->taskScheduledWritable());
  EXPECT_EQ(1u, task->taskWorkPendingWritable());
  const U64 runs = task->taskRunCountWritable();
  for (int i = 0; i < 200; ++i)
    pass();
  EXPECT_EQ(runs, task->taskRunCountWritable()); // asleep on the descriptor
  EXPECT_EQ(0, completions);
  // The reader reads: the report goes on to its end, byte for byte.
  ASSERT_TRUE(runUntil(p, [&] { return completions == 1; }));
  EXPECT_TRUE(renderText(snap, false, false) == p.received);
  EXPECT_TRUE(p.writerClosed());
}

TEST_F(ShowTaskTest, SlowReaderOf100000TasksReceivesExactlyTheStringForm) {
  Pipe p;
  p.shrink();
  const SnapshotPtr snap = bigSnapshot(100000);
  int completions = 0;
  root->snapshotRenderTextAsync(p.writer, {snap}, true, true, [&] { ++completions; });
  ASSERT_TRUE(runUntil(p, [&] { return completions == 1; }, 3000));
  const std::string expected = renderText(snap, true, true);
  EXPECT_EQ(expected.size(), p.received.size());
  EXPECT_TRUE(expected == p.received); // not EXPECT_EQ: 14 MB in a failure message helps nobody
}

TEST_F(ShowTaskTest, JsonDeliveredInManyWritesEqualsTheStringForm) {
  Pipe p;
  p.shrink();
  faultFd = p.writer;
  const SnapshotPtr snap = bigSnapshot(20000);
  int completions = 0;
  root->snapshotRenderJsonAsync(p.writer, {snap}, [&] { ++completions; });
  ASSERT_TRUE(runUntil(p, [&] { return completions == 1; }, 5000));
  EXPECT_GT(writeCalls, 10u);
  EXPECT_TRUE(renderJson(snap) == p.received);
  EXPECT_EQ(1, closesOfFaultFd);
}

TEST_F(ShowTaskTest, ReaderClosingHalfwayCallsOnCompleteOnceAndClosesOnce) {
  Pipe p;
  p.shrink();
  faultFd = p.writer;
  const SnapshotPtr snap = bigSnapshot(20000);
  int completions = 0;
  root->snapshotRenderTextAsync(p.writer, {snap}, false, false, [&] { ++completions; });
  ASSERT_TRUE(runUntil(p, [&] { return p.received.size() > 50000; }, 4096));
  p.closeReader();
  for (int i = 0; i < 10000 && completions == 0; ++i)
    pass();
  EXPECT_EQ(1, completions);
  EXPECT_EQ(1, closesOfFaultFd);
  EXPECT_EQ(0u, root->snapshotShowCount());
  for (int i = 0; i < 100; ++i)
    pass();
  EXPECT_EQ(1, completions);
  EXPECT_EQ(1, closesOfFaultFd);
}

TEST_F(ShowTaskTest, EintrNeitherDropsNorRepeatsBytes) {
  Pipe p;
  faultFd = p.writer;
  for (int i = 0; i < 5; ++i)
    faults.push_back({Fault::fail, EINTR});
  const SnapshotPtr snap = bigSnapshot(2000);
  int completions = 0;
  root->snapshotRenderTextAsync(p.writer, {snap}, false, false, [&] { ++completions; });
  ASSERT_TRUE(runUntil(p, [&] { return completions == 1; }));
  EXPECT_TRUE(faults.empty());
  EXPECT_TRUE(renderText(snap, false, false) == p.received);
}

TEST_F(ShowTaskTest, PartialWriteLeavesRendererBufferUntouchedUntilTheRestIsGone) {
  Pipe p;
  faultFd = p.writer;
  faults.push_back({Fault::shortWrite, 0, 100});
  const SnapshotPtr snap = bigSnapshot(2000);
  const std::string expected = renderText(snap, false, false);
  int completions = 0;
  root->snapshotRenderTextAsync(p.writer, {snap}, false, false, [&] { ++completions; });
  ASSERT_TRUE(runUntil(p, [&] { return completions == 1; }));
  ASSERT_GE(writeArgs.size(), 2u);
  // The first write was cut at 100 bytes; the second takes the rest from
  // the same place of the same buffer, which nothing has moved or refilled.
  EXPECT_GE(writeArgs[0].second, 768u);
  EXPECT_EQ(writeArgs[0].first + 100, writeArgs[1].first);
  EXPECT_EQ(writeArgs[0].second - 100, writeArgs[1].second);
  EXPECT_TRUE(expected == p.received);
}

TEST_F(ShowTaskTest, EagainSleepsOnTheDescriptorAndResumes) {
  Pipe p;
  faultFd = p.writer;
  faults.push_back({Fault::fail, EAGAIN});
  const SnapshotPtr snap = bigSnapshot(2000);
  int completions = 0;
  root->snapshotRenderTextAsync(p.writer, {snap}, false, false, [&] { ++completions; });
  SnapshotShowTask* task = showTask(p.writer);
  while (writeCalls == 0)
    pass();
  EXPECT_EQ(SnapshotShowTask::State::blocked, task->state());
  EXPECT_TRUE(task->taskWatchWritable());
  ASSERT_TRUE(runUntil(p, [&] { return completions == 1; }));
  EXPECT_TRUE(renderText(snap, false, false) == p.received);
}

TEST_F(ShowTaskTest, EpipeEndsTheShowSilentlyWithOneClose) {
  Pipe p;
  faultFd = p.writer;
  faults.push_back({Fault::pass});
  faults.push_back({Fault::fail, EPIPE});
  const SnapshotPtr snap = bigSnapshot(2000);
  int completions = 0;
  root->snapshotRenderTextAsync(p.writer, {snap}, false, false, [&] { ++completions; });
  ASSERT_TRUE(runUntil(p, [&] { return completions == 1; }));
  EXPECT_EQ(2u, writeCalls);
  EXPECT_EQ(1, closesOfFaultFd);
  EXPECT_LT(p.received.size(), renderText(snap, false, false).size());
  EXPECT_EQ(0, renderText(snap, false, false).compare(0, p.received.size(), p.received));
}

TEST_F(ShowTaskTest, RandomFaultsLoseAndRepeatNothing) {
  for (unsigned seed = 1; seed <= 8; ++seed) {
    SCOPED_TRACE(seed);
    Pipe p;
    faultFd = p.writer;
    writeCalls = 0;
    writeArgs.clear();
    closesOfFaultFd = 0;
    std::mt19937 rng(seed);
    faults.clear();
    for (int i = 0; i < 400; ++i) {
      switch (rng() % 4) {
      case 0:
        faults.push_back({Fault::pass});
        break;
      case 1:
        faults.push_back({Fault::fail, EINTR});
        break;
      case 2:
        faults.push_back({Fault::fail, EAGAIN});
        break;
      default:
        faults.push_back({Fault::shortWrite, 0, 1 + rng() % 2000});
        break;
      }
    }
    const SnapshotPtr snap = bigSnapshot(3000);
    int completions = 0;
    if (seed % 2)
      root->snapshotRenderTextAsync(p.writer, {snap}, seed % 4 == 1, false, [&] { ++completions; });
    else
      root->snapshotRenderJsonAsync(p.writer, {snap}, [&] { ++completions; });
    ASSERT_TRUE(runUntil(p, [&] { return completions == 1; }, 7000));
    const std::string expected = seed % 2 ? renderText(snap, seed % 4 == 1, false) : renderJson(snap);
    EXPECT_TRUE(expected == p.received);
    EXPECT_EQ(1, closesOfFaultFd);
  }
}

TEST_F(ShowTaskTest, EmptySnapshotVectorCompletesWithoutAnyOutput) {
  Pipe p;
  faultFd = p.writer;
  int completions = 0;
  root->snapshotRenderJsonAsync(p.writer, {}, [&] { ++completions; });
  ASSERT_TRUE(runUntil(p, [&] { return completions == 1; }));
  EXPECT_EQ(0u, writeCalls);
  EXPECT_EQ("", p.received); // not even the closing braces
  EXPECT_EQ(1, closesOfFaultFd);
}

TEST_F(ShowTaskTest, EqualDisplayOrderKeepsTheGivenOrderAndUnsetSortsLast) {
  Pipe p;
  int completions = 0;
  root->snapshotRenderTextAsync(p.writer,
                                {smallSnapshot("unsetFirst"), smallSnapshot("twoA", 2), smallSnapshot("one", 1),
                                 smallSnapshot("twoB", 2), smallSnapshot("unsetLast")},
                                false, false, [&] { ++completions; });
  ASSERT_TRUE(runUntil(p, [&] { return completions == 1; }));
  std::vector<std::string> titles;
  std::size_t at = 0;
  while ((at = p.received.find("TaskScheduler stats for ", at)) != std::string::npos) {
    at += 24;
    titles.push_back(p.received.substr(at, p.received.find('\n', at) - at));
  }
  EXPECT_EQ((std::vector<std::string>{"one", "twoA", "twoB", "unsetFirst", "unsetLast"}), titles);
}

TEST_F(ShowTaskTest, SeveralShowsProgressIndependentlyUnderOneStatsName) {
  Pipe a, b, c;
  a.shrink();
  const SnapshotPtr snap = bigSnapshot(3000);
  int done = 0;
  root->snapshotRenderTextAsync(a.writer, {snap}, false, false, [&] { ++done; });
  root->snapshotRenderJsonAsync(b.writer, {snap}, [&] { ++done; });
  root->snapshotRenderTextAsync(c.writer, snap, true, false);
  EXPECT_EQ(3u, root->snapshotShowCount());
  // a's reader reads nothing: the two others finish all the same.
  for (int i = 0; i < 100000 && root->snapshotShowCount() > 1; ++i) {
    pass();
    b.drain();
    c.drain();
  }
  EXPECT_EQ(1u, root->snapshotShowCount());
  EXPECT_EQ(1, done);
  EXPECT_TRUE(renderJson(snap) == b.received);
  EXPECT_TRUE(renderText(snap, true, false) == c.received);
  ASSERT_TRUE(runUntil(a, [&] { return done == 2; }));
  EXPECT_TRUE(renderText(snap, false, false) == a.received);
  // All three folded into one completed record.
  const TaskStat folded = root->completedTaskStatForTest("TaskSchedulerShow:write");
  EXPECT_EQ(3u, folded.taskCompletedCount());
}

TEST_F(ShowTaskTest, ShowTaskIsNormalPriorityNamedAfterItsDescriptor) {
  Pipe p;
  root->snapshotRenderTextAsync(p.writer, smallSnapshot("s"), false, false);
  SnapshotShowTask* task = showTask(p.writer);
  ASSERT_NE(nullptr, task);
  EXPECT_EQ(fmt::format("TaskSchedulerShow-fd:{}", p.writer), task->taskName().str());
  EXPECT_EQ(TaskPriority::normal, task->writeTask()->taskPriority());
  EXPECT_FALSE(task->taskWatchReadable());
  EXPECT_TRUE(task->taskScheduledWritable());
  EXPECT_TRUE(fcntl(p.writer, F_GETFL) & O_NONBLOCK);
  ASSERT_TRUE(runUntil(p, [&] { return root->snapshotShowCount() == 0; }));
}

TEST_F(ShowTaskTest, StateNamesAndStageNames) {
  EXPECT_STREQ("idle", formatSnapshotShowTaskState(SnapshotShowTask::State::idle));
  EXPECT_STREQ("working", formatSnapshotShowTaskState(SnapshotShowTask::State::working));
  EXPECT_STREQ("blocked", formatSnapshotShowTaskState(SnapshotShowTask::State::blocked));
  EXPECT_STREQ("error", formatSnapshotShowTaskState(SnapshotShowTask::State::error));
  EXPECT_STREQ("init", formatSnapshotShowStage(SnapshotShow::Stage::init));
  EXPECT_STREQ("displayTasks", formatSnapshotShowStage(SnapshotShow::Stage::displayTasks));
  EXPECT_STREQ("displayCompletedTasks", formatSnapshotShowStage(SnapshotShow::Stage::displayCompletedTasks));
  EXPECT_STREQ("displayHistory", formatSnapshotShowStage(SnapshotShow::Stage::displayHistory));
  EXPECT_STREQ("displayHistoryEvents", formatSnapshotShowStage(SnapshotShow::Stage::displayHistoryEvents));
}

TEST_F(ShowTaskTest, OtherTasksKeepRunningWhileALargeReportStreams) {
  // With the show's quantum forced to be spent at every check, each of its
  // runs formats one output element (and writes at most once); a
  // high-priority task that is always runnable then never sees more than
  // one run of the show between two runs of its own.
  Pipe p;
  p.shrink();
  const SnapshotPtr snap = bigSnapshot(3000);
  bool done = false;
  root->snapshotRenderTextAsync(p.writer, {snap}, false, false, [&] { done = true; });
  SnapshotShowTask* show = showTask(p.writer);
  ASSERT_NE(nullptr, show);
  show->taskForceYieldInTestIs(true);
  U64 lastShowRuns = 0;
  U64 maxShowRunsBetween = 0;
  U64 highRuns = 0;
  Ptr<KestoTest::TestTask> high(new KestoTest::TestTask(root, TaskPriority::high, "alwaysBusy", [&](KestoTest::TestTask& self) {
    ++highRuns;
    if (done)
      return;
    const U64 runs = show->taskRunCountWritable();
    maxShowRunsBetween = std::max(maxShowRunsBetween, runs - lastShowRuns);
    lastShowRuns = runs;
    self.scheduleTask();
  }));
  high->scheduleTask();
  ASSERT_TRUE(runUntil(p, [&] { return done; }, 4096));
  EXPECT_EQ(1u, maxShowRunsBetween);
  const TaskStat folded = root->completedTaskStatForTest("TaskSchedulerShow:write");
  EXPECT_GE(folded.taskRunCount(), 3000u); // one run per task line at least
  EXPECT_GE(highRuns, folded.taskRunCount());
  EXPECT_TRUE(renderText(snap, false, false) == p.received);
}
