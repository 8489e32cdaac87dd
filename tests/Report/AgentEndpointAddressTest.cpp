// The endpoint's address, its parser, and the checks of start() on its
// options.
#include "EndpointTestSupport.h"

#include <Kesto/Core/Exception.h>

#include <fstream>
#include <sstream>

using namespace Kesto;
using namespace EndpointTest;

TEST(AgentEndpointAddress, IsPrefixNameAndPid) {
  EXPECT_EQ("kesto-agent/ingest/1234", std::string(agentEndpointAddress("ingest", 1234).view()));
}

TEST(AgentEndpointAddress, ParserAcceptsWhatTheFormatterWrites) {
  String name;
  pid_t pid = 0;
  ASSERT_TRUE(parseAgentEndpointAddress(agentEndpointAddress("ingest-2.a b", 987654).view(), name, pid));
  EXPECT_EQ("ingest-2.a b", std::string(name.view()));
  EXPECT_EQ(987654, pid);
  const std::string longest(64, 'x');
  ASSERT_TRUE(parseAgentEndpointAddress(agentEndpointAddress(String(longest), 1).view(), name, pid));
  EXPECT_EQ(longest, std::string(name.view()));
}

TEST(AgentEndpointAddress, ParserRefusesEveryOtherForm) {
  String name("unchanged");
  pid_t pid = 77;
  for (const char* text : {"", "kesto-agent/", "kesto-agent/x", "kesto-agent/x/", "kesto-agent//12",
                           "kesto-agent/a/b/12", "kesto-agent/x/0", "kesto-agent/x/012", "kesto-agent/x/+12",
                           "kesto-agent/x/-12", "kesto-agent/x/12a", "kesto-agent/x/1 2", "kesto-agent/x/2147483648",
                           "kesto-agent/x/99999999999999999999", "kesto-agentx/x/12", "@kesto-agent/x/12",
                           "Kesto-agent/x/12", "other/x/12"}) {
    EXPECT_FALSE(parseAgentEndpointAddress(text, name, pid)) << text;
  }
  const std::string tooLong = "kesto-agent/" + std::string(65, 'x') + "/12";
  EXPECT_FALSE(parseAgentEndpointAddress(tooLong, name, pid));
  const std::string withNul = std::string("kesto-agent/a") + '\0' + "b/12";
  EXPECT_FALSE(parseAgentEndpointAddress(withNul, name, pid));
  EXPECT_EQ("unchanged", std::string(name.view()));
  EXPECT_EQ(77, pid);
  EXPECT_TRUE(parseAgentEndpointAddress("kesto-agent/x/2147483647", name, pid));
}

namespace {

std::string startFailure(AgentEndpoint::Options options) {
  try {
    Ptr<AgentEndpoint> e = AgentEndpoint::start(schedulerRootKestoNonShared("options"), std::move(options));
  } catch (const RuntimeException& e) {
    return e.what();
  }
  return "";
}

} // namespace

TEST(AgentEndpointStart, RefusesNamesThatCannotFormAnAddress) {
  EXPECT_NE(std::string::npos, startFailure({.name = ""}).find("is empty"));
  EXPECT_NE(std::string::npos, startFailure({.name = "a/b"}).find("holds a '/'"));
  EXPECT_NE(std::string::npos, startFailure({.name = String(std::string_view("a\0b", 3))}).find("NUL"));
  EXPECT_NE(std::string::npos, startFailure({.name = String(std::string(65, 'n'))}).find("longer than 64 bytes"));
  EXPECT_EQ("", startFailure({.name = String(std::string(64, 'n'))}));
}

TEST(AgentEndpointStart, RefusesSettingsThatCannotWork) {
  EXPECT_NE(std::string::npos,
            startFailure({.name = uniqueName("o"), .priority = TaskPriority::critical}).find("priority"));
  EXPECT_NE(std::string::npos, startFailure({.name = uniqueName("o"), .maxClients = 0}).find("maxClients"));
  EXPECT_NE(std::string::npos, startFailure({.name = uniqueName("o"), .idleTimeout = 0.0}).find("idleTimeout"));
  EXPECT_NE(std::string::npos,
            startFailure({.name = uniqueName("o"), .idleTimeout = std::nan("")}).find("idleTimeout"));
  EXPECT_NE(std::string::npos,
            startFailure({.name = uniqueName("o"), .maxCommandLength = 0}).find("maxCommandLength"));
}

TEST(AgentEndpointStart, SecondEndpointOfTheSameNameIsRefused) {
  const String name = uniqueName("twice");
  Ptr<AgentEndpoint> first = AgentEndpoint::start(schedulerRootKestoNonShared("first"), {.name = name});
  EXPECT_NE(std::string::npos, startFailure({.name = name}).find("bind() failed"));
  first->stop();
  // Stopped, the address is free again.
  EXPECT_EQ("", startFailure({.name = name}));
}

namespace {

// The /proc/net/unix line of an abstract address: flags, type, state, inode.
struct UnixLine {
  unsigned long flags = 0, type = 0, state = 0, inode = 0;
  bool found = false;
};

UnixLine unixLineOf(const std::string& abstractName) {
  std::ifstream in("/proc/net/unix");
  std::string line;
  UnixLine result;
  while (std::getline(in, line)) {
    if (line.size() < abstractName.size() + 1 ||
        line.compare(line.size() - abstractName.size() - 1, std::string::npos, "@" + abstractName) != 0)
      continue;
    std::istringstream fields(line);
    std::string num, refCount, protocol;
    fields >> num >> refCount >> protocol >> std::hex >> result.flags >> result.type >> result.state >> std::dec >>
        result.inode;
    result.found = true;
  }
  return result;
}

int descriptorOfInode(unsigned long inode) {
  const std::string target = "socket:[" + std::to_string(inode) + "]";
  for (int fd = 0; fd < 4096; ++fd) {
    char link[128];
    const ssize_t n = ::readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), link, sizeof(link) - 1);
    if (n > 0 && std::string(link, std::size_t(n)) == target)
      return fd;
  }
  return -1;
}

} // namespace

TEST(AgentEndpointStart, ListensOnTheAbstractAddressNonBlockingAndCloseOnExec) {
  const String name = uniqueName("listen");
  Ptr<AgentEndpoint> e = AgentEndpoint::start(schedulerRootKestoNonShared("listen"), {.name = name});
  const std::string address = "kesto-agent/" + std::string(name.view()) + "/" + std::to_string(::getpid());
  EXPECT_EQ(address, std::string(e->address().view()));
  const UnixLine line = unixLineOf(address);
  ASSERT_TRUE(line.found) << address;
  EXPECT_EQ(0x10000ul, line.flags); // listening
  EXPECT_EQ(1ul, line.type);        // SOCK_STREAM
  const int fd = descriptorOfInode(line.inode);
  ASSERT_GE(fd, 0);
  EXPECT_TRUE(::fcntl(fd, F_GETFL) & O_NONBLOCK);
  EXPECT_TRUE(::fcntl(fd, F_GETFD) & FD_CLOEXEC);
  e->stop();
  EXPECT_FALSE(e->running());
  EXPECT_FALSE(unixLineOf(address).found);
  EXPECT_EQ(-1, ::fcntl(fd, F_GETFD)); // closed
}
