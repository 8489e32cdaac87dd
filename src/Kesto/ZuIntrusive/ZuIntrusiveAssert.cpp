#include <Kesto/Debug/Trace.h>
#include <Kesto/ZuIntrusive/BookmarkList.h>
#include <Kesto/ZuIntrusive/SafeHookAssert.h>

namespace ZuIntrusive::Impl {

void intrusiveAssertFailed(const char* expression, const char* file, const char* function, int line) {
  ::Kesto::fmassert("ZuIntrusive", file, function, line, "{}", expression);
}

void bookmarkListAssertFailed(const char* expression, const char* file, const char* function, int line) {
  ::Kesto::fmassert("ZuIntrusive::BookmarkList", file, function, line, "{}", expression);
}

} // namespace ZuIntrusive::Impl
