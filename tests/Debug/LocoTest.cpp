#include <Kesto/EventKesto.h>

#include <gtest/gtest.h>

#include <thread>

using Kesto::Platform::Loco;

TEST(Loco, GuardIsRecursiveAndOwned) {
  EXPECT_FALSE(Loco::owns_loco());
  {
    Loco::Guard outer;
    EXPECT_TRUE(Loco::owns_loco());
    {
      Loco::Guard inner;
      EXPECT_TRUE(Loco::owns_loco());
    }
    EXPECT_TRUE(Loco::owns_loco());
    bool otherOwns = true;
    std::thread([&] { otherOwns = Loco::owns_loco(); }).join();
    EXPECT_FALSE(otherOwns);
  }
  EXPECT_FALSE(Loco::owns_loco());
}

TEST(Loco, OneLockForTheProcess) { EXPECT_EQ(&Loco::loco(), &Loco::loco()); }
