#include <Kesto/Debug/Trace.h>

#include <fmt/format.h>

#include <atomic>

namespace Kesto {

namespace {
std::atomic<bool> forceTraceOnAssertFlag{true};

// An assertion is written unless the caller said it reports assertions
// itself and nobody forced the line.
bool assertionIsTraced() noexcept { return forceTraceOnAssert() || !throwOnAssertFail(); }

// The handler of assertions that name none. Before it exists (a failure in
// the very first constructor) there is nothing to write through.
const Platform::DebugHandler& assertHandlerOrTrap() {
  if (!Debug::assertHandler) [[unlikely]] {
    emitAssertNonNullPtr();
    __builtin_trap();
  }
  return *Debug::assertHandler;
}
} // namespace

void forceTraceOnAssertIs(bool force) { forceTraceOnAssertFlag.store(force, std::memory_order_relaxed); }
bool forceTraceOnAssert() { return forceTraceOnAssertFlag.load(std::memory_order_relaxed); }

namespace Impl {

String vtracestr(bool withLocation, const char* className, const char* file, const char* function, int line,
                 fmt::string_view format, fmt::format_args args) noexcept {
  fmt::memory_buffer text;
  text.reserve(128);
  auto out = std::back_inserter(text);
  if (withLocation)
    fmt::format_to(out, "{}:{}: ", file ? file : "", line);
  if (className) {
    if (*className)
      fmt::format_to(out, "{}::", className);
    fmt::format_to(out, "{}() ", function ? function : "");
  }
  fmt::vformat_to(out, format, args);
  return String(std::string_view(text.data(), text.size()));
}

void vfmtrace(const Platform::DebugHandler& handler, unsigned short level, const char* className,
              const char* file, const char* function, int line, fmt::string_view format,
              fmt::format_args args) noexcept {
  const String text = vtracestr(false, className, file, function, line, format, args);
  Platform::dumpDebugMsg(text.view(), level, handler, file, function, line);
}

void vfmassert(const Platform::DebugHandler& handler, const char* className, const char* file,
               const char* function, int line, fmt::string_view format, fmt::format_args args) {
  const String text = vtracestr(true, className, file, function, line, format, args);
  if (assertionIsTraced())
    Platform::dumpDebugMsg(text.view(), 0, handler, file, function, line);
  AssertException::throwException(text);
}

void vfmassert(const char* className, const char* file, const char* function, int line, fmt::string_view format,
               fmt::format_args args) {
  vfmassert(assertHandlerOrTrap(), className, file, function, line, format, args);
}

String vfmthrow(const Platform::DebugHandler& handler, unsigned short level, const char* className,
                const char* file, const char* function, int line, fmt::string_view format,
                fmt::format_args args) noexcept {
  String text = vtracestr(false, className, file, function, line, format, args);
  if (level < 16 && (Platform::loadLevels(handler.levelsPtr) & (1u << level)))
    Platform::dumpDebugMsg(text.view(), level, handler, file, function, line);
  return text;
}

} // namespace Impl

void debugAndAssert(Platform::DebugHandler& handler, Platform::DebugStream& stream, const char* file,
                    const char* function, int line) {
  Platform::DebugStream message;
  message << file << ':' << function << ':' << line << ": " << stream.str();
  if (assertionIsTraced())
    handler.dump(message, 0, file, function, line);
  AssertException::throwException(String(message.str()));
}

void debugAndAssert(Platform::DebugStream& stream, const char* file, const char* function, int line) {
  debugAndAssert(const_cast<Platform::DebugHandler&>(assertHandlerOrTrap()), stream, file, function, line);
}

} // namespace Kesto
