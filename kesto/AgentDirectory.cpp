#include "AgentDirectory.h"

#include "Usage.h"

#include <Kesto/Report/AgentEndpoint.h>
#include <Kesto/Util/ProcInspect.h>

#ifdef KESTO_COMMAND_NETNS
#include <KestoNetns/Netns.h>
#endif

#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <fstream>

namespace Kesto::Cmd {

namespace {

// Flags of a listening socket in /proc/net/unix (the kernel's __SO_ACCEPTCON).
constexpr unsigned long acceptingConnections = 0x10000;
constexpr unsigned long streamType = 1;  // SOCK_STREAM
constexpr unsigned long unconnected = 1; // SS_UNCONNECTED

// The next blank-separated field of `line` from `pos`, which moves behind it.
std::string_view nextField(std::string_view line, std::size_t& pos) {
  while (pos < line.size() && line[pos] == ' ')
    ++pos;
  const std::size_t start = pos;
  while (pos < line.size() && line[pos] != ' ')
    ++pos;
  return line.substr(start, pos - start);
}

bool parseNumber(std::string_view text, int base, unsigned long& value) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
  return !text.empty() && error == std::errc() && end == text.data() + text.size();
}

std::string joined(const std::vector<const AgentEntry*>& agents) {
  std::string text;
  for (const AgentEntry* agent : agents) {
    if (!text.empty())
      text += ", ";
    text += fmt::format("{}[{}]", agent->name, agent->pid);
  }
  return text;
}

} // namespace

bool parseUnixSocketLine(std::string_view line, AgentEntry& agent) {
  while (!line.empty() && (line.back() == '\n' || line.back() == '\r'))
    line.remove_suffix(1);
  // "Num: RefCount Protocol Flags Type St Inode Path", the first six in
  // hexadecimal, the inode in decimal padded to five places, then one blank
  // and the path, absent for an unbound socket. An abstract path starts
  // with '@' and may hold blanks of its own, so it is all that follows.
  std::size_t pos = 0;
  std::string_view fields[7];
  for (std::string_view& field : fields)
    field = nextField(line, pos);
  unsigned long flags = 0, type = 0, state = 0, inode = 0;
  if (!parseNumber(fields[3], 16, flags) || !parseNumber(fields[4], 16, type) || !parseNumber(fields[5], 16, state) ||
      !parseNumber(fields[6], 10, inode))
    return false; // the header line, or a line cut short
  if (!(flags & acceptingConnections) || type != streamType || state != unconnected)
    return false; // the agent's side of an accepted connection shows the same path
  if (pos + 1 >= line.size() || line[pos + 1] != '@')
    return false; // unbound, or bound to a file
  const std::string_view address = line.substr(pos + 2);
  String name;
  pid_t pid = 0;
  if (!parseAgentEndpointAddress(address, name, pid))
    return false;
  agent.pid = pid;
  agent.name = std::string(name.view());
  agent.address = std::string(address);
  agent.inode = inode;
  return true;
}

std::vector<AgentEntry> readAgents(const std::string& unixSocketTable) {
  std::vector<AgentEntry> agents;
  std::ifstream table(unixSocketTable);
  std::string line;
  while (std::getline(table, line)) {
    AgentEntry agent;
    if (parseUnixSocketLine(line, agent))
      agents.push_back(std::move(agent));
  }
  std::sort(agents.begin(), agents.end(), [](const AgentEntry& a, const AgentEntry& b) {
    return a.pid != b.pid ? a.pid < b.pid : a.name < b.name;
  });
  for (AgentEntry& agent : agents) {
    // Quiet: a process that went away since the table was read is expected.
    agent.title = std::string(Util::readProcTitle(int(agent.pid), true).view());
    agent.startTicks = std::string(Util::readProcStartTime(int(agent.pid)).view());
  }
  return agents;
}

std::vector<AgentEntry> listAgents() {
  // /proc/net follows the namespace of the process's main thread, the one
  // of the calling thread is /proc/thread-self/net: the thread that entered
  // the default namespace reads that namespace's table.
  return readAgents("/proc/thread-self/net/unix");
}

const AgentEntry& selectAgent(const std::vector<AgentEntry>& agents, const std::optional<std::string>& which) {
  if (!which) {
    if (agents.empty())
      agentFailure("no agent is running");
    if (agents.size() > 1) {
      std::vector<const AgentEntry*> all;
      for (const AgentEntry& agent : agents)
        all.push_back(&agent);
      usageError("{} agents are running, name one by pid or name: {}", agents.size(), joined(all));
    }
    return agents.front();
  }
  unsigned long pid = 0;
  if (parseNumber(*which, 10, pid))
    for (const AgentEntry& agent : agents)
      if (static_cast<unsigned long>(agent.pid) == pid)
        return agent;
  std::vector<const AgentEntry*> named;
  for (const AgentEntry& agent : agents)
    if (agent.name == *which)
      named.push_back(&agent);
  if (named.empty())
    agentFailure("no agent '{}' is running (kesto list shows those that are)", *which);
  if (named.size() > 1)
    usageError("{} agents are named '{}', give a pid: {}", named.size(), *which, joined(named));
  return *named.front();
}

std::string agentLabel(const AgentEntry& agent) { return fmt::format("{} (pid {})", agent.name, agent.pid); }

std::optional<std::time_t> processStartedAt(const std::string& startTicks) {
  unsigned long ticks = 0;
  if (!parseNumber(startTicks, 10, ticks))
    return std::nullopt;
  std::ifstream stat("/proc/stat");
  std::string line;
  while (std::getline(stat, line)) {
    if (line.rfind("btime ", 0) != 0)
      continue;
    unsigned long bootTime = 0;
    if (!parseNumber(std::string_view(line).substr(6), 10, bootTime))
      return std::nullopt;
    const long ticksPerSecond = ::sysconf(_SC_CLK_TCK);
    if (ticksPerSecond <= 0)
      return std::nullopt;
    return std::time_t(bootTime + ticks / static_cast<unsigned long>(ticksPerSecond));
  }
  return std::nullopt;
}

void enterDefaultNetworkNamespace() {
#ifdef KESTO_COMMAND_NETNS
  // Fails where no default namespace is named or the command may not enter
  // it; the thread then stays where it is, as an agent's socket does.
  (void)setnsByName(DEFAULT_NS, CLONE_NEWNET);
#endif
}

} // namespace Kesto::Cmd
