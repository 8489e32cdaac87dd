#include <Kesto/Platform/PlatformEventPriority.h>

#include <fmt/format.h>

namespace Kesto::Platform {

String toString(EventPriority priority) {
  switch (priority) {
  case eventPriorityStrictHigh:
    return "eventPriorityStrictHigh";
  case eventPriorityDefault:
    return "eventPriorityDefault";
  }
  // The value goes through EventPriority's own formatter, i.e. back here.
  return String(fmt::format("Invalid EventPriority={}", priority));
}

} // namespace Kesto::Platform
