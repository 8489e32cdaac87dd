// Helpers of the task group tests: making groups under a root or under
// another group, switching the process-wide multiple-runs-with-virtual-time
// setting for a scope, and reading the order in which tasks ran.
#pragma once

#include "RootTestSupport.h"

#include <Kesto/Scheduler/TaskGroup.h>

#include <string>
#include <vector>

namespace KestoTest {

inline Ptr<TaskGroup> groupIs(const String& name, Ptr<TaskScheduler> parent,
                              TaskPriority priority = TaskPriority::normal,
                              TaskGroupPriorityEnforcement enforcement = TaskGroupPriorityEnforcement::allowAny) {
  return TaskGroup::TaskGroupIs(name, priority, enforcement, std::move(parent));
}

// Lets groups keep multiple runs under virtual time for the scope; the
// setting is process-wide, so it goes back however the test ends.
class AllowMultipleRunsWithVirtualTime {
public:
  AllowMultipleRunsWithVirtualTime() {
    TaskSchedulerRoot::testAllowTaskGroupTasksPermittedMultipleRunsWithVirtualTimeIs(true);
  }
  ~AllowMultipleRunsWithVirtualTime() {
    TaskSchedulerRoot::testAllowTaskGroupTasksPermittedMultipleRunsWithVirtualTimeIs(false);
  }
};

// Fast forward off at the end of the scope, for tests that switch it on
// and off from inside tasks.
class FastForwardOffAtExit {
public:
  ~FastForwardOffAtExit() { Platform::setFastForward(false); }
};

// Names of tasks in the order they ran, appended by their bodies.
struct RunLog {
  std::vector<std::string> names;
  TestTask::Body append(const std::string& name) {
    return [this, name](TestTask&) { names.push_back(name); };
  }
  std::string joined() const {
    std::string text;
    for (const std::string& n : names)
      text += (text.empty() ? "" : " ") + n;
    return text;
  }
};

} // namespace KestoTest
