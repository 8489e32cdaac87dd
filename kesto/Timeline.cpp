// kesto timeline: the agent's scheduler history as a Trace Event Format
// document on standard output, for a browser-based trace viewer.
#include "Commands.h"

#include "AgentClient.h"
#include "AgentDirectory.h"
#include "Arguments.h"
#include "Usage.h"

#include <cstdio>

namespace Kesto::Cmd {

int runTimeline(const std::vector<std::string>& args) {
  const Arguments arguments("timeline", args, {}, {});
  if (arguments.help()) {
    std::fputs(usageText("timeline"), stdout);
    return exitSuccess;
  }
  arguments.expectOperands(0, 1, "");
  std::optional<std::string> which;
  if (!arguments.operands().empty())
    which = arguments.operands().front();
  const std::vector<AgentEntry> agents = listAgents();
  const AgentEntry& agent = selectAgent(agents, which);
  const std::string document = askAgent(agent, "show agent task timeline");
  // An agent that answers anything but a JSON object is not one that
  // knows the command; its answer would make a file no viewer opens.
  if (document.empty() || document.front() != '{')
    agentFailure("{} answered the timeline with '{}'", agentLabel(agent),
                 document.substr(0, document.find('\n')));
  std::fwrite(document.data(), 1, document.size(), stdout);
  std::fflush(stdout);
  return exitSuccess;
}

} // namespace Kesto::Cmd
