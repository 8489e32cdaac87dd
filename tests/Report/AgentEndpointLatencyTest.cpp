// "show agent task latency [N]" asked over a real socket of an endpoint on a
// real root. The scheduler's clock is moved by hand while the tasks run and
// stands still while the endpoint answers, so the culprits' times and the
// ages in the answer are exact.
#include "EndpointTestSupport.h"

#include <KestoSupport/TestScheduler.h>

#include <Kesto/Scheduler/LatencyCulprits.h>

using namespace Kesto;
using namespace EndpointTest;
using namespace std::chrono_literals;

namespace {

class AgentEndpointLatency : public ::testing::Test {
protected:
  void SetUp() override {
    root = schedulerRootKestoNonShared("latencyRoot");
    auto busy = [&](TaskPriority p, const char* name, TaskTimeDuration runTime) {
      return Ptr<KestoTest::TestTask>(
          new KestoTest::TestTask(root, p, name, [this, runTime](KestoTest::TestTask&) { clock.advance(runTime); }));
    };
    reader = busy(TaskPriority::low, "reader", 0ms);
    crunch = busy(TaskPriority::normal, "crunch", 30ms);
    parse = busy(TaskPriority::normal, "parse", 12ms);
    endpoint = AgentEndpoint::start(root, {.name = uniqueName("latency")});
  }
  void TearDown() override {
    if (endpoint)
      endpoint->stop();
    driveUntil([&] { return root->snapshotShowCount() == 0; });
  }

  // reader (low) waits behind crunch (30 ms) and parse (12 ms).
  void lateReader() {
    reader->scheduleTask();
    crunch->scheduleTask();
    parse->scheduleTask();
    ASSERT_TRUE(driveUntil([&] { return !root->schedulerHasRunnableTasks(); }));
  }

  std::string ask(std::string_view command) { return EndpointTest::ask(endpoint->address(), command); }

  KestoTest::ManualClock clock;
  Ptr<TaskSchedulerRoot> root;
  Ptr<KestoTest::TestTask> reader, crunch, parse;
  Ptr<AgentEndpoint> endpoint;
};

} // namespace

TEST_F(AgentEndpointLatency, AnswerIsTheLatestEventsNewestFirstWithTheirCulprits) {
  root->latencyCulpritsIs(TaskDurationMs(35), 8);
  lateReader();
  clock.advance(1s);
  lateReader();
  clock.advance(2s);
  EXPECT_EQ("latency culprits of latencyRoot: threshold 35ms, 2 events since turned on, 2 shown, newest first\n"
            "\n"
            "latency 42.000ms L reader in latencyRoot: scheduled 2.042s ago, ran 2.000s ago; history covers the "
            "window\n"
            "      30.000ms      1 run   N crunch\n"
            "      12.000ms      1 run   N parse\n"
            "       0.000ms              outside any run\n"
            "\n"
            "latency 42.000ms L reader in latencyRoot: scheduled 3.084s ago, ran 3.042s ago; history covers the "
            "window\n"
            "      30.000ms      1 run   N crunch\n"
            "      12.000ms      1 run   N parse\n"
            "       0.000ms              outside any run\n",
            ask("show agent task latency\n"));
}

TEST_F(AgentEndpointLatency, CountLimitsTheAnswerToTheNewestEvents) {
  root->latencyCulpritsIs(TaskDurationMs(35), 8);
  lateReader();
  clock.advance(1s);
  lateReader();
  const std::string answer = ask("show agent task latency 1\n");
  EXPECT_EQ(0u, answer.find("latency culprits of latencyRoot: threshold 35ms, 2 events since turned on, 1 shown, "
                            "newest first\n"))
      << answer;
  EXPECT_NE(std::string::npos, answer.find("scheduled 0.042s ago, ran 0.000s ago")) << answer;
  EXPECT_EQ(std::string::npos, answer.find("scheduled 1.084s ago")) << answer;
  // More than there are is all there are.
  EXPECT_EQ(ask("show agent task latency\n"), ask("show agent task latency 4294967295\n"));
}

TEST_F(AgentEndpointLatency, AnswerSaysWhenLatencyCulpritsAreOffOrNoEventCameYet) {
  lateReader();
  EXPECT_EQ("latency culprits are off\n", ask("show agent task latency\n"));
  root->latencyCulpritsIs(TaskDurationMs(100), 8);
  lateReader();
  EXPECT_EQ("latency culprits of latencyRoot: threshold 100ms, 0 events since turned on\n"
            "no latency events\n",
            ask("show agent task latency 3\n"));
}

TEST_F(AgentEndpointLatency, CountThatIsNotAWholeNumberFromOneIsOneErrorLine) {
  root->latencyCulpritsIs(TaskDurationMs(35), 8);
  for (const char* count : {"0", "-1", "+1", "x", "1.5", "4294967296", "12abc"})
    EXPECT_EQ(fmt::format("error: latency count must be a whole number from 1 to 4294967295, not {}\n", count),
              ask(fmt::format("show agent task latency {}\n", count)))
        << count;
  EXPECT_EQ("error: show agent task latency takes at most one count\n", ask("show agent task latency 1 2\n"));
}
