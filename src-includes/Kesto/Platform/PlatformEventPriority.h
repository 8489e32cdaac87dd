// Kesto::Platform::EventPriority: the priority of a libevent event.
//
// The thread's event base has exactly two priorities and the enumeration's
// value is libevent's priority number, 0 being served first. Strict-high is
// for the few timers that must not queue behind descriptor work (the master
// timer of the scheduler's timer wheel); everything else runs at the default.
#pragma once

#include <Kesto/Common/Export.h>

#include <Kesto/Core/String.h>
#include <Kesto/Core/Types.h>

#include <fmt/format.h>

namespace Kesto::Platform {

enum EventPriority : U8 {
  eventPriorityStrictHigh = 0,
  eventPriorityDefault = 1,
};

// "eventPriorityStrictHigh" or "eventPriorityDefault". Any other value is
// written as "Invalid EventPriority={}" with the value put through the
// formatter below, which is this function again: the recursion is kept on
// purpose, since no valid value ever reaches it.
KESTO_EXPORT String toString(EventPriority priority);

} // namespace Kesto::Platform

template <>
struct fmt::formatter<Kesto::Platform::EventPriority> : fmt::formatter<fmt::string_view> {
  auto format(Kesto::Platform::EventPriority priority, fmt::format_context& ctx) const {
    const Kesto::String text = Kesto::Platform::toString(priority);
    return fmt::formatter<fmt::string_view>::format(fmt::string_view(text.data(), text.size()), ctx);
  }
};
