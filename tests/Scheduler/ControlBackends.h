// The two backends of the platform's controls, for test suites that run one
// body against both: the libevent controls and the controls served by tasks
// of a scheduler. A suite is typed over ControlBackends; each test makes its
// controls through the fixture's backend and drives the real event loop.
#pragma once

#include "FdTaskTestSupport.h"

#include <KestoSupport/PlatformTestSupport.h>

#include <Kesto/Platform/Platform.h>
#include <Kesto/Scheduler/TaskCallbackControl.h>
#include <Kesto/Scheduler/TaskFdControl.h>
#include <Kesto/Scheduler/TaskTimerControl.h>

#include <gtest/gtest.h>

#include <string>

namespace KestoTest {

using PlatformTest::HandlerError;
using PlatformTest::TestCallbackHandler;
using PlatformTest::TestFdHandler;
using PlatformTest::TestTimeoutHandler;

// Controls straight on libevent: the factories without a scheduler.
struct LibeventBackend {
  static constexpr const char* name = "Libevent";
  Ptr<Platform::TimerControl> timer(Platform::TimeoutHandler* h) { return Platform::getTimerControl(h); }
  Ptr<Platform::CallbackControl> callback(Platform::CallbackHandler* h) { return Platform::getCallbackControl(h); }
  Ptr<Platform::FdControl> fd(Platform::FdEventHandler* h) { return Platform::getFdControl(h); }
};

// Controls served by tasks of a root of their own (a fresh one per test, so
// that no run queue, timer or history carries over), at priority normal.
struct TaskBackend {
  static constexpr const char* name = "Task";
  Ptr<CountingRoot> root = CountingRoot::rootIs("controlRoot");
  Ptr<Platform::TimerControl> timer(Platform::TimeoutHandler* h, const String& n = "timerControl") {
    return Platform::getTimerControl(h, root, TaskPriority::normal, n);
  }
  Ptr<Platform::CallbackControl> callback(Platform::CallbackHandler* h, const String& n = "callbackControl") {
    return Platform::getCallbackControl(h, root, TaskPriority::normal, n);
  }
  Ptr<Platform::FdControl> fd(Platform::FdEventHandler* h, const String& n = "fdControl") {
    return Platform::getFdControl(h, root, TaskPriority::normal, n);
  }
};

using ControlBackends = ::testing::Types<LibeventBackend, TaskBackend>;

struct ControlBackendNames {
  template <typename B>
  static std::string GetName(int) {
    return B::name;
  }
};

template <typename B>
class ControlContract : public ::testing::Test {
protected:
  B backend;
};

// The task behind a task-backed control.
inline Platform::TaskTimerControl::TaskWrap& taskOf(const Ptr<Platform::TimerControl>& c) {
  return *dynamic_cast<Platform::TaskTimerControl&>(*c).task();
}
inline Platform::TaskCallbackControl::TaskWrap& taskOf(const Ptr<Platform::CallbackControl>& c) {
  return *dynamic_cast<Platform::TaskCallbackControl&>(*c).task();
}
inline Platform::TaskFdControl::TaskWrap& taskOf(const Ptr<Platform::FdControl>& c) {
  return *dynamic_cast<Platform::TaskFdControl&>(*c).task();
}

// Reads what is waiting so that a level-triggered watch goes quiet.
inline void drainQuietly(int fd) { (void)drain(fd); }

} // namespace KestoTest
