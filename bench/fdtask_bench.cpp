// A descriptor task echoing messages over a socket pair, against a bare
// libevent read callback doing the same, both on the thread's one base.
//
//  - BareEcho: a persistent libevent read event on our end whose callback
//    reads the message and writes it back.
//  - TaskEcho: a FileDescriptorTask on our end whose taskExecuteReadable()
//    reads the message and writes it back: descriptor event, run queue, the
//    root's pass, the read task's run.
//  - TaskEchoViaWriteTask: the read run keeps the message and asks for the
//    write watch; the write task sends it back (two runs and two descriptor
//    events per message).
//
// The peer is the same for all three: a bare libevent read event on the
// other end that checks each echo against what it sent, then sends the next
// message; after the batch it breaks the loop. A batch whose echoes did not
// all come back intact fails the benchmark.
//
// Reported: msgs_per_s for each, and at the end the ratio of the best
// TaskEcho and TaskEchoViaWriteTask rates to the best BareEcho rate.
#include <KestoSupport/SocketPair.h>

#include <Kesto/Scheduler/FileDescriptorTask.h>
#include <Kesto/Platform/Libevent.h>
#include <Kesto/Platform/Platform.h>
#include <Kesto/Scheduler/TaskSchedulerRoot.h>

#include <benchmark/benchmark.h>
#include <event2/event.h>
#include <event2/event_struct.h>

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <stdexcept>

using namespace Kesto;
using Kesto::PlatformTest::SocketPair;

namespace {

constexpr U64 batch = 20000;
constexpr std::size_t messageSize = 64;

// Best rates seen, messages per second, for the closing comparison.
double bestBare = 0.0;
double bestTask = 0.0;
double bestTaskViaWrite = 0.0;

// The other end: sends a numbered message, expects it back whole, sends the
// next, breaks the loop after the last.
class Peer {
public:
  explicit Peer(int fd) : fd_(fd) {
    leInit();
    event_assign(&event_, ev_base, fd_, EV_READ | EV_PERSIST, &Peer::readable, this);
    eventPrioritySet(&event_, Platform::eventPriorityDefault);
    event_add(&event_, nullptr);
  }
  ~Peer() { event_del(&event_); }

  void start(U64 messages) {
    left_ = messages;
    echoed_ = 0;
    failed_ = false;
    send();
  }
  U64 echoed() const { return echoed_; }
  bool failed() const { return failed_; }

private:
  void send() {
    std::memset(sent_, 'm', sizeof sent_);
    std::memcpy(sent_, &left_, sizeof left_);
    if (::write(fd_, sent_, sizeof sent_) != ssize_t(sizeof sent_))
      fail();
    received_ = 0;
  }
  void fail() {
    failed_ = true;
    event_base_loopbreak(ev_base);
  }
  static void readable(evutil_socket_t, short, void* self) {
    auto& p = *static_cast<Peer*>(self);
    const ssize_t n = ::read(p.fd_, p.back_ + p.received_, sizeof p.back_ - p.received_);
    if (n <= 0)
      return;
    p.received_ += std::size_t(n);
    if (p.received_ < sizeof p.back_)
      return;
    if (std::memcmp(p.back_, p.sent_, sizeof p.back_) != 0)
      return p.fail();
    ++p.echoed_;
    if (--p.left_ == 0) {
      event_base_loopbreak(ev_base);
      return;
    }
    p.send();
  }

  int fd_;
  struct event event_;
  char sent_[messageSize];
  char back_[messageSize];
  std::size_t received_ = 0;
  U64 left_ = 0;
  U64 echoed_ = 0;
  bool failed_ = false;
};

// Runs batches until the benchmark stops, checks them, reports the rate.
template <typename Before>
void runBatches(benchmark::State& state, Peer& peer, double& best, Before&& beforeBatch) {
  U64 messages = 0;
  const auto start = std::chrono::steady_clock::now();
  for (auto _ : state) {
    beforeBatch();
    peer.start(batch);
    Platform::doEventLoop();
    if (peer.failed() || peer.echoed() != batch) {
      state.SkipWithError("echoes missing or corrupted");
      return;
    }
    messages += batch;
  }
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  if (seconds > 0.0)
    best = std::max(best, double(messages) / seconds);
  state.counters["msgs_per_s"] = benchmark::Counter(double(messages), benchmark::Counter::kIsRate);
}

// --- bare libevent ----------------------------------------------------------------

void bareEchoReadable(evutil_socket_t fd, short, void*) {
  char buffer[256];
  const ssize_t n = ::read(fd, buffer, sizeof buffer);
  if (n > 0 && ::write(fd, buffer, std::size_t(n)) != n)
    std::abort();
}

void BM_BareEcho(benchmark::State& state) {
  leInit();
  SocketPair sockets;
  evutil_make_socket_nonblocking(sockets.ours());
  struct event echo;
  event_assign(&echo, ev_base, sockets.ours(), EV_READ | EV_PERSIST, bareEchoReadable, nullptr);
  eventPrioritySet(&echo, Platform::eventPriorityDefault);
  event_add(&echo, nullptr);
  {
    Peer peer(sockets.peer());
    runBatches(state, peer, bestBare, [] {});
  }
  event_del(&echo);
}

// --- descriptor tasks -----------------------------------------------------------------

class EchoTask : public FileDescriptorTask {
public:
  EchoTask(Ptr<TaskScheduler> s, bool viaWriteTask)
      : FileDescriptorTask(std::move(s), TaskPriority::normal, "echo"), viaWriteTask_(viaWriteTask) {}

  void taskExecuteReadable() override {
    const ssize_t n = ::read(taskWatchFd(), buffer_, sizeof buffer_);
    if (n <= 0)
      return;
    size_ = std::size_t(n);
    if (viaWriteTask_)
      taskWatchWritableIs(true);
    else
      writeBack();
  }
  void taskExecuteWritable() override { writeBack(); }

  static void operator delete(void* p) { ::operator delete(p); }

private:
  void writeBack() {
    if (::write(taskWatchFd(), buffer_, size_) != ssize_t(size_))
      std::abort();
  }

  bool viaWriteTask_;
  char buffer_[256];
  std::size_t size_ = 0;
};

void taskEcho(benchmark::State& state, bool viaWriteTask, double& best) {
  Ptr<TaskSchedulerRoot> root = TaskSchedulerRoot::TaskSchedulerRootIs("bench");
  SocketPair sockets;
  Ptr<EchoTask> task(new EchoTask(root, viaWriteTask));
  task->taskWatchFdIs(sockets.ours());
  {
    Peer peer(sockets.peer());
    runBatches(state, peer, best, [] {});
  }
  state.counters["runs_per_msg"] =
      double(task->taskRunCount()) / double(std::max<U64>(1, batch * U64(state.iterations())));
  task->taskWatchFdDel();
  // The pass chain ends with its empty pass.
  Platform::doEventLoop();
}

void BM_TaskEcho(benchmark::State& state) { taskEcho(state, false, bestTask); }
void BM_TaskEchoViaWriteTask(benchmark::State& state) { taskEcho(state, true, bestTaskViaWrite); }

} // namespace

BENCHMARK(BM_BareEcho)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_TaskEcho)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_TaskEchoViaWriteTask)->Unit(benchmark::kMillisecond);

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv))
    return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  if (bestBare > 0.0) {
    std::printf("best msgs/s: bare %.0f, task %.0f, task via write task %.0f\n", bestBare, bestTask,
                bestTaskViaWrite);
    if (bestTask > 0.0)
      std::printf("task / bare: %.3f\n", bestTask / bestBare);
    if (bestTaskViaWrite > 0.0)
      std::printf("task via write task / bare: %.3f\n", bestTaskViaWrite / bestBare);
  }
  return 0;
}
