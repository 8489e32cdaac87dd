#include "AgentClient.h"

#include "Usage.h"

#include <Kesto/Core/String.h>
#include <Kesto/Debug/Trace.h>
#include <Kesto/Util/Socket.h>

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstring>

namespace Kesto::Cmd {

volatile std::sig_atomic_t stopRequested = 0;

namespace {

// Closes the descriptor on every way out of a request.
class Descriptor {
public:
  explicit Descriptor(int fd) : fd_(fd) {}
  ~Descriptor() {
    if (fd_ >= 0)
      ::close(fd_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int get() const noexcept { return fd_; }

private:
  int fd_;
};

void setTimeout(int fd, int option, double seconds) {
  timeval limit{};
  limit.tv_sec = time_t(seconds);
  limit.tv_usec = suseconds_t((seconds - std::floor(seconds)) * 1e6);
  (void)::setsockopt(fd, SOL_SOCKET, option, &limit, sizeof limit);
}

// After EINTR: go on, unless the signal asked the command to stop.
void checkInterrupted() {
  if (stopRequested)
    throw Interrupted{};
}

} // namespace

std::string askAgent(const AgentEntry& agent, std::string_view command) {
  const std::string label = agentLabel(agent);
  Descriptor socket(Util::socket(*Debug::kestoUtil, AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (socket.get() < 0)
    agentFailure("cannot make a socket to reach {}: {}", label, std::strerror(errno));
  // A unix socket's connect() and writes wait at most SO_SNDTIMEO, reads at
  // most SO_RCVTIMEO, for progress.
  setTimeout(socket.get(), SO_SNDTIMEO, answerTimeout);
  setTimeout(socket.get(), SO_RCVTIMEO, answerTimeout);

  sockaddr_un address{};
  const unsigned length = Util::createSockaddr(*Debug::kestoUtil, &address, String(agent.address));
  while (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), socklen_t(length)) != 0) {
    if (errno == EINTR) {
      checkInterrupted();
      continue;
    }
    if (errno == EAGAIN)
      agentFailure("cannot reach {}: its endpoint accepted no connection within {} s", label, answerTimeout);
    if (errno == ECONNREFUSED || errno == ENOENT)
      agentFailure("cannot reach {}: its endpoint is gone", label);
    agentFailure("cannot reach {}: {}", label, std::strerror(errno));
  }

  const std::string line = std::string(command) + '\n';
  std::size_t sent = 0;
  while (sent < line.size()) {
    // MSG_NOSIGNAL: an agent that closes early is a failure to report, not
    // a reason for SIGPIPE to end the command.
    const ssize_t n = ::send(socket.get(), line.data() + sent, line.size() - sent, MSG_NOSIGNAL);
    if (n < 0) {
      if (errno == EINTR) {
        checkInterrupted();
        continue;
      }
      if (errno == EAGAIN)
        agentFailure("{} took no command within {} s", label, answerTimeout);
      if (errno != EPIPE && errno != ECONNRESET)
        agentFailure("cannot send the command to {}: {}", label, std::strerror(errno));
      break; // the agent closed early; its answer, if any, says why
    }
    sent += std::size_t(n);
  }
  (void)::shutdown(socket.get(), SHUT_WR);

  std::string answer;
  char buffer[65536];
  for (;;) {
    const ssize_t n = ::read(socket.get(), buffer, sizeof buffer);
    if (n > 0) {
      answer.append(buffer, std::size_t(n));
      continue;
    }
    if (n == 0)
      break;
    if (errno == EINTR) {
      checkInterrupted();
      continue;
    }
    if (errno == EAGAIN)
      agentFailure("{} sent nothing for {} s", label, answerTimeout);
    if (errno == ECONNRESET)
      break; // closed without reading all of our line: whatever came stands
    agentFailure("cannot read the answer of {}: {}", label, std::strerror(errno));
  }
  if (answer.empty())
    agentFailure("{} closed the connection without an answer", label);
  if (answer.rfind("error: ", 0) == 0) {
    const std::size_t end = answer.find('\n');
    agentFailure("{}: {}", label, answer.substr(0, end));
  }
  return answer;
}

} // namespace Kesto::Cmd
