// Finding the holder of a unix socket among many.
//
// - ProcInspect/readSocketPid: one readSocketPid() per iteration for an
//   abstract unix socket that this process bound last, with 10,000 other
//   unix sockets (5,000 socketpairs) open in this process. A lookup reads
//   all of /proc/net/unix (10,000 lines and more) and then the descriptor
//   table of each process in /proc's order, stat()ing every descriptor;
//   /proc/self is read before the numbered entries and the bound socket has
//   the highest descriptor, so all 10,000 descriptors of this process are
//   stat()ed before the match. Every lookup must answer this process's pid
//   or the run fails.
//
// RLIMIT_NOFILE is raised to its hard limit for the sockets; the run fails
// when that is not enough.
#include <Kesto/Debug/DebugHandler.h>
#include <Kesto/Util/ProcInspect.h>

#include <benchmark/benchmark.h>

#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr int socketPairs = 5000;

// The sockets of the run, opened at the first use and held to the end.
class Sockets {
public:
  Sockets() {
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
    for (int i = 0; i < socketPairs; ++i) {
      int pair[2];
      if (::socketpair(AF_UNIX, SOCK_STREAM, 0, pair) != 0) {
        error_ = "socketpair failed at pair " + std::to_string(i) + ": " + std::strerror(errno);
        return;
      }
      fds_.push_back(pair[0]);
      fds_.push_back(pair[1]);
    }
    name_ = "kesto-bench-owner-" + std::to_string(::getpid());
    listener_ = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path + 1, name_.data(), name_.size());
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name_.size());
    if (listener_ < 0 || ::bind(listener_, reinterpret_cast<sockaddr*>(&address), length) != 0)
      error_ = std::string("bind failed: ") + std::strerror(errno);
  }
  ~Sockets() {
    for (int fd : fds_)
      ::close(fd);
    if (listener_ >= 0)
      ::close(listener_);
  }

  const std::string& error() const { return error_; }
  const std::string& name() const { return name_; }

private:
  std::vector<int> fds_;
  int listener_ = -1;
  std::string name_;
  std::string error_;
};

void readSocketPid(benchmark::State& state) {
  static Sockets sockets;
  if (!sockets.error().empty()) {
    state.SkipWithError(sockets.error().c_str());
    return;
  }
  auto handler = Kesto::Platform::getDebugHandler("ProcInspectBench");
  const Kesto::String name(sockets.name());
  const auto self = static_cast<Kesto::U32>(::getpid());
  for (auto _ : state) {
    const Kesto::U32 owner = Kesto::Util::readSocketPid(*handler, name);
    if (owner != self) {
      state.SkipWithError(("found owner " + std::to_string(owner) + " instead of " + std::to_string(self)).c_str());
      return;
    }
    benchmark::DoNotOptimize(owner);
  }
  state.counters["sockets"] = 2 * socketPairs;
}

} // namespace

BENCHMARK(readSocketPid)->Name("ProcInspect/readSocketPid")->Unit(benchmark::kMillisecond)->UseRealTime();

BENCHMARK_MAIN();
