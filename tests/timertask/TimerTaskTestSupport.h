// Helpers of the timer task tests: a timer task whose body a test gives and
// that notes when it ran, a capture of the scheduler's trace lines, the
// reach into the parts of a TimerTask that a test must see or break, and the
// arithmetic of rand_r's jitter steps worked out independently.
#pragma once

#include "../root/RootTestSupport.h"

#include <Kesto/DebugControl.h>
#include <Kesto/Loco.h>
#include <Kesto/TimerTask.h>
#include <Kesto/TimerWheel.h>

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

// Turns on trace levels of the "TaskScheduler" handler, sets the line prefix
// to handler name and level, and captures standard error, where trace lines
// go without TRACEFILE, for the life of the object.
class TraceCapture {
public:
  explicit TraceCapture(std::initializer_list<unsigned short> levels = {8, 9}) {
    using Ixo::DebugControl;
    savedFormat_ = {DebugControl::showDate_,     DebugControl::showTime_,     DebugControl::showPid_,
                    DebugControl::showTid_,      DebugControl::showHandleName_, DebugControl::showLevel_,
                    DebugControl::showLineInfo_, DebugControl::showFuncName_};
    Platform::setTraceFormat("handle,level");
    for (unsigned short level : levels) {
      if (!Debug::taskScheduler->enabled(level)) {
        Debug::taskScheduler->enabledIs(level, true);
        turnedOn_.push_back(level);
      }
    }
    testing::internal::CaptureStderr();
    capturing_ = true;
  }
  ~TraceCapture() { text(); }
  TraceCapture(const TraceCapture&) = delete;
  TraceCapture& operator=(const TraceCapture&) = delete;

  // Everything written so far; ends the capture and puts the levels back.
  const std::string& text() {
    if (capturing_) {
      text_ = testing::internal::GetCapturedStderr();
      capturing_ = false;
      for (unsigned short level : turnedOn_)
        Debug::taskScheduler->enabledIs(level, false);
      using Ixo::DebugControl;
      Platform::Loco::Guard guard;
      bool* flags[] = {&DebugControl::showDate_,       &DebugControl::showTime_,  &DebugControl::showPid_,
                       &DebugControl::showTid_,        &DebugControl::showHandleName_, &DebugControl::showLevel_,
                       &DebugControl::showLineInfo_,   &DebugControl::showFuncName_};
      for (std::size_t i = 0; i < savedFormat_.size(); ++i)
        *flags[i] = savedFormat_[i];
    }
    return text_;
  }
  // The lines that contain `part`.
  std::vector<std::string> linesWith(const std::string& part) {
    std::vector<std::string> found;
    const std::string& all = text();
    std::size_t start = 0;
    while (start < all.size()) {
      std::size_t end = all.find('\n', start);
      if (end == std::string::npos)
        end = all.size();
      std::string line = all.substr(start, end - start);
      if (line.find(part) != std::string::npos)
        found.push_back(std::move(line));
      start = end + 1;
    }
    return found;
  }

  // The one line that contains `part`; a test failure and "" unless there
  // is exactly one.
  std::string onlyLineWith(const std::string& part) {
    std::vector<std::string> found = linesWith(part);
    if (found.size() != 1) {
      ADD_FAILURE() << found.size() << " lines with \"" << part << "\" in:\n" << text();
      return std::string();
    }
    return found[0];
  }

private:
  std::array<bool, 8> savedFormat_;
  std::vector<unsigned short> turnedOn_;
  bool capturing_ = false;
  std::string text_;
};

// The display form of a task in traces and messages.
inline std::string shown(const TimerTask& task) { return fmt::format("{}", task); }

// The jitter step that the next draw from `seed` gives, without moving it.
inline unsigned nextJitterStep(unsigned seed) {
  const int r = rand_r(&seed);
  return unsigned(r) / 21474836u;
}

// Moves `seed` as one draw does.
inline void advanceSeed(unsigned& seed) { (void)rand_r(&seed); }

// A seed whose next draw is at the top of rand_r's range: step 100.
inline constexpr unsigned topStepSeed = 57966750u;

inline bool endsWith(const std::string& text, const std::string& tail) {
  return text.size() >= tail.size() && text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

} // namespace KestoTest
