// The tracing facility at work, on its own.
//
// Run with no arguments it starts itself again once per scenario, each time
// with other TRACE / TRACEFORMAT values, and prints a heading before each
// run, so that one can see what the environment changes in the output:
//
//   trace_demo              all scenarios, one after the other
//   trace_demo --run        one run under the current environment
//
// The traced object is a class holding its own handler ("Demo").
#include <Kesto/EventKesto.h>

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

extern char** environ;

namespace {

class DemoAgent : public Kesto::Debuggable {
public:
  DemoAgent() : Kesto::Debuggable(Kesto::String("Demo"), false) {}

  int run() {
    KESTO_TRACE(*this, 0, "DemoAgent", "level 0: failures are traced here");
    KESTO_TRACE(*this, 1, "DemoAgent", "level 1: so are warnings");
    KESTO_TRACE(*this, 2, "DemoAgent", "level 2: set-up step {} of {}", 1, 2);
    KESTO_TRACE(*this, 5, "DemoAgent", "level 5: flow, waited {}", std::chrono::nanoseconds(1500000));
    KESTO_TRACE(*this, 9, "DemoAgent", "level 9: detail at {}", Kesto::DisplayPointer(this));

    // Trace settings can also change at run time.
    Kesto::Platform::setupKestoDebug("Demo/7");
    KESTO_TRACE(*this, 7, "DemoAgent", "level 7: enabled at run time by setupKestoDebug(\"Demo/7\")");
    Kesto::Platform::clearKestoDebug("Demo/7");
    KESTO_TRACE(*this, 7, "DemoAgent", "level 7: never printed, cleared again");

    std::fflush(stderr);
    std::printf("  tables after the run:\n");
    std::fflush(stdout);
    Kesto::Platform::dumpKestoDebugMap();
    return 0;
  }
};

struct Scenario {
  const char* heading;
  const char* trace;       // null: TRACE unset
  const char* traceFormat; // null: TRACEFORMAT unset
};

const Scenario scenarios[] = {
    {"defaults: Demo is silent, Kesto* handlers have levels 0 and 1", nullptr, nullptr},
    {"TRACE=Demo/012: failures, warnings and set-up steps", "Demo/012", nullptr},
    {"TRACE=Demo/*  TRACEFORMAT=level,func-name: every level, a short prefix", "Demo/*", "level,func-name"},
    {"TRACE=De*/5,Demo/9  TRACEFORMAT=handle,line-info: a wildcard and a name", "De*/5,Demo/9", "handle,line-info"},
    {"TRACEFORMAT=help: the usage, and the default format stays", "Demo/0", "help"},
    {"TRACEFORMAT=date,bogus: an invalid field, and the default format stays", "Demo/0", "date,bogus"},
};

int runScenario(const char* self, const Scenario& scenario) {
  std::printf("\n=== %s\n", scenario.heading);
  std::fflush(stdout);
  std::vector<std::string> env;
  for (char** e = environ; *e; ++e)
    if (std::strncmp(*e, "TRACE=", 6) != 0 && std::strncmp(*e, "TRACEFORMAT=", 12) != 0 &&
        std::strncmp(*e, "TRACEFILE=", 10) != 0)
      env.emplace_back(*e);
  if (scenario.trace)
    env.push_back(std::string("TRACE=") + scenario.trace);
  if (scenario.traceFormat)
    env.push_back(std::string("TRACEFORMAT=") + scenario.traceFormat);
  std::vector<char*> envp;
  for (std::string& e : env)
    envp.push_back(e.data());
  envp.push_back(nullptr);
  char runFlag[] = "--run";
  char* argv[] = {const_cast<char*>(self), runFlag, nullptr};
  pid_t pid;
  if (posix_spawn(&pid, self, nullptr, nullptr, argv, envp.data()) != 0) {
    std::perror("posix_spawn");
    return 1;
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}

} // namespace

int main(int argc, char** argv) {
  if (argc > 1 && std::strcmp(argv[1], "--run") == 0)
    return DemoAgent().run();

  std::printf("libEventKesto %s: tracing demo\n", Kesto::eventKestoVersion());
  int failures = 0;
  for (const Scenario& scenario : scenarios)
    failures += runScenario("/proc/self/exe", scenario) != 0;
  return failures == 0 ? 0 : 1;
}
