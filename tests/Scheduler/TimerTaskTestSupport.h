// Helpers of the timer task tests: a timer task whose body a test gives and
// that notes when it ran, the reach into the parts of a TimerTask that a
// test must see or break, and the arithmetic of rand_r's jitter steps worked
// out independently. Trace lines are captured with the shared TraceCapture.
#pragma once

#include "RootTestSupport.h"
#include <KestoSupport/TraceCapture.h>

#include <Kesto/Scheduler/TimerTask.h>
#include <Kesto/TimerWheel/TimerWheel.h>

#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <functional>
#include <limits>
#include <string>
#include <vector>

namespace Kesto {
// Friend of TimerTask: reaches the invariant check that no public call can
// reach with a consistent task.
struct TimerTaskTestAccess {
  static void failTimerNotRunning(const TimerTask& task) { task.failTimerNotRunning(); }
};
} // namespace Kesto

namespace KestoTest {

inline constexpr double infinity = std::numeric_limits<double>::infinity();

class TestTimerTask : public TimerTask {
public:
  using Body = std::function<void(TestTimerTask&)>;

  TestTimerTask(Ptr<TaskScheduler> scheduler, TaskPriority priority, const String& name, Body body = {})
      : TimerTask(std::move(scheduler), priority, name), body_(std::move(body)) {}
  TestTimerTask(TaskScheduler* scheduler, TaskPriority priority, const String& name)
      : TimerTask(scheduler, priority, name) {}

  void taskExecute() override {
    ++runs;
    runTimes.push_back(Kesto::time());
    if (body_)
      body_(*this);
  }
  void handleTaskBusy() override { busyReports.push_back(taskBusy_); }
  void bodyIs(Body body) { body_ = std::move(body); }

  static void* operator new(std::size_t n) { return ::operator new(n); }
  static void operator delete(void* p) { ::operator delete(p); }

  unsigned runs = 0;
  std::vector<double> runTimes;
  std::vector<bool> busyReports;

private:
  Body body_;
};

inline Ptr<TestTimerTask> timerTaskIs(Ptr<TaskScheduler> s, const String& name, TestTimerTask::Body body = {},
                                      TaskPriority p = TaskPriority::normal) {
  return Ptr<TestTimerTask>(new TestTimerTask(std::move(s), p, name, std::move(body)));
}

// The jitter step that the next draw from `seed` gives, without moving it.
inline unsigned nextJitterStep(unsigned seed) {
  const int r = rand_r(&seed);
  return unsigned(r) / 21474836u;
}

// Moves `seed` as one draw does.
inline void advanceSeed(unsigned& seed) { (void)rand_r(&seed); }

// A seed whose next draw is at the top of rand_r's range: step 100.
inline constexpr unsigned topStepSeed = 57966750u;

} // namespace KestoTest
