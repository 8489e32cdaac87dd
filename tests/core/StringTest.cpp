#include <Kesto/Core/String.h>

#include <gtest/gtest.h>

#include <map>
#include <set>
#include <thread>
#include <unordered_set>
#include <vector>

using Kesto::String;
using Kesto::U32;

TEST(String, EmptyIsShortAndTerminated) {
  String s;
  EXPECT_TRUE(s.isShort());
  EXPECT_EQ(s.size(), 0u);
  EXPECT_STREQ(s.data(), "");
}

TEST(String, ShortLongBoundary) {
  std::string t22(22, 'x'), t23(23, 'y');
  String a(t22), b(t23);
  EXPECT_TRUE(a.isShort());
  EXPECT_EQ(a.size(), 22u);
  EXPECT_EQ(a.view(), t22);
  EXPECT_EQ(a.data()[22], '\0');
  EXPECT_TRUE(b.isOrdinary());
  EXPECT_EQ(b.size(), 23u);
  EXPECT_EQ(b.view(), t23);
  EXPECT_EQ(b.data()[23], '\0');
}

TEST(String, DedupOfShortStaysShort) {
  String s("short");
  String d = s.dedup();
  EXPECT_TRUE(d.isShort());
  EXPECT_EQ(d, s);
}

TEST(String, DedupSharesStorage) {
  std::string text = "a name long enough to need the table";
  String a = String(text).dedup();
  String b = String::dedup(text);
  EXPECT_TRUE(a.isDedup());
  EXPECT_EQ(a.data(), b.data());
  String copy = a;
  EXPECT_TRUE(copy.isDedup());
  EXPECT_EQ(copy.data(), a.data());
  EXPECT_TRUE(copy.copyIsFree());
}

TEST(String, DedupIsThreadSafe) {
  constexpr int threads = 4, names = 200;
  std::vector<std::vector<const char*>> seen(threads);
  std::vector<std::thread> pool;
  for (int t = 0; t < threads; ++t)
    pool.emplace_back([t, &seen] {
      for (int i = 0; i < names; ++i)
        seen[t].push_back(String::dedup("concurrent dedup name number " + std::to_string(i)).data());
    });
  for (auto& th : pool)
    th.join();
  for (int t = 1; t < threads; ++t)
    EXPECT_EQ(seen[t], seen[0]);
}

TEST(String, AddRightAndLeftAcrossForms) {
  String s("abc");
  s.addRight("def");
  EXPECT_EQ(s, "abcdef");
  EXPECT_TRUE(s.isShort());
  s.addRight(std::string(20, 'z'));
  EXPECT_TRUE(s.isOrdinary());
  EXPECT_EQ(s.size(), 26u);
  s.addLeft(">>");
  EXPECT_EQ(s.view().substr(0, 8), ">>abcdef");
  String d = String::dedup(std::string(30, 'q'));
  d.addRight("!");
  EXPECT_TRUE(d.isOrdinary());
  EXPECT_EQ(d.size(), 31u);
  EXPECT_EQ(String::dedup(std::string(30, 'q')).size(), 30u);
}

TEST(String, AddRightOfSelf) {
  String s(std::string(20, 'a'));
  s.addRight(s.view());
  EXPECT_EQ(s.view(), std::string(40, 'a'));
  s.addRight(s.view());
  EXPECT_EQ(s.view(), std::string(80, 'a'));
}

TEST(String, FindSubstrCompare) {
  String s("TaskScheduler;ResetStats");
  EXPECT_EQ(s.find(';'), 13u);
  EXPECT_EQ(s.find("Reset"), 14u);
  EXPECT_EQ(s.find("nope"), String::npos);
  EXPECT_EQ(s.substr(14), "ResetStats");
  EXPECT_EQ(s.substr(0, 4), "Task");
  EXPECT_EQ(s.substr(100), "");
  EXPECT_LT(s.compare("Z"), 0);
  EXPECT_EQ(s.compare(s.view()), 0);
  EXPECT_TRUE(s.startsWith("Task"));
}

TEST(String, KeysStdContainersAndFormats) {
  std::map<String, int> ordered{{"b", 2}, {"a", 1}};
  EXPECT_EQ(ordered.begin()->first, "a");
  std::multimap<String, int, std::greater<String>> desc{{"Kesto", 1}, {"KestoTimer", 2}, {"", 3}};
  EXPECT_EQ(desc.begin()->first, "KestoTimer");
  EXPECT_EQ(desc.rbegin()->first, "");
  std::unordered_set<String> hashed{String("x"), String::dedup(std::string(40, 'x'))};
  EXPECT_EQ(hashed.count(String(std::string(40, 'x'))), 1u);
  EXPECT_EQ(fmt::format("[{}] [{:>5}]", String("hi"), String("ab")), "[hi] [   ab]");
}

TEST(String, MoveLeavesEmpty) {
  String a(std::string(40, 'm'));
  String b(std::move(a));
  EXPECT_EQ(b.size(), 40u);
  EXPECT_TRUE(a.empty()); // NOLINT(bugprone-use-after-move)
}
