#include <Kesto/Report/AgentEndpoint.h>

#include <Kesto/Debug/DebugHandler.h>
#include <Kesto/Debug/Trace.h>
#include <Kesto/Report/TaskSchedulerSnapshot.h>
#include <Kesto/Scheduler/FileDescriptorTask.h>
#include <Kesto/Scheduler/TaskSchedulerRoot.h>
#include <Kesto/Scheduler/TimerTask.h>
#include <Kesto/Util/Socket.h>

#include "Report/AgentEndpointLatency.h"
#include "Report/AgentEndpointName.h"
#include "Report/AgentEndpointTimeline.h"
#include "Report/SigpipeBlock.h"

#include <fmt/format.h>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <functional>
#include <optional>
#include <string>

// The helpers below are nested in an exported class, whose visibility they
// would inherit; they are the endpoint's business alone.
#define KESTO_ENDPOINT_INTERNAL __attribute__((visibility("hidden")))

namespace Kesto {

namespace {

constexpr const char* className = "Kesto::AgentEndpoint";

// How often a client waiting for "stats reset" looks again. The reset walk
// runs at normal, above the endpoint's default low, so the first look
// usually finds it done; a scheduler of a hundred thousand tasks takes a few
// passes of 20 ms quanta, which a 1 ms poll follows closely enough.
constexpr double resetPollSeconds = 0.001;
// A reset that waits for a suspended group can last as long as the
// suspension: the poll slows down by doubling, up to ten times a second.
constexpr double resetPollSecondsMax = 0.1;

// At most this much unread input is taken off a socket before it is closed:
// closing a unix socket with unread input turns the peer's end of file into
// ECONNRESET, so what a client sent beyond its line is read and dropped
// first. 64 KiB covers a command of 4 KiB and generous trailing junk; a
// client that sends more gets the reset.
constexpr std::size_t drainLimit = 64 * 1024;

Platform::DebugHandler& endpointTrace() {
  // Made at first use; the start-up wildcard "Kesto*/01" gives it levels 0
  // and 1, so refusals are traced by default.
  static Ptr<Platform::DebugHandler> handler = Platform::getDebugHandler("KestoAgentEndpoint");
  return *handler;
}

void drainAndClose(int fd) {
  char buffer[4096];
  std::size_t taken = 0;
  while (taken < drainLimit) {
    const ssize_t n = ::recv(fd, buffer, sizeof(buffer), MSG_DONTWAIT);
    if (n <= 0)
      break;
    taken += std::size_t(n);
  }
  ::close(fd);
}

// A line to a client that is turned away at accept: its socket is new and
// its send buffer empty, so a line of under 100 bytes always goes in one
// send. MSG_NOSIGNAL: the peer may already be gone.
void refuseAndClose(int fd, std::string_view line) {
  (void)::send(fd, line.data(), line.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  drainAndClose(fd);
}

const char* helpText() {
  return "show agent task scheduler [match REGEX] [json] [flat] [addresses] [no-history] [no-completed] [all]\n"
         "show agent task latency [N]\n"
         "show agent task timeline\n"
         "trace LEVELS\n"
         "trace clear LEVELS\n"
         "reset stats\n"
         "help\n";
}

std::vector<std::string_view> splitWords(std::string_view line) {
  std::vector<std::string_view> words;
  std::size_t i = 0;
  while (i < line.size()) {
    while (i < line.size() && (line[i] == ' ' || line[i] == '\t'))
      ++i;
    std::size_t j = i;
    while (j < line.size() && line[j] != ' ' && line[j] != '\t')
      ++j;
    if (j > i)
      words.push_back(line.substr(i, j - i));
    i = j;
  }
  return words;
}

// What a show command asks for.
struct ShowRequest {
  bool json = false;
  bool flat = false;
  bool addresses = false;
  bool history = true;
  bool completed = true;
  bool all = false;
  String regex;
};

// The options behind "show agent task scheduler"; an error line if one is
// not understood.
std::optional<std::string> parseShow(const std::vector<std::string_view>& words, ShowRequest& request) {
  for (std::size_t i = 4; i < words.size(); ++i) {
    const std::string_view w = words[i];
    if (w == "match") {
      if (i + 1 == words.size())
        return std::string("error: match needs an expression\n");
      request.regex = String(words[++i]);
    } else if (w == "json") {
      request.json = true;
    } else if (w == "flat") {
      request.flat = true;
    } else if (w == "addresses") {
      request.addresses = true;
    } else if (w == "no-history") {
      request.history = false;
    } else if (w == "no-completed") {
      request.completed = false;
    } else if (w == "all") {
      request.all = true;
    } else {
      return fmt::format("error: unknown show option: {}\n", w);
    }
  }
  return std::nullopt;
}

// The rest of the line behind its first `skip` words.
std::string_view restAfter(std::string_view line, std::size_t skip) {
  std::size_t i = 0;
  for (std::size_t w = 0; w < skip; ++w) {
    while (i < line.size() && (line[i] == ' ' || line[i] == '\t'))
      ++i;
    while (i < line.size() && line[i] != ' ' && line[i] != '\t')
      ++i;
  }
  while (i < line.size() && (line[i] == ' ' || line[i] == '\t'))
    ++i;
  std::size_t end = line.size();
  while (end > i && (line[end - 1] == ' ' || line[end - 1] == '\t'))
    --end;
  return line.substr(i, end - i);
}

// A command echoed in an error line is cut short: the line is for a human.
std::string_view shortened(std::string_view text) { return text.substr(0, 80); }

} // namespace

// A timer task that calls its owner back; the owner clears `fired` before
// it goes, so a run that is already queued does nothing.
class KESTO_ENDPOINT_INTERNAL AgentEndpoint::ClientTimer : public TimerTask {
public:
  ClientTimer(TaskScheduler* scheduler, TaskPriority priority, const String& name)
      : TimerTask(scheduler, priority, name) {}
  void taskExecute() override {
    if (fired)
      fired();
  }
  static void operator delete(void* p) { ::operator delete(p); }

  std::function<void()> fired;
};

// Accepts connections while the listening socket is readable, a quantum at
// a time.
class KESTO_ENDPOINT_INTERNAL AgentEndpoint::Listener : public FileDescriptorTask {
public:
  Listener(AgentEndpoint* endpoint, int fd)
      : FileDescriptorTask(endpoint->root_.get(), endpoint->options_.priority,
                           String(fmt::format("AgentEndpoint-{}", endpoint->options_.name.view()))),
        endpoint_(endpoint) {
    taskWatchFdIs(fd);
  }
  ~Listener() override {
    if (retry_) {
      retry_->fired = nullptr;
      retry_->stopTimerTask();
    }
  }

  void taskExecuteReadable() override {
    for (;;) {
      if (!endpoint_)
        return;
      const int fd = ::accept4(taskWatchFd(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
      if (fd < 0) {
        const int error = errno;
        if (error == EINTR || error == ECONNABORTED)
          continue;
        if (error == EAGAIN)
          return;
        // Out of descriptors or memory: the socket stays readable, so a
        // level-triggered watch would bring this task back at once, for
        // ever. Pause the watch for 100 ms instead.
        KESTO_TRACE(endpointTrace(), 1, className, "accept on {} failed: {}, pausing 100 ms",
                    endpoint_->address_.view(), std::strerror(error));
        pause();
        return;
      }
      endpoint_->accepted(fd);
      if (taskShouldYield()) {
        scheduleTaskReadable();
        return;
      }
    }
  }
  void taskExecuteWritable() override {}

  void endpointGone() {
    endpoint_ = nullptr;
    taskWatchFdDel();
  }

  static void operator delete(void* p) { ::operator delete(p); }

private:
  void pause() {
    if (!retry_) {
      retry_ = Ptr<ClientTimer>(new ClientTimer(endpoint_->root_.get(), endpoint_->options_.priority,
                                                String(fmt::format("AgentEndpointRetry-{}",
                                                                   endpoint_->options_.name.view()))));
      retry_->fired = [this] { taskWatchReadableIs(true); };
    }
    taskWatchReadableIs(false);
    retry_->scheduleTaskDelay(0.1);
  }

  AgentEndpoint* endpoint_;
  Ptr<ClientTimer> retry_;
};

// One connection, from accept until its answer is written.
//
//   reading       the command line comes in; idle time-out armed
//   answering     a short answer (help, trace, reset, error) goes out
//   waitingReset  resetStats() runs; polled after 1 ms, then ever slower
//   reporting     the show pipeline owns the socket
//
// Every phase ends in finish(), which closes the socket (in reporting, the
// show has closed it) and takes the client off the endpoint's list.
class KESTO_ENDPOINT_INTERNAL AgentEndpoint::Client : public FileDescriptorTask {
public:
  enum class Phase { reading, answering, waitingReset, reporting, ended };

  Client(AgentEndpoint* endpoint, int fd, const ucred& peer)
      : FileDescriptorTask(endpoint->root_.get(), endpoint->options_.priority,
                           String(fmt::format("AgentEndpointClient-fd:{}", fd))),
        endpoint_(endpoint), root_(endpoint->root_), fd_(fd), peer_(peer),
        idleTimeout_(endpoint->options_.idleTimeout), maxCommandLength_(endpoint->options_.maxCommandLength) {
    taskStatsNameIs("AgentEndpointClient");
    timer_ = Ptr<ClientTimer>(new ClientTimer(root_.get(), endpoint->options_.priority,
                                              String(fmt::format("AgentEndpointClientTimer-fd:{}", fd))));
    timer_->taskStatsNameIs("AgentEndpointClientTimer");
    timer_->fired = [this] { timerFired(); };
    input_.reserve(256);
    taskWatchFdIs(fd);
    timer_->scheduleTaskDelay(idleTimeout_);
  }

  ~Client() override {
    timer_->fired = nullptr;
    timer_->stopTimerTask();
    if (phase_ != Phase::reporting && phase_ != Phase::ended && fd_ >= 0) {
      taskWatchFdDel();
      drainAndClose(fd_);
    }
    if (holdsSigpipe_)
      Impl::SigpipeBlock::release();
  }

  Phase phase() const noexcept { return phase_; }

  void taskExecuteReadable() override {
    if (phase_ != Phase::reading)
      return;
    char buffer[1024];
    for (;;) {
      // Room for the longest line and its '\n', and not a byte more.
      const std::size_t room = std::size_t(maxCommandLength_) + 1 - input_.size();
      const ssize_t n = ::recv(fd_, buffer, std::min(room, sizeof(buffer)), MSG_DONTWAIT);
      if (n < 0) {
        if (errno == EINTR)
          continue;
        if (errno == EAGAIN)
          return;
        KESTO_TRACE(endpointTrace(), 5, className, "client fd {} read failed: {}", fd_, std::strerror(errno));
        finish();
        return;
      }
      if (n == 0) {
        // End of file without '\n': a client that shut its side down after
        // an unterminated line still gets its answer; one that sent nothing
        // is gone.
        if (input_.empty()) {
          finish();
          return;
        }
        dispatch(input_);
        return;
      }
      const std::size_t before = input_.size();
      input_.append(buffer, std::size_t(n));
      const std::size_t newline = input_.find('\n', before);
      if (newline != std::string::npos) {
        dispatch(std::string_view(input_).substr(0, newline));
        return;
      }
      if (input_.size() > maxCommandLength_) {
        ++endpoint_->counters_.overlong;
        answer(fmt::format("error: command longer than {} bytes\n", maxCommandLength_));
        return;
      }
      if (taskShouldYield()) {
        scheduleTaskReadable();
        return;
      }
    }
  }

  void taskExecuteWritable() override {
    if (phase_ != Phase::answering)
      return;
    while (written_ < output_.size()) {
      const ssize_t n =
          ::send(fd_, output_.data() + written_, output_.size() - written_, MSG_NOSIGNAL | MSG_DONTWAIT);
      if (n < 0) {
        if (errno == EINTR)
          continue;
        if (errno == EAGAIN) {
          taskWatchWritableIs(true);
          return;
        }
        KESTO_TRACE(endpointTrace(), 5, className, "client fd {} write failed: {}", fd_, std::strerror(errno));
        finish();
        return;
      }
      written_ += std::size_t(n);
      progressed_ = true;
    }
    finish();
  }

  // The endpoint stops: a report is ended by shutting its socket down (its
  // next write fails, or the hang-up wakes its sleeping write task); every
  // other phase ends here.
  void endpointGone() {
    if (phase_ == Phase::reporting) {
      endpoint_ = nullptr;
      timer_->stopTimerTask();
      ::shutdown(fd_, SHUT_RDWR);
      return;
    }
    endpoint_ = nullptr;
    end();
  }

  static void operator delete(void* p) { ::operator delete(p); }

private:
  void dispatch(std::string_view line) {
    if (!line.empty() && line.back() == '\r')
      line.remove_suffix(1);
    ++endpoint_->counters_.commands;
    KESTO_TRACE(endpointTrace(), 5, className, "client fd {} uid {} pid {}: {}", fd_, peer_.uid, peer_.pid,
                shortened(line));
    const std::vector<std::string_view> words = splitWords(line);
    if (words.empty()) {
      answer("error: empty command\n");
      return;
    }
    if (words[0] == "help" && words.size() == 1) {
      answer(helpText());
      return;
    }
    if (words.size() >= 4 && words[0] == "show" && words[1] == "agent" && words[2] == "task" &&
        words[3] == "scheduler") {
      ShowRequest request;
      if (std::optional<std::string> error = parseShow(words, request)) {
        answer(std::move(*error));
        return;
      }
      startReport(request);
      return;
    }
    if (words.size() >= 4 && words[0] == "show" && words[1] == "agent" && words[2] == "task" &&
        words[3] == "latency") {
      answer(Impl::latencyCommandAnswer(*root_, words));
      return;
    }
    if (words.size() == 4 && words[0] == "show" && words[1] == "agent" && words[2] == "task" &&
        words[3] == "timeline") {
      answer(Impl::agentTimelineAnswer(*root_, endpoint_->options_.name));
      return;
    }
    if (words[0] == "trace") {
      const bool clear = words.size() >= 2 && words[1] == "clear";
      const std::string items(restAfter(line, clear ? 2 : 1));
      if (items.empty()) {
        answer(clear ? "error: trace clear needs NAME/LEVELS\n" : "error: trace needs NAME/LEVELS\n");
        return;
      }
      if (clear)
        Platform::clearKestoDebug(items.c_str());
      else
        Platform::setupKestoDebug(items.c_str());
      const String map = Platform::kestoDebugMapText();
      answer(std::string(map.view()));
      return;
    }
    if (words.size() == 2 && words[0] == "reset" && words[1] == "stats") {
      phase_ = Phase::waitingReset;
      taskWatchReadableIs(false);
      root_->resetStats();
      timer_->scheduleTaskDelay(0.0);
      return;
    }
    answer(fmt::format("error: unknown command: {}\n", shortened(line)));
  }

  void answer(std::string text) {
    phase_ = Phase::answering;
    output_ = std::move(text);
    written_ = 0;
    progressed_ = false;
    taskWatchReadableIs(false);
    scheduleTaskWritable();
    timer_->scheduleTaskDelay(idleTimeout_);
  }

  void startReport(const ShowRequest& request) {
    Ptr<TaskSchedulerSnapshot const> snapshot =
        root_->snapshot(String(), request.all, request.completed, request.history, request.regex,
                        TaskScheduler::displayOrderNotSpecified);
    // The show watches the socket from now on, and closes it.
    taskWatchFdDel();
    phase_ = Phase::reporting;
    ++endpoint_->counters_.reports;
    Impl::SigpipeBlock::acquire();
    holdsSigpipe_ = true;
    Ptr<Client> self(this);
    auto ended = [self] { self->reportEnded(); };
    if (request.json)
      root_->snapshotRenderJsonAsync(fd_, {snapshot}, std::move(ended));
    else
      root_->snapshotRenderTextAsync(fd_, {snapshot}, !request.flat, request.addresses, std::move(ended));
    // No stall check here: the socket's queue says how much the reader
    // took only in whole buffers of up to 64 KiB, so a pager that holds
    // the reader still for a minute would look like a dead client. A
    // reader that never reads holds its slot until it goes away or the
    // endpoint stops; maxClients bounds what that costs.
    timer_->stopTimerTask();
  }

  // The show has closed the socket.
  void reportEnded() {
    Ptr<Client> keep(this);
    phase_ = Phase::ended;
    fd_ = -1;
    timer_->stopTimerTask();
    if (holdsSigpipe_) {
      holdsSigpipe_ = false;
      Impl::SigpipeBlock::release();
    }
    if (endpoint_)
      endpoint_->clientEnded(this);
  }

  void timerFired() {
    Ptr<Client> keep(this);
    switch (phase_) {
    case Phase::reading:
      ++endpoint_->counters_.timedOut;
      answer(fmt::format("error: no command within {:g} s\n", idleTimeout_));
      return;
    case Phase::answering:
      // A whole tick without a byte taken: the reader is not reading.
      if (!progressed_) {
        ++endpoint_->counters_.stalled;
        KESTO_TRACE(endpointTrace(), 1, className, "client fd {} uid {} pid {} stopped reading; dropped", fd_,
                    peer_.uid, peer_.pid);
        finish();
        return;
      }
      progressed_ = false;
      timer_->scheduleTaskDelay(idleTimeout_);
      return;
    case Phase::waitingReset:
      if (root_->resetStatsInProgress()) {
        resetPoll_ = std::min(resetPoll_ * 2, resetPollSecondsMax);
        timer_->scheduleTaskDelay(resetPoll_);
        return;
      }
      answer("stats reset\n");
      return;
    case Phase::reporting:
    case Phase::ended:
      return;
    }
  }

  // Closes the socket and leaves the endpoint's list.
  void finish() {
    Ptr<Client> keep(this);
    end();
    if (endpoint_)
      endpoint_->clientEnded(this);
  }

  void end() {
    if (phase_ == Phase::ended)
      return;
    phase_ = Phase::ended;
    timer_->stopTimerTask();
    taskWatchFdDel();
    drainAndClose(fd_);
    fd_ = -1;
  }

  AgentEndpoint* endpoint_;
  Ptr<TaskSchedulerRoot> root_;
  int fd_;
  ucred peer_;
  double idleTimeout_;
  U32 maxCommandLength_;
  Phase phase_ = Phase::reading;
  Ptr<ClientTimer> timer_;
  std::string input_;
  std::string output_;
  std::size_t written_ = 0;
  bool progressed_ = false;
  bool holdsSigpipe_ = false;
  double resetPoll_ = resetPollSeconds / 2;
};

AgentEndpoint::AgentEndpoint(Ptr<TaskSchedulerRoot> root, Options options)
    : root_(std::move(root)), options_(std::move(options)) {}

Ptr<AgentEndpoint> AgentEndpoint::start(Ptr<TaskSchedulerRoot> root, Options options) {
  Platform::DebugHandler& trace = endpointTrace();
  if (!root)
    KESTO_THROW(trace, className, "agent endpoint needs a root scheduler");
  root->sanityCheckCurrentRunningThread();
  if (const char* problem = Impl::agentEndpointNameProblem(options.name.view()))
    KESTO_THROW(trace, className, "agent endpoint name {}", problem);
  if (!options.priority.isValid() || options.priority == TaskPriority::critical)
    KESTO_THROW(trace, className, "agent endpoint priority must be one of absolute to scavenge, not {}",
                unsigned(options.priority.value()));
  if (options.maxClients == 0)
    KESTO_THROW(trace, className, "agent endpoint needs maxClients of at least 1");
  if (!std::isfinite(options.idleTimeout) || options.idleTimeout <= 0.0)
    KESTO_THROW(trace, className, "agent endpoint idleTimeout must be positive and finite, not {}",
                options.idleTimeout);
  if (options.maxCommandLength == 0)
    KESTO_THROW(trace, className, "agent endpoint needs maxCommandLength of at least 1");

  Ptr<AgentEndpoint> endpoint(new AgentEndpoint(std::move(root), std::move(options)));
  endpoint->address_ = agentEndpointAddress(endpoint->options_.name, ::getpid());
  const int fd = Util::socket(trace, AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0)
    KESTO_THROW(trace, className, "agent endpoint {}: socket() failed", endpoint->address_.view());
  sockaddr_un address;
  const unsigned int length = Util::createSockaddr(trace, &address, endpoint->address_);
  if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), length) != 0) {
    const int error = errno;
    ::close(fd);
    KESTO_THROW(trace, className, "agent endpoint {}: bind() failed: {}", endpoint->address_.view(),
                std::strerror(error));
  }
  if (::listen(fd, listenBacklog) != 0) {
    const int error = errno;
    ::close(fd);
    KESTO_THROW(trace, className, "agent endpoint {}: listen() failed: {}", endpoint->address_.view(),
                std::strerror(error));
  }
  endpoint->listenFd_ = fd;
  Impl::SigpipeBlock::acquire();
  endpoint->holdsSigpipeBlock_ = true;
  endpoint->listener_ = Ptr<Listener>(new Listener(endpoint.get(), fd));
  KESTO_TRACE(trace, 2, className, "listening on @{} at priority {}", endpoint->address_.view(),
              endpoint->options_.priority.toStrep());
  return endpoint;
}

AgentEndpoint::~AgentEndpoint() { stop(); }

void AgentEndpoint::stop() {
  if (listenFd_ < 0)
    return;
  root_->sanityCheckCurrentRunningThread();
  listener_->endpointGone();
  listener_ = nullptr;
  ::close(listenFd_);
  listenFd_ = -1;
  // Each client leaves the list on its own only through clientEnded(),
  // which no longer finds it once endpointGone() has cut the link.
  std::vector<Ptr<Client>> clients;
  clients.swap(clients_);
  for (const Ptr<Client>& client : clients)
    client->endpointGone();
  clients.clear();
  if (holdsSigpipeBlock_) {
    holdsSigpipeBlock_ = false;
    Impl::SigpipeBlock::release();
  }
  KESTO_TRACE(endpointTrace(), 2, className, "stopped listening on @{}", address_.view());
}

void AgentEndpoint::accepted(int fd) {
  ucred peer{};
  socklen_t length = sizeof(peer);
  if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0) {
    KESTO_TRACE(endpointTrace(), 1, className, "access refused on @{}: no peer credentials: {}", address_.view(),
                std::strerror(errno));
    ++counters_.refusedAccess;
    refuseAndClose(fd, "error: access refused (no peer credentials)\n");
    return;
  }
  if (peer.uid != ::geteuid() && peer.uid != 0) {
    KESTO_TRACE(endpointTrace(), 1, className, "access refused for uid {} (pid {}) on @{}", peer.uid, peer.pid,
                address_.view());
    ++counters_.refusedAccess;
    refuseAndClose(fd, fmt::format("error: access refused for uid {}\n", peer.uid));
    return;
  }
  if (clients_.size() >= options_.maxClients) {
    KESTO_TRACE(endpointTrace(), 1, className, "client uid {} pid {} turned away on @{}: {} clients", peer.uid,
                peer.pid, address_.view(), clients_.size());
    ++counters_.refusedBusy;
    refuseAndClose(fd, fmt::format("error: too many clients ({})\n", options_.maxClients));
    return;
  }
  ++counters_.accepted;
  clients_.push_back(Ptr<Client>(new Client(this, fd, peer)));
}

void AgentEndpoint::clientEnded(Client* client) {
  auto it = std::find_if(clients_.begin(), clients_.end(),
                         [client](const Ptr<Client>& c) { return c.get() == client; });
  if (it != clients_.end())
    clients_.erase(it);
}

} // namespace Kesto
