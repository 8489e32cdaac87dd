#include "SchedulerTestSupport.h"

#include <Kesto/ZuIntrusive/BookmarkList.h>

#include <vector>

using namespace KestoTest;

namespace {
struct Item {
  explicit Item(int v) : value(v) {}
  int value;
  ZuIntrusive::BookmarkLink link;
};
using List = ZuIntrusive::BookmarkList<Item, &Item::link>;

std::vector<int> values(List& list) {
  std::vector<int> out;
  for (Item& i : list)
    out.push_back(i.value);
  return out;
}
} // namespace

TEST(BookmarkList, UnlinkedNodesAreNull) {
  Item a(1);
  EXPECT_FALSE(a.link.isLinked());
  EXPECT_EQ(a.link.kind(), ZuIntrusive::BookmarkLink::element);
  List::Bookmark b;
  EXPECT_FALSE(b.isLinked());
}

TEST(BookmarkList, PushFrontAndBackKeepOrder) {
  List list;
  Item a(1), b(2), c(3);
  EXPECT_TRUE(list.empty());
  list.pushFront(a);
  list.pushFront(b);
  list.pushBack(c);
  EXPECT_EQ(values(list), (std::vector<int>{2, 1, 3}));
  EXPECT_EQ(list.size(), 3u);
  EXPECT_TRUE(list.remove(a));
  EXPECT_FALSE(list.remove(a));
  EXPECT_FALSE(a.link.isLinked());
  EXPECT_EQ(values(list), (std::vector<int>{2, 3}));
  list.remove(b);
  list.remove(c);
}

TEST(BookmarkList, WalksSkipBookmarksAndCountsExcludeThem) {
  List list;
  Item a(1), b(2);
  list.pushBack(a);
  list.pushBack(b);
  List::Bookmark mark;
  mark.insertBefore(list, std::next(list.begin()));
  EXPECT_TRUE(mark.isLinked());
  EXPECT_EQ(values(list), (std::vector<int>{1, 2}));
  EXPECT_EQ(list.size(), 2u);
  EXPECT_EQ(mark.nextElement()->value, 2);
  mark.remove();
  list.remove(a);
  list.remove(b);
}

TEST(BookmarkList, OnlyBookmarksMeansEmpty) {
  List list;
  List::Bookmark mark;
  mark.insertBefore(list, list.end());
  EXPECT_TRUE(list.empty());
  EXPECT_EQ(list.size(), 0u);
  EXPECT_EQ(list.begin(), list.end());
  EXPECT_EQ(mark.nextElement(), list.end());
}

TEST(BookmarkList, BookmarkSurvivesRemovalOfItsNeighbour) {
  List list;
  Item a(1), b(2), c(3);
  list.pushBack(a);
  list.pushBack(b);
  list.pushBack(c);
  List::Bookmark mark;
  mark.insertBefore(list, std::next(list.begin()));  // before b
  list.remove(b);
  EXPECT_EQ(mark.nextElement()->value, 3);
  list.remove(a);
  EXPECT_EQ(mark.nextElement()->value, 3);
  Item d(4);
  list.insertBefore(mark.nextElement(), d);  // before c, after the bookmark
  EXPECT_EQ(mark.nextElement()->value, 4);
  list.remove(c);
  list.remove(d);
  EXPECT_EQ(mark.nextElement(), list.end());
}

TEST(BookmarkList, PushFrontGoesAheadOfAParkedBookmark) {
  List list;
  Item a(1), b(2);
  list.pushBack(a);
  List::Bookmark mark;
  mark.insertBefore(list, list.begin());
  list.pushFront(b);
  // The new element stands ahead of the bookmark: a parked walk won't see it.
  EXPECT_EQ(values(list), (std::vector<int>{2, 1}));
  EXPECT_EQ(mark.nextElement()->value, 1);
  list.remove(a);
  list.remove(b);
}

TEST(BookmarkList, ParkingTwiceFails) {
  List list;
  List::Bookmark mark;
  mark.insertBefore(list, list.end());
  EXPECT_NE(assertText([&] { mark.insertBefore(list, list.end()); }).find("!link.isLinked()"), std::string::npos);
}

TEST(BookmarkList, LinkingAnElementTwiceFails) {
  List list;
  Item a(1);
  list.pushBack(a);
  EXPECT_NE(assertText([&] { list.pushBack(a); }).find("!( element.*ptrToLinkNode ).isLinked()"),
            std::string::npos);
  EXPECT_NE(assertText([&] { list.pushFront(a); }).find("!( element.*ptrToLinkNode ).isLinked()"),
            std::string::npos);
  EXPECT_EQ(list.size(), 1u);
  list.remove(a);
}

TEST(BookmarkList, WalkFromAnUnparkedBookmarkFails) {
  List::Bookmark mark;
  List list;
  mark.insertBefore(list, list.end());
  mark.remove();
  EXPECT_NE(assertText([&] { (void)mark.nextElement(); })
                .find("!node_algorithms::inited(this->priv_value_traits().to_node_ptr(value))"),
            std::string::npos);
}

TEST(BookmarkList, DestructionUnlinksRemainingNodes) {
  Item a(1);
  List::Bookmark mark;
  {
    List list;
    list.pushBack(a);
    mark.insertBefore(list, list.begin());
  }
  EXPECT_FALSE(a.link.isLinked());
  EXPECT_FALSE(mark.isLinked());
}
