// The walk that names latency culprits, over history rings written by hand:
// every stamp is chosen, so nesting, clipping and the edges of the ring are
// checked without a scheduler in the way.
#include "LatencyTestSupport.h"
#include "SchedulerTestSupport.h"

#include <Kesto/Scheduler/TaskSchedulerHistory.h>

#include <initializer_list>

using namespace Kesto;
using KestoTest::culprit;
using KestoTest::culprits;
using KestoTest::culpritsOf;
using namespace std::chrono_literals;

namespace {

using Type = TaskSchedulerEventType;

TaskTimeStamp at(std::chrono::milliseconds t) { return TaskTimeStamp(std::chrono::seconds(100) + t); }

struct Entry {
  std::chrono::milliseconds when;
  Type::Value type;
  const char* identifier;
};

// A ring of `capacity` with the entries recorded oldest first.
Ptr<TaskSchedulerHistory> ringOf(unsigned capacity, std::initializer_list<Entry> entries) {
  Ptr<TaskSchedulerHistory> ring(new TaskSchedulerHistory(capacity));
  for (const Entry& e : entries)
    ring->insert(TaskSchedulerHistory::Event(at(e.when), Type(e.type), String(e.identifier)));
  return ring;
}

// The late task "L late", scheduled at 0 and run at `runStart`.
LatencyEvent collect(const TaskSchedulerHistory& ring, std::chrono::milliseconds runStart,
                     unsigned collectorCapacity = 100) {
  LatencyCulpritsCollector collector(collectorCapacity);
  LatencyEvent event;
  event.identifier = String("L late");
  event.scheduledAt = at(0ms);
  event.runStart = at(runStart);
  collector.collect(ring, event);
  return event;
}

} // namespace

TEST(LatencyCulpritsCollector, NestedRunsCountForTheInnerTaskAndTheEnclosingRunKeepsItsSelfTime) {
  auto ring = ringOf(100, {{0ms, Type::schedule, "L late"},
                           {2ms, Type::runStart, "N parent"},
                           {3ms, Type::runStart, "N x"},
                           {7ms, Type::runEnd, "N x"},
                           {9ms, Type::runStart, "N y"},
                           {10ms, Type::runEnd, "N y"},
                           {14ms, Type::runEnd, "N parent"}});
  const LatencyEvent e = collect(*ring, 20ms);
  EXPECT_EQ(TaskTimeDuration(20ms), e.latency);
  EXPECT_TRUE(e.historyCoversWindow);
  ASSERT_EQ(3u, e.culpritCount);
  // parent: 2-3, 7-9 and 10-14.
  EXPECT_EQ(culprit("N parent", 7ms, 1), e.culprits[0]);
  EXPECT_EQ(culprit("N x", 4ms, 1), e.culprits[1]);
  EXPECT_EQ(culprit("N y", 1ms, 1), e.culprits[2]);
  // 0-2 and 14-20.
  EXPECT_EQ(TaskTimeDuration(8ms), e.outsideRuns());
}

TEST(LatencyCulpritsCollector, RunsInProgressAtTheWindowEndCountUpToIt) {
  auto ring = ringOf(100, {{0ms, Type::schedule, "L late"},
                           {1ms, Type::runStart, "N TaskGroup;g"},
                           {2ms, Type::runStart, "N x"},
                           {6ms, Type::runEnd, "N x"}});
  const LatencyEvent e = collect(*ring, 10ms);
  EXPECT_EQ(culprits({culprit("N TaskGroup;g", 5ms, 1), culprit("N x", 4ms, 1)}), culpritsOf(e));
  EXPECT_EQ(TaskTimeDuration(1ms), e.outsideRuns());
}

TEST(LatencyCulpritsCollector, RunsThatBeganBeforeTheWindowAreClippedToItAndStillNest) {
  // The late task is scheduled while x runs inside parent.
  auto ring = ringOf(100, {{-5ms, Type::runStart, "N parent"},
                           {-2ms, Type::runStart, "N x"},
                           {0ms, Type::schedule, "L late"},
                           {3ms, Type::runEnd, "N x"},
                           {5ms, Type::runStart, "N y"},
                           {8ms, Type::runEnd, "N y"},
                           {10ms, Type::runEnd, "N parent"}});
  const LatencyEvent e = collect(*ring, 12ms);
  EXPECT_TRUE(e.historyCoversWindow);
  ASSERT_EQ(3u, e.culpritCount);
  // parent: 3-5 and 8-10 inside the window.
  EXPECT_EQ(culprit("N parent", 4ms, 1), e.culprits[0]);
  EXPECT_EQ(culprit("N x", 3ms, 1), e.culprits[1]);
  EXPECT_EQ(culprit("N y", 3ms, 1), e.culprits[2]);
  EXPECT_EQ(TaskTimeDuration(2ms), e.outsideRuns());
}

TEST(LatencyCulpritsCollector, RunEndWhoseStartFellOffCountsFromTheWindowStartAndTheWindowIsNotCovered) {
  auto ring = ringOf(3, {{0ms, Type::schedule, "L late"},
                         {5ms, Type::runStart, "N x"},
                         {35ms, Type::runEnd, "N x"},
                         {40ms, Type::runStart, "N y"},
                         {50ms, Type::runEnd, "N y"}});
  const LatencyEvent e = collect(*ring, 60ms);
  EXPECT_FALSE(e.historyCoversWindow);
  EXPECT_EQ(culprits({culprit("N x", 35ms, 1), culprit("N y", 10ms, 1)}), culpritsOf(e));
  EXPECT_EQ(TaskTimeDuration(15ms), e.outsideRuns());
}

TEST(LatencyCulpritsCollector, EventOlderThanTheWindowCoversItWithoutTheScheduleEvent) {
  auto ring = ringOf(100, {{-1ms, Type::create, "N x"}, {2ms, Type::runStart, "N x"}, {5ms, Type::runEnd, "N x"}});
  const LatencyEvent e = collect(*ring, 6ms);
  EXPECT_TRUE(e.historyCoversWindow);
  EXPECT_EQ(culprits({culprit("N x", 3ms, 1)}), culpritsOf(e));
}

TEST(LatencyCulpritsCollector, EventsAtTheWindowStartBeforeTheScheduleEventAreLeftOut) {
  // x ends at the very stamp the late task is scheduled, but before it: it
  // did not hold the late task up.
  auto ring = ringOf(100, {{-3ms, Type::runStart, "N x"},
                           {0ms, Type::runEnd, "N x"},
                           {0ms, Type::schedule, "L late"},
                           {0ms, Type::runStart, "N y"},
                           {5ms, Type::runEnd, "N y"}});
  const LatencyEvent e = collect(*ring, 5ms);
  EXPECT_EQ(culprits({culprit("N y", 5ms, 1)}), culpritsOf(e));
}

TEST(LatencyCulpritsCollector, RingLargerThanTheCollectorIsReadOnlyAsFarAsTheCollectorReaches) {
  auto ring = ringOf(100, {{0ms, Type::schedule, "L late"},
                           {1ms, Type::runStart, "N a"},
                           {2ms, Type::runEnd, "N a"},
                           {3ms, Type::runStart, "N b"},
                           {4ms, Type::runEnd, "N b"}});
  EXPECT_TRUE(collect(*ring, 5ms, 5).historyCoversWindow);
  const LatencyEvent e = collect(*ring, 5ms, 2);
  EXPECT_FALSE(e.historyCoversWindow);
  EXPECT_EQ(culprits({culprit("N b", 1ms, 1)}), culpritsOf(e));
}

TEST(LatencyCulpritsCollector, TiesRankByMoreRunsThenByIdentifier) {
  auto ring = ringOf(100, {{0ms, Type::schedule, "L late"},
                           {0ms, Type::runStart, "N b"},
                           {2ms, Type::runEnd, "N b"},
                           {2ms, Type::runStart, "N a"},
                           {4ms, Type::runEnd, "N a"},
                           {4ms, Type::runStart, "N c"},
                           {5ms, Type::runEnd, "N c"},
                           {5ms, Type::runStart, "N c"},
                           {6ms, Type::runEnd, "N c"}});
  const LatencyEvent e = collect(*ring, 6ms);
  EXPECT_EQ(culprits({culprit("N c", 2ms, 2), culprit("N a", 2ms, 1), culprit("N b", 2ms, 1)}), culpritsOf(e));
}

TEST(LatencyCulpritsCollector, CollectorIsReusedAcrossWalksWithoutLeftovers) {
  LatencyCulpritsCollector collector(100);
  auto first = ringOf(100, {{0ms, Type::schedule, "L late"}, {1ms, Type::runStart, "N a"}, {4ms, Type::runEnd, "N a"}});
  auto second = ringOf(100, {{0ms, Type::schedule, "L late"}, {1ms, Type::runStart, "N b"}, {2ms, Type::runEnd, "N b"}});
  LatencyEvent e;
  e.identifier = String("L late");
  e.scheduledAt = at(0ms);
  e.runStart = at(5ms);
  collector.collect(*first, e);
  ASSERT_EQ(1u, e.culpritCount);
  collector.collect(*second, e);
  EXPECT_EQ(culprits({culprit("N b", 1ms, 1)}), culpritsOf(e));
  EXPECT_EQ(LatencyCulprit{}, e.culprits[1]);
}

TEST(LatencyCulpritsCollector, EmptyRingNamesNoOneAndDoesNotCoverTheWindow) {
  auto ring = ringOf(0, {{1ms, Type::runStart, "N a"}, {2ms, Type::runEnd, "N a"}});
  const LatencyEvent e = collect(*ring, 5ms, 0);
  EXPECT_FALSE(e.historyCoversWindow);
  EXPECT_EQ(0u, e.culpritCount);
  EXPECT_EQ(TaskTimeDuration(5ms), e.outsideRuns());
}
