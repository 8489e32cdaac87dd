// TaskPriority and TaskGroupPriorityEnforcement: the scheduler's priority
// vocabulary.
//
// A priority is one byte; lower is more urgent, and the value indexes the run
// queues of a scheduler directly, so comparisons are plain integer ones and
// `p + 1` is the next less urgent queue. Values 0..5 are real priorities,
// 6 (`oneBeyondLast`) is the end marker of loops and never a task's priority.
// Both classes are trivially copyable values; nothing here allocates except
// oneCharString() of a value that cannot be short (never, in practice).
#pragma once

#include <Kesto/Common/Export.h>

#include <Kesto/Core/String.h>
#include <Kesto/Core/Types.h>

#include <fmt/format.h>

namespace Kesto {

class KESTO_EXPORT TaskPriority {
public:
  enum Value : U8 {
    critical = 0,
    absolute = 1,
    high = 2,
    normal = 3,
    low = 4,
    scavenge = 5,
    oneBeyondLast = 6,
  };

  constexpr TaskPriority() noexcept = default;
  constexpr TaskPriority(Value v) noexcept : value_(v) {}
  // From a number, for loops over the queues; no range check here, the
  // operations that need a real priority check it themselves.
  constexpr explicit TaskPriority(unsigned v) noexcept : value_(static_cast<Value>(v)) {}

  constexpr operator Value() const noexcept { return value_; }
  constexpr U8 value() const noexcept { return value_; }
  // Whether a task can have this priority: critical to scavenge.
  constexpr bool isValid() const noexcept { return value_ <= scavenge; }

  // The name of values 0..6; another value is a programming error.
  const char* toStrep() const;
  // C A H N L S and `-` for oneBeyondLast; another value is a programming error.
  char oneChar() const;
  // oneChar() as a (short, so allocation-free) String.
  String oneCharString() const;

private:
  Value value_ = critical;
};

static_assert(sizeof(TaskPriority) == 1, "a priority is one byte in task layouts");

class KESTO_EXPORT TaskGroupPriorityEnforcement {
public:
  enum Value : U8 {
    sameAsGroupPriority = 0,
    onlyAllowRegularPriorities = 1,
    allowAny = 2,
  };

  constexpr TaskGroupPriorityEnforcement() noexcept = default;
  constexpr TaskGroupPriorityEnforcement(Value v) noexcept : value_(v) {}
  constexpr explicit TaskGroupPriorityEnforcement(unsigned v) noexcept : value_(static_cast<Value>(v)) {}

  constexpr operator Value() const noexcept { return value_; }
  constexpr U8 value() const noexcept { return value_; }

  const char* toStrep() const;

private:
  Value value_ = sameAsGroupPriority;
};

static_assert(sizeof(TaskGroupPriorityEnforcement) == 1);

} // namespace Kesto

// "{}" prints the name; a value beyond the known ones prints as
// "invalidPriority=<n>" rather than failing, so that a corrupted value can
// still be reported.
template <>
struct fmt::formatter<Kesto::TaskPriority> : fmt::formatter<fmt::string_view> {
  auto format(Kesto::TaskPriority p, fmt::format_context& ctx) const {
    if (!p.isValid())
      return fmt::format_to(ctx.out(), "invalidPriority={}", unsigned(p.value()));
    return fmt::formatter<fmt::string_view>::format(p.toStrep(), ctx);
  }
};

template <>
struct fmt::formatter<Kesto::TaskPriority::Value> : fmt::formatter<Kesto::TaskPriority> {
  auto format(Kesto::TaskPriority::Value p, fmt::format_context& ctx) const {
    return fmt::formatter<Kesto::TaskPriority>::format(Kesto::TaskPriority(p), ctx);
  }
};

template <>
struct fmt::formatter<Kesto::TaskGroupPriorityEnforcement> : fmt::formatter<fmt::string_view> {
  auto format(Kesto::TaskGroupPriorityEnforcement e, fmt::format_context& ctx) const {
    if (e.value() > Kesto::TaskGroupPriorityEnforcement::allowAny)
      return fmt::format_to(ctx.out(), "invalidPriorityEnforcement={}", unsigned(e.value()));
    return fmt::formatter<fmt::string_view>::format(e.toStrep(), ctx);
  }
};
