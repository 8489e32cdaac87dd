// Names of the states and their bits in the flags of the embedded timeout.
#include "TimerWheelTestSupport.h"

#include <Kesto/TimerWheel/TimerWheelState.h>

namespace Kesto::TimerWheelTest {
namespace {

using ::testing::HasSubstr;

TEST(TimerWheelState, NamesOfTheStates) {
  EXPECT_STREQ(timerWheelStateToString(TimerWheelState::notLinked), "notLinked");
  EXPECT_STREQ(timerWheelStateToString(TimerWheelState::inTimerWheel), "inTimerWheel");
  EXPECT_STREQ(timerWheelStateToString(TimerWheelState::inTimersExpiryingSoon), "inTimersExpiryingSoon");
  EXPECT_STREQ(timerWheelStateToString(TimerWheelState(3)), "unknownState");
  EXPECT_STREQ(timerWheelStateToString(TimerWheelState(255)), "unknownState");
}

TEST(TimerWheelState, FormatterPrintsTheName) {
  EXPECT_EQ(fmt::format("{}", TimerWheelState::inTimerWheel), "inTimerWheel");
  EXPECT_EQ(fmt::format("[{}]", TimerWheelState(7)), "[unknownState]");
}

TEST(TimerWheelState, EnumerationIsEightBits) {
  static_assert(sizeof(TimerWheelState) == 1);
  EXPECT_EQ(U8(TimerWheelState::notLinked), 0);
  EXPECT_EQ(U8(TimerWheelState::inTimerWheel), 1);
  EXPECT_EQ(U8(TimerWheelState::inTimersExpiryingSoon), 2);
}

TEST(TimerWheelState, StatesMapToTheirFlagBits) {
  EXPECT_EQ(stateToTimeoutFlags(TimerWheelState::notLinked), 4);
  EXPECT_EQ(stateToTimeoutFlags(TimerWheelState::inTimerWheel), 8);
  EXPECT_EQ(stateToTimeoutFlags(TimerWheelState::inTimersExpiryingSoon), 16);
  EXPECT_EQ(timerWheelStateFlagMask, 28);
  EXPECT_EQ(timeoutFlagsToState(4), TimerWheelState::notLinked);
  EXPECT_EQ(timeoutFlagsToState(8), TimerWheelState::inTimerWheel);
  EXPECT_EQ(timeoutFlagsToState(16), TimerWheelState::inTimersExpiryingSoon);
  // Other bits (the absolute flag, anything else) do not matter.
  EXPECT_EQ(timeoutFlagsToState(2 | 8 | 64), TimerWheelState::inTimerWheel);
}

TEST(TimerWheelState, NoneOrSeveralBitsAssert) {
  EXPECT_THAT(assertionText([] { timeoutFlagsToState(2); }), HasSubstr("None or multiple of our flags set 0"));
  EXPECT_THAT(assertionText([] { timeoutFlagsToState(2 | 4 | 8); }),
              HasSubstr("None or multiple of our flags set 12"));
  EXPECT_THAT(assertionText([] { timeoutFlagsToState(28); }), HasSubstr("None or multiple of our flags set 28"));
  EXPECT_THAT(assertionText([] { timeoutFlagsToState(2); }), HasSubstr("Kesto::"));
}

TEST(TimerWheelState, InvalidStateAsserts) {
  EXPECT_THAT(assertionText([] { stateToTimeoutFlags(TimerWheelState(3)); }), HasSubstr("invalid state 3"));
}

} // namespace
} // namespace Kesto::TimerWheelTest
