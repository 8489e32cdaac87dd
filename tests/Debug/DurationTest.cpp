#include <Kesto/EventKesto.h>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <sstream>
#include <type_traits>

using namespace std::chrono_literals;
using Kesto::durationToString;
using Kesto::TaskDurationMs;

// The millisecond form takes the scheduler's own type, not a look-alike.
static_assert(std::is_same_v<TaskDurationMs, std::chrono::duration<std::uint32_t, std::milli>>);

namespace Kesto {
// The stream output is for code of the library's namespace.
std::string streamed(std::chrono::nanoseconds d) {
  std::ostringstream os;
  os << d;
  return os.str();
}
} // namespace Kesto

TEST(Duration, UnitBoundaries) {
  EXPECT_EQ(durationToString(999ns), "999ns");
  EXPECT_EQ(durationToString(1000ns), "1\u00b5s");
  EXPECT_EQ(durationToString(999999ns), "999\u00b5s");
  EXPECT_EQ(durationToString(1000000ns), "1ms");
  EXPECT_EQ(durationToString(59999999999ns), "59999ms");
  EXPECT_EQ(durationToString(60000000000ns), "60s");
  EXPECT_EQ(durationToString(3599999999999ns), "3599s");
  EXPECT_EQ(durationToString(std::chrono::nanoseconds(1h)), "60min");
}

TEST(Duration, MicroSignIsTwoBytes) {
  const Kesto::String text = durationToString(1000ns);
  ASSERT_EQ(text.size(), 4u);
  EXPECT_EQ(static_cast<unsigned char>(text[1]), 0xc2);
  EXPECT_EQ(static_cast<unsigned char>(text[2]), 0xb5);
}

TEST(Duration, BelowAMinuteStaysInMilliseconds) {
  EXPECT_EQ(durationToString(std::chrono::nanoseconds(59s)), "59000ms");
  EXPECT_EQ(durationToString(std::chrono::nanoseconds(61s)), "61s");
  EXPECT_EQ(durationToString(std::chrono::nanoseconds(59min)), "3540s");
}

TEST(Duration, ValuesAreCutNotRounded) {
  EXPECT_EQ(durationToString(1999ns), "1\u00b5s");
  EXPECT_EQ(durationToString(std::chrono::nanoseconds(119min + 59s)), "119min");
}

TEST(Duration, NegativeValuesAreNanoseconds) {
  EXPECT_EQ(durationToString(-5ns), "-5ns");
  EXPECT_EQ(durationToString(std::chrono::nanoseconds(-2s)), "-2000000000ns");
}

TEST(Duration, MillisecondOverloadMultipliesWithoutOverflow) {
  EXPECT_EQ(durationToString(TaskDurationMs(0)), "0ns");
  EXPECT_EQ(durationToString(TaskDurationMs(1)), "1ms");
  EXPECT_EQ(durationToString(TaskDurationMs(59000)), "59000ms");
  EXPECT_EQ(durationToString(TaskDurationMs(59999)), "59999ms");
  EXPECT_EQ(durationToString(TaskDurationMs(60000)), "60s");
  EXPECT_EQ(durationToString(TaskDurationMs(3599999)), "3599s");
  EXPECT_EQ(durationToString(TaskDurationMs(3600000)), "60min");
  EXPECT_EQ(durationToString(TaskDurationMs(INT32_MAX)), "35791min");
}

TEST(Duration, MillisecondsAboveTheSignedRangeStayPositive) {
  // Values with the top bit set are large durations, not negative ones.
  EXPECT_EQ(durationToString(TaskDurationMs(std::uint32_t(INT32_MAX) + 1)), "35791min");
  EXPECT_EQ(durationToString(TaskDurationMs(3000000000u)), "50000min");
  EXPECT_EQ(durationToString(TaskDurationMs(UINT32_MAX - 1)), "71582min");
  EXPECT_EQ(durationToString(TaskDurationMs(UINT32_MAX)), "71582min");
  EXPECT_EQ(durationToString(TaskDurationMs::max()), "71582min");
}

TEST(Duration, FormattersAndStreamWriteTheSameText) {
  for (std::chrono::nanoseconds d : {999ns, 1500ns, 2500000ns, std::chrono::nanoseconds(90s)}) {
    EXPECT_EQ(fmt::format("{}", d), durationToString(d).str());
    EXPECT_EQ(Kesto::streamed(d), durationToString(d).str());
  }
  EXPECT_EQ(fmt::format("{}", TaskDurationMs(61000)), "61s");
  EXPECT_EQ(fmt::format("{}", TaskDurationMs::max()), "71582min");
  EXPECT_EQ(Kesto::fmtracestr(false, nullptr, "f", "g", 1, "took {}", 42ns), "took 42ns");
}

// Other chrono durations go in as they are, written as their nanoseconds.
TEST(Duration, OtherDurationTypesAreWrittenAsNanoseconds) {
  EXPECT_EQ(durationToString(std::chrono::milliseconds(5)), "5ms");
  EXPECT_EQ(durationToString(std::chrono::milliseconds(-5)), "-5000000ns");
  EXPECT_EQ(durationToString(std::chrono::seconds(90)), "90s");
  EXPECT_EQ(durationToString(std::chrono::microseconds(1500)), "1ms");
  EXPECT_EQ(durationToString(std::chrono::minutes(2)), "120s");
  EXPECT_EQ(durationToString(std::chrono::duration<double>(0.25)), "250ms");
}
