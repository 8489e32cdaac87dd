// kesto latency against a real agent: a root with latency culprits on, on a
// thread of this test process, serves its endpoint while the command runs
// as a separate process. The example agent would serve too, but the
// latency of its real-time tasks is whatever the machine's load makes it;
// here the scheduler's clock is moved by hand while the tasks run and
// stands still afterwards, so the command's whole output is known.
#include "CommandTestSupport.h"

#include <KestoSupport/TestScheduler.h>

#include <Kesto/Platform/Libevent.h>
#include <Kesto/Platform/Platform.h>
#include <Kesto/Report/AgentEndpoint.h>
#include <Kesto/Scheduler/TaskSchedulerRoot.h>

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>

using namespace KestoTest;
using namespace std::chrono_literals;

namespace {

// A root on its own thread: a low task "reader" waits behind "crunch"
// (30 ms) and "parse" (12 ms) twice, one second apart, then the endpoint
// serves until the agent is destroyed.
class LatencyAgent {
public:
  explicit LatencyAgent(std::string name) : name_(std::move(name)) {
    std::promise<void> ready;
    std::future<void> served = ready.get_future();
    thread_ = std::thread([this, &ready] { serve(ready); });
    served.get();
  }
  ~LatencyAgent() {
    stop_ = true;
    thread_.join();
  }
  const std::string& name() const { return name_; }

private:
  void serve(std::promise<void>& ready) {
    serveUntilStopped(ready);
    // The thread's event base goes with the thread's work.
    Kesto::leFree();
  }

  void serveUntilStopped(std::promise<void>& ready) {
    using namespace Kesto;
    Ptr<TaskSchedulerRoot> root = schedulerRootKestoNonShared("agentRoot");
    root->latencyCulpritsIs(TaskDurationMs(35), 8);
    auto busy = [&](TaskPriority p, const char* name, TaskTimeDuration runTime) {
      return Ptr<TestTask>(new TestTask(root, p, name, [this, runTime](TestTask&) { clock_.advance(runTime); }));
    };
    Ptr<TestTask> reader = busy(TaskPriority::low, "reader", 0ms);
    Ptr<TestTask> crunch = busy(TaskPriority::normal, "crunch", 30ms);
    Ptr<TestTask> parse = busy(TaskPriority::normal, "parse", 12ms);
    for (int i = 0; i < 2; ++i) {
      if (i != 0)
        clock_.advance(1s);
      reader->scheduleTask();
      crunch->scheduleTask();
      parse->scheduleTask();
      Platform::doEventLoop();
    }
    Ptr<AgentEndpoint> endpoint = AgentEndpoint::start(root, {.name = String(name_)});
    ready.set_value();
    while (!stop_)
      Platform::doEventLoopInWaitfor(0.01);
    endpoint->stop();
    Platform::doEventLoopInWaitfor(0.01);
  }

  std::string name_;
  // Installed before the thread starts and removed after it ends.
  ManualClock clock_;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

const char* newestEvent = "latency 42.000ms L reader in agentRoot: scheduled 0.042s ago, ran 0.000s ago; history "
                          "covers the window\n"
                          "      30.000ms      1 run   N crunch\n"
                          "      12.000ms      1 run   N parse\n"
                          "       0.000ms              outside any run\n";

TEST(KestoLatency, PrintsTheAgentsLatencyEventsNewestFirst) {
  LatencyAgent agent(fmt::format("lat{}", ::getpid()));
  for (const std::string& which : {agent.name(), std::to_string(::getpid())}) {
    const ChildResult result = runKesto({"latency", which});
    EXPECT_TRUE(result.exitedWith(0)) << "status " << result.status << ": " << result.err;
    EXPECT_EQ("", result.err);
    EXPECT_EQ(std::string("latency culprits of agentRoot: threshold 35ms, 2 events since turned on, 2 shown, newest "
                          "first\n"
                          "\n") +
                  newestEvent +
                  "\n"
                  "latency 42.000ms L reader in agentRoot: scheduled 1.084s ago, ran 1.042s ago; history covers the "
                  "window\n"
                  "      30.000ms      1 run   N crunch\n"
                  "      12.000ms      1 run   N parse\n"
                  "       0.000ms              outside any run\n",
              result.out);
  }
}

TEST(KestoLatency, CountAsksForTheNewestEventsOnly) {
  LatencyAgent agent(fmt::format("latcount{}", ::getpid()));
  const ChildResult result = runKesto({"latency", agent.name(), "--count", "1"});
  EXPECT_TRUE(result.exitedWith(0)) << "status " << result.status << ": " << result.err;
  EXPECT_EQ(std::string("latency culprits of agentRoot: threshold 35ms, 2 events since turned on, 1 shown, newest "
                        "first\n"
                        "\n") +
                newestEvent,
            result.out);
  // A count beyond what the endpoint takes asks for everything.
  const ChildResult all = runKesto({"latency", agent.name(), "--count=99999999999"});
  EXPECT_TRUE(all.exitedWith(0)) << "status " << all.status << ": " << all.err;
  EXPECT_NE(std::string::npos, all.out.find("2 events since turned on, 2 shown")) << all.out;
}

} // namespace
