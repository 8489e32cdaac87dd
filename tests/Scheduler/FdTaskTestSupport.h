// Helpers of the descriptor task tests: a descriptor task whose two bodies a
// test supplies, and driving the real event loop until a condition holds.
#pragma once

#include <KestoSupport/PlatformTestSupport.h>
#include "RootTestSupport.h"

#include <Kesto/Scheduler/FileDescriptorTask.h>
#include <Kesto/Platform/Platform.h>

#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <string>

namespace KestoTest {

class TestFdTask : public FileDescriptorTask {
public:
  using Body = std::function<void(TestFdTask&)>;

  TestFdTask(Ptr<TaskScheduler> scheduler, TaskPriority priority, const String& name)
      : FileDescriptorTask(std::move(scheduler), priority, name) {}

  void taskExecuteReadable() override {
    ++reads;
    if (onRead)
      onRead(*this);
  }
  void taskExecuteWritable() override {
    ++writes;
    if (onWrite)
      onWrite(*this);
  }
  void handleTaskBusy() override { ++busyCalls; }
  void handleResetStats() override { ++resetCalls; }

  static void* operator new(std::size_t n) { return ::operator new(n); }
  static void operator delete(void* p) { ::operator delete(p); }

  Body onRead;
  Body onWrite;
  unsigned reads = 0;
  unsigned writes = 0;
  unsigned busyCalls = 0;
  unsigned resetCalls = 0;
};

inline Ptr<TestFdTask> fdTaskIs(Ptr<TaskScheduler> s, const String& name,
                                TaskPriority p = TaskPriority::normal) {
  return Ptr<TestFdTask>(new TestFdTask(std::move(s), p, name));
}

using Kesto::PlatformTest::SocketPair;

// What the peer has received so far, without waiting.
inline std::string peerReceived(const SocketPair& sockets) {
  std::string text;
  char buffer[256];
  ssize_t n;
  while ((n = ::recv(sockets.peer(), buffer, sizeof buffer, MSG_DONTWAIT)) > 0)
    text.append(buffer, size_t(n));
  return text;
}

// Reads what is waiting on a non-blocking descriptor.
inline std::string drain(int fd) {
  std::string text;
  char buffer[256];
  ssize_t n;
  while ((n = ::read(fd, buffer, sizeof buffer)) > 0)
    text.append(buffer, size_t(n));
  return text;
}

// Turns of the event loop that never wait, until `done` holds or `maxTurns`
// have gone. Returns `done()`.
inline bool driveUntil(const std::function<bool()>& done, int maxTurns = 200) {
  for (int i = 0; i < maxTurns; ++i) {
    if (done())
      return true;
    Platform::doEventLoop(0.0);
  }
  return done();
}

// A fixed number of non-waiting turns, for checking that nothing happens.
inline void driveTurns(int turns) {
  for (int i = 0; i < turns; ++i)
    Platform::doEventLoop(0.0);
}

// Whether an exception of type E leaves the event loop within `maxTurns`
// non-waiting turns.
template <typename E>
bool loopThrows(int maxTurns = 200) {
  for (int i = 0; i < maxTurns; ++i) {
    try {
      Platform::doEventLoop(0.0);
    } catch (const E&) {
      return true;
    }
  }
  return false;
}

inline bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

} // namespace KestoTest
