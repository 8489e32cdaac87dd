// ZuIntrusive::BookmarkList: an intrusive list whose walks can be parked.
//
// A doubly linked circular list with a header, built on Boost.Intrusive. Each
// node (BookmarkLink) holds next, previous and a kind: element (0) or
// bookmark (1). Elements are objects of T that carry a BookmarkLink member;
// a Bookmark is a free-standing node that stands at a position without being
// an element. Every walk skips bookmarks, so a long walk can park a bookmark
// before the next element, give up control, and resume later from it: any
// element may be inserted or removed meanwhile, including the one next to the
// bookmark, and the bookmark stays where it was.
//
// Ownership: the list owns nothing. Elements and bookmarks unlink themselves
// or are unlinked by the owner before they go; the list's destructor sets all
// remaining nodes unlinked. An unlinked node has null pointers.
//
// Cost: insertion and removal are constant time and allocate nothing. size()
// walks the list; callers that need counts keep counters.
#pragma once

#include <Kesto/Common/Export.h>

#include <Kesto/ZuIntrusive/SafeHookAssert.h>

#include <boost/intrusive/list.hpp>
#include <boost/intrusive/parent_from_member.hpp>

#include <cstddef>
#include <cstdint>
#include <iterator>

namespace ZuIntrusive {

namespace Impl {
[[noreturn]] KESTO_EXPORT void bookmarkListAssertFailed(const char* expression, const char* file, const char* function,
                                           int line);
} // namespace Impl

class KESTO_EXPORT BookmarkLink
    : public boost::intrusive::list_base_hook<boost::intrusive::link_mode<boost::intrusive::safe_link>> {
public:
  enum Kind : std::uint8_t { element = 0, bookmark = 1 };

  explicit BookmarkLink(Kind kind = element) noexcept : kind_(kind) {}
  // A copy of an object is not in its original's lists.
  BookmarkLink(const BookmarkLink& other) noexcept : kind_(other.kind_) {}
  BookmarkLink& operator=(const BookmarkLink&) noexcept { return *this; }

  bool isLinked() const noexcept { return is_linked(); }
  Kind kind() const noexcept { return kind_; }
  bool isBookmark() const noexcept { return kind_ == bookmark; }

private:
  Kind kind_;
};

template <typename T, BookmarkLink T::*ptrToLinkNode>
class BookmarkList {
  using Links = boost::intrusive::list<BookmarkLink, boost::intrusive::constant_time_size<false>>;
  using LinkIt = typename Links::iterator;

public:
  // Iterates elements only, skipping bookmarks.
  class iterator {
  public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = T;
    using difference_type = std::ptrdiff_t;
    using pointer = T*;
    using reference = T&;

    iterator() = default;
    T& operator*() const noexcept { return *owner(&*it_); }
    T* operator->() const noexcept { return owner(&*it_); }
    iterator& operator++() noexcept {
      ++it_;
      skip();
      return *this;
    }
    iterator operator++(int) noexcept {
      iterator r = *this;
      ++*this;
      return r;
    }
    friend bool operator==(const iterator& a, const iterator& b) noexcept { return a.it_ == b.it_; }

  private:
    friend class BookmarkList;
    iterator(LinkIt it, LinkIt end) noexcept : it_(it), end_(end) { skip(); }
    void skip() noexcept {
      while (it_ != end_ && it_->isBookmark())
        ++it_;
    }
    LinkIt it_;
    LinkIt end_;
  };

  // A position holder; see the class comment. Unlinks itself when destroyed.
  class Bookmark {
  public:
    Bookmark() noexcept : link_(BookmarkLink::bookmark) {}
    Bookmark(const Bookmark&) = delete;
    Bookmark& operator=(const Bookmark&) = delete;
    ~Bookmark() { remove(); }

    bool isLinked() const noexcept { return link_.isLinked(); }

    // Parks the bookmark before `position` (end(): at the tail) of `list`.
    void insertBefore(BookmarkList& list, iterator position) {
      const BookmarkLink& link = link_;
      if (link.isLinked()) [[unlikely]]
        Impl::bookmarkListAssertFailed("!link.isLinked()", __FILE__, __func__, __LINE__);
      list_ = &list;
      list.links_.insert(position.it_, link_);
    }

    // The first element after the bookmark, or end(). The bookmark must be
    // parked.
    iterator nextElement() const {
      LinkIt it = list_->links_.iterator_to(const_cast<BookmarkLink&>(link_));
      return iterator(++it, list_->links_.end());
    }

    // Takes the bookmark out; nothing happens if it is not parked.
    void remove() noexcept {
      if (link_.isLinked())
        list_->links_.erase(list_->links_.iterator_to(link_));
    }

  private:
    BookmarkLink link_;
    BookmarkList* list_ = nullptr;
  };

  BookmarkList() = default;
  BookmarkList(const BookmarkList&) = delete;
  BookmarkList& operator=(const BookmarkList&) = delete;
  // Remaining nodes are set unlinked: their owners may outlive the list.
  ~BookmarkList() { links_.clear(); }

  static bool isLinked(const T& element) noexcept { return (element.*ptrToLinkNode).isLinked(); }

  // At the very head, ahead of any bookmark: a parked walk does not visit
  // elements added behind its back at the front.
  void pushFront(T& element) {
    checkUnlinked(element);
    links_.push_front(element.*ptrToLinkNode);
  }
  void pushBack(T& element) { insertBefore(end(), element); }
  // Inserts `element` before `position`. A linked element is a programming
  // error: it would corrupt the list it is in.
  void insertBefore(iterator position, T& element) {
    checkUnlinked(element);
    links_.insert(position.it_, element.*ptrToLinkNode);
  }

  // Unlinks `element`; false if it was not linked.
  bool remove(T& element) noexcept {
    BookmarkLink& link = element.*ptrToLinkNode;
    if (!link.isLinked())
      return false;
    links_.erase(links_.iterator_to(link));
    return true;
  }

  // The first element (leading bookmarks skipped) and the end.
  iterator begin() noexcept { return iterator(links_.begin(), links_.end()); }
  iterator end() noexcept { return iterator(links_.end(), links_.end()); }

  bool empty() const noexcept {
    for (const BookmarkLink& l : links_)
      if (!l.isBookmark())
        return false;
    return true;
  }
  // Elements, bookmarks not counted. Walks the list.
  std::size_t size() const noexcept {
    std::size_t n = 0;
    for (const BookmarkLink& l : links_)
      n += !l.isBookmark();
    return n;
  }

private:
  static void checkUnlinked(T& element) {
    if ((element.*ptrToLinkNode).isLinked()) [[unlikely]]
      Impl::bookmarkListAssertFailed("!( element.*ptrToLinkNode ).isLinked()", __FILE__, __func__, __LINE__);
  }
  static T* owner(BookmarkLink* link) noexcept {
    return boost::intrusive::get_parent_from_member<T>(link, ptrToLinkNode);
  }

  Links links_;
};

} // namespace ZuIntrusive
