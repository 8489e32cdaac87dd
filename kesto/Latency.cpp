// kesto latency [AGENT] [--count N]: the agent's latest latency events, each
// late run with the runs that held the thread while it waited, as the
// endpoint's "show agent task latency [N]" answers them.
#include "Commands.h"

#include "AgentClient.h"
#include "AgentDirectory.h"
#include "Arguments.h"
#include "Usage.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <optional>
#include <string>

namespace Kesto::Cmd {

int runLatency(const std::vector<std::string>& args) {
  const Arguments arguments("latency", args, {}, {"count"});
  if (arguments.help()) {
    std::fputs(usageText("latency"), stdout);
    return exitSuccess;
  }
  arguments.expectOperands(0, 1, "");
  std::optional<std::string> which;
  if (!arguments.operands().empty())
    which = arguments.operands().front();
  std::string command = "show agent task latency";
  if (const auto count = arguments.value("count")) {
    // The endpoint takes a count of 32 bits; more than that is all events.
    const unsigned long long n = Arguments::parseCount("count", *count);
    command += ' ';
    command += std::to_string(std::min<unsigned long long>(n, std::numeric_limits<std::uint32_t>::max()));
  }
  const std::vector<AgentEntry> agents = listAgents();
  const std::string answer = askAgent(selectAgent(agents, which), command);
  std::fwrite(answer.data(), 1, answer.size(), stdout);
  std::fflush(stdout);
  return exitSuccess;
}

} // namespace Kesto::Cmd
