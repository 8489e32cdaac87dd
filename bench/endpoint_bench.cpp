// The agent endpoint, end to end on one thread: a client connects to the
// abstract address, sends one line and reads until the server closes, while
// the event loop serves the endpoint's tasks.
//
//  - HelpRoundTrip: connect, "help", the answer, close: the fixed cost of a
//    command (accept, peer check, two tasks, a timer).
//  - ReportRoundTrip: "show agent task scheduler all no-history" of a root
//    with 1000 tasks (some 130 KB of text): snapshot, show task, writes.
//  - SigtimedwaitNothingPending: what the endpoint adds to every report
//    for SIGPIPE, one zero-time sigtimedwait on a blocked, not pending,
//    signal; beside it MaskBlockUnblock, the pair of pthread_sigmask calls
//    made once per endpoint's life.
//
// Every round trip checks its answer (length of the help text, the last
// task's line in the report); a wrong answer fails the benchmark.
#include <KestoSupport/BenchRepetitions.h>

#include <Kesto/Platform/Platform.h>
#include <Kesto/Report/AgentEndpoint.h>
#include <Kesto/Scheduler/Task.h>
#include <Kesto/Scheduler/TaskSchedulerRoot.h>

#include <benchmark/benchmark.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <ctime>
#include <pthread.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <thread>
#include <vector>

using namespace Kesto;

namespace {

class Idle : public Task {
public:
  Idle(Ptr<TaskScheduler> s, const String& name) : Task(std::move(s), TaskPriority::normal, name) {}
  void taskExecute() override {}
  static void operator delete(void* p) { ::operator delete(p); }
};

// One command through a fresh connection, made by a client thread with
// blocking calls while this thread turns the event loop; the whole answer.
std::string roundTrip(const String& address, std::string_view command) {
  std::atomic<bool> done{false};
  std::string answer;
  std::thread client([&] {
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    std::memcpy(a.sun_path + 1, address.data(), address.size());
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&a),
                  socklen_t(offsetof(sockaddr_un, sun_path) + 1 + address.size())) == 0) {
      (void)::send(fd, command.data(), command.size(), MSG_NOSIGNAL);
      char buffer[65536];
      ssize_t n;
      while ((n = ::recv(fd, buffer, sizeof(buffer), 0)) > 0)
        answer.append(buffer, std::size_t(n));
    }
    ::close(fd);
    done = true;
  });
  while (!done)
    Platform::doEventLoopInWaitfor(0.0005);
  client.join();
  return answer;
}

struct Agent {
  Agent() {
    root = schedulerRootKestoNonShared("benchRoot");
    for (int i = 0; i < 1000; ++i)
      tasks.push_back(Ptr<Idle>(new Idle(root, String("benchTask" + std::to_string(i)))));
    endpoint = AgentEndpoint::start(root, {.name = String("bench-" + std::to_string(::getpid()))});
  }
  ~Agent() {
    endpoint->stop();
    while (root->snapshotShowCount() != 0)
      Platform::doEventLoopInWaitfor(0.001);
  }
  Ptr<TaskSchedulerRoot> root;
  std::vector<Ptr<Idle>> tasks;
  Ptr<AgentEndpoint> endpoint;
};

void BM_HelpRoundTrip(benchmark::State& state) {
  Agent agent;
  for (auto _ : state) {
    const std::string answer = roundTrip(agent.endpoint->address(), "help\n");
    if (answer.rfind("show agent task scheduler", 0) != 0 || answer.size() != 145) {
      state.SkipWithError(("wrong answer: " + answer).c_str());
      break;
    }
  }
}
BENCHMARK(BM_HelpRoundTrip)->Apply(KestoSupport::repeated)->Unit(benchmark::kMicrosecond);

void BM_ReportRoundTrip(benchmark::State& state) {
  Agent agent;
  std::size_t bytes = 0;
  for (auto _ : state) {
    const std::string answer = roundTrip(agent.endpoint->address(), "show agent task scheduler all no-history\n");
    if (answer.find("\nbenchTask999 ") == std::string::npos) {
      state.SkipWithError("report without its last task");
      break;
    }
    bytes += answer.size();
  }
  state.SetBytesProcessed(int64_t(bytes));
}
BENCHMARK(BM_ReportRoundTrip)->Apply(KestoSupport::repeated)->Unit(benchmark::kMicrosecond);

void BM_SigtimedwaitNothingPending(benchmark::State& state) {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  const timespec zero{0, 0};
  for (auto _ : state) {
    if (sigtimedwait(&set, nullptr, &zero) != -1 || errno != EAGAIN) {
      state.SkipWithError("a SIGPIPE was pending");
      break;
    }
  }
  pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}
BENCHMARK(BM_SigtimedwaitNothingPending)->Apply(KestoSupport::repeated);

void BM_MaskBlockUnblock(benchmark::State& state) {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGPIPE);
  for (auto _ : state) {
    sigset_t previous;
    pthread_sigmask(SIG_BLOCK, &set, &previous);
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    if (sigismember(&previous, SIGPIPE)) {
      state.SkipWithError("SIGPIPE was blocked already");
      break;
    }
  }
}
BENCHMARK(BM_MaskBlockUnblock)->Apply(KestoSupport::repeated);

} // namespace

BENCHMARK_MAIN();
