// Task: the class applications derive from for a plain task.
//
//   class Poller : public Kesto::Task {
//   public:
//     Poller(Kesto::Ptr<Kesto::TaskScheduler> s) : Task(std::move(s), Kesto::TaskPriority::normal, "Poller") {}
//     void taskExecute() override {
//       while (work() && !taskShouldYield()) {}
//       if (more()) scheduleTask();
//     }
//     static void operator delete(void* p) { ::operator delete(p); }
//   };
//
// Creating a task registers it with its scheduler but does not run it; the
// first scheduleTask() puts it on the run queue of its priority. A concrete
// class brings its own operator delete (see _TaskBase).
#pragma once

#include <Kesto/Common/Export.h>

#include <Kesto/Scheduler/TaskImpl.h>

namespace Kesto {

class KESTO_EXPORT Task : public TaskImpl {
public:
  Task(Ptr<TaskScheduler> scheduler, TaskPriority priority, const String& name);
  // Takes a reference on `scheduler` for the length of the call.
  Task(TaskScheduler* scheduler, TaskPriority priority, const String& name);

  bool taskScheduled() const override { return TaskImpl::taskScheduled(); }
  ~Task() override;
  void scheduleTask() override { TaskImpl::scheduleTask(); }
  void taskRunFromTest() override { TaskImpl::taskRunFromTest(); }
  TaskStat::TaskStatus taskStatus() const override { return TaskImpl::taskStatus(); }
};

} // namespace Kesto
