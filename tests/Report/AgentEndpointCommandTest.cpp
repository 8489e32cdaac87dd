// The commands of the endpoint, each asked over a real socket and answered
// by the endpoint's tasks while the test drives the event loop.
#include "EndpointTestSupport.h"

#include <Kesto/Debug/DebugControl.h>
#include <Kesto/Debug/DebugHandler.h>
#include <Kesto/Scheduler/TaskGroup.h>

#include <KestoSupport/TimelineDocument.h>

#include <rapidjson/document.h>

#include <chrono>
#include <sstream>
#include <vector>

using namespace Kesto;
using namespace EndpointTest;

namespace {

class AgentEndpointCommand : public ::testing::Test {
protected:
  void SetUp() override {
    root = schedulerRootKestoNonShared("endpointRoot");
    worker = Ptr<Idle>(new Idle(root, TaskPriority::normal, "workerAlpha"));
    other = Ptr<Idle>(new Idle(root, TaskPriority::high, "otherBeta"));
    worker->scheduleTask();
    other->scheduleTask();
    ASSERT_TRUE(driveUntil([&] { return worker->runs == 1 && other->runs == 1; }));
    endpoint = AgentEndpoint::start(root, {.name = uniqueName("cmd")});
  }
  void TearDown() override {
    if (endpoint)
      endpoint->stop();
    // Reports end with their clients; let their tasks go.
    driveUntil([&] { return root->snapshotShowCount() == 0; });
  }

  // A group "grp" under the root with a task "innerGamma" that has run.
  void addGroupWithOneTask() {
    group = TaskGroup::TaskGroupIs("grp", TaskPriority::normal, TaskGroupPriorityEnforcement::allowAny, root);
    inner = Ptr<Idle>(new Idle(group, TaskPriority::normal, "innerGamma"));
    inner->scheduleTask();
    ASSERT_TRUE(driveUntil([&] { return inner->runs == 1; }));
  }

  std::string ask(std::string_view command) { return EndpointTest::ask(endpoint->address(), command); }

  Ptr<TaskSchedulerRoot> root;
  Ptr<Idle> worker;
  Ptr<Idle> other;
  Ptr<AgentEndpoint> endpoint;
  Ptr<TaskGroup> group;
  Ptr<Idle> inner;
};

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line))
    lines.push_back(line);
  return lines;
}

} // namespace

TEST_F(AgentEndpointCommand, HelpListsEveryCommandOnePerLine) {
  const std::string answer = ask("help\n");
  EXPECT_EQ("show agent task scheduler [match REGEX] [json] [flat] [addresses] [no-history] [no-completed] [all]\n"
            "show agent task latency [N]\n"
            "show agent task timeline\n"
            "trace LEVELS\n"
            "trace clear LEVELS\n"
            "reset stats\n"
            "help\n",
            answer);
  EXPECT_EQ(1u, endpoint->counters().commands);
  EXPECT_EQ(0u, endpoint->clientCount());
}

TEST_F(AgentEndpointCommand, CommandWithoutNewlineIsAnsweredAfterTheClientShutsItsSide) {
  Client c(endpoint->address());
  c.send("help");
  c.shutdownWrite();
  ASSERT_TRUE(driveUntil([&] { return c.pump(); }));
  EXPECT_EQ(0, c.readErrno());
  EXPECT_EQ("help", c.received().substr(c.received().size() - 5, 4));
}

TEST_F(AgentEndpointCommand, ClientThatSendsNothingAndLeavesIsForgotten) {
  {
    Client c(endpoint->address());
    ASSERT_TRUE(driveUntil([&] { return endpoint->clientCount() == 1; }));
  }
  ASSERT_TRUE(driveUntil([&] { return endpoint->clientCount() == 0; }));
  EXPECT_EQ(0u, endpoint->counters().commands);
}

TEST_F(AgentEndpointCommand, UnknownCommandIsOneErrorLine) {
  EXPECT_EQ("error: unknown command: foo bar\n", ask("foo bar\n"));
  EXPECT_EQ("error: unknown command: help me\n", ask("help me\n"));
  EXPECT_EQ("error: unknown command: reset stats now\n", ask("reset stats now\n"));
  EXPECT_EQ("error: empty command\n", ask("\n"));
  EXPECT_EQ("error: unknown show option: pretty\n", ask("show agent task scheduler pretty\n"));
  EXPECT_EQ("error: match needs an expression\n", ask("show agent task scheduler match\n"));
  EXPECT_EQ("error: trace needs NAME/LEVELS\n", ask("trace\n"));
  EXPECT_EQ("error: trace clear needs NAME/LEVELS\n", ask("trace clear  \n"));
}

TEST_F(AgentEndpointCommand, CarriageReturnBeforeTheNewlineIsNotPartOfTheCommand) {
  const std::string help = ask("help\n");
  ASSERT_EQ(0u, help.rfind("show agent task scheduler", 0)) << help;
  EXPECT_EQ(help, ask("help\r\n"));
}

TEST_F(AgentEndpointCommand, ShowIsTheHierarchicalTextReportOfTheRoot) {
  addGroupWithOneTask();

  const std::string report = ask("show agent task scheduler\n");
  const std::vector<std::string> lines = linesOf(report);
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ("TaskScheduler stats for endpointRoot", lines.front());
  // The group's task stands right below the group's line, indented.
  std::size_t groupLine = lines.size();
  for (std::size_t i = 0; i < lines.size(); ++i)
    if (lines[i].rfind("TaskGroup;grp ", 0) == 0)
      groupLine = i;
  ASSERT_LT(groupLine + 1, lines.size()) << report;
  EXPECT_EQ(0u, lines[groupLine + 1].rfind("  innerGamma ", 0)) << report;
  EXPECT_NE(std::string::npos, report.find("\nworkerAlpha "));
  EXPECT_NE(std::string::npos, report.find("\notherBeta "));
  // The history is part of it unless refused.
  EXPECT_NE(std::string::npos, report.find("scheduler events"));
  EXPECT_EQ(1u, endpoint->counters().reports);
}

TEST_F(AgentEndpointCommand, ShowFlatListsGroupTasksAtTheTopLevel) {
  addGroupWithOneTask();

  const std::string report = ask("show agent task scheduler flat\n");
  EXPECT_NE(std::string::npos, report.find("\ninnerGamma ")) << report;
  EXPECT_EQ(std::string::npos, report.find("\n  innerGamma "));
}

TEST_F(AgentEndpointCommand, ShowOptionsLeaveOutHistoryAndCompletedTasksAndAddAddresses) {
  {
    Ptr<Idle> shortLived(new Idle(root, TaskPriority::normal, "shortLived"));
    shortLived->scheduleTask();
    ASSERT_TRUE(driveUntil([&] { return shortLived->runs == 1; }));
  }
  const std::string full = ask("show agent task scheduler\n");
  EXPECT_NE(std::string::npos, full.find("TaskName (completed)"));
  EXPECT_NE(std::string::npos, full.find("\nshortLived "));
  const std::string lean = ask("show agent task scheduler no-history no-completed\n");
  EXPECT_EQ(std::string::npos, lean.find("scheduler events")) << lean;
  EXPECT_EQ(std::string::npos, lean.find("TaskName (completed)")) << lean;
  EXPECT_EQ(std::string::npos, lean.find("\nshortLived "));
  const std::string addressed = ask("show agent task scheduler addresses no-history\n");
  EXPECT_NE(std::string::npos, addressed.find("0x")) << addressed;
  EXPECT_EQ(std::string::npos, lean.find("0x"));
}

TEST_F(AgentEndpointCommand, ShowAllIncludesTasksThatNeverRan) {
  Ptr<Idle> never(new Idle(root, TaskPriority::low, "neverRanDelta"));
  const std::string ran = ask("show agent task scheduler no-history\n");
  EXPECT_EQ(std::string::npos, ran.find("neverRanDelta")) << ran;
  EXPECT_NE(std::string::npos, ask("show agent task scheduler all no-history\n").find("\nneverRanDelta "));
}

TEST_F(AgentEndpointCommand, ShowMatchKeepsOnlyMatchingTasks) {
  const std::string report = ask("show agent task scheduler match work.*\n");
  EXPECT_NE(std::string::npos, report.find("Filtered to include only tasks matching 'work.*'")) << report;
  EXPECT_NE(std::string::npos, report.find("\nworkerAlpha "));
  EXPECT_EQ(std::string::npos, report.find("\notherBeta "));
}

TEST_F(AgentEndpointCommand, ShowWithAnInvalidExpressionGivesTheReportWithItsError) {
  const std::string report = ask("show agent task scheduler match (\n");
  EXPECT_EQ(0u, report.find("Task name regular expression '(' is invalid, error: ")) << report;
  // The report goes on after the error, with no task in it.
  EXPECT_NE(std::string::npos, report.find("\nTaskName ")) << report;
  EXPECT_EQ(std::string::npos, report.find("workerAlpha")) << report;
}

TEST_F(AgentEndpointCommand, ShowJsonIsOneDocumentOfTheRoot) {
  const std::string report = ask("show agent task scheduler json match .*Alpha\n");
  rapidjson::Document d;
  d.Parse(report.data(), report.size());
  ASSERT_FALSE(d.HasParseError()) << report;
  ASSERT_TRUE(d.HasMember("schedulers"));
  const auto& root = d["schedulers"]["endpointRoot"];
  ASSERT_TRUE(root.IsObject()) << report;
  EXPECT_TRUE(root["isRootScheduler"].GetBool());
  const auto& tasks = root["tasks"]["tasks"];
  ASSERT_TRUE(tasks.IsArray());
  ASSERT_EQ(1u, tasks.Size()) << report;
  EXPECT_STREQ("workerAlpha", tasks[0]["name"].GetString());
}

TEST_F(AgentEndpointCommand, TraceAppliesTheLevelsAndAnswersWithTheDebugMap) {
  Ptr<Platform::DebugHandler> handler = Platform::getDebugHandler("EndpointProbe");
  EXPECT_EQ(0, *handler->levelsPtr & (1 << 3));
  const std::string answer = ask("trace EndpointProbe/37\n");
  EXPECT_EQ(std::string(Platform::kestoDebugMapText().view()), answer);
  EXPECT_NE(std::string::npos, answer.find("Specific:\n"));
  EXPECT_NE(std::string::npos, answer.find("\n    EndpointProbe/37\n")) << answer;
  EXPECT_NE(0, *handler->levelsPtr & (1 << 3));
  EXPECT_NE(0, *handler->levelsPtr & (1 << 7));

  const std::string cleared = ask("trace clear EndpointProbe/3\n");
  EXPECT_EQ(0, *handler->levelsPtr & (1 << 3));
  EXPECT_NE(0, *handler->levelsPtr & (1 << 7));
  EXPECT_NE(std::string::npos, cleared.find("\n    EndpointProbe/7\n")) << cleared;
  ask("trace clear EndpointProbe/7\n");
  EXPECT_EQ(0, *handler->levelsPtr);
}

TEST_F(AgentEndpointCommand, ResetStatsAnswersOnlyOnceTheResetHasEnded) {
  // Many tasks and a yield after every one of them: the walk takes one
  // pass per task, so the reset is visibly under way for a while.
  std::vector<Ptr<Idle>> tasks;
  for (int i = 0; i < 200; ++i) {
    tasks.push_back(Ptr<Idle>(new Idle(root, TaskPriority::normal, String("many" + std::to_string(i)))));
    tasks.back()->scheduleTask();
  }
  ASSERT_TRUE(driveUntil([&] { return tasks.back()->runs == 1; }));
  EXPECT_EQ(1u, worker->taskRunCount());
  root->taskTestYieldRatioIs(1);

  Client c(endpoint->address());
  c.send("reset stats\n");
  bool sawInProgress = false;
  bool answeredDuringReset = false;
  ASSERT_TRUE(driveUntil([&] {
    const bool inProgress = root->resetStatsInProgress();
    sawInProgress |= inProgress;
    c.pump();
    answeredDuringReset |= inProgress && !c.received().empty();
    return c.eof();
  }, 60.0, 0.0));
  root->taskTestYieldRatioIs(0);
  EXPECT_EQ("stats reset\n", c.received());
  EXPECT_TRUE(sawInProgress);
  EXPECT_FALSE(answeredDuringReset);
  EXPECT_FALSE(root->resetStatsInProgress());
  EXPECT_EQ(0u, worker->taskRunCount());
  EXPECT_EQ(0u, tasks.front()->taskRunCount());
}

TEST_F(AgentEndpointCommand, ResetWaitingForASuspendedGroupIsPolledEverSlowerAndAnsweredOnResume) {
  addGroupWithOneTask();
  group->suspendedIs(true);
  Client c(endpoint->address());
  c.send("reset stats\n");
  ASSERT_TRUE(driveUntil([&] { return endpoint->counters().commands == 1; }));
  // The group's part of the reset waits for the group.
  const auto start = std::chrono::steady_clock::now();
  driveUntil([&] { return std::chrono::steady_clock::now() - start > std::chrono::milliseconds(300); });
  EXPECT_TRUE(root->resetStatsInProgress());
  EXPECT_FALSE(c.pump());
  EXPECT_EQ("", c.received());
  // Polls after 1, 2, 4 ... 64 ms, then every 100 ms: about ten in 300 ms,
  // where a poll every millisecond would have made three hundred.
  unsigned timers = 0;
  U64 polls = 0;
  for (int fd = 0; fd < 1024; ++fd)
    if (Ptr<TaskImpl> t = root->taskForTest(String("AgentEndpointClientTimer-fd:" + std::to_string(fd)))) {
      ++timers;
      polls = t->taskRunCount();
    }
  ASSERT_EQ(1u, timers);
  EXPECT_GE(polls, 3u);
  EXPECT_LE(polls, 15u);
  group->suspendedIs(false);
  ASSERT_TRUE(driveUntil([&] { return c.pump(); }));
  EXPECT_EQ("stats reset\n", c.received());
  EXPECT_FALSE(root->resetStatsInProgress());
}

TEST_F(AgentEndpointCommand, TimelineIsATraceEventDocumentOfTheRootAndItsGroups) {
  // Room for every event since the set-up, whatever the endpoint records.
  root->historyEntryCountIs(10000);
  addGroupWithOneTask();

  const std::string answer = ask("show agent task timeline\n");
  ASSERT_FALSE(answer.empty());
  EXPECT_EQ('\n', answer.back());
  const KestoTest::TimelineDocument t = KestoTest::parseTimeline(answer);
  ASSERT_TRUE(t.parsed) << t.error << "\n" << answer.substr(0, 400);
  // The process is the agent, named by its endpoint.
  EXPECT_EQ(endpoint->options().name.view(), t.processName);
  EXPECT_EQ(unsigned(::getpid()), t.pid);
  const unsigned rootTid = t.tid("endpointRoot"), groupTid = t.tid("grp");
  ASSERT_NE(0u, rootTid);
  ASSERT_NE(0u, groupTid);
  for (const char* name : {"workerAlpha", "otherBeta"}) {
    const auto runs = t.where("X", "run", name);
    ASSERT_FALSE(runs.empty()) << name;
    EXPECT_EQ(rootTid, runs[0].tid) << name;
  }
  const auto inner = t.where("X", "run", "innerGamma");
  ASSERT_EQ(1u, inner.size());
  EXPECT_EQ(groupTid, inner[0].tid);
  // The client that took the snapshot was running at the time.
  bool clientClipped = false;
  for (const auto& run : t.where("X", "run"))
    clientClipped = clientClipped || (run.name.rfind("AgentEndpointClient-fd:", 0) == 0 &&
                                      run.args.count("clipped") && run.args.at("clipped") == "end");
  EXPECT_TRUE(clientClipped) << answer;
}
