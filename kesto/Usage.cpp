#include "Usage.h"

#include <array>
#include <utility>

namespace Kesto::Cmd {

namespace {

constexpr const char* overview =
    "usage: kesto COMMAND [ARGUMENTS] [--help]\n"
    "\n"
    "Looks inside running agents of libEventKesto through their endpoints.\n"
    "\n"
    "commands:\n"
    "  list                      the agents that serve an endpoint: pid, name, process title, start time\n"
    "  show [AGENT] [OPTIONS]    the agent's scheduler report, as text or JSON\n"
    "  watch [AGENT] [OPTIONS]   the text report again every interval, in place on a terminal\n"
    "  trace AGENT [--clear] LEVELS\n"
    "                            changes the agent's trace levels (as TRACE does) and shows them\n"
    "  reset AGENT               resets the agent's scheduler statistics\n"
    "  latency [AGENT] [--count N]\n"
    "                            the agent's latest late runs and the runs that made them late\n"
    "  timeline [AGENT]          the agent's recent scheduling as a Trace Event Format document\n"
    "\n"
    "AGENT is a pid or an agent's name; show, watch, latency and timeline may leave\n"
    "it out when exactly one agent runs. `kesto COMMAND --help` describes a command.\n"
    "\n"
    "exit status: 0 success, 1 the agent reported an error or could not be reached,\n"
    "2 usage error; a failure prints one line on standard error.\n";

constexpr const char* listUsage =
    "usage: kesto list\n"
    "\n"
    "Lists the agents whose endpoint listens in the default network namespace, one per\n"
    "line, ordered by pid: PID, NAME (the endpoint's name), TITLE (the kernel's name of\n"
    "the process) and STARTED (when the process started, local time).\n";

constexpr const char* showUsage =
    "usage: kesto show [AGENT] [--json] [--match REGEX] [--flat] [--addresses]\n"
    "                  [--no-history] [--no-completed] [--all]\n"
    "\n"
    "Prints the agent's scheduler report.\n"
    "  --json          the JSON report instead of the text report\n"
    "  --match REGEX   only the tasks whose names match REGEX (one word: write a blank\n"
    "                  as \\s or \\x20)\n"
    "  --flat          one table for the whole tree of schedulers, not one per group\n"
    "  --addresses     the tasks' addresses too\n"
    "  --no-history    without the scheduler's history\n"
    "  --no-completed  without the completed tasks\n"
    "  --all           every task, also those that never ran\n";

constexpr const char* watchUsage =
    "usage: kesto watch [AGENT] [--interval SECONDS] [--count N] [--match REGEX]\n"
    "                   [--flat] [--addresses] [--no-history] [--no-completed] [--all]\n"
    "\n"
    "Shows the agent's text report every interval (default 2 seconds) until\n"
    "interrupted, or N times. On a terminal each report replaces the last one, with\n"
    "the cursor hidden until the end; otherwise the reports follow each other, each\n"
    "after a blank line and a header line. The other options are those of show.\n";

constexpr const char* traceUsage =
    "usage: kesto trace AGENT [--clear] LEVELS\n"
    "\n"
    "Applies LEVELS to the agent's trace handlers as the TRACE variable would (for\n"
    "example TaskScheduler/8 or Kesto*/01), or with --clear takes those levels away,\n"
    "and prints the agent's handlers and levels afterwards.\n";

constexpr const char* resetUsage =
    "usage: kesto reset AGENT\n"
    "\n"
    "Resets the scheduler statistics of the agent, its groups included, and waits\n"
    "until the reset has ended.\n";

constexpr const char* latencyUsage =
    "usage: kesto latency [AGENT] [--count N]\n"
    "\n"
    "Prints the agent's latest latency events, newest first: each run that started\n"
    "at least the agent's threshold after its task was scheduled, with the runs\n"
    "that held the thread in between (the culprits, largest run time first) and\n"
    "the time outside any run. Ages count back from the moment of the answer.\n"
    "The agent turns this on itself (TaskSchedulerRoot::latencyCulpritsIs); until\n"
    "then it answers that latency culprits are off.\n"
    "  --count N   only the N newest events\n";

constexpr const char* timelineUsage =
    "usage: kesto timeline [AGENT]\n"
    "\n"
    "Prints the agent's recent scheduling (its history ring and the stalls its\n"
    "watchdog kept) as one JSON document in the Trace Event Format: task runs on one\n"
    "track per scheduler, other scheduler events as instants, stalls as red spans.\n"
    "Redirect it to a file (kesto timeline AGENT > timeline.json) and open that in a\n"
    "viewer of Trace Event Format files.\n";

constexpr std::array<std::pair<std::string_view, const char*>, 7> commandUsages{{
    {"list", listUsage},
    {"show", showUsage},
    {"watch", watchUsage},
    {"trace", traceUsage},
    {"reset", resetUsage},
    {"latency", latencyUsage},
    {"timeline", timelineUsage},
}};

} // namespace

const char* usageText(std::string_view command) {
  if (command.empty())
    return overview;
  for (const auto& [name, text] : commandUsages)
    if (name == command)
      return text;
  return nullptr;
}

bool isCommand(std::string_view command) { return !command.empty() && usageText(command) != nullptr; }

} // namespace Kesto::Cmd
