// The text report: golden reports of a fixed tree compared byte for byte,
// and one test per rule of the layout (widths, headers, skipped lines,
// work columns, history labels, hierarchical indentation).
#include "ReportFixtures.h"

#include <Kesto/Report/SnapshotShowText.h>

#include <KestoSupport/MallocCounter.h>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

using namespace Kesto;
using namespace ReportTest;

namespace {

std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> out;
  std::size_t start = 0;
  while (start < text.size()) {
    std::size_t end = text.find('\n', start);
    if (end == std::string::npos)
      end = text.size();
    out.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return out;
}

std::string lineStartingWith(const std::string& text, const std::string& prefix) {
  for (const std::string& l : lines(text))
    if (l.rfind(prefix, 0) == 0)
      return l;
  return {};
}

// A snapshot of one scheduler with the given live tasks and nothing else.
SnapshotPtr flatSnapshot(std::vector<TaskStat> tasks, U32 skipped = 0) {
  Snapshot s;
  s.schedulerName = "flat";
  s.isRootScheduler = true;
  s.displayOrder = 0xFFFFFFFF;
  s.tasks = std::move(tasks);
  s.tasksSkipped = skipped;
  return share(std::move(s));
}

} // namespace

TEST(SnapshotShowTextGolden, FlattenedWithoutAddresses) {
  expectGolden(renderText(share(goldenTree()), false, false), "tree-flatten.txt");
}

TEST(SnapshotShowTextGolden, FlattenedWithAddresses) {
  expectGolden(renderText(share(goldenTree()), false, true), "tree-flatten-addresses.txt");
}

TEST(SnapshotShowTextGolden, HierarchicalWithoutAddresses) {
  expectGolden(renderText(share(goldenTree()), true, false), "tree-hierarchical.txt");
}

TEST(SnapshotShowTextGolden, HierarchicalWithAddresses) {
  expectGolden(renderText(share(goldenTree()), true, true), "tree-hierarchical-addresses.txt");
}

TEST(SnapshotShowTextGolden, FilteredSnapshotNamesItsFilter) {
  // What a filter leaves in a snapshot: the matching task lines, the
  // groups' contents (kept even when their parent line is not), and the
  // task events of matching tasks; the priority table is never filtered.
  Snapshot s = goldenTree();
  s.taskNameRegex = "poll.*|deep.*";
  s.tasks.erase(s.tasks.begin() + 1, s.tasks.end());
  s.completedTasks.clear();
  Snapshot& group = s.subSchedulers.front().second;
  group.tasks.erase(group.tasks.begin(), group.tasks.begin() + 2);
  auto& events = s.history->events;
  events.erase(events.begin() + 2);
  expectGolden(renderText(share(std::move(s)), false, false), "tree-filtered.txt");
}

TEST(SnapshotShowText, HeaderAndEveryTaskLineAreWPlus107AndCompletedWPlus112) {
  for (bool hierarchical : {false, true}) {
    for (bool addresses : {false, true}) {
      SCOPED_TRACE(fmt::format("hierarchical {} addresses {}", hierarchical, addresses));
      Ptr<SnapshotShowText> show(new SnapshotShowText(share(goldenTree()), hierarchical, addresses));
      const std::string text = show->renderToStringWithoutYielding().str();
      const std::vector<std::string> all = lines(text);
      // Header of the live block, then its task lines up to the blank line.
      std::size_t i = 0;
      while (i < all.size() && all[i].rfind("TaskName ", 0) != 0)
        ++i;
      ASSERT_LT(i, all.size());
      const std::size_t width = all[i].size();
      const std::size_t nameWidth = width - 107;
      EXPECT_GE(nameWidth, 8u);
      std::size_t liveLines = 0;
      for (++i; i < all.size() && all[i].rfind("Skipped", 0) != 0; ++i) {
        if (all[i].find("Skipped") != std::string::npos)
          continue; // a nested block's skipped line, indented
        EXPECT_EQ(width, all[i].size()) << all[i];
        ++liveLines;
      }
      EXPECT_EQ(7u, liveLines);
      // The completed block.
      while (i < all.size() && all[i].rfind("TaskName (completed)", 0) != 0)
        ++i;
      ASSERT_LT(i, all.size());
      const std::size_t completedWidth = all[i].size();
      EXPECT_EQ(completedWidth - 112, std::max<std::size_t>(20, addresses ? 6 + 19 : 6));
      for (++i; i < all.size() && !all[i].empty(); ++i)
        EXPECT_EQ(completedWidth, all[i].size()) << all[i];
    }
  }
}

TEST(SnapshotShowText, EmptyTaskListStillWritesHeaderAsWideAsTaskName) {
  const std::string text = renderText(flatSnapshot({}), false, false);
  const std::string header = lineStartingWith(text, "TaskName");
  EXPECT_EQ(8u + 107u, header.size());
  EXPECT_EQ("TaskName SP", header.substr(0, 11));
}

TEST(SnapshotShowText, OneLetterNameInFlattenModeGivesNameColumnOfEight) {
  const std::string text = renderText(flatSnapshot({stat({"x", TaskPriority::normal, 1, 0, 0x10})}), false, false);
  EXPECT_EQ(8u + 107u, lineStartingWith(text, "TaskName").size());
  EXPECT_EQ("x        ", lineStartingWith(text, "x ").substr(0, 9));
  EXPECT_EQ(8u + 107u, lineStartingWith(text, "x ").size());
}

TEST(SnapshotShowText, AddressesOnShortNamesWidenColumnToNamePlus19) {
  const std::string text =
      renderText(flatSnapshot({stat({"ab", TaskPriority::normal, 1, 0, 0xabc}), stat({"abc", TaskPriority::normal, 1, 0, 0x10})}),
                 false, true);
  EXPECT_EQ(3u + 19u + 107u, lineStartingWith(text, "TaskName").size());
  const std::string line = lineStartingWith(text, "ab@");
  EXPECT_EQ("ab@0x0000000000000abc ", line.substr(0, 22));
  EXPECT_EQ(3u + 19u + 107u, line.size());
}

TEST(SnapshotShowText, SkippedOneIsSingularTwoIsPlural) {
  EXPECT_NE(std::string::npos,
            renderText(flatSnapshot({}, 1), false, false).find("\nSkipped 1 task with no runs\n\n"));
  EXPECT_NE(std::string::npos,
            renderText(flatSnapshot({}, 2), false, false).find("\nSkipped 2 tasks with no runs\n\n"));
  EXPECT_EQ(std::string::npos, renderText(flatSnapshot({}, 0), false, false).find("Skipped"));
}

TEST(SnapshotShowText, CompletedBlockHasDoneColumnAndHeader) {
  const std::string text = renderText(share(goldenTree()), false, false);
  const std::string header = lineStartingWith(text, "TaskName (completed)");
  EXPECT_NE(std::string::npos, header.find(" MaxMs Done "));
  EXPECT_EQ(std::string::npos, lineStartingWith(text, "TaskName ").find("Done"));
  const std::string worker = lineStartingWith(text, "worker ");
  // ... MaxMs column, then " {:>4d}" with the completed count, then the work columns.
  EXPECT_NE(std::string::npos, worker.find("     0    3          -        -      -         -          -"));
}

TEST(SnapshotShowText, TaskWithoutCountersShowsDashesInWorkAndPendingColumns) {
  TaskStat onlyWork = stat({"work", TaskPriority::normal, 1, 0, 0x10});
  onlyWork.taskWorkCountTotalInc(7);
  onlyWork.taskWorkCountDecayAvgIs(2.25f);
  onlyWork.taskWorkCountHighWaterMarkIs(4);
  const std::string text =
      renderText(flatSnapshot({stat({"none", TaskPriority::normal, 1, 0, 0x20}), onlyWork}), false, false);
  const std::string none = lineStartingWith(text, "none ");
  EXPECT_EQ(fmt::format(" {:>10s} {:>8s} {:>6s} {:>9s} {:>10s}", "-", "-", "-", "-", "-"),
            none.substr(none.size() - 48));
  const std::string work = lineStartingWith(text, "work ");
  EXPECT_EQ(fmt::format(" {:>10d} {:8.1f} {:>6d} {:>9s} {:>10s}", 7, 2.25f, 4, "-", "-"),
            work.substr(work.size() - 48));
}

TEST(SnapshotShowText, EventTypeOfTwelveCharactersOrMoreGetsOneBlankOnly) {
  Snapshot s;
  s.schedulerName = "h";
  s.displayOrder = 0xFFFFFFFF;
  s.history = Ptr<Snapshot::History>(new Snapshot::History(10, 3));
  // "fdReadable" is 10 characters, "scheduleSus" 11, "schedulerIdle" 13.
  s.history->events.emplace_back(at(3000), TaskSchedulerEventType(TaskSchedulerEventType::fdReadable), String("N a"));
  s.history->events.emplace_back(at(2000), TaskSchedulerEventType(TaskSchedulerEventType::scheduleSus), String("N a"));
  s.history->events.emplace_back(at(1000), TaskSchedulerEventType(TaskSchedulerEventType::schedulerIdle), String());
  const std::string text = renderText(share(std::move(s)), false, false);
  EXPECT_NE(std::string::npos, text.find(" us fdReadable   N a\n"));
  EXPECT_NE(std::string::npos, text.find(" us scheduleSus  N a\n"));
  EXPECT_NE(std::string::npos, text.find(" us schedulerIdle \n"));
}

TEST(SnapshotShowText, NestedSkippedLineIsIndentedWithItsTasksInHierarchicalMode) {
  const std::string text = renderText(share(goldenTree()), true, false);
  // deep's tasks are at level 2: four blanks.
  EXPECT_NE(std::string::npos, text.find("\n    deepTask "));
  EXPECT_NE(std::string::npos, text.find("\n    Skipped 1 task with no runs\n"));
  // The top block's skipped line is not indented and ends the table.
  EXPECT_NE(std::string::npos, text.find("\nSkipped 2 tasks with no runs\n\n"));
  // A nested block adds no blank line of its own.
  EXPECT_EQ(std::string::npos, text.find("Skipped 1 task with no runs\n\n"));
}

TEST(SnapshotShowText, HierarchicalGroupTasksFollowTheGroupLine) {
  const std::vector<std::string> all = lines(renderText(share(goldenTree()), true, false));
  std::size_t group = 0;
  while (group < all.size() && all[group].rfind("groupA ", 0) != 0)
    ++group;
  ASSERT_LT(group + 4, all.size());
  // Sorted by total run time within the group: inner1 0.5 s, innerWithLongName 0.25 s, deep 0.125 s.
  EXPECT_EQ(0u, all[group + 1].rfind("  inner1 ", 0));
  EXPECT_EQ(0u, all[group + 2].rfind("  innerWithLongName ", 0));
  EXPECT_EQ(0u, all[group + 3].rfind("  deep ", 0));
  EXPECT_EQ(0u, all[group + 4].rfind("    deepTask ", 0));
}

TEST(SnapshotShowText, InvalidFilterGivesMessageThenEmptyBlockHeader) {
  Snapshot s;
  s.schedulerName = "bad";
  s.displayOrder = 0xFFFFFFFF;
  s.taskNameRegex = "(";
  s.taskNameRegexError = "mismatched parenthesis";
  const std::string text = renderText(share(std::move(s)), false, false);
  const std::string header = fmt::format("{:<{}s} {:2s} {:>10s} {:>13s} {:>14s} {:4s} {:4s} {:5s} {:>26s} {:>20s}\n",
                                         "TaskName", 8, "SP", "RunCount", "TotalSec", "Last/Max-Delay", "200%", "500%",
                                         "MaxMs", "Total/DecayA/Max-WorkCount", "Last/Max-WorkPending");
  EXPECT_EQ("Task name regular expression '(' is invalid, error: mismatched parenthesis\n" + header + "\n", text);
}

TEST(SnapshotShowText, GeneralErrorIsNotShownAndReportHasEmptyNameAndZeros) {
  Snapshot s;
  s.generalError = "std::bad_alloc";
  const std::string text = renderText(share(std::move(s)), false, false);
  EXPECT_EQ(0u, text.find("TaskScheduler stats for \n\n"));
  EXPECT_EQ(std::string::npos, text.find("bad_alloc"));
  EXPECT_NE(std::string::npos,
            text.find(fmt::format("\n{:8s} {:>13d} {:>13d} {:>9d} {:>15d}\n", "scavenge", 0, 0, 0, 0)));
}

TEST(SnapshotShowText, PriorityTableSumsTheWholeTreeInEitherMode) {
  for (bool hierarchical : {false, true}) {
    const std::string text = renderText(share(goldenTree()), hierarchical, false);
    // normal: root 1/1/4/15 plus groupA 0/2/0/4.
    EXPECT_NE(std::string::npos, text.find("\nnormal               1             3         4              19\n"));
    EXPECT_NE(std::string::npos, text.find("\nscavenge             0             1         0               7\n"));
  }
}

TEST(SnapshotShowText, HistoryTitleIsUnderlinedToItsLengthAndRelativeTimesRound) {
  const std::string text = renderText(share(goldenTree()), false, false);
  const std::string title = "Last 4 scheduler events, absolute timestamp and relative to last event";
  EXPECT_NE(std::string::npos, text.find(title + "\n" + std::string(title.size(), '-') + "\n"));
  // Newest at 5000002600: 0 us; 5000001000 is 1.6 us older, rounds to 2;
  // 5000000400 is 2.2 us older, rounds to 2; 4999000000 is 1002.6 us, 1003.
  EXPECT_NE(std::string::npos, text.find(fmt::format("{:>22d} ns since boot {:>10d} us run end      N poller\n",
                                                     5000002600, 0)));
  EXPECT_NE(std::string::npos, text.find(fmt::format("{:>22d} ns since boot {:>10d} us run start    N poller\n",
                                                     5000001000, 2)));
  EXPECT_NE(std::string::npos, text.find(fmt::format("{:>22d} ns since boot {:>10d} us schedulerBusy \n",
                                                     5000000400, 2)));
  EXPECT_NE(std::string::npos, text.find(fmt::format("{:>22d} ns since boot {:>10d} us schedule     N poller\n",
                                                     4999000000, 1003)));
}

TEST(SnapshotShowText, MaxMsTruncatesWhereJsonRounds) {
  // 1001 ms / 1000.0 * 1000.0 is 1000.9999999999999 in doubles, which the
  // text report truncates to 1000.
  TaskStat t = stat({"m", TaskPriority::normal, 1, 0, 0x10});
  t.taskRunTimeHighWaterMarkIs(TaskDurationMs(1001));
  ASSERT_EQ(1000, int(1001 / 1000.0 * 1000.0));
  const std::string text = renderText(flatSnapshot({t}), false, false);
  const std::string line = lineStartingWith(text, "m ");
  EXPECT_EQ(fmt::format(" {:>4d} {:>4d} {:>5d}", 0, 0, 1000), line.substr(51, 16));
}

// Between two writes the renderer keeps its buffer: once a slice has grown
// it, the next slices refill the same memory and allocate nothing.
TEST(SnapshotShowText, DataHasBeenWrittenKeepsTheBufferForTheNextSlice) {
  Ptr<SnapshotShowText> show(new SnapshotShowText(share(goldenTree()), false, false));
  const SnapshotShow::SchedulerDisplayContext& ctx = show->stack().back();
  const TaskStat line = stat({"a-task-of-a-report", TaskPriority::normal, 12, 3456789, 0x1000});
  auto slice = [&] {
    for (int i = 0; i < 40; ++i)
      show->taskDisplay(ctx, line, false);
  };
  slice(); // grows the buffer to about 4 KiB
  const std::string first(show->getData());
  const char* buffer = show->getData().data();
  show->dataHasBeenWritten();
  EXPECT_TRUE(show->getData().empty());
  const unsigned long before = KestoSupport::mallocCalls();
  slice();
  const unsigned long allocations = KestoSupport::mallocCalls() - before;
  EXPECT_EQ(first, show->getData());
  EXPECT_EQ(buffer, show->getData().data());
  if (KestoSupport::mallocCountingWorks()) {
    EXPECT_EQ(0u, allocations);
  }
}
