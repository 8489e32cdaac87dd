// Per-priority queue figures of a scheduler, as reports show them.
//
// TaskSchedulerPriorityStats is one line (one priority); TaskSchedulerQueueStats
// maps each priority to its line, in priority order. Both are plain values
// built by TaskScheduler::queueStats() and summed over schedulers with +=.
#pragma once

#include <Kesto/Common/Export.h>

#include <Kesto/Scheduler/TaskPriority.h>

#include <map>

namespace Kesto {

struct KESTO_EXPORT TaskSchedulerPriorityStats {
  TaskPriority priority;
  U32 runnableTasks = 0;
  U32 idleTasks = 0;
  U64 completedTasks = 0;
  U64 totalRunCount = 0;

  // Adds the four counts; the priorities must be equal.
  TaskSchedulerPriorityStats& operator+=(const TaskSchedulerPriorityStats& other);
  friend bool operator==(const TaskSchedulerPriorityStats&, const TaskSchedulerPriorityStats&) = default;
};

class KESTO_EXPORT TaskSchedulerQueueStats : public std::map<TaskPriority, TaskSchedulerPriorityStats> {
public:
  // Entries of a priority present in both are added, others are copied in.
  TaskSchedulerQueueStats& operator+=(const TaskSchedulerQueueStats& other);
};

} // namespace Kesto
