// Side-table entry describing one slab page.
//
// The metadata of a page lives outside the page, in a table parallel to the
// data region, so that a free page can be given back with MADV_DONTNEED
// without losing its links, and so that a block of the largest class can
// fill a page exactly. Ownership rules:
//  - localFree, used, bump, the list links and the candidate link belong to
//    the page's owner heap: its thread in per-thread mode, its class lock in
//    the shared mode, and the pool lock while the page has no owner (orphan,
//    empty, returned).
//  - owner changes only under the pool lock; other threads read it to decide
//    where a block they free must go.
#pragma once

#include <atomic>
#include <cstdint>

// Internal to the library: hidden, so that it is reached without the GOT.
#pragma GCC visibility push(hidden)

namespace ZuSlab::Impl {

struct Heap;

enum class PageList : std::uint8_t {
  None,      // not on a list: never used, a heap's current page, or in transit
  Avail,     // owner heap, has free blocks
  Full,      // owner heap, every block handed out
  Orphan,    // its heap's thread ended while blocks were still in use
  Empty,     // every block free, memory still resident
  Returned,  // every block free, memory given back to the system
};

struct alignas(64) PageInfo {
  void* localFree = nullptr;      // free blocks, linked through their first word
  std::uint32_t used = 0;         // blocks handed out and not freed to this page
  std::uint32_t bump = 0;         // blocks never handed out start at this index
  std::uint32_t capacity = 0;     // blocks in the page
  std::uint32_t blockSize = 0;
  std::uint8_t sizeClass = 0;
  PageList list = PageList::None;
  bool candidate = false;         // on its heap's list of possibly empty pages
  std::atomic<Heap*> owner{nullptr};
  PageInfo* prev = nullptr;
  PageInfo* next = nullptr;
  PageInfo* candidateNext = nullptr;
};
static_assert(sizeof(PageInfo) == 64, "one side-table entry per cache line");

// Intrusive doubly linked list of pages. Push and pop at the head, so a page
// freed last is used first while its lines are still cached.
struct PageQueue {
  PageInfo* head = nullptr;
  std::size_t count = 0;

  void push(PageInfo* p, PageList which) {
    p->list = which;
    p->prev = nullptr;
    p->next = head;
    if (head) head->prev = p;
    head = p;
    ++count;
  }
  void pushBack(PageInfo* p, PageList which) {
    if (!head) return push(p, which);
    PageInfo* tail = head;
    while (tail->next) tail = tail->next;
    p->list = which;
    p->prev = tail;
    p->next = nullptr;
    tail->next = p;
    ++count;
  }
  void remove(PageInfo* p) {
    if (p->prev) p->prev->next = p->next; else head = p->next;
    if (p->next) p->next->prev = p->prev;
    p->prev = p->next = nullptr;
    p->list = PageList::None;
    --count;
  }
  PageInfo* pop() {
    PageInfo* p = head;
    if (p) remove(p);
    return p;
  }
};

} // namespace ZuSlab::Impl

#pragma GCC visibility pop
