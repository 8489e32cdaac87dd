// The reset walk seen from the tasks that run between its slices: figures on
// either side of the bookmark, tasks made, destroyed and folded meanwhile, a
// reset asked for again in the middle, and the handlers that act on the
// scheduler while the walk stands at them.
//
// Each test gives the reset task a test yield ratio of 1: one task per run.
// An observer task at normal queued before the reset alternates with it, so
// its k-th run sees the walk after k - 1 slices: the first slice resets the
// reset task itself (the newest task), then one task each, newest first.
#include "ResetStatsTestSupport.h"

#include <map>

using namespace KestoTest;

namespace {

// A task at normal that alternates with the walk: `look(k)` runs in its
// k-th run (from 1), and it schedules itself again while a reset is in
// progress.
Ptr<ResetCountingTask> observerIs(const Ptr<CountingRoot>& r, std::function<void(unsigned)> look) {
  auto runs = std::make_shared<unsigned>(0);
  return resetCountingTaskIs(r, "observer", [r = r.get(), runs, look = std::move(look)](TestTask& self) {
    look(++*runs);
    if (r->resetStatsInProgress())
      self.scheduleTask();
  });
}

// Starts the walk one task per run, with `observer` ahead of it on the queue.
void startWalk(TaskScheduler& s, TaskImpl& observer) {
  observer.scheduleTask();
  resetStatsWithRatio(s, 1);
}

U64 work(const TaskImpl& t) { return t.getStats().taskWorkCountTotal(); }

} // namespace

TEST(ResetStatsWalk, TasksBehindTheBookmarkKeepTheirFiguresAndTasksAheadCountFromZero) {
  Ptr<CountingRoot> r = CountingRoot::rootIs("sides");
  ReleaseResetTaskAtEnd release(*r);
  std::vector<std::map<std::string, U64>> seen;
  std::vector<Ptr<TestTask>> tasks;
  TaskImpl* nextAtThird = nullptr;
  Ptr<ResetCountingTask> observer = observerIs(r, [&](unsigned k) {
    std::map<std::string, U64> now;
    for (auto& t : tasks) {
      now[std::string(t->taskName().view())] = work(*t);
      t->taskWorkCountInc(1); // every task goes on working
    }
    seen.push_back(now);
    if (k == 3)
      nextAtThird = TaskSchedulerTestAccess::resetStatsBookmarkNext(*r);
  });
  for (const char* name : {"a", "b", "c", "d", "e"}) {
    tasks.push_back(rootTaskIs(r, TaskPriority::normal, name));
    tasks.back()->taskWorkCountInc(5);
  }
  // Registered newest first: reset task, e, d, c, b, a, observer.
  startWalk(*r, *observer);
  Platform::doEventLoop();
  ASSERT_GE(seen.size(), 4u);
  using Seen = std::map<std::string, U64>;
  // Third look: the walk has done itself and e and stands before d.
  EXPECT_EQ((Seen{{"a", 7}, {"b", 7}, {"c", 7}, {"d", 7}, {"e", 0}}), seen[2]);
  EXPECT_EQ(tasks[3].get(), nextAtThird);
  // Fourth: e counts from zero, d has just been reset, the rest go on with
  // their old figures.
  EXPECT_EQ((Seen{{"a", 8}, {"b", 8}, {"c", 8}, {"d", 0}, {"e", 1}}), seen[3]);
  // The walk has 7 tasks; the observer looked once more after it ended.
  EXPECT_EQ(8u, seen.size());
  EXPECT_EQ(1u, observer->resets);
}

TEST(ResetStatsWalk, TasksCreatedDuringTheWalkAreNotVisited) {
  Ptr<CountingRoot> r = CountingRoot::rootIs("created");
  ReleaseResetTaskAtEnd release(*r);
  Ptr<ResetCountingTask> late;
  std::vector<Ptr<ResetCountingTask>> tasks;
  Ptr<ResetCountingTask> observer = observerIs(r, [&](unsigned k) {
    if (k == 3) {
      late = resetCountingTaskIs(r, "late");
      late->taskWorkCountInc(2);
    }
  });
  for (const char* name : {"a", "b", "c"})
    tasks.push_back(resetCountingTaskIs(r, name));
  startWalk(*r, *observer);
  Platform::doEventLoop();
  ASSERT_TRUE(late);
  EXPECT_EQ(0u, late->resets);
  EXPECT_EQ(2u, work(*late));
  for (auto& t : tasks)
    EXPECT_EQ(1u, t->resets);
  EXPECT_EQ(1u, observer->resets);
  EXPECT_FALSE(r->resetStatsInProgress());
}

TEST(ResetStatsWalk, CompletedRecordsMixOldAndNewFiguresUntilTheWalkEmptiesThem) {
  Ptr<CountingRoot> r = CountingRoot::rootIs("mixing");
  ReleaseResetTaskAtEnd release(*r);
  const auto pooled = [&](const char* name, unsigned long figures) {
    Ptr<TestTask> t = rootTaskIs(r, TaskPriority::normal, name);
    t->taskStatsNameIs("pool");
    t->taskWorkCountInc(figures);
    return t;
  };
  pooled("p", 10); // gone before the reset
  ASSERT_EQ(10u, r->completedTaskStatForTest("pool").taskWorkCountTotal());
  Ptr<TestTask> q;
  Ptr<TestTask> s;
  TaskStat atThird;
  U64 completedAtThird = 0;
  TaskImpl* nextAtThird = nullptr;
  Ptr<ResetCountingTask> observer = observerIs(r, [&](unsigned k) {
    if (k != 3)
      return;
    // s is ahead of the bookmark (reset), q just behind it (old figures).
    s->taskWorkCountInc(1);
    s = nullptr;
    q = nullptr;
    atThird = r->completedTaskStatForTest("pool");
    completedAtThird = r->completedTasksPerPriority(TaskPriority::normal);
    nextAtThird = TaskSchedulerTestAccess::resetStatsBookmarkNext(*r);
  });
  q = pooled("q", 20);
  s = pooled("s", 30);
  // Registered: reset task, s, q, observer.
  startWalk(*r, *observer);
  Platform::doEventLoop();
  // 10 from before the reset, 1 counted after it, 20 not yet reset.
  EXPECT_EQ(31u, atThird.taskWorkCountTotal());
  EXPECT_EQ(3u, atThird.taskCompletedCount());
  EXPECT_EQ(3u, completedAtThird);
  EXPECT_EQ(observer.get(), nextAtThird);
  EXPECT_EQ(0u, r->completedTaskStatForTest("pool").taskCompletedCount());
  EXPECT_EQ(0u, r->completedTasksPerPriority(TaskPriority::normal));
  EXPECT_EQ(1u, observer->resets);
}

namespace {

// Destroys, in the observer's third run, the task the walk visits next
// (`nextToVisit`) or the one it has just reset: registered order is reset
// task, d, c, b, a, observer, and the walk then stands between d and c.
void destroyNextToTheBookmark(bool nextToVisit) {
  Ptr<CountingRoot> r = CountingRoot::rootIs("neighbour");
  ReleaseResetTaskAtEnd release(*r);
  std::vector<Ptr<ResetCountingTask>> tasks;
  TaskImpl* before = nullptr;
  TaskImpl* after = nullptr;
  Ptr<ResetCountingTask> observer = observerIs(r, [&](unsigned k) {
    if (k != 3)
      return;
    before = TaskSchedulerTestAccess::resetStatsBookmarkNext(*r);
    tasks[nextToVisit ? 2 : 3] = nullptr;
    after = TaskSchedulerTestAccess::resetStatsBookmarkNext(*r);
  });
  for (const char* name : {"a", "b", "c", "d"})
    tasks.push_back(resetCountingTaskIs(r, name));
  const TaskImpl* c = tasks[2].get();
  const TaskImpl* b = tasks[1].get();
  startWalk(*r, *observer);
  Platform::doEventLoop();
  EXPECT_EQ(c, before);
  EXPECT_EQ(nextToVisit ? b : c, after);
  EXPECT_FALSE(r->resetStatsInProgress());
  EXPECT_EQ(5u, r->registeredTaskCount()); // reset task, three of four, observer
  for (const auto& t : tasks) {
    if (t) {
      EXPECT_EQ(1u, t->resets) << t->taskName().view();
    }
  }
  EXPECT_EQ(1u, observer->resets);
}

} // namespace

TEST(ResetStatsWalk, DestroyingTheTaskTheWalkVisitsNextMovesTheBookmarkOnToTheFollowingTask) {
  destroyNextToTheBookmark(true);
}

TEST(ResetStatsWalk, DestroyingTheTaskTheWalkHasJustResetLeavesTheBookmarkInPlace) {
  destroyNextToTheBookmark(false);
}

TEST(ResetStatsWalk, HandleResetStatsMayDestroyTheTasksOnEitherSideOfItself) {
  Ptr<CountingRoot> r = CountingRoot::rootIs("handlerDestroys");
  ReleaseResetTaskAtEnd release(*r);
  Ptr<ResetCountingTask> next = resetCountingTaskIs(r, "next");
  next->taskWorkCountInc(5);
  Ptr<ResetCountingTask> middle = resetCountingTaskIs(r, "middle");
  Ptr<ResetCountingTask> previous = resetCountingTaskIs(r, "previous");
  TaskStat nextFolded;
  TaskStat previousFolded;
  middle->onReset = [&](ResetCountingTask&) {
    next = nullptr;
    previous = nullptr;
    nextFolded = r->completedTaskStatForTest("next");
    previousFolded = r->completedTaskStatForTest("previous");
  };
  // Registered: reset task, previous, middle, next.
  resetStatsWithRatio(*r, 1);
  Platform::doEventLoop();
  EXPECT_FALSE(r->resetStatsInProgress());
  EXPECT_EQ(1u, middle->resets);
  EXPECT_EQ(2u, r->registeredTaskCount());
  // "next" went with its old figures; "previous" had been reset already.
  EXPECT_EQ(1u, nextFolded.taskCompletedCount());
  EXPECT_EQ(5u, nextFolded.taskWorkCountTotal());
  EXPECT_EQ(1u, previousFolded.taskCompletedCount());
  EXPECT_EQ(0u, previousFolded.taskWorkCountTotal());
  // The walk ended right after: both records are gone with it.
  EXPECT_EQ(0u, r->completedTaskStatForTest("next").taskCompletedCount());
  EXPECT_EQ(0u, r->completedTasksPerPriority(TaskPriority::normal));
}

TEST(ResetStatsWalk, SecondResetBeforeTheFirstEndsResetsDoneTasksAgainAndTheSchedulerOnceAtTheEnd) {
  Ptr<CountingRoot> r = CountingRoot::rootIs("twice");
  ReleaseResetTaskAtEnd release(*r);
  rootTaskIs(r, TaskPriority::low, "gone")->taskWorkCountInc(1);
  std::vector<Ptr<ResetCountingTask>> tasks;
  std::vector<bool> recordSeen;
  std::vector<U64> runCounts;
  Ptr<ResetCountingTask> observer = observerIs(r, [&](unsigned k) {
    recordSeen.push_back(r->completedTaskStatForTest("gone").taskCompletedCount() == 1);
    runCounts.push_back(r->runTaskCount(TaskPriority::normal));
    if (k == 3) {
      // The walk has done itself and d; d works on and the reset is asked
      // for again.
      tasks[3]->taskWorkCountInc(1);
      r->resetStats();
    }
  });
  for (const char* name : {"a", "b", "c", "d"}) {
    tasks.push_back(resetCountingTaskIs(r, name));
    tasks.back()->taskWorkCountInc(4);
  }
  startWalk(*r, *observer);
  Platform::doEventLoop();
  EXPECT_EQ(2u, tasks[3]->resets);
  EXPECT_EQ(0u, work(*tasks[3]));
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(1u, tasks[i]->resets);
  EXPECT_EQ(1u, observer->resets);
  // Walks of 2 and then 6 slices: the observer looked 9 times. Until the
  // last look the scheduler's figures were untouched: the completed record
  // was there and the run count only grew.
  ASSERT_EQ(9u, recordSeen.size());
  for (std::size_t i = 0; i < 8; ++i)
    EXPECT_TRUE(recordSeen[i]) << i;
  for (std::size_t i = 0; i + 1 < 8; ++i)
    EXPECT_LT(runCounts[i], runCounts[i + 1]) << i;
  // The last look came after the end: the record gone, and the run count
  // holds that look's own run only.
  EXPECT_FALSE(recordSeen[8]);
  EXPECT_EQ(1u, runCounts[8]);
  EXPECT_EQ(1u, r->runTaskCount(TaskPriority::normal));
}

TEST(ResetStatsWalk, ResetStatsFromTheTaskTheWalkIsParkedBeforeStartsItAgain) {
  Ptr<CountingRoot> r = CountingRoot::rootIs("parkedBefore");
  ReleaseResetTaskAtEnd release(*r);
  std::vector<Ptr<ResetCountingTask>> tasks;
  TaskImpl* nextWhenCalled = nullptr;
  bool asked = false;
  Ptr<ResetCountingTask> observer;
  observer = observerIs(r, [&](unsigned) {
    if (asked || TaskSchedulerTestAccess::resetStatsBookmarkNext(*r) != observer.get())
      return;
    nextWhenCalled = observer.get();
    asked = true;
    r->resetStats();
    EXPECT_EQ(resetTaskOf(*r).get(), TaskSchedulerTestAccess::resetStatsBookmarkNext(*r));
  });
  for (const char* name : {"a", "b", "c"})
    tasks.push_back(resetCountingTaskIs(r, name));
  startWalk(*r, *observer);
  Platform::doEventLoop();
  ASSERT_TRUE(asked);
  EXPECT_EQ(observer.get(), nextWhenCalled);
  for (auto& t : tasks)
    EXPECT_EQ(2u, t->resets);
  EXPECT_EQ(1u, observer->resets);
  EXPECT_FALSE(r->resetStatsInProgress());
}

namespace {

// A handler of "b" asks its own scheduler for a reset the first time; the
// walk starts over from the head inside the same run. Registered: reset
// task, c, b, a.
void restartFromAHandler(bool oneTaskPerRun) {
  Ptr<CountingRoot> r = CountingRoot::rootIs("handlerRestarts");
  ReleaseResetTaskAtEnd release(*r);
  Ptr<ResetCountingTask> a = resetCountingTaskIs(r, "a");
  Ptr<ResetCountingTask> b = resetCountingTaskIs(r, "b");
  Ptr<ResetCountingTask> c = resetCountingTaskIs(r, "c");
  b->onReset = [&](ResetCountingTask& self) {
    if (self.resets == 1)
      r->resetStats();
  };
  if (oneTaskPerRun)
    resetStatsWithRatio(*r, 1);
  else
    r->resetStats();
  Platform::doEventLoop();
  EXPECT_EQ(1u, a->resets);
  EXPECT_EQ(2u, b->resets);
  EXPECT_EQ(2u, c->resets);
  EXPECT_FALSE(r->resetStatsInProgress());
  EXPECT_FALSE(resetTaskOf(*r)->onRunQueue());
  EXPECT_EQ(nullptr, TaskSchedulerTestAccess::resetStatsBookmarkNext(*r));
}

} // namespace

TEST(ResetStatsWalk, HandleResetStatsThatResetsItsOwnSchedulerRestartsTheWalkInTheSameRun) {
  restartFromAHandler(false);
}

TEST(ResetStatsWalk, HandleResetStatsThatResetsItsOwnSchedulerRestartsTheWalkAtTheNextSlice) {
  restartFromAHandler(true);
}
