// An agent that does all its work on one thread, as a daemon built on the
// library would: a descriptor task takes in messages that a timer task
// writes into a socketpair, a cruncher works them off in slices that yield
// when their quantum is used, a heartbeat and an audit run on jittered
// timers, and a compactor gets the thread only when nothing else wants it.
//
// An indexer subsystem of many small tasks runs as one task group under the
// root: it gets one slot of the thread, is suspended for ten virtual minutes
// by an operator task and resumed, and the operator resets all statistics
// in the middle of the virtual hour, so the figures printed at the end
// cover its second half.
//
// It runs a few seconds of real event loop, then an hour of virtual time
// under fast forward (in well under a second of real time), and prints the
// scheduler report (hierarchical text, and JSON to a file) and the group's
// share of the thread.
//
// It turns on the library's diagnostics: a stall watchdog on the root, the
// crash-time flight recorder, latency culprits (any run 100 ms or more after
// its scheduling) and the timeline. A slow task that spins for 300 ms once
// at the start trips the watchdog (its report goes to the trace output,
// standard error unless TRACEFILE says otherwise) and makes a low-priority
// task late; the agent prints who made it late (`kesto latency` asks the
// same of a running agent) and writes the timeline of its start to a file. With --crash
// a task dereferences a null pointer at the end, and the flight recorder
// writes what the thread was doing before the process dies of SIGSEGV.
//
// Whenever it runs it serves its endpoint, named after itself ("demo_agent"),
// so that `kesto list` finds it and `kesto show` prints its report while it
// runs. With --serve it goes on for that many more seconds of real time
// after the virtual hour, its tasks still at work, before it stops them and
// reports: time enough to look at it from another terminal.
//
//   demo_agent [real-seconds [simulated-seconds]] [--serve seconds] [--crash]
//                                          defaults: 3, 3600 and 0
//
// With TRACE=TaskScheduler/8 every scheduling step is traced; keep the run
// short then, for example: TRACE=TaskScheduler/8 demo_agent 0.05 1
#include <Kesto/EventKesto.h>

#include "AgentWorkload.h"

#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <initializer_list>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

using namespace Kesto;

namespace {

using namespace KestoExample;

// Beats once a second, plus up to 5%, and checks how late its timer came.
// A timer never fires before its time, so the lateness is never negative.
class Heartbeat : public TimerTask {
public:
  Heartbeat(const Ptr<TaskScheduler>& s, Task* compactor)
      : TimerTask(s, TaskPriority::high, "heartbeat"), compactor_(compactor) {}
  EXAMPLE_TASK_DELETE

  void start() {
    scheduleTaskJitterUp(1.0, 5);
    due_ = currentExpirationTime();
  }
  U64 beats() const { return beats_; }
  double maxLateness() const { return maxLateness_; }
  double minLateness() const { return minLateness_; }

  void taskExecute() override {
    const double lateness = Kesto::time() - due_;
    if (lateness > maxLateness_)
      maxLateness_ = lateness;
    if (lateness < minLateness_)
      minLateness_ = lateness;
    ++beats_;
    compactor_->scheduleTask(); // tidy up whenever the thread is idle
    start();
  }

private:
  Task* compactor_;
  double due_ = 0.0;
  U64 beats_ = 0;
  double maxLateness_ = 0.0;
  double minLateness_ = 1e9;
};

// Once a minute, plus up to 10%: checks that nothing was lost on the way.
// It runs at absolute priority, ahead of everything else.
class Audit : public TimerTask {
public:
  Audit(const Ptr<TaskScheduler>& s, const Feed* feed, const Ingest* ingest)
      : TimerTask(s, TaskPriority::absolute, "audit"), feed_(feed), ingest_(ingest) {}
  EXAMPLE_TASK_DELETE

  U64 audits() const { return audits_; }
  U64 maxInFlight() const { return maxInFlight_; }

  void taskExecute() override {
    ++audits_;
    const U64 inFlight = feed_->sent() - ingest_->received();
    if (inFlight > maxInFlight_)
      maxInFlight_ = inFlight;
    scheduleTaskJitterUp(60.0, 10);
  }

private:
  const Feed* feed_;
  const Ingest* ingest_;
  U64 audits_ = 0;
  U64 maxInFlight_ = 0;
};

// Scavenge priority: runs only when every other queue is empty.
class Compactor : public Task {
public:
  explicit Compactor(const Ptr<TaskScheduler>& s) : Task(s, TaskPriority::scavenge, "compactor") {}
  EXAMPLE_TASK_DELETE
  void taskExecute() override { taskWorkCountInc(1); }
};

// The operator of the virtual hour: suspends the indexer at minute 20,
// resumes it at minute 30 and resets the statistics of the whole tree at
// the same moment.
class Operator : public TimerTask {
public:
  Operator(const Ptr<TaskSchedulerRoot>& root, const Ptr<TaskGroup>& indexer)
      : TimerTask(root, TaskPriority::absolute, "operator"), root_(root.get()), indexer_(indexer.get()) {}
  EXAMPLE_TASK_DELETE

  void start() {
    startedAt_ = Kesto::time();
    scheduleTaskDelay(20 * 60.0);
  }
  bool resumed() const { return resumedAt_ != 0.0; }
  double suspendedFor() const { return resumedAt_ - suspendedAt_; }
  double resetAt() const { return resumedAt_ - startedAt_; }

  void taskExecute() override {
    if (!indexer_->taskGroupSuspended()) {
      suspendedAt_ = Kesto::time();
      indexer_->taskGroupSuspendedIs(true);
      scheduleTaskDelay(10 * 60.0);
      return;
    }
    resumedAt_ = Kesto::time();
    indexer_->taskGroupSuspendedIs(false);
    root_->resetStats();
  }

private:
  TaskSchedulerRoot* root_;
  TaskGroup* indexer_;
  double startedAt_ = 0.0;
  double suspendedAt_ = 0.0;
  double resumedAt_ = 0.0;
};

// ---- diagnostics ---------------------------------------------------------------

// What the slow task holds the thread for: six times the watchdog's
// threshold, so that the watchdog, sampling every half threshold of CPU
// time, sees the same run at least twice past it.
constexpr std::chrono::milliseconds watchdogThreshold{50};
constexpr double slowRunSeconds = 0.3;
constexpr TaskDurationMs latencyThreshold{100};

double threadCpuSeconds() {
  timespec ts{};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}

// Waits its turn at low priority; made late by whatever runs before it.
// A moment after that run it takes a copy of the scheduler's tree with its
// history, which holds the start of the agent, the slow run and the late
// one, for the timeline, and the latency events of that moment: later ones
// (a group's tasks waiting while it is suspended, say) would push its own
// out of the root's ring by the end of the run.
class Latecomer : public TimerTask {
public:
  explicit Latecomer(const Ptr<TaskSchedulerRoot>& root) : TimerTask(root, TaskPriority::low, "latecomer"),
                                                           root_(root.get()) {}
  EXAMPLE_TASK_DELETE

  const Ptr<TaskSchedulerSnapshot const>& timeline() const { return timeline_; }
  const std::vector<LatencyEvent>& latencyEvents() const { return latencyEvents_; }
  const String& latencyText() const { return latencyText_; }

  void taskExecute() override {
    if (taskRunCount() == 1) {
      scheduleTaskDelay(0.05);
      return;
    }
    timeline_ = root_->snapshot(String(), false, true, true, String(), TaskScheduler::displayOrderNotSpecified);
    root_->historyEntryCountIs(TaskSchedulerRoot::historyEntryCountDefault);
    latencyEvents_ = root_->latencyEvents();
    latencyText_ = latencyEventsRenderText(*root_, 3);
  }

private:
  TaskSchedulerRoot* root_;
  Ptr<TaskSchedulerSnapshot const> timeline_;
  std::vector<LatencyEvent> latencyEvents_;
  String latencyText_;
};

// Whether the latecomer's late run was put down to the slow run first.
bool lateRunBlamedOnRebuild(const std::vector<LatencyEvent>& events) {
  for (const LatencyEvent& event : events)
    if (event.identifier.view() == "L latecomer")
      return event.culpritCount >= 1 && event.culprits[0].identifier.view() == "N rebuild";
  return false;
}

// Dies of a null pointer dereference inside its run (--crash).
class Faulty : public Task {
public:
  explicit Faulty(const Ptr<TaskScheduler>& s) : Task(s, TaskPriority::high, "faulty") {}
  EXAMPLE_TASK_DELETE
  void taskExecute() override {
    volatile int* volatile nowhere = nullptr;
    *nowhere = 1;
  }
};

// ---- the report -------------------------------------------------------------

double parseSeconds(const char* text, double fallback) {
  if (!text)
    return fallback;
  char* end = nullptr;
  const double v = std::strtod(text, &end);
  if (end == text || *end != '\0' || !(v >= 0.0)) {
    fmt::print(stderr, "demo_agent: not a number of seconds: {}\n", text);
    std::exit(2);
  }
  return v;
}

int usage() {
  fmt::print(stderr,
             "demo_agent: usage: demo_agent [real-seconds [simulated-seconds]] [--serve seconds] [--crash]\n");
  return 2;
}

} // namespace

namespace DemoAgent {

// Rebuilds a table in one go instead of in slices: 300 ms of the thread's
// CPU time without yielding, once. It schedules the latecomer first, so the
// latecomer waits for all of it.
class Rebuild : public Task {
public:
  Rebuild(const Ptr<TaskScheduler>& s, TimerTask* latecomer)
      : Task(s, TaskPriority::normal, "rebuild"), latecomer_(latecomer) {}
  EXAMPLE_TASK_DELETE
  void taskExecute() override { spin(); }

private:
  // Out of line and outside the anonymous namespace, in a program linked
  // with its symbols exported, so that the watchdog's backtrace names it.
  [[gnu::noinline]] void spin();

  TimerTask* latecomer_;
};

void Rebuild::spin() {
  latecomer_->scheduleTask();
  const double cpuEnd = threadCpuSeconds() + slowRunSeconds;
  const auto wallEnd = std::chrono::steady_clock::now() + std::chrono::duration<double>(slowRunSeconds);
  U64 x = 1;
  while (threadCpuSeconds() < cpuEnd || std::chrono::steady_clock::now() < wallEnd)
    for (int i = 0; i < 1000; ++i)
      x = x * 6364136223846793005ULL + 1442695040888963407ULL;
  taskWorkCountInc(x & 1);
}

} // namespace DemoAgent

int main(int argc, char** argv) {
  std::vector<const char*> positional;
  const char* serveText = nullptr;
  bool crash = false;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--serve") == 0 && i + 1 < argc)
      serveText = argv[++i];
    else if (std::strcmp(argv[i], "--crash") == 0)
      crash = true;
    else if (argv[i][0] == '-' && argv[i][1] != '\0')
      return usage();
    else
      positional.push_back(argv[i]);
  }
  if (positional.size() > 2)
    return usage();
  const double realSeconds = parseSeconds(positional.size() > 0 ? positional[0] : nullptr, 3.0);
  const double simulatedSeconds = parseSeconds(positional.size() > 1 ? positional[1] : nullptr, 3600.0);
  const double serveSeconds = parseSeconds(serveText, 0.0);

  int fds[2];
  if (::socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fds) != 0) {
    std::perror("socketpair");
    return 1;
  }

  // On before anything runs: a fault in any task from here on is dumped.
  FlightRecorder::enabledIs(true);

  Ptr<TaskSchedulerRoot> root = schedulerRootKesto();
  root->latencyCulpritsIs(latencyThreshold, 16);
  Ptr<Cruncher> cruncher(new Cruncher(root));
  Ptr<Compactor> compactor(new Compactor(root));
  Ptr<Ingest> ingest(new Ingest(root, fds[1], cruncher.get()));
  Ptr<Feed> feed(new Feed(root, fds[0]));
  Ptr<Heartbeat> heartbeat(new Heartbeat(root, compactor.get()));
  Ptr<Audit> audit(new Audit(root, feed.get(), ingest.get()));

  Ptr<TaskGroup> indexer = TaskGroup::TaskGroupIs("indexer", TaskPriority::normal,
                                                  TaskGroupPriorityEnforcement::onlyAllowRegularPriorities, root);
  constexpr unsigned shardCount = 40;
  std::vector<Ptr<Shard>> shards;
  for (unsigned i = 0; i < shardCount; ++i) {
    // A little work four times a second; one shard in four at high priority.
    shards.push_back(Ptr<Shard>(
        new Shard(indexer, i % 4 == 0 ? TaskPriority::high : TaskPriority::normal, "shard", i, 64, 0.25)));
    shards.back()->scheduleTaskJitterUp(0.25, 100);
  }
  Ptr<Operator> op(new Operator(root, indexer));

  fmt::print("Agent on root scheduler \"{}\" with {} tasks, {} of them in the group \"{}\"\n", root->schedulerName(),
             root->totalRegisteredTaskCount(), indexer->registeredTaskCount(), indexer->schedulerName());

  // The endpoint, named after the program as the kernel knows it. Its
  // listener and client tasks join the root at low priority.
  String name = Util::readProcTitle(0, true);
  if (name.view().empty())
    name = String("demo_agent");
  Ptr<AgentEndpoint> endpoint = AgentEndpoint::start(root, {.name = name});
  fmt::print("Endpoint: {}\n", endpoint->address().view());

  // The history ring holds everything from the start to the timeline's
  // copy; it goes back to its usual 100 events once that is taken.
  root->historyEntryCountIs(4000);
  Ptr<StallWatchdog> watchdog = StallWatchdog::StallWatchdogIs(root, watchdogThreshold, 6);
  Ptr<Latecomer> latecomer(new Latecomer(root));
  Ptr<DemoAgent::Rebuild> rebuild(new DemoAgent::Rebuild(root, latecomer.get()));
  fmt::print("Diagnostics: flight recorder on, stall watchdog at {} ms; a task \"rebuild\" will hold the thread "
             "for {:.0f} ms\n",
             watchdogThreshold.count(), slowRunSeconds * 1e3);
  rebuild->scheduleTask();
  feed->scheduleTask();
  heartbeat->start();
  audit->scheduleTaskJitterUp(60.0, 10);

  using Clock = std::chrono::steady_clock;
  auto wall = Clock::now();
  fmt::print("Running {} s of real event loop...\n", realSeconds);
  Platform::doEventLoop(realSeconds);
  fmt::print("  {} messages in, {} heartbeats, {:.3f} s of real time\n", ingest->received(), heartbeat->beats(),
             std::chrono::duration<double>(Clock::now() - wall).count());

  const double virtualStart = Kesto::time();
  wall = Clock::now();
  fmt::print("Running {} s of virtual time under fast forward...\n", simulatedSeconds);
  Platform::setFastForward(true);
  op->start();
  Platform::doEventLoop(simulatedSeconds);
  Platform::setFastForward(false);
  fmt::print("  {:.0f} s of virtual time passed in {:.3f} s of real time\n", Kesto::time() - virtualStart,
             std::chrono::duration<double>(Clock::now() - wall).count());

  if (serveSeconds > 0.0) {
    fmt::print("Serving for {} s of real time, the tasks still at work (kesto show {})\n", serveSeconds, getpid());
    // Whoever waits for that line (a test, make demo) gets it now, not when
    // the buffer of a pipe fills.
    std::fflush(stdout);
    Platform::doEventLoop(serveSeconds);
  }

  feed->stopTimerTask();
  heartbeat->stopTimerTask();
  audit->stopTimerTask();
  op->stopTimerTask();
  for (const Ptr<Shard>& shard : shards)
    shard->stopTimerTask();
  // Let the last messages in flight be read and crunched.
  Platform::doEventLoop(0.2);

  // The agent's own report, as an operator would ask for it: the tree of
  // schedulers with the group's tasks under its line, the tasks that ran
  // since the reset, the completed ones and the latest history.
  fmt::print("\n{}", root->statsRenderTextToString(false, true, true, "", true, false).view());
  const std::string jsonPath = "/tmp/demo_agent_report.json";
  if (std::FILE* json = std::fopen(jsonPath.c_str(), "w")) {
    const String text = root->statsRenderJsonToString(false, true, true, "");
    std::fwrite(text.data(), 1, text.size(), json);
    std::fclose(json);
    fmt::print("\nThe same report as JSON: {} ({} bytes)\n", jsonPath, text.size());
  }

  // The group's share of the thread: its parent task's run time against all
  // run time of the root's tasks, the parent task's included.
  U64 shardRuns = 0;
  for (const Ptr<Shard>& shard : shards)
    shardRuns += shard->taskRunCount();
  TaskTimeDuration rootRunTime{0};
  for (const TaskStat& stat : [&] {
         std::vector<TaskStat> all;
         root->getTaskStats(&all, true);
         return all;
       }())
    rootRunTime += stat.taskTotalRunTime();
  const TaskTimeDuration groupRunTime = indexer->parentTask()->getStats().taskTotalRunTime();
  fmt::print("\nGroup \"{}\": {} shards, {} shard runs in {} runs of its parent task, {} of run time, "
             "{:.1f} % of all task run time\n",
             indexer->schedulerName(), shardCount, shardRuns, indexer->parentTaskRunCount(),
             durationToString(groupRunTime).view(),
             rootRunTime.count() ? 100.0 * double(groupRunTime.count()) / double(rootRunTime.count()) : 0.0);
  if (op->resumed())
    fmt::print("Suspended for {:.0f} s of virtual time; statistics reset {:.0f} s into the virtual run, so the "
               "figures above cover what came after\n",
               op->suspendedFor(), op->resetAt());
  else
    fmt::print("The operator suspends the group at virtual minute 20 and resumes it and resets the statistics "
               "at minute 30; this run was shorter\n");

  fmt::print("\nMessages: {} sent, {} received, {} refused by a full socket, at most {} in flight at an audit, "
             "longest transit {:.6f} s\n",
             feed->sent(), ingest->received(), feed->refused(), audit->maxInFlight(), ingest->maxTransitSeconds());
  fmt::print("Cruncher: {} items, checksum {:016x}\n", cruncher->itemsDone(), cruncher->checksum());
  fmt::print("Heartbeat: {} beats, lateness from {:.6f} s to {:.6f} s (a timer never fires early)\n",
             heartbeat->beats(), heartbeat->minLateness(), heartbeat->maxLateness());
  fmt::print("Audits: {}\n", audit->audits());
  fmt::print("\nThe late runs of the start, each with the runs that made it late:\n{}",
             latecomer->latencyText().view());

  if (latecomer->timeline()) {
    const String timelinePath("/tmp/demo_agent_timeline.json");
    snapshotTimelineToFile(latecomer->timeline(), timelinePath, {.processName = name});
    fmt::print("\nTimeline of the agent's start, its slow run (the stall in red) and the late run: {}\n"
               "  open it in a trace viewer, see the README\n",
               timelinePath.view());
  }
  fmt::print("\nStall watchdog: {} stall(s) seen, {} reported as KestoStallWatchdog trace lines (on standard "
             "error unless TRACEFILE names a file)\n",
             watchdog->stallCount(), watchdog->reportCount());

  const bool consistent = feed->sent() == ingest->received() && heartbeat->minLateness() >= 0.0 &&
                          watchdog->stallCount() >= 1 && lateRunBlamedOnRebuild(latecomer->latencyEvents());
  if (crash) {
    fmt::print("\nA task now dereferences a null pointer; the flight recorder writes the thread's last events "
               "to standard error before the process dies of SIGSEGV\n");
    std::fflush(stdout);
    Ptr<Faulty> faulty(new Faulty(root));
    faulty->scheduleTask();
    Platform::doEventLoop(1.0);
  }
  endpoint->stop();
  ingest->taskWatchFdDel();
  ::close(fds[0]);
  ::close(fds[1]);
  if (!consistent) {
    fmt::print(stderr, "demo_agent: messages were lost, a timer fired early, or the slow run went unnoticed or unblamed\n");
    return 1;
  }
  return 0;
}
