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
#include <Kesto/Scheduler/TaskGroup.h>
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
// Stalls the handler can hold until the next pass moves them to the kept
// ring. One run holds one stall, unless critical tasks run from inside it
// and stall too: 4 covers that nesting with room to spare.
constexpr U32 pendingCapacity = 4;

// A stall as the handler captures it for the kept ring. Published by the
// handler's increment of Slot::pendingWritten; afterwards only elapsedNs
// changes, while the same run goes on.
struct PendingStall {
  char taskName[nameCapacity] = {};
  char schedulerName[nameCapacity] = {};
  U8 priority = 0;
  const void* task = nullptr;
  I64 runStartNs = 0;
  std::atomic<I64> elapsedNs{0};
  bool reported = false;
};

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

  // Rate limit: a fixed minute of the scheduler's clock.
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
  // The task a group runs inside the stalled run of its parent task, the
  // innermost one when groups nest; empty when the stalled task is no group.
  char innerTaskName[nameCapacity] = {};
  char innerSchedulerName[nameCapacity] = {};
  const char* innerPriority = "";
  U64 suppressedBefore = 0;
  void* frames[StallWatchdog::backtraceDepth] = {};
  int frameCount = 0;

  // Stalls for the kept ring: written by the handler at pendingWritten,
  // taken by writePendingReport() at pendingRead; both count up and wrap.
  PendingStall pending[pendingCapacity];
  std::atomic<U32> pendingWritten{0};
  std::atomic<U32> pendingRead{0};
  // The pending entry of the current stall, for its elapsed time.
  U32 stallPendingIndex = 0;

  std::atomic<U64> signals{0};
  std::atomic<U64> stalls{0};
  std::atomic<U64> reports{0};
  std::atomic<U64> suppressed{0};
  std::atomic<U64> notKept{0};
};

Slot slots[StallWatchdog::capacity];

// The minute of the rate limit is read on the scheduler's clock, the one
// the elapsed time comes from: a test that installs its own clock can move
// a stall into the next minute without waiting for it.
I64 schedulerClockNs() noexcept { return taskClockNow().time_since_epoch().count(); }

void copyName(char (&to)[nameCapacity], std::string_view from) noexcept {
  // An empty view may hold a null pointer, which memcpy must not be given
  // even for no bytes.
  const std::size_t n = std::min(from.size(), nameCapacity - 1);
  if (n != 0)
    std::memcpy(to, from.data(), n);
  to[n] = '\0';
}

// Queues a new stall for the kept ring; counts it as not kept when the
// queue is full.
void queueStall(Slot& slot, const TaskImpl& task, I64 elapsed, bool reported) noexcept {
  const U32 written = slot.pendingWritten.load(std::memory_order_relaxed);
  if (written - slot.pendingRead.load(std::memory_order_acquire) >= pendingCapacity) {
    slot.notKept.fetch_add(1, std::memory_order_relaxed);
    // An index that the update below never finds unread.
    slot.stallPendingIndex = written - pendingCapacity;
    return;
  }
  PendingStall& p = slot.pending[written % pendingCapacity];
  copyName(p.taskName, task.taskName().view());
  copyName(p.schedulerName, task.taskSchedulerName().view());
  p.priority = task.taskPriority().value();
  p.task = &task;
  p.runStartNs = task.lastTaskRunTimestamp().time_since_epoch().count();
  p.elapsedNs.store(elapsed, std::memory_order_relaxed);
  p.reported = reported;
  slot.stallPendingIndex = written;
  slot.pendingWritten.store(written + 1, std::memory_order_release);
}

// The task that holds the thread inside `task`: while it is a group's
// parent task and the group runs one of its own, that one. The depth bound
// guards against a tree caught halfway through a change.
const TaskImpl* innermostRunningTask(const TaskImpl& task) noexcept {
  const TaskImpl* inner = &task;
  for (unsigned depth = 0; depth < 16 && inner->isTaskGroup(); ++depth) {
    const TaskGroup* group = static_cast<const TaskGroup::ParentTask*>(inner)->taskGroup();
    const TaskImpl* next = group ? group->currentlyRunningTask().get() : nullptr;
    if (!next || !next->taskCurrentlyRunning())
      break;
    inner = next;
  }
  return inner;
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
    if (slot.stallPendingIndex - slot.pendingRead.load(std::memory_order_relaxed) < pendingCapacity)
      slot.pending[slot.stallPendingIndex % pendingCapacity].elapsedNs.store(elapsed, std::memory_order_relaxed);
    return;
  }
  slot.stallTask = task;
  slot.stallRunCount = runCount;
  slot.stalls.fetch_add(1, std::memory_order_relaxed);

  const I64 now = schedulerClockNs();
  if (now - slot.windowStartNs >= minuteNs) {
    slot.windowStartNs = now;
    slot.reportsInWindow = 0;
  }
  // Over the limit, or the previous capture not yet written (a critical
  // task run from inside a stalled one): counted, not reported.
  const bool suppressed =
      slot.reportsInWindow >= slot.perMinute || slot.captured.load(std::memory_order_relaxed);
  queueStall(slot, *task, elapsed, !suppressed);
  if (suppressed) {
    ++slot.suppressedSinceReport;
    slot.suppressed.fetch_add(1, std::memory_order_relaxed);
    // Not traced, but kept: the next pass moves it to the ring.
    StallWatchdog::reportPendingIs(*slot.root);
    return;
  }
  ++slot.reportsInWindow;
  copyName(slot.taskName, task->taskName().view());
  copyName(slot.schedulerName, task->taskSchedulerName().view());
  slot.priority = task->taskPriority().isValid() ? task->taskPriority().toStrep() : "?";
  const TaskImpl* inner = innermostRunningTask(*task);
  copyName(slot.innerTaskName, inner != task ? inner->taskName().view() : std::string_view());
  copyName(slot.innerSchedulerName, inner != task ? inner->taskSchedulerName().view() : std::string_view());
  slot.innerPriority = inner->taskPriority().isValid() ? inner->taskPriority().toStrep() : "?";
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

// A kept stall: the handler's capture, copied between runs.
struct StallWatchdog::KeptStall {
  char taskName[nameCapacity] = {};
  char schedulerName[nameCapacity] = {};
  U8 priority = 0;
  const void* task = nullptr;
  I64 runStartNs = 0;
  I64 elapsedNs = 0;
  bool reported = false;
};

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
  // In nanoseconds a day fits 64 bits a hundred thousand times over; a
  // longer threshold is a unit mistake, not a watchdog.
  if (threshold > maxThreshold)
    KESTO_THROW(Debug::kestoUtil, className, "threshold {}ms is beyond {}ms", threshold.count(),
                maxThreshold.count());
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
  slot.windowStartNs = schedulerClockNs();
  slot.reportsInWindow = 0;
  slot.suppressedSinceReport = 0;
  slot.captured.store(false, std::memory_order_relaxed);
  for (auto* counter : {&slot.signals, &slot.stalls, &slot.reports, &slot.suppressed, &slot.notKept})
    counter->store(0, std::memory_order_relaxed);
  // Nothing of a previous watchdog of this slot is left to take.
  slot.pendingRead.store(slot.pendingWritten.load(std::memory_order_relaxed), std::memory_order_relaxed);
  slot.stallPendingIndex = slot.pendingRead.load(std::memory_order_relaxed) - pendingCapacity;
  kept_.reset(new KeptStall[keptStallCount]);

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
U64 StallWatchdog::stallsNotKept() const noexcept { return slots[slot_].notKept.load(std::memory_order_relaxed); }

void StallWatchdog::keepCapturedStalls() noexcept {
  Slot& slot = slots[slot_];
  const U32 written = slot.pendingWritten.load(std::memory_order_acquire);
  U32 read = slot.pendingRead.load(std::memory_order_relaxed);
  for (; read != written; ++read) {
    const PendingStall& p = slot.pending[read % pendingCapacity];
    KeptStall& k = kept_[keptNext_];
    std::memcpy(k.taskName, p.taskName, nameCapacity);
    std::memcpy(k.schedulerName, p.schedulerName, nameCapacity);
    k.priority = p.priority;
    k.task = p.task;
    k.runStartNs = p.runStartNs;
    k.elapsedNs = p.elapsedNs.load(std::memory_order_relaxed);
    k.reported = p.reported;
    keptNext_ = (keptNext_ + 1) % keptStallCount;
    if (keptCount_ < keptStallCount)
      ++keptCount_;
  }
  slot.pendingRead.store(read, std::memory_order_release);
}

std::vector<StallWatchdog::Stall> StallWatchdog::stalls() const {
  std::vector<Stall> out;
  out.reserve(keptCount_);
  // The oldest is at keptNext_ once the ring is full, at 0 before.
  const unsigned first = keptCount_ == keptStallCount ? keptNext_ : 0;
  for (unsigned i = 0; i < keptCount_; ++i) {
    const KeptStall& k = kept_[(first + i) % keptStallCount];
    Stall s;
    s.taskName = String(std::string_view(k.taskName));
    s.schedulerName = String(std::string_view(k.schedulerName));
    s.priority = TaskPriority(unsigned(k.priority));
    s.task = TaskKey(k.task);
    s.runStart = TaskTimeStamp(TaskTimeDuration(k.runStartNs));
    s.elapsed = TaskTimeDuration(k.elapsedNs);
    s.reported = k.reported;
    out.push_back(std::move(s));
  }
  return out;
}

void StallWatchdog::writePendingReport() {
  Slot& slot = slots[slot_];
  root_->stallReportPending_.store(false, std::memory_order_relaxed);
  keepCapturedStalls();
  if (!slot.captured.load(std::memory_order_acquire))
    return;
  const auto elapsed = std::chrono::nanoseconds(slot.elapsedNs.load(std::memory_order_relaxed));
  const Platform::DebugHandler& handler = *watchdogHandler();
  if (KESTO_ENABLED(handler, 1)) {
    KESTO_TRACE(handler, 1, className, "stall: task {} of scheduler {} priority {} ran for at least {} (threshold {})",
                slot.taskName, slot.schedulerName, slot.priority, durationToString(elapsed),
                durationToString(threshold_));
    if (slot.innerTaskName[0] != '\0')
      KESTO_TRACE(handler, 1, className, "stall: inside it task {} of scheduler {} priority {} was running",
                  slot.innerTaskName, slot.innerSchedulerName, slot.innerPriority);
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
