#include "ChildProcess.h"
#include "TraceState.h"

#include <Kesto/EventKesto.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

using Kesto::Ptr;
using Kesto::String;
using Kesto::Ixo::DebugControl;
using Kesto::Platform::clearKestoDebug;
using Kesto::Platform::getDebugHandler;
using Kesto::Platform::setupKestoDebug;
using KestoTest::assertionText;
using KestoTest::AssertSwitches;

namespace {

constexpr unsigned short bits(std::initializer_list<int> levels) {
  unsigned short mask = 0;
  for (int level : levels)
    mask = static_cast<unsigned short>(mask | (1u << level));
  return mask;
}

std::string dumpedMap() {
  testing::internal::CaptureStdout();
  Kesto::Platform::dumpKestoDebugMap();
  return testing::internal::GetCapturedStdout();
}

class DebugControlTest : public KestoTest::CleanTraceControls {};

} // namespace

TEST(DebugControl, ParseNameTakesOnlyATrailingStar) {
  bool wildcard = true;
  EXPECT_EQ(DebugControl::parseName("Foo", wildcard), "Foo");
  EXPECT_FALSE(wildcard);
  EXPECT_EQ(DebugControl::parseName("Kesto*", wildcard), "Kesto");
  EXPECT_TRUE(wildcard);
  EXPECT_EQ(DebugControl::parseName("*", wildcard), "");
  EXPECT_TRUE(wildcard);
  EXPECT_EQ(DebugControl::parseName("F*o", wildcard), "F*o");
  EXPECT_FALSE(wildcard);
  EXPECT_EQ(DebugControl::parseName("", wildcard), "");
  EXPECT_FALSE(wildcard);
}

TEST(DebugControl, ParseLevelsSkipsWhatItDoesNotKnow) {
  EXPECT_EQ(DebugControl::parseLevels(""), 0);
  EXPECT_EQ(DebugControl::parseLevels("01"), bits({0, 1}));
  EXPECT_EQ(DebugControl::parseLevels("3x5"), bits({3, 5}));
  EXPECT_EQ(DebugControl::parseLevels("*"), 1023);
  EXPECT_EQ(DebugControl::parseLevels("9/2"), bits({2, 9}));
  EXPECT_EQ(DebugControl::parseLevels("abc"), 0);
}

TEST_F(DebugControlTest, SpecBeforeHandlerGivesItTheLevel) {
  setupKestoDebug("ZqBefore/3");
  Ptr<Kesto::Platform::DebugHandler> handler = getDebugHandler("ZqBefore");
  EXPECT_EQ(handler->levels, bits({3}));
}

TEST_F(DebugControlTest, SpecAfterHandlerGivesItTheLevel) {
  Ptr<Kesto::Platform::DebugHandler> handler = getDebugHandler("ZqAfter");
  EXPECT_EQ(handler->levels, 0);
  setupKestoDebug("ZqAfter/3");
  EXPECT_EQ(handler->levels, bits({3}));
  EXPECT_EQ(*handler->levelsPtr, bits({3}));
}

TEST_F(DebugControlTest, NarrowerWildcardInheritsBroaderAtCreation) {
  setupKestoDebug("Kesto*/0");
  setupKestoDebug("KestoTimer*/2");
  Ptr<Kesto::Platform::DebugHandler> wheel = getDebugHandler("KestoTimerWheel");
  Ptr<Kesto::Platform::DebugHandler> util = getDebugHandler("KestoUtil");
  EXPECT_EQ(wheel->levels, bits({0, 2}));
  EXPECT_EQ(util->levels, bits({0}));
}

TEST_F(DebugControlTest, BroaderWildcardSetLaterOrsIntoNarrower) {
  setupKestoDebug("KestoTimer*/2");
  setupKestoDebug("Kesto*/0");
  Ptr<Kesto::Platform::DebugHandler> wheel = getDebugHandler("KestoTimerWheel");
  Ptr<Kesto::Platform::DebugHandler> util = getDebugHandler("KestoUtil");
  EXPECT_EQ(wheel->levels, bits({0, 2}));
  EXPECT_EQ(util->levels, bits({0}));
  EXPECT_EQ(controlLevels("KestoTimer", true), bits({0, 2}));
}

TEST_F(DebugControlTest, StarStarEnablesEveryHandlerNowAndLater) {
  Ptr<Kesto::Platform::DebugHandler> existing = getDebugHandler("ZqExisting");
  setupKestoDebug("*/*");
  EXPECT_EQ(existing->levels, 1023);
  EXPECT_EQ(Kesto::Debug::taskScheduler->levels, 1023);
  EXPECT_EQ(Kesto::Debug::assertHandler->levels, 1023);
  Ptr<Kesto::Platform::DebugHandler> later = getDebugHandler("ZqLater");
  EXPECT_EQ(later->levels, 1023);
}

TEST_F(DebugControlTest, NameWithoutLevelsMakesAnEmptySpecificControl) {
  setupKestoDebug("ZqPlain");
  EXPECT_EQ(controlLevels("ZqPlain", false), 0);
  EXPECT_NE(dumpedMap().find("Specific:\n    ZqPlain/\n"), std::string::npos);
}

TEST_F(DebugControlTest, NameWithoutLevelsCopiesTheWildcardThatApplies) {
  setupKestoDebug("ZqW*/4");
  setupKestoDebug("ZqWide");
  EXPECT_EQ(controlLevels("ZqWide", false), bits({4}));
  EXPECT_NE(dumpedMap().find("    ZqWide/4\n"), std::string::npos);
}

TEST_F(DebugControlTest, ClearedControlWithoutWildcardIsGone) {
  setupKestoDebug("ZqGone/1");
  EXPECT_EQ(controlLevels("ZqGone", false), bits({1}));
  clearKestoDebug("ZqGone/1");
  EXPECT_EQ(controlLevels("ZqGone", false), -1);
}

TEST_F(DebugControlTest, ClearedControlUnderWildcardStays) {
  setupKestoDebug("*/2");
  setupKestoDebug("ZqStays/1");
  EXPECT_EQ(controlLevels("ZqStays", false), bits({1, 2}));
  clearKestoDebug("ZqStays/1");
  EXPECT_EQ(controlLevels("ZqStays", false), bits({2}));
  EXPECT_NE(dumpedMap().find("    ZqStays/2\n"), std::string::npos);
}

TEST_F(DebugControlTest, ControlAtZeroUnderWildcardShieldsLaterHandlers) {
  setupKestoDebug("*/2");
  setupKestoDebug("ZqShield/2");
  clearKestoDebug("ZqShield/2");
  EXPECT_EQ(controlLevels("ZqShield", false), 0);
  Ptr<Kesto::Platform::DebugHandler> handler = getDebugHandler("ZqShield");
  EXPECT_EQ(handler->levels, 0);
}

TEST_F(DebugControlTest, ClearingWildcardRemovesItWithoutBroaderLevels) {
  setupKestoDebug("Kesto*/01");
  clearKestoDebug("Kesto*/01");
  EXPECT_EQ(controlLevels("Kesto", true), -1);
}

TEST_F(DebugControlTest, ClearingWildcardKeepsItWhenBroaderHasLevels) {
  setupKestoDebug("*/5");
  setupKestoDebug("Kesto*/01");
  EXPECT_EQ(controlLevels("Kesto", true), bits({0, 1, 5}));
  clearKestoDebug("Kesto*/015");
  // At 0 it still shadows the broader wildcard.
  EXPECT_EQ(controlLevels("Kesto", true), 0);
  EXPECT_EQ(controlLevels("", true), bits({5}));
  // Nothing broader has levels after this: both go.
  clearKestoDebug("*/5");
  EXPECT_EQ(controlLevels("Kesto", true), -1);
  EXPECT_EQ(controlLevels("", true), -1);
}

TEST_F(DebugControlTest, ClearingWildcardKeepsNarrowerOnlyIfItShadowsSomething) {
  setupKestoDebug("Zq*/3");
  setupKestoDebug("ZqNarrow*/1");
  // Clearing level 1 everywhere under Zq: ZqNarrow keeps 3 (inherited).
  clearKestoDebug("ZqNarrow*/13");
  EXPECT_EQ(controlLevels("ZqNarrow", true), 0);
  // ZqNarrow is at 0 but Zq has level 3: it stays to shadow it.
  Ptr<Kesto::Platform::DebugHandler> handler = getDebugHandler("ZqNarrowHandler");
  EXPECT_EQ(handler->levels, 0);
  clearKestoDebug("Zq*/3");
  EXPECT_EQ(controlLevels("ZqNarrow", true), -1);
  EXPECT_EQ(controlLevels("Zq", true), -1);
}

TEST_F(DebugControlTest, ClearingSpecificUnderWildcardLeavesExtraHandler) {
  setupKestoDebug("F*/1");
  Ptr<Kesto::Platform::DebugHandler> live = getDebugHandler("Foo");
  EXPECT_EQ(live->levels, bits({1}));
  const std::size_t before = handlerCount("Foo");
  clearKestoDebug("Foo/1");
  EXPECT_EQ(live->levels, 0);
  EXPECT_EQ(handlerCount("Foo"), before + 1);
  EXPECT_EQ(controlLevels("Foo", false), -1);
  Ptr<Kesto::Platform::DebugHandler> later = getDebugHandler("Foo");
  EXPECT_EQ(later->levels, bits({1}));
}

TEST_F(DebugControlTest, GetWithStarWarnsAndUsesTheName) {
  testing::internal::CaptureStderr();
  Ptr<Kesto::Platform::DebugHandler> handler = getDebugHandler("ZqStar*");
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(err, "Kesto::Debug - Warning - Wild card specifier ignored getting handler for ZqStar* using ZqStar\n");
  EXPECT_EQ(handler->name, "ZqStar");
}

TEST_F(DebugControlTest, GetMakesANewHandlerEveryCall) {
  setupKestoDebug("ZqTwice/6");
  Ptr<Kesto::Platform::DebugHandler> a = getDebugHandler("ZqTwice");
  Ptr<Kesto::Platform::DebugHandler> b = getDebugHandler("ZqTwice", true);
  EXPECT_NE(a.get(), b.get());
  EXPECT_EQ(a->levels, bits({6}));
  EXPECT_EQ(b->levels, bits({6}));
  EXPECT_FALSE(b->independent_);
  setupKestoDebug("ZqTwice/7");
  EXPECT_EQ(a->levels, bits({6, 7}));
  EXPECT_EQ(b->levels, bits({6, 7}));
}

TEST_F(DebugControlTest, SpecificControlAtZeroWinsOverWildcardInGet) {
  setupKestoDebug("ZqZero");
  setupKestoDebug("Zq*/8");
  // The broader set ORed 8 into the specific control too.
  EXPECT_EQ(controlLevels("ZqZero", false), bits({8}));
  clearKestoDebug("ZqZero/8");
  Ptr<Kesto::Platform::DebugHandler> handler = getDebugHandler("ZqZero");
  EXPECT_EQ(handler->levels, 0);
}

TEST_F(DebugControlTest, EmptySpecChangesNoControlButAppliesTraceFile) {
  KestoTest::TempPath file("emptyspec");
  setupKestoDebug("ZqKept/2");
  const std::string before = dumpedMap();
  setenv("TRACEFILE", file.path().c_str(), 1);
  setupKestoDebug("");
  unsetenv("TRACEFILE");
  Kesto::fmtrace(Kesto::Debug::kestoUtil, 0, "f.cpp", "fn", 1, "ZqEmpty", "into the file");
  setupKestoDebug("");
  EXPECT_EQ(dumpedMap(), before);
  EXPECT_NE(KestoTest::readWholeFile(file.path()).find("ZqEmpty::fn() into the file\n"), std::string::npos);
}

TEST_F(DebugControlTest, TrailingCommaAddsNoItem) {
  setupKestoDebug("ZqA/1,");
  EXPECT_EQ(controlLevels("ZqA", false), bits({1}));
  EXPECT_EQ(controlLevels("", false), -1);
}

TEST_F(DebugControlTest, LeadingCommaMakesAnEmptyNamedControl) {
  setupKestoDebug(",ZqB/1");
  EXPECT_EQ(controlLevels("ZqB", false), bits({1}));
  EXPECT_EQ(controlLevels("", false), 0);
  EXPECT_NE(dumpedMap().find("\n    /\n"), std::string::npos);
}

TEST_F(DebugControlTest, FurtherSlashesStayInTheLevelList) {
  setupKestoDebug("ZqSlash/1/2,ZqOther/3");
  EXPECT_EQ(controlLevels("ZqSlash", false), bits({1, 2}));
  EXPECT_EQ(controlLevels("ZqOther", false), bits({3}));
}

TEST_F(DebugControlTest, ClearSpecWithNullDoesNothing) {
  setupKestoDebug("ZqNull/1");
  clearKestoDebug(nullptr);
  EXPECT_EQ(controlLevels("ZqNull", false), bits({1}));
}

TEST_F(DebugControlTest, EnabledIsThenClearLeavesLevelOff) {
  Ptr<Kesto::Platform::DebugHandler> handler = getDebugHandler("ZqEnabled");
  handler->enabledIs(3, true);
  EXPECT_EQ(handler->levels, bits({3}));
  clearKestoDebug("ZqEnabled/3");
  EXPECT_EQ(handler->levels, 0);
}

TEST_F(DebugControlTest, EnabledIsIgnoresLevelsBeyondTheMask) {
  Ptr<Kesto::Platform::DebugHandler> handler = getDebugHandler("ZqWide16");
  handler->enabledIs(15, true);
  handler->enabledIs(20, true);
  EXPECT_EQ(handler->levels, 0x8000);
  handler->enabledIs(20, false);
  EXPECT_EQ(handler->levels, 0x8000);
  // Level 35 is bit 3 of the 32-bit range.
  handler->enabledIs(35, true);
  EXPECT_EQ(handler->levels, 0x8008);
}

TEST_F(DebugControlTest, IndependentHandlerKeepsItsMask) {
  Ptr<Kesto::Platform::DebugHandler> independent;
  {
    Kesto::Platform::Loco::Guard guard;
    independent = Ptr<Kesto::Platform::DebugHandler>(new Kesto::Ixo::DebugHandler("ZqIndependent", bits({4}), true));
  }
  setupKestoDebug("ZqIndependent/12,*/*");
  EXPECT_EQ(independent->levels, bits({4}));
  clearKestoDebug("ZqIndependent/4,*/*");
  EXPECT_EQ(independent->levels, bits({4}));
  EXPECT_EQ(static_cast<Kesto::Ixo::DebugHandler&>(*independent).displayString(), "ZqIndependent+/4");
}

TEST_F(DebugControlTest, DisplayStringWritesStarForAllLevels) {
  setupKestoDebug("ZqAll/*,ZqSome/93,ZqPre*/*");
  const std::string dump = dumpedMap();
  EXPECT_NE(dump.find("    ZqAll/*\n"), std::string::npos);
  EXPECT_NE(dump.find("    ZqSome/39\n"), std::string::npos);
  EXPECT_NE(dump.find("Wildcard:\n    ZqPre*/*\n"), std::string::npos);
  Ptr<Kesto::Platform::DebugHandler> handler = getDebugHandler("ZqAll");
  EXPECT_EQ(static_cast<Kesto::Ixo::DebugHandler&>(*handler).displayString(), "ZqAll/*");
  // Levels above 9 are never shown, and with them the mask is not "all".
  handler->enabledIs(12, true);
  EXPECT_EQ(static_cast<Kesto::Ixo::DebugHandler&>(*handler).displayString(), "ZqAll/0123456789");
}

TEST_F(DebugControlTest, WildcardsAreListedLongestFirst) {
  setupKestoDebug("Zq*/1,ZqLonger*/2,*/3");
  const std::string dump = dumpedMap();
  const auto longer = dump.find("    ZqLonger*/");
  const auto shorter = dump.find("    Zq*/");
  const auto all = dump.find("    */");
  ASSERT_NE(longer, std::string::npos);
  EXPECT_LT(longer, shorter);
  EXPECT_LT(shorter, all);
}

TEST_F(DebugControlTest, HandlersAreListedInNameOrder) {
  Ptr<Kesto::Platform::DebugHandler> b = getDebugHandler("ZqOrderB");
  Ptr<Kesto::Platform::DebugHandler> a = getDebugHandler("ZqOrderA");
  const std::string dump = dumpedMap();
  const auto handlers = dump.find("Handlers:\n");
  ASSERT_NE(handlers, std::string::npos);
  EXPECT_LT(handlers, dump.find("    ZqOrderA/\n"));
  EXPECT_LT(dump.find("    ZqOrderA/\n"), dump.find("    ZqOrderB/\n"));
}

TEST_F(DebugControlTest, HandlerLeavesTheRegistryWithItsLastReference) {
  const std::size_t before = handlerCount("ZqLifetime");
  {
    Ptr<Kesto::Platform::DebugHandler> handler = getDebugHandler("ZqLifetime");
    EXPECT_EQ(handlerCount("ZqLifetime"), before + 1);
  }
  EXPECT_EQ(handlerCount("ZqLifetime"), before);
}

TEST_F(DebugControlTest, DestroyDebugHandlerDeletesAndAcceptsNull) {
  Kesto::Platform::DebugHandler* raw = getDebugHandler("ZqDestroy").release();
  EXPECT_EQ(handlerCount("ZqDestroy"), 1u);
  Kesto::Platform::destroyDebugHandler(raw);
  EXPECT_EQ(handlerCount("ZqDestroy"), 0u);
  Kesto::Platform::destroyDebugHandler(nullptr);
}

TEST(DebugControl, FindWildcardWithoutLocoAsserts) {
  AssertSwitches switches;
  switches.silence();
  const std::string text = assertionText([] { DebugControl::findWildcard("x"); });
  EXPECT_NE(text.find("Ixo::DebugControl::findWildcard() no loco"), std::string::npos) << text;
}

TEST(DebugControl, InitializeWithoutLocoAsserts) {
  AssertSwitches switches;
  switches.silence();
  std::string text = assertionText([] { DebugControl::initialize(); });
  EXPECT_NE(text.find("Ixo::DebugControl::initialize() no loco"), std::string::npos) << text;
  text = assertionText([] { Kesto::Ixo::DebugHandler::initialize(); });
  EXPECT_NE(text.find("Ixo::DebugHandler::initialize() no loco"), std::string::npos) << text;
}

TEST(DebugControl, ConstructorAndDestructorWithoutLocoAssert) {
  AssertSwitches switches;
  switches.silence();
  std::string text = assertionText([] { new DebugControl("ZqNoLoco", 1, false); });
  EXPECT_NE(text.find("Ixo::DebugControl::DebugControl() no loco"), std::string::npos) << text;

  DebugControl* control;
  {
    Kesto::Platform::Loco::Guard guard;
    control = new DebugControl("ZqNoLocoDtor", 1, false);
  }
  text = assertionText([&] { delete control; });
  EXPECT_NE(text.find("Ixo::DebugControl::~DebugControl() no loco"), std::string::npos) << text;
  // The assertion came before the control left its map; take it out properly.
  Kesto::Platform::Loco::Guard guard;
  auto it = DebugControl::debugsMap_->find(String("ZqNoLocoDtor"));
  if (it != DebugControl::debugsMap_->end())
    DebugControl::debugsMap_->erase(it);
}

TEST(DebugControl, HandlerConstructorWithoutLocoAsserts) {
  AssertSwitches switches;
  switches.silence();
  const std::string text = assertionText([] { new Kesto::Ixo::DebugHandler("ZqNoLoco", 0, false); });
  EXPECT_NE(text.find("Ixo::DebugHandler::DebugHandler() no loco"), std::string::npos) << text;
}

TEST(DebugControl, EnabledIsRefusesAForeignMask) {
  AssertSwitches switches;
  switches.silence();
  Ptr<Kesto::Platform::DebugHandler> handler = getDebugHandler("ZqForeignMask");
  unsigned short elsewhere = 0;
  handler->levelsPtr = &elsewhere;
  const std::string text = assertionText([&] { handler->enabledIs(1, true); });
  handler->levelsPtr = &handler->levels;
  EXPECT_NE(text.find("Ixo::DebugHandler::enabledIs() Cannot use this with a non-null levelsPtr passed to "
                      "constructor"),
            std::string::npos)
      << text;
  EXPECT_EQ(elsewhere, 0);
}
