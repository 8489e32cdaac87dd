// The counters facade. This process never has the counters plugin on its
// search path, so the tests here see the facade without it; a child process
// with the test plugin's folder on its path sees it with it.
#include "PluginTestSupport.h"

#include <Kesto/EventKesto.h>

#include <gtest/gtest.h>

#include <string>

using Kesto::Counters;
using KestoTest::runPluginChild;
using KestoTest::TraceCapture;

TEST(Counters, WithoutThePluginEachConstructionTriesToLoadIt) {
  TraceCapture trace({0}, *Kesto::Debug::kestoPlugin);
  Counters first("zqFirst");
  Counters second(nullptr);
  EXPECT_EQ(first.plugin(), nullptr);
  EXPECT_EQ(second.plugin(), nullptr);
  const std::vector<std::string> lines = trace.linesWith("Failed to load plugin libTallyCountersPlugin.so: ");
  EXPECT_EQ(lines.size(), 2u) << trace.text();
}

TEST(Counters, WithoutThePluginTheCallersStorageIsTheCounter) {
  Counters counters("zqStorage");
  unsigned long storage = 0;
  EXPECT_EQ(counters.counter("hits", &storage), &storage);
  ++*counters.counter("hits", &storage);
  EXPECT_EQ(storage, 1u);
}

TEST(Counters, WithoutThePluginOrStorageOneScratchWordServesEveryCounter) {
  Counters first("zqScratchA");
  Counters second("zqScratchB");
  unsigned long* const scratch = first.counter("a", nullptr);
  ASSERT_NE(scratch, nullptr);
  EXPECT_EQ(first.counter("a", nullptr), scratch);
  EXPECT_EQ(first.counter("b", nullptr), scratch);
  EXPECT_EQ(second.counter("c", nullptr), scratch);
  EXPECT_EQ(second.counter(nullptr, nullptr), scratch);
  // Always safe to count through.
  const unsigned long before = *scratch;
  ++*second.counter("d", nullptr);
  EXPECT_EQ(*scratch, before + 1);
}

TEST(Counters, TwoFacadesShareOnePluginThatDecidesWhereCountersLive) {
  const KestoTest::PluginChildResult child = runPluginChild({"counters"});
  ASSERT_EQ(child.exitCode, 0) << child.output;
  // Loaded by the first, found in the table by the second.
  const std::size_t loaded =
      child.lineAt("KestoPlugin 2 Kesto::Platform::loadPlugin() Yay!  Plugin TallyCountersPlugin loaded");
  const std::size_t alpha = child.lineAt("tally: counters alpha");
  const std::size_t again =
      child.lineAt("KestoPlugin 3 Kesto::Platform::loadPlugin() TallyCountersPlugin already loaded");
  const std::size_t beta = child.lineAt("tally: counters beta");
  ASSERT_NE(loaded, std::string::npos) << child.output;
  ASSERT_NE(alpha, std::string::npos) << child.output;
  ASSERT_NE(again, std::string::npos) << child.output;
  ASSERT_NE(beta, std::string::npos) << child.output;
  EXPECT_LT(loaded, alpha);
  EXPECT_LT(alpha, again);
  EXPECT_LT(again, beta);
  EXPECT_EQ(child.output.find("Yay!"), child.output.rfind("Yay!")) << child.output;
  EXPECT_TRUE(child.hasLine("one plugin: yes")) << child.output;
  // The third slot answered, with the storage offer passed through, and its
  // answer won over the caller's storage.
  EXPECT_TRUE(child.hasLine("tally: counter hits with storage")) << child.output;
  EXPECT_TRUE(child.hasLine("tally: counter hits without storage")) << child.output;
  EXPECT_TRUE(child.hasLine("the plugin's word: yes")) << child.output;
  EXPECT_TRUE(child.hasLine("one word for hits: yes")) << child.output;
  EXPECT_TRUE(child.hasLine("hits: 2")) << child.output;
}
