#include "TraceState.h"

#include <Kesto/EventKesto.h>

#include <gtest/gtest.h>

using KestoTest::assertionText;

TEST(RefCounting, SetterIsNotAvailable) {
  KestoTest::AssertSwitches switches;
  switches.silence();
  const std::string text = assertionText([] { Kesto::Platform::refCountingEnabledIs(true); });
  EXPECT_NE(text.find("Kesto::Platform::refCountingEnabledIs() not available in libEventKesto.so"), std::string::npos)
      << text;
}

TEST(RefCounting, GetterIsNotAvailable) {
  KestoTest::AssertSwitches switches;
  switches.silence();
  const std::string text = assertionText([] { (void)Kesto::Platform::refCountingEnabled(); });
  EXPECT_NE(text.find("Kesto::Platform::refCountingEnabled() not available in libEventKesto.so"), std::string::npos)
      << text;
}
