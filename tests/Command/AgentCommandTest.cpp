// kesto against a running agent: the example agent, started under a name of
// its own, serves its endpoint; each command runs as a separate process and
// its output is checked, the JSON report parsed back.
#include "CommandTestSupport.h"

#include <KestoSupport/TimelineDocument.h>

#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <algorithm>
#include <chrono>
#include <ctime>

using namespace KestoTest;

namespace {

// The agent of the tests that only look at it; tests that change it (trace
// levels, statistics) start their own.
class KestoAgent : public ::testing::Test {
protected:
  static void SetUpTestSuite() { agent_ = new DemoAgent(); }
  static void TearDownTestSuite() {
    delete agent_;
    agent_ = nullptr;
  }
  void SetUp() override { ASSERT_TRUE(agent_->ready()); }

  static DemoAgent& agent() { return *agent_; }

private:
  static DemoAgent* agent_;
};

DemoAgent* KestoAgent::agent_ = nullptr;

ChildResult succeeded(const std::vector<std::string>& args) {
  ChildResult result = runKesto(args);
  EXPECT_TRUE(result.exitedWith(0)) << "status " << result.status << ": " << result.err;
  EXPECT_EQ(result.err, "");
  return result;
}

// The names of the tasks of a scheduler object of the JSON report.
std::vector<std::string> taskNames(const rapidjson::Value& scheduler) {
  std::vector<std::string> names;
  for (const rapidjson::Value& task : scheduler["tasks"]["tasks"].GetArray())
    names.push_back(task["name"].GetString());
  return names;
}

bool contains(const std::vector<std::string>& names, const std::string& name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

// A task's run count in a JSON report of the root "main", or -1.
long long runCountOf(const std::string& json, const std::string& task) {
  rapidjson::Document document;
  document.Parse(json.c_str());
  if (document.HasParseError())
    return -1;
  for (const rapidjson::Value& t : document["schedulers"]["main"]["tasks"]["tasks"].GetArray())
    if (task == t["name"].GetString())
      return (long long)t["runCount"].GetUint64();
  return -1;
}

TEST_F(KestoAgent, ListShowsTheAgentWithItsTitleAndStartTime) {
  const ChildResult result = succeeded({"list"});
  bool found = false;
  for (const std::string& line : linesOf(result.out)) {
    std::istringstream in(line);
    std::string pid, name, title, date, time;
    in >> pid >> name >> title >> date >> time;
    if (pid != agent().pidText())
      continue;
    found = true;
    // The endpoint is named after the program, so name and title agree.
    EXPECT_EQ(name, agent().name());
    EXPECT_EQ(title, agent().name());
    std::tm started{};
    const std::string when = date + " " + time;
    ASSERT_NE(::strptime(when.c_str(), "%Y-%m-%d %H:%M:%S", &started), nullptr) << when;
    started.tm_isdst = -1;
    // Whole seconds of the boot time plus whole ticks, cut to seconds.
    EXPECT_GE(std::mktime(&started), agent().started() - 2) << when;
    EXPECT_LE(std::mktime(&started), std::time(nullptr)) << when;
  }
  EXPECT_TRUE(found) << result.out;
}

TEST_F(KestoAgent, ShowPrintsTheTextReport) {
  for (const std::string& which : {agent().pidText(), agent().name()}) {
    const ChildResult result = succeeded({"show", which});
    EXPECT_EQ(result.out.rfind("TaskScheduler stats for main\n", 0), 0u) << result.out.substr(0, 200);
    for (const char* task : {"cruncher", "heartbeat", "feed", "TaskGroup;indexer"})
      EXPECT_NE(result.out.find(task), std::string::npos) << task;
  }
}

TEST_F(KestoAgent, ShowJsonParsesBack) {
  const ChildResult result = succeeded({"show", agent().pidText(), "--json"});
  rapidjson::Document document;
  document.Parse(result.out.c_str());
  ASSERT_FALSE(document.HasParseError()) << result.out.substr(0, 400);
  const rapidjson::Value& main = document["schedulers"]["main"];
  EXPECT_STREQ(main["schedulerName"].GetString(), "main");
  EXPECT_TRUE(main["isRootScheduler"].GetBool());
  const std::vector<std::string> names = taskNames(main);
  for (const char* task : {"cruncher", "heartbeat", "feed", "audit"})
    EXPECT_TRUE(contains(names, task)) << task;
  // The group's task names its member of "subSchedulers".
  std::string groupKey;
  for (const rapidjson::Value& task : main["tasks"]["tasks"].GetArray())
    if (task.HasMember("subScheduler"))
      groupKey = task["subScheduler"].GetString();
  ASSERT_TRUE(main["subSchedulers"].HasMember(groupKey.c_str())) << groupKey;
  const rapidjson::Value& group = main["subSchedulers"][groupKey.c_str()];
  EXPECT_STREQ(group["schedulerName"].GetString(), "indexer");
  EXPECT_FALSE(group["isRootScheduler"].GetBool());
  EXPECT_TRUE(contains(taskNames(group), "shard"));
}

TEST_F(KestoAgent, MatchKeepsOnlyTheTasksWhoseNamesMatch) {
  const ChildResult json = succeeded({"show", agent().pidText(), "--json", "--match", "^feed$"});
  rapidjson::Document document;
  document.Parse(json.out.c_str());
  ASSERT_FALSE(document.HasParseError());
  const rapidjson::Value& main = document["schedulers"]["main"];
  EXPECT_STREQ(main["taskNameRegex"].GetString(), "^feed$");
  EXPECT_EQ(taskNames(main), std::vector<std::string>{"feed"});

  const ChildResult text = succeeded({"show", agent().pidText(), "--match=^feed$"});
  EXPECT_NE(text.out.find("\nfeed "), std::string::npos) << text.out;
  EXPECT_EQ(text.out.find("cruncher"), std::string::npos) << text.out;
}

TEST_F(KestoAgent, FlatReportMergesTheGroupsTasksIntoOneTable) {
  // Hierarchical: the group's shards stand indented under its line.
  const ChildResult tree = succeeded({"show", agent().pidText(), "--no-history"});
  EXPECT_NE(tree.out.find("\n  shard"), std::string::npos) << tree.out;
  const ChildResult flat = succeeded({"show", agent().pidText(), "--no-history", "--flat"});
  EXPECT_EQ(flat.out.find("\n  shard"), std::string::npos) << flat.out;
  EXPECT_NE(flat.out.find("\nshard"), std::string::npos) << flat.out;
}

TEST_F(KestoAgent, InvalidExpressionGivesTheReportWithItsError) {
  const ChildResult result = succeeded({"show", agent().pidText(), "--json", "--match", "(unclosed"});
  rapidjson::Document document;
  document.Parse(result.out.c_str());
  ASSERT_FALSE(document.HasParseError()) << result.out.substr(0, 400);
  EXPECT_TRUE(document["schedulers"]["main"].HasMember("taskNameRegexError")) << result.out.substr(0, 400);
}

TEST_F(KestoAgent, RefusalOfTheAgentIsItsErrorLineAndStatusOne) {
  // A line beyond the endpoint's 4096 bytes is refused with an error line.
  const ChildResult result = runKesto({"trace", agent().pidText(), "KestoUtil/" + std::string(5000, '5')});
  EXPECT_TRUE(result.exitedWith(1)) << result.status;
  EXPECT_EQ(result.out, "");
  const std::vector<std::string> lines = linesOf(result.err);
  ASSERT_EQ(lines.size(), 1u) << result.err;
  EXPECT_EQ(lines[0].rfind("kesto: " + agent().label() + ": error: ", 0), 0u) << lines[0];
}

TEST_F(KestoAgent, WatchWithCountShowsThatManyReportsApartOffATerminal) {
  const ChildResult result =
      succeeded({"watch", agent().pidText(), "--count", "2", "--interval", "0.2", "--match", "^feed$"});
  // Standard output is a file here: plain text, no terminal control.
  EXPECT_EQ(result.out.find('\x1b'), std::string::npos);
  const std::vector<std::string> lines = linesOf(result.out);
  std::vector<std::size_t> headers;
  for (std::size_t i = 0; i < lines.size(); ++i)
    if (lines[i].rfind("kesto watch: ", 0) == 0)
      headers.push_back(i);
  ASSERT_EQ(headers.size(), 2u) << result.out;
  EXPECT_EQ(headers[0], 0u);
  EXPECT_EQ(lines[headers[1] - 1], "") << "a blank line before the second report";
  EXPECT_NE(lines[headers[0]].find(agent().label() + ", every 0.2 s, report 1 at "), std::string::npos)
      << lines[headers[0]];
  EXPECT_NE(lines[headers[1]].find("report 2 at "), std::string::npos);
  EXPECT_EQ(countOf(result.out, "TaskScheduler stats for main\n"), 2u);
  EXPECT_EQ(lines[headers[0] + 1], "TaskScheduler stats for main");
  EXPECT_EQ(lines[headers[1] + 1], "TaskScheduler stats for main");
}

TEST_F(KestoAgent, WatchWaitsAnIntervalBetweenReports) {
  const auto start = std::chrono::steady_clock::now();
  const ChildResult result =
      succeeded({"watch", agent().pidText(), "--count", "3", "--interval", "0.3", "--match", "^feed$"});
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_EQ(countOf(result.out, "TaskScheduler stats for main\n"), 3u);
  // Three reports are two intervals apart at the least; never sooner.
  EXPECT_GE(seconds, 0.6);
}

TEST(KestoAgentChanges, TraceSetsLevelsAndClearTakesThemAway) {
  DemoAgent agent;
  ASSERT_TRUE(agent.ready());
  const ChildResult set = succeeded({"trace", agent.pidText(), "KestoUtil/5"});
  EXPECT_NE(set.out.find("KestoUtil"), std::string::npos) << set.out;
  const ChildResult cleared = succeeded({"trace", agent.pidText(), "--clear", "KestoUtil/5"});
  EXPECT_NE(cleared.out.find("KestoUtil"), std::string::npos) << cleared.out;
  EXPECT_NE(set.out, cleared.out);
}

TEST(KestoAgentChanges, ResetStartsTheFiguresAgain) {
  DemoAgent agent;
  ASSERT_TRUE(agent.ready());
  // Ten virtual minutes of feed bursts every 50 to 100 ms: thousands of runs.
  const long long before = runCountOf(succeeded({"show", agent.pidText(), "--json"}).out, "feed");
  ASSERT_GT(before, 1000);
  const ChildResult reset = succeeded({"reset", agent.pidText()});
  EXPECT_EQ(reset.out, agent.label() + ": stats reset\n");
  const long long after = runCountOf(succeeded({"show", agent.pidText(), "--json", "--all"}).out, "feed");
  EXPECT_GE(after, 0);
  EXPECT_LT(after, before);
}

} // namespace

TEST_F(KestoAgent, TimelineWritesATraceEventDocumentOfTheAgent) {
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{"timeline", agent().pidText()}, {"timeline", agent().name()}}) {
    const ChildResult result = succeeded(args);
    const TimelineDocument t = parseTimeline(result.out);
    ASSERT_TRUE(t.parsed) << t.error << "\n" << result.out.substr(0, 400);
    EXPECT_EQ(t.processName, agent().name());
    EXPECT_EQ(std::to_string(t.pid), agent().pidText());
    ASSERT_NE(t.tid("main"), 0u);
    ASSERT_NE(t.tid("indexer"), 0u);
    // The agent serves in real time: its ring holds runs, each on a track
    // the document names.
    const auto runs = t.where("X", "run");
    EXPECT_FALSE(runs.empty());
    for (const TimelineEvent& e : t.events)
      EXPECT_EQ(t.tracks.count(e.tid), 1u) << e.name;
  }
}
