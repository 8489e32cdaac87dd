// Latency culprits on a real root driven by the event loop, with the
// scheduler's clock moved by hand: each task's body advances the clock by
// its run time, so latencies and culprit times are exact.
#include "LatencyTestSupport.h"
#include "RootTestSupport.h"

#include <Kesto/Scheduler/TaskGroup.h>

#include <KestoSupport/MallocCounter.h>
#include <KestoSupport/TraceCapture.h>

using namespace KestoTest;
using namespace std::chrono_literals;

namespace {

class LatencyCulprits : public ::testing::Test {
protected:
  // A task whose run takes `runTime` of the manual clock.
  Ptr<TestTask> busy(TaskPriority p, const char* name, TaskTimeDuration runTime) {
    return rootTaskIs(root, p, name, [this, runTime](TestTask&) { clock.advance(runTime); });
  }

  // The clock first: the root reads it when it is made.
  ManualClock clock;
  Ptr<TaskSchedulerRoot> root = TaskSchedulerRoot::TaskSchedulerRootIs("latRoot");
};

} // namespace

TEST_F(LatencyCulprits, LowTaskDelayedByTwoNormalTasksIsAttributedToExactlyThoseTwoWithTheirTimes) {
  // parse waits 30 ms behind crunch, under the threshold; reader waits 42.
  root->latencyCulpritsIs(TaskDurationMs(35), 10);
  Ptr<TestTask> reader = busy(TaskPriority::low, "reader", 1ms);
  Ptr<TestTask> crunch = busy(TaskPriority::normal, "crunch", 30ms);
  Ptr<TestTask> parse = busy(TaskPriority::normal, "parse", 12ms);
  const TaskTimeStamp scheduled = clock.now();
  reader->scheduleTask();
  crunch->scheduleTask();
  parse->scheduleTask();
  Platform::doEventLoop();
  ASSERT_EQ(1u, reader->runs);

  ASSERT_EQ(1u, root->latencyEventCount());
  const std::vector<LatencyEvent> events = root->latencyEvents();
  ASSERT_EQ(1u, events.size());
  const LatencyEvent& e = events[0];
  EXPECT_EQ("L reader", e.identifier.view());
  EXPECT_EQ("latRoot", e.schedulerName.view());
  EXPECT_EQ(scheduled, e.scheduledAt);
  EXPECT_EQ(scheduled + 42ms, e.runStart);
  EXPECT_EQ(TaskTimeDuration(42ms), e.latency);
  EXPECT_EQ(culprits({culprit("N crunch", 30ms, 1), culprit("N parse", 12ms, 1)}), culpritsOf(e));
  EXPECT_EQ(0u, e.culpritsLeftOut);
  EXPECT_EQ(TaskTimeDuration(0), e.culpritsLeftOutTime);
  EXPECT_TRUE(e.historyCoversWindow);
  EXPECT_EQ(TaskTimeDuration(0), e.outsideRuns());
}

TEST_F(LatencyCulprits, RunsOfOneTaskInTheWindowAreSummedAndCounted) {
  root->latencyCulpritsIs(TaskDurationMs(20), 10);
  Ptr<TestTask> reader = busy(TaskPriority::low, "reader", 0ms);
  unsigned left = 2;
  Ptr<TestTask> parse = rootTaskIs(root, TaskPriority::normal, "parse", [&](TestTask& t) {
    clock.advance(6ms);
    if (--left != 0)
      t.scheduleTask();
  });
  Ptr<TestTask> crunch = busy(TaskPriority::normal, "crunch", 10ms);
  reader->scheduleTask();
  parse->scheduleTask();
  crunch->scheduleTask();
  Platform::doEventLoop();
  ASSERT_EQ(2u, parse->runs);
  const std::vector<LatencyEvent> events = root->latencyEvents();
  ASSERT_EQ(1u, events.size());
  EXPECT_EQ(TaskTimeDuration(22ms), events[0].latency);
  EXPECT_EQ(culprits({culprit("N parse", 12ms, 2), culprit("N crunch", 10ms, 1)}), culpritsOf(events[0]));
}

TEST_F(LatencyCulprits, RunThatOverlapsTheWindowStartIsClipped) {
  root->latencyCulpritsIs(TaskDurationMs(20), 10);
  Ptr<TestTask> reader = busy(TaskPriority::low, "reader", 0ms);
  // The writer has run 10 ms when it schedules the reader, and 25 ms more
  // before it returns: only those 25 ms are in the reader's window.
  Ptr<TestTask> writer = rootTaskIs(root, TaskPriority::normal, "writer", [&](TestTask&) {
    clock.advance(10ms);
    reader->scheduleTask();
    clock.advance(25ms);
  });
  writer->scheduleTask();
  Platform::doEventLoop();
  ASSERT_EQ(1u, reader->runs);
  const std::vector<LatencyEvent> events = root->latencyEvents();
  ASSERT_EQ(1u, events.size());
  EXPECT_EQ(TaskTimeDuration(25ms), events[0].latency);
  EXPECT_EQ(culprits({culprit("N writer", 25ms, 1)}), culpritsOf(events[0]));
  EXPECT_TRUE(events[0].historyCoversWindow);
}

TEST_F(LatencyCulprits, RingTooSmallLeavesTheWindowUncoveredAndARunEndWithoutStartCountsFromTheWindowStart) {
  root->latencyCulpritsIs(TaskDurationMs(20), 10);
  Ptr<TestTask> reader = busy(TaskPriority::low, "reader", 0ms);
  Ptr<TestTask> crunch = busy(TaskPriority::normal, "crunch", 30ms);
  // The reader waits 5 ms before crunch is even scheduled, then its 30 ms.
  auto scenario = [&] {
    reader->scheduleTask();
    clock.advance(5ms);
    crunch->scheduleTask();
    Platform::doEventLoop();
  };

  scenario();
  std::vector<LatencyEvent> events = root->latencyEvents();
  ASSERT_EQ(1u, events.size());
  EXPECT_TRUE(events[0].historyCoversWindow);
  EXPECT_EQ(culprits({culprit("N crunch", 30ms, 1)}), culpritsOf(events[0]));
  EXPECT_EQ(TaskTimeDuration(5ms), events[0].outsideRuns());

  // Two events left when the reader is picked: crunch's "run end" and its
  // "idle". Its "run start" is gone, so its run counts from the window start.
  root->historyEntryCountIs(2);
  scenario();
  events = root->latencyEvents();
  ASSERT_EQ(2u, events.size());
  EXPECT_FALSE(events[0].historyCoversWindow);
  EXPECT_EQ(TaskTimeDuration(35ms), events[0].latency);
  EXPECT_EQ(culprits({culprit("N crunch", 35ms, 1)}), culpritsOf(events[0]));
  EXPECT_EQ(TaskTimeDuration(0), events[0].outsideRuns());
}

TEST_F(LatencyCulprits, CriticalRunNestedInATaskCountsForItselfAndTheTaskKeepsOnlyItsSelfTime) {
  root->latencyCulpritsIs(TaskDurationMs(20), 10);
  Ptr<TestTask> reader = busy(TaskPriority::low, "reader", 0ms);
  Ptr<TestTask> critical = busy(TaskPriority::critical, "critTest", 20ms);
  Ptr<TestTask> outer = rootTaskIs(root, TaskPriority::normal, "outer", [&](TestTask&) {
    clock.advance(5ms);
    critical->scheduleTask();
    root->runCriticalPriorityTasks();
    clock.advance(5ms);
  });
  reader->scheduleTask();
  outer->scheduleTask();
  Platform::doEventLoop();
  ASSERT_EQ(1u, critical->runs);
  const std::vector<LatencyEvent> events = root->latencyEvents();
  ASSERT_EQ(1u, events.size());
  EXPECT_EQ(TaskTimeDuration(30ms), events[0].latency);
  EXPECT_EQ(culprits({culprit("C critTest", 20ms, 1), culprit("N outer", 10ms, 1)}), culpritsOf(events[0]));
  EXPECT_EQ(TaskTimeDuration(0), events[0].outsideRuns());
}

TEST_F(LatencyCulprits, NestedGroupRunsCountForTheGroupsTasksAndNotAgainForItsParentTask) {
  root->latencyCulpritsIs(TaskDurationMs(20), 10);
  Ptr<TaskGroup> group =
      TaskGroup::TaskGroupIs("grp", TaskPriority::normal, TaskGroupPriorityEnforcement::allowAny, root);
  Ptr<TestTask> reader = busy(TaskPriority::low, "reader", 0ms);
  Ptr<TestTask> a = rootTaskIs(group, TaskPriority::normal, "a", [&](TestTask&) { clock.advance(10ms); });
  Ptr<TestTask> b = rootTaskIs(group, TaskPriority::normal, "b", [&](TestTask&) { clock.advance(15ms); });
  reader->scheduleTask();
  a->scheduleTask();
  b->scheduleTask();
  Platform::doEventLoop();
  ASSERT_EQ(1u, a->runs);
  ASSERT_EQ(1u, b->runs);
  ASSERT_EQ(1u, group->parentTaskRunCount());
  const std::vector<LatencyEvent> events = root->latencyEvents();
  ASSERT_EQ(1u, events.size());
  EXPECT_EQ(TaskTimeDuration(25ms), events[0].latency);
  ASSERT_EQ(3u, events[0].culpritCount);
  EXPECT_EQ(culprit("N b", 15ms, 1), events[0].culprits[0]);
  EXPECT_EQ(culprit("N a", 10ms, 1), events[0].culprits[1]);
  // The parent task ran the two: nothing of its own in a clock that only
  // the tasks move.
  EXPECT_EQ(culprit("N TaskGroup;grp", 0ms, 1), events[0].culprits[2]);
}

TEST_F(LatencyCulprits, LateTaskOfAGroupNamesTheGroupsParentTaskStillRunningAtItsRunStart) {
  root->latencyCulpritsIs(TaskDurationMs(10), 10);
  Ptr<TaskGroup> group =
      TaskGroup::TaskGroupIs("grp", TaskPriority::normal, TaskGroupPriorityEnforcement::allowAny, root);
  Ptr<TestTask> first = rootTaskIs(group, TaskPriority::normal, "first", [&](TestTask&) { clock.advance(12ms); });
  Ptr<TestTask> late = rootTaskIs(group, TaskPriority::low, "late", [](TestTask&) {});
  late->scheduleTask();
  first->scheduleTask();
  Platform::doEventLoop();
  ASSERT_EQ(1u, late->runs);
  const std::vector<LatencyEvent> events = root->latencyEvents();
  ASSERT_EQ(1u, events.size());
  EXPECT_EQ("L late", events[0].identifier.view());
  EXPECT_EQ("grp", events[0].schedulerName.view());
  EXPECT_EQ(culprits({culprit("N first", 12ms, 1), culprit("N TaskGroup;grp", 0ms, 1)}), culpritsOf(events[0]));
}

TEST_F(LatencyCulprits, WaitBelowTheThresholdIsNoEventAndAWaitOfExactlyTheThresholdIsOne) {
  root->latencyCulpritsIs(TaskDurationMs(20), 10);
  TaskTimeDuration runTime = 19ms;
  Ptr<TestTask> reader = busy(TaskPriority::low, "reader", 0ms);
  Ptr<TestTask> crunch = rootTaskIs(root, TaskPriority::normal, "crunch", [&](TestTask&) { clock.advance(runTime); });
  reader->scheduleTask();
  crunch->scheduleTask();
  Platform::doEventLoop();
  ASSERT_EQ(1u, reader->runs);
  EXPECT_EQ(0u, root->latencyEventCount());
  EXPECT_TRUE(root->latencyEvents().empty());

  runTime = 20ms;
  reader->scheduleTask();
  crunch->scheduleTask();
  Platform::doEventLoop();
  ASSERT_EQ(2u, reader->runs);
  EXPECT_EQ(1u, root->latencyEventCount());
  ASSERT_EQ(1u, root->latencyEvents().size());
  EXPECT_EQ(TaskTimeDuration(20ms), root->latencyEvents()[0].latency);
}

TEST_F(LatencyCulprits, RingOfNKeepsTheNewestNEventsNewestFirst) {
  root->latencyCulpritsIs(TaskDurationMs(20), 3);
  TaskTimeDuration runTime = 0ms;
  Ptr<TestTask> reader = busy(TaskPriority::low, "reader", 0ms);
  Ptr<TestTask> crunch = rootTaskIs(root, TaskPriority::normal, "crunch", [&](TestTask&) { clock.advance(runTime); });
  for (int i = 0; i < 5; ++i) {
    runTime = std::chrono::milliseconds(21 + i);
    reader->scheduleTask();
    crunch->scheduleTask();
    Platform::doEventLoop();
  }
  EXPECT_EQ(5u, root->latencyEventCount());
  const std::vector<LatencyEvent> events = root->latencyEvents();
  ASSERT_EQ(3u, events.size());
  EXPECT_EQ(TaskTimeDuration(25ms), events[0].latency);
  EXPECT_EQ(TaskTimeDuration(24ms), events[1].latency);
  EXPECT_EQ(TaskTimeDuration(23ms), events[2].latency);
  const std::vector<LatencyEvent> two = root->latencyEvents(2);
  ASSERT_EQ(2u, two.size());
  EXPECT_EQ(TaskTimeDuration(25ms), two[0].latency);
  EXPECT_EQ(TaskTimeDuration(24ms), two[1].latency);
  EXPECT_TRUE(root->latencyEvents(0).empty());
}

TEST_F(LatencyCulprits, OffRecordsNothingAndTurningOffDropsTheEvents) {
  EXPECT_EQ(TaskDurationMs(0), root->latencyCulpritsThreshold());
  EXPECT_EQ(0u, root->latencyEventsKept());
  Ptr<TestTask> reader = busy(TaskPriority::low, "reader", 0ms);
  Ptr<TestTask> crunch = busy(TaskPriority::normal, "crunch", 500ms);
  auto scenario = [&] {
    reader->scheduleTask();
    crunch->scheduleTask();
    Platform::doEventLoop();
  };
  scenario();
  EXPECT_EQ(0u, root->latencyEventCount());
  EXPECT_TRUE(root->latencyEvents().empty());

  root->latencyCulpritsIs(TaskDurationMs(20), 4);
  scenario();
  EXPECT_EQ(1u, root->latencyEventCount());
  root->latencyCulpritsIs(TaskDurationMs(0), 4);
  EXPECT_EQ(TaskDurationMs(0), root->latencyCulpritsThreshold());
  EXPECT_EQ(0u, root->latencyEventsKept());
  EXPECT_EQ(0u, root->latencyEventCount());
  EXPECT_TRUE(root->latencyEvents().empty());
  scenario();
  EXPECT_EQ(0u, root->latencyEventCount());

  // On again: a new count.
  root->latencyCulpritsIs(TaskDurationMs(20), 4);
  EXPECT_EQ(0u, root->latencyEventCount());
  scenario();
  EXPECT_EQ(1u, root->latencyEventCount());
}

TEST_F(LatencyCulprits, SettingsReadBackAndAChangeWhileOnKeepsTheNewestEventsThatFit) {
  root->latencyCulpritsIs(TaskDurationMs(20), 5);
  EXPECT_EQ(TaskDurationMs(20), root->latencyCulpritsThreshold());
  EXPECT_EQ(5u, root->latencyEventsKept());
  TaskTimeDuration runTime = 0ms;
  Ptr<TestTask> reader = busy(TaskPriority::low, "reader", 0ms);
  Ptr<TestTask> crunch = rootTaskIs(root, TaskPriority::normal, "crunch", [&](TestTask&) { clock.advance(runTime); });
  for (int i = 0; i < 3; ++i) {
    runTime = std::chrono::milliseconds(30 + i);
    reader->scheduleTask();
    crunch->scheduleTask();
    Platform::doEventLoop();
  }
  root->latencyCulpritsIs(TaskDurationMs(31), 5);
  EXPECT_EQ(TaskDurationMs(31), root->latencyCulpritsThreshold());
  EXPECT_EQ(3u, root->latencyEvents().size());
  root->latencyCulpritsIs(TaskDurationMs(31), 2);
  EXPECT_EQ(2u, root->latencyEventsKept());
  EXPECT_EQ(3u, root->latencyEventCount());
  const std::vector<LatencyEvent> events = root->latencyEvents();
  ASSERT_EQ(2u, events.size());
  EXPECT_EQ(TaskTimeDuration(32ms), events[0].latency);
  EXPECT_EQ(TaskTimeDuration(31ms), events[1].latency);
  // The new threshold applies: a 30 ms wait is no event any more.
  runTime = 30ms;
  reader->scheduleTask();
  crunch->scheduleTask();
  Platform::doEventLoop();
  EXPECT_EQ(3u, root->latencyEventCount());
}

TEST_F(LatencyCulprits, BadArgumentsThrowAndLeaveTheSettingsAsTheyWere) {
  auto message = [&](TaskDurationMs threshold, U32 kept) {
    try {
      root->latencyCulpritsIs(threshold, kept);
    } catch (const RuntimeException& e) {
      return std::string(e.what());
    }
    return std::string("no exception");
  };
  EXPECT_NE(std::string::npos,
            message(TaskDurationMs(20), 0).find("latency culprits with a threshold of 20ms need at least 1 event "
                                                "kept, not 0"));
  EXPECT_NE(std::string::npos, message(TaskDurationMs(20), TaskSchedulerHistory::maxLatencyEventsKept + 1)
                                   .find("latency culprits keep at most 4096 events, not 4097"));
  EXPECT_EQ(TaskDurationMs(0), root->latencyCulpritsThreshold());

  root->latencyCulpritsIs(TaskDurationMs(20), TaskSchedulerHistory::maxLatencyEventsKept);
  EXPECT_EQ(4096u, root->latencyEventsKept());
  EXPECT_NE(std::string::npos, message(TaskDurationMs(30), 0).find("need at least 1 event kept"));
  EXPECT_EQ(TaskDurationMs(20), root->latencyCulpritsThreshold());
  EXPECT_EQ(4096u, root->latencyEventsKept());
  // A zero threshold turns off whatever the count.
  root->latencyCulpritsIs(TaskDurationMs(0), 0);
  EXPECT_EQ(TaskDurationMs(0), root->latencyCulpritsThreshold());
}

TEST_F(LatencyCulprits, MoreThanEightCulpritsAreRankedAndTheRestSummedWhenTheRingIsEnlargedWhileOn) {
  // The longest wait of the 40 tasks is 780 ms, the reader's 820 ms.
  root->latencyCulpritsIs(TaskDurationMs(800), 4);
  // 40 runs make 200 events after the reader's schedule: more than the
  // default ring of 100, so the walk must follow the ring's new size.
  root->historyEntryCountIs(300);
  // Scavenge: no bump lets it run before all 40 are done.
  Ptr<TestTask> reader = busy(TaskPriority::scavenge, "reader", 0ms);
  std::vector<Ptr<TestTask>> tasks;
  for (int i = 0; i < 40; ++i)
    tasks.push_back(busy(TaskPriority::normal, fmt::format("t{:02}", i + 1).c_str(), std::chrono::milliseconds(i + 1)));
  reader->scheduleTask();
  for (auto& t : tasks)
    t->scheduleTask();
  Platform::doEventLoop();
  ASSERT_EQ(1u, reader->runs);
  const std::vector<LatencyEvent> events = root->latencyEvents();
  ASSERT_EQ(1u, events.size());
  const LatencyEvent& e = events[0];
  EXPECT_EQ(TaskTimeDuration(820ms), e.latency); // 1 + 2 + ... + 40
  EXPECT_TRUE(e.historyCoversWindow);
  ASSERT_EQ(LatencyEvent::maxCulprits, e.culpritCount);
  for (unsigned i = 0; i < 8; ++i)
    EXPECT_EQ(culprit(fmt::format("N t{:02}", 40 - i).c_str(), std::chrono::milliseconds(40 - i), 1), e.culprits[i]);
  EXPECT_EQ(32u, e.culpritsLeftOut);
  EXPECT_EQ(TaskTimeDuration(528ms), e.culpritsLeftOutTime); // 1 + ... + 32
  EXPECT_EQ(TaskTimeDuration(0), e.outsideRuns());

  // The default ring holds the newest 100 events only: not covered.
  root->historyEntryCountIs(100);
  reader->scheduleTask();
  for (auto& t : tasks)
    t->scheduleTask();
  Platform::doEventLoop();
  EXPECT_FALSE(root->latencyEvents()[0].historyCoversWindow);
}

TEST_F(LatencyCulprits, RecordedEventIsTracedAtLevelFiveWithItsCulprits) {
  root->latencyCulpritsIs(TaskDurationMs(35), 10);
  Ptr<TestTask> reader = busy(TaskPriority::low, "reader", 1ms);
  Ptr<TestTask> crunch = busy(TaskPriority::normal, "crunch", 30ms);
  Ptr<TestTask> parse = busy(TaskPriority::normal, "parse", 12ms);
  TraceCapture trace({5});
  reader->scheduleTask();
  crunch->scheduleTask();
  parse->scheduleTask();
  Platform::doEventLoop();
  EXPECT_EQ("TaskScheduler 5 TaskSchedulerHistory::latencyEventRecord() latRoot Latency 42ms of L reader, "
            "culprits: N crunch 30ms in 1 run, N parse 12ms in 1 run",
            trace.onlyLineWith("Latency"));
}

TEST_F(LatencyCulprits, RunPathAllocatesNothingWhileEventsAreRecorded) {
#ifdef KESTO_SANITIZED
  GTEST_SKIP() << "the sanitizers own malloc";
#else
  // A scheduler without an event loop, so that only the run path runs.
  Ptr<TestScheduler> s = TestScheduler::rootIs("allocLatency");
  s->taskSchedulerHistory()->latencyCulpritsIs(TaskDurationMs(1), 16);
  auto blocker = taskIs(s, TaskPriority::normal, "blocker", [&](TestTask& t) {
    clock.advance(2ms);
    t.scheduleTask();
  });
  auto reader = taskIs(s, TaskPriority::low, "reader", [](TestTask& t) { t.scheduleTask(); });
  blocker->scheduleTask();
  reader->scheduleTask();
  for (int i = 0; i < 100; ++i)
    s->_handleSchedulerRun(TaskPriority::scavenge);
  const U64 eventsBefore = s->taskSchedulerHistory()->latencyEventCount();
  const unsigned long before = KestoSupport::mallocCalls();
  for (int i = 0; i < 10000; ++i)
    s->_handleSchedulerRun(TaskPriority::scavenge);
  const unsigned long allocations = KestoSupport::mallocCalls() - before;
  const U64 events = s->taskSchedulerHistory()->latencyEventCount() - eventsBefore;
  blocker->unscheduleTask();
  reader->unscheduleTask();
  EXPECT_EQ(0u, allocations);
  // The reader runs once in every ten passes (the bump), 18 ms late.
  EXPECT_GE(events, 900u);
  EXPECT_EQ(TaskTimeDuration(18ms), s->taskSchedulerHistory()->latencyEvents(1)[0].latency);
#endif
}

TEST_F(LatencyCulprits, TextShowsOneBlockPerEventNewestFirstWithAges) {
  EXPECT_EQ("latency culprits are off\n", latencyEventsRenderText(*root, 10).view());
  root->latencyCulpritsIs(TaskDurationMs(35), 10);
  EXPECT_EQ("latency culprits of latRoot: threshold 35ms, 0 events since turned on\n"
            "no latency events\n",
            latencyEventsRenderText(*root, 10).view());

  Ptr<TestTask> reader = busy(TaskPriority::low, "reader", 1ms);
  Ptr<TestTask> crunch = busy(TaskPriority::normal, "crunch", 30ms);
  Ptr<TestTask> parse = busy(TaskPriority::normal, "parse", 12ms);
  for (int i = 0; i < 2; ++i) {
    reader->scheduleTask();
    crunch->scheduleTask();
    parse->scheduleTask();
    Platform::doEventLoop();
  }
  // The second reader ran 43 ms after the first; the text is asked 1 s
  // after the second reader ran.
  const TaskTimeStamp now = clock.now() - 1ms + 1s;
  EXPECT_EQ("latency culprits of latRoot: threshold 35ms, 2 events since turned on, 2 shown, newest first\n"
            "\n"
            "latency 42.000ms L reader in latRoot: scheduled 1.042s ago, ran 1.000s ago; history covers the window\n"
            "      30.000ms      1 run   N crunch\n"
            "      12.000ms      1 run   N parse\n"
            "       0.000ms              outside any run\n"
            "\n"
            "latency 42.000ms L reader in latRoot: scheduled 1.085s ago, ran 1.043s ago; history covers the window\n"
            "      30.000ms      1 run   N crunch\n"
            "      12.000ms      1 run   N parse\n"
            "       0.000ms              outside any run\n",
            latencyEventsRenderText(*root, 10, now).view());
  const std::string newest = std::string(latencyEventsRenderText(*root, 1, now).view());
  EXPECT_EQ(0u, newest.find("latency culprits of latRoot: threshold 35ms, 2 events since turned on, 1 shown, "
                            "newest first\n"));
  EXPECT_NE(std::string::npos, newest.find("scheduled 1.042s ago"));
  EXPECT_EQ(std::string::npos, newest.find("scheduled 1.085s ago"));
}

TEST_F(LatencyCulprits, TextSumsUpTheCulpritsLeftOutAndSaysWhenTheWindowIsNotCovered) {
  // The tasks wait 27 ms at most, the reader 30 ms.
  root->latencyCulpritsIs(TaskDurationMs(30), 2);
  Ptr<TestTask> reader = busy(TaskPriority::scavenge, "reader", 0ms);
  std::vector<Ptr<TestTask>> tasks;
  for (int i = 0; i < 10; ++i)
    tasks.push_back(busy(TaskPriority::normal, fmt::format("t{}", i).c_str(), 3ms));
  auto scenario = [&] {
    reader->scheduleTask();
    for (auto& t : tasks)
      t->scheduleTask();
    Platform::doEventLoop();
  };
  scenario();
  // Ten runs of 3 ms: equal times and runs rank by identifier.
  EXPECT_EQ("latency culprits of latRoot: threshold 30ms, 1 event since turned on, 1 shown, newest first\n"
            "\n"
            "latency 30.000ms S reader in latRoot: scheduled 0.030s ago, ran 0.000s ago; history covers the window\n"
            "       3.000ms      1 run   N t0\n"
            "       3.000ms      1 run   N t1\n"
            "       3.000ms      1 run   N t2\n"
            "       3.000ms      1 run   N t3\n"
            "       3.000ms      1 run   N t4\n"
            "       3.000ms      1 run   N t5\n"
            "       3.000ms      1 run   N t6\n"
            "       3.000ms      1 run   N t7\n"
            "       6.000ms              2 more tasks\n"
            "       0.000ms              outside any run\n",
            latencyEventsRenderText(*root, 1, clock.now()).view());

  // A ring of 15 holds the last five runs whole ("run start", "run end",
  // "idle") and nothing of the first five: 15 ms outside what it shows.
  root->historyEntryCountIs(15);
  scenario();
  EXPECT_EQ("latency culprits of latRoot: threshold 30ms, 2 events since turned on, 1 shown, newest first\n"
            "\n"
            "latency 30.000ms S reader in latRoot: scheduled 0.030s ago, ran 0.000s ago; history does not cover the "
            "window\n"
            "       3.000ms      1 run   N t5\n"
            "       3.000ms      1 run   N t6\n"
            "       3.000ms      1 run   N t7\n"
            "       3.000ms      1 run   N t8\n"
            "       3.000ms      1 run   N t9\n"
            "      15.000ms              outside any run\n",
            latencyEventsRenderText(*root, 1, clock.now()).view());
}
