// Timer tasks given delays that are no ordinary number of seconds: not a
// number, negative, zero, endless, huge, denormal. A delay that is not a
// number is refused before anything changes; every other one gives a task
// that never runs before the expiry it was given.
#include "TimerTaskTestSupport.h"

#include <KestoSupport/AssertMessage.h>

#include <Kesto/Platform/Platform.h>
#include <Kesto/Scheduler/TaskSchedulerRoot.h>

#include <fmt/format.h>

#include <cmath>
#include <functional>
#include <limits>
#include <random>
#include <string>
#include <utility>
#include <vector>

using namespace KestoTest;

namespace {

constexpr double notANumber = std::numeric_limits<double>::quiet_NaN();

Ptr<CountingRoot> freshRoot(const String& name = "hostileRoot") {
  Ptr<CountingRoot> r = CountingRoot::rootIs(name);
  r->historyEntryCountIs(100000);
  return r;
}

unsigned historyEventsOf(const TaskSchedulerRoot& root, const TimerTask& task) {
  unsigned n = 0;
  for (const TaskSchedulerHistory::Event& e : *root.taskSchedulerHistory())
    n += e.identifier == task.taskHistoryIdentifier();
  return n;
}

// The whole message of the refusal, after the file and line.
std::string refusal(const char* function, const TimerTask& task) {
  return fmt::format("TimerTask::{}() Delay is not a number: task {}", function, task);
}

struct NotANumberCall {
  const char* name;
  const char* function; // the operation the assertion names
  std::function<void(TimerTask&)> call;
};

// Every operation that takes a delay in seconds, given a delay that is not a
// number. (The nanosecond forms cannot be given one.)
std::vector<NotANumberCall> notANumberCalls() {
  return {
      {"scheduleTaskDelay", "_scheduleTaskDelay", [](TimerTask& t) { t.scheduleTaskDelay(notANumber); }},
      {"scheduleTaskDelay -nan", "_scheduleTaskDelay", [](TimerTask& t) { t.scheduleTaskDelay(-notANumber); }},
      {"scheduleTaskLowestDelay", "_scheduleTaskLowestDelay",
       [](TimerTask& t) { t.scheduleTaskLowestDelay(notANumber); }},
      {"scheduleTaskJitterUp", "_scheduleTaskJitterUp", [](TimerTask& t) { t.scheduleTaskJitterUp(notANumber, 10); }},
      {"scheduleTaskJitterUp 0%", "_scheduleTaskJitterUp", [](TimerTask& t) { t.scheduleTaskJitterUp(NAN, 0); }},
      {"scheduleTaskJitterDown", "_scheduleTaskJitterDown",
       [](TimerTask& t) { t.scheduleTaskJitterDown(notANumber, 50); }},
      {"scheduleTaskJitterDown 100%", "_scheduleTaskJitterDown",
       [](TimerTask& t) { t.scheduleTaskJitterDown(NAN, 100); }},
  };
}

// What a refused call must leave as it was.
struct TaskPicture {
  bool onRunQueue;
  bool timerRunning;
  double expiry;
  unsigned timersOfRoot;
  unsigned runnable;
  unsigned seed;
  unsigned events;
  std::vector<bool> busyReports;

  static TaskPicture of(CountingRoot& root, const TestTimerTask& task) {
    return {task.onRunQueue(),
            task.timerRunning(),
            task.currentExpirationTime(),
            root.timerRunningCount(),
            unsigned(root.runnableTaskCount()),
            *root.jitterSeed(),
            historyEventsOf(root, task),
            task.busyReports};
  }
};

void expectSame(const TaskPicture& before, const TaskPicture& after) {
  EXPECT_EQ(before.onRunQueue, after.onRunQueue);
  EXPECT_EQ(before.timerRunning, after.timerRunning);
  EXPECT_EQ(before.expiry == infinity, after.expiry == infinity);
  EXPECT_EQ(before.timersOfRoot, after.timersOfRoot);
  EXPECT_EQ(before.runnable, after.runnable);
  EXPECT_EQ(before.seed, after.seed) << "a random number was drawn";
  EXPECT_EQ(before.events, after.events) << "a history event was written";
  EXPECT_EQ(before.busyReports, after.busyReports);
}

// Makes call `c` on `task`, which must refuse it with its whole text and
// leave the task and its root as they were.
void expectRefused(const NotANumberCall& c, CountingRoot& root, TestTimerTask& task) {
  const TaskPicture before = TaskPicture::of(root, task);
  const std::string text = assertText([&] { c.call(task); });
  EXPECT_EQ(assertMessage(text), refusal(c.function, task));
  expectSame(before, TaskPicture::of(root, task));
}

} // namespace

TEST(TimerTaskHostileDelay, DelayThatIsNotANumberIsRefusedOnAnIdleTaskWhichStaysIdle) {
  for (const NotANumberCall& c : notANumberCalls()) {
    SCOPED_TRACE(c.name);
    Ptr<CountingRoot> r = freshRoot();
    Ptr<TestTimerTask> t = timerTaskIs(r, "nanIdle");
    expectRefused(c, *r, *t);
    EXPECT_FALSE(t->taskScheduled());
    EXPECT_EQ(infinity, t->currentExpirationTime());
    EXPECT_EQ(infinity, t->timerRemaining());
    EXPECT_FALSE(t->taskStatus().taskTimerRunning());
  }
}

TEST(TimerTaskHostileDelay, DelayThatIsNotANumberLeavesARunningTimerAtItsExpiry) {
  FastForwardOn ff;
  for (const NotANumberCall& c : notANumberCalls()) {
    SCOPED_TRACE(c.name);
    Ptr<CountingRoot> r = freshRoot();
    Ptr<TestTimerTask> t = timerTaskIs(r, "nanRunning");
    t->scheduleTaskDelay(3.0);
    const double expiry = t->currentExpirationTime();
    expectRefused(c, *r, *t);
    EXPECT_TRUE(t->timerRunning());
    EXPECT_EQ(expiry, t->currentExpirationTime());
    // The timer still fires, by itself, at the time it had.
    Platform::doEventLoop(60.0);
    ASSERT_EQ(1u, t->runs);
    EXPECT_GE(t->runTimes[0], expiry);
  }
}

TEST(TimerTaskHostileDelay, DelayThatIsNotANumberLeavesAQueuedTaskOnTheQueue) {
  for (const NotANumberCall& c : notANumberCalls()) {
    SCOPED_TRACE(c.name);
    Ptr<CountingRoot> r = freshRoot();
    Ptr<TestTimerTask> t = timerTaskIs(r, "nanQueued");
    t->scheduleTask();
    expectRefused(c, *r, *t);
    EXPECT_TRUE(t->onRunQueue());
    EXPECT_FALSE(t->timerRunning());
    Platform::doEventLoop();
    EXPECT_EQ(1u, t->runs);
  }
}

TEST(TimerTaskHostileDelay, JitterBeyondTheRangeOfADoubleIsRefusedRatherThanMadeNotANumber) {
  // 100% of 1e308 is beyond the largest double: the random step of 0 would
  // make 0 * inf, an offset that is not a number.
  Ptr<CountingRoot> r = freshRoot();
  Ptr<TestTimerTask> t = timerTaskIs(r, "jitterHuge");
  unsigned seed = 0;
  while (nextJitterStep(seed) != 0)
    ++seed;
  // The same product at run time, for the sign the machine gives its NaN.
  volatile double huge = 1e308;
  const double offset = 0u * (100 * huge) / 10000.0;
  ASSERT_TRUE(std::isnan(offset));
  const std::string expected = fmt::format("TimerTask::jitterOffset() offset( {} ) > delayIntoFuture( 1e+308 )", offset);
  r->jitterSeedIsForTest(seed);
  const std::string up = assertText([&] { t->scheduleTaskJitterUp(1e308, 100); });
  EXPECT_EQ(assertMessage(up), expected);
  r->jitterSeedIsForTest(seed);
  const std::string down = assertText([&] { t->scheduleTaskJitterDown(1e308, 100); });
  EXPECT_EQ(assertMessage(down), expected);
  EXPECT_FALSE(t->taskScheduled());
  EXPECT_EQ(infinity, t->currentExpirationTime());
}

// Thousands of timer tasks armed with random and hostile delays through every
// operation, with refused attempts mixed in, and run in fast forward: not
// one may run before the expiry it had when it was last armed.
TEST(TimerTaskHostileDelay, NoTaskRunsBeforeItsExpiryWhateverTheDelays) {
  FastForwardOn ff;
  // Huge expiries are clamped to the wheel's last tick, which the wheel
  // traces at level 0: those lines, and only those, are expected.
  TraceCapture wheelTrace({0}, *Kesto::Debug::kestoTimerWheel);
  Ptr<CountingRoot> r = freshRoot();
  constexpr unsigned taskCount = 3000;
  constexpr double horizon = 100.0; // every ordinary expiry lies before it

  struct Armed {
    Ptr<TestTimerTask> task;
    double expiry = infinity; // when it may run, as armed
  };
  std::vector<Armed> armed(taskCount);
  for (unsigned i = 0; i < taskCount; ++i)
    armed[i].task = timerTaskIs(r, fmt::format("hostile{}", i).c_str());

  std::mt19937_64 rng(20240611);
  std::uniform_real_distribution<double> ordinary(0.0, 5.0);
  std::uniform_int_distribution<int> kindOf(0, 15);
  std::uniform_int_distribution<int> operationOf(0, 5);
  std::uniform_int_distribution<int> percentOf(0, 100);
  const double denormal = std::numeric_limits<double>::denorm_min();

  // A delay in seconds: mostly ordinary, else one of the hostile kinds.
  auto delayOf = [&]() -> double {
    switch (kindOf(rng)) {
    case 0: return 0.0;
    case 1: return -ordinary(rng);
    case 2: return -infinity;
    case 3: return infinity;
    case 4: return 1e300;
    case 5: return std::numeric_limits<double>::max() / 1000.0;
    case 6: return denormal;
    case 7: return -denormal;
    case 8: return 1e-310;
    case 9: return ordinary(rng) * 1e-9;
    default: return ordinary(rng);
    }
  };

  unsigned refused = 0;
  // Arms task `a` with a fresh delay through one of the operations.
  auto arm = [&](Armed& a) {
    TestTimerTask& t = *a.task;
    const double delay = delayOf();
    switch (operationOf(rng)) {
    case 0:
      t.scheduleTaskDelay(delay);
      break;
    case 1:
      // The endless delay has no meaning here and is refused by its own
      // assertion; a lowest delay never postpones.
      if (delay == infinity)
        t.scheduleTaskDelay(delay);
      else
        t.scheduleTaskLowestDelay(delay);
      break;
    case 2:
      // Whole nanoseconds, within what the integer form holds.
      if (std::isfinite(delay) && std::fabs(delay) < 9e9)
        t.scheduleTaskDelay(TaskTimeDuration(std::llround(delay * 1e9)));
      else
        t.scheduleTaskDelay(delay);
      break;
    case 3:
    case 4: {
      // Jitter only where the offset stays within the delay: positive and
      // in the double's range.
      const unsigned char percent = static_cast<unsigned char>(percentOf(rng));
      const bool jitterable = delay > 0.0 && delay <= 1e300;
      if (jitterable && operationOf(rng) % 2 == 0)
        t.scheduleTaskJitterUp(delay, percent);
      else if (jitterable)
        t.scheduleTaskJitterDown(delay, percent);
      else
        t.scheduleTaskDelay(delay);
      break;
    }
    default: {
      // A refused attempt: nothing may change.
      const bool wasRunning = t.timerRunning();
      const double expiry = t.currentExpirationTime();
      const std::string text = assertText([&] { t.scheduleTaskDelay(notANumber); });
      EXPECT_EQ(assertMessage(text), refusal("_scheduleTaskDelay", t));
      EXPECT_EQ(wasRunning, t.timerRunning());
      if (wasRunning) {
        EXPECT_EQ(expiry, t.currentExpirationTime());
      }
      ++refused;
      break;
    }
    }
    a.expiry = t.currentExpirationTime();
  };

  for (Armed& a : armed)
    arm(a);
  // Some are armed again, moving a running timer or a queue place.
  for (unsigned i = 0; i < taskCount; i += 3)
    arm(armed[i]);

  // Expected to run: whatever is due before the horizon.
  const double end = Kesto::time() + horizon;
  unsigned expected = 0, never = 0;
  for (const Armed& a : armed) {
    if (a.expiry < end)
      ++expected;
    else
      ++never;
    EXPECT_FALSE(std::isnan(a.expiry));
  }
  ASSERT_GT(refused, 100u);
  ASSERT_GT(never, 100u);

  unsigned ran = 0;
  for (unsigned turn = 0; ran < expected; ++turn) {
    ASSERT_LT(turn, 10000u) << ran << " of " << expected << " ran";
    Platform::doEventLoopInWaitfor(10.0);
    ran = 0;
    for (const Armed& a : armed)
      ran += a.task->runs;
  }
  EXPECT_LT(Kesto::time(), end);

  unsigned early = 0;
  for (unsigned i = 0; i < taskCount; ++i) {
    const Armed& a = armed[i];
    const TestTimerTask& t = *a.task;
    if (a.expiry >= end) {
      EXPECT_EQ(0u, t.runs) << i;
      continue;
    }
    ASSERT_EQ(1u, t.runs) << i << " armed for " << a.expiry;
    if (t.runTimes[0] < a.expiry)
      ++early;
    EXPECT_GE(t.runTimes[0], a.expiry) << i;
  }
  EXPECT_EQ(0u, early);
  for (Armed& a : armed)
    a.task->stopTimerTask();
  EXPECT_EQ(0u, r->timerRunningCount());
  const std::vector<std::string> lines = wheelTrace.lines();
  EXPECT_EQ(lines.size(), wheelTrace.linesWith("TimerWheel::timeToTickOverflowCheck() truncating ticks from ").size())
      << wheelTrace.text();
}
