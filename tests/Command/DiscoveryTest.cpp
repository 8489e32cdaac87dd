// How kesto list finds agents: a listening stream socket on an endpoint's
// abstract address, made here by the test process itself, stands in the
// kernel's table of unix sockets and is listed with the pid, title and start
// time of its process; what does not listen is not an agent.
#include "CommandTestSupport.h"

#include <Kesto/Debug/Trace.h>
#include <Kesto/Report/AgentEndpoint.h>
#include <Kesto/Util/Socket.h>

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/un.h>

#include <ctime>
#include <thread>

using namespace KestoTest;

namespace {

// A stream socket of this process on an endpoint address, listening or not.
class ProbeSocket {
public:
  ProbeSocket(const std::string& name, bool listen)
      : address_(Kesto::agentEndpointAddress(Kesto::String(name), ::getpid())) {
    fd_ = Kesto::Util::socket(*Kesto::Debug::kestoUtil, AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_GE(fd_, 0);
    sockaddr_un sun{};
    const unsigned length = Kesto::Util::createSockaddr(*Kesto::Debug::kestoUtil, &sun, address_);
    EXPECT_EQ(::bind(fd_, reinterpret_cast<const sockaddr*>(&sun), length), 0) << std::strerror(errno);
    if (listen) {
      EXPECT_EQ(::listen(fd_, 8), 0);
    }
  }
  ~ProbeSocket() { close(); }
  void close() {
    if (fd_ >= 0) {
      ::close(fd_);
      fd_ = -1;
    }
  }
  int fd() const { return fd_; }
  const Kesto::String& address() const { return address_; }

private:
  Kesto::String address_;
  int fd_ = -1;
};

std::string probeName(const char* what) { return fmt::format("{}-{}", what, ::getpid()); }

// The lines of `kesto list` that name `name`, split into their columns.
std::vector<std::vector<std::string>> listedAs(const std::string& name) {
  const ChildResult result = runKesto({"list"});
  EXPECT_TRUE(result.exitedWith(0)) << result.err;
  EXPECT_EQ(result.err, "");
  std::vector<std::vector<std::string>> found;
  const std::vector<std::string> lines = linesOf(result.out);
  EXPECT_FALSE(lines.empty());
  if (!lines.empty()) {
    EXPECT_EQ(lines[0].rfind("PID", 0), 0u) << lines[0];
    EXPECT_NE(lines[0].find("NAME"), std::string::npos);
    EXPECT_NE(lines[0].find("TITLE"), std::string::npos);
    EXPECT_NE(lines[0].find("STARTED"), std::string::npos);
  }
  for (const std::string& line : lines) {
    std::istringstream in(line);
    std::vector<std::string> columns;
    for (std::string column; in >> column;)
      columns.push_back(column);
    if (columns.size() > 1 && columns[1] == name)
      found.push_back(columns);
  }
  return found;
}

// The start of this process as the kernel counts it, in whole seconds.
std::time_t ownStart() {
  std::ifstream stat("/proc/self/stat");
  std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
  std::istringstream fields(text.substr(text.rfind(')') + 2));
  std::string field;
  for (int i = 0; i < 20; ++i) // state is field 3; start time is field 22
    fields >> field;
  std::ifstream procStat("/proc/stat");
  std::string line;
  long long bootTime = 0;
  while (std::getline(procStat, line))
    if (line.rfind("btime ", 0) == 0)
      bootTime = std::stoll(line.substr(6));
  return std::time_t(bootTime + std::stoll(field) / ::sysconf(_SC_CLK_TCK));
}

TEST(KestoList, ListeningEndpointIsListedWithPidTitleAndStartTime) {
  const std::string name = probeName("probe");
  ProbeSocket probe(name, true);
  const auto found = listedAs(name);
  ASSERT_EQ(found.size(), 1u);
  const std::vector<std::string>& columns = found[0];
  ASSERT_EQ(columns.size(), 5u); // pid, name, title, date, time
  EXPECT_EQ(columns[0], std::to_string(::getpid()));
  EXPECT_EQ(columns[2], "test_command");
  std::tm started{};
  const std::string when = columns[3] + " " + columns[4];
  ASSERT_NE(::strptime(when.c_str(), "%Y-%m-%d %H:%M:%S", &started), nullptr) << when;
  started.tm_isdst = -1;
  EXPECT_EQ(std::mktime(&started), ownStart()) << when;
}

TEST(KestoList, SocketThatDoesNotListenIsNoAgent) {
  const std::string name = probeName("quiet");
  ProbeSocket quiet(name, false);
  EXPECT_TRUE(listedAs(name).empty());
}

TEST(KestoList, ConnectionsOfAnEndpointDoNotListItTwice) {
  const std::string name = probeName("busy");
  ProbeSocket probe(name, true);
  // A client connected and accepted: the accepted socket carries the same
  // address in the kernel's table.
  const int client = Kesto::Util::socket(*Kesto::Debug::kestoUtil, AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un sun{};
  const unsigned length = Kesto::Util::createSockaddr(*Kesto::Debug::kestoUtil, &sun, probe.address());
  ASSERT_EQ(::connect(client, reinterpret_cast<const sockaddr*>(&sun), length), 0);
  const int accepted = ::accept4(probe.fd(), nullptr, nullptr, SOCK_CLOEXEC);
  ASSERT_GE(accepted, 0);
  EXPECT_EQ(listedAs(name).size(), 1u);
  ::close(accepted);
  ::close(client);
}

TEST(KestoList, ClosedEndpointIsGoneFromTheList) {
  const std::string name = probeName("gone");
  ProbeSocket probe(name, true);
  ASSERT_EQ(listedAs(name).size(), 1u);
  probe.close();
  EXPECT_TRUE(listedAs(name).empty());
}

TEST(KestoShow, EndpointThatClosesWithoutAnswerIsAnAgentFailure) {
  const std::string name = probeName("mute");
  ProbeSocket probe(name, true);
  // Takes the one connection and closes it unanswered.
  std::thread mute([&] {
    const int fd = ::accept4(probe.fd(), nullptr, nullptr, SOCK_CLOEXEC);
    if (fd >= 0)
      ::close(fd);
  });
  const ChildResult result = runKesto({"show", name});
  mute.join();
  EXPECT_TRUE(result.exitedWith(1)) << result.status;
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err,
            fmt::format("kesto: {} (pid {}) closed the connection without an answer\n", name, ::getpid()));
}

TEST(KestoShow, ErrorLineOfTheEndpointIsPrintedAndExitsWithOne) {
  const std::string name = probeName("cross");
  ProbeSocket probe(name, true);
  std::string received;
  std::thread endpoint([&] {
    const int fd = ::accept4(probe.fd(), nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0)
      return;
    char buffer[256];
    for (ssize_t n; (n = ::read(fd, buffer, sizeof buffer)) > 0;)
      received.append(buffer, std::size_t(n));
    const std::string answer = "error: unknown show option: colour\nmore text\n";
    (void)!::write(fd, answer.data(), answer.size());
    ::close(fd);
  });
  const ChildResult result = runKesto({"show", name, "--flat", "--match", "^feed$", "--json"});
  endpoint.join();
  // One line, the command's words in a fixed order, read to the end of file
  // since the command shuts its side down.
  EXPECT_EQ(received, "show agent task scheduler match ^feed$ json flat\n");
  EXPECT_TRUE(result.exitedWith(1)) << result.status;
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err,
            fmt::format("kesto: {} (pid {}): error: unknown show option: colour\n", name, ::getpid()));
}

} // namespace
