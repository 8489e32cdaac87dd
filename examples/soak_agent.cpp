// A real-time soak of an agent that is asked for its report every second.
//
// The agent: a feed timer writes bursts of datagrams into a socketpair, a
// descriptor task reads them and hands them to a cruncher that works in
// quantum-sized slices, a heartbeat beats once a second, short-lived jobs of
// a few names come and go (so the completed statistics are folded over and
// over), and an indexer group with a nested group of its own runs small
// timer shards. Every second a reporter takes a snapshot of the whole tree,
// history included, and renders it as hierarchical text with
// snapshotRenderTextAsync into a duplicate of one end of a stream
// socketpair. A thread on the other end reads a few KiB every 100 ms, so
// each report spends most of its life blocked on a full socket buffer.
//
// Every sample period it records the resident set (VmRSS) and the number of
// open descriptors (entries of /proc/self/fd, less the one a running report
// holds). At the end it prints the table and fails if the resident set grew
// by more than 5 % over its value at the end of the warm-up (the first
// minute, or the first half of a run shorter than two minutes) or if the descriptor count ever
// differed from its first value. Each sample's row is printed as it is
// taken, the verdict at the end.
//
//   SOAK_SECONDS=600 SOAK_SAMPLE_SECONDS=10 soak_agent      (the defaults)
#include <Kesto/EventKesto.h>

#include "AgentWorkload.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

using namespace Kesto;

namespace {

using namespace KestoExample;

#if defined(__SANITIZE_ADDRESS__)
// The address sanitizer keeps freed memory in quarantine (up to 256 MiB)
// before reuse, so resident memory grows by design there: only the
// descriptor count is judged.
constexpr bool judgeResidentSet = false;
#else
constexpr bool judgeResidentSet = true;
#endif

double envSeconds(const char* name, double fallback) {
  const char* text = std::getenv(name);
  if (!text || !*text)
    return fallback;
  char* end = nullptr;
  const double v = std::strtod(text, &end);
  if (end == text || *end != '\0' || !(v > 0.0)) {
    fmt::print(stderr, "soak_agent: {} is not a positive number of seconds: {}\n", name, text);
    std::exit(2);
  }
  return v;
}

// ---- the workload -------------------------------------------------------------
// The feed, the reader and the cruncher are the example agents' shared ones
// (AgentWorkload.h), the feed five times as fast as in the demo.

class Heartbeat : public TimerTask {
public:
  explicit Heartbeat(const Ptr<TaskScheduler>& s) : TimerTask(s, TaskPriority::high, "heartbeat") {}
  EXAMPLE_TASK_DELETE
  void taskExecute() override { scheduleTaskJitterUp(1.0, 5); }
};

// Runs a few times, then asks to be dropped: its statistics fold into the
// completed record of its name when the spawner lets it go.
class Job : public Task {
public:
  Job(const Ptr<TaskScheduler>& s, const String& name, unsigned runs)
      : Task(s, TaskPriority::normal, name), runsLeft_(runs) {}
  EXAMPLE_TASK_DELETE

  bool finished() const { return runsLeft_ == 0; }

  void taskExecute() override {
    taskWorkCountInc(1);
    if (--runsLeft_ != 0)
      scheduleTask();
  }

private:
  unsigned runsLeft_;
};

class Spawner : public TimerTask {
public:
  explicit Spawner(const Ptr<TaskScheduler>& s) : TimerTask(s, TaskPriority::normal, "spawner"), scheduler_(s) {
    for (unsigned i = 0; i < names_.size(); ++i)
      names_[i] = String::dedup(fmt::format("job-{}", i));
  }
  EXAMPLE_TASK_DELETE

  U64 spawned() const { return spawned_; }
  void dropAll() { jobs_.clear(); }

  void taskExecute() override {
    std::erase_if(jobs_, [](const Ptr<Job>& job) { return job->finished(); });
    for (unsigned i = 0; i < 4; ++i) {
      jobs_.push_back(Ptr<Job>(new Job(scheduler_, names_[spawned_ % names_.size()], 1 + unsigned(spawned_ % 5))));
      jobs_.back()->scheduleTask();
      ++spawned_;
    }
    scheduleTaskDelay(0.050);
  }

private:
  Ptr<TaskScheduler> scheduler_;
  std::array<String, 8> names_;
  std::vector<Ptr<Job>> jobs_;
  U64 spawned_ = 0;
};

// ---- the slow reader ------------------------------------------------------------

// Reads at most `chunk` bytes every 100 ms from its end of the socketpair.
class SlowReader {
public:
  SlowReader(int fd, std::size_t chunk) : fd_(fd), chunk_(chunk), thread_([this] { run(); }) {}
  ~SlowReader() { stop(); }
  void stop() {
    if (thread_.joinable()) {
      stop_ = true;
      thread_.join();
    }
  }
  U64 bytes() const { return bytes_.load(); }

private:
  void run() {
    std::vector<char> buf(chunk_);
    while (!stop_) {
      std::size_t got = 0;
      while (got < chunk_) {
        const ssize_t n = ::recv(fd_, buf.data(), chunk_ - got, MSG_DONTWAIT);
        if (n <= 0)
          break;
        got += std::size_t(n);
      }
      bytes_ += got;
      std::this_thread::sleep_for(std::chrono::milliseconds(100)); // the reader's pace, not a synchronisation
    }
  }

  int fd_;
  std::size_t chunk_;
  std::atomic<bool> stop_{false};
  std::atomic<U64> bytes_{0};
  std::thread thread_;
};

// ---- the reporter and the sampler -------------------------------------------------

class Reporter : public TimerTask {
public:
  Reporter(const Ptr<TaskSchedulerRoot>& root, int fd)
      : TimerTask(root, TaskPriority::normal, "reporter"), root_(root.get()), fd_(fd) {}
  EXAMPLE_TASK_DELETE

  U64 started() const { return started_; }
  U64 completed() const { return completed_; }
  U64 skipped() const { return skipped_; }
  bool inFlight() const { return started_ != completed_; }
  void stop() { stopped_ = true; }

  void taskExecute() override {
    if (stopped_)
      return;
    scheduleTaskDelay(1.0);
    if (inFlight()) {
      ++skipped_; // the reader is still on the last one; two reports on one socket would interleave
      return;
    }
    const int fd = ::fcntl(fd_, F_DUPFD_CLOEXEC, 0);
    if (fd < 0) {
      fmt::print(stderr, "soak_agent: dup: {}\n", std::strerror(errno));
      std::exit(1);
    }
    ++started_;
    root_->snapshotRenderTextAsync(fd, {root_->snapshot("soak", true, true, true, "", 0)}, true, false,
                                   [this] { ++completed_; });
  }

private:
  TaskSchedulerRoot* root_;
  int fd_;
  U64 started_ = 0;
  U64 completed_ = 0;
  U64 skipped_ = 0;
  bool stopped_ = false;
};

U64 residentKiB() {
  std::FILE* f = std::fopen("/proc/self/status", "r");
  if (!f)
    return 0;
  char line[256];
  U64 kib = 0;
  while (std::fgets(line, sizeof line, f))
    if (std::strncmp(line, "VmRSS:", 6) == 0)
      kib = std::strtoull(line + 6, nullptr, 10);
  std::fclose(f);
  return kib;
}

// Entries of /proc/self/fd, less the one that listing it opens.
int openDescriptors() {
  DIR* d = ::opendir("/proc/self/fd");
  if (!d)
    return -1;
  int n = 0;
  while (const dirent* e = ::readdir(d))
    if (e->d_name[0] != '.')
      ++n;
  ::closedir(d);
  return n - 1;
}

struct Sample {
  double at;
  U64 rssKiB;
  int fds;
  U64 reports;
  U64 bytesRead;
};

class Sampler : public TimerTask {
public:
  Sampler(const Ptr<TaskScheduler>& s, double period, double start, const Reporter* reporter,
          const SlowReader* reader)
      : TimerTask(s, TaskPriority::high, "sampler"), period_(period), start_(start), reporter_(reporter),
        reader_(reader) {
    samples_.reserve(4096);
  }
  EXAMPLE_TASK_DELETE

  const std::vector<Sample>& samples() const { return samples_; }
  // Takes a sample and prints its row at once, so that a long run shows
  // its progress.
  void take() {
    samples_.push_back({Kesto::time() - start_, residentKiB(),
                        openDescriptors() - (reporter_->inFlight() ? 1 : 0), reporter_->completed(),
                        reader_->bytes()});
    const Sample& s = samples_.back();
    fmt::print("{:>8.1f} {:>10d} {:>5d} {:>8d} {:>12d}\n", s.at, s.rssKiB, s.fds, s.reports, s.bytesRead);
    std::fflush(stdout);
  }

  void taskExecute() override {
    take();
    scheduleTaskDelay(period_);
  }

private:
  double period_;
  double start_;
  const Reporter* reporter_;
  const SlowReader* reader_;
  std::vector<Sample> samples_;
};

} // namespace

int main() {
  const double seconds = envSeconds("SOAK_SECONDS", 600.0);
  const double period = envSeconds("SOAK_SAMPLE_SECONDS", 10.0);
  const double warmUp = std::min(60.0, seconds / 2.0);
  std::signal(SIGPIPE, SIG_IGN); // a report's reader that goes away is an EPIPE, not the end of the agent

  int messages[2];
  int reports[2];
  if (::socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, messages) != 0 ||
      ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, reports) != 0) {
    std::perror("socketpair");
    return 1;
  }
  // Small buffers: a report of tens of KiB then waits on its reader most
  // of the time, with the writable watch on.
  const int small = 8192;
  ::setsockopt(reports[0], SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
  ::setsockopt(reports[1], SOL_SOCKET, SO_RCVBUF, &small, sizeof small);

  Ptr<TaskSchedulerRoot> root = schedulerRootKesto();
  Ptr<Cruncher> cruncher(new Cruncher(root));
  Ptr<Ingest> ingest(new Ingest(root, messages[1], cruncher.get()));
  Ptr<Feed> feed(new Feed(root, messages[0], 0.020, 8));
  Ptr<Heartbeat> heartbeat(new Heartbeat(root));
  Ptr<Spawner> spawner(new Spawner(root));

  Ptr<TaskGroup> indexer = TaskGroup::TaskGroupIs("indexer", TaskPriority::normal,
                                                  TaskGroupPriorityEnforcement::onlyAllowRegularPriorities, root);
  Ptr<TaskGroup> shelf = TaskGroup::TaskGroupIs("shelf", TaskPriority::normal,
                                                TaskGroupPriorityEnforcement::onlyAllowRegularPriorities, indexer);
  std::vector<Ptr<Shard>> shards;
  for (unsigned i = 0; i < 16; ++i)
    shards.push_back(Ptr<Shard>(new Shard(i < 10 ? indexer : shelf, TaskPriority::normal,
                                          i < 10 ? "shard" : "shelf-shard", i, 256, 0.1)));

  SlowReader reader(reports[1], 8192);
  Ptr<Reporter> reporter(new Reporter(root, reports[0]));
  Ptr<Sampler> sampler(new Sampler(root, period, Kesto::time(), reporter.get(), &reader));

  fmt::print("soak_agent: {} s of real time, a report every second to a reader of 8 KiB per 100 ms, "
             "a sample every {} s\n",
             seconds, period);
  fmt::print("{:>8s} {:>10s} {:>5s} {:>8s} {:>12s}\n", "seconds", "VmRSS-KiB", "fds", "reports", "bytes-read");
  std::fflush(stdout);
  feed->scheduleTask();
  heartbeat->scheduleTask();
  spawner->scheduleTask();
  for (const Ptr<Shard>& shard : shards)
    shard->scheduleTaskJitterUp(0.1, 100);
  reporter->scheduleTaskDelay(1.0);
  sampler->take();
  sampler->scheduleTaskDelay(period);
  Platform::doEventLoop(seconds);

  // Wind down: no new report; the last one runs to its end.
  reporter->stop();
  reporter->stopTimerTask();
  sampler->stopTimerTask();
  for (int i = 0; i < 600 && reporter->inFlight(); ++i)
    Platform::doEventLoop(0.1);
  sampler->take();

  feed->stopTimerTask();
  heartbeat->stopTimerTask();
  spawner->stopTimerTask();
  for (const Ptr<Shard>& shard : shards)
    shard->stopTimerTask();
  Platform::doEventLoop(0.1);
  reader.stop();

  const std::vector<Sample>& samples = sampler->samples();

  const Sample* base = nullptr;
  for (const Sample& s : samples)
    if (!base && s.at >= warmUp - 0.5)
      base = &s;
  U64 maxRss = 0;
  bool fdsFlat = true;
  for (const Sample& s : samples) {
    if (base && s.at >= base->at)
      maxRss = std::max(maxRss, s.rssKiB);
    fdsFlat = fdsFlat && s.fds == samples.front().fds;
  }
  const double growth = base && base->rssKiB ? 100.0 * (double(maxRss) - double(base->rssKiB)) / double(base->rssKiB)
                                             : 0.0;
  fmt::print("reports: {} started, {} completed, {} ticks skipped while one was still being read; "
             "{} bytes read\n",
             reporter->started(), reporter->completed(), reporter->skipped(), reader.bytes());
  fmt::print("workload: {} messages sent, {} received, {} items crunched, {} jobs spawned\n", feed->sent(),
             ingest->received(), cruncher->itemsDone(), spawner->spawned());
  fmt::print("resident set: {} KiB at {:.0f} s (end of warm-up), at most {} KiB after it: {:+.2f} %; "
             "descriptors: {} at the start, {}\n",
             base ? base->rssKiB : 0, base ? base->at : 0.0, maxRss, growth, samples.front().fds,
             fdsFlat ? "the same at every sample" : "NOT flat");

  spawner->dropAll();
  ingest->taskWatchFdDel();
  for (int fd : {messages[0], messages[1], reports[0], reports[1]})
    ::close(fd);

  bool ok = true;
  if (!base || samples.size() < 2) {
    fmt::print(stderr, "soak_agent: too few samples\n");
    ok = false;
  }
  if (!judgeResidentSet)
    fmt::print("resident set not judged: built with the address sanitizer\n");
  if (judgeResidentSet && growth > 5.0) {
    fmt::print(stderr, "soak_agent: resident set grew by {:.2f} % after the warm-up\n", growth);
    ok = false;
  }
  if (!fdsFlat) {
    fmt::print(stderr, "soak_agent: the number of open descriptors changed\n");
    ok = false;
  }
  if (reporter->completed() == 0 || reporter->completed() != reporter->started()) {
    fmt::print(stderr, "soak_agent: {} of {} reports completed\n", reporter->completed(), reporter->started());
    ok = false;
  }
  return ok ? 0 : 1;
}
