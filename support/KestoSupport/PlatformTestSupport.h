// Helpers shared by the event platform's tests.
#pragma once

#include <Kesto/Core/Exception.h>
#include <Kesto/Platform/Libevent.h>
#include <Kesto/Platform/Platform.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <KestoSupport/SocketPair.h>

#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>

namespace Kesto::PlatformTest {

// How much later than asked a timeout may expire, and how much further a
// jump of virtual time may go than the exact distance: the base's coarse
// clock trails CLOCK_MONOTONIC by less than one of its ticks, and timeouts
// are lengthened by that lag plus 2 µs of rounding so they are never early.
inline double baseClockSlack() {
  timespec resolution;
  clock_getres(CLOCK_MONOTONIC_COARSE, &resolution);
  return double(resolution.tv_sec) + double(resolution.tv_nsec) / 1e9 + 3e-6;
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
