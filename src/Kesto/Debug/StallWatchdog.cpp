// The stall watchdog: a CPU-time timer per armed root, its signal handler,
// and the report written between runs.
//
// The handler reaches its state through the timer's signal value, which
// carries a slot index and the slot's generation; the slots are a static
// table that is never freed. A signal still queued when its watchdog is
// disarmed finds another generation in the slot and is ignored, so no
// handler ever reads freed memory.
#include <Kesto/Debug/StallWatchdog.h>

#include <Kesto/Core/Backtrace.h>
#include <Kesto/Core/System.h>
#include <Kesto/Debug/Trace.h>
#include <Kesto/Scheduler/TaskImpl.h>
#include <Kesto/Scheduler/TaskSchedulerRoot.h>

#include <execinfo.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <string_view>

namespace Kesto {

namespace {

constexpr const char* className = "StallWatchdog";
constexpr std::size_t nameCapacity = 64;
constexpr I64 minuteNs = 60'000'000'000;

// One armed watchdog as its signal handler sees it. Written by the handler
// and read between runs on the same thread; the atomics are for the
// compiler (a handler may interrupt any instruction), not for other threads.
struct Slot {
  std::atomic<bool> inUse{false};
  std::atomic<U32> generation{0};
  TaskSchedulerRoot* root = nullptr;
  timer_t timer{};
  I64 thresholdNs = 0;
  U32 perMinute = 0;

  // The run seen by the previous signal.
  const TaskImpl* seenTask = nullptr;
  U64 seenRunCount = 0;
  // The run of the current stall, once declared.
  const TaskImpl* stallTask = nullptr;
  U64 stallRunCount = 0;

  // Rate limit: a fixed minute of the monotonic clock.
  I64 windowStartNs = 0;
  U32 reportsInWindow = 0;
  U64 suppressedSinceReport = 0;

  // The capture, complete when `captured` is set; the handler only updates
  // elapsedNs afterwards, until writePendingReport() takes it.
  std::atomic<bool> captured{false};
  std::atomic<I64> elapsedNs{0};
  char taskName[nameCapacity] = {};
  char schedulerName[nameCapacity] = {};
  const char* priority = "";
  U64 suppressedBefore = 0;
  void* frames[StallWatchdog::backtraceDepth] = {};
  int frameCount = 0;

  std::atomic<U64> signals{0};
  std::atomic<U64> stalls{0};
  std::atomic<U64> reports{0};
  std::atomic<U64> suppressed{0};
};

Slot slots[StallWatchdog::capacity];

I64 monotonicNs() noexcept {
  timespec ts{};
  ::clock_gettime(CLOCK_MONOTONIC, &ts);
  return I64(ts.tv_sec) * 1'000'000'000 + ts.tv_nsec;
}

void copyName(char (&to)[nameCapacity], std::string_view from) noexcept {
  const std::size_t n = std::min(from.size(), nameCapacity - 1);
  std::memcpy(to, from.data(), n);
  to[n] = '\0';
}

void* encodeValue(unsigned index, U32 generation) noexcept {
  return reinterpret_cast<void*>((std::uintptr_t(generation) << 8) | index);
}

// What the handler does on each signal; `slot` is valid and armed.
void observe(Slot& slot) noexcept {
  slot.signals.fetch_add(1, std::memory_order_relaxed);
  const TaskImpl* task = slot.root->currentlyRunningTask().get();
  // Between the anchor and the start of taskExecute() the run's counters
  // may still be the previous run's; taskCurrentlyRunning() is set after
  // them, and the same run must also be seen twice, one period apart.
  if (!task || !task->taskCurrentlyRunning()) {
    slot.seenTask = nullptr;
    return;
  }
  const U64 runCount = task->taskRunCount();
  const bool sameRun = task == slot.seenTask && runCount == slot.seenRunCount;
  slot.seenTask = task;
  slot.seenRunCount = runCount;
  if (!sameRun)
    return;
  const I64 elapsed = (taskClockNow() - task->lastTaskRunTimestamp()).count();
  if (elapsed < slot.thresholdNs)
    return;
  if (task == slot.stallTask && runCount == slot.stallRunCount) {
    // The stall already counted goes on: only its time grows.
    if (slot.captured.load(std::memory_order_relaxed))
      slot.elapsedNs.store(elapsed, std::memory_order_relaxed);
    return;
  }
  slot.stallTask = task;
  slot.stallRunCount = runCount;
  slot.stalls.fetch_add(1, std::memory_order_relaxed);

  const I64 now = monotonicNs();
  if (now - slot.windowStartNs >= minuteNs) {
    slot.windowStartNs = now;
    slot.reportsInWindow = 0;
  }
  // Over the limit, or the previous capture not yet written (a critical
  // task run from inside a stalled one): counted, not reported.
  if (slot.reportsInWindow >= slot.perMinute || slot.captured.load(std::memory_order_relaxed)) {
    ++slot.suppressedSinceReport;
    slot.suppressed.fetch_add(1, std::memory_order_relaxed);
    return;
  }
  ++slot.reportsInWindow;
  copyName(slot.taskName, task->taskName().view());
  copyName(slot.schedulerName, task->taskSchedulerName().view());
  slot.priority = task->taskPriority().isValid() ? task->taskPriority().toStrep() : "?";
  slot.suppressedBefore = slot.suppressedSinceReport;
  slot.suppressedSinceReport = 0;
  // backtrace() was called once at arming, so the unwinder is loaded and
  // this call allocates nothing.
  slot.frameCount = ::backtrace(slot.frames, int(StallWatchdog::backtraceDepth));
  slot.elapsedNs.store(elapsed, std::memory_order_relaxed);
  slot.captured.store(true, std::memory_order_release);
  StallWatchdog::reportPendingIs(*slot.root);
}

} // namespace

void StallWatchdog::reportPendingIs(TaskSchedulerRoot& root) noexcept {
  root.stallReportPending_.store(true, std::memory_order_relaxed);
}

namespace {

void onTimerSignal(int, siginfo_t* info, void*) {
  const int savedErrno = errno;
  const auto value = reinterpret_cast<std::uintptr_t>(info->si_value.sival_ptr);
  const unsigned index = unsigned(value & 0xff);
  if (info->si_code == SI_TIMER && index < StallWatchdog::capacity) {
    Slot& slot = slots[index];
    if (slot.inUse.load(std::memory_order_acquire) &&
        slot.generation.load(std::memory_order_acquire) == U32(value >> 8))
      observe(slot);
  }
  errno = savedErrno;
}

std::mutex& armMutex() {
  static std::mutex m;
  return m;
}

// Installs the process-wide handler once; fails if the application holds
// the signal for itself.
void installHandler() {
  static bool installed = false;
  if (installed)
    return;
  struct sigaction old{};
  ::sigaction(StallWatchdog::signalNumber(), nullptr, &old);
  const bool ours = (old.sa_flags & SA_SIGINFO) && old.sa_sigaction == &onTimerSignal;
  if (!ours && old.sa_handler != SIG_DFL && old.sa_handler != SIG_IGN)
    KESTO_THROW(Debug::kestoUtil, "StallWatchdog", "signal {} already has a handler",
                StallWatchdog::signalNumber());
  struct sigaction sa{};
  sa.sa_sigaction = &onTimerSignal;
  sigemptyset(&sa.sa_mask);
  // SA_RESTART: the signal may arrive during a system call of the task
  // (the CPU clock runs in the kernel too), which must not see EINTR.
  sa.sa_flags = SA_SIGINFO | SA_RESTART | SA_ONSTACK;
  ::sigaction(StallWatchdog::signalNumber(), &sa, nullptr);
  installed = true;
}

const Ptr<Platform::DebugHandler>& watchdogHandler() {
  static const Ptr<Platform::DebugHandler> handler = Platform::getDebugHandler("KestoStallWatchdog");
  return handler;
}

} // namespace

int StallWatchdog::signalNumber() noexcept { return SIGRTMIN + 4; }

Ptr<StallWatchdog> StallWatchdog::StallWatchdogIs(const Ptr<TaskSchedulerRoot>& root,
                                                  std::chrono::milliseconds threshold, U32 reportsPerMinute) {
  return Ptr<StallWatchdog>(new StallWatchdog(root, threshold, reportsPerMinute));
}

StallWatchdog::StallWatchdog(const Ptr<TaskSchedulerRoot>& root, std::chrono::milliseconds threshold,
                             U32 reportsPerMinute)
    : root_(root), threshold_(std::max(threshold, std::chrono::milliseconds(2))),
      reportsPerMinute_(reportsPerMinute) {
  root_->sanityCheckCurrentRunningThread();
  if (root_->stallWatchdog_)
    KESTO_THROW(Debug::kestoUtil, className, "{} already has a stall watchdog", root_->schedulerName());
  watchdogHandler();
  {
    // The first backtrace() loads the unwinder, which allocates: never in
    // the handler.
    void* frames[4];
    ::backtrace(frames, 4);
  }
  std::lock_guard<std::mutex> guard(armMutex());
  installHandler();
  unsigned index = 0;
  while (index < capacity && slots[index].inUse.load(std::memory_order_relaxed))
    ++index;
  if (index == capacity)
    KESTO_THROW(Debug::kestoUtil, className, "{} stall watchdogs are armed already", capacity);
  Slot& slot = slots[index];
  const U32 generation = (slot.generation.load(std::memory_order_relaxed) + 1) & 0xffffff;
  slot.root = root_.get();
  slot.thresholdNs = std::chrono::nanoseconds(threshold_).count();
  slot.perMinute = reportsPerMinute_;
  slot.seenTask = slot.stallTask = nullptr;
  slot.seenRunCount = slot.stallRunCount = 0;
  slot.windowStartNs = monotonicNs();
  slot.reportsInWindow = 0;
  slot.suppressedSinceReport = 0;
  slot.captured.store(false, std::memory_order_relaxed);
  for (auto* counter : {&slot.signals, &slot.stalls, &slot.reports, &slot.suppressed})
    counter->store(0, std::memory_order_relaxed);

  sigevent sev{};
  sev.sigev_notify = SIGEV_THREAD_ID;
  sev.sigev_signo = signalNumber();
  sev.sigev_value.sival_ptr = encodeValue(index, generation);
#ifdef sigev_notify_thread_id
  sev.sigev_notify_thread_id = Kesto::gettid();
#else
  sev._sigev_un._tid = Kesto::gettid();
#endif
  // CLOCK_THREAD_CPUTIME_ID in timer_create is the calling thread's clock,
  // the root's thread by the check above.
  if (::timer_create(CLOCK_THREAD_CPUTIME_ID, &sev, &slot.timer) != 0)
    KESTO_THROW(Debug::kestoUtil, className, "timer_create failed: {}", std::strerror(errno));
  slot.generation.store(generation, std::memory_order_release);
  slot.inUse.store(true, std::memory_order_release);
  slot_ = index;
  root_->stallWatchdog_ = this;

  // Half the threshold: a run is declared stalled on its second sighting,
  // so a stall is seen by the threshold plus at most one period.
  const auto periodNs = std::chrono::nanoseconds(threshold_).count() / 2;
  itimerspec period{};
  period.it_value.tv_sec = period.it_interval.tv_sec = time_t(periodNs / 1'000'000'000);
  period.it_value.tv_nsec = period.it_interval.tv_nsec = long(periodNs % 1'000'000'000);
  if (::timer_settime(slot.timer, 0, &period, nullptr) != 0) {
    const int err = errno;
    ::timer_delete(slot.timer);
    slot.inUse.store(false, std::memory_order_release);
    root_->stallWatchdog_ = nullptr;
    KESTO_THROW(Debug::kestoUtil, className, "timer_settime failed: {}", std::strerror(err));
  }
  KESTO_TRACE(watchdogHandler(), 2, className, "armed on {} threshold {} at most {} reports per minute",
              root_->schedulerName(), durationToString(threshold_), reportsPerMinute_);
}

StallWatchdog::~StallWatchdog() {
  Slot& slot = slots[slot_];
  ::timer_delete(slot.timer);
  {
    std::lock_guard<std::mutex> guard(armMutex());
    // A signal already queued now finds another generation.
    slot.generation.store((slot.generation.load(std::memory_order_relaxed) + 1) & 0xffffff,
                          std::memory_order_release);
  }
  writePendingReport();
  root_->stallWatchdog_ = nullptr;
  root_->stallReportPending_.store(false, std::memory_order_relaxed);
  slot.inUse.store(false, std::memory_order_release);
}

U64 StallWatchdog::signalCount() const noexcept { return slots[slot_].signals.load(std::memory_order_relaxed); }
U64 StallWatchdog::stallCount() const noexcept { return slots[slot_].stalls.load(std::memory_order_relaxed); }
U64 StallWatchdog::reportCount() const noexcept { return slots[slot_].reports.load(std::memory_order_relaxed); }
U64 StallWatchdog::suppressedCount() const noexcept {
  return slots[slot_].suppressed.load(std::memory_order_relaxed);
}

void StallWatchdog::writePendingReport() {
  Slot& slot = slots[slot_];
  root_->stallReportPending_.store(false, std::memory_order_relaxed);
  if (!slot.captured.load(std::memory_order_acquire))
    return;
  const auto elapsed = std::chrono::nanoseconds(slot.elapsedNs.load(std::memory_order_relaxed));
  const Platform::DebugHandler& handler = *watchdogHandler();
  if (KESTO_ENABLED(handler, 1)) {
    KESTO_TRACE(handler, 1, className, "stall: task {} of scheduler {} priority {} ran for at least {} (threshold {})",
                slot.taskName, slot.schedulerName, slot.priority, durationToString(elapsed),
                durationToString(threshold_));
    if (slot.suppressedBefore)
      KESTO_TRACE(handler, 1, className, "stall: {} earlier stalls not reported (at most {} reports per minute)",
                  slot.suppressedBefore, reportsPerMinute_);
    // One line per frame, "#N address symbol"; the first frames are the
    // signal handler's own.
    const String frames = Backtrace::prettyFrames(slot.frames, slot.frameCount);
    std::string_view rest = frames.view();
    while (!rest.empty()) {
      const std::size_t end = rest.find('\n');
      KESTO_TRACE(handler, 1, className, "stall backtrace {}", rest.substr(0, end));
      rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
    }
  }
  slot.reports.fetch_add(1, std::memory_order_relaxed);
  slot.captured.store(false, std::memory_order_release);
}

} // namespace Kesto
