#include "Report/AgentEndpointLatency.h"

#include <Kesto/Scheduler/LatencyCulprits.h>
#include <Kesto/Scheduler/TaskSchedulerRoot.h>

#include <fmt/format.h>

#include <charconv>
#include <limits>

namespace Kesto::Impl {

std::string latencyCommandAnswer(const TaskSchedulerRoot& root, const std::vector<std::string_view>& words) {
  U32 newest = std::numeric_limits<U32>::max();
  if (words.size() > 5)
    return "error: show agent task latency takes at most one count\n";
  if (words.size() == 5) {
    const std::string_view text = words[4];
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), newest);
    if (error != std::errc() || end != text.data() + text.size() || newest == 0)
      return fmt::format("error: latency count must be a whole number from 1 to {}, not {}\n",
                         std::numeric_limits<U32>::max(), text.substr(0, 80));
  }
  const String text = latencyEventsRenderText(root, newest);
  return std::string(text.view());
}

} // namespace Kesto::Impl
