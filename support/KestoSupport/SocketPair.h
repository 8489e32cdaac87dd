// A connected socket pair for tests and benchmarks alike: it needs nothing
// of GoogleTest, so a benchmark can use it too.
#pragma once

#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>

namespace Kesto::PlatformTest {

// A connected pair of UNIX stream sockets, closed at the end of the scope.
class SocketPair {
public:
  SocketPair() {
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds_) != 0)
      throw std::runtime_error("socketpair failed");
  }
  ~SocketPair() {
    for (int fd : fds_)
      if (fd >= 0)
        close(fd);
  }
  int ours() const { return fds_[0]; }
  int peer() const { return fds_[1]; }
  void sendToOurs(const char* text) const {
    const ssize_t n = ::write(fds_[1], text, strlen(text));
    if (n < 0)
      throw std::runtime_error("write failed");
  }

private:
  int fds_[2];
};

} // namespace Kesto::PlatformTest
