#include <Kesto/Debug/Trace.h>

#include <fmt/format.h>

#include <ostream>

namespace Kesto {

namespace {

// One integer, cut towards zero, in the largest unit that keeps the value
// readable: below a minute stays in milliseconds, below an hour in seconds.
String durationText(int64_t nanoseconds) {
  constexpr int64_t hour = 3600000000000;
  constexpr int64_t minute = 60000000000;
  constexpr int64_t second = 1000000000;
  constexpr int64_t millisecond = 1000000;
  constexpr int64_t microsecond = 1000;
  if (nanoseconds >= hour)
    return String(fmt::format("{}min", nanoseconds / minute));
  if (nanoseconds >= minute)
    return String(fmt::format("{}s", nanoseconds / second));
  if (nanoseconds >= millisecond)
    return String(fmt::format("{}ms", nanoseconds / millisecond));
  if (nanoseconds >= microsecond)
    return String(fmt::format("{}\u00b5s", nanoseconds / microsecond));
  return String(fmt::format("{}ns", nanoseconds));
}

} // namespace

String durationToString(std::chrono::nanoseconds duration) { return durationText(duration.count()); }

// 4294967295 ms is some 4.3e15 ns: every value fits the nanosecond text.
String durationToString(std::chrono::duration<std::uint32_t, std::milli> duration) {
  return durationText(int64_t(duration.count()) * 1000000);
}

std::ostream& operator<<(std::ostream& os, std::chrono::nanoseconds duration) {
  return os << durationToString(duration);
}

} // namespace Kesto
