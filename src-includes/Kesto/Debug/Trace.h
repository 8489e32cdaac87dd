// Trace, assertion and error entry points, and the call-site macros.
//
// A disabled trace costs one load of the mask, one bit test and a branch: the
// macros test the level before any argument is evaluated, and the formatting
// functions behind them are out of line. Assertions always write their line
// (unless the caller said it reports them itself) and throw AssertException;
// run-time errors trace at level 0 when enabled and throw RuntimeException.
//
//   KESTO_TRACE(handler, 5, "FileLock", "locked {}", path);
//   KESTO_ASSERT(flags >= 0, "Kesto", "flags >= 0");
//   KESTO_THROW(handler, "Kesto::Util", "open of {} failed: {}", path, err);
#pragma once

#include <Kesto/Common/Export.h>

#include <Kesto/Core/Exception.h>
#include <Kesto/Debug/DebugHandler.h>

#include <fmt/format.h>

#include <chrono>
#include <cstdint>
#include <iosfwd>

namespace Kesto {

// ---- the library's own handlers ---------------------------------------
// Created at load (initialisation priority 60000), alive until process exit.
namespace Debug {
extern KESTO_EXPORT Ptr<Platform::DebugHandler> kestoUtil;
extern KESTO_EXPORT Ptr<Platform::DebugHandler> kestoTimerWheel;
extern KESTO_EXPORT Ptr<Platform::DebugHandler> taskScheduler;
extern KESTO_EXPORT Ptr<Platform::DebugHandler> kestoPlugin;
extern KESTO_EXPORT Ptr<Platform::DebugHandler> kestoLibevent;
extern KESTO_EXPORT Ptr<Platform::DebugHandler> kestoIntrusiveHashMap;
extern KESTO_EXPORT Ptr<Platform::DebugHandler> assertHandler;
} // namespace Debug

// ---- out-of-line workers ----------------------------------------------
namespace Impl {
// The trace machinery may not throw: an exception inside it ends the process.
KESTO_EXPORT String vtracestr(bool withLocation, const char* className, const char* file, const char* function, int line,
                 fmt::string_view format, fmt::format_args args) noexcept;
KESTO_EXPORT void vfmtrace(const Platform::DebugHandler& handler, unsigned short level, const char* className,
              const char* file, const char* function, int line, fmt::string_view format,
              fmt::format_args args) noexcept;
[[noreturn]] KESTO_EXPORT void vfmassert(const Platform::DebugHandler& handler, const char* className, const char* file,
                            const char* function, int line, fmt::string_view format, fmt::format_args args);
[[noreturn]] KESTO_EXPORT void vfmassert(const char* className, const char* file, const char* function, int line,
                            fmt::string_view format, fmt::format_args args);
KESTO_EXPORT String vfmthrow(const Platform::DebugHandler& handler, unsigned short level, const char* className,
                const char* file, const char* function, int line, fmt::string_view format,
                fmt::format_args args) noexcept;

inline const Platform::DebugHandler& handlerOf(const Platform::DebugHandler& h) noexcept { return h; }
inline const Platform::DebugHandler& handlerOf(const Ptr<Platform::DebugHandler>& h) { return *h; }
inline const Platform::DebugHandler& handlerOf(const Debuggable& d) { return *d.debugHandler(); }
} // namespace Impl

// ---- the family of entry points ---------------------------------------
template <typename Handler, typename... Args>
void fmtrace(const Handler& handler, unsigned short level, const char* file, const char* function, int line,
             const char* className, fmt::format_string<Args...> format, Args&&... args) {
  Impl::vfmtrace(Impl::handlerOf(handler), level, className, file, function, line, format,
                 fmt::make_format_args(args...));
}

template <typename... Args>
String fmtracestr(bool withLocation, const char* className, const char* file, const char* function, int line,
                  fmt::format_string<Args...> format, Args&&... args) {
  return Impl::vtracestr(withLocation, className, file, function, line, format, fmt::make_format_args(args...));
}

template <typename... Args>
[[noreturn]] void fmassert(const char* className, const char* file, const char* function, int line,
                           fmt::format_string<Args...> format, Args&&... args) {
  Impl::vfmassert(className, file, function, line, format, fmt::make_format_args(args...));
}

template <typename Handler, typename... Args>
[[noreturn]] void fmassert(const Handler& handler, const char* className, const char* file, const char* function,
                           int line, fmt::format_string<Args...> format, Args&&... args) {
  Impl::vfmassert(Impl::handlerOf(handler), className, file, function, line, format,
                  fmt::make_format_args(args...));
}

template <typename Handler, typename... Args>
String vfmthrow(const Handler& handler, unsigned short level, const char* className, const char* file,
                const char* function, int line, fmt::format_string<Args...> format, Args&&... args) {
  return Impl::vfmthrow(Impl::handlerOf(handler), level, className, file, function, line, format,
                        fmt::make_format_args(args...));
}

[[noreturn]] KESTO_EXPORT void debugAndAssert(Platform::DebugHandler& handler, Platform::DebugStream& stream, const char* file,
                                 const char* function, int line);
[[noreturn]] KESTO_EXPORT void debugAndAssert(Platform::DebugStream& stream, const char* file, const char* function, int line);

KESTO_EXPORT void forceTraceOnAssertIs(bool force);
KESTO_EXPORT bool forceTraceOnAssert();

// Refuses a process into which an incompatible library was loaded. Runs as
// the library's first constructor.
KESTO_EXPORT void checkIncompat();

// ---- trace output -----------------------------------------------------
namespace Platform {
// Applies a TRACEFORMAT text (null: the environment's, if set).
KESTO_EXPORT void setTraceFormat(const char* format);
KESTO_EXPORT void clearTraceFormat();
KESTO_EXPORT void printAllTraceFormat();
// Writes one line: the prefix chosen by the format, the text, a newline.
KESTO_EXPORT void dumpDebugMsg(const std::string_view& text, unsigned short level, const DebugHandler& handler,
                  const char* file, const char* function, int line) noexcept;
} // namespace Platform

// ---- values in messages -----------------------------------------------
// A pointer written as "NULL" or 0x and 16 hexadecimal digits.
struct KESTO_EXPORT DisplayPointer {
  const void* pointer;
  explicit DisplayPointer(const void* p) noexcept : pointer(p) {}
};

// One integer, cut not rounded, and a unit: ns, µs, ms, s or min. The two
// forms are the durations the library hands out: signed 64-bit nanoseconds
// (TaskTimeDuration) and unsigned 32-bit milliseconds (TaskDurationMs, the
// unit of quanta, latencies and run-time high-water marks), so either goes in
// as it comes out; its largest value, 4294967295 ms, reads "71582min".
KESTO_EXPORT String durationToString(std::chrono::nanoseconds duration);
KESTO_EXPORT String durationToString(std::chrono::duration<std::uint32_t, std::milli> duration);
// Any other duration (std::chrono::milliseconds, seconds, ...) is written as
// its value in nanoseconds, truncated toward zero.
template <class Rep, class Period>
String durationToString(std::chrono::duration<Rep, Period> duration) {
  return durationToString(std::chrono::duration_cast<std::chrono::nanoseconds>(duration));
}

// The same text on a stream, for code of this namespace (it is preferred to
// the standard library's own output of durations there).
KESTO_EXPORT std::ostream& operator<<(std::ostream& os, std::chrono::nanoseconds duration);

} // namespace Kesto

extern "C" {
// The value 2 marks this library; another value means a foreign library
// defined the symbol first.
extern KESTO_EXPORT int32_t platformLibPresenceFlag;
}

template <>
struct fmt::formatter<Kesto::DisplayPointer> : fmt::formatter<fmt::string_view> {
  auto format(const Kesto::DisplayPointer& p, fmt::format_context& ctx) const {
    if (!p.pointer)
      return fmt::formatter<fmt::string_view>::format("NULL", ctx);
    return fmt::format_to(ctx.out(), "{:#0{}x}", reinterpret_cast<std::uintptr_t>(p.pointer), 18);
  }
};

// Durations in messages read as durationToString writes them.
template <>
struct fmt::formatter<std::chrono::nanoseconds> : fmt::formatter<fmt::string_view> {
  auto format(std::chrono::nanoseconds d, fmt::format_context& ctx) const {
    const Kesto::String text = Kesto::durationToString(d);
    return fmt::formatter<fmt::string_view>::format(fmt::string_view(text.data(), text.size()), ctx);
  }
};

template <>
struct fmt::formatter<std::chrono::duration<std::uint32_t, std::milli>> : fmt::formatter<fmt::string_view> {
  auto format(std::chrono::duration<std::uint32_t, std::milli> d, fmt::format_context& ctx) const {
    const Kesto::String text = Kesto::durationToString(d);
    return fmt::formatter<fmt::string_view>::format(fmt::string_view(text.data(), text.size()), ctx);
  }
};

// ---- call-site macros -------------------------------------------------
// `handler` may be a Ptr<DebugHandler> (null is reported through
// emitAssertNonNullPtr), a Debuggable or a DebugHandler&.
#define KESTO_TRACE(handler, level, className, ...)                                                           \
  do {                                                                                                        \
    const ::Kesto::Platform::DebugHandler& kestoTraceHandler_ = ::Kesto::Impl::handlerOf(handler);            \
    if (::Kesto::Platform::loadLevels(kestoTraceHandler_.levelsPtr) & (1u << (level))) [[unlikely]]           \
      ::Kesto::fmtrace(kestoTraceHandler_, (level), __FILE__, __func__, __LINE__, className, __VA_ARGS__);    \
  } while (0)

#define KESTO_ENABLED(handler, level)                                                                         \
  ((::Kesto::Platform::loadLevels(::Kesto::Impl::handlerOf(handler).levelsPtr) & (1u << (level))) != 0)

// Asserts `cond`; the message is formatted only on failure.
#define KESTO_ASSERT(cond, className, ...)                                                                    \
  do {                                                                                                        \
    if (!(cond)) [[unlikely]]                                                                                 \
      ::Kesto::fmassert(className, __FILE__, __func__, __LINE__, __VA_ARGS__);                               \
  } while (0)

#define KESTO_ASSERT_H(handler, cond, className, ...)                                                         \
  do {                                                                                                        \
    if (!(cond)) [[unlikely]]                                                                                 \
      ::Kesto::fmassert(handler, className, __FILE__, __func__, __LINE__, __VA_ARGS__);                      \
  } while (0)

#define KESTO_FAIL(className, ...) ::Kesto::fmassert(className, __FILE__, __func__, __LINE__, __VA_ARGS__)

// Traces at level 0 if enabled and throws RuntimeException with the text.
#define KESTO_THROW(handler, className, ...)                                                                  \
  ::Kesto::RuntimeException::throwException(                                                                  \
      ::Kesto::vfmthrow(handler, 0, className, __FILE__, __func__, __LINE__, __VA_ARGS__))
