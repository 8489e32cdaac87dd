// Each control served by a task against its libevent twin, in one process on
// the thread's one base:
//
//  - CallbackRoundTrip: a callback that requests the next one, a batch of
//    them; libevent: a zero-delay timer event per request; task: a Task on
//    the root's run queue and one root pass per callback.
//  - ZeroTimer: a timer handler that arms its control again with a delay of
//    0.0; libevent: a zero-delay timer event; task: setTimeout(0.0) queues the
//    TimerTask at once, so no timer is involved at all.
//  - FdRoundTrip: a one-byte ping-pong over a socket pair; the measured
//    control watches our end, reads the byte and writes one back; the peer is
//    a libevent descriptor control in both cases.
//
// Every batch checks that all its callbacks, timeouts or bytes arrived; one
// that did not fails the benchmark. Reported: time per item (callback,
// timeout, round trip) as items_per_second.
#include <KestoSupport/BenchRepetitions.h>
#include <KestoSupport/SocketPair.h>

#include <Kesto/Platform/Platform.h>
#include <Kesto/Scheduler/TaskCallbackControl.h>
#include <Kesto/Scheduler/TaskFdControl.h>
#include <Kesto/Scheduler/TaskSchedulerRoot.h>
#include <Kesto/Scheduler/TaskTimerControl.h>

#include <benchmark/benchmark.h>

#include <unistd.h>

using namespace Kesto;
using Kesto::PlatformTest::SocketPair;

namespace {

constexpr int batch = 10000;

enum Backend { libevent = 0, task = 1 };

class Chain : public Platform::CallbackHandler, public Platform::TimeoutHandler {
public:
  void callback() override {
    if (++count < batch)
      callbackControl->requestCallback();
  }
  void timeout() override {
    if (++count < batch)
      timerControl->setTimeout(0.0);
  }
  int count = 0;
  Ptr<Platform::CallbackControl> callbackControl;
  Ptr<Platform::TimerControl> timerControl;
};

void CallbackRoundTrip(benchmark::State& state) {
  Chain chain;
  chain.callbackControl = state.range(0) == task
                              ? Platform::getCallbackControl(&chain, schedulerRootKesto(), TaskPriority::normal,
                                                             "benchCallback")
                              : Platform::getCallbackControl(&chain);
  for (auto _ : state) {
    chain.count = 0;
    chain.callbackControl->requestCallback();
    Platform::doEventLoop();
    if (chain.count != batch) {
      state.SkipWithError("callbacks lost");
      break;
    }
  }
  state.SetItemsProcessed(state.iterations() * batch);
  state.SetLabel(state.range(0) == task ? "task" : "libevent");
}
BENCHMARK(CallbackRoundTrip)->Arg(libevent)->Arg(task)->Unit(benchmark::kMicrosecond)->Apply(KestoSupport::repeated);

void ZeroTimer(benchmark::State& state) {
  Chain chain;
  chain.timerControl = state.range(0) == task ? Platform::getTimerControl(&chain, schedulerRootKesto(),
                                                                          TaskPriority::normal, "benchTimer")
                                              : Platform::getTimerControl(&chain);
  for (auto _ : state) {
    chain.count = 0;
    chain.timerControl->setTimeout(0.0);
    Platform::doEventLoop();
    if (chain.count != batch) {
      state.SkipWithError("timeouts lost");
      break;
    }
  }
  state.SetItemsProcessed(state.iterations() * batch);
  state.SetLabel(state.range(0) == task ? "task" : "libevent");
}
BENCHMARK(ZeroTimer)->Arg(libevent)->Arg(task)->Unit(benchmark::kMicrosecond)->Apply(KestoSupport::repeated);

// Our end: reads the ping, answers with a pong.
class Echo : public Platform::FdEventHandler {
public:
  void readFdEvent(int fd) override {
    char b;
    while (::read(fd, &b, 1) == 1) {
      ++received;
      if (::write(fd, &b, 1) != 1)
        failed = true;
    }
  }
  void writeFdEvent(int) override {}
  int received = 0;
  bool failed = false;
};

// The peer: sends the next ping for each pong, stops watching after the last.
class Pinger : public Platform::FdEventHandler {
public:
  void readFdEvent(int fd) override {
    char b;
    while (::read(fd, &b, 1) == 1) {
      if (b != 'p')
        failed = true;
      if (++pongs == batch) {
        control->delFd();
        echoControl->delFd();
        return;
      }
      if (::write(fd, "p", 1) != 1)
        failed = true;
    }
  }
  void writeFdEvent(int) override {}
  int pongs = 0;
  bool failed = false;
  Ptr<Platform::FdControl> control;
  Ptr<Platform::FdControl> echoControl;
};

void FdRoundTrip(benchmark::State& state) {
  SocketPair sockets;
  Echo echo;
  Pinger pinger;
  Ptr<Platform::FdControl> echoControl =
      state.range(0) == task
          ? Platform::getFdControl(&echo, schedulerRootKesto(), TaskPriority::normal, "benchEcho")
          : Platform::getFdControl(&echo);
  pinger.control = Platform::getFdControl(&pinger);
  pinger.echoControl = echoControl;
  for (auto _ : state) {
    pinger.pongs = 0;
    echo.received = 0;
    echoControl->setFd(sockets.ours());
    pinger.control->setFd(sockets.peer());
    if (::write(sockets.peer(), "p", 1) != 1)
      state.SkipWithError("write failed");
    Platform::doEventLoop();
    if (pinger.pongs != batch || echo.received != batch || pinger.failed || echo.failed) {
      state.SkipWithError("round trips lost");
      break;
    }
  }
  pinger.echoControl = nullptr;
  state.SetItemsProcessed(state.iterations() * batch);
  state.SetLabel(state.range(0) == task ? "task" : "libevent");
}
BENCHMARK(FdRoundTrip)->Arg(libevent)->Arg(task)->Unit(benchmark::kMicrosecond)->Apply(KestoSupport::repeated);

} // namespace

BENCHMARK_MAIN();
