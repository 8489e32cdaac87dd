// Finding the running agents: every agent's endpoint is a listening unix
// stream socket on the abstract address "kesto-agent/<name>/<pid>", so the
// kernel's table of unix sockets lists them all, whatever their user, with
// no file or registry to keep up to date and nothing left behind by an
// agent that died (an abstract address goes with its last descriptor).
//
// Agents make their endpoint in the default network namespace (Util::socket),
// so the command moves itself there first (enterDefaultNetworkNamespace) and
// reads the table of its own thread; on a system that names no default
// namespace it stays where it is, as the agents do.
#pragma once

#include <sys/types.h>

#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Kesto::Cmd {

struct AgentEntry {
  pid_t pid = 0;
  std::string name;         // the endpoint's name
  std::string address;      // the abstract address, without its leading NUL
  unsigned long inode = 0;  // of the listening socket
  std::string title;        // the kernel's name of the process; "" if gone
  std::string startTicks;   // field 22 of /proc/<pid>/stat; "" if gone
};

// One line of /proc/net/unix. True, with pid, name, address and inode set,
// for a listening stream socket whose abstract address is an endpoint's.
bool parseUnixSocketLine(std::string_view line, AgentEntry& agent);

// The agents of a table in the format of /proc/net/unix, ordered by pid
// (then name), each with its process title and start time.
std::vector<AgentEntry> readAgents(const std::string& unixSocketTable);

// The agents of the calling thread's network namespace.
std::vector<AgentEntry> listAgents();

// The agent that `which` names, a pid or a name (a number is taken as a
// pid first, then as a name), or the only agent when `which` is absent.
// Failure 1 when none fits, Failure 2 when several do.
const AgentEntry& selectAgent(const std::vector<AgentEntry>& agents, const std::optional<std::string>& which);

// "demo_agent (pid 1234)": how messages name an agent.
std::string agentLabel(const AgentEntry& agent);

// When the process started, from its start ticks and the boot time of
// /proc/stat; nothing if either cannot be read.
std::optional<std::time_t> processStartedAt(const std::string& startTicks);

// Moves the calling thread into the system's default network namespace if
// the system names one (and the command may enter it); otherwise leaves it
// where it is. Either way the thread then stands where agents bind.
void enterDefaultNetworkNamespace();

} // namespace Kesto::Cmd
