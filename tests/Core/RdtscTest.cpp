#include <Kesto/Core/Rdtsc.h>

#include <gtest/gtest.h>

#include <future>
#include <vector>

using Kesto::Rdtsc;
using Kesto::U64;

TEST(Rdtsc, TicksDoNotGoBackwards) {
  U64 last = Rdtsc::ticks();
  for (int i = 0; i < 100000; ++i) {
    const U64 now = Rdtsc::ticks();
    ASSERT_GE(now, last);
    last = now;
  }
}

TEST(Rdtsc, CalibrationRateIsPositiveAndMeasuredOnce) {
  // Several threads asking at once all get the one measured value.
  std::vector<std::future<double>> asks;
  for (int i = 0; i < 4; ++i)
    asks.push_back(std::async(std::launch::async, [] { return Rdtsc::calibrationRate(); }));
  const double rate = Rdtsc::calibrationRate();
  EXPECT_GT(rate, 0.0);
  for (auto& f : asks)
    EXPECT_EQ(f.get(), rate);
  EXPECT_EQ(Rdtsc::calibrationRate(), rate);
}

TEST(Rdtsc, ConvertsBetweenTicksAndSeconds) {
  const double rate = Rdtsc::calibrationRate();
  EXPECT_DOUBLE_EQ(Rdtsc::ticksToSeconds(0), 0.0);
  EXPECT_NEAR(Rdtsc::ticksToSeconds(static_cast<U64>(rate * 2)), 2.0, 1e-6);
  EXPECT_EQ(Rdtsc::secondsToTicks(0), 0u);
  EXPECT_EQ(Rdtsc::secondsToTicks(-1), 0u);
  EXPECT_NEAR(double(Rdtsc::secondsToTicks(0.5)), rate / 2, 1.0);
}
