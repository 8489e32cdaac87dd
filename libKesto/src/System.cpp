#include <Kesto/Core/System.h>

#include <cxxabi.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <memory>

namespace Kesto {

namespace {

// Per-thread cache of the kernel ids. A thread's tid never changes, but the
// one thread of a forked child is a new kernel thread that inherits the
// forking thread's cache; the fork handler below forgets it there. getpid()
// is a system call on current glibc, so nothing on the fast path calls it.
thread_local pid_t cachedTid = 0;
thread_local bool cachedIsMain = false;

void forgetIdsInChild() noexcept { cachedTid = 0; }

pid_t loadIds() noexcept {
  const pid_t tid = static_cast<pid_t>(::syscall(SYS_gettid));
  cachedIsMain = tid == ::getpid();
  cachedTid = tid;
  return tid;
}

[[maybe_unused]] const int forkHandlerRegistered = ::pthread_atfork(nullptr, nullptr, &forgetIdsInChild);

} // namespace

pid_t gettid() noexcept {
  const pid_t tid = cachedTid;
  return tid ? tid : loadIds();
}

bool isMainThread() noexcept {
  if (!cachedTid)
    loadIds();
  return cachedIsMain;
}

bool hasThreadLocalSingletons() noexcept { return true; }

String strerror(int error) {
  char buffer[256];
  // GNU strerror_r returns the text, which may or may not be in the buffer.
  const char* text = ::strerror_r(error, buffer, sizeof buffer);
  return String(text);
}

String typeName(const char* mangledName) {
  if (!mangledName)
    return String();
  int status = 0;
  std::unique_ptr<char, decltype(&std::free)> demangled(
      abi::__cxa_demangle(mangledName, nullptr, nullptr, &status), &std::free);
  if (status != 0 || !demangled)
    return String(mangledName);
  return String(demangled.get());
}

int cmd_F_OFD_SETLK() noexcept { return F_OFD_SETLK; }

} // namespace Kesto
