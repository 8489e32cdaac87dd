// Readers that go away in the middle of a report, SIGPIPE, and stopping the
// endpoint with clients still connected.
#include "EndpointTestSupport.h"

#include <csignal>
#include <pthread.h>
#include <vector>

using namespace Kesto;
using namespace EndpointTest;

namespace {

bool sigpipeBlocked() {
  sigset_t mask;
  pthread_sigmask(SIG_SETMASK, nullptr, &mask);
  return sigismember(&mask, SIGPIPE) == 1;
}

bool sigpipePending() {
  sigset_t pending;
  sigpending(&pending);
  return sigismember(&pending, SIGPIPE) == 1;
}

bool sigpipeDispositionIsDefault() {
  struct sigaction current {};
  sigaction(SIGPIPE, nullptr, &current);
  return current.sa_handler == SIG_DFL;
}

// A root with enough tasks for a report of several hundred kilobytes: far
// more than a unix socket buffers (some 200 KiB), so the report's task is
// still writing when its reader goes.
class AgentEndpointStop : public ::testing::Test {
protected:
  void SetUp() override {
    ASSERT_TRUE(sigpipeDispositionIsDefault()) << "the test must run where SIGPIPE would end the process";
    ASSERT_FALSE(sigpipeBlocked());
    root = schedulerRootKestoNonShared("stopRoot");
    for (int i = 0; i < 5000; ++i)
      tasks.push_back(Ptr<Idle>(new Idle(root, TaskPriority::normal, String("bulkTask" + std::to_string(i)))));
    endpoint = AgentEndpoint::start(root, {.name = uniqueName("stop")});
  }
  void TearDown() override {
    if (endpoint)
      endpoint->stop();
    driveUntil([&] { return root->snapshotShowCount() == 0; });
  }

  Ptr<TaskSchedulerRoot> root;
  std::vector<Ptr<Idle>> tasks;
  Ptr<AgentEndpoint> endpoint;
};

constexpr const char* bigReport = "show agent task scheduler all no-history\n";

} // namespace

TEST_F(AgentEndpointStop, WholeLargeReportReachesAReaderThatReadsItAll) {
  const std::string report = ask(endpoint->address(), bigReport);
  EXPECT_GT(report.size(), 400000u);
  EXPECT_NE(std::string::npos, report.find("\nbulkTask0 "));
  EXPECT_NE(std::string::npos, report.find("\nbulkTask4999 "));
}

TEST_F(AgentEndpointStop, ReaderThatLeavesHalfwayLeavesTheAgentRunningWithoutSigpipe) {
  EXPECT_TRUE(sigpipeBlocked()) << "a running endpoint blocks SIGPIPE in its thread";
  {
    Client c(endpoint->address());
    c.send(bigReport);
    ASSERT_TRUE(driveUntil([&] {
      c.pump(4096 - c.received().size());
      return c.received().size() >= 4096;
    }));
    // The report's task is asleep on a full socket now.
    EXPECT_EQ(1u, root->snapshotShowCount());
  }
  // The hang-up wakes the report's task, its write fails with EPIPE (the
  // signal, blocked, is taken off the thread) and the report ends.
  ASSERT_TRUE(driveUntil([&] { return root->snapshotShowCount() == 0 && endpoint->clientCount() == 0; }));
  EXPECT_FALSE(sigpipePending());
  EXPECT_EQ(1u, endpoint->counters().reports);
  // The agent goes on serving.
  EXPECT_EQ(0u, ask(endpoint->address(), "help\n").find("show agent task scheduler"));
  endpoint->stop();
  EXPECT_FALSE(sigpipeBlocked()) << "the mask is as it was once the endpoint and its reports are gone";
  EXPECT_TRUE(sigpipeDispositionIsDefault());
}

TEST_F(AgentEndpointStop, StopClosesEveryClientAndEndsReportsUnderWay) {
  const int descriptorsBefore = openDescriptorCount();
  Client silent(endpoint->address());
  Client reader(endpoint->address());
  Client idleReader(endpoint->address());
  reader.send(bigReport);
  idleReader.send(bigReport);
  ASSERT_TRUE(driveUntil([&] { return root->snapshotShowCount() == 2; }));
  // One report has reached its reader's socket buffer and sleeps; the other
  // has its reader take a little now and then.
  ASSERT_TRUE(driveUntil([&] {
    reader.pump(100);
    return !idleReader.pump(0) && root->snapshotShowCount() == 2 && endpoint->clientCount() == 3 &&
           reader.received().size() >= 1000;
  }));

  endpoint->stop();
  EXPECT_FALSE(endpoint->running());
  EXPECT_EQ(0u, endpoint->clientCount());
  EXPECT_TRUE(sigpipeBlocked()) << "reports under way still write, so SIGPIPE stays blocked";
  // The silent client is closed at once, without an answer.
  ASSERT_TRUE(driveUntil([&] { return silent.pump(); }, 5.0));
  EXPECT_EQ("", silent.received());
  // The reports end at their next write, their sockets shut down.
  ASSERT_TRUE(driveUntil([&] { return root->snapshotShowCount() == 0; }));
  ASSERT_TRUE(driveUntil([&] { return reader.pump() && idleReader.pump(); }));
  EXPECT_FALSE(sigpipeBlocked());
  EXPECT_FALSE(sigpipePending());
  silent.close();
  reader.close();
  idleReader.close();
  // Every descriptor of the endpoint is gone, its listening socket too.
  EXPECT_EQ(descriptorsBefore - 1, openDescriptorCount());
}

TEST_F(AgentEndpointStop, DestructionWithClientsConnectedIsAStop) {
  const int descriptorsBefore = openDescriptorCount();
  Client silent(endpoint->address());
  Client idleReader(endpoint->address());
  idleReader.send(bigReport);
  ASSERT_TRUE(driveUntil([&] { return root->snapshotShowCount() == 1 && endpoint->clientCount() == 2; }));
  const String address = endpoint->address();
  endpoint = nullptr;
  ASSERT_TRUE(driveUntil([&] { return root->snapshotShowCount() == 0; }));
  ASSERT_TRUE(driveUntil([&] { return silent.pump() && idleReader.pump(); }));
  EXPECT_FALSE(sigpipeBlocked());
  // Nobody listens on the address any more.
  Client late(address);
  EXPECT_FALSE(late.connected());
  EXPECT_EQ(ECONNREFUSED, late.connectErrno());
  late.close();
  silent.close();
  idleReader.close();
  // Every descriptor of the endpoint is gone, its listening socket too.
  EXPECT_EQ(descriptorsBefore - 1, openDescriptorCount());
}

TEST_F(AgentEndpointStop, StopIsIdempotent) {
  endpoint->stop();
  endpoint->stop();
  EXPECT_FALSE(endpoint->running());
  EXPECT_FALSE(sigpipeBlocked());
}

TEST_F(AgentEndpointStop, TwoEndpointsOnOneThreadShareTheBlockedMask) {
  Ptr<AgentEndpoint> second = AgentEndpoint::start(root, {.name = uniqueName("second")});
  endpoint->stop();
  EXPECT_TRUE(sigpipeBlocked()) << "the second endpoint still runs";
  second->stop();
  EXPECT_FALSE(sigpipeBlocked());
}

TEST_F(AgentEndpointStop, MaskBlockedByTheApplicationStaysBlocked) {
  endpoint->stop();
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  Ptr<AgentEndpoint> again = AgentEndpoint::start(root, {.name = uniqueName("again")});
  again->stop();
  EXPECT_TRUE(sigpipeBlocked());
  pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}
