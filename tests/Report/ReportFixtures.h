// Snapshots built by hand for the report tests: fixed names, times, counts
// and keys, so that a report of them is the same bytes on every run. A
// snapshot is plain data, and exactly what the renderers read, so these are
// the renderers' real input; the keys are made-up addresses that nothing
// dereferences (a report never does).
#pragma once

#include <Kesto/Report/SnapshotShow.h>
#include <Kesto/Report/SnapshotShowJson.h>
#include <Kesto/Report/SnapshotShowText.h>
#include <Kesto/Report/TaskSchedulerSnapshot.h>
#include <Kesto/Scheduler/TaskSchedulerHistory.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace ReportTest {

using namespace Kesto;
using Snapshot = TaskSchedulerSnapshotImpl;
using SnapshotPtr = Ptr<TaskSchedulerSnapshot const>;

inline TaskKey keyAt(std::uintptr_t address) { return TaskKey(reinterpret_cast<const void*>(address)); }

// A live task's record with the figures a test cares about; the rest as
// an idle task has them.
struct StatSpec {
  const char* name;
  TaskPriority priority = TaskPriority::normal;
  U64 runs = 1;
  I64 totalNs = 0;
  std::uintptr_t key = 0;
  bool onRunQueue = false;
  bool group = false;
  bool timer = false;
  bool timerRunning = false;
};

inline TaskStat stat(const StatSpec& s) {
  TaskStat t;
  t.taskNameIs(String(s.name));
  t.taskKeyIs(keyAt(s.key));
  t.taskPriorityIs(s.priority);
  TaskStat::TaskStatus status;
  status.taskOnRunQueueIs(s.onRunQueue);
  status.taskIsTaskGroupIs(s.group);
  status.taskTimerIs(s.timer);
  status.taskTimerRunningIs(s.timerRunning);
  t.taskStatusIs(status);
  t.taskRunInc(s.runs);
  t.taskTotalRunTimeInc(TaskTimeDuration(s.totalNs));
  return t;
}

inline TaskSchedulerPriorityStats row(TaskPriority p, U32 runnable, U32 idle, U64 completed, U64 runs) {
  TaskSchedulerPriorityStats r;
  r.priority = p;
  r.runnableTasks = runnable;
  r.idleTasks = idle;
  r.completedTasks = completed;
  r.totalRunCount = runs;
  return r;
}

inline TaskTimeStamp at(I64 ns) { return TaskTimeStamp(TaskTimeDuration(ns)); }

inline SnapshotPtr share(Snapshot&& s) { return SnapshotPtr(new Snapshot(std::move(s))); }

inline const Snapshot& impl(const SnapshotPtr& s) { return static_cast<const Snapshot&>(*s); }

// The tree the golden reports show:
//
//   agent (root, filter none, history of 4 events)
//     poller          N on queue, 10 runs, 2.5 s, work and pending counters
//     tick            H timer running, 40 runs, 0.75 s
//     groupA          N parent task of a group, 5 runs, 1.25 s
//       groupA-@0x...a000 (group)
//         inner1      N 3 runs 0.5 s
//         innerWithLongName  L 2 runs 0.25 s
//         deep        N parent task of a group, 1 run, 0.125 s
//           deep-@0x...d000 (group)
//             deepTask  S 7 runs 0.0625 s
//             (1 task skipped)
//   completed: worker (3 done), reaper (1 done, work counters)
//   (2 tasks skipped)
inline Snapshot goldenTree() {
  Snapshot deep;
  deep.schedulerName = "deep";
  deep.parentTask = keyAt(0xd000);
  deep.priorityStats[TaskPriority::scavenge] = row(TaskPriority::scavenge, 0, 1, 0, 7);
  deep.tasks.push_back(stat({"deepTask", TaskPriority::scavenge, 7, 62500000, 0xd100}));
  deep.tasksSkipped = 1;
  deep.displayOrder = 0xFFFFFFFF;

  Snapshot group;
  group.schedulerName = "groupA";
  group.parentTask = keyAt(0xa000);
  group.priorityStats[TaskPriority::normal] = row(TaskPriority::normal, 0, 2, 0, 4);
  group.priorityStats[TaskPriority::low] = row(TaskPriority::low, 0, 1, 0, 2);
  group.tasks.push_back(stat({"inner1", TaskPriority::normal, 3, 500000000, 0xa100}));
  group.tasks.push_back(stat({"innerWithLongName", TaskPriority::low, 2, 250000000, 0xa200}));
  group.tasks.push_back(stat({"deep", TaskPriority::normal, 1, 125000000, 0xd000, false, true}));
  group.displayOrder = 0xFFFFFFFF;
  group.subSchedulers.emplace_back(String("deep-@0x000000000000d000"), std::move(deep));

  Snapshot root;
  root.schedulerName = "agent";
  root.isRootScheduler = true;
  root.maxSchedulerSlip = 1234567;
  root.displayOrder = 0xFFFFFFFF;
  root.priorityStats[TaskPriority::high] = row(TaskPriority::high, 0, 1, 0, 40);
  root.priorityStats[TaskPriority::normal] = row(TaskPriority::normal, 1, 1, 4, 15);

  TaskStat poller = stat({"poller", TaskPriority::normal, 10, 2500000000, 0x1100, true});
  poller.taskWorkCountTotalInc(1234);
  poller.taskWorkCountDecayAvgIs(12.5f);
  poller.taskWorkCountHighWaterMarkIs(99);
  poller.taskWorkPendingIs(3);
  poller.taskWorkPendingHighWaterMarkIs(17);
  poller.taskLastSchedulingLatencyIs(TaskDurationMs(12));
  poller.taskSchedulingLatencyHighWaterMarkIs(TaskDurationMs(250));
  poller.taskQuantumViolation200Inc(2);
  poller.taskQuantumViolation500Inc(1);
  poller.taskRunTimeHighWaterMarkIs(TaskDurationMs(41));
  poller.firstTaskRunTimestampIs(at(1000000000));
  poller.lastTaskRunTimestampIs(at(9000000000));
  root.tasks.push_back(poller);
  root.tasks.push_back(stat({"tick", TaskPriority::high, 40, 750000000, 0x1200, false, false, true, true}));
  root.tasks.push_back(stat({"groupA", TaskPriority::normal, 5, 1250000000, 0xa000, false, true}));
  root.tasksSkipped = 2;

  TaskStat worker = stat({"worker", TaskPriority::normal, 6, 300000000, 0x1300});
  worker.taskCompletedCountIs(3);
  root.completedTasks.push_back(worker);
  TaskStat reaper = stat({"reaper", TaskPriority::normal, 1, 300000000, 0x1400});
  reaper.taskCompletedCountIs(1);
  reaper.taskWorkCountTotalInc(5);
  reaper.taskWorkCountDecayAvgIs(5.0f);
  reaper.taskWorkCountHighWaterMarkIs(5);
  root.completedTasks.push_back(reaper);

  root.subSchedulers.emplace_back(String("groupA-@0x000000000000a000"), std::move(group));

  root.history = Ptr<Snapshot::History>(new Snapshot::History(100, 4));
  auto& events = root.history->events;
  events.emplace_back(at(5000002600), TaskSchedulerEventType(TaskSchedulerEventType::runEnd), String("N poller"));
  events.emplace_back(at(5000001000), TaskSchedulerEventType(TaskSchedulerEventType::runStart), String("N poller"));
  events.emplace_back(at(5000000400), TaskSchedulerEventType(TaskSchedulerEventType::schedulerBusy), String());
  events.emplace_back(at(4999000000), TaskSchedulerEventType(TaskSchedulerEventType::schedule), String("N poller"));
  return root;
}

inline std::filesystem::path goldenPath(const char* file) {
  return std::filesystem::path(KESTO_TESTS_SOURCE_DIR) / "Report" / "golden" / file;
}

inline std::string readFile(const std::filesystem::path& p) {
  std::ifstream in(p, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

// Compares with the reference file golden/<file>; on a difference leaves the
// actual text as actual-<file> in the working directory for a reviewer to
// diff, and fails.
inline void expectGolden(const std::string& actual, const char* file) {
  const std::string expected = readFile(goldenPath(file));
  if (actual != expected) {
    std::ofstream(std::string("actual-") + file, std::ios::binary) << actual;
    ADD_FAILURE() << "report differs from golden/" << file << "; actual written to actual-" << file;
  }
}

inline std::string renderText(SnapshotPtr s, bool hierarchical, bool addresses) {
  Ptr<SnapshotShowText> show(new SnapshotShowText(std::move(s), hierarchical, addresses));
  return show->renderToStringWithoutYielding().str();
}

inline std::string renderJson(SnapshotPtr s) { return SnapshotShowJsonIs(std::move(s))->renderToStringWithoutYielding().str(); }

} // namespace ReportTest
