// Groups nested four deep, each level with runnable tasks at several
// priorities: inside every level the picks follow the same bump rules as at
// the root.
//
// Each task moves the scheduler's (manual) clock by a whole quantum, so every
// parent task above it yields after the pass: one root pass is one pick at
// each level down to the task that runs, and each level's sequence of picks
// can be read off the runs.
#include "GroupTestSupport.h"

#include <Kesto/Platform/Platform.h>

#include <algorithm>
#include <array>
#include <string>

using namespace KestoTest;

namespace {

constexpr unsigned depth = 4; // groups under the root
const TaskTimeDuration quantum = std::chrono::milliseconds(20);

struct Picks {
  std::array<std::string, depth + 1> atLevel; // 0 = the root
  unsigned runsLeft = 0;
};

// A self-scheduling task at `level` that writes its letter into its level's
// picks and 'G' (the group below was picked) into every level above.
Ptr<TestTask> levelTaskIs(Ptr<TaskScheduler> s, TaskPriority p, const String& name, unsigned level, char letter,
                          Picks& picks, ManualClock& clock) {
  return rootTaskIs(std::move(s), p, name, [&picks, &clock, level, letter](TestTask& self) {
    clock.advance(quantum);
    if (picks.runsLeft == 0)
      return;
    --picks.runsLeft;
    for (unsigned above = 0; above < level; ++above)
      picks.atLevel[above] += 'G';
    picks.atLevel[level] += letter;
    self.scheduleTask();
  });
}

// The same mix on a flat root: two high tasks (the second standing for a
// group), one normal, one low, or at the leaf one high and one normal.
std::string flatPicks(bool leaf, unsigned count) {
  ManualClock clock;
  Ptr<CountingRoot> r = CountingRoot::rootIs("flat");
  Picks picks;
  picks.runsLeft = count;
  std::vector<Ptr<TestTask>> tasks;
  tasks.push_back(levelTaskIs(r, TaskPriority::high, "h", 0, 'H', picks, clock));
  if (!leaf)
    tasks.push_back(levelTaskIs(r, TaskPriority::high, "g", 0, 'G', picks, clock));
  tasks.push_back(levelTaskIs(r, TaskPriority::normal, "n", 0, 'N', picks, clock));
  if (!leaf)
    tasks.push_back(levelTaskIs(r, TaskPriority::low, "l", 0, 'L', picks, clock));
  for (auto& t : tasks)
    t->scheduleTask();
  Platform::doEventLoop();
  return picks.atLevel[0];
}

// Where two pick sequences first differ, or npos if `seen` is a prefix of
// `expected`: a failure names the pick instead of printing thousands.
std::size_t firstDifference(const std::string& expected, const std::string& seen) {
  if (seen.size() > expected.size())
    return expected.size();
  for (std::size_t i = 0; i < seen.size(); ++i)
    if (seen[i] != expected[i])
      return i;
  return std::string::npos;
}

unsigned countOf(const std::string& text, char c) { return unsigned(std::count(text.begin(), text.end(), c)); }

} // namespace

TEST(TaskGroupNesting, FourLevelsDeepEachLevelPicksByTheRootsBumpRules) {
  ManualClock clock;
  Picks picks;
  picks.runsLeft = 12000;
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  std::vector<Ptr<TaskScheduler>> levels{r};
  for (unsigned level = 1; level <= depth; ++level)
    levels.push_back(groupIs(fmt::format("level{}", level), levels.back(), TaskPriority::high));
  std::vector<Ptr<TestTask>> tasks;
  for (unsigned level = 0; level <= depth; ++level) {
    const Ptr<TaskScheduler>& s = levels[level];
    tasks.push_back(levelTaskIs(s, TaskPriority::high, fmt::format("h{}", level), level, 'H', picks, clock));
    tasks.push_back(levelTaskIs(s, TaskPriority::normal, fmt::format("n{}", level), level, 'N', picks, clock));
    if (level < depth)
      tasks.push_back(levelTaskIs(s, TaskPriority::low, fmt::format("l{}", level), level, 'L', picks, clock));
  }
  // Scheduling h of a level puts the group's parent task behind the h of
  // the level above: high queues read [h, group] at every level.
  for (auto& t : tasks)
    t->scheduleTask();
  Platform::doEventLoop();
  EXPECT_EQ(0u, picks.runsLeft);
  EXPECT_EQ(12000u, picks.atLevel[0].size());

  // Levels with a group below: two high, one normal, one low runnable. The
  // high queue is bumped when consecutive x (8 + 1) > 2 x 64, after 15
  // picks; normal bumps to low when consecutive x 1 > 8, at its 10th turn.
  // So every 160 picks: 150 high (75 each), 9 normal, 1 low.
  const std::string flat = flatPicks(false, 12000);
  ASSERT_EQ(12000u, flat.size());
  EXPECT_EQ(std::string("HGHGHGHGHGHGHGH") + "N", flat.substr(0, 16));
  const std::string period = flat.substr(0, 160);
  EXPECT_EQ(75u, countOf(period, 'H'));
  EXPECT_EQ(75u, countOf(period, 'G'));
  EXPECT_EQ(9u, countOf(period, 'N'));
  EXPECT_EQ(1u, countOf(period, 'L'));
  EXPECT_EQ('L', period.back());
  for (unsigned level = 0; level < depth; ++level) {
    SCOPED_TRACE(fmt::format("level {}", level));
    const std::string& seen = picks.atLevel[level];
    // Enough picks for whole periods at every level: 75/160 of the level above.
    ASSERT_GE(seen.size(), 2 * 160u);
    EXPECT_EQ(std::string::npos, firstDifference(flat, seen));
  }

  // The leaf: one high and one normal: high 9 times, then normal once
  // (9 x 8 > 64, 8 x 8 is not).
  const std::string& leaf = picks.atLevel[depth];
  ASSERT_GE(leaf.size(), 100u);
  const std::string tenPicks = "HHHHHHHHHN";
  for (std::size_t i = 0; i + 10 <= leaf.size(); i += 10)
    ASSERT_EQ(tenPicks, leaf.substr(i, 10)) << "at pick " << i;
  EXPECT_EQ(std::string::npos, firstDifference(flatPicks(true, 12000), leaf));

  // Each level's parent task ran as often as the level above picked it.
  for (unsigned level = 1; level <= depth; ++level) {
    auto* g = static_cast<TaskGroup*>(levels[level].get());
    EXPECT_GE(g->parentTaskRunCount(), countOf(picks.atLevel[level - 1], 'G'));
  }
  EXPECT_FALSE(r->schedulerHasRunnableTasks());
}
