#include "TimerTaskTestSupport.h"

#include <Kesto/Platform/Platform.h>
#include <Kesto/Scheduler/TaskSchedulerRoot.h>

#include <fmt/format.h>

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <set>
#include <thread>

using namespace KestoTest;

namespace {

using namespace std::chrono_literals;

// A fresh root for each test: its jitter state starts at 0 and its history
// holds everything a test does.
Ptr<CountingRoot> freshRoot(const String& name = "timerRoot") {
  Ptr<CountingRoot> r = CountingRoot::rootIs(name);
  r->historyEntryCountIs(10000);
  return r;
}

// The events of one task, oldest first, as display texts.
std::vector<std::string> taskEvents(const TaskSchedulerRoot& root, const TimerTask& task) {
  std::vector<std::string> events;
  for (const TaskSchedulerHistory::Event& e : *root.taskSchedulerHistory())
    if (e.identifier == task.taskHistoryIdentifier())
      events.insert(events.begin(), e.eventTypeDisplay());
  return events;
}

unsigned taskEventCount(const TaskSchedulerRoot& root, const TimerTask& task, TaskSchedulerEventType type) {
  unsigned n = 0;
  for (const TaskSchedulerHistory::Event& e : *root.taskSchedulerHistory())
    n += e.identifier == task.taskHistoryIdentifier() && e.eventType == type;
  return n;
}

// The time of a Kesto::time() reading taken right before and right after a
// call: the call's own reading lies between them.
struct Bracket {
  double before;
  double after;
};

template <typename Fn>
Bracket bracket(Fn&& fn) {
  Bracket b;
  b.before = Kesto::time();
  fn();
  b.after = Kesto::time();
  return b;
}

// An expiry set `seconds` from a reading inside `b`.
void expectExpiryAfter(const Bracket& b, double seconds, double expiry) {
  EXPECT_LE(b.before + seconds, expiry);
  EXPECT_GE(b.after + seconds, expiry);
}

// A trace line as the capture's format writes it: handler, level, then the
// label and the function.
std::string traceLine(unsigned level, const char* function, const std::string& message) {
  return fmt::format("TaskScheduler {} TimerTask::{}() {}", level, function, message);
}

// The end of an assertion's text, after the file and line.
std::string traceText(const char* function, const std::string& message) {
  return fmt::format("TimerTask::{}() {}", function, message);
}

} // namespace

// --- construction and idle state ---------------------------------------------------------------

TEST(TimerTask, BothConstructorsMakeAnIdleTaskWithNoTimer) {
  Ptr<CountingRoot> r = freshRoot();
  Ptr<TestTimerTask> a = timerTaskIs(r, "fromPtr");
  Ptr<TestTimerTask> b(new TestTimerTask(r.get(), TaskPriority::low, "fromPointer"));
  for (TestTimerTask* t : {a.get(), b.get()}) {
    EXPECT_EQ(r.get(), t->taskSchedulerPtr());
    EXPECT_FALSE(t->taskScheduled());
    EXPECT_FALSE(t->timerRunning());
    EXPECT_EQ(infinity, t->timerRemaining());
    EXPECT_EQ(infinity, t->currentExpirationTime());
    const TaskStat::TaskStatus status = t->taskStatus();
    EXPECT_TRUE(status.taskTimer());
    EXPECT_FALSE(status.taskTimerRunning());
    EXPECT_FALSE(status.taskOnRunQueue());
  }
  EXPECT_EQ(TaskPriority::low, b->taskPriority());
  EXPECT_EQ(0u, r->timerRunningCount());
  EXPECT_EQ(0u, *r->jitterSeed());
}

TEST(TimerTask, CurrentExpirationTimeOfAnIdleTaskIsInfinity) {
  Ptr<CountingRoot> r = freshRoot();
  Ptr<TestTimerTask> t = timerTaskIs(r, "idle");
  EXPECT_EQ(infinity, t->currentExpirationTime());
  // Back to idle after a timer and after a queue place.
  t->scheduleTaskDelay(4.0);
  t->stopTimerTask();
  EXPECT_EQ(infinity, t->currentExpirationTime());
  t->scheduleTask();
  t->stopTimerTask();
  EXPECT_EQ(infinity, t->currentExpirationTime());
}

TEST(TimerTask, CurrentExpirationTimeIsNowOnTheQueueAndTheExpiryWhileTheTimerRuns) {
  Ptr<CountingRoot> r = freshRoot();
  Ptr<TestTimerTask> t = timerTaskIs(r, "due");
  Bracket started = bracket([&] { t->scheduleTaskDelay(7.5); });
  const double expiry = t->currentExpirationTime();
  expectExpiryAfter(started, 7.5, expiry);
  t->scheduleTask();
  double due = 0.0;
  Bracket read = bracket([&] { due = t->currentExpirationTime(); });
  EXPECT_LE(read.before, due);
  EXPECT_GE(read.after, due);
  t->stopTimerTask();
}

// --- a timer's life through the event loop -----------------------------------------------------

TEST(TimerTask, DelayedTaskRunsOnceAtItsExpiryWithHistoryAndBusyReports) {
  FastForwardOn ff;
  Ptr<CountingRoot> r = freshRoot();
  Ptr<TestTimerTask> t = timerTaskIs(r, "delayed");
  Bracket started = bracket([&] { t->scheduleTaskDelay(5.0); });
  const double expiry = t->currentExpirationTime();
  expectExpiryAfter(started, 5.0, expiry);
  EXPECT_TRUE(t->taskScheduled());
  EXPECT_TRUE(t->timerRunning());
  EXPECT_FALSE(t->onRunQueue());
  EXPECT_TRUE(t->taskStatus().taskTimerRunning());
  EXPECT_EQ(1u, r->timerRunningCount());
  EXPECT_TRUE(r->schedulerBusy());
  EXPECT_FALSE(r->schedulerHasRunnableTasks());
  EXPECT_GT(t->timerRemaining(), 4.0);
  EXPECT_LE(t->timerRemaining(), 5.0);

  Platform::doEventLoop(60.0);
  EXPECT_EQ(1u, t->runs);
  ASSERT_EQ(1u, t->runTimes.size());
  EXPECT_GE(t->runTimes[0], expiry);
  EXPECT_FALSE(t->timerRunning());
  EXPECT_FALSE(t->taskScheduled());
  EXPECT_EQ(0u, r->timerRunningCount());
  EXPECT_FALSE(r->schedulerBusy());
  EXPECT_EQ((std::vector<bool>{true, false}), t->busyReports);
  EXPECT_EQ((std::vector<std::string>{"create", "timerStart", "busy", "schedule", "run start", "run end", "idle"}),
            taskEvents(*r, *t));
}

TEST(TimerTask, DurationDelayRunsAtItsExpiry) {
  FastForwardOn ff;
  Ptr<CountingRoot> r = freshRoot();
  Ptr<TestTimerTask> t = timerTaskIs(r, "delayedNs");
  Bracket started = bracket([&] { t->scheduleTaskDelay(TaskTimeDuration(2500000000)); });
  const double expiry = t->currentExpirationTime();
  expectExpiryAfter(started, 2.5, expiry);
  Platform::doEventLoop(60.0);
  ASSERT_EQ(1u, t->runs);
  EXPECT_GE(t->runTimes[0], expiry);
}

TEST(TimerTask, TaskThatAsksAgainFromItsRunRunsAgainAfterEachDelay) {
  FastForwardOn ff;
  Ptr<CountingRoot> r = freshRoot();
  std::vector<double> expiries;
  Ptr<TestTimerTask> t = timerTaskIs(r, "periodic", [&](TestTimerTask& self) {
    if (self.runs < 5) {
      self.scheduleTaskDelay(60.0);
      expiries.push_back(self.currentExpirationTime());
    }
  });
  t->scheduleTaskDelay(60.0);
  expiries.push_back(t->currentExpirationTime());
  Platform::doEventLoop(1000.0);
  ASSERT_EQ(5u, t->runs);
  for (unsigned i = 0; i < 5; ++i)
    EXPECT_GE(t->runTimes[i], expiries[i]) << i;
  EXPECT_GE(t->runTimes[4] - t->runTimes[0], 240.0);
  EXPECT_EQ(5u, taskEventCount(*r, *t, TaskSchedulerEventType::timerStart));
}

// --- delay of zero -------------------------------------------------------------------------------

TEST(TimerTask, DelayOfZeroOnARunningTimerDropsTheTimerAndQueuesTheTask) {
  const std::vector<std::pair<const char*, std::function<void(TimerTask&)>>> forms = {
      {"delay seconds", [](TimerTask& t) { t.scheduleTaskDelay(0.0); }},
      {"delay duration", [](TimerTask& t) { t.scheduleTaskDelay(TaskTimeDuration(0)); }},
      {"lowest seconds", [](TimerTask& t) { t.scheduleTaskLowestDelay(0.0); }},
      {"lowest duration", [](TimerTask& t) { t.scheduleTaskLowestDelay(TaskTimeDuration(0)); }},
  };
  for (const auto& [name, zero] : forms) {
    SCOPED_TRACE(name);
    FastForwardOn ff;
    Ptr<CountingRoot> r = freshRoot();
    Ptr<TestTimerTask> t = timerTaskIs(r, "zero");
    t->scheduleTaskDelay(5.0);
    ASSERT_TRUE(t->timerRunning());
    zero(*t);
    EXPECT_TRUE(t->onRunQueue());
    EXPECT_FALSE(t->timerRunning());
    EXPECT_EQ(infinity, t->timerRemaining());
    EXPECT_EQ(0u, r->timerRunningCount());
    EXPECT_TRUE(t->taskScheduled());
    // Dropped, not stopped: no timerStop event.
    EXPECT_EQ(0u, taskEventCount(*r, *t, TaskSchedulerEventType::timerStop));
    // A minute of virtual time: one run from the queue; the dropped timer
    // does not fire.
    Platform::doEventLoop(60.0);
    EXPECT_EQ(1u, t->runs);
  }
}

TEST(TimerTask, DelayOfZeroOnAnIdleTaskQueuesIt) {
  Ptr<CountingRoot> r = freshRoot();
  Ptr<TestTimerTask> t = timerTaskIs(r, "zeroIdle");
  t->scheduleTaskDelay(0.0);
  EXPECT_TRUE(t->onRunQueue());
  EXPECT_EQ(0u, taskEventCount(*r, *t, TaskSchedulerEventType::timerStart));
  Platform::doEventLoop();
  EXPECT_EQ(1u, t->runs);
}

// --- a queued task and a new delay -------------------------------------------------------------

TEST(TimerTask, NonZeroDelayTakesAQueuedTaskOffTheQueueAndStartsTheTimer) {
  const std::vector<std::pair<const char*, std::function<void(TimerTask&)>>> forms = {
      {"delay seconds", [](TimerTask& t) { t.scheduleTaskDelay(2.0); }},
      {"delay duration", [](TimerTask& t) { t.scheduleTaskDelay(TaskTimeDuration(2000000000)); }},
      {"jitter up", [](TimerTask& t) { t.scheduleTaskJitterUp(2.0, 0); }},
      {"jitter down", [](TimerTask& t) { t.scheduleTaskJitterDown(TaskTimeDuration(2000000000), 0); }},
  };
  for (const auto& [name, delay] : forms) {
    SCOPED_TRACE(name);
    FastForwardOn ff;
    Ptr<CountingRoot> r = freshRoot();
    Ptr<TestTimerTask> t = timerTaskIs(r, "queued");
    t->scheduleTask();
    ASSERT_TRUE(t->onRunQueue());
    EXPECT_EQ(1u, r->runnableTaskCount());
    Bracket started = bracket([&] { delay(*t); });
    EXPECT_FALSE(t->onRunQueue());
    EXPECT_TRUE(t->timerRunning());
    EXPECT_EQ(0u, r->runnableTaskCount());
    EXPECT_EQ(1u, r->timerRunningCount());
    const double expiry = t->currentExpirationTime();
    expectExpiryAfter(started, 2.0, expiry);
    // Busy all along: no idle report between queue and timer.
    EXPECT_EQ((std::vector<bool>{true}), t->busyReports);
    EXPECT_EQ((std::vector<std::string>{"create", "schedule", "busy", "unschedule", "timerStart"}),
              taskEvents(*r, *t));
    Platform::doEventLoop(60.0);
    ASSERT_EQ(1u, t->runs);
    EXPECT_GE(t->runTimes[0], expiry);
  }
}

// --- lowest delay ----------------------------------------------------------------------------------

TEST(TimerTask, LowestDelayLaterThanTheRemainingTimeLeavesTheExpiryAlone) {
  Ptr<CountingRoot> r = freshRoot();
  Ptr<TestTimerTask> t = timerTaskIs(r, "lowestKeeps");
  t->scheduleTaskDelay(2.0);
  const double expiry = t->currentExpirationTime();
  ASSERT_EQ(1u, taskEventCount(*r, *t, TaskSchedulerEventType::timerStart));
  {
    TraceCapture trace;
    t->scheduleTaskLowestDelay(5.0);
    EXPECT_EQ(expiry, t->currentExpirationTime());
    t->scheduleTaskLowestDelay(TaskTimeDuration(5000000000));
    EXPECT_EQ(expiry, t->currentExpirationTime());
    const std::string expected = traceLine(8, "scheduleTaskDelayedPrivate",
                                           fmt::format("Timer already running {} expire {}", shown(*t), expiry));
    const std::vector<std::string> lines = trace.linesWith("Timer already running");
    ASSERT_EQ(2u, lines.size()) << trace.text();
    for (const std::string& line : lines) {
      EXPECT_TRUE(endsWith(line, expected)) << line;
      EXPECT_EQ(0u, line.find("TaskScheduler 8 ")) << line;
    }
    EXPECT_TRUE(trace.linesWith("Timer started").empty());
  }
  EXPECT_EQ(1u, taskEventCount(*r, *t, TaskSchedulerEventType::timerStart));
  EXPECT_TRUE(t->timerRunning());
  t->stopTimerTask();
}

TEST(TimerTask, LowestDelayEarlierThanTheRemainingTimeMovesTheExpiry) {
  FastForwardOn ff;
  Ptr<CountingRoot> r = freshRoot();
  Ptr<TestTimerTask> t = timerTaskIs(r, "lowestMoves");
  t->scheduleTaskDelay(8.0);
  const double late = t->currentExpirationTime();
  Bracket moved;
  {
    TraceCapture trace;
    moved = bracket([&] { t->scheduleTaskLowestDelay(5.0); });
    const std::string line = trace.onlyLineWith("Timer started");
    EXPECT_TRUE(endsWith(line, traceLine(8, "scheduleTaskDelayedPrivate",
                                             fmt::format("Timer started {} delay {}", shown(*t), 5.0))))
        << line;
  }
  const double expiry = t->currentExpirationTime();
  expectExpiryAfter(moved, 5.0, expiry);
  EXPECT_LT(expiry, late);
  EXPECT_EQ(2u, taskEventCount(*r, *t, TaskSchedulerEventType::timerStart));
  EXPECT_EQ(1u, r->timerRunningCount());
  Platform::doEventLoop(60.0);
  ASSERT_EQ(1u, t->runs);
  EXPECT_GE(t->runTimes[0], expiry);
}

TEST(TimerTask, OfASeriesOfLowestDelaysTheEarliestExpiryWins) {
  FastForwardOn ff;
  Ptr<CountingRoot> r = freshRoot();
  Ptr<TestTimerTask> t = timerTaskIs(r, "series");
  t->scheduleTaskLowestDelay(7.0);
  Bracket earliest = bracket([&] { t->scheduleTaskLowestDelay(3.0); });
  const double expiry = t->currentExpirationTime();
  t->scheduleTaskLowestDelay(9.0);
  t->scheduleTaskLowestDelay(TaskTimeDuration(4000000000));
  t->scheduleTaskLowestDelay(3.5);
  EXPECT_EQ(expiry, t->currentExpirationTime());
  expectExpiryAfter(earliest, 3.0, expiry);
  EXPECT_EQ(2u, taskEventCount(*r, *t, TaskSchedulerEventType::timerStart));
  Platform::doEventLoop(60.0);
  ASSERT_EQ(1u, t->runs);
  EXPECT_GE(t->runTimes[0], expiry);
}

TEST(TimerTask, LowestDelayLeavesAQueuedTaskOnTheQueue) {
  Ptr<CountingRoot> r = freshRoot();
  Ptr<TestTimerTask> t = timerTaskIs(r, "stays");
  t->scheduleTask();
  {
    TraceCapture trace;
    t->scheduleTaskLowestDelay(5.0);
    t->scheduleTaskLowestDelay(TaskTimeDuration(1000));
    const std::vector<std::string> lines = trace.linesWith("Already on runQueue");
    ASSERT_EQ(2u, lines.size()) << trace.text();
    EXPECT_TRUE(endsWith(lines[0], traceLine(8, "scheduleTaskDelayedPrivate", "Already on runQueue " + shown(*t))))
        << lines[0];
  }
  EXPECT_TRUE(t->onRunQueue());
  EXPECT_FALSE(t->timerRunning());
  EXPECT_EQ(0u, taskEventCount(*r, *t, TaskSchedulerEventType::unschedule));
  Platform::doEventLoop();
  EXPECT_EQ(1u, t->runs);
}

// --- endless delays --------------------------------------------------------------------------------

TEST(TimerTask, EndlessDelayIsStopTimerTask) {
  const std::vector<std::pair<const char*, std::function<void(TimerTask&)>>> forms = {
      {"stopTimerTask", [](TimerTask& t) { t.stopTimerTask(); }},
      {"delay seconds", [](TimerTask& t) { t.scheduleTaskDelay(infinity); }},
      {"delay duration", [](TimerTask& t) { t.scheduleTaskDelay(TaskTimeDuration::max()); }},
      {"jitter up seconds", [](TimerTask& t) { t.scheduleTaskJitterUp(infinity, 50); }},
      {"jitter down duration", [](TimerTask& t) { t.scheduleTaskJitterDown(TaskTimeDuration::max(), 50); }},
  };
  std::vector<std::string> reference;
  for (const auto& [name, endless] : forms) {
    SCOPED_TRACE(name);
    FastForwardOn ff;
    Ptr<CountingRoot> r = freshRoot();
    Ptr<TestTimerTask> t = timerTaskIs(r, "endless");
    t->scheduleTaskDelay(5.0);
    {
      TraceCapture trace;
      endless(*t);
      const std::string line = trace.onlyLineWith("Timer stopped");
      EXPECT_TRUE(endsWith(line, traceLine(9, "stopTimerTask", fmt::format("Timer stopped {}, was running",
                                                                            shown(*t)))))
          << line;
    }
    EXPECT_FALSE(t->timerRunning());
    EXPECT_FALSE(t->taskScheduled());
    EXPECT_EQ(0u, r->timerRunningCount());
    // No random number is drawn for an endless delay.
    EXPECT_EQ(0u, *r->jitterSeed());
    t->scheduleTask();
    endless(*t);
    EXPECT_FALSE(t->onRunQueue());
    Platform::doEventLoop(60.0);
    EXPECT_EQ(0u, t->runs);
    const std::vector<std::string> events = taskEvents(*r, *t);
    if (reference.empty())
      reference = events;
    EXPECT_EQ(reference, events);
  }
  EXPECT_EQ((std::vector<std::string>{"create", "timerStart", "busy", "timerStop", "idle", "schedule", "busy",
                                      "unschedule", "idle"}),
            reference);
}

TEST(TimerTask, EndlessLowestDelayAsserts) {
  Ptr<CountingRoot> r = freshRoot();
  Ptr<TestTimerTask> t = timerTaskIs(r, "lowestEndless");
  t->scheduleTaskDelay(5.0);
  const double expiry = t->currentExpirationTime();
  const std::string seconds = assertText([&] { t->scheduleTaskLowestDelay(infinity); });
  EXPECT_TRUE(endsWith(seconds, traceText("_scheduleTaskLowestDelay", "delayIntoFuture: inf"))) << seconds;
  const std::string duration = assertText([&] { t->scheduleTaskLowestDelay(TaskTimeDuration::max()); });
  EXPECT_TRUE(endsWith(duration, traceText("_scheduleTaskLowestDelay",
                                           fmt::format("delayIntoFuture: {}", TaskTimeDuration::max()))))
      << duration;
  // Refused before anything changed.
  EXPECT_EQ(expiry, t->currentExpirationTime());
  EXPECT_TRUE(t->timerRunning());
  t->stopTimerTask();
}

TEST(TimerTaskDeathTest, EndlessLowestDelayEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  Ptr<CountingRoot> r = freshRoot();
  Ptr<TestTimerTask> t = timerTaskIs(r, "lowestDeath");
  ASSERT_FALSE(throwOnAssertFail());
  // Nothing catches the assertion: it leaves a noexcept frame, as it would
  // leave the event loop of a program, and the process ends.
  EXPECT_DEATH([&]() noexcept { t->scheduleTaskLowestDelay(infinity); }(), "delayIntoFuture: inf");
}

// --- jitter ------------------------------------------------------------------------------------------

TEST(TimerTask, JitterUpWithZeroPercentDrawsARandomNumberAndSchedulesAfterExactlyTheDelay) {
  Ptr<CountingRoot> r = freshRoot();
  Ptr<TestTimerTask> t = timerTaskIs(r, "jitterZero");
  unsigned expectedSeed = 0;
  ASSERT_EQ(expectedSeed, *r->jitterSeed());
  {
    TraceCapture trace;
    Bracket seconds = bracket([&] { t->scheduleTaskJitterUp(3.0, 0); });
    advanceSeed(expectedSeed);
    EXPECT_EQ(expectedSeed, *r->jitterSeed());
    expectExpiryAfter(seconds, 3.0, t->currentExpirationTime());
    const std::string line = trace.onlyLineWith("Timer jitterUp");
    EXPECT_TRUE(endsWith(line, traceLine(9, "_scheduleTaskJitterUp",
                                             fmt::format("Timer jitterUp {} delay 3 + 0 = 3", shown(*t)))))
        << line;
  }
  Bracket duration = bracket([&] { t->scheduleTaskJitterUp(TaskTimeDuration(3000000000), 0); });
  advanceSeed(expectedSeed);
  EXPECT_EQ(expectedSeed, *r->jitterSeed());
  expectExpiryAfter(duration, 3.0, t->currentExpirationTime());
  t->stopTimerTask();
}

TEST(TimerTask, JitterDownWithTheTopStepAndAHundredPercentSchedulesAtOnce) {
  const std::vector<std::pair<const char*, std::function<void(TimerTask&)>>> forms = {
      {"seconds", [](TimerTask& t) { t.scheduleTaskJitterDown(3.0, 100); }},
      {"duration", [](TimerTask& t) { t.scheduleTaskJitterDown(TaskTimeDuration(3000000000), 100); }},
  };
  for (const auto& [name, jitterDown] : forms) {
    SCOPED_TRACE(name);
    FastForwardOn ff;
    Ptr<CountingRoot> r = freshRoot();
    Ptr<TestTimerTask> t = timerTaskIs(r, "jitterTop");
    r->jitterSeedIsForTest(topStepSeed);
    ASSERT_EQ(100u, nextJitterStep(topStepSeed));
    t->scheduleTaskDelay(10.0);
    {
      TraceCapture trace;
      jitterDown(*t);
      const std::string line = trace.onlyLineWith("Timer jitterDown");
      const std::string expected =
          std::string(name) == "seconds"
              ? fmt::format("Timer jitterDown {} delay 3 - 3 = 0", shown(*t))
              : fmt::format("Timer jitterDown {} delay {} - {} = {}", shown(*t), TaskTimeDuration(3000000000),
                            TaskTimeDuration(3000000000), TaskTimeDuration(0));
      EXPECT_TRUE(endsWith(line, traceLine(9, "_scheduleTaskJitterDown", expected))) << line;
    }
    EXPECT_TRUE(t->onRunQueue());
    EXPECT_FALSE(t->timerRunning());
    EXPECT_EQ(0u, r->timerRunningCount());
    Platform::doEventLoop(60.0);
    EXPECT_EQ(1u, t->runs);
  }
}

TEST(TimerTask, JitterOffsetIsAWholePercentageOfThePercentageOfTheDelay) {
  Ptr<CountingRoot> r = freshRoot();
  Ptr<TestTimerTask> t = timerTaskIs(r, "jitterSteps");
  unsigned seed = 0;
  TraceCapture trace;
  std::vector<std::string> expected;
  std::set<unsigned> steps;
  for (int i = 0; i < 40; ++i) {
    const unsigned step = nextJitterStep(seed);
    advanceSeed(seed);
    steps.insert(step);
    const bool up = i % 2 == 0;
    // 40% of 100 s: a step of s gives 0.4 * s seconds.
    const double offset = step * (40 * 100.0) / 10000.0;
    Bracket b = bracket([&] {
      if (up)
        t->scheduleTaskJitterUp(100.0, 40);
      else
        t->scheduleTaskJitterDown(100.0, 40);
    });
    const double total = up ? 100.0 + offset : 100.0 - offset;
    expectExpiryAfter(b, total, t->currentExpirationTime());
    expected.push_back(fmt::format("Timer jitter{} {} delay 100 {} {} = {}", up ? "Up" : "Down", shown(*t),
                                   up ? '+' : '-', offset, total));
  }
  EXPECT_EQ(seed, *r->jitterSeed());
  // The draws do vary.
  EXPECT_GT(steps.size(), 20u);
  const std::vector<std::string> lines = trace.linesWith("Timer jitter");
  ASSERT_EQ(expected.size(), lines.size());
  for (std::size_t i = 0; i < lines.size(); ++i)
    EXPECT_EQ(traceLine(9, i % 2 == 0 ? "_scheduleTaskJitterUp" : "_scheduleTaskJitterDown", expected[i]), lines[i]);
  t->stopTimerTask();
}

TEST(TimerTask, DurationJitterOffsetTruncatesToWholeNanoseconds) {
  Ptr<CountingRoot> r = freshRoot();
  Ptr<TestTimerTask> t = timerTaskIs(r, "jitterTruncates");
  unsigned seed = 12345;
  r->jitterSeedIsForTest(seed);
  for (int i = 0; i < 20; ++i) {
    const unsigned step = nextJitterStep(seed);
    advanceSeed(seed);
    Bracket b = bracket([&] { t->scheduleTaskJitterUp(TaskTimeDuration(1000000333), 7); });
    // step * (7 * 1000000333) / 10000, truncated to whole nanoseconds, then
    // in the wheel's seconds.
    const double total = double(1000000333 + I64(step) * (7 * I64(1000000333)) / 10000) / 1e9;
    expectExpiryAfter(b, total, t->currentExpirationTime());
  }
  t->stopTimerTask();
}

TEST(TimerTask, DurationJitterOverflowsAboveTwoToThe63OverTenThousandNanoseconds) {
  // Below the bound the offset is exact: a hundred percent of ten days at
  // the top step doubles the delay.
  const I64 tenDays = I64(10) * 86400 * 1000000000;
  const I64 elevenDays = I64(11) * 86400 * 1000000000;
  const I64 bound = I64((__int128(1) << 63) / 10000);
  ASSERT_LT(tenDays, bound);
  ASSERT_GT(elevenDays, bound);
  Ptr<CountingRoot> r = freshRoot();
  Ptr<TestTimerTask> t = timerTaskIs(r, "jitterOverflow");

  r->jitterSeedIsForTest(topStepSeed);
  Bracket exact = bracket([&] { t->scheduleTaskJitterUp(TaskTimeDuration(tenDays), 100); });
  expectExpiryAfter(exact, double(2 * tenDays) / 1e9, t->currentExpirationTime());

  // Above it the product 100 * (100 * delay) wraps in 64 bits: the offset
  // comes out negative and the timer fires long before delay + delay.
  const __int128 trueProduct = __int128(100) * (100 * __int128(elevenDays));
  ASSERT_GT(trueProduct, __int128(std::numeric_limits<I64>::max()));
  const I64 wrapped = I64(U64(trueProduct));
  const I64 offset = wrapped / 10000;
  ASSERT_LT(offset, 0);
  r->jitterSeedIsForTest(topStepSeed);
  Bracket overflowed = bracket([&] { t->scheduleTaskJitterUp(TaskTimeDuration(elevenDays), 100); });
  const double total = double(elevenDays + offset) / 1e9;
  expectExpiryAfter(overflowed, total, t->currentExpirationTime());
  EXPECT_LT(t->currentExpirationTime(), overflowed.before + double(elevenDays) / 1e9);

  // The seconds form has no such limit.
  r->jitterSeedIsForTest(topStepSeed);
  Bracket seconds = bracket([&] { t->scheduleTaskJitterUp(double(elevenDays) / 1e9, 100); });
  expectExpiryAfter(seconds, 2 * double(elevenDays) / 1e9, t->currentExpirationTime());
  t->stopTimerTask();
}

TEST(TimerTask, JitterPercentageAboveAHundredAsserts) {
  Ptr<CountingRoot> r = freshRoot();
  Ptr<TestTimerTask> t = timerTaskIs(r, "jitterPercent");
  t->scheduleTaskDelay(5.0);
  const double expiry = t->currentExpirationTime();
  // 101 is the letter 'e': the percentage is written as a character.
  const std::string up = assertText([&] { t->scheduleTaskJitterUp(5.0, 101); });
  EXPECT_TRUE(endsWith(up, traceText("jitterOffset", "maxJitterPercentage: e > 100"))) << up;
  const std::string down = assertText([&] { t->scheduleTaskJitterDown(TaskTimeDuration(5000), 101); });
  EXPECT_TRUE(endsWith(down, traceText("jitterOffset", "maxJitterPercentage: e > 100"))) << down;
  const std::string upNs = assertText([&] { t->scheduleTaskJitterUp(TaskTimeDuration(5000), 'z'); });
  EXPECT_TRUE(endsWith(upNs, traceText("jitterOffset", "maxJitterPercentage: z > 100"))) << upNs;
  // Refused before a number was drawn and before the timer moved.
  EXPECT_EQ(0u, *r->jitterSeed());
  EXPECT_EQ(expiry, t->currentExpirationTime());
  // A hundred is allowed.
  t->scheduleTaskJitterUp(5.0, 100);
  EXPECT_NE(0u, *r->jitterSeed());
  t->stopTimerTask();
}

TEST(TimerTask, JitterOffsetGreaterThanTheDelayAsserts) {
  // A negative delay gives a negative offset, which is greater than it.
  Ptr<CountingRoot> r = freshRoot();
  Ptr<TestTimerTask> t = timerTaskIs(r, "jitterOffset");
  unsigned seed = 4242;
  r->jitterSeedIsForTest(seed);
  const double offset = nextJitterStep(seed) * (50 * -10.0) / 10000.0;
  const std::string seconds = assertText([&] { t->scheduleTaskJitterUp(-10.0, 50); });
  EXPECT_TRUE(endsWith(seconds, traceText("jitterOffset",
                                          fmt::format("offset( {} ) > delayIntoFuture( -10 )", offset))))
      << seconds;
  advanceSeed(seed);
  const TaskTimeDuration delay(-10000000000);
  const TaskTimeDuration offsetNs(I64(nextJitterStep(seed)) * (50 * delay.count()) / 10000);
  const std::string duration = assertText([&] { t->scheduleTaskJitterDown(delay, 50); });
  EXPECT_TRUE(endsWith(duration, traceText("jitterOffset",
                                           fmt::format("offset( {} ) > delayIntoFuture( {} )", offsetNs, delay))))
      << duration;
  EXPECT_FALSE(t->taskScheduled());
}

TEST(TimerTask, SameCallsGiveTheSameJitterInTwoFreshProcesses) {
  // Each child process makes a root and a timer task, draws forty jitters
  // and writes their trace lines to a pipe.
  auto runChild = []() -> std::string {
    int fds[2];
    if (pipe(fds) != 0) {
      ADD_FAILURE() << "pipe";
      return {};
    }
    const pid_t pid = fork();
    if (pid == 0) {
      close(fds[0]);
      dup2(fds[1], STDERR_FILENO);
      Debug::taskScheduler->enabledIs(9, true);
      Ptr<CountingRoot> r = CountingRoot::rootIs("replay");
      Ptr<TestTimerTask> t = timerTaskIs(r, "replay");
      for (int i = 0; i < 20; ++i) {
        t->scheduleTaskJitterUp(100.0, 50);
        t->scheduleTaskJitterDown(TaskTimeDuration(1000000000), 30);
      }
      t->stopTimerTask();
      _exit(0);
    }
    close(fds[1]);
    std::string out;
    char buffer[4096];
    for (ssize_t n; (n = read(fds[0], buffer, sizeof buffer)) > 0;)
      out.append(buffer, std::size_t(n));
    close(fds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    return out;
  };
  // The values of the lines: what follows the task.
  auto values = [](const std::string& text) {
    std::vector<std::string> found;
    std::size_t at = 0;
    while ((at = text.find("Timer jitter", at)) != std::string::npos) {
      const std::size_t end = text.find('\n', at);
      const std::string line = text.substr(at, end - at);
      found.push_back(line.substr(0, line.find(' ', 13)) + line.substr(line.find(" delay ")));
      at = end;
    }
    return found;
  };
  const std::vector<std::string> first = values(runChild());
  const std::vector<std::string> second = values(runChild());
  ASSERT_EQ(40u, first.size());
  EXPECT_EQ(first, second);
  // And they are the draws of rand_r from 0.
  unsigned seed = 0;
  for (int i = 0; i < 20; ++i) {
    const unsigned step = nextJitterStep(seed);
    advanceSeed(seed);
    const double offset = step * (50 * 100.0) / 10000.0;
    EXPECT_EQ(fmt::format("Timer jitterUp delay 100 + {} = {}", offset, 100.0 + offset), first[2 * i]);
    advanceSeed(seed);
  }
}

// --- stopping -----------------------------------------------------------------------------------------

TEST(TimerTask, StopTimerTaskOnAnIdleTaskWritesNoHistoryEvent) {
  Ptr<CountingRoot> r = freshRoot();
  Ptr<TestTimerTask> t = timerTaskIs(r, "stopIdle");
  const unsigned events = r->historyEventCount();
  const TaskSchedulerHistory::Event newest = (*r->taskSchedulerHistory())[0];
  {
    TraceCapture trace;
    t->stopTimerTask();
    const std::string line = trace.onlyLineWith("Timer stopped");
    EXPECT_TRUE(endsWith(line, traceLine(9, "stopTimerTask", fmt::format("Timer stopped {}, was not running",
                                                                          shown(*t)))))
        << line;
  }
  EXPECT_EQ(events, r->historyEventCount());
  EXPECT_EQ(newest.eventType, (*r->taskSchedulerHistory())[0].eventType);
  EXPECT_EQ(newest.timestamp, (*r->taskSchedulerHistory())[0].timestamp);
  EXPECT_TRUE(t->busyReports.empty());
}

TEST(TimerTask, StopTimerTaskDropsTheTimerAndTheQueuePlace) {
  FastForwardOn ff;
  Ptr<CountingRoot> r = freshRoot();
  Ptr<TestTimerTask> t = timerTaskIs(r, "stop");
  t->scheduleTaskDelay(5.0);
  t->stopTimerTask();
  EXPECT_FALSE(t->timerRunning());
  EXPECT_EQ(infinity, t->timerRemaining());
  EXPECT_EQ(0u, r->timerRunningCount());
  EXPECT_FALSE(r->schedulerBusy());
  t->scheduleTask();
  t->stopTimerTask();
  EXPECT_FALSE(t->onRunQueue());
  EXPECT_EQ(0u, r->runnableTaskCount());
  Platform::doEventLoop(60.0);
  EXPECT_EQ(0u, t->runs);
  EXPECT_EQ((std::vector<bool>{true, false, true, false}), t->busyReports);
  EXPECT_EQ((std::vector<std::string>{"create", "timerStart", "busy", "timerStop", "idle", "schedule", "busy",
                                      "unschedule", "idle"}),
            taskEvents(*r, *t));
}

TEST(TimerTask, ScheduleTaskDropsARunningTimerWithoutATimerStopEvent) {
  FastForwardOn ff;
  Ptr<CountingRoot> r = freshRoot();
  Ptr<TestTimerTask> t = timerTaskIs(r, "now");
  t->scheduleTaskDelay(5.0);
  t->scheduleTask();
  EXPECT_TRUE(t->onRunQueue());
  EXPECT_FALSE(t->timerRunning());
  EXPECT_EQ(0u, r->timerRunningCount());
  EXPECT_EQ(0u, taskEventCount(*r, *t, TaskSchedulerEventType::timerStop));
  Platform::doEventLoop(60.0);
  EXPECT_EQ(1u, t->runs);
}

TEST(TimerTask, TaskRunFromTestDropsARunningTimerAndRuns) {
  FastForwardOn ff;
  Ptr<CountingRoot> r = freshRoot();
  Ptr<TestTimerTask> t = timerTaskIs(r, "fromTest");
  t->scheduleTaskDelay(5.0);
  t->taskRunFromTest();
  EXPECT_EQ(1u, t->runs);
  EXPECT_FALSE(t->timerRunning());
  EXPECT_EQ(0u, r->timerRunningCount());
  Platform::doEventLoop(60.0);
  EXPECT_EQ(1u, t->runs);
}

TEST(TimerTask, DestroyingATaskWithARunningTimerTakesItOutOfTheWheel) {
  FastForwardOn ff;
  Ptr<CountingRoot> r = freshRoot();
  Ptr<TestTimerTask> t = timerTaskIs(r, "gone");
  t->scheduleTaskDelay(5.0);
  Ptr<TestTimerTask> other = timerTaskIs(r, "stays");
  other->scheduleTaskDelay(6.0);
  EXPECT_EQ(2u, r->timerRunningCount());
  t = nullptr;
  EXPECT_EQ(1u, r->timerRunningCount());
  // The wheel fires the other timer and never reaches the destroyed one.
  Platform::doEventLoop(60.0);
  EXPECT_EQ(1u, other->runs);
  EXPECT_EQ(0u, r->timerRunningCount());
  EXPECT_TRUE(r->timerWheel()->timersExpiryingSoon().empty() ||
              r->timerWheel()->timersExpiryingSoon().begin()->second.empty());
}

// --- status, remaining time, threads -------------------------------------------------------------

TEST(TimerTask, TaskStatusCarriesTheTwoTimerBits) {
  Ptr<CountingRoot> r = freshRoot();
  Ptr<TestTimerTask> t = timerTaskIs(r, "status");
  EXPECT_TRUE(t->taskStatus().taskTimer());
  EXPECT_FALSE(t->taskStatus().taskTimerRunning());
  t->scheduleTaskDelay(1.0);
  EXPECT_TRUE(t->taskStatus().taskTimer());
  EXPECT_TRUE(t->taskStatus().taskTimerRunning());
  EXPECT_FALSE(t->taskStatus().taskOnRunQueue());
  t->scheduleTask();
  EXPECT_TRUE(t->taskStatus().taskTimer());
  EXPECT_FALSE(t->taskStatus().taskTimerRunning());
  EXPECT_TRUE(t->taskStatus().taskOnRunQueue());
  t->stopTimerTask();
  // The rest is TaskImpl's.
  t->taskSuspendedIs(true);
  EXPECT_TRUE(t->taskStatus().taskSuspended());
  EXPECT_TRUE(t->taskStatus().taskTimer());
  t->taskSuspendedIs(false);
  t->stopTimerTask();
}

TEST(TimerTask, TimerRemainingCountsDownToZeroAndIsInfiniteWithoutATimer) {
  static double wheelNow = 0.0;
  wheelNow = 1000.0;
  timerWheelClockIsForTest([] { return wheelNow; });
  Ptr<CountingRoot> r = freshRoot();
  Ptr<TestTimerTask> t = timerTaskIs(r, "remaining");
  EXPECT_EQ(infinity, t->timerRemaining());
  t->scheduleTaskDelay(2.5);
  EXPECT_EQ(1002.5, t->currentExpirationTime());
  EXPECT_EQ(2.5, t->timerRemaining());
  wheelNow = 1001.0;
  EXPECT_EQ(1.5, t->timerRemaining());
  wheelNow = 1010.0;
  EXPECT_EQ(0.0, t->timerRemaining());
  t->stopTimerTask();
  EXPECT_EQ(infinity, t->timerRemaining());
  timerWheelClockIsForTest(nullptr);
}

TEST(TimerTask, OperationsCheckTheOwnerThreadExceptTimerRemaining) {
  Ptr<CountingRoot> r = freshRoot();
  Ptr<TestTimerTask> t = timerTaskIs(r, "owned");
  t->scheduleTaskDelay(5.0);
  const std::vector<std::pair<const char*, std::function<void()>>> checked = {
      {"scheduleTaskDelay", [&] { t->scheduleTaskDelay(1.0); }},
      {"scheduleTaskDelay ns", [&] { t->scheduleTaskDelay(TaskTimeDuration(1)); }},
      {"scheduleTaskLowestDelay", [&] { t->scheduleTaskLowestDelay(1.0); }},
      {"scheduleTaskLowestDelay ns", [&] { t->scheduleTaskLowestDelay(TaskTimeDuration(1)); }},
      {"scheduleTaskJitterUp", [&] { t->scheduleTaskJitterUp(1.0, 5); }},
      {"scheduleTaskJitterDown ns", [&] { t->scheduleTaskJitterDown(TaskTimeDuration(1), 5); }},
      {"stopTimerTask", [&] { t->stopTimerTask(); }},
      {"taskScheduled", [&] { (void)t->taskScheduled(); }},
      {"currentExpirationTime", [&] { (void)t->currentExpirationTime(); }},
  };
  for (const auto& [name, call] : checked) {
    std::string text;
    std::thread([&] { text = assertText(call); }).join();
    EXPECT_NE(std::string::npos, text.find("Executing in wrong thread")) << name << ": " << text;
  }
  // Answered without a check. (Another thread's clock has its own virtual
  // time offset, so the value itself is not this thread's.)
  double remaining = 0.0;
  std::thread([&] { remaining = t->timerRemaining(); }).join();
  EXPECT_GT(remaining, 0.0);
  EXPECT_LT(remaining, infinity);
  // Nothing changed.
  EXPECT_TRUE(t->timerRunning());
  EXPECT_EQ(0u, *r->jitterSeed());
  t->stopTimerTask();
}

TEST(TimerTask, TimerNotRunningAfterARefusedStartAsserts) {
  Ptr<CountingRoot> r = freshRoot();
  Ptr<TestTimerTask> t = timerTaskIs(r, "refused");
  const std::string text = assertText([&] { TimerTaskTestAccess::failTimerNotRunning(*t); });
  EXPECT_TRUE(endsWith(text, traceText("scheduleTaskDelayedPrivate", "Task: " + shown(*t)))) << text;
}

// --- timers and the rest of the scheduler -----------------------------------------------------------

TEST(TimerTask, TimerOfACriticalTaskFiresInsideAnotherTasksLongRun) {
  FastForwardOn ff;
  Ptr<CountingRoot> r = freshRoot();
  Ptr<TestTimerTask> critical = timerTaskIs(r, "criticalTimerTest", {}, TaskPriority::critical);
  unsigned criticalRunsInside = 0;
  Ptr<TestTask> worker = rootTaskIs(r, TaskPriority::normal, "longWorker", [&](TestTask&) {
    // The worker holds the thread past the timer's expiry.
    Platform::fastForwardBy(2.0);
    r->runCriticalPriorityTasks();
    criticalRunsInside = critical->runs;
  });
  critical->scheduleTaskDelay(1.0);
  const double expiry = critical->currentExpirationTime();
  worker->scheduleTask();
  Platform::doEventLoop(10.0);
  EXPECT_EQ(1u, worker->runs);
  EXPECT_EQ(1u, criticalRunsInside);
  ASSERT_EQ(1u, critical->runs);
  EXPECT_GE(critical->runTimes[0], expiry);
}

TEST(TimerTask, TimerOfATaskOfAnotherSchedulerOfTheRootFiresFromTheRootsWheel) {
  FastForwardOn ff;
  Ptr<CountingRoot> r = freshRoot();
  Ptr<SubScheduler> sub = SubScheduler::subIs("subTimers", r.get());
  Ptr<TestTimerTask> t = timerTaskIs(sub, "subTimer");
  t->scheduleTaskDelay(3.0);
  EXPECT_EQ(1u, sub->timerRunningCount());
  EXPECT_TRUE(sub->schedulerBusy());
  Platform::doEventLoop(60.0);
  // The root's wheel fired it onto the group's queue.
  EXPECT_TRUE(t->onRunQueue());
  EXPECT_EQ(0u, sub->timerRunningCount());
  EXPECT_EQ(1u, sub->runnableTaskCount());
  sub->_handleSchedulerRun(TaskPriority::scavenge);
  EXPECT_EQ(1u, t->runs);
}

// --- never early --------------------------------------------------------------------------------------

TEST(TimerTask, NeverRunsBeforeItsExpiryInRealTime) {
  Ptr<CountingRoot> r = freshRoot();
  std::vector<Ptr<TestTimerTask>> tasks;
  std::vector<double> expiries;
  for (int i = 0; i < 20; ++i) {
    tasks.push_back(timerTaskIs(r, String(fmt::format("real{}", i))));
    if (i % 2)
      tasks.back()->scheduleTaskDelay(0.001 * (1 + i % 5));
    else
      tasks.back()->scheduleTaskDelay(TaskTimeDuration(1000000 * (1 + i % 5)));
    expiries.push_back(tasks.back()->currentExpirationTime());
  }
  // Returns once nothing is left to wait for: every timer has run.
  Platform::doEventLoop();
  for (std::size_t i = 0; i < tasks.size(); ++i) {
    ASSERT_EQ(1u, tasks[i]->runs) << i;
    EXPECT_GE(tasks[i]->runTimes[0], expiries[i]) << i;
  }
}

TEST(TimerTask, NeverRunsBeforeItsExpiryUnderFastForwardOverHours) {
  FastForwardOn ff;
  Ptr<CountingRoot> r = freshRoot();
  constexpr unsigned taskCount = 2000;
  constexpr unsigned runsEach = 5;
  std::vector<Ptr<TestTimerTask>> tasks;
  std::vector<std::vector<double>> expiries(taskCount);
  for (unsigned i = 0; i < taskCount; ++i) {
    // From one second to two hours, spread over the tasks.
    const double delay = 1.0 + double((i * 7919u) % 7200u);
    tasks.push_back(timerTaskIs(r, String(fmt::format("ff{}", i)), [&, i, delay](TestTimerTask& self) {
      if (self.runs < runsEach) {
        if (i % 3 == 0)
          self.scheduleTaskJitterUp(delay, 30);
        else if (i % 3 == 1)
          self.scheduleTaskJitterDown(TaskTimeDuration(I64(delay * 1e9)), 30);
        else
          self.scheduleTaskDelay(delay);
        expiries[i].push_back(self.currentExpirationTime());
      }
    }));
    tasks.back()->scheduleTaskJitterUp(delay, 50);
    expiries[i].push_back(tasks.back()->currentExpirationTime());
  }
  const double start = Kesto::time();
  Platform::doEventLoop(40 * 3600.0);
  double last = start;
  for (unsigned i = 0; i < taskCount; ++i) {
    ASSERT_EQ(runsEach, tasks[i]->runs) << i;
    for (unsigned k = 0; k < runsEach; ++k)
      ASSERT_GE(tasks[i]->runTimes[k], expiries[i][k]) << i << " run " << k;
    last = std::max(last, tasks[i]->runTimes[runsEach - 1]);
  }
  // Hours of virtual time went by between the first arming and the last run.
  EXPECT_GE(last - start, 5 * 3600.0);
  EXPECT_EQ(0u, r->timerRunningCount());
}
