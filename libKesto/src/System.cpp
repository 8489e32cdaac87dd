#include <Kesto/Core/System.h>

#include <cxxabi.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <memory>

namespace Kesto {

pid_t gettid() noexcept {
  // The tid of a thread never changes, but a forked child is a new thread
  // with the caller's cache: compare against the pid it was taken under.
  thread_local pid_t cachedTid = 0;
  thread_local pid_t cachedPid = 0;
  pid_t pid = ::getpid();
  if (cachedTid == 0 || cachedPid != pid) {
    cachedTid = static_cast<pid_t>(::syscall(SYS_gettid));
    cachedPid = pid;
  }
  return cachedTid;
}

bool isMainThread() noexcept { return gettid() == ::getpid(); }

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
