// Time and identity types of the scheduler.
//
//  - Time (Kesto/Platform/Time.h): seconds in a double, Kesto::time(), virtual time
//    included. Used for quanta in virtual-time mode and by timers.
//  - TaskTimeStamp: a point of the steady clock in signed 64-bit nanoseconds.
//    The value 0 (a default-constructed stamp) means "none".
//  - TaskTimeDuration: signed 64-bit nanoseconds.
//  - TaskDurationMs: unsigned 32-bit milliseconds, the unit of quanta,
//    latencies and run-time high-water marks.
//  - TaskKey: the address of a task or scheduler, for the life of a report.
//
// taskClockNow() is the one place the scheduler reads the steady clock, the
// library's (Kesto/Platform/SteadyClock.h), which has CLOCK_MONOTONIC's origin
// like std::chrono::steady_clock. A test may install its own clock with
// taskClockFnIs() so that run times and latencies are exact; without one the
// cost is a load and a predicted branch.
#pragma once

#include <Kesto/Common/Export.h>

#include <Kesto/Core/String.h>
#include <Kesto/Core/Types.h>
#include <Kesto/Platform/SteadyClock.h>
#include <Kesto/Platform/Time.h>

#include <fmt/format.h>

#include <chrono>
#include <cstddef>
#include <functional>

namespace Kesto {

using TaskTimeDuration = std::chrono::nanoseconds;
using TaskTimeStamp = std::chrono::time_point<std::chrono::steady_clock, TaskTimeDuration>;
using TaskDurationMs = std::chrono::duration<U32, std::milli>;

static_assert(sizeof(TaskTimeStamp) == 8 && sizeof(TaskTimeDuration) == 8);
static_assert(std::is_signed_v<TaskTimeDuration::rep>);

namespace Impl {
using TaskClockFn = TaskTimeStamp (*)() noexcept;
extern KESTO_EXPORT TaskClockFn taskClockFn;
} // namespace Impl

// The steady clock, or the clock a test installed.
inline TaskTimeStamp taskClockNow() noexcept {
  if (Impl::TaskClockFn fn = Impl::taskClockFn) [[unlikely]]
    return fn();
  return TaskTimeStamp(TaskTimeDuration(steadyClockNanos()));
}

// Installs a replacement clock (null restores the steady clock). For tests.
KESTO_EXPORT void taskClockFnIs(Impl::TaskClockFn fn) noexcept;

// t seconds as nanoseconds, truncated. A negative t is a programming error.
KESTO_EXPORT TaskTimeDuration time2Duration(Time t);

// Milliseconds, truncated, of a nanosecond duration, clamped to what 32 bits
// hold (a negative duration gives 0).
inline TaskDurationMs toDurationMs(TaskTimeDuration d) noexcept {
  I64 ms = std::chrono::duration_cast<std::chrono::milliseconds>(d).count();
  if (ms < 0)
    ms = 0;
  if (ms > I64(~U32(0)))
    ms = I64(~U32(0));
  return TaskDurationMs(U32(ms));
}

class KESTO_EXPORT TaskKey {
public:
  constexpr TaskKey() noexcept = default;
  constexpr explicit TaskKey(const void* object) noexcept : object_(object) {}

  const void* object() const noexcept { return object_; }
  bool isNull() const noexcept { return object_ == nullptr; }

  // "@0x...": the address as a DisplayPointer.
  String toStrep() const;

  friend bool operator==(TaskKey a, TaskKey b) noexcept { return a.object_ == b.object_; }
  friend auto operator<=>(TaskKey a, TaskKey b) noexcept {
    return std::compare_three_way()(a.object_, b.object_);
  }

private:
  const void* object_ = nullptr;
};

} // namespace Kesto

template <>
struct std::hash<Kesto::TaskKey> {
  std::size_t operator()(Kesto::TaskKey k) const noexcept {
    // Objects are at least 8-aligned; drop the always-zero bits first.
    return std::hash<std::uintptr_t>()(reinterpret_cast<std::uintptr_t>(k.object()) >> 3);
  }
};

template <>
struct fmt::formatter<Kesto::TaskKey> : fmt::formatter<fmt::string_view> {
  auto format(Kesto::TaskKey k, fmt::format_context& ctx) const {
    Kesto::String s = k.toStrep();
    return fmt::formatter<fmt::string_view>::format(fmt::string_view(s.data(), s.size()), ctx);
  }
};
