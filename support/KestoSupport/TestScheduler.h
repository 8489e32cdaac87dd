// Test doubles for the scheduler: a concrete scheduler that stands in for the
// root of a thread (or, given a root, for a group under it), a task whose body
// a test supplies and a controllable clock. Free of GoogleTest, so that the
// benchmarks drive the scheduler through the same class.
//
// TestScheduler answers the root-wide questions itself (thread check, virtual
// time, test yield ratio, suspension) and records what the scheduler asked of
// it: run requests, force-yield notifications, thread checks. Its run
// requests model the event loop's deferred callback: requesting twice before
// a pass is one pass, and drive() delivers the passes.
#pragma once

#include <Kesto/Core/Exception.h>
#include <Kesto/Scheduler/Task.h>
#include <Kesto/Scheduler/TaskScheduler.h>
#include <Kesto/Debug/Trace.h>

#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace KestoTest {

using namespace Kesto;

class TestScheduler : public TaskScheduler {
public:
  static Ptr<TestScheduler> rootIs(const String& name = "root", unsigned historyCapacity = 100) {
    return Ptr<TestScheduler>(
        new TestScheduler(name, Ptr<TaskSchedulerHistory>(new TaskSchedulerHistory(historyCapacity)), nullptr));
  }
  // A scheduler under `root`, sharing its history: what a group looks like
  // to the code under test.
  static Ptr<TestScheduler> childIs(const String& name, TestScheduler* root) {
    return Ptr<TestScheduler>(new TestScheduler(name, root->taskSchedulerHistory(), root));
  }

  // --- the pure operations ----------------------------------------------------
  void suspendedIs(bool suspended) override {
    if (suspended == suspended_)
      return;
    suspended_ = suspended;
    TaskTimeStamp now = taskClockNow();
    if (suspended) {
      historyInsert(now, TaskSchedulerEventType::schedulerSuspended);
      return;
    }
    historyInsert(now, TaskSchedulerEventType::schedulerUnsuspended);
    lastSchedulerRunEnd_ = now;
    requestSchedulerRun();
  }
  void requestSchedulerRun() override {
    ++runRequests;
    if (rootScheduler()->suspended())
      ++runRequestsIgnored;
    else
      pendingCallback = true;
  }
  void handleTaskForceYieldInTest() override { ++forceYieldNotifications; }
  void handleVirtualTimeChange() override { ++virtualTimeChanges; }
  void timerRunningInc(const TaskTimeStamp& now) override { doTimerRunningInc(now); }
  void timerRunningDec(const TaskTimeStamp& now) override { doTimerRunningDec(now); }
  TaskScheduler* rootScheduler() const override {
    return root_ ? static_cast<TaskScheduler*>(root_) : const_cast<TestScheduler*>(this);
  }
  TaskScheduler* parentScheduler() const override { return root_; }
  void sanityCheckCurrentRunningThread() const override {
    ++threadChecks;
    if (root_)
      return TaskScheduler::sanityCheckCurrentRunningThread();
    KESTO_ASSERT(std::this_thread::get_id() == threadId_, "TestScheduler", "Executing in wrong thread");
  }
  bool virtualTime() const override { return root_ ? TaskScheduler::virtualTime() : virtualTimeOn; }
  unsigned char taskTestYieldRatio() const override {
    return root_ ? TaskScheduler::taskTestYieldRatio() : testYieldRatio;
  }

  // --- driving -------------------------------------------------------------------
  // Delivers passes while one is requested, as the event loop would; returns
  // the number of passes (empty ones included).
  unsigned drive(unsigned maxPasses = 1000000) {
    unsigned passes = 0;
    while (pendingCallback && passes < maxPasses) {
      pendingCallback = false;
      _handleSchedulerRun(TaskPriority::scavenge);
      ++passes;
    }
    return passes;
  }

  // Root-wide settings the real root keeps (virtual time, test yield ratio),
  // applied to every registered task as the root does.
  void virtualTimeIs(bool on) {
    virtualTimeOn = on;
    reevaluateAll();
  }
  void testYieldRatioIs(unsigned char ratio) {
    testYieldRatio = ratio;
    reevaluateAll();
  }
  void reevaluateAll() {
    for (TaskImpl& task : registeredTasks_)
      task.taskShouldYieldModeReevaluate();
  }

  TaskRunQueue& queue(TaskPriority p) { return taskRunQueue(p); }
  // Appends to the run queue without the checks of scheduleTask().
  void enqueueForTest(TaskImpl& task) { taskEnqueue(task); }
  void currentlyRunningTaskForTest(Ptr<TaskImpl> task) { currentlyRunningTask_ = std::move(task); }
  void historyEvent(TaskSchedulerEventType type) { historyInsert(taskClockNow(), type); }
  void doTimerInc() { timerRunningInc(taskClockNow()); }
  void doTimerDec() { timerRunningDec(taskClockNow()); }
  std::thread::id threadId() const { return threadId_; }

  unsigned runRequests = 0;
  unsigned runRequestsIgnored = 0;
  bool pendingCallback = false;
  unsigned forceYieldNotifications = 0;
  unsigned virtualTimeChanges = 0;
  mutable unsigned threadChecks = 0;
  bool virtualTimeOn = false;
  unsigned char testYieldRatio = 0;

  static void operator delete(void* p) { ::operator delete(p); }

private:
  TestScheduler(const String& name, Ptr<TaskSchedulerHistory> history, TestScheduler* root)
      : TaskScheduler(name, nullptr, std::move(history)), root_(root), threadId_(std::this_thread::get_id()) {}

  TestScheduler* root_;
  std::thread::id threadId_;
};

// A task whose body the test gives; counts its runs.
class TestTask : public Task {
public:
  using Body = std::function<void(TestTask&)>;

  TestTask(Ptr<TaskScheduler> scheduler, TaskPriority priority, const String& name, Body body = {})
      : Task(std::move(scheduler), priority, name), body_(std::move(body)) {}

  void taskExecute() override {
    ++runs;
    if (body_)
      body_(*this);
  }
  void bodyIs(Body body) { body_ = std::move(body); }
  // Reach into state a test must corrupt on purpose.
  void yieldModeIs(U8 mode) { taskShouldYieldMode_ = mode; }
  void magicNumberIs(U32 magic) { taskMagicNumber_ = magic; }

  static void* operator new(std::size_t n) { return ::operator new(n); }
  static void operator delete(void* p) { ::operator delete(p); }

  unsigned runs = 0;

private:
  Body body_;
};

inline Ptr<TestTask> taskIs(const Ptr<TestScheduler>& s, TaskPriority p, const String& name,
                            TestTask::Body body = {}) {
  return Ptr<TestTask>(new TestTask(s, p, name, std::move(body)));
}

// A task that schedules itself again at every run.
inline Ptr<TestTask> selfSchedulingTaskIs(const Ptr<TestScheduler>& s, TaskPriority p, const String& name) {
  return taskIs(s, p, name, [](TestTask& t) { t.scheduleTask(); });
}

// A clock the test moves by hand; installed for the life of the object.
class ManualClock {
public:
  ManualClock() {
    now_ = TaskTimeStamp(std::chrono::seconds(1000));
    taskClockFnIs(&ManualClock::read);
  }
  ~ManualClock() { taskClockFnIs(nullptr); }
  void advance(TaskTimeDuration d) { now_ += d; }
  static TaskTimeStamp now() { return now_; }

private:
  static TaskTimeStamp read() noexcept { return now_; }
  static inline TaskTimeStamp now_{};
};

} // namespace KestoTest
