#include <Kesto/Core/Backtrace.h>
#include <Kesto/Core/Exception.h>

#include <execinfo.h>

#include <atomic>
#include <cstdio>

namespace Kesto {

namespace {
std::atomic<bool> throwOnAssertFailFlag{false};
}

Exception::Exception(const String& message)
    : message_(message), frameCount_(::backtrace(frames_, maxFrames)) {}

Exception::~Exception() = default;

String Exception::backtrace() const { return Backtrace::prettyFrames(frames_, frameCount_); }

void Exception::throwException(const String& message) { throw Exception(message); }
void AssertException::throwException(const String& message) { throw AssertException(message); }
void RuntimeException::throwException(const String& message) { throw RuntimeException(message); }

bool throwOnAssertFail() noexcept { return throwOnAssertFailFlag.load(std::memory_order_relaxed); }
void throwOnAssertFailIs(bool enabled) noexcept { throwOnAssertFailFlag.store(enabled, std::memory_order_relaxed); }

void emitAssertNonNullPtr() {
  static constexpr const char* message = "Kesto: use of a null Ptr";
  if (!throwOnAssertFail()) {
    String trace = Backtrace(true).pretty();
    std::fprintf(stderr, "%s\n%s\n", message, trace.data());
    std::fflush(stderr);
  }
  AssertException::throwException(message);
}

} // namespace Kesto
