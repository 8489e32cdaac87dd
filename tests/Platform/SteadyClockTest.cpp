// The library's steady clock: its source, its bound against CLOCK_MONOTONIC,
// monotonicity on a thread, across threads and across fork, and timers that
// never fire early as Kesto::time() sees them. The whole platform, scheduler
// and timer wheel suites run a second time with KESTO_CLOCK_NO_TSC set
// (tests/CMakeLists.txt), which forces the fallback on them all.
#include <KestoSupport/MallocCounter.h>
#include <KestoSupport/PlatformTestSupport.h>

#include <Kesto/Platform/SteadyClock.h>
#include <Kesto/Platform/Time.h>
#include <Kesto/Scheduler/TaskTypes.h>
#include <Kesto/TimerWheel/TimerWheel.h>

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace Kesto {
namespace {

using PlatformTest::TestTimeoutHandler;

I64 monotonicNanos() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return I64(ts.tv_sec) * 1'000'000'000 + I64(ts.tv_nsec);
}

// Reads (CLOCK_MONOTONIC, ours, CLOCK_MONOTONIC) until `nanos` of
// CLOCK_MONOTONIC have gone by, and fails on the first reading ahead of the
// later CLOCK_MONOTONIC or behind the earlier one by more than the bound.
// Returns the largest trail seen.
I64 checkAgreementFor(I64 nanos) {
  I64 largestTrail = 0;
  const I64 end = monotonicNanos() + nanos;
  for (I64 before = monotonicNanos(); before < end; before = monotonicNanos()) {
    const I64 ours = steadyClockNanos();
    const I64 after = monotonicNanos();
    EXPECT_LE(ours, after) << "ahead of CLOCK_MONOTONIC by " << ours - after << " ns";
    EXPECT_LE(before - ours, steadyClockErrorBoundNanos) << "behind CLOCK_MONOTONIC by " << before - ours << " ns";
    if (ours > after || before - ours > steadyClockErrorBoundNanos)
      return before - ours;
    largestTrail = std::max(largestTrail, before - ours);
  }
  return largestTrail;
}

bool cpuHasFlag(const std::string& flag) {
  std::ifstream cpuinfo("/proc/cpuinfo");
  std::string line;
  while (std::getline(cpuinfo, line)) {
    if (line.rfind("flags", 0) != 0)
      continue;
    std::istringstream words(line.substr(line.find(':') + 1));
    std::string word;
    while (words >> word)
      if (word == flag)
        return true;
    return false;
  }
  return false;
}

std::string kernelClockSource() {
  std::ifstream file("/sys/devices/system/clocksource/clocksource0/current_clocksource");
  std::string name;
  file >> name;
  return name;
}

TEST(SteadyClock, UsesTheCounterExactlyWhereItIsInvariantAndTheKernelsClock) {
  const bool forcedOff = std::getenv("KESTO_CLOCK_NO_TSC") != nullptr;
  const bool eligible = cpuHasFlag("constant_tsc") && cpuHasFlag("nonstop_tsc") && kernelClockSource() == "tsc";
  const SteadyClockSource expected =
      !forcedOff && eligible ? SteadyClockSource::timeStampCounter : SteadyClockSource::monotonic;
  EXPECT_EQ(toString(expected), std::string(toString(steadyClockSource())));
}

TEST(SteadyClock, TheEnvironmentVariableForcesTheFallback) {
  // The source is chosen once per process, so the choice under the variable
  // is seen in a fresh process: this test program again, running only the
  // test above, which expects the fallback when the variable is set.
  if (std::getenv("KESTO_CLOCK_NO_TSC"))
    GTEST_SKIP() << "already running under the fallback";
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    setenv("KESTO_CLOCK_NO_TSC", "", 1);
    execl("/proc/self/exe", "test_platform",
          "--gtest_filter=SteadyClock.UsesTheCounterExactlyWhereItIsInvariantAndTheKernelsClock", nullptr);
    _exit(127);
  }
  int status = 0;
  ASSERT_EQ(child, waitpid(child, &status, 0));
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(0, WEXITSTATUS(status));
}

TEST(SteadyClock, NamesItsSources) {
  EXPECT_STREQ("timeStampCounter", toString(SteadyClockSource::timeStampCounter));
  EXPECT_STREQ("monotonic", toString(SteadyClockSource::monotonic));
  EXPECT_STREQ("invalid SteadyClockSource", toString(SteadyClockSource(7)));
}

TEST(SteadyClock, NeverAheadOfMonotonicNorBehindBeyondTheBoundOverManyAnchors) {
  // 50 ms of back-to-back readings cross about 50 re-anchorings.
  checkAgreementFor(50'000'000);
  // Idle gaps of 0 to 3 ms: the first reading after each is more than an
  // interval from its anchor and takes a new one.
  for (int gap = 0; gap < 30; ++gap) {
    timespec wait{0, long(gap % 4) * 1'000'000};
    nanosleep(&wait, nullptr);
    checkAgreementFor(200'000);
  }
}

TEST(SteadyClock, KestoTimeAndTaskClockAreTheSteadyClock) {
  for (int i = 0; i < 100000; ++i) {
    const I64 before = monotonicNanos();
    const double seconds = Kesto::time() - leVirtualTimeOffset();
    const I64 stamp = taskClockNow().time_since_epoch().count();
    const I64 after = monotonicNanos();
    // A double of nanoseconds since boot rounds by well under a microsecond.
    ASSERT_LE(seconds, double(after) / 1e9 + 1e-6);
    ASSERT_GE(seconds, double(before - steadyClockErrorBoundNanos) / 1e9 - 1e-6);
    ASSERT_LE(stamp, after);
    ASSERT_GE(stamp, before - steadyClockErrorBoundNanos);
  }
}

TEST(SteadyClock, MonotonicOnOneThread) {
  I64 last = steadyClockNanos();
  const I64 end = monotonicNanos() + 30'000'000;
  long readings = 0;
  while (monotonicNanos() < end) {
    for (int i = 0; i < 1000; ++i, ++readings) {
      const I64 now = steadyClockNanos();
      ASSERT_GE(now, last) << "reading " << readings;
      last = now;
    }
  }
}

TEST(SteadyClock, MonotonicAcrossThreadsHandingReadingsBackAndForth) {
  // Each thread reads the clock right after it sees the other's reading, and
  // must not get less: a reading that happens after another, through
  // memory, is not smaller, whichever core each ran on.
  std::atomic<int> turn{0};
  std::atomic<I64> reading{steadyClockNanos()};
  std::atomic<long> violations{0};
  constexpr int rounds = 20000;
  auto player = [&](int me) {
    for (int round = 0; round < rounds; ++round) {
      // Yielding: on a loaded machine the other thread may be off its core.
      while (turn.load(std::memory_order_acquire) != me)
        std::this_thread::yield();
      const I64 seen = reading.load(std::memory_order_relaxed);
      const I64 now = steadyClockNanos();
      if (now < seen)
        violations.fetch_add(1, std::memory_order_relaxed);
      reading.store(now, std::memory_order_relaxed);
      turn.store(me ^ 1, std::memory_order_release);
    }
  };
  std::thread a(player, 0), b(player, 1);
  a.join();
  b.join();
  EXPECT_EQ(0, violations.load());
}

TEST(SteadyClock, MonotonicAcrossThreadsReadingTogetherAcrossAnchors) {
  // Two threads read for 30 ms, so that both race to take new anchors; each
  // publishes its latest reading, and the other's latest, read before its
  // own next reading, must not exceed it.
  std::atomic<I64> latest[2] = {0, 0};
  std::atomic<long> violations{0};
  const I64 end = monotonicNanos() + 30'000'000;
  auto reader = [&](int me) {
    while (monotonicNanos() < end) {
      for (int i = 0; i < 1000; ++i) {
        const I64 other = latest[me ^ 1].load(std::memory_order_acquire);
        const I64 now = steadyClockNanos();
        if (now < other)
          violations.fetch_add(1);
        latest[me].store(now, std::memory_order_release);
      }
    }
  };
  std::thread a(reader, 0), b(reader, 1);
  a.join();
  b.join();
  EXPECT_EQ(0, violations.load());
}

TEST(SteadyClock, MonotonicAndWithinTheBoundAcrossFork) {
  const I64 parentReading = steadyClockNanos();
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    // No gtest in the child: the exit code carries the verdict.
    int code = 0;
    if (steadyClockNanos() < parentReading)
      code = 1;
    // Long enough for several new anchors in the child.
    const I64 end = monotonicNanos() + 5'000'000;
    I64 last = steadyClockNanos();
    while (code == 0 && monotonicNanos() < end) {
      const I64 before = monotonicNanos();
      const I64 ours = steadyClockNanos();
      const I64 after = monotonicNanos();
      if (ours < last)
        code = 2;
      else if (ours > after || before - ours > steadyClockErrorBoundNanos)
        code = 3;
      last = ours;
    }
    _exit(code);
  }
  int status = 0;
  ASSERT_EQ(child, waitpid(child, &status, 0));
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(0, WEXITSTATUS(status)) << "1: below the parent's reading, 2: backwards, 3: outside the bound";
  EXPECT_GE(steadyClockNanos(), parentReading);
}

TEST(SteadyClock, ReadingsAndNewAnchorsAllocateNothing) {
  if (!KestoSupport::mallocCountingWorks())
    GTEST_SKIP() << "allocations are not counted in this build";
  steadyClockNanos(); // the source is chosen
  const unsigned long before = KestoSupport::mallocCalls();
  const I64 end = monotonicNanos() + 5'000'000;
  I64 sum = 0;
  while (monotonicNanos() < end) {
    sum += steadyClockNanos();
    sum += I64(Kesto::time());
  }
  EXPECT_EQ(before, KestoSupport::mallocCalls());
  EXPECT_NE(0, sum);
}

// ---- no timer early ---------------------------------------------------------

// Arms `count` timers from `makeTimer` with delays of 0.1 to 3 ms and runs the
// loop until all have fired: each must see Kesto::time() at least its arming
// reading plus its delay.
template <typename MakeTimer>
void thousandsOfShortTimersNeverEarly(MakeTimer makeTimer) {
  constexpr int count = 3000;
  std::vector<TestTimeoutHandler> handlers(count);
  std::vector<Ptr<Platform::TimerControl>> timers;
  std::vector<double> dueAt(count), firedAt(count, -1.0);
  timers.reserve(count);
  for (int i = 0; i < count; ++i) {
    handlers[i].onTimeout = [&firedAt, i] { firedAt[i] = Kesto::time(); };
    timers.push_back(makeTimer(&handlers[i]));
  }
  for (int i = 0; i < count; ++i) {
    const double delay = 0.0001 + double((i * 7919) % 2900) * 1e-6;
    const double now = Kesto::time();
    timers[i]->setTimeout(delay);
    dueAt[i] = now + delay;
  }
  // Returns once nothing is left to wait for: every timer has fired.
  Platform::doEventLoop();
  for (int i = 0; i < count; ++i) {
    ASSERT_EQ(1, handlers[i].timeouts) << i;
    ASSERT_GE(firedAt[i], dueAt[i]) << "timer " << i << " early by " << (dueAt[i] - firedAt[i]) * 1e9 << " ns";
  }
}

TEST(SteadyClock, ThousandsOfShortLibeventTimersNeverFireEarly) {
  thousandsOfShortTimersNeverEarly([](TestTimeoutHandler* h) { return Platform::getTimerControl(h); });
}

TEST(SteadyClock, ThousandsOfShortWheelTimersNeverFireEarly) {
  auto wheel = getTimerWheelForTaskScheduler(Platform::eventPriorityStrictHigh);
  thousandsOfShortTimersNeverEarly([&](TestTimeoutHandler* h) { return Platform::getTimerControl(h, wheel); });
}

} // namespace
} // namespace Kesto
