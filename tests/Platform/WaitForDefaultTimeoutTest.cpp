#include <Kesto/Platform/Libevent.h>

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>

// Each case runs in a child process: the value is computed once per process,
// at the first call, and the parent never makes that call.
namespace Kesto {
namespace {

TEST(WaitForDefaultTimeoutDeathTest, UnsetGivesInfinity) {
  EXPECT_EXIT(
      {
        unsetenv("WAITFOR_DEFAULT");
        std::_Exit(std::isinf(waitForDefaultTimeout()) && waitForDefaultTimeout() > 0 ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST(WaitForDefaultTimeoutDeathTest, NumberWithTrailingTextIsAccepted) {
  EXPECT_EXIT(
      {
        setenv("WAITFOR_DEFAULT", "2.5s", 1);
        std::_Exit(waitForDefaultTimeout() == 2.5 ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST(WaitForDefaultTimeoutDeathTest, LettersPrintTheMessageAndGiveInfinity) {
  EXPECT_EXIT(
      {
        setenv("WAITFOR_DEFAULT", "soon", 1);
        std::_Exit(std::isinf(waitForDefaultTimeout()) ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "Parsing the WAITFOR_DEFAULT env\\. variable failed");
}

TEST(WaitForDefaultTimeoutDeathTest, OutOfRangeIsAnError) {
  EXPECT_EXIT(
      {
        setenv("WAITFOR_DEFAULT", "1e999", 1);
        std::_Exit(std::isinf(waitForDefaultTimeout()) ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "Parsing the WAITFOR_DEFAULT env\\. variable failed");
}

TEST(WaitForDefaultTimeoutDeathTest, TheEnvironmentIsReadOnce) {
  EXPECT_EXIT(
      {
        setenv("WAITFOR_DEFAULT", "7", 1);
        const double first = waitForDefaultTimeout();
        setenv("WAITFOR_DEFAULT", "9", 1);
        const double second = waitForDefaultTimeout();
        std::_Exit(first == 7.0 && second == 7.0 ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST(WaitForDefaultTimeoutDeathTest, ErrnoIsLeftAloneBySuccessfulParsing) {
  EXPECT_EXIT(
      {
        setenv("WAITFOR_DEFAULT", "3", 1);
        errno = EINTR;
        const double value = waitForDefaultTimeout();
        std::_Exit(value == 3.0 && errno == EINTR ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

} // namespace
} // namespace Kesto
