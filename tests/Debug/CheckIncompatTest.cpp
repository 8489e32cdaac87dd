#include "ChildProcess.h"

#include <Kesto/EventKesto.h>

#include <gtest/gtest.h>

#include <csignal>
#include <string>

TEST(CheckIncompat, OwnFlagIsTwo) {
  EXPECT_EQ(platformLibPresenceFlag, 2);
  Kesto::checkIncompat();
}

TEST(CheckIncompat, ForeignFlagStopsTheProcessAtLoad) {
  // The foreign library is preloaded, so its definition of the flag wins.
  // No handler exists yet at that point, so the null-handler path reports.
  std::map<std::string, const char*> env{{"LD_PRELOAD", KESTO_FOREIGN_FLAG_LIB}};
#ifdef KESTO_SANITIZED
  // The sanitizer runtime insists on coming first among preloaded libraries.
  env["ASAN_OPTIONS"] = "verify_asan_link_order=0";
#endif
  KestoTest::ChildResult child = KestoTest::runChild({"hooks"}, env);
  EXPECT_TRUE(child.killedBy(SIGABRT) || child.killedBy(SIGTRAP)) << child.status;
  EXPECT_EQ(child.out, "");
  EXPECT_NE(child.err.find("Kesto: use of a null Ptr"), std::string::npos) << child.err;
}
