// A soak of timer tasks on one root scheduler under fast forward, shared by
// the test (100,000 timers) and the benchmark (1,000,000 timers).
//
// Every timer task starts at a random delay from 1 ms to 30 days, drawn
// evenly on a logarithmic scale so that every level of the wheel carries
// timers (uniform in seconds would put nearly all of them beyond a day).
// Half of them get one action at a random moment before their expiry: a
// stop, or a re-arm at a new random delay from that moment. A driver task
// performs the actions at their times. The event loop then runs in fast
// forward until every timer has had its time.
//
// Each task keeps what it is owed: firings expected (one per arm that was
// not stopped) and its present expiry. Its timeout() checks that it is
// armed (not fired after a stop) and that the present is not before its
// expiry. Resident memory is sampled once the virtual clock has passed one
// day, and at the end with every task still alive.
//
// Owner: the caller, on the main thread (fast forward asserts elsewhere).
// Allocation: the tasks and the action list, made before the clock runs.
#pragma once

#include <Kesto/Platform/Platform.h>
#include <Kesto/Platform/Time.h>
#include <Kesto/Scheduler/TaskSchedulerRoot.h>
#include <Kesto/Scheduler/TimerTask.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <random>
#include <unistd.h>
#include <vector>

namespace KestoSupport {

// Resident memory of the process now, in bytes (/proc/self/statm).
inline long residentBytes() {
  long pages = 0, resident = 0;
  if (FILE* f = std::fopen("/proc/self/statm", "r")) {
    if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2)
      resident = 0;
    std::fclose(f);
  }
  return resident * ::sysconf(_SC_PAGESIZE);
}

// Peak resident memory of the process, in bytes (VmHWM of /proc/self/status).
inline long peakResidentBytes() {
  long kib = 0;
  if (FILE* f = std::fopen("/proc/self/status", "r")) {
    char line[256];
    while (std::fgets(line, sizeof line, f))
      if (std::strncmp(line, "VmHWM:", 6) == 0)
        kib = std::strtol(line + 6, nullptr, 10);
    std::fclose(f);
  }
  return kib * 1024;
}

struct TimerSoakResult {
  unsigned long timers = 0;
  unsigned long armings = 0;     // starts and re-arms
  unsigned long rearms = 0;      // re-arms of a running timer
  unsigned long stops = 0;       // stops of a running timer
  unsigned long firingsExpected = 0;
  unsigned long firings = 0;
  unsigned long early = 0;       // fired before the expiry
  unsigned long afterStop = 0;   // fired while not armed
  unsigned long wrongCount = 0;  // tasks whose firings differ from what they were owed
  double realSeconds = 0.0;
  double cpuSeconds = 0.0;     // of the thread: real time less the waits for a busy machine's cores
  double virtualSeconds = 0.0;
  long residentAfterFirstDay = 0;
  long residentAtEnd = 0;
  long peakResident = 0;
};

class TimerSoak {
public:
  static constexpr double minDelay = 0.001;
  static constexpr double maxDelay = 30.0 * 86400.0;
  static constexpr double day = 86400.0;

  TimerSoak(unsigned long timers, unsigned long seed) : timers_(timers), rng_(seed) {}

  // Runs the soak; fast forward must be on and the thread must be the main
  // thread.
  TimerSoakResult run() {
    using namespace Kesto;
    TimerSoakResult result;
    result.timers = timers_;
    Ptr<TaskSchedulerRoot> root = schedulerRootKestoNonShared("timerSoak");
    const double start = Kesto::time();
    tasks_.reserve(timers_);
    for (unsigned long i = 0; i < timers_; ++i)
      tasks_.push_back(Ptr<SoakTask>(new SoakTask(root, this)));
    for (unsigned long i = 0; i < timers_; ++i) {
      const double delay = randomDelay();
      tasks_[i]->arm(delay);
      // Half of them: one action at a random moment before the expiry.
      if (i % 2 == 1) {
        std::uniform_real_distribution<double> when(0.0, delay);
        actions_.push_back(Action{start + when(rng_), unsigned(i), (rng_() & 1) != 0});
      }
    }
    actions_.push_back(Action{start + day, ~0u, false}); // the sample after the first day
    std::stable_sort(actions_.begin(), actions_.end(),
                     [](const Action& a, const Action& b) { return a.time < b.time; });
    Ptr<Driver> driver(new Driver(root, this));
    driver->next();

    const double realStart = wallSeconds();
    const double cpuStart = threadCpuSeconds();
    // Fast forward jumps from timer to timer; the loop ends at the horizon,
    // past the latest expiry that any arm can give.
    Platform::doEventLoop(start + 2.0 * maxDelay + 60.0 - Kesto::time());
    result.realSeconds = wallSeconds() - realStart;
    result.cpuSeconds = threadCpuSeconds() - cpuStart;
    result.virtualSeconds = lastFiring_ - start;
    result.residentAtEnd = residentBytes();
    result.residentAfterFirstDay = residentAfterFirstDay_;
    result.peakResident = peakResidentBytes();

    result.armings = armings_;
    result.stops = stops_;
    result.rearms = rearms_;
    result.early = early_;
    result.afterStop = afterStop_;
    for (auto& t : tasks_) {
      result.firingsExpected += t->owed;
      result.firings += t->fired;
      result.wrongCount += t->fired != t->owed;
    }
    driver->stopTimerTask();
    for (auto& t : tasks_)
      t->stopTimerTask();
    tasks_.clear();
    return result;
  }

private:
  class SoakTask : public Kesto::TimerTask {
  public:
    SoakTask(Kesto::Ptr<Kesto::TaskScheduler> s, TimerSoak* soak)
        : TimerTask(std::move(s), Kesto::TaskPriority::normal, "soak"), soak_(soak) {}
    void arm(double delay) {
      scheduleTaskDelay(delay);
      expiry = currentExpirationTime();
      // A re-arm of a running timer replaces it: still one firing owed.
      if (!armed)
        ++owed;
      else
        ++soak_->rearms_;
      armed = true;
      ++soak_->armings_;
    }
    void stop() {
      stopTimerTask();
      if (armed) {
        armed = false;
        --owed;
        ++soak_->stops_;
      }
    }
    void timeout() override {
      const double now = Kesto::time();
      if (!armed)
        ++soak_->afterStop_;
      else if (now < expiry)
        ++soak_->early_;
      soak_->lastFiring_ = std::max(soak_->lastFiring_, now);
      armed = false;
      ++fired;
      TimerTask::timeout();
    }
    void taskExecute() override {}
    static void* operator new(std::size_t n) { return ::operator new(n); }
    static void operator delete(void* p) { ::operator delete(p); }

    double expiry = 0.0;
    bool armed = false;
    unsigned owed = 0;
    unsigned fired = 0;

  private:
    TimerSoak* soak_;
  };

  struct Action {
    double time;
    unsigned task; // ~0u: sample resident memory
    bool stop;     // else re-arm
  };

  // Performs the actions that are due, then sleeps until the next one.
  class Driver : public Kesto::TimerTask {
  public:
    Driver(Kesto::Ptr<Kesto::TaskScheduler> s, TimerSoak* soak)
        : TimerTask(std::move(s), Kesto::TaskPriority::high, "soakDriver"), soak_(soak) {}
    void taskExecute() override {
      const double now = Kesto::time();
      auto& actions = soak_->actions_;
      while (at_ < actions.size() && actions[at_].time <= now) {
        const Action& a = actions[at_++];
        if (a.task == ~0u) {
          soak_->residentAfterFirstDay_ = residentBytes();
        } else if (a.stop) {
          soak_->tasks_[a.task]->stop();
        } else {
          SoakTask& t = *soak_->tasks_[a.task];
          // A re-arm of a timer that has fired already (its action came due
          // in the same pass) starts it again all the same: it is owed one
          // more firing.
          t.arm(soak_->randomDelay());
        }
      }
      next();
    }
    static void* operator new(std::size_t n) { return ::operator new(n); }
    static void operator delete(void* p) { ::operator delete(p); }
    void next() {
      if (at_ < soak_->actions_.size())
        scheduleTaskDelay(std::max(soak_->actions_[at_].time - Kesto::time(), 1e-6));
    }

  private:
    TimerSoak* soak_;
    size_t at_ = 0;
  };

  double randomDelay() {
    std::uniform_real_distribution<double> exponent(std::log(minDelay), std::log(maxDelay));
    return std::exp(exponent(rng_));
  }

  static double wallSeconds() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) / 1e9;
  }

  static double threadCpuSeconds() {
    timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) / 1e9;
  }

  unsigned long timers_;
  std::mt19937_64 rng_;
  std::vector<Kesto::Ptr<SoakTask>> tasks_;
  std::vector<Action> actions_;
  unsigned long armings_ = 0;
  unsigned long stops_ = 0;
  unsigned long rearms_ = 0;
  unsigned long early_ = 0;
  unsigned long afterStop_ = 0;
  long residentAfterFirstDay_ = 0;
  double lastFiring_ = 0.0;
};

} // namespace KestoSupport
