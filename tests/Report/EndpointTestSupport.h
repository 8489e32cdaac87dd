// Clients of the agent endpoint for tests: real unix sockets connected to
// the endpoint's abstract address, non-blocking, read between turns of the
// event loop of the same thread. The loop is driven until what a test waits
// for has happened; the wall-clock limit of driveUntil is only a safety net
// against a hang, never a synchronisation.
#pragma once

#include <Kesto/Platform/Platform.h>
#include <Kesto/Report/AgentEndpoint.h>
#include <Kesto/Scheduler/Task.h>
#include <Kesto/Scheduler/TaskSchedulerRoot.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace EndpointTest {

using namespace Kesto;

// A connection to an endpoint as an operator's command makes it.
class Client {
public:
  explicit Client(const String& address) {
    fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    std::memcpy(a.sun_path + 1, address.data(), address.size());
    const socklen_t length = socklen_t(offsetof(sockaddr_un, sun_path) + 1 + address.size());
    // A unix stream connect completes at once into the backlog.
    connected_ = ::connect(fd_, reinterpret_cast<const sockaddr*>(&a), length) == 0;
    connectErrno_ = connected_ ? 0 : errno;
  }
  ~Client() { close(); }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  bool connected() const { return connected_; }
  int connectErrno() const { return connectErrno_; }
  int fd() const { return fd_; }

  // Sends all of `text` (small enough for the socket buffer).
  void send(std::string_view text) {
    std::size_t done = 0;
    while (done < text.size()) {
      const ssize_t n = ::send(fd_, text.data() + done, text.size() - done, MSG_NOSIGNAL);
      if (n < 0 && errno == EAGAIN)
        continue;
      ASSERT_GT(n, 0) << std::strerror(errno);
      done += std::size_t(n);
    }
  }
  void shutdownWrite() { ::shutdown(fd_, SHUT_WR); }

  // Reads what is there, at most `max` bytes; true once the server closed.
  bool pump(std::size_t max = std::size_t(-1)) {
    char buffer[65536];
    while (!eof_ && max > 0) {
      const ssize_t n = ::recv(fd_, buffer, std::min(max, sizeof(buffer)), MSG_DONTWAIT);
      if (n > 0) {
        received_.append(buffer, std::size_t(n));
        max -= std::size_t(n);
        continue;
      }
      if (n == 0) {
        eof_ = true;
      } else if (errno != EAGAIN && errno != EINTR) {
        readErrno_ = errno;
        eof_ = true;
      }
      break;
    }
    return eof_;
  }

  void close() {
    if (fd_ >= 0)
      ::close(fd_);
    fd_ = -1;
  }

  const std::string& received() const { return received_; }
  bool eof() const { return eof_; }
  // 0 for a clean end of file.
  int readErrno() const { return readErrno_; }

private:
  int fd_ = -1;
  bool connected_ = false;
  int connectErrno_ = 0;
  std::string received_;
  bool eof_ = false;
  int readErrno_ = 0;
};

// Turns the loop of this thread until `done` holds; false if it did not
// within `limitSeconds` of wall-clock time. Each turn waits at most `step`
// seconds for an event; a step of 0 is one pass over what is due, for a
// test that looks at the scheduler between two passes.
inline bool driveUntil(const std::function<bool()>& done, double limitSeconds = 60.0, double step = 0.002) {
  const auto start = std::chrono::steady_clock::now();
  while (!done()) {
    if (std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count() > limitSeconds)
      return false;
    Platform::doEventLoopInWaitfor(step);
  }
  return true;
}

// Sends one command and reads the whole answer.
inline std::string ask(const String& address, std::string_view command) {
  Client c(address);
  EXPECT_TRUE(c.connected()) << std::strerror(c.connectErrno());
  c.send(command);
  EXPECT_TRUE(driveUntil([&] { return c.pump(); }));
  EXPECT_EQ(0, c.readErrno()) << std::strerror(c.readErrno());
  return c.received();
}

// A task that does nothing but count its runs, for reports to show.
class Idle : public Task {
public:
  Idle(Ptr<TaskScheduler> s, TaskPriority p, const String& name) : Task(std::move(s), p, name) {}
  void taskExecute() override { ++runs; }
  static void operator delete(void* p) { ::operator delete(p); }
  unsigned runs = 0;
};

// A private root for each test, so that tasks of one test never show in the
// report of another; a unique endpoint name for each, so that two test
// processes on one machine never collide.
inline String uniqueName(const char* base) {
  static unsigned serial = 0;
  return String(std::string(base) + "-" + std::to_string(++serial));
}

// Counts open descriptors of this process.
inline int openDescriptorCount() {
  int count = 0;
  for (int fd = 0; fd < 4096; ++fd)
    if (::fcntl(fd, F_GETFD) != -1)
      ++count;
  return count;
}

} // namespace EndpointTest
