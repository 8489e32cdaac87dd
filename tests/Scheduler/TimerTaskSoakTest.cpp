// 100,000 timer tasks (the shortened form of the million-timer soak that
// bench/timersoak_bench.cpp runs) with random delays from 1 ms to 30 days,
// half of them stopped or re-armed at random moments, run to the end in
// fast forward through the real event loop and the root scheduler.
#include "RootTestSupport.h"

#include <KestoSupport/TimerSoak.h>

#include <gtest/gtest.h>

using namespace KestoTest;

namespace {

// The full 100,000 under the sanitizers too: about 1.5 s plain and a few
// seconds under AddressSanitizer and UndefinedBehaviorSanitizer.
constexpr unsigned long soakTimers = 100000;

TEST(TimerTaskSoak, EveryLiveTimerFiresOnceNeverEarlyNoneAfterItsStopAndMemoryStaysFlat) {
  FastForwardOn ff;
  KestoSupport::TimerSoak soak(soakTimers, 20261124);
  const KestoSupport::TimerSoakResult r = soak.run();
  // Half of the timers had an action, about half of those a stop.
  EXPECT_GT(r.stops, soakTimers / 6);
  EXPECT_GT(r.armings, soakTimers + soakTimers / 6);
  EXPECT_EQ(r.firings, r.firingsExpected);
  EXPECT_GT(r.rearms, soakTimers / 6);
  EXPECT_EQ(r.firingsExpected, r.armings - r.rearms - r.stops);
  EXPECT_EQ(r.wrongCount, 0u);
  EXPECT_EQ(r.early, 0u);
  EXPECT_EQ(r.afterStop, 0u);
  // The run reached the far end of the delays: 30 days and more.
  EXPECT_GT(r.virtualSeconds, 29.0 * KestoSupport::TimerSoak::day);
  ASSERT_GT(r.residentAfterFirstDay, 0);
  const double ratio = double(r.residentAtEnd) / double(r.residentAfterFirstDay);
  EXPECT_LT(ratio, 1.05) << "after the first day " << r.residentAfterFirstDay << " bytes, at the end "
                         << r.residentAtEnd;
  EXPECT_GT(ratio, 0.95) << "after the first day " << r.residentAfterFirstDay << " bytes, at the end "
                         << r.residentAtEnd;
  RecordProperty("realSeconds", std::to_string(r.realSeconds));
  RecordProperty("peakResidentBytes", std::to_string(r.peakResident));
}

} // namespace
