#include <Kesto/Scheduler/TaskSchedulerRoot.h>

#include <Kesto/Core/System.h>
#include <Kesto/Platform/Platform.h>
#include <Kesto/TimerWheel/TimerWheel.h>
#include <Kesto/Debug/StallWatchdog.h>
#include <Kesto/Debug/Trace.h>

#include "Debug/RootRegistry.h"

#include <fmt/format.h>

#include <pthread.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <exception>
#include <sstream>

namespace Kesto {

U32 auxThreadCount = 0;
unsigned TaskSchedulerRoot::historyEntryCountDefault = 100;

namespace {
constexpr const char* className = "TaskSchedulerRoot";
constexpr const char* threadSanityEnv = "KESTO_SCHEDULER_THREAD_SANITY_DISABLED";

// The root walks the registered tasks of every scheduler of the thread, its
// groups included. The list is a protected member of the common base; a
// pointer to it taken in the derived class reaches it in any scheduler.
struct RegisteredTasksAccess : TaskSchedulerRoot {
  static constexpr TaskScheduler::RegisteredTasks TaskScheduler::*member = &RegisteredTasksAccess::registeredTasks_;
};

TaskScheduler::RegisteredTasks& registeredTasksOf(TaskScheduler& s) noexcept {
  return s.*RegisteredTasksAccess::member;
}

void threadNameOf(pthread_t thread, char (&name)[16]) noexcept {
  if (pthread_getname_np(thread, name, sizeof name) != 0)
    name[0] = '\0';
  name[sizeof name - 1] = '\0';
}

// libstdc++ writes a null id as "thread::id of a non-executing thread".
std::string threadIdText(std::thread::id id) {
  std::ostringstream os;
  os << id;
  return os.str();
}

// The thread's shared root. Its destructor is the thread-exit clean-up: the
// runtime registers it at the first use of the variable in each thread.
thread_local Ptr<TaskSchedulerRoot> sharedRoot;
} // namespace

// --- life ---------------------------------------------------------------------------

Ptr<TaskSchedulerRoot> TaskSchedulerRoot::TaskSchedulerRootIs(const String& name) {
  return Ptr<TaskSchedulerRoot>(new TaskSchedulerRoot(name));
}

TaskSchedulerRoot::TaskSchedulerRoot(const String& name)
    : TaskScheduler(name, this, Ptr<TaskSchedulerHistory>(new TaskSchedulerHistory(historyEntryCountDefault))),
      schedulers_(), callbackControl_(Platform::getCallbackControl(this)),
      timerWheel_(getTimerWheelForTaskScheduler(Platform::eventPriorityStrictHigh)),
      threadId_(std::this_thread::get_id()), pid_(getpid()),
      threadSanityDisabled_(std::getenv(threadSanityEnv) != nullptr), isMainThread_(Kesto::isMainThread()) {
  threadNameOf(pthread_self(), threadName_);
  registerScheduler(this);
  virtualTimeCheck();
  Debug::Impl::rootRegistryAdd(this);
}

TaskSchedulerRoot::~TaskSchedulerRoot() {
  Debug::Impl::rootRegistryRemove(this);
  unregisterScheduler(this);
  timerWheel_.reset();
  callbackControl_ = nullptr;
}

Ptr<TaskSchedulerRoot> schedulerRootKesto() {
  Ptr<TaskSchedulerRoot>& root = sharedRoot;
  if (!root) [[unlikely]] {
    const String name = Kesto::isMainThread() ? String("main") : String(fmt::format("thread:{}", gettid()));
    root = TaskSchedulerRoot::TaskSchedulerRootIs(name);
  }
  root->virtualTimeCheck();
  return root;
}

Ptr<TaskSchedulerRoot> schedulerRootKestoNonShared(const String& name) {
  return TaskSchedulerRoot::TaskSchedulerRootIs(name);
}

// --- virtual operations -----------------------------------------------------------------

bool TaskSchedulerRoot::resetStatsInProgress() const {
  for (TaskScheduler* s : schedulers_)
    if (s->TaskScheduler::resetStatsInProgress())
      return true;
  return false;
}

void TaskSchedulerRoot::suspendedIs(bool suspended) {
  if (suspended == suspended_)
    return;
  suspended_ = suspended;
  const TaskTimeStamp now = taskClockNow();
  if (suspended) {
    // Passes already requested still arrive and are refused; none follows.
    historyInsert(now, TaskSchedulerEventType::schedulerSuspended);
    return;
  }
  historyInsert(now, TaskSchedulerEventType::schedulerUnsuspended);
  // The suspended time is not slip.
  lastSchedulerRunEnd_ = now;
  // Requested even with nothing runnable: the pass that finds nothing puts
  // the scheduler's state right.
  requestSchedulerRun();
}

void TaskSchedulerRoot::runCriticalPriorityTasks() {
  KESTO_TRACE(Debug::taskScheduler, 6, className, "scheduler={} while running {}", *this,
              currentlyRunningTask_ ? currentlyRunningTask_->taskName() : String("<none>"));
  historyInsert(taskClockNow(), TaskSchedulerEventType::schedulerRunCriticalStart);
  // A timer that drives a critical task must fire although the loop is held.
  const int expired = processExpiredTimersForTaskScheduler(timerWheel_);
  unsigned ran = 0;
  {
    PreserveCurrentlyRunningTaskAnchor anchor(*this);
    // A suspended root makes the pass return false at once.
    while (_handleSchedulerRun(TaskPriority::critical))
      ++ran;
    KESTO_TRACE(Debug::taskScheduler, 6, className, "scheduler={} expired {} timers, ran {} critical tasks", *this,
                expired, ran);
    historyInsert(taskClockNow(), TaskSchedulerEventType::schedulerRunCriticalEnd);
  }
}

void TaskSchedulerRoot::requestSchedulerRun() {
  if (suspended_) [[unlikely]] {
    KESTO_TRACE(Debug::taskScheduler, 8, className, "{} ignore requestSchedulerRun, scheduler is suspended", *this);
    return;
  }
  callbackControl_->requestCallback();
}

void TaskSchedulerRoot::taskRegister(TaskImpl* task) { TaskScheduler::taskRegister(task); }

void TaskSchedulerRoot::timerRunningInc(const TaskTimeStamp& now) { doTimerRunningInc(now); }

void TaskSchedulerRoot::timerRunningDec(const TaskTimeStamp& now) { doTimerRunningDec(now); }

void TaskSchedulerRoot::sanityCheckCurrentRunningThread() const {
  // The owner's own call, by far the most frequent, decides on one compare;
  // the switches only matter for a foreign thread.
  if (std::this_thread::get_id() == threadId_) [[likely]]
    return;
  if (threadSanityDisabled_ || __atomic_load_n(&auxThreadCount, __ATOMIC_RELAXED) != 0)
    return;
  // A forked child must be able to unwind what its parent's thread built.
  if (getpid() != pid_)
    return;
  failWrongThread();
}

void TaskSchedulerRoot::failWrongThread() const {
  char callerName[16];
  threadNameOf(pthread_self(), callerName);
  KESTO_FAIL(className, "Executing in wrong thread {}({}) pid {} scheduler belongs to thread {}({}) pid {}",
             threadIdText(std::this_thread::get_id()), callerName, getpid(), threadIdText(threadId_), threadName_,
             pid_);
}

void TaskSchedulerRoot::callback() { handleSchedulerRun(); }

// --- running ------------------------------------------------------------------------------

bool TaskSchedulerRoot::handleSchedulerRun() {
  // Set by the stall watchdog's signal handler during a long run; the report
  // is written here, between two runs, where formatting is allowed.
  if (stallReportPending_.load(std::memory_order_relaxed)) [[unlikely]]
    stallWatchdog_->writePendingReport();
  virtualTimeCheck();
  return _handleSchedulerRun(TaskPriority::scavenge);
}

void TaskSchedulerRoot::virtualTimeCheck() {
  // Virtual time is the main thread's: the clock offset moved by fast
  // forward belongs to the main thread's loop only.
  const bool on = isMainThread_ && Platform::fastForward();
  if (on == virtualTime_) [[likely]]
    return;
  virtualTime_ = on;
  historyInsert(taskClockNow(),
                on ? TaskSchedulerEventType::schedulerVirtualTimeOn : TaskSchedulerEventType::schedulerVirtualTimeOff);
  taskShouldYieldModeReevaluate();
  for (TaskScheduler* s : schedulers_)
    s->handleVirtualTimeChange();
}

void TaskSchedulerRoot::taskShouldYieldModeReevaluate() {
  for (TaskScheduler* s : schedulers_)
    for (TaskImpl& task : registeredTasksOf(*s))
      task.taskShouldYieldModeReevaluate();
}

void TaskSchedulerRoot::doUpdateSchedulerLatency() {
  schedulerRunStartIs(taskClockNow());
  lastSchedulerRunEnd_ = taskClockNow();
}

// --- settings --------------------------------------------------------------------------------

void TaskSchedulerRoot::threadSanityDisabledIs(bool disabled) {
  if (disabled == threadSanityDisabled_)
    return;
  KESTO_TRACE(Debug::taskScheduler, 1, className, "{} {}able thread sanity checking", *this,
              disabled ? "dis" : "en");
  threadSanityDisabled_ = disabled;
}

void TaskSchedulerRoot::taskTestYieldRatioIs(unsigned char ratio) {
  if (ratio == testYieldRatio_)
    return;
  testYieldRatio_ = ratio;
  historyInsert(taskClockNow(), ratio ? TaskSchedulerEventType::schedulerTestYieldRatioOn
                                      : TaskSchedulerEventType::schedulerTestYieldRatioOff);
  taskShouldYieldModeReevaluate();
}

// --- the schedulers of the thread ---------------------------------------------------------------

void TaskSchedulerRoot::registerScheduler(TaskScheduler* scheduler) {
  const bool inserted = schedulers_.insert(scheduler).second;
  KESTO_ASSERT(inserted, className, "insert failed for {}", *scheduler);
}

void TaskSchedulerRoot::unregisterScheduler(TaskScheduler* scheduler) {
  const bool erased = schedulers_.erase(scheduler) != 0;
  KESTO_ASSERT(erased, className, "delete failed for {}", *scheduler);
}

U32 TaskSchedulerRoot::taskGroupCount() const {
  KESTO_ASSERT(!schedulers_.empty(), className, "");
  return U32(schedulers_.size() - 1);
}

U32 TaskSchedulerRoot::totalRegisteredTaskCount() const {
  U32 count = 0;
  for (TaskScheduler* s : schedulers_)
    count += U32(s->registeredTaskCount());
  return count;
}

TaskSchedulerQueueStats TaskSchedulerRoot::queueStatsRoot() const {
  TaskSchedulerQueueStats stats;
  for (TaskScheduler* s : schedulers_)
    stats += s->queueStats();
  return stats;
}

TaskScheduler* TaskSchedulerRoot::findSchedulerForTest(const String& name) {
  for (TaskScheduler* s : schedulers_)
    if (s->schedulerName() == name)
      return s;
  return nullptr;
}

const TaskScheduler* TaskSchedulerRoot::findSchedulerForTest(const String& name) const {
  return const_cast<TaskSchedulerRoot*>(this)->findSchedulerForTest(name);
}

// --- history ------------------------------------------------------------------------------------

void TaskSchedulerRoot::clearHistory() { taskSchedulerHistory_->clearHistory(this); }

unsigned TaskSchedulerRoot::historyEntryCount() const { return taskSchedulerHistory_->historyEntryCount(); }

void TaskSchedulerRoot::historyEntryCountIs(unsigned count) { taskSchedulerHistory_->historyEntryCountIs(count); }

unsigned TaskSchedulerRoot::historyEventCount() const { return taskSchedulerHistory_->historyEventCount(); }

// --- latency culprits -----------------------------------------------------------------------------

void TaskSchedulerRoot::latencyCulpritsIs(TaskDurationMs threshold, U32 eventsKept) {
  const TaskDurationMs before = latencyCulpritsThreshold();
  taskSchedulerHistory_->latencyCulpritsIs(threshold, eventsKept);
  if (threshold != before)
    KESTO_TRACE(Debug::taskScheduler, 2, className, "{} latency culprits {}", *this,
                threshold.count() ? fmt::format("over {}ms, {} events kept", threshold.count(), eventsKept)
                                  : std::string("off"));
}

TaskDurationMs TaskSchedulerRoot::latencyCulpritsThreshold() const {
  return taskSchedulerHistory_->latencyCulpritsThreshold();
}

U32 TaskSchedulerRoot::latencyEventsKept() const { return taskSchedulerHistory_->latencyEventsKept(); }

U64 TaskSchedulerRoot::latencyEventCount() const { return taskSchedulerHistory_->latencyEventCount(); }

std::vector<LatencyEvent> TaskSchedulerRoot::latencyEvents(U32 newest) const {
  return taskSchedulerHistory_->latencyEvents(newest);
}

// --- nested runs ----------------------------------------------------------------------------------

TaskSchedulerRoot::PreserveCurrentlyRunningTaskAnchor::PreserveCurrentlyRunningTaskAnchor(
    TaskSchedulerRoot& root) noexcept
    : root_(root), preserved_(std::move(root.currentlyRunningTask_)) {
  root_.currentlyRunningTask_ = nullptr;
}

TaskSchedulerRoot::PreserveCurrentlyRunningTaskAnchor::~PreserveCurrentlyRunningTaskAnchor() noexcept(false) {
  // While an exception of a nested task unwinds, the nested anchor has
  // already closed; a second failure here would only terminate.
  KESTO_ASSERT(!root_.currentlyRunningTask_ || std::uncaught_exceptions() != 0, className,
               "currentlyRunningTask_ is not NULL {} preserved {}", DisplayPointer(root_.currentlyRunningTask_.get()),
               DisplayPointer(preserved_.get()));
  root_.currentlyRunningTask_ = std::move(preserved_);
}

} // namespace Kesto
