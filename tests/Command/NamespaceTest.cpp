// kesto show and watch may leave the agent out when exactly one runs. On a
// shared machine other agents may run at any moment (other tests, other
// users), so the test gives its agents a network namespace of their own,
// where the kernel's table of unix sockets holds only theirs, and runs the
// command inside it. Needs CAP_SYS_ADMIN; skipped with the reason otherwise.
#include "CommandTestSupport.h"

#include <KestoSupport/Capabilities.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sched.h>


using namespace KestoTest;

namespace {

// Why this process cannot make network namespaces, or "".
std::string namespacesUnavailable() {
  if (!hasEffectiveCapability(capSysAdmin))
    return "making a network namespace needs CAP_SYS_ADMIN, which this process lacks";
  // Where the system names its default namespace, agents and the command
  // both move there, out of the test's namespace.
  if (::access("/run/netns/default", F_OK) == 0)
    return "this system names a default network namespace, where agents of other tests meet";
  return "";
}

// In a child before exec: a network namespace of its own.
void enterNewNamespace() {
  if (::unshare(CLONE_NEWNET) != 0)
    _exit(126);
}

// In a child before exec: the network namespace of process `pid`.
std::function<void()> joinNamespaceOf(pid_t pid) {
  const std::string path = fmt::format("/proc/{}/ns/net", pid);
  return [path] {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0 || ::setns(fd, CLONE_NEWNET) != 0)
      _exit(126);
    ::close(fd);
  };
}

TEST(KestoAgentLeftOut, OnlyAgentRunningIsTheOneShownWatchedAndAskedForLatencyAndTimeline) {
  if (const std::string why = namespacesUnavailable(); !why.empty())
    GTEST_SKIP() << why;
  DemoAgent agent("60", enterNewNamespace);
  ASSERT_TRUE(agent.ready()) << agent.errors();
  const auto inside = joinNamespaceOf(agent.pid());

  const ChildResult list = runKesto({"list"}, inside);
  ASSERT_TRUE(list.exitedWith(0)) << list.err;
  const std::vector<std::string> lines = linesOf(list.out);
  ASSERT_EQ(lines.size(), 2u) << list.out; // the header and the one agent
  EXPECT_EQ(lines[1].rfind(agent.pidText() + " ", 0), 0u) << lines[1];

  const ChildResult show = runKesto({"show"}, inside);
  EXPECT_TRUE(show.exitedWith(0)) << show.err;
  EXPECT_EQ(show.out.rfind("TaskScheduler stats for main\n", 0), 0u);

  const ChildResult watch = runKesto({"watch", "--count", "1", "--match", "^feed$"}, inside);
  EXPECT_TRUE(watch.exitedWith(0)) << watch.err;
  EXPECT_EQ(watch.out.rfind("kesto watch: " + agent.label() + ", every 2 s, report 1 at ", 0), 0u) << watch.out;

  const ChildResult latency = runKesto({"latency"}, inside);
  EXPECT_TRUE(latency.exitedWith(0)) << latency.err;
  EXPECT_EQ(latency.out.rfind("latency culprits of main: threshold 100ms, ", 0), 0u) << latency.out;

  const ChildResult timeline = runKesto({"timeline"}, inside);
  EXPECT_TRUE(timeline.exitedWith(0)) << timeline.err;
  EXPECT_EQ(timeline.out.rfind("{\"traceEvents\":[", 0), 0u) << timeline.out.substr(0, 200);
}

TEST(KestoAgentLeftOut, TwoAgentsRunningIsAUsageError) {
  if (const std::string why = namespacesUnavailable(); !why.empty())
    GTEST_SKIP() << why;
  DemoAgent first("60", enterNewNamespace);
  ASSERT_TRUE(first.ready()) << first.errors();
  const auto inside = joinNamespaceOf(first.pid());
  DemoAgent second("60", inside);
  ASSERT_TRUE(second.ready()) << second.errors();

  const ChildResult show = runKesto({"show"}, inside);
  EXPECT_TRUE(show.exitedWith(2)) << show.status;
  EXPECT_EQ(show.out, "");
  EXPECT_EQ(show.err, fmt::format("kesto: 2 agents are running, name one by pid or name: {}[{}], {}[{}]\n",
                                  first.pid() < second.pid() ? first.name() : second.name(),
                                  std::min(first.pid(), second.pid()),
                                  first.pid() < second.pid() ? second.name() : first.name(),
                                  std::max(first.pid(), second.pid())));
  // Named, either is reached.
  EXPECT_TRUE(runKesto({"show", second.name()}, inside).exitedWith(0));
}

TEST(KestoAgentLeftOut, NoAgentRunningCannotBeReached) {
  if (const std::string why = namespacesUnavailable(); !why.empty())
    GTEST_SKIP() << why;
  const ChildResult show = runKesto({"show"}, enterNewNamespace);
  EXPECT_TRUE(show.exitedWith(1)) << show.status;
  EXPECT_EQ(show.out, "");
  EXPECT_EQ(show.err, "kesto: no agent is running\n");
  const ChildResult list = runKesto({"list"}, enterNewNamespace);
  EXPECT_TRUE(list.exitedWith(0));
  EXPECT_EQ(linesOf(list.out).size(), 1u) << list.out; // the header alone
}

} // namespace
