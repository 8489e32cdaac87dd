// The crash-time dump: fatal-signal handlers, the terminate wrapper, and a
// line writer that needs neither the heap nor a lock.
#include <Kesto/Debug/FlightRecorder.h>

#include <Kesto/Debug/Trace.h>
#include <Kesto/Scheduler/TaskImpl.h>
#include <Kesto/Scheduler/TaskSchedulerHistory.h>
#include <Kesto/Scheduler/TaskSchedulerRoot.h>

#include "Debug/RootRegistry.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <exception>
#include <string_view>

namespace Kesto {

namespace {

constexpr int fatalSignals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT};
constexpr unsigned fatalSignalCount = sizeof fatalSignals / sizeof fatalSignals[0];

const char* signalName(int signal) noexcept {
  switch (signal) {
  case SIGSEGV: return "SIGSEGV";
  case SIGBUS: return "SIGBUS";
  case SIGFPE: return "SIGFPE";
  case SIGILL: return "SIGILL";
  case SIGABRT: return "SIGABRT";
  }
  return "?";
}

// No dump yet; a requested dump under way; a fatal dump begun (final: a
// process only dies once).
enum DumpState : int { idle = 0, requested = 1, fatal = 2 };
std::atomic<int> dumpState{idle};

std::atomic<bool> recorderOn{false};
int recorderFd = -1;
bool recorderOwnsFd = false;
struct sigaction previousActions[fatalSignalCount];
std::terminate_handler previousTerminate = nullptr;

// One line at a time in a static buffer; a line longer than the buffer is
// cut. Only one dump writes at a time (dumpState), so one buffer serves.
class LineWriter {
public:
  LineWriter& text(std::string_view s) noexcept {
    const std::size_t n = s.size() < room() ? s.size() : room();
    std::memcpy(buffer_ + used_, s.data(), n);
    used_ += n;
    return *this;
  }
  LineWriter& unsignedNumber(U64 v) noexcept {
    char digits[20];
    int n = 0;
    do {
      digits[n++] = char('0' + v % 10);
      v /= 10;
    } while (v);
    while (n && room())
      buffer_[used_++] = digits[--n];
    return *this;
  }
  LineWriter& signedNumber(I64 v) noexcept {
    if (v < 0) {
      text("-");
      return unsignedNumber(U64(0) - U64(v));
    }
    return unsignedNumber(U64(v));
  }
  // "0x" and 16 lower-case digits, as pointers read in every other message.
  LineWriter& pointer(const void* p) noexcept {
    static constexpr char hex[] = "0123456789abcdef";
    const auto v = reinterpret_cast<std::uintptr_t>(p);
    text("0x");
    for (int shift = 60; shift >= 0; shift -= 4) {
      const char c = hex[(v >> shift) & 0xf];
      text(std::string_view(&c, 1));
    }
    return *this;
  }
  LineWriter& micros(TaskTimeDuration d) noexcept {
    signedNumber(d.count() / 1000);
    return text("us");
  }
  // Ends the line and writes it whole; a short write is continued, an
  // interrupted one retried, a failing descriptor given up.
  void line() noexcept {
    buffer_[used_ < sizeof buffer_ ? used_ : sizeof buffer_ - 1] = '\n';
    std::size_t left = used_ < sizeof buffer_ ? used_ + 1 : sizeof buffer_;
    const char* p = buffer_;
    while (left) {
      const ssize_t n = ::write(recorderFd, p, left);
      if (n < 0 && errno == EINTR)
        continue;
      if (n <= 0)
        break;
      p += n;
      left -= std::size_t(n);
    }
    used_ = 0;
    text(prefix);
  }
  void start() noexcept {
    used_ = 0;
    text(prefix);
  }

  static constexpr std::string_view prefix = "KestoFlightRecorder: ";

private:
  // One byte is kept for the newline.
  std::size_t room() const noexcept { return used_ < sizeof buffer_ - 1 ? sizeof buffer_ - 1 - used_ : 0; }

  char buffer_[1024];
  std::size_t used_ = 0;
};

LineWriter writer;

void headLine(LineWriter& w, const char* what) noexcept {
  char threadName[17] = {};
  ::prctl(PR_GET_NAME, threadName, 0, 0, 0);
  w.text(what)
      .text(" pid ")
      .unsignedNumber(U64(::getpid()))
      .text(" thread ")
      .unsignedNumber(U64(::syscall(SYS_gettid)))
      .text(" ")
      .text(threadName);
  w.line();
}

void runningTaskLine(LineWriter& w, const TaskSchedulerRoot& root, const TaskScheduler& scheduler,
                     TaskTimeStamp now) noexcept {
  const TaskImpl* task = scheduler.currentlyRunningTask().get();
  w.text("root ").text(root.schedulerName().view());
  if (&scheduler != &root)
    w.text(" group ").text(scheduler.schedulerName().view());
  if (!task) {
    w.text(" no task running");
    w.line();
    return;
  }
  const TaskPriority priority = task->taskPriority();
  w.text(" running task ")
      .text(task->taskName().view())
      .text(" scheduler ")
      .text(task->taskSchedulerName().view())
      .text(" priority ")
      .text(priority.isValid() ? priority.toStrep() : "?")
      .text(" for ")
      .micros(now - task->lastTaskRunTimestamp());
  w.line();
}

void historyLines(LineWriter& w, const TaskSchedulerRoot& root, TaskTimeStamp now) noexcept {
  const TaskSchedulerHistory* history = root.taskSchedulerHistory().get();
  if (!history)
    return;
  const unsigned count = history->historyEventCount();
  w.text("root ").text(root.schedulerName().view()).text(" history ").unsignedNumber(count).text(" events, newest last");
  w.line();
  for (unsigned i = count; i-- > 0;) {
    const TaskSchedulerHistory::Event& event = (*history)[i];
    w.text("  ").micros(event.timestamp - now).text(" ");
    if (event.eventType.value() < TaskSchedulerEventType::count)
      w.text(event.eventType.eventTypeDisplay());
    else
      w.text("type ").unsignedNumber(event.eventType.value());
    w.text(" ").text(event.identifier.view());
    w.line();
  }
}

// A run whose anchor is gone but whose end was never recorded: the task an
// exception left through, once the unwinding passed its run.
void unfinishedRunLine(LineWriter& w, const TaskSchedulerRoot& root) noexcept {
  const TaskSchedulerHistory* history = root.taskSchedulerHistory().get();
  if (!history || root.currentlyRunningTask())
    return;
  for (unsigned i = 0; i < history->historyEventCount(); ++i) {
    const TaskSchedulerHistory::Event& event = (*history)[i];
    if (event.eventType == TaskSchedulerEventType::runEnd)
      return;
    if (event.eventType == TaskSchedulerEventType::runStart) {
      w.text("root ").text(root.schedulerName().view()).text(" run started and not ended: ").text(event.identifier.view());
      w.line();
      return;
    }
  }
}

// The whole dump of the calling thread, after its first line.
void dumpRoots(LineWriter& w) noexcept {
  const TaskTimeStamp now = taskClockNow();
  const pthread_t self = ::pthread_self();
  Debug::Impl::RootRegistrySlot* slots = Debug::Impl::rootRegistrySlots();
  for (unsigned i = 0; i < Debug::Impl::rootRegistryCapacity; ++i) {
    const TaskSchedulerRoot* root = slots[i].root.load(std::memory_order_acquire);
    if (!root || root == Debug::Impl::rootRegistryClaimed ||
        !::pthread_equal(slots[i].owner.load(std::memory_order_relaxed), self))
      continue;
    runningTaskLine(w, *root, *root, now);
    unfinishedRunLine(w, *root);
    historyLines(w, *root, now);
    // Groups last: their set is a hash table that a crash in the middle of
    // its growth leaves unreadable; what is above is written by then.
    for (const TaskScheduler* scheduler : root->schedulers())
      if (scheduler != root && scheduler->currentlyRunningTask())
        runningTaskLine(w, *root, *scheduler, now);
  }
  if (const U32 missing = Debug::Impl::rootRegistryOverflow()) {
    w.text("roots not recorded ").unsignedNumber(missing);
    w.line();
  }
  w.text("end");
  w.line();
}

void toDefaultAndRaise(int signal) noexcept {
  struct sigaction dfl{};
  dfl.sa_handler = SIG_DFL;
  sigemptyset(&dfl.sa_mask);
  ::sigaction(signal, &dfl, nullptr);
  // Blocked while its handler runs, the signal is delivered on return, to
  // the default action; a fault re-executed on return does the same.
  ::raise(signal);
}

void chainPrevious(unsigned index, int signal, siginfo_t* info, void* context) noexcept {
  const struct sigaction& previous = previousActions[index];
  if (previous.sa_flags & SA_SIGINFO) {
    if (previous.sa_sigaction)
      previous.sa_sigaction(signal, info, context);
    return;
  }
  if (previous.sa_handler != SIG_DFL && previous.sa_handler != SIG_IGN && previous.sa_handler)
    previous.sa_handler(signal);
}

void onFatalSignal(int signal, siginfo_t* info, void* context) {
  const int savedErrno = errno;
  if (dumpState.exchange(fatal) == fatal) {
    // A fault inside the dump or a second thread dying: no dump, no chain.
    toDefaultAndRaise(signal);
    errno = savedErrno;
    return;
  }
  writer.start();
  writer.text("signal ").unsignedNumber(U64(signal)).text(" ").text(signalName(signal)).text(" code ");
  writer.signedNumber(info ? info->si_code : 0).text(" address ").pointer(info ? info->si_addr : nullptr);
  headLine(writer, "");
  dumpRoots(writer);
  unsigned index = 0;
  while (index < fatalSignalCount && fatalSignals[index] != signal)
    ++index;
  if (index < fatalSignalCount)
    chainPrevious(index, signal, info, context);
  toDefaultAndRaise(signal);
  errno = savedErrno;
}

[[noreturn]] void onTerminate() {
  if (dumpState.exchange(fatal) != fatal) {
    writer.start();
    headLine(writer, "terminate");
    dumpRoots(writer);
  }
  if (previousTerminate)
    previousTerminate();
  std::abort();
}

} // namespace

void FlightRecorder::enabledIs(bool on) {
  if (on == recorderOn.load(std::memory_order_relaxed))
    return;
  if (on) {
    recorderFd = STDERR_FILENO;
    recorderOwnsFd = false;
    const char* path = std::getenv(fileEnvironmentVariable);
    if (path && *path) {
      const int fd = ::open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
      if (fd >= 0) {
        recorderFd = fd;
        recorderOwnsFd = true;
      } else {
        KESTO_TRACE(Debug::kestoUtil, 0, "FlightRecorder", "cannot open {}={}: {}; dumps go to standard error",
                    fileEnvironmentVariable, path, std::strerror(errno));
      }
    }
    struct sigaction sa{};
    sa.sa_sigaction = &onFatalSignal;
    // Nothing is blocked beyond the signal itself: another fatal signal
    // during the dump must reach the handler and end the process.
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = SA_SIGINFO | SA_ONSTACK;
    for (unsigned i = 0; i < fatalSignalCount; ++i)
      ::sigaction(fatalSignals[i], &sa, &previousActions[i]);
    previousTerminate = std::set_terminate(&onTerminate);
    recorderOn.store(true, std::memory_order_release);
    KESTO_TRACE(Debug::kestoUtil, 2, "FlightRecorder", "on, descriptor {}", recorderFd);
    return;
  }
  recorderOn.store(false, std::memory_order_release);
  for (unsigned i = 0; i < fatalSignalCount; ++i)
    ::sigaction(fatalSignals[i], &previousActions[i], nullptr);
  std::set_terminate(previousTerminate);
  previousTerminate = nullptr;
  if (recorderOwnsFd)
    ::close(recorderFd);
  recorderFd = -1;
  recorderOwnsFd = false;
}

bool FlightRecorder::enabled() noexcept { return recorderOn.load(std::memory_order_acquire); }

int FlightRecorder::descriptor() noexcept { return enabled() ? recorderFd : -1; }

void FlightRecorder::dumpNow() noexcept {
  if (!enabled())
    return;
  int expected = idle;
  if (!dumpState.compare_exchange_strong(expected, requested))
    return;
  writer.start();
  headLine(writer, "request");
  dumpRoots(writer);
  expected = requested;
  dumpState.compare_exchange_strong(expected, idle);
}

} // namespace Kesto
