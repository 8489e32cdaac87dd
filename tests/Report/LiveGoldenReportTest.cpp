// Golden reports of a live scheduler: a real root with plain, timer and
// descriptor tasks, a group inside a group, tasks that completed, a task that
// never ran, and a filter, rendered by the real entry points and compared
// byte for byte with the files in golden/live-*.
//
// Every figure is fixed by the scenario, not masked: the task clock is a
// manual one (the bodies move it by known amounts, so run times, latencies,
// quantum violations, the slip and the history's timestamps are exact), the
// timer task fires under fast forward, and run counts follow from what the
// scenario schedules. Only heap addresses cannot be fixed: they appear in
// the with-addresses text and in JSON ("address", group keys), and there
// each distinct address is replaced, in order of first appearance, by a
// placeholder of the same length, so that columns and the pairing of a
// group's "subScheduler" with its key stay checkable.
//
// On a difference the actual report is written to actual-<file> in the
// working directory and the test fails.
#include "ReportFixtures.h"

#include <Kesto/Platform/Platform.h>
#include <Kesto/Scheduler/FileDescriptorTask.h>
#include <Kesto/Scheduler/TaskGroup.h>
#include <Kesto/Scheduler/TaskSchedulerRoot.h>
#include <Kesto/Scheduler/TimerTask.h>

#include <KestoSupport/TestScheduler.h>

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <functional>
#include <fcntl.h>
#include <array>
#include <map>
#include <sstream>
#include <regex>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

using namespace Kesto;
using namespace ReportTest;
using KestoTest::ManualClock;
using KestoTest::TestTask;

namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;

// Ticks once a virtual second; its fourth run arms it an hour ahead, so
// that it is an active timer when the report is taken and never fires
// during the test.
class Tick : public TimerTask {
public:
  Tick(Ptr<TaskScheduler> s, ManualClock& clock) : TimerTask(std::move(s), TaskPriority::high, "tick"), clock_(clock) {}
  static void operator delete(void* p) { ::operator delete(p); }
  void taskExecute() override {
    clock_.advance(milliseconds(1));
    scheduleTaskDelay(++runs == 4 ? 3600.0 : 1.0);
  }
  unsigned runs = 0;

private:
  ManualClock& clock_;
};

// Reads what is there; each read run takes half a millisecond and counts
// its bytes as work.
class Reader : public FileDescriptorTask {
public:
  Reader(Ptr<TaskScheduler> s, int fd, ManualClock& clock)
      : FileDescriptorTask(std::move(s), TaskPriority::normal, "reader"), clock_(clock) {
    taskWatchFdIs(fd);
  }
  static void operator delete(void* p) { ::operator delete(p); }
  void taskExecuteReadable() override {
    clock_.advance(microseconds(500));
    char buf[256];
    const ssize_t n = ::read(taskWatchFd(), buf, sizeof buf);
    if (n > 0) {
      bytes += std::size_t(n);
      taskWorkCountInc(static_cast<unsigned long>(n));
    }
  }
  void taskExecuteWritable() override {}
  std::size_t bytes = 0;

private:
  ManualClock& clock_;
};

// Heap addresses, "0x" and 16 hexadecimal digits: the only part of these
// reports that no scenario can fix, since the allocator chooses it. In JSON
// each distinct address becomes "0xaddr" and a 12-digit number in order of
// first appearance, so that a group's "subScheduler" still visibly names its
// key; all addresses there are of live objects, so distinct. In the text,
// where the completed records carry the address of whichever task was folded
// first (freed, and perhaps reused by the allocator, or not, under a
// sanitizer), every address becomes the same placeholder of the same length,
// so that the columns stay as they are.
std::string placeholderAddresses(const std::string& text, bool numbered) {
  static const std::regex address("0x[0-9a-f]{16}");
  std::map<std::string, std::string> seen;
  std::string out;
  std::size_t last = 0;
  for (auto it = std::sregex_iterator(text.begin(), text.end(), address); it != std::sregex_iterator(); ++it) {
    const std::string found = it->str();
    auto [at, inserted] = seen.emplace(found, std::string());
    if (inserted)
      at->second = numbered ? fmt::format("0xaddr{:012d}", seen.size()) : std::string("0xXXXXXXXXXXXXXXXX");
    out.append(text, last, std::size_t(it->position()) - last);
    out += at->second;
    last = std::size_t(it->position() + it->length());
  }
  out.append(text, last, std::string::npos);
  return out;
}

// The live scheduler of the golden reports, built in phases; each phase is
// driven until the scheduler is idle again.
class LiveScenario {
public:
  LiveScenario() {
    std::signal(SIGPIPE, SIG_IGN);
    savedHistoryCapacity_ = TaskSchedulerRoot::historyEntryCountDefault;
    TaskSchedulerRoot::historyEntryCountDefault = 12;
    root = TaskSchedulerRoot::TaskSchedulerRootIs("agent");
    TaskSchedulerRoot::historyEntryCountDefault = savedHistoryCapacity_;
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds_) != 0)
      throw std::runtime_error("socketpair");
    build();
  }
  ~LiveScenario() {
    tick->stopTimerTask();
    reader->taskWatchFdDel();
    for (int fd : fds_)
      ::close(fd);
  }

  // One pass of the event loop: at most one task runs.
  static void pass() { Platform::doEventLoop(0.0); }
  void settle() {
    for (int i = 0; i < 200; ++i)
      pass();
  }

  Ptr<TaskSchedulerRoot> root;
  Ptr<TaskGroup> indexer;
  Ptr<TaskGroup> shelf;
  Ptr<Tick> tick;
  Ptr<Reader> reader;
  std::vector<Ptr<TestTask>> live;
  ManualClock clock;

private:
  Ptr<TestTask> taskIs(Ptr<TaskScheduler> s, TaskPriority p, const char* name, TestTask::Body body = {}) {
    live.push_back(Ptr<TestTask>(new TestTask(std::move(s), p, String(name), std::move(body))));
    return live.back();
  }

  void build() {
    // poller: three runs of 3 ms, counting 10 work units with 2 pending.
    Ptr<TestTask> poller = taskIs(root, TaskPriority::normal, "poller", [this](TestTask& self) {
      clock.advance(milliseconds(3));
      self.taskWorkCountInc(10);
      self.taskWorkPendingIs(2);
    });
    // cruncher: 45 ms then 110 ms against a quantum of 20 ms, so one run
    // past 200 % and one past 500 %.
    Ptr<TestTask> cruncher = taskIs(root, TaskPriority::low, "cruncher", [this](TestTask& self) {
      clock.advance(milliseconds(self.runs == 1 ? 45 : 110));
    });
    taskIs(root, TaskPriority::normal, "spare"); // never runs: skipped

    indexer = TaskGroup::TaskGroupIs("indexer", TaskPriority::normal, TaskGroupPriorityEnforcement::allowAny, root);
    shelf = TaskGroup::TaskGroupIs("shelf", TaskPriority::normal, TaskGroupPriorityEnforcement::allowAny, indexer);
    Ptr<TestTask> shardA =
        taskIs(indexer, TaskPriority::normal, "shard-a", [this](TestTask&) { clock.advance(milliseconds(4)); });
    Ptr<TestTask> shardB =
        taskIs(indexer, TaskPriority::low, "shard-b", [this](TestTask&) { clock.advance(milliseconds(2)); });
    Ptr<TestTask> deepTask =
        taskIs(shelf, TaskPriority::normal, "deep-task", [this](TestTask&) { clock.advance(milliseconds(1)); });
    taskIs(shelf, TaskPriority::normal, "deep-idle"); // never runs: skipped inside the nested group

    tick = Ptr<Tick>(new Tick(root, clock));
    reader = Ptr<Reader>(new Reader(root, fds_[0], clock));

    // Phase 1: the plain tasks, one after the other. poller waits 5, 30
    // and 12 ms on the queue before its runs: its last and highest
    // scheduling delays are 12 and 30 ms, and 30 ms is the root's slip.
    for (int delayMs : {5, 30, 12}) {
      poller->scheduleTask();
      clock.advance(milliseconds(delayMs));
      settle();
      clock.advance(milliseconds(7)); // idle time between runs is no slip
    }
    cruncher->scheduleTask();
    settle();
    cruncher->scheduleTask();
    settle();

    // Phase 2: the groups. shard-a twice, shard-b once, deep-task three
    // times; each schedule waits for the one before to have run.
    for (int i = 0; i < 2; ++i) {
      shardA->scheduleTask();
      settle();
    }
    shardB->scheduleTask();
    settle();
    for (int i = 0; i < 3; ++i) {
      deepTask->scheduleTask();
      settle();
    }

    // Phase 3: three messages on the socket pair, each read in one run.
    for (const char* message : {"hello", "from the", "other end"}) {
      if (::write(fds_[1], message, std::strlen(message)) < 0)
        throw std::runtime_error("write");
      while (reader->bytes == 0 || reader->readTask()->taskScheduled())
        pass();
      settle();
    }

    // Phase 4: the timer. Virtual time moves it to its expiry, but the
    // run itself happens with fast forward off: under fast forward a run is
    // measured on the real clock, which no test can fix. Four ticks, the
    // fourth arming it an hour ahead.
    tick->scheduleTaskDelay(1.0);
    for (unsigned i = 0; i < 4; ++i) {
      Platform::setFastForward(true);
      Platform::fastForwardBy(1.01);
      Platform::setFastForward(false);
      for (int n = 0; n < 100000 && tick->runs == i; ++n)
        pass();
      settle();
    }

    // Phase 5: tasks that complete: three "job"s of 2 ms each, and one
    // "once" of 5 ms that counts 7 work units.
    for (int i = 0; i < 3; ++i)
      completeOne("job", milliseconds(2), 0);
    completeOne("once", milliseconds(5), 7);

    // Last: poller waits on the run queue (status in upper case).
    clock.advance(microseconds(2500));
    poller->scheduleTask();
  }

  void completeOne(const char* name, TaskTimeDuration runTime, unsigned long work) {
    Ptr<TestTask> t(new TestTask(root, TaskPriority::normal, String(name), [this, runTime, work](TestTask& self) {
      clock.advance(runTime);
      if (work)
        self.taskWorkCountInc(work);
    }));
    t->scheduleTask();
    settle();
  }

  unsigned savedHistoryCapacity_ = 0;
  int fds_[2] = {-1, -1};
};

// A socket pair whose reading end the test drains; the writing end goes to
// the report, which closes it.
struct ReportPipe {
  ReportPipe() {
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0)
      throw std::runtime_error("socketpair");
    fcntl(fds[1], F_SETFL, fcntl(fds[1], F_GETFL) | O_NONBLOCK);
  }
  ~ReportPipe() { ::close(fds[1]); }
  void drain() {
    char buf[65536];
    ssize_t n;
    while ((n = ::read(fds[1], buf, sizeof buf)) > 0)
      received.append(buf, std::size_t(n));
  }
  int fds[2];
  std::string received;
};

std::string runAsync(LiveScenario&, const std::function<void(int, std::function<void()>)>& start) {
  ReportPipe p;
  bool done = false;
  start(p.fds[0], [&] { done = true; });
  for (int i = 0; i < 100000 && !done; ++i) {
    LiveScenario::pass();
    p.drain();
  }
  p.drain();
  EXPECT_TRUE(done);
  return p.received;
}

// The scenario is built once; every report is taken from it before any
// show of these tests runs (a show is a task, and would be in the next
// snapshot), so the order of the tests does not matter.
struct Reports {
  std::string flatten, hierarchical, hierarchicalAddresses, filtered, json, jsonFiltered;
  Ptr<TaskSchedulerSnapshot const> snapshot;
};

class LiveGoldenReport : public ::testing::Test {
protected:
  static void SetUpTestSuite() {
    scenario = new LiveScenario();
    TaskSchedulerRoot& root = *scenario->root;
    reports = new Reports();
    reports->flatten = root.statsRenderTextToString(false, true, true, "", false, false).str();
    reports->hierarchical = root.statsRenderTextToString(false, true, true, "", true, false).str();
    reports->hierarchicalAddresses = root.statsRenderTextToString(false, true, true, "", true, true).str();
    reports->filtered =
        root.statsRenderTextToString(false, true, true, "^(poller|TaskGroup;indexer|shard-a|deep-task|job)$", true, false)
            .str();
    reports->json = root.statsRenderJsonToString(false, true, true, "").str();
    reports->jsonFiltered = root.statsRenderJsonToString(false, true, true, "^(poller|shard-a|deep-task|job)$").str();
    reports->snapshot = root.snapshot(String(), false, true, true, String(), TaskScheduler::displayOrderNotSpecified);
  }
  static void TearDownTestSuite() {
    delete reports;
    reports = nullptr;
    delete scenario;
    scenario = nullptr;
  }
  static LiveScenario* scenario;
  static Reports* reports;
};

LiveScenario* LiveGoldenReport::scenario = nullptr;
Reports* LiveGoldenReport::reports = nullptr;

} // namespace

TEST_F(LiveGoldenReport, TextFlattenedMatchesGolden) { expectGolden(reports->flatten, "live-flatten.txt"); }

TEST_F(LiveGoldenReport, TextHierarchicalMatchesGolden) {
  expectGolden(reports->hierarchical, "live-hierarchical.txt");
}

TEST_F(LiveGoldenReport, TextHierarchicalWithAddressesMatchesGoldenUpToAddresses) {
  expectGolden(placeholderAddresses(reports->hierarchicalAddresses, false), "live-hierarchical-addresses.txt");
}

TEST_F(LiveGoldenReport, TextFilteredMatchesGolden) { expectGolden(reports->filtered, "live-filtered.txt"); }

TEST_F(LiveGoldenReport, JsonMatchesGoldenUpToAddresses) {
  expectGolden(placeholderAddresses(reports->json, true), "live.json");
}

TEST_F(LiveGoldenReport, JsonFilteredMatchesGoldenUpToAddresses) {
  expectGolden(placeholderAddresses(reports->jsonFiltered, true), "live-filtered.json");
}

// The descriptor forms of the same state give the same bytes as the string
// forms, and so match the same goldens.
TEST_F(LiveGoldenReport, AsyncTextToSocketPairMatchesTheGoldens) {
  LiveScenario& live = *scenario;
  const Ptr<TaskSchedulerSnapshot const> snap = reports->snapshot;
  expectGolden(runAsync(live,
                        [&](int fd, std::function<void()> done) {
                          live.root->snapshotRenderTextAsync(fd, {snap}, false, false, std::move(done));
                        }),
               "live-flatten.txt");
  expectGolden(runAsync(live,
                        [&](int fd, std::function<void()> done) {
                          live.root->snapshotRenderTextAsync(fd, {snap}, true, false, std::move(done));
                        }),
               "live-hierarchical.txt");
  expectGolden(placeholderAddresses(runAsync(live,
                                             [&](int fd, std::function<void()> done) {
                                               live.root->snapshotRenderTextAsync(fd, {snap}, true, true,
                                                                                  std::move(done));
                                             }),
                                    false),
               "live-hierarchical-addresses.txt");
}

TEST_F(LiveGoldenReport, AsyncJsonToSocketPairMatchesTheGolden) {
  LiveScenario& live = *scenario;
  const Ptr<TaskSchedulerSnapshot const> snap = reports->snapshot;
  expectGolden(placeholderAddresses(runAsync(live,
                                             [&](int fd, std::function<void()> done) {
                                               live.root->snapshotRenderJsonAsync(fd, {snap}, std::move(done));
                                             }),
                                    true),
               "live.json");
}

namespace {

using QueueRow = std::array<U64, 4>; // runnable, idle, done, total runs

// The rows of the text report's priority table, by priority name.
std::map<std::string, QueueRow> textQueueTable(const std::string& text) {
  std::map<std::string, QueueRow> rows;
  std::istringstream in(text.substr(text.find("--------------------------------------------------------------\n")));
  std::string line;
  std::getline(in, line); // the rule
  for (int i = 0; i < 6 && std::getline(in, line); ++i) {
    std::istringstream fields(line);
    std::string name;
    QueueRow r{};
    fields >> name >> r[0] >> r[1] >> r[2] >> r[3];
    rows[name] = r;
  }
  return rows;
}

QueueRow jsonRow(const rapidjson::Value& scheduler, const char* priority) {
  const rapidjson::Value& p = scheduler["priorityStats"][priority];
  return {p["runnableTasks"].GetUint64(), p["idleTasks"].GetUint64(), p["completedTasks"].GetUint64(),
          p["totalRunCount"].GetUint64()};
}

} // namespace

// The text report's priority table covers the whole tree (root, indexer and
// shelf summed); each scheduler object of the JSON report covers that
// scheduler alone. Both are pinned here against the counts the scenario made.
TEST_F(LiveGoldenReport, TextQueueFiguresCoverTheTreeJsonFiguresEachSchedulerAlone) {
  rapidjson::Document d;
  d.Parse(reports->json.c_str());
  ASSERT_FALSE(d.HasParseError());
  const rapidjson::Value& root = d["schedulers"]["agent"];
  ASSERT_EQ(1u, root["subSchedulers"].MemberCount());
  const rapidjson::Value& indexer = root["subSchedulers"].MemberBegin()->value;
  ASSERT_EQ(1u, indexer["subSchedulers"].MemberCount());
  const rapidjson::Value& shelf = indexer["subSchedulers"].MemberBegin()->value;

  // normal: at the root poller (runnable), spare, the indexer's parent task
  // and reader:read; 3 + 6 + 3 + 3 + 1 runs; the four completed tasks.
  EXPECT_EQ((QueueRow{1, 3, 4, 16}), jsonRow(root, "normal"));
  EXPECT_EQ((QueueRow{0, 2, 0, 5}), jsonRow(indexer, "normal")); // shard-a, shelf's parent task: 2 + 3 runs
  EXPECT_EQ((QueueRow{0, 2, 0, 3}), jsonRow(shelf, "normal"));   // deep-task, deep-idle
  EXPECT_EQ((QueueRow{0, 1, 0, 2}), jsonRow(root, "low"));       // cruncher
  EXPECT_EQ((QueueRow{0, 1, 0, 1}), jsonRow(indexer, "low"));    // shard-b
  EXPECT_EQ((QueueRow{0, 1, 0, 4}), jsonRow(root, "high"));      // tick

  for (const std::string* text : {&reports->flatten, &reports->hierarchical, &reports->filtered}) {
    const std::map<std::string, QueueRow> table = textQueueTable(*text);
    ASSERT_EQ(6u, table.size());
    for (const char* p : {"critical", "absolute", "high", "normal", "low", "scavenge"}) {
      SCOPED_TRACE(p);
      QueueRow sum{};
      for (const rapidjson::Value* s : {&root, &indexer, &shelf})
        for (std::size_t i = 0; i < 4; ++i)
          sum[i] += jsonRow(*s, p)[i];
      EXPECT_EQ(sum, table.at(p));
    }
    EXPECT_EQ((QueueRow{1, 7, 4, 24}), table.at("normal"));
    EXPECT_NE(jsonRow(root, "normal"), table.at("normal"));
  }
}
