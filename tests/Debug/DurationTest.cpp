#include <Kesto/EventKesto.h>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <chrono>
#include <sstream>

using namespace std::chrono_literals;
using Kesto::durationToString;
using Milliseconds32 = std::chrono::duration<int32_t, std::milli>;

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
  EXPECT_EQ(durationToString(Milliseconds32(0)), "0ns");
  EXPECT_EQ(durationToString(Milliseconds32(1)), "1ms");
  EXPECT_EQ(durationToString(Milliseconds32(59000)), "59000ms");
  EXPECT_EQ(durationToString(Milliseconds32(3600000)), "60min");
  EXPECT_EQ(durationToString(Milliseconds32(INT32_MAX)), "35791min");
}

TEST(Duration, FormattersAndStreamWriteTheSameText) {
  for (std::chrono::nanoseconds d : {999ns, 1500ns, 2500000ns, std::chrono::nanoseconds(90s)}) {
    EXPECT_EQ(fmt::format("{}", d), durationToString(d).str());
    EXPECT_EQ(Kesto::streamed(d), durationToString(d).str());
  }
  EXPECT_EQ(fmt::format("{}", Milliseconds32(61000)), "61s");
  EXPECT_EQ(Kesto::fmtracestr(false, nullptr, "f", "g", 1, "took {}", 42ns), "took 42ns");
}
