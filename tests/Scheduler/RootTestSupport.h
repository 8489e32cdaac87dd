// Helpers of the root scheduler's tests: a root that counts the passes the
// event loop delivers, a scheduler that hangs under a root the way a task
// group does, and the task and assertion helpers of the scheduler tests.
#pragma once

#include "SchedulerTestSupport.h"

#include <Kesto/Platform/Platform.h>
#include <Kesto/Scheduler/TaskSchedulerRoot.h>

#include <algorithm>
#include <string>
#include <vector>

namespace KestoTest {

// A root whose deferred callbacks are counted: one count is one pass.
class CountingRoot : public TaskSchedulerRoot {
public:
  static Ptr<CountingRoot> rootIs(const String& name = "countingRoot") {
    return Ptr<CountingRoot>(new CountingRoot(name));
  }
  void callback() override {
    ++passes;
    TaskSchedulerRoot::callback();
  }
  unsigned passes = 0;

private:
  explicit CountingRoot(const String& name) : TaskSchedulerRoot(name) {}
};

// A scheduler registered with a root, sharing its history, as a task group
// is; it answers nothing itself and forwards root-wide questions.
class SubScheduler : public TaskScheduler {
public:
  static Ptr<SubScheduler> subIs(const String& name, TaskSchedulerRoot* root) {
    return Ptr<SubScheduler>(new SubScheduler(name, root));
  }
  ~SubScheduler() override { taskSchedulerRoot_->unregisterScheduler(this); }

  void suspendedIs(bool suspended) override { suspended_ = suspended; }
  void requestSchedulerRun() override { ++runRequests; }
  void handleTaskForceYieldInTest() override {}
  void handleVirtualTimeChange() override { ++virtualTimeChanges; }
  void timerRunningInc(const TaskTimeStamp& now) override { doTimerRunningInc(now); }
  void timerRunningDec(const TaskTimeStamp& now) override { doTimerRunningDec(now); }
  TaskScheduler* rootScheduler() const override { return taskSchedulerRoot_; }
  TaskScheduler* parentScheduler() const override { return taskSchedulerRoot_; }

  unsigned runRequests = 0;
  unsigned virtualTimeChanges = 0;

private:
  SubScheduler(const String& name, TaskSchedulerRoot* root)
      : TaskScheduler(name, root, root->taskSchedulerHistory()) {
    root->registerScheduler(this);
  }
};

inline Ptr<TestTask> rootTaskIs(Ptr<TaskScheduler> s, TaskPriority p, const String& name, TestTask::Body body = {}) {
  return Ptr<TestTask>(new TestTask(std::move(s), p, name, std::move(body)));
}

// The history of a root, newest first, as display texts with identifiers.
inline std::vector<std::string> historyLines(const TaskSchedulerRoot& root) {
  std::vector<std::string> lines;
  for (const TaskSchedulerHistory::Event& e : *root.taskSchedulerHistory())
    lines.push_back(std::string(e.eventTypeDisplay()) + " " + std::string(e.identifier.view()));
  return lines;
}

inline unsigned historyCount(const TaskSchedulerRoot& root, TaskSchedulerEventType type) {
  unsigned n = 0;
  for (const TaskSchedulerHistory::Event& e : *root.taskSchedulerHistory())
    n += e.eventType == type;
  return n;
}

// Fast forward on for the scope (main thread only).
class FastForwardOn {
public:
  FastForwardOn() { Platform::setFastForward(true); }
  ~FastForwardOn() { Platform::setFastForward(false); }
};

} // namespace KestoTest
