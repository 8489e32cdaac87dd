// Helpers shared by the timer wheel's tests: a clock the test sets by hand,
// a capture of the wheel's trace lines, and an event that records firings.
#pragma once

#include <KestoSupport/PlatformTestSupport.h>

#include <Kesto/TimerWheel/TimerWheel.h>
#include <Kesto/TimerWheel/TimerWheelEvent.h>
#include <Timeouts/timeouts.h>
#include <Kesto/Debug/Trace.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace Kesto::TimerWheelTest {

using PlatformTest::assertionText;

// The wheels read `fakeNow` while a ManualClock test runs.
inline double fakeNow = 0.0;
inline double fakeClock() { return fakeNow; }

class ManualClock : public ::testing::Test {
protected:
  void SetUp() override {
    fakeNow = 0.0;
    timerWheelClockIsForTest(fakeClock);
  }
  void TearDown() override { timerWheelClockIsForTest(nullptr); }

  static std::shared_ptr<TimerWheel> newWheel(Platform::EventPriority priority = Platform::eventPriorityStrictHigh) {
    return getTimerWheelForTaskScheduler(priority);
  }
};

// Turns on levels 0, 8 and 9 of KestoTimerWheel and captures standard error
// until the first text() or count() or the end of the scope; the levels are
// put back. Ask only after the traced steps.
class WheelTrace {
public:
  WheelTrace() : saved_(*Debug::kestoTimerWheel->levelsPtr) {
    for (unsigned short level : {0, 8, 9})
      Debug::kestoTimerWheel->enabledIs(level, true);
    ::testing::internal::CaptureStderr();
  }
  ~WheelTrace() { text(); }
  const std::string& text() {
    if (!done_) {
      done_ = true;
      text_ = ::testing::internal::GetCapturedStderr();
      for (unsigned short level : {0, 8, 9})
        Debug::kestoTimerWheel->enabledIs(level, (saved_ >> level) & 1u);
    }
    return text_;
  }
  // Lines that contain `fragment`.
  int count(const std::string& fragment) {
    const std::string& all = text();
    int n = 0;
    for (size_t at = all.find(fragment); at != std::string::npos; at = all.find(fragment, at + 1))
      ++n;
    return n;
  }

private:
  unsigned short saved_;
  bool done_ = false;
  std::string text_;
};

// An event that counts its firings, logs them in a shared order, and runs
// what the test asks it to.
class TestEvent : public TimerWheelEvent {
public:
  explicit TestEvent(std::vector<TestEvent*>* order = nullptr) : order_(order) {}
  // Stops itself when the test forgot, so that a failing test does not end
  // the process with the destructor's assertion.
  ~TestEvent() override {
    if (wheel && state() != TimerWheelState::notLinked && expirationTime() != std::numeric_limits<double>::infinity())
      delTimeout(wheel);
  }
  void timeout() override {
    ++fired;
    if (order_)
      order_->push_back(this);
    if (onTimeout)
      onTimeout();
  }
  std::shared_ptr<TimerWheel> wheel;
  int fired = 0;
  std::function<void()> onTimeout;

private:
  std::vector<TestEvent*>* order_;
};

} // namespace Kesto::TimerWheelTest
