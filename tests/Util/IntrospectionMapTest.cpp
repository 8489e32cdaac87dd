#include <Kesto/EventKesto.h>

#include <gtest/gtest.h>

#include <thread>

using Kesto::IntrospectionMap;
using Kesto::String;

namespace {
String first(const void*) { return "first"; }
String second(const void*) { return "second"; }
} // namespace

TEST(IntrospectionMap, UnknownTypeNameGivesNull) { EXPECT_EQ(IntrospectionMap::lookup("ZqNeverInserted"), nullptr); }

TEST(IntrospectionMap, InsertedFunctionIsFoundByName) {
  IntrospectionMap::insert("ZqFound", &first);
  EXPECT_EQ(IntrospectionMap::lookup("ZqFound"), &first);
  EXPECT_EQ(IntrospectionMap::lookup(String("ZqFound").dedup()), &first);
  EXPECT_EQ(IntrospectionMap::lookup("ZqFoun"), nullptr);
}

TEST(IntrospectionMap, InsertingANameAgainReplacesItsFunction) {
  IntrospectionMap::insert("ZqReplaced", &first);
  IntrospectionMap::insert("ZqReplaced", &second);
  EXPECT_EQ(IntrospectionMap::lookup("ZqReplaced"), &second);
  IntrospectionMap::insert("ZqReplaced", nullptr);
  EXPECT_EQ(IntrospectionMap::lookup("ZqReplaced"), nullptr);
}

TEST(IntrospectionMap, OtherThreadsSeeWhatOneInserted) {
  std::thread([] { IntrospectionMap::insert("ZqFromAThread", &first); }).join();
  IntrospectionMap::ToString found = nullptr;
  std::thread([&] { found = IntrospectionMap::lookup("ZqFromAThread"); }).join();
  EXPECT_EQ(found, &first);
}

TEST(IntrospectionMap, LookupWorksWhileTheLocoIsHeld) {
  // The Loco is recursive: a printer called under it (from a trace, say)
  // can still look up.
  IntrospectionMap::insert("ZqUnderLoco", &first);
  Kesto::Platform::Loco::Guard guard;
  EXPECT_EQ(IntrospectionMap::lookup("ZqUnderLoco"), &first);
}
