// Routes Boost.Intrusive's safe-mode checks into the library's assertions.
//
// Safe-mode hooks are null when unlinked, and Boost checks that property on
// every insertion (a node linked twice would corrupt two lists) and when an
// iterator is made from a node. Left to BOOST_ASSERT, a violation would abort
// without a word in release builds, or not be checked at all under NDEBUG;
// here it raises the library's AssertException with the checked expression
// as its text, like every other broken invariant.
//
// Include this before any Boost.Intrusive header, so that all translation
// units agree on the checks; the library's headers that use intrusive
// containers (BookmarkList.h, TaskImpl.h, TaskScheduler.h) include it first.
#pragma once

#include <Kesto/Common/Export.h>

namespace ZuIntrusive::Impl {
[[noreturn]] KESTO_EXPORT void intrusiveAssertFailed(const char* expression, const char* file, const char* function, int line);
} // namespace ZuIntrusive::Impl

#define KESTO_ZUINTRUSIVE_CHECK(expr)                                                                         \
  do {                                                                                                        \
    if (!(expr)) [[unlikely]]                                                                                 \
      ::ZuIntrusive::Impl::intrusiveAssertFailed(#expr, __FILE__, __func__, __LINE__);                       \
  } while (0)

#undef BOOST_INTRUSIVE_SAFE_HOOK_DEFAULT_ASSERT
#undef BOOST_INTRUSIVE_INVARIANT_ASSERT
#undef BOOST_INTRUSIVE_SAFE_HOOK_DESTRUCTOR_ASSERT
#define BOOST_INTRUSIVE_SAFE_HOOK_DEFAULT_ASSERT(expr) KESTO_ZUINTRUSIVE_CHECK(expr)
#define BOOST_INTRUSIVE_INVARIANT_ASSERT(expr) KESTO_ZUINTRUSIVE_CHECK(expr)
// A hook destroyed while linked is reported by its owner (a task unlinks
// itself before its links go), and a destructor must not throw.
#define BOOST_INTRUSIVE_SAFE_HOOK_DESTRUCTOR_ASSERT(expr) ((void)0)
