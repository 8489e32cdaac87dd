// The walk: the order of renderer calls in each sub-scheduler mode, the
// frames' task vectors and their sort, the group map, the resumable stages,
// and the assertions of the walk.
#include "ReportFixtures.h"

#include <Kesto/Core/Exception.h>
#include <Kesto/Platform/Platform.h>
#include <Kesto/Report/SnapshotShow.h>
#include <Kesto/Report/SnapshotShowTask.h>
#include <Kesto/Scheduler/TaskSchedulerRoot.h>

#include <KestoSupport/AssertMessage.h>
#include <KestoSupport/SocketPair.h>
#include <KestoSupport/TestScheduler.h>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

using namespace Kesto;
using namespace ReportTest;
using namespace KestoTest;

namespace {

using Ctx = SnapshotShow::SchedulerDisplayContext;
using Mode = SnapshotShow::SubSchedulerMode;

// A renderer that writes one line per call it gets: the walk's order made
// visible. It is a real renderer of the interface, just a terse one.
class CallLog : public SnapshotShow {
public:
  CallLog(SnapshotPtr s, Mode mode) : SnapshotShow(std::move(s), mode) {}
  CallLog(TaskScheduler* scheduler, int fd, Snapshots s, std::function<void(SnapshotShow*)> done)
      : SnapshotShow(scheduler, fd, std::move(s), Mode::flatten, std::move(done)) {}

  void schedulerBegin(const Ctx& c) override {
    log("schedulerBegin {} '{}' {}", c.snapshot->schedulerName.view(), c.name.view(), c.nestingLevel);
  }
  void schedulerEnd(const Ctx&) override { log("schedulerEnd"); }
  void taskBlockBegin(const Ctx& c, bool completed) override { log("taskBlockBegin {} {}", c.nestingLevel, completed); }
  void taskBlockEnd(const Ctx& c, U32 skipped) override { log("taskBlockEnd {} {}", c.nestingLevel, skipped); }
  void taskDisplay(const Ctx& c, const TaskStat& t, bool completed) override {
    if (throwAt == t.taskName().view())
      throw std::runtime_error("formatting broke");
    log("task {} {} {}", t.taskName().view(), c.nestingLevel, completed);
  }
  void subSchedulerBlockBegin(const Ctx& c) override { log("subSchedulerBlockBegin {}", c.nestingLevel); }
  void subSchedulerBlockEnd(const Ctx& c) override { log("subSchedulerBlockEnd {}", c.nestingLevel); }
  void historyBegin(const Ctx&) override { log("historyBegin"); }
  void historyEnd(const Ctx&) override { log("historyEnd"); }
  void historyEventDisplay(const Ctx&, const TaskSchedulerHistory::Event& e) override {
    log("event {}", e.eventTypeDisplay());
  }
  void finished() override { log("finished"); }
  std::string_view getData() override { return out; }
  void dataHasBeenWritten() override { out.clear(); }

  std::vector<Ctx>& frames() { return contextStack; }
  const std::unordered_map<TaskKey, const Snapshot*>& groups() const { return taskGroupMap; }

  std::string throwAt;
  std::string out;

private:
  template <typename... Args>
  void log(fmt::format_string<Args...> f, Args&&... args) {
    out += fmt::format(f, std::forward<Args>(args)...);
    out += '\n';
  }
};

std::string walk(SnapshotPtr s, Mode mode) {
  Ptr<CallLog> show(new CallLog(std::move(s), mode));
  show->renderToStringWithoutYielding();
  return show->out;
}

std::vector<std::string> names(const std::vector<const TaskStat*>& v) {
  std::vector<std::string> out;
  for (const TaskStat* t : v)
    out.emplace_back(t->taskName().view());
  return out;
}

} // namespace

TEST(SnapshotShow, SeparateModeShowsEachGroupAsItsOwnFrameBetweenCompletedTasksAndHistory) {
  EXPECT_EQ("schedulerBegin agent '' 0\n"
            "taskBlockBegin 0 false\n"
            "task poller 0 false\n"
            "task groupA 0 false\n"
            "task tick 0 false\n"
            "taskBlockEnd 0 2\n"
            "taskBlockBegin 0 true\n"
            "task reaper 0 true\n"
            "task worker 0 true\n"
            "taskBlockEnd 0 0\n"
            "subSchedulerBlockBegin 0\n"
            "schedulerBegin groupA 'groupA-@0x000000000000a000' 1\n"
            "taskBlockBegin 1 false\n"
            "task inner1 1 false\n"
            "task innerWithLongName 1 false\n"
            "task deep 1 false\n"
            "taskBlockEnd 1 0\n"
            "subSchedulerBlockBegin 1\n"
            "schedulerBegin deep 'deep-@0x000000000000d000' 2\n"
            "taskBlockBegin 2 false\n"
            "task deepTask 2 false\n"
            "taskBlockEnd 2 1\n"
            "subSchedulerBlockBegin 2\n"
            "subSchedulerBlockEnd 2\n"
            "schedulerEnd\n"
            "subSchedulerBlockEnd 1\n"
            "schedulerEnd\n"
            "subSchedulerBlockEnd 0\n"
            "historyBegin\n"
            "event run end\n"
            "event run start\n"
            "event schedulerBusy\n"
            "event schedule\n"
            "historyEnd\n"
            "schedulerEnd\n"
            "finished\n",
            walk(share(goldenTree()), Mode::separate));
}

TEST(SnapshotShow, FlattenModeMergesTheTreeIntoOneFrame) {
  EXPECT_EQ("schedulerBegin agent '' 0\n"
            "taskBlockBegin 0 false\n"
            "task poller 0 false\n"
            "task groupA 0 false\n"
            "task tick 0 false\n"
            "task inner1 0 false\n"
            "task innerWithLongName 0 false\n"
            "task deep 0 false\n"
            "task deepTask 0 false\n"
            "taskBlockEnd 0 2\n"
            "taskBlockBegin 0 true\n"
            "task reaper 0 true\n"
            "task worker 0 true\n"
            "taskBlockEnd 0 0\n"
            "historyBegin\n"
            "event run end\n"
            "event run start\n"
            "event schedulerBusy\n"
            "event schedule\n"
            "historyEnd\n"
            "schedulerEnd\n"
            "finished\n",
            walk(share(goldenTree()), Mode::flatten));
}

TEST(SnapshotShow, HierarchicalModePushesAGroupRightAfterItsLine) {
  EXPECT_EQ("schedulerBegin agent '' 0\n"
            "taskBlockBegin 0 false\n"
            "task poller 0 false\n"
            "task groupA 0 false\n"
            "taskBlockBegin 1 false\n"
            "task inner1 1 false\n"
            "task innerWithLongName 1 false\n"
            "task deep 1 false\n"
            "taskBlockBegin 2 false\n"
            "task deepTask 2 false\n"
            "taskBlockEnd 2 1\n"
            "schedulerEnd\n"
            "taskBlockEnd 1 0\n"
            "schedulerEnd\n"
            "task tick 0 false\n"
            "taskBlockEnd 0 2\n"
            "taskBlockBegin 0 true\n"
            "task reaper 0 true\n"
            "task worker 0 true\n"
            "taskBlockEnd 0 0\n"
            "historyBegin\n"
            "event run end\n"
            "event run start\n"
            "event schedulerBusy\n"
            "event schedule\n"
            "historyEnd\n"
            "schedulerEnd\n"
            "finished\n",
            walk(share(goldenTree()), Mode::hierarchical));
}

TEST(SnapshotShow, HierarchicalGroupWhoseLineIsFilteredOrSkippedIsNotShown) {
  Snapshot s = goldenTree();
  s.tasks.erase(s.tasks.begin() + 2); // groupA's line: filtered out or without runs
  const SnapshotPtr p = share(std::move(s));
  const std::string hierarchical = walk(p, Mode::hierarchical);
  EXPECT_EQ(std::string::npos, hierarchical.find("inner1"));
  EXPECT_EQ(std::string::npos, hierarchical.find("deepTask"));
  // Its snapshot is still there: the flattened report shows its tasks.
  EXPECT_NE(std::string::npos, walk(p, Mode::flatten).find("task inner1 0 false"));
  const std::string text = renderText(p, true, false);
  EXPECT_EQ(std::string::npos, text.find("inner1"));
}

TEST(SnapshotShow, HierarchicalCompletedTasksOfTheWholeTreeAreShownOnceAtTheTop) {
  Snapshot s = goldenTree();
  TaskStat nestedDone = stat({"nestedDone", TaskPriority::normal, 2, 900000000, 0x7000});
  nestedDone.taskCompletedCountIs(2);
  s.subSchedulers.front().second.completedTasks.push_back(nestedDone);
  const SnapshotPtr p = share(std::move(s));
  const Snapshot& root = impl(p);
  Ctx top(&root, String(), Mode::hierarchical, 0);
  EXPECT_EQ((std::vector<std::string>{"nestedDone", "reaper", "worker"}), names(top.completedTasks));
  Ctx nested(&root.subSchedulers.front().second, String(), Mode::hierarchical, 1);
  EXPECT_TRUE(nested.completedTasks.empty());
  EXPECT_EQ((std::vector<std::string>{"inner1", "innerWithLongName", "deep"}), names(nested.tasks));
  EXPECT_NE(std::string::npos, walk(p, Mode::hierarchical).find("task nestedDone 0 true"));
}

TEST(SnapshotShow, ContextsSelectDescendAndSortByTimeThenName) {
  Snapshot s = goldenTree();
  s.tasks.push_back(stat({"zeta", TaskPriority::normal, 1, 750000000, 0x9000}));
  s.tasks.push_back(stat({"alpha", TaskPriority::normal, 1, 750000000, 0x9100}));
  const Snapshot& root = s;
  auto tasksOf = [](const Snapshot& x) -> const std::vector<TaskStat>& { return x.tasks; };
  EXPECT_EQ(5u, Ctx::countTasks(root, tasksOf, false));
  EXPECT_EQ(9u, Ctx::countTasks(root, tasksOf, true));
  std::vector<const TaskStat*> all;
  Ctx::maybeFlattenTasks(root, tasksOf, true, all);
  EXPECT_EQ((std::vector<std::string>{"poller", "tick", "groupA", "zeta", "alpha", "inner1", "innerWithLongName",
                                      "deep", "deepTask"}),
            names(all));
  Ctx flat(&root, String(), Mode::flatten, 0);
  EXPECT_EQ((std::vector<std::string>{"poller", "groupA", "alpha", "tick", "zeta", "inner1", "innerWithLongName",
                                      "deep", "deepTask"}),
            names(flat.tasks));
  EXPECT_EQ(9u, flat.tasks.capacity());
  Ctx separate(&root, String("key"), Mode::separate, 3);
  EXPECT_EQ(5u, separate.tasks.size());
  EXPECT_EQ(2u, separate.completedTasks.size());
  EXPECT_EQ("key", separate.name.str());
  EXPECT_EQ(SnapshotShow::Stage::init, separate.stage);
  EXPECT_EQ(0u, separate.vectorBookmark);
}

TEST(SnapshotShow, FlattenContextBelowTopLevelFails) {
  QuietAsserts quiet;
  const Snapshot s = goldenTree();
  try {
    Ctx bad(&s, String(), Mode::flatten, 1);
    ADD_FAILURE() << "no assertion";
  } catch (const AssertException& e) {
    EXPECT_EQ("SnapshotShow::SchedulerDisplayContext() 0 == nestingLevel", assertMessage(e.what()));
  }
}

TEST(SnapshotShow, GroupMapTakesEveryLevelAndTheFirstOfAKeyWins) {
  Snapshot s = goldenTree();
  Snapshot twin;
  twin.schedulerName = "twin";
  twin.parentTask = keyAt(0xa000); // same parent task as groupA
  s.subSchedulers.emplace_back(String("twin-@0x000000000000a000"), std::move(twin));
  const SnapshotPtr p = share(std::move(s));
  Ptr<CallLog> show(new CallLog(p, Mode::hierarchical));
  ASSERT_EQ(2u, show->groups().size());
  EXPECT_EQ("groupA", show->groups().at(keyAt(0xa000))->schedulerName.str());
  EXPECT_EQ("deep", show->groups().at(keyAt(0xd000))->schedulerName.str());
  Ptr<CallLog> flat(new CallLog(p, Mode::flatten));
  EXPECT_TRUE(flat->groups().empty());
}

TEST(SnapshotShow, WalkResumesWhereItStoppedAndPushOrPopEndsTheCall) {
  Ptr<CallLog> show(new CallLog(share(goldenTree()), Mode::separate));
  ASSERT_EQ(1u, show->frames().size());
  show->produceOutput(); // root frame up to its sub-schedulers: ends with the push
  EXPECT_EQ(2u, show->frames().size());
  EXPECT_EQ(SnapshotShow::Stage::displayHistory, show->frames().front().stage);
  show->produceOutput(); // groupA up to its push of deep
  EXPECT_EQ(3u, show->frames().size());
  show->produceOutput(); // deep, up to its (empty) sub-scheduler block
  EXPECT_EQ(3u, show->frames().size());
  EXPECT_EQ(SnapshotShow::Stage::displayHistory, show->frames().back().stage);
  show->produceOutput(); // deep resumes at displayHistory, popped
  EXPECT_EQ(2u, show->frames().size());
  show->produceOutput(); // groupA resumes at displayHistory, popped
  EXPECT_EQ(1u, show->frames().size());
  EXPECT_EQ(std::string::npos, show->out.find("historyBegin"));
  show->produceOutput(); // root: history, popped, finished
  EXPECT_TRUE(show->frames().empty());
  EXPECT_EQ(walk(share(goldenTree()), Mode::separate), show->out);
}

TEST(SnapshotShow, InvalidStageFails) {
  QuietAsserts quiet;
  Ptr<CallLog> show(new CallLog(share(goldenTree()), Mode::flatten));
  show->frames().back().stage = SnapshotShow::Stage(9);
  try {
    show->produceOutput();
    ADD_FAILURE() << "no assertion";
  } catch (const AssertException& e) {
    EXPECT_EQ("SnapshotShow::produceOutput() Invalid context stage 9", assertMessage(e.what()));
  }
}

TEST(SnapshotShow, UnknownStageAndStateNamesFail) {
  QuietAsserts quiet;
  try {
    formatSnapshotShowStage(SnapshotShow::Stage(5));
    ADD_FAILURE();
  } catch (const AssertException& e) {
    EXPECT_EQ("SnapshotShow::formatSnapshotShowStage() unknown:5", assertMessage(e.what()));
  }
  try {
    formatSnapshotShowTaskState(SnapshotShowTask::State(4));
    ADD_FAILURE();
  } catch (const AssertException& e) {
    EXPECT_EQ("SnapshotShowTask::formatSnapshotShowTaskState() unknown:4", assertMessage(e.what()));
  }
}

TEST(SnapshotShow, StringFormRefusesAnAsynchronousShow) {
  QuietAsserts quiet;
  Ptr<TaskSchedulerRoot> root = TaskSchedulerRoot::TaskSchedulerRootIs("refuse");
  int fds[2];
  ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fds));
  {
    Ptr<CallLog> show(new CallLog(root.get(), fds[0], {share(goldenTree())}, [](SnapshotShow*) {}));
    try {
      show->renderToStringWithoutYielding();
      ADD_FAILURE();
    } catch (const AssertException& e) {
      EXPECT_EQ("SnapshotShow::renderToStringWithoutYielding() !task_", assertMessage(e.what()));
    }
  } // the show goes, its task with it, and the descriptor is closed
  char c;
  EXPECT_EQ(0, ::read(fds[1], &c, 1)); // end of file: our end is closed
  ::close(fds[1]);
}

TEST(SnapshotShow, ExceptionWhileFormattingFromIdleEndsInTheWriteAssertion) {
  // Formatting runs in state idle, so the error text is refused by the
  // write's own check, which is kept strict on purpose.
  QuietAsserts quiet;
  Ptr<TaskSchedulerRoot> root = TaskSchedulerRoot::TaskSchedulerRootIs("broken");
  int fds[2];
  ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fds));
  Ptr<CallLog> show(new CallLog(root.get(), fds[0], {share(goldenTree())}, [](SnapshotShow*) {}));
  show->throwAt = "tick";
  try {
    Platform::doEventLoop(0.0);
    ADD_FAILURE() << "no assertion";
  } catch (const AssertException& e) {
    EXPECT_EQ(fmt::format("SnapshotShowTask::attemptWrite()  fd {}", fds[0]), assertMessage(e.what()));
  }
  EXPECT_TRUE(show->frames().empty()); // abandoned before the write
  ::close(fds[1]);
}

TEST(SnapshotShow, LiveSchedulerReportsItsTasksThroughTheStringForms) {
  Ptr<TaskSchedulerRoot> root = TaskSchedulerRoot::TaskSchedulerRootIs("live");
  Ptr<TestTask> a(new TestTask(root, TaskPriority::high, "alphaTask"));
  Ptr<TestTask> idle(new TestTask(root, TaskPriority::low, "neverRan"));
  for (int i = 0; i < 3; ++i) {
    a->scheduleTask();
    Platform::doEventLoop();
  }
  const std::string text = root->statsRenderTextToString(false, true, true, String(), false, false).str();
  EXPECT_EQ(0u, text.find("TaskScheduler stats for live\n\n"));
  const std::size_t line = text.find("\nalphaTask ");
  ASSERT_NE(std::string::npos, line);
  EXPECT_NE(std::string::npos, text.find(" h          3 ", line)); // idle now, high: "h", 3 runs
  EXPECT_NE(std::string::npos, text.find("\nSkipped 1 task with no runs\n"));
  EXPECT_EQ(std::string::npos, text.find("\nneverRan ")); // in the history, but no task line
  const std::string all = root->statsRenderTextToString(true, true, false, String("never.*"), false, true).str();
  EXPECT_NE(std::string::npos, all.find("Filtered to include only tasks matching 'never.*'\n"));
  EXPECT_NE(std::string::npos, all.find(fmt::format("\nneverRan@{} ", DisplayPointer(idle.get()))));
  EXPECT_EQ(std::string::npos, all.find("alphaTask"));
  EXPECT_EQ(std::string::npos, all.find("scheduler events"));
}
