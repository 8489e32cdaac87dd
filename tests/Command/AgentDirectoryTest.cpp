// The command's reading of the kernel's table of unix sockets, line by
// line, and its choice of one agent among those it found.
#include "AgentDirectory.h"
#include "Usage.h"

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include <unistd.h>

using Kesto::Cmd::AgentEntry;
using Kesto::Cmd::Failure;
using Kesto::Cmd::parseUnixSocketLine;
using Kesto::Cmd::selectAgent;

namespace {

// Lines as the kernel writes them: flags 00010000 for a listening socket,
// type 0001 for a stream, state 01 unconnected, 03 connected; the inode is
// padded to five places.
constexpr const char* listening =
    "0000000000000000: 00000002 00000000 00010000 0001 01 83121 @kesto-agent/ingest/4242";

TEST(AgentDirectory, ListeningEndpointLineGivesPidNameAddressAndInode) {
  AgentEntry agent;
  ASSERT_TRUE(parseUnixSocketLine(listening, agent));
  EXPECT_EQ(agent.pid, 4242);
  EXPECT_EQ(agent.name, "ingest");
  EXPECT_EQ(agent.address, "kesto-agent/ingest/4242");
  EXPECT_EQ(agent.inode, 83121u);
}

TEST(AgentDirectory, TrailingNewlineIsNotPartOfTheAddress) {
  AgentEntry agent;
  ASSERT_TRUE(parseUnixSocketLine(std::string(listening) + "\n", agent));
  EXPECT_EQ(agent.pid, 4242);
}

TEST(AgentDirectory, InodeShorterThanItsPaddingStillParses) {
  AgentEntry agent;
  ASSERT_TRUE(parseUnixSocketLine(
      "0000000000000000: 00000002 00000000 00010000 0001 01   817 @kesto-agent/a/7", agent));
  EXPECT_EQ(agent.inode, 817u);
  EXPECT_EQ(agent.pid, 7);
  EXPECT_EQ(agent.name, "a");
}

TEST(AgentDirectory, NameWithBlanksIsKeptWhole) {
  AgentEntry agent;
  ASSERT_TRUE(parseUnixSocketLine(
      "0000000000000000: 00000002 00000000 00010000 0001 01 83121 @kesto-agent/order book/31", agent));
  EXPECT_EQ(agent.name, "order book");
  EXPECT_EQ(agent.pid, 31);
}

TEST(AgentDirectory, HeaderLineIsNoAgent) {
  AgentEntry agent;
  EXPECT_FALSE(parseUnixSocketLine("Num       RefCount Protocol Flags    Type St Inode Path", agent));
}

TEST(AgentDirectory, AcceptedConnectionWithTheSameAddressIsNoAgent) {
  // The agent's side of a client's connection carries the listener's
  // address, but neither the listening flag nor the unconnected state.
  AgentEntry agent;
  EXPECT_FALSE(parseUnixSocketLine(
      "0000000000000000: 00000003 00000000 00000000 0001 03 83125 @kesto-agent/ingest/4242", agent));
}

TEST(AgentDirectory, BoundButNotListeningSocketIsNoAgent) {
  AgentEntry agent;
  EXPECT_FALSE(parseUnixSocketLine(
      "0000000000000000: 00000002 00000000 00000000 0001 01 83121 @kesto-agent/ingest/4242", agent));
}

TEST(AgentDirectory, DatagramAndSeqpacketSocketsAreNoAgents) {
  AgentEntry agent;
  EXPECT_FALSE(parseUnixSocketLine(
      "0000000000000000: 00000002 00000000 00000000 0002 01 83121 @kesto-agent/ingest/4242", agent));
  EXPECT_FALSE(parseUnixSocketLine(
      "0000000000000000: 00000002 00000000 00010000 0005 01 83121 @kesto-agent/ingest/4242", agent));
}

TEST(AgentDirectory, SocketBoundToAFileIsNoAgent) {
  AgentEntry agent;
  EXPECT_FALSE(parseUnixSocketLine(
      "0000000000000000: 00000002 00000000 00010000 0001 01 83121 /run/kesto-agent/ingest/4242", agent));
}

TEST(AgentDirectory, UnboundSocketIsNoAgent) {
  AgentEntry agent;
  EXPECT_FALSE(parseUnixSocketLine("0000000000000000: 00000003 00000000 00000000 0001 03 83121", agent));
}

TEST(AgentDirectory, OtherAbstractNamesAreNoAgents) {
  AgentEntry agent;
  for (const char* path : {"@/tmp/.X11-unix/X0", "@kesto-agent/ingest", "@kesto-agent/ingest/0",
                           "@kesto-agent/ingest/12x", "@kesto-agent//12", "@xkesto-agent/ingest/12"})
    EXPECT_FALSE(parseUnixSocketLine(
        std::string("0000000000000000: 00000002 00000000 00010000 0001 01 83121 ") + path, agent))
        << path;
}

TEST(AgentDirectory, TableIsReadInPidOrderWithTitleAndStartOfLiveProcesses) {
  char path[] = "/tmp/kesto-unix-table-XXXXXX";
  const int fd = ::mkstemp(path);
  ASSERT_GE(fd, 0);
  ::close(fd);
  const pid_t self = ::getpid();
  {
    std::ofstream table(path);
    table << "Num       RefCount Protocol Flags    Type St Inode Path\n"
          << "0000000000000000: 00000002 00000000 00010000 0001 01 83121 @kesto-agent/zeta/" << self << "\n"
          << "0000000000000000: 00000002 00000000 00010000 0001 01 83122 @kesto-agent/alpha/" << self << "\n"
          << "0000000000000000: 00000002 00000000 00010000 0001 01 83123 @kesto-agent/first/1\n"
          << "0000000000000000: 00000003 00000000 00000000 0001 03 83124 @kesto-agent/alpha/" << self << "\n";
  }
  const std::vector<AgentEntry> agents = Kesto::Cmd::readAgents(path);
  ::unlink(path);
  ASSERT_EQ(agents.size(), 3u);
  EXPECT_EQ(agents[0].pid, 1);
  EXPECT_EQ(agents[1].name, "alpha");
  EXPECT_EQ(agents[2].name, "zeta");
  // The kernel's name of this test program, and its start time in ticks.
  EXPECT_EQ(agents[1].title, "test_command");
  EXPECT_FALSE(agents[1].startTicks.empty());
  EXPECT_EQ(agents[1].startTicks, agents[2].startTicks);
}

std::vector<AgentEntry> someAgents() {
  std::vector<AgentEntry> agents(4);
  agents[0].pid = 100, agents[0].name = "ingest";
  agents[1].pid = 200, agents[1].name = "router";
  agents[2].pid = 300, agents[2].name = "router";
  agents[3].pid = 400, agents[3].name = "100"; // a name that looks like a pid
  return agents;
}

int failureStatus(const std::vector<AgentEntry>& agents, const std::optional<std::string>& which) {
  try {
    selectAgent(agents, which);
  } catch (const Failure& failure) {
    return failure.status();
  }
  return 0;
}

TEST(AgentSelection, PidChoosesThatAgent) {
  const auto agents = someAgents();
  EXPECT_EQ(selectAgent(agents, "300").pid, 300);
}

TEST(AgentSelection, NumberIsTakenAsPidBeforeName) {
  const auto agents = someAgents();
  EXPECT_EQ(selectAgent(agents, "100").pid, 100);
}

TEST(AgentSelection, NumberThatIsNoPidIsTakenAsName) {
  auto agents = someAgents();
  agents.erase(agents.begin()); // pid 100 is gone; the agent named "100" remains
  EXPECT_EQ(selectAgent(agents, "100").pid, 400);
}

TEST(AgentSelection, UniqueNameChoosesThatAgent) {
  const auto agents = someAgents();
  EXPECT_EQ(selectAgent(agents, "ingest").pid, 100);
}

TEST(AgentSelection, SharedNameIsAUsageError) {
  EXPECT_EQ(failureStatus(someAgents(), "router"), Kesto::Cmd::exitUsage);
}

TEST(AgentSelection, UnknownAgentCannotBeReached) {
  EXPECT_EQ(failureStatus(someAgents(), "nobody"), Kesto::Cmd::exitAgentFailure);
  EXPECT_EQ(failureStatus(someAgents(), "999"), Kesto::Cmd::exitAgentFailure);
}

TEST(AgentSelection, LeftOutAgentIsTheOnlyOne) {
  auto agents = someAgents();
  agents.resize(1);
  EXPECT_EQ(selectAgent(agents, std::nullopt).pid, 100);
}

TEST(AgentSelection, LeftOutAgentAmongSeveralIsAUsageError) {
  EXPECT_EQ(failureStatus(someAgents(), std::nullopt), Kesto::Cmd::exitUsage);
}

TEST(AgentSelection, LeftOutAgentWithNoneRunningCannotBeReached) {
  EXPECT_EQ(failureStatus({}, std::nullopt), Kesto::Cmd::exitAgentFailure);
}

} // namespace
