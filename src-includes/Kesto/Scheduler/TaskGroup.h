// TaskGroup: a scheduling domain that runs inside one task of another.
//
// A group's tasks share one slot of the parent scheduler's run queue (the
// group's ParentTask), one priority in the parent's eyes and one quantum:
// the parent task's. Inside that slot they are picked by the same rules as in
// any scheduler (six queues, first in first out, the weighted bump). So a
// subsystem with many small tasks gets a share of the thread as a whole, is
// suspended as a whole and is reported as a whole. Groups nest: the parent
// may be a group itself, to any depth.
//
// Wake-up: the group's requestSchedulerRun() schedules the parent task; the
// group's passes happen inside ParentTask::taskExecute(), one after the
// other until the group runs dry, is suspended, or the parent task's quantum
// has passed.
//
// Run modes (tasksPermittedMultipleRunsInForce()):
//   on  - a task that schedules itself may run again in the same parent run,
//         until the parent's quantum has passed;
//   off - each task runnable when the parent run starts runs at most once;
//         what is scheduled during the run waits for the next one. The
//         queues' persistent lists move to their temporary lists for the
//         length of the run, and what is left goes back to the front.
// In force is tasksPermittedMultipleRuns(), except that virtual time turns it
// off unless TaskSchedulerRoot::testAllowTaskGroupTasksPermittedMultipleRuns-
// WithVirtualTime() says otherwise: a task that never advances virtual time
// never uses up a virtual quantum, and one run each keeps such a group from
// spinning forever. A parent run in progress keeps the mode it began with.
//
// A parent task with a quantum above 20 ms hands the thread to the root's
// critical tasks every 10 ms of its run after the first 20, timed by the
// time-stamp counter (a few cycles against a clock call's ~20 ns).
//
// Ownership: the group holds its parent task and its parent scheduler; its
// tasks hold the group; the parent task points back with a plain pointer,
// cleared when the group goes. During its run the parent task holds the
// group, so a group whose last outside reference goes inside one of its own
// tasks is destroyed at the end of that parent run, not in the middle.
// Destruction: force-yield cleared, unregistered from the root, the back
// pointer cleared, then the parent task and the parent scheduler released.
//
// Allocation: construction allocates (the parent task from the slab, the
// root's scheduler set); scheduling and the parent run allocate nothing.
//
// Thread: the thread of the root, like every scheduler under it.
#pragma once

#include <Kesto/Common/Export.h>

#include <Kesto/Core/Ptr.h>
#include <Kesto/Core/String.h>
#include <Kesto/Scheduler/Task.h>
#include <Kesto/Scheduler/TaskPriority.h>
#include <Kesto/Scheduler/TaskScheduler.h>
#include <Kesto/Scheduler/TaskTypes.h>

#include <cstddef>

namespace Kesto {

class KESTO_EXPORT TaskGroup : public TaskScheduler {
public:
  // Above this parent quantum a parent run polls for critical work.
  static constexpr TaskDurationMs criticalPollQuantum{20};
  // First poll after 20 ms of the run, then every 10 ms.
  static constexpr double criticalPollFirstSeconds = 0.02;
  static constexpr double criticalPollNextSeconds = 0.01;

  // The task in the parent scheduler whose run is the group's passes.
  class ParentTask : public Task {
  public:
    ParentTask(TaskGroup* group, Ptr<TaskScheduler> parent, TaskPriority priority, const String& name);

    // Starts a statistics reset of the group.
    void handleResetStats() override;
    void taskExecute() override;
    // Marks the task as a group's in statistics; fails once the group is gone.
    bool isTaskGroup() const override;

    TaskGroup* taskGroup() const noexcept { return taskGroup_; }

    static void* operator new(std::size_t size);
    static void operator delete(void* p) noexcept;

  private:
    friend class TaskGroup;
    TaskGroup* taskGroup_;
  };

  // A group of `priority` under `parent`; its parent task is named
  // "TaskGroup;<name>" and registers with `parent` like any task.
  static Ptr<TaskGroup> TaskGroupIs(String name, TaskPriority priority, TaskGroupPriorityEnforcement enforcement,
                                    Ptr<TaskScheduler> parent);

  // --- virtual operations of TaskScheduler, in slot order -------------------
  // The same as taskGroupSuspendedIs().
  void suspendedIs(bool suspended) override;
  // Schedules the parent task.
  void requestSchedulerRun() override;
  // One member of the group's force-yield set makes the parent task yield
  // after every pass.
  void handleTaskForceYieldInTest() override;
  // Reapplies the run-mode rule.
  void handleVirtualTimeChange() override;
  // Refuses a priority the enforcement forbids, then registers.
  void taskRegister(TaskImpl* task) override;
  // Count here; at the 0->1 and 1->0 steps also in the parent.
  void timerRunningInc(const TaskTimeStamp& now) override;
  void timerRunningDec(const TaskTimeStamp& now) override;
  ~TaskGroup() override;
  TaskScheduler* rootScheduler() const override;
  TaskScheduler* parentScheduler() const override { return parentScheduler_.get(); }
  // Fails with "priorityEnforcement=... taskPriority=... taskGroupPriority=..."
  // unless the enforcement allows `p`; critical is never allowed.
  void validateTaskPriority(TaskPriority p) const override;

  // --- run mode -------------------------------------------------------------------
  void tasksPermittedMultipleRunsIs(bool permitted);
  bool tasksPermittedMultipleRuns() const noexcept { return tasksPermittedMultipleRuns_; }
  bool tasksPermittedMultipleRunsInForce() const noexcept { return tasksPermittedMultipleRunsInForce_; }

  // --- the parent task ----------------------------------------------------------
  // The parent task's quantum: the time all the group's tasks share per run.
  TaskDurationMs taskGroupQuantum() const;
  void taskGroupQuantumIs(TaskDurationMs quantum);
  void taskGroupQuantumNoCheckIs(TaskDurationMs quantum);
  // The parent task's suspension flag.
  bool taskGroupSuspended() const;
  // Trace "{} Suspended={}" (level 1); the parent task leaves or rejoins the
  // parent's queue, the group's tasks keep their places.
  void taskGroupSuspendedIs(bool suspended);
  bool parentTaskScheduled() const;
  U64 parentTaskRunCount() const;
  const Ptr<ParentTask>& parentTask() const noexcept { return parentTask_; }

  // --- reading ------------------------------------------------------------------------
  TaskPriority taskGroupPriority() const noexcept { return taskGroupPriority_; }
  TaskGroupPriorityEnforcement priorityEnforcement() const noexcept { return priorityEnforcement_; }

  // --- tests ----------------------------------------------------------------------------
  bool taskGroupForceYieldInTest() const noexcept { return taskGroupForceYieldInTest_; }
  // Makes the parent task yield after every pass.
  void taskGroupForceYieldInTestIs(bool force);
  // The parent task's taskRunFromTest(): one parent run now.
  void taskGroupRunFromTest();

private:
  TaskGroup(const String& name, TaskPriority priority, TaskGroupPriorityEnforcement enforcement,
            Ptr<TaskScheduler> parent);

  // The body of ParentTask::taskExecute().
  void parentRun(ParentTask& parentTask);
  void tasksPermittedMultipleRunsReevaluate();

  Ptr<ParentTask> parentTask_;
  Ptr<TaskScheduler> parentScheduler_;
  TaskPriority taskGroupPriority_;
  TaskGroupPriorityEnforcement priorityEnforcement_;
  bool taskGroupForceYieldInTest_ = false;
  bool tasksPermittedMultipleRuns_ = true;
  bool tasksPermittedMultipleRunsInForce_ = true;
};

} // namespace Kesto
