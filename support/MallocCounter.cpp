// The interposers behind KestoSupport::mallocCalls(). They live in the same
// object file as the counter, so a program that reads the counter is sure to
// link them from the static support library.
#include <KestoSupport/MallocCounter.h>

#include <cerrno>
#include <cstddef>

namespace KestoSupport {
namespace {
thread_local unsigned long calls = 0;
// The value of `calls` whose allocation fails; 0 = none.
thread_local unsigned long failingCall = 0;
} // namespace

unsigned long mallocCalls() noexcept { return calls; }

void failNthMalloc(unsigned long n) noexcept { failingCall = n == 0 ? 0 : calls + n; }

#ifndef KESTO_SANITIZED
// Counts one allocation; true if it is the one chosen to fail.
static bool countAndCheckFailure() noexcept {
  if (++calls != failingCall) [[likely]]
    return false;
  failingCall = 0;
  errno = ENOMEM;
  return true;
}
#endif

#ifdef KESTO_SANITIZED
bool mallocCountingWorks() noexcept { return false; }
#else
bool mallocCountingWorks() noexcept { return true; }
#endif

} // namespace KestoSupport

#ifndef KESTO_SANITIZED
extern "C" {
void* __libc_malloc(std::size_t);
void* __libc_calloc(std::size_t, std::size_t);
void* __libc_realloc(void*, std::size_t);
void* __libc_memalign(std::size_t, std::size_t);

void* malloc(std::size_t n) {
  if (KestoSupport::countAndCheckFailure())
    return nullptr;
  return __libc_malloc(n);
}
void* calloc(std::size_t count, std::size_t n) {
  if (KestoSupport::countAndCheckFailure())
    return nullptr;
  return __libc_calloc(count, n);
}
void* realloc(void* p, std::size_t n) {
  if (KestoSupport::countAndCheckFailure())
    return nullptr;
  return __libc_realloc(p, n);
}
void* memalign(std::size_t align, std::size_t n) {
  if (KestoSupport::countAndCheckFailure())
    return nullptr;
  return __libc_memalign(align, n);
}
void* aligned_alloc(std::size_t align, std::size_t n) {
  if (KestoSupport::countAndCheckFailure())
    return nullptr;
  return __libc_memalign(align, n);
}
int posix_memalign(void** out, std::size_t align, std::size_t n) {
  if (KestoSupport::countAndCheckFailure())
    return ENOMEM;
  void* p = __libc_memalign(align, n);
  if (!p)
    return ENOMEM;
  *out = p;
  return 0;
}
}
#endif
