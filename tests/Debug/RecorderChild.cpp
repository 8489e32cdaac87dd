// Helper of the flight recorder tests: a process that turns the recorder
// on, runs a first task to completion, then dies inside a second one.
//
//   debug_recorder_child segv        null dereference in the task
//   debug_recorder_child abort       abort() in the task
//   debug_recorder_child assert      a failed library assertion in the task
//   debug_recorder_child throw       std::runtime_error out of taskExecute()
//   debug_recorder_child chain       as segv, with an application SIGSEGV
//                                    handler installed before the recorder
//   debug_recorder_child chain-abort as chain, the application's handler
//                                    itself calling abort()
//
// The tasks run on the thread's shared root, "main". No core file is
// written: the limit is set to 0 first, which leaves the exit status as the
// signal made it.
#include <Kesto/Debug/FlightRecorder.h>
#include <Kesto/Debug/Trace.h>
#include <Kesto/Platform/Platform.h>
#include <Kesto/Scheduler/Task.h>
#include <Kesto/Scheduler/TaskSchedulerRoot.h>

#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>

using namespace Kesto;

namespace {

std::string mode;

// The undefined-behaviour sanitizer would report the null load and abort
// before the fault; the fault itself is what is under test.
[[gnu::noinline]] __attribute__((no_sanitize("undefined"))) int readThrough(volatile int* p) { return *p; }

class Crasher : public Task {
public:
  Crasher(Ptr<TaskScheduler> s) : Task(std::move(s), TaskPriority::normal, "crasher") {}
  void taskExecute() override {
    if (mode == "segv" || mode == "chain" || mode == "chain-abort") {
      volatile int* nowhere = nullptr;
      std::printf("%d\n", readThrough(nowhere));
    } else if (mode == "abort") {
      std::abort();
    } else if (mode == "assert") {
      KESTO_ASSERT(mode.empty(), "RecorderChild", "mode.empty() with mode {}", mode);
    } else if (mode == "throw") {
      throw std::runtime_error("thrown out of the task");
    }
  }
  static void operator delete(void* p) { ::operator delete(p); }
};

class Warmup : public Task {
public:
  Warmup(Ptr<TaskScheduler> s) : Task(std::move(s), TaskPriority::high, "warmup") {}
  void taskExecute() override {}
  static void operator delete(void* p) { ::operator delete(p); }
};

void applicationHandler(int signal) {
  static const char text[] = "application handler called\n";
  ssize_t ignored = ::write(2, text, sizeof text - 1);
  (void)ignored;
  if (mode == "chain-abort")
    std::abort();
  (void)signal;
}

} // namespace

int main(int argc, char** argv) {
  mode = argc > 1 ? argv[1] : "";
  rlimit noCore{0, 0};
  ::setrlimit(RLIMIT_CORE, &noCore);
  if (mode == "chain" || mode == "chain-abort")
    ::signal(SIGSEGV, &applicationHandler);
  FlightRecorder::enabledIs(true);

  Ptr<TaskSchedulerRoot> root = schedulerRootKesto();
  Ptr<Task> warmup(new Warmup(root));
  warmup->scheduleTask();
  Platform::doEventLoop();
  Ptr<Task> crasher(new Crasher(root));
  crasher->scheduleTask();
  Platform::doEventLoop();
  std::fprintf(stderr, "unknown mode %s\n", mode.c_str());
  return 2;
}
