// What the endpoint does with clients that overstep: too long a line, no
// line at all, too many at once, another user, a reader that stops reading.
#include "EndpointTestSupport.h"

#include <KestoSupport/DescriptorExhaustion.h>

#include <Kesto/Debug/DebugHandler.h>

#include <fmt/format.h>

#include <sys/resource.h>
#include <sys/wait.h>

#include <chrono>

#include <memory>
#include <vector>

using namespace Kesto;
using namespace EndpointTest;

namespace {

class AgentEndpointLimits : public ::testing::Test {
protected:
  void start(AgentEndpoint::Options options) {
    root = schedulerRootKestoNonShared("limitsRoot");
    options.name = uniqueName("limits");
    endpoint = AgentEndpoint::start(root, std::move(options));
  }
  void TearDown() override {
    if (endpoint)
      endpoint->stop();
    if (root)
      driveUntil([&] { return root->snapshotShowCount() == 0; });
  }

  Ptr<TaskSchedulerRoot> root;
  Ptr<AgentEndpoint> endpoint;
};

} // namespace

TEST_F(AgentEndpointLimits, CommandOfTheMaximumLengthIsRead) {
  start({});
  const std::string longest(4096, 'x');
  EXPECT_EQ("error: unknown command: " + longest.substr(0, 80) + "\n", ask(endpoint->address(), longest + "\n"));
  EXPECT_EQ(0u, endpoint->counters().overlong);
}

TEST_F(AgentEndpointLimits, CommandOneByteLongerThanTheMaximumIsRefused) {
  start({});
  Client c(endpoint->address());
  c.send(std::string(4097, 'x') + "\n");
  ASSERT_TRUE(driveUntil([&] { return c.pump(); }));
  EXPECT_EQ("error: command longer than 4096 bytes\n", c.received());
  // The rest of the line was taken off the socket before it was closed, so
  // the client saw a clean end of file and not a reset.
  EXPECT_EQ(0, c.readErrno());
  EXPECT_EQ(1u, endpoint->counters().overlong);
  // The agent goes on.
  EXPECT_EQ("stats reset\n", ask(endpoint->address(), "reset stats\n"));
}

TEST_F(AgentEndpointLimits, LongerLineWithoutNewlineIsRefusedAsSoonAsItOverflows) {
  start({.maxCommandLength = 16});
  Client c(endpoint->address());
  c.send(std::string(17, 'y'));
  ASSERT_TRUE(driveUntil([&] { return c.pump(); }));
  EXPECT_EQ("error: command longer than 16 bytes\n", c.received());
}

TEST_F(AgentEndpointLimits, SilentClientIsAnsweredAndClosedAfterTheIdleTimeout) {
  start({.idleTimeout = 0.05});
  Client silent(endpoint->address());
  Client talker(endpoint->address());
  talker.send("help\n");
  ASSERT_TRUE(driveUntil([&] { return talker.pump(); }));
  EXPECT_FALSE(silent.pump()) << "the silent client was closed before its time";
  ASSERT_TRUE(driveUntil([&] { return silent.pump(); }));
  EXPECT_EQ("error: no command within 0.05 s\n", silent.received());
  EXPECT_EQ(1u, endpoint->counters().timedOut);
  EXPECT_EQ(0u, endpoint->clientCount());
}

TEST_F(AgentEndpointLimits, DefaultIdleTimeoutIsWrittenInWholeSeconds) {
  start({});
  EXPECT_EQ(5.0, endpoint->options().idleTimeout);
  EXPECT_EQ(16u, endpoint->options().maxClients);
  EXPECT_EQ(4096u, endpoint->options().maxCommandLength);
  EXPECT_EQ(TaskPriority::low, TaskPriority::Value(endpoint->options().priority));
}

TEST_F(AgentEndpointLimits, ClientBeyondTheBoundIsTurnedAwayAndTheOthersAreServed) {
  start({.maxClients = 2});
  Client a(endpoint->address());
  Client b(endpoint->address());
  ASSERT_TRUE(driveUntil([&] { return endpoint->clientCount() == 2; }));
  Client c(endpoint->address());
  c.send("help\n");
  ASSERT_TRUE(driveUntil([&] { return c.pump(); }));
  EXPECT_EQ("error: too many clients (2)\n", c.received());
  EXPECT_EQ(0, c.readErrno());
  EXPECT_EQ(1u, endpoint->counters().refusedBusy);
  a.send("help\n");
  b.send("help\n");
  ASSERT_TRUE(driveUntil([&] { return a.pump() && b.pump(); }));
  EXPECT_EQ(0u, a.received().find("show agent task scheduler"));
  EXPECT_EQ(0u, b.received().find("show agent task scheduler"));
  // With the slots free again, the next client is served.
  EXPECT_EQ(0u, ask(endpoint->address(), "help\n").find("show agent task scheduler"));
}

TEST_F(AgentEndpointLimits, ClientOfAnotherUserIsRefusedAndTheRefusalTraced) {
  if (::geteuid() != 0)
    GTEST_SKIP() << "needs root to run a client as uid 65534";
  start({});
  int pipeFds[2];
  ASSERT_EQ(0, ::pipe(pipeFds));
  const std::string address(endpoint->address().view());
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    // The child uses plain system calls only and ends with _exit.
    ::close(pipeFds[0]);
    if (::setgid(65534) != 0 || ::setuid(65534) != 0)
      ::_exit(2);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    std::memcpy(a.sun_path + 1, address.data(), address.size());
    const socklen_t length = socklen_t(offsetof(sockaddr_un, sun_path) + 1 + address.size());
    if (::connect(fd, reinterpret_cast<sockaddr*>(&a), length) != 0)
      ::_exit(3);
    (void)::write(fd, "help\n", 5);
    char buffer[256];
    ssize_t n;
    while ((n = ::read(fd, buffer, sizeof(buffer))) > 0)
      (void)::write(pipeFds[1], buffer, std::size_t(n));
    ::_exit(n == 0 ? 0 : 4);
  }
  ::close(pipeFds[1]);
  ::fcntl(pipeFds[0], F_SETFL, O_NONBLOCK);
  std::string answer;
  int status = -1;
  // Level 1 of "KestoAgentEndpoint" is on from the start-up wildcard
  // "Kesto*/01"; its lines go to standard error.
  ::testing::internal::CaptureStderr();
  const bool ended = driveUntil([&] {
    char buffer[256];
    ssize_t n;
    while ((n = ::read(pipeFds[0], buffer, sizeof(buffer))) > 0)
      answer.append(buffer, std::size_t(n));
    return n == 0 && ::waitpid(child, &status, WNOHANG) == child;
  });
  const std::string traced = ::testing::internal::GetCapturedStderr();
  ASSERT_TRUE(ended);
  const std::string refusal = "KestoAgentEndpoint 1 Kesto::AgentEndpoint::accepted() "
                              "access refused for uid 65534 (pid " + std::to_string(child) + ")";
  EXPECT_NE(std::string::npos, traced.find(refusal)) << traced;
  ::close(pipeFds[0]);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_EQ("error: access refused for uid 65534\n", answer);
  EXPECT_EQ(1u, endpoint->counters().refusedAccess);
  EXPECT_EQ(0u, endpoint->counters().accepted);
  // The agent's own user is still served.
  EXPECT_EQ(0u, ask(endpoint->address(), "help\n").find("show agent task scheduler"));
}

namespace {

// Ten thousand trace controls, for a debug map of some 600 KB: three times
// what a unix socket buffers. Cleared again at the end of the scope, with
// the level 2 that the tests' trace command adds to the first of them.
struct BulkControls {
  BulkControls() {
    for (int i = 0; i < 10000; ++i)
      items += fmt::format("EndpointBulkControl{:05}_with_a_name_to_make_it_longer/1,", i);
    Platform::setupKestoDebug(items.c_str());
  }
  ~BulkControls() {
    Platform::clearKestoDebug(items.c_str());
    Platform::clearKestoDebug("EndpointBulkControl00000_with_a_name_to_make_it_longer/2");
  }
  std::string items;
};

} // namespace

TEST_F(AgentEndpointLimits, ClientThatTakesNothingOfAnAnswerLongerThanItsSocketIsDropped) {
  const BulkControls bulk;
  const std::size_t mapSize = Platform::kestoDebugMapText().size();
  start({.idleTimeout = 0.05});
  Client c(endpoint->address());
  c.send("trace EndpointBulkControl00000_with_a_name_to_make_it_longer/2\n");
  ASSERT_TRUE(driveUntil([&] { return endpoint->counters().accepted == 1 && endpoint->clientCount() == 0; }));
  EXPECT_EQ(1u, endpoint->counters().stalled);
  ASSERT_TRUE(driveUntil([&] { return c.pump(); }));
  EXPECT_EQ(0, c.readErrno());
  EXPECT_GT(c.received().size(), 0u);
  EXPECT_LT(c.received().size(), mapSize);
}

TEST_F(AgentEndpointLimits, BulkControlsOfTheLongAnswerTestsAreGoneAfterThem) {
  { const BulkControls bulk; }
  EXPECT_EQ(std::string::npos, std::string(Platform::kestoDebugMapText().view()).find("EndpointBulkControl"));
}

TEST_F(AgentEndpointLimits, ClientThatReadsALongAnswerGetsAllOfIt) {
  const BulkControls bulk;
  start({});
  const std::string answer =
      ask(endpoint->address(), "trace EndpointBulkControl00000_with_a_name_to_make_it_longer/2\n");
  EXPECT_EQ(std::string(Platform::kestoDebugMapText().view()), answer);
  EXPECT_GT(answer.size(), 500000u);
}

TEST_F(AgentEndpointLimits, ListenerAndClientTasksRunAtTheChosenPriority) {
  start({.priority = TaskPriority::high});
  const String listenerName(fmt::format("AgentEndpoint-{}:read", endpoint->options().name.view()));
  Ptr<TaskImpl> listener = root->taskForTest(listenerName);
  ASSERT_TRUE(listener);
  EXPECT_EQ(TaskPriority::high, TaskPriority::Value(listener->taskPriority()));
  Client c(endpoint->address());
  ASSERT_TRUE(driveUntil([&] { return endpoint->clientCount() == 1; }));
  // The client's read task, and the timer that guards it.
  unsigned clientTasks = 0;
  for (const char* prefix : {"AgentEndpointClient-fd:", "AgentEndpointClientTimer-fd:"}) {
    for (int fd = 0; fd < 1024; ++fd) {
      const std::string suffix = std::string(prefix).find("Timer") == std::string::npos ? ":read" : "";
      Ptr<TaskImpl> task = root->taskForTest(String(prefix + std::to_string(fd) + suffix));
      if (!task)
        continue;
      ++clientTasks;
      EXPECT_EQ(TaskPriority::high, TaskPriority::Value(task->taskPriority())) << prefix << fd;
    }
  }
  EXPECT_EQ(2u, clientTasks);
}

TEST_F(AgentEndpointLimits, ListenerOutOfDescriptorsPausesInsteadOfSpinning) {
  if (!KestoTest::descriptorExhaustionIsTestable)
    GTEST_SKIP() << KestoTest::descriptorExhaustionSkipReason;
  start({});
  const String listenerName(fmt::format("AgentEndpoint-{}:read", endpoint->options().name.view()));
  Ptr<TaskImpl> listener = root->taskForTest(listenerName);
  ASSERT_TRUE(listener);
  Client c(endpoint->address());
  c.send("help\n");
  // The capture's file is opened first: no descriptor number is free once
  // the limit is lowered, and accept4 fails with EMFILE.
  ::testing::internal::CaptureStderr();
  rlimit saved{};
  ASSERT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &saved));
  const int lowestFree = ::dup(0);
  ASSERT_GE(lowestFree, 0);
  ::close(lowestFree);
  rlimit tight = saved;
  tight.rlim_cur = rlim_t(lowestFree);
  ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &tight));
  const U64 runsBefore = listener->taskRunCount();
  // 50 ms of loop: a listener queued again by the level-triggered event at
  // every pass would run thousands of times.
  const auto start = std::chrono::steady_clock::now();
  driveUntil([&] { return std::chrono::steady_clock::now() - start > std::chrono::milliseconds(50); });
  const U64 runsWhilePaused = listener->taskRunCount() - runsBefore;
  ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &saved));
  const std::string traced = ::testing::internal::GetCapturedStderr();
  EXPECT_GE(runsWhilePaused, 1u);
  EXPECT_LE(runsWhilePaused, 2u);
  EXPECT_NE(std::string::npos, traced.find("failed: Too many open files, pausing 100 ms")) << traced;
  EXPECT_EQ(0u, endpoint->counters().accepted);
  // With descriptors again, the waiting client is served after the pause.
  ASSERT_TRUE(driveUntil([&] { return c.pump(); }));
  EXPECT_EQ(0u, c.received().find("show agent task scheduler"));
}
