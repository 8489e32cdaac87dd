// Hostile values at every entry point of the trace facility that takes a
// name, a level list, a level, a format or a duration: empty texts, 64 KiB
// texts, embedded NULs, bytes above 0x7f, numbers beyond the 16-bit mask,
// the extremes of 64-bit durations. The language has no error: each value
// gives the plain result its rules give, and nothing crashes or hangs.
#include "TraceState.h"

#include <Kesto/EventKesto.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <limits>
#include <string>
#include <vector>

using Kesto::Ptr;
using Kesto::String;
using Kesto::Platform::DebugHandler;
using KestoTest::TraceFormatScope;

namespace {

const std::string long64k(64 * 1024, 'n');

class DebugHostileValues : public KestoTest::CleanTraceControls {
protected:
  static std::size_t controlCount() {
    Kesto::Platform::Loco::Guard guard;
    return Kesto::Ixo::DebugControl::debugsMap_->size() + Kesto::Ixo::DebugControl::wildCardDebugsMap_->size();
  }
  static int specificLevels(const std::string& name) { return controlLevels(name.c_str(), false); }
  static void removeAllControls() {
    Kesto::Platform::Loco::Guard guard;
    KestoTest::deleteAllControls();
  }
};

struct SpecCase {
  const char* what;
  std::string text; // may hold a NUL: the C string ends there
  std::string name; // the control expected afterwards
  bool wildcard;
  int levels; // its levels, or -1 for no control at all
};

} // namespace

TEST_F(DebugHostileValues, TraceSettingsOfHostileTextsGiveTheControlsOfTheLanguage) {
  const std::vector<SpecCase> cases = {
      {"empty", "", "", false, -1},
      {"slash alone: empty name, no levels", "/", "", false, 0},
      {"64 KiB name", long64k + "/3", long64k, false, 1 << 3},
      {"64 KiB level list of 9s", "Lv/" + std::string(64 * 1024, '9'), "Lv", false, 1 << 9},
      {"embedded NUL ends the text", std::string("Nul\0/3", 6), "Nul", false, 0},
      {"minus and huge numbers are digits and skipped characters", "Neg/-1,Neg/99999999999999999999", "Neg", false,
       (1 << 1) | (1 << 9)},
      {"bytes above 0x7f in the levels", "Hi/\xff\xfe\x80", "Hi", false, 0},
      {"bytes above 0x7f in the name", "\xff\xfe/2", "\xff\xfe", false, 1 << 2},
      {"64 KiB of stars: a wildcard of 65535 stars", std::string(64 * 1024, '*'), std::string(64 * 1024 - 1, '*'),
       true, 0},
      {"64 KiB of commas: empty names", std::string(64 * 1024, ','), "", false, 0},
      {"star levels on a long wildcard", long64k + "*/*", long64k, true, 1023},
  };
  for (const SpecCase& c : cases) {
    SCOPED_TRACE(c.what);
    removeAllControls();
    Kesto::Platform::setupKestoDebug(c.text.c_str());
    if (c.levels < 0) {
      EXPECT_EQ(0u, controlCount());
    } else {
      EXPECT_EQ(c.levels, controlLevels(c.name.c_str(), c.wildcard));
    }
    // Clearing the same text takes every level away again, without a crash.
    Kesto::Platform::clearKestoDebug(c.text.c_str());
    if (c.levels >= 0 && !c.wildcard) {
      EXPECT_EQ(-1, controlLevels(c.name.c_str(), false));
    }
  }
  // A null text clears nothing and does not read the environment.
  Kesto::Platform::setupKestoDebug("NullClear/1");
  Kesto::Platform::clearKestoDebug(nullptr);
  EXPECT_EQ(1 << 1, specificLevels("NullClear"));
}

TEST_F(DebugHostileValues, HandlerNamesOfHostileTextsAreKeptAsTheyAre) {
  const std::vector<std::string> names = {"", long64k, std::string("a\0b", 3), "\xff\xfe", std::string(1, '\0')};
  for (const std::string& name : names) {
    SCOPED_TRACE(name.size());
    Ptr<DebugHandler> h = Kesto::Platform::getDebugHandler(String(std::string_view(name)));
    EXPECT_EQ(name, std::string(h->name.view()));
    EXPECT_EQ(0, h->levels);
  }
  // A trailing star is warned about and dropped, also from a name of stars.
  testing::internal::CaptureStderr();
  Ptr<DebugHandler> stars = Kesto::Platform::getDebugHandler(String(std::string(64 * 1024, '*')));
  const std::string warning = testing::internal::GetCapturedStderr();
  EXPECT_EQ(std::string(64 * 1024 - 1, '*'), std::string(stars->name.view()));
  EXPECT_NE(std::string::npos, warning.find("Wild card specifier ignored"));
}

TEST_F(DebugHostileValues, LevelsBeyondTheMaskChangeNothingOrWrapAtThirtyTwo) {
  Ptr<DebugHandler> h = Kesto::Platform::getDebugHandler(String("HostileLevels"));
  struct LevelCase {
    unsigned short level;
    unsigned short after; // the mask after enabledIs(level, true) on an empty mask
  };
  const std::vector<LevelCase> cases = {
      {15, 1u << 15}, {16, 0}, {31, 0}, {32, 1}, {47, 1u << 15}, {48, 0}, {65535, 0},
  };
  for (const LevelCase& c : cases) {
    SCOPED_TRACE(c.level);
    h->levels = 0;
    h->enabledIs(c.level, true);
    EXPECT_EQ(c.after, h->levels);
    h->levels = 0xffff;
    h->enabledIs(c.level, false);
    EXPECT_EQ(static_cast<unsigned short>(0xffff & ~c.after), h->levels);
  }
}

TEST_F(DebugHostileValues, TraceFormatsOfHostileTextsSetTheirFlagsOrLeaveThemAsTheyWere) {
  TraceFormatScope scope("pid");
  const auto flags = [] {
    using Kesto::Ixo::DebugControl;
    return std::vector<bool>{DebugControl::showDate_,       DebugControl::showTime_,  DebugControl::showPid_,
                             DebugControl::showTid_,        DebugControl::showHandleName_, DebugControl::showLevel_,
                             DebugControl::showLineInfo_,   DebugControl::showFuncName_};
  };
  const std::vector<bool> pidOnly = {false, false, true, false, false, false, false, false};
  const std::vector<bool> dateOnly = {true, false, false, false, false, false, false, false};
  const std::vector<bool> none(8, false);
  struct FormatCase {
    const char* what;
    std::string text;
    std::vector<bool> after;
    bool complains;
  };
  std::string manyDates;
  while (manyDates.size() < 64 * 1024)
    manyDates += "date,";
  const std::vector<FormatCase> cases = {
      {"64 KiB of one word", manyDates, dateOnly, false},
      {"embedded NUL ends the text", std::string("date\0time", 9), dateOnly, false},
      {"64 KiB unknown word", long64k, pidOnly, true},
      {"commas alone: all off", std::string(64 * 1024, ','), none, false},
      {"bytes above 0x7f", "date,\xff", pidOnly, true},
      {"word with a blank", "date ", pidOnly, true},
  };
  for (const FormatCase& c : cases) {
    SCOPED_TRACE(c.what);
    Kesto::Platform::setTraceFormat("pid");
    testing::internal::CaptureStderr();
    Kesto::Platform::setTraceFormat(c.text.c_str());
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(c.after, flags());
    EXPECT_EQ(c.complains, err.find("is an invalid field in TRACEFORMAT") != std::string::npos) << err.size();
  }
}

TEST(DebugHostileDurations, ExtremeDurationsAreWrittenInTheirUnitWithoutOverflow) {
  using std::chrono::nanoseconds;
  constexpr auto lowest = std::numeric_limits<std::int64_t>::min();
  constexpr auto highest = std::numeric_limits<std::int64_t>::max();
  EXPECT_EQ(std::to_string(lowest) + "ns", Kesto::durationToString(nanoseconds(lowest)).str());
  EXPECT_EQ("-1ns", Kesto::durationToString(nanoseconds(-1)).str());
  EXPECT_EQ(std::to_string(highest / 60000000000) + "min", Kesto::durationToString(nanoseconds(highest)).str());
  // The millisecond overload widens before it multiplies: 2^32-1 ms is
  // 71582 minutes, not a wrapped number.
  EXPECT_EQ("71582min",
            Kesto::durationToString(std::chrono::duration<std::uint32_t, std::milli>(0xffffffffu)).str());
}

TEST_F(DebugHostileValues, LinesOfHostileTextsAreWrittenWhole) {
  TraceFormatScope scope("handle,line-info,func-name");
  Ptr<DebugHandler> h = Kesto::Platform::getDebugHandler(String("HostileLine"));
  struct LineCase {
    const char* what;
    std::string text;
    const char* file;
    const char* function;
    std::string expected;
  };
  const std::string withNul("a\0b", 3);
  const std::vector<LineCase> cases = {
      {"64 KiB text", long64k, "dir/f.cpp", "fn", "HostileLine f.cpp:7 fn " + long64k + "\n"},
      {"embedded NUL is written", withNul, "f.cpp", "fn", "HostileLine f.cpp:7 fn " + withNul + "\n"},
      {"empty text", "", "f.cpp", "fn", "HostileLine f.cpp:7 fn \n"},
      {"null file cuts the prefix there", "t", nullptr, "fn", "HostileLine t\n"},
      {"null function cuts the prefix there", "t", "f.cpp", nullptr, "HostileLine f.cpp:7 t\n"},
      {"file ending in a slash", "t", "dir/", "fn", "HostileLine :7 fn t\n"},
  };
  for (const LineCase& c : cases) {
    SCOPED_TRACE(c.what);
    testing::internal::CaptureStderr();
    Kesto::Platform::dumpDebugMsg(c.text, 1, *h, c.file, c.function, 7);
    EXPECT_EQ(c.expected, testing::internal::GetCapturedStderr());
  }
}
