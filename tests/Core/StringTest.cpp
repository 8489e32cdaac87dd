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

namespace {

// One text in each form: short (at the boundary), ordinary and deduplicated.
struct Forms {
  std::string text;
  String shortOne, ordinary, dedup;
};

const std::string text22 = "abcdefghijklmnopqrstuv";  // 22 bytes: the longest short text
const std::string text23 = "abcdefghijklmnopqrstuvw"; // 23 bytes: the shortest heap text

} // namespace

TEST(String, BoundaryFormsOfEveryConstructor) {
  ASSERT_EQ(text22.size(), 22u);
  ASSERT_EQ(text23.size(), 23u);
  EXPECT_TRUE(String(text22.c_str()).isShort());
  EXPECT_TRUE(String(text22.data(), 22).isShort());
  EXPECT_TRUE(String(std::string_view(text22)).isShort());
  EXPECT_TRUE(String(text23.c_str()).isOrdinary());
  EXPECT_TRUE(String(text23.data(), 23).isOrdinary());
  EXPECT_TRUE(String(text23).isOrdinary());
  EXPECT_TRUE(String::dedup(text22).isShort());
  EXPECT_TRUE(String::dedup(text23).isDedup());
  EXPECT_EQ(String::dedup(text23).view(), text23);
  EXPECT_EQ(String::dedup(text23).data()[23], '\0');
  EXPECT_EQ(String(static_cast<const char*>(nullptr)).size(), 0u);
}

TEST(String, CopyOfEveryForm) {
  for (const std::string& t : {text22, text23, std::string(200, 'L')}) {
    String ordinaryOrShort(t);
    String dedup = String::dedup(t);
    String copy1(ordinaryOrShort);
    String copy2(dedup);
    EXPECT_EQ(copy1.view(), t);
    EXPECT_EQ(copy2.view(), t);
    EXPECT_EQ(copy1.form(), ordinaryOrShort.form());
    EXPECT_EQ(copy2.form(), dedup.form());
    if (ordinaryOrShort.isOrdinary()) {
      EXPECT_NE(copy1.data(), ordinaryOrShort.data()); // an ordinary copy owns its buffer
    }
    if (dedup.isDedup()) {
      EXPECT_EQ(copy2.data(), dedup.data()); // a dedup copy shares the table's text
    }
    EXPECT_EQ(copy1.data()[t.size()], '\0');
  }
}

TEST(String, MoveOfEveryForm) {
  for (const std::string& t : {text22, text23}) {
    for (bool dedup : {false, true}) {
      String source = dedup ? String::dedup(t) : String(t);
      const String::Form form = source.form();
      const char* data = source.data();
      String moved(std::move(source));
      EXPECT_EQ(moved.view(), t);
      EXPECT_EQ(moved.form(), form);
      if (form != String::Form::shortForm) {
        EXPECT_EQ(moved.data(), data); // the buffer moves, nothing is copied
      }
      EXPECT_TRUE(source.empty());     // NOLINT(bugprone-use-after-move)
      EXPECT_TRUE(source.isShort());
      String target("old text that is long enough to be on the heap");
      target = std::move(moved);
      EXPECT_EQ(target.view(), t);
      EXPECT_TRUE(moved.empty()); // NOLINT(bugprone-use-after-move)
    }
  }
}

TEST(String, AssignBetweenEveryPairOfForms) {
  const std::vector<String> values = {String(), String(text22), String(text23), String::dedup(text23),
                                      String(std::string(100, 'o')), String::dedup(std::string(100, 'd'))};
  for (const String& from : values) {
    for (const String& to : values) {
      String target(to);
      target = from;
      EXPECT_EQ(target, from);
      EXPECT_EQ(target.view(), from.view());
      EXPECT_EQ(target.form(), from.form());
      EXPECT_EQ(target.data()[target.size()], '\0');
    }
  }
  String self(text23);
  const String& alias = self;
  self = alias;
  EXPECT_EQ(self.view(), text23);
  String fromView(text22);
  fromView = std::string_view(text23);
  EXPECT_EQ(fromView.view(), text23);
  fromView = "x";
  EXPECT_EQ(fromView, "x");
  EXPECT_TRUE(fromView.isShort());
}

TEST(String, AssignFromOwnSubstring) {
  String s(std::string(30, 'a') + std::string(30, 'b'));
  s = s.view().substr(30);
  EXPECT_EQ(s.view(), std::string(30, 'b'));
  s = s.view().substr(20);
  EXPECT_EQ(s.view(), std::string(10, 'b'));
  EXPECT_TRUE(s.isShort());
}

TEST(String, AddRightCrossesTheBoundary) {
  String s(text22.substr(0, 21));
  s.addRight("v");
  EXPECT_TRUE(s.isShort());
  EXPECT_EQ(s.view(), text22);
  s.addRight("w");
  EXPECT_TRUE(s.isOrdinary());
  EXPECT_EQ(s.view(), text23);
  EXPECT_EQ(s.data()[23], '\0');
  String d = String::dedup(text23);
  const char* interned = d.data();
  d.addRight("x");
  EXPECT_TRUE(d.isOrdinary());
  EXPECT_EQ(d.view(), text23 + "x");
  EXPECT_EQ(String::dedup(text23).data(), interned); // the table's text is untouched
  EXPECT_EQ(std::string_view(interned), text23);
}

TEST(String, AddLeftOfEveryForm) {
  String s(text22.substr(1));
  s.addLeft("a");
  EXPECT_TRUE(s.isShort());
  EXPECT_EQ(s.view(), text22);
  s.addLeft(">");
  EXPECT_TRUE(s.isOrdinary());
  EXPECT_EQ(s.view(), ">" + text22);
  String d = String::dedup(text23);
  d.addLeft("<");
  EXPECT_EQ(d.view(), "<" + text23);
  EXPECT_EQ(String::dedup(text23).view(), text23);
  String self(text23);
  self.addLeft(self.view());
  EXPECT_EQ(self.view(), text23 + text23);
}

TEST(String, RepeatedAddRightKeepsEveryByte) {
  String s;
  std::string expected;
  for (int i = 0; i < 500; ++i) {
    const std::string piece = std::to_string(i) + ",";
    s.addRight(piece);
    expected += piece;
    ASSERT_EQ(s.view(), expected);
    ASSERT_EQ(s.data()[s.size()], '\0');
  }
}

TEST(String, FindSubstrCompareInEveryForm) {
  const std::string text = "Scheduler.root.Task:read"; // 24 bytes
  for (const String& s : {String(text), String::dedup(text), String(text.substr(0, 14))}) {
    EXPECT_EQ(s.find('.'), 9u);
    EXPECT_EQ(s.find('.', 10), 14u == s.size() ? String::npos : 14u);
    EXPECT_EQ(s.find("root"), 10u);
    EXPECT_EQ(s.find("root", 11), String::npos);
    EXPECT_EQ(s.find(""), 0u);
    EXPECT_EQ(s.rfind('e'), s.view().rfind('e'));
    EXPECT_EQ(s.substr(0, 9), "Scheduler");
    EXPECT_EQ(s.substr(10, 4), "root");
    EXPECT_EQ(s.substr(s.size()), "");
    EXPECT_EQ(s.substr(3, 1000).view(), s.view().substr(3));
    EXPECT_EQ(s.compare(s.view()), 0);
    EXPECT_EQ(s.compare("A"), 1);
    EXPECT_EQ(s.compare("Z"), -1);
    EXPECT_EQ(s.compare(std::string(s.view()) + "x"), -1);
    EXPECT_EQ(s.compare(s.view().substr(0, 3)), 1);
  }
  const String longOne(text);
  EXPECT_TRUE(longOne.substr(0, 22).isShort());
  EXPECT_TRUE(longOne.substr(0, 23).isOrdinary());
  EXPECT_EQ(longOne.substr(19), ":read");
}

TEST(String, EqualityAndOrderAcrossForms) {
  const String a(text23), b = String::dedup(text23);
  EXPECT_EQ(a, b);
  EXPECT_EQ(b, a);
  EXPECT_EQ(a <=> b, std::strong_ordering::equal);
  const String c = String::dedup(text23 + "!");
  EXPECT_NE(b, c); // two dedup strings of different texts
  EXPECT_LT(b, c);
  EXPECT_NE(String(text22), String(text23));
  EXPECT_LT(String(text22), String(text23));
  EXPECT_EQ(String("abc"), "abc");
  EXPECT_FALSE(String("abc") == static_cast<const char*>(nullptr));
  EXPECT_TRUE(String() == static_cast<const char*>(nullptr));
}

TEST(String, HashIsEqualAcrossForms) {
  for (const std::string& t : {std::string(), std::string("a"), text22, text23, std::string(300, 'h')}) {
    const String plain(t), dedup = String::dedup(t);
    EXPECT_EQ(plain.hash(), dedup.hash()) << t;
    EXPECT_EQ(std::hash<String>()(plain), std::hash<String>()(dedup));
    EXPECT_EQ(Kesto::hash_value(plain), plain.hash());
  }
  EXPECT_NE(String(text22).hash(), String(text23).hash());
  EXPECT_NE(String("ab").hash(), String("ba").hash());
}

TEST(String, DedupIdentity) {
  const std::string t = "a scheduler name that needs the table";
  const String a = String::dedup(t);
  const String b = String(t).dedup();
  const String c = a.dedup(); // dedup of a dedup is itself
  EXPECT_EQ(a.data(), b.data());
  EXPECT_EQ(a.data(), c.data());
  EXPECT_NE(a.data(), t.data());
  const std::size_t before = String::dedupTableSize();
  for (int i = 0; i < 10; ++i)
    EXPECT_EQ(String::dedup(t).data(), a.data());
  EXPECT_EQ(String::dedupTableSize(), before);
  static int run = 0; // a text no earlier run (--gtest_repeat) has interned
  const String fresh = String::dedup(t + " and more, run " + std::to_string(++run));
  EXPECT_EQ(String::dedupTableSize(), before + 1);
  EXPECT_NE(fresh.data(), a.data());
}

TEST(String, DedupSurvivesTableGrowth) {
  // Enough distinct names to make the table grow several times; every name
  // taken before the growth must still be found at its old place.
  std::vector<String> first;
  for (int i = 0; i < 3000; ++i)
    first.push_back(String::dedup("growth test name number " + std::to_string(i)));
  for (int i = 0; i < 3000; ++i) {
    const String again = String::dedup("growth test name number " + std::to_string(i));
    ASSERT_EQ(again.data(), first[i].data());
    ASSERT_EQ(again.view(), "growth test name number " + std::to_string(i));
  }
}

TEST(String, DedupIsThreadSafeWhileTheTableGrows) {
  // Threads intern overlapping sets of new names at once: each text must end
  // up stored exactly once, whoever got there first.
  constexpr int threads = 4, names = 2000;
  std::vector<std::vector<const char*>> seen(threads, std::vector<const char*>(names));
  std::vector<std::thread> pool;
  for (int t = 0; t < threads; ++t)
    pool.emplace_back([t, &seen] {
      for (int k = 0; k < names; ++k) {
        const int i = (k * 7 + t * 500) % names; // a different order per thread
        seen[t][i] = String::dedup("racing dedup name number " + std::to_string(i)).data();
      }
    });
  for (auto& th : pool)
    th.join();
  std::set<const char*> distinct;
  for (int i = 0; i < names; ++i) {
    for (int t = 1; t < threads; ++t)
      ASSERT_EQ(seen[t][i], seen[0][i]) << i;
    distinct.insert(seen[0][i]);
    ASSERT_EQ(std::string_view(seen[0][i]), "racing dedup name number " + std::to_string(i));
  }
  EXPECT_EQ(distinct.size(), std::size_t(names));
}

TEST(String, CopyOfShortOrDedupIsFree) {
  EXPECT_TRUE(String(text22).copyIsFree());
  EXPECT_TRUE(String::dedup(text23).copyIsFree());
  EXPECT_FALSE(String(text23).copyIsFree());
  EXPECT_TRUE(String(text23).dedup().copyIsFree());
}

TEST(String, SwapExchangesForms) {
  String a(text22), b = String::dedup(text23);
  swap(a, b);
  EXPECT_TRUE(a.isDedup());
  EXPECT_EQ(a.view(), text23);
  EXPECT_TRUE(b.isShort());
  EXPECT_EQ(b.view(), text22);
}

TEST(String, FormatsThroughTheSharedWriter) {
  fmt::memory_buffer out;
  fmt::format_to(std::back_inserter(out), "{}", String::dedup(text23));
  EXPECT_EQ(fmt::to_string(out), text23);
  EXPECT_EQ(fmt::format("{:>25}", String(text23)), "  " + text23);
}

TEST(String, ClearKeepingCapacityReusesTheBufferOfTheOrdinaryForm) {
  String s;
  for (int i = 0; i < 100; ++i)
    s.addRight("a line of a report that is long enough\n");
  ASSERT_TRUE(s.isOrdinary());
  const char* buffer = s.data();
  const U32 capacity = s.capacity();
  ASSERT_GE(capacity, s.size());
  s.clearKeepingCapacity();
  EXPECT_TRUE(s.empty());
  EXPECT_STREQ("", s.data());
  EXPECT_EQ(capacity, s.capacity());
  // Refilled up to the old size: same buffer, same bytes as a fresh string.
  String fresh;
  for (int i = 0; i < 100; ++i) {
    s.addRight("another line, of a different length\n");
    fresh.addRight("another line, of a different length\n");
  }
  EXPECT_EQ(buffer, s.data());
  EXPECT_EQ(fresh, s);
  // A copy of the emptied string holds no heap buffer.
  s.clearKeepingCapacity();
  const String copy(s);
  EXPECT_TRUE(copy.isShort());
  EXPECT_TRUE(copy.empty());
}

TEST(String, ClearKeepingCapacityOfShortAndDedupFormsIsTheEmptyShortString) {
  String shortOne("short");
  shortOne.clearKeepingCapacity();
  EXPECT_TRUE(shortOne.isShort());
  EXPECT_TRUE(shortOne.empty());
  String interned = String::dedup(std::string(40, 'd'));
  ASSERT_TRUE(interned.isDedup());
  interned.clearKeepingCapacity();
  EXPECT_TRUE(interned.isShort());
  EXPECT_TRUE(interned.empty());
  EXPECT_EQ(std::string(40, 'd'), String::dedup(std::string(40, 'd')).view()); // the table entry is untouched
}
