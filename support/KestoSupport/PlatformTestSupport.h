// Helpers shared by the event platform's tests.
#pragma once

#include <Kesto/Core/Exception.h>
#include <Kesto/Platform/Libevent.h>
#include <Kesto/Platform/Platform.h>
#include <Kesto/Platform/SteadyClock.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <KestoSupport/SocketPair.h>

#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>

namespace Kesto::PlatformTest {

// How much later than asked a timeout may expire, and how much further a
// jump of virtual time may go than the exact distance: the base's coarse
// clock trails CLOCK_MONOTONIC by less than one of its ticks, and timeouts
// are lengthened by that lag plus 2 µs of rounding plus the library clock's
// error bound, so they are never early.
inline double baseClockSlack() {
  timespec resolution;
  clock_getres(CLOCK_MONOTONIC_COARSE, &resolution);
  return double(resolution.tv_sec) + double(resolution.tv_nsec) / 1e9 + 3e-6 +
         double(steadyClockErrorBoundNanos) / 1e9;
}

// Timer delays from a millisecond to ten seconds, for tests that arm each of
// them many times over, so that the arming falls at every point of the
// base's coarse clock tick.
inline constexpr double armingDelays[] = {0.001, 0.002, 0.005, 0.02, 0.1, 0.5, 1.0, 5.0, 10.0};

// CLOCK_MONOTONIC in seconds: real time, whatever virtual time does.
inline double monotonicSeconds() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return double(ts.tv_nsec) / 1e9 + double(ts.tv_sec);
}

// Makes failed assertions throw without their trace line, for the scope.
class QuietAsserts {
public:
  QuietAsserts() : saved_(throwOnAssertFail()) { throwOnAssertFailIs(true); }
  ~QuietAsserts() { throwOnAssertFailIs(saved_); }

private:
  bool saved_;
};

// Runs `body` and gives the text of the AssertException it throws ("" if
// none).
inline std::string assertionText(const std::function<void()>& body) {
  QuietAsserts quiet;
  try {
    body();
  } catch (const AssertException& e) {
    return e.what();
  }
  return {};
}

// Runs `body` on a thread of its own (its own base and virtual clock) in a
// forked child that SIGALRM ends after `limit` seconds of real time, so that
// a loop that fails to return fails the test instead of hanging the suite.
// The child frees the thread's base and exits 0 when no expectation failed
// (failures print from the child). The child inherits the process-wide fast
// forward mode of the test. Use it from a test suite named ...DeathTest.
inline void expectToReturnInAChild(const std::function<void()>& body, unsigned limit = 60) {
  EXPECT_EXIT(
      {
        alarm(limit);
        std::thread([&] {
          body();
          leFree();
        }).join();
        std::_Exit(::testing::Test::HasFailure() ? 1 : 0);
      },
      ::testing::ExitedWithCode(0), "");
}

// Fast forward on for the scope; off again however the test ends, since the
// mode is process-wide.
class FastForwardOn {
public:
  FastForwardOn() { Platform::setFastForward(true); }
  ~FastForwardOn() { Platform::setFastForward(false); }
};

struct HandlerError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// A timeout handler whose behaviour each test sets.
class TestTimeoutHandler : public Platform::TimeoutHandler {
public:
  void timeout() override {
    ++timeouts;
    if (onTimeout)
      onTimeout();
  }
  bool handleTimeoutException() override {
    ++exceptionsOffered;
    return swallow;
  }
  int timeouts = 0;
  int exceptionsOffered = 0;
  bool swallow = false;
  std::function<void()> onTimeout;
};

class TestCallbackHandler : public Platform::CallbackHandler {
public:
  void callback() override {
    ++callbacks;
    if (onCallback)
      onCallback();
  }
  bool handleCallbackException() override {
    ++exceptionsOffered;
    return swallow;
  }
  int callbacks = 0;
  int exceptionsOffered = 0;
  bool swallow = false;
  std::function<void()> onCallback;
};

class TestFdHandler : public Platform::FdEventHandler {
public:
  void readFdEvent(int fd) override {
    ++reads;
    lastFd = fd;
    if (onRead)
      onRead(fd);
  }
  void writeFdEvent(int fd) override {
    ++writes;
    lastFd = fd;
    if (onWrite)
      onWrite(fd);
  }
  bool handleFdException(int fd) override {
    ++exceptionsOffered;
    exceptionFd = fd;
    return swallow;
  }
  int reads = 0;
  int writes = 0;
  int lastFd = -2;
  int exceptionsOffered = 0;
  int exceptionFd = -2;
  bool swallow = false;
  std::function<void(int)> onRead;
  std::function<void(int)> onWrite;
};

} // namespace Kesto::PlatformTest
