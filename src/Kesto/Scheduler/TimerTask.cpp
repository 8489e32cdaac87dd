#include <Kesto/Scheduler/TimerTask.h>

#include <Kesto/Scheduler/TaskScheduler.h>
#include <Kesto/Scheduler/TaskSchedulerRoot.h>
#include <Kesto/Platform/Time.h>
#include <Kesto/TimerWheel/TimerWheel.h>
#include <Kesto/Debug/Trace.h>

#include <cmath>
#include <cstdlib>
#include <limits>

namespace Kesto {

namespace {
constexpr const char* className = "TimerTask";
constexpr double infinity = std::numeric_limits<double>::infinity();

// The two forms of a delay: seconds in a double, and signed 64-bit
// nanoseconds. Each form has its own zero, its own endless value and its own
// way into the wheel's seconds.
bool isZero(double d) noexcept { return d == 0.0; }
bool isZero(TaskTimeDuration d) noexcept { return d.count() == 0; }
bool isEndless(double d) noexcept { return d == infinity; }
bool isEndless(TaskTimeDuration d) noexcept { return d == TaskTimeDuration::max(); }
double toSeconds(double d) noexcept { return d; }
double toSeconds(TaskTimeDuration d) noexcept { return double(d.count()) / 1e9; }
// Only seconds in a double can fail to be a number.
bool isNumber(double d) noexcept { return !std::isnan(d); }
bool isNumber(TaskTimeDuration) noexcept { return true; }

// A delay that is not a number names no moment: the timer would claim to run
// and never fire, and its expiry would compare equal to every other one in
// the wheel. `function` is the operation that was asked.
[[noreturn, gnu::cold, gnu::noinline]] void failDelayNotANumber(const TaskImpl& task, const char* function) {
  fmassert(Debug::taskScheduler, className, __FILE__, function, __LINE__, "Delay is not a number: task {}", task);
}

// Every operation that takes a delay calls this first, before it changes
// anything (the queue place, the timer, the jitter state).
template <typename Delay>
void refuseDelayNotANumber(const TaskImpl& task, Delay delay, const char* function) {
  if (!isNumber(delay)) [[unlikely]]
    failDelayNotANumber(task, function);
}

// Sums in two's complement for the integer form: the jitter arithmetic has
// no overflow guard, and a wrapped result must stay a defined value.
double plus(double a, double b) noexcept { return a + b; }
double minus(double a, double b) noexcept { return a - b; }
TaskTimeDuration plus(TaskTimeDuration a, TaskTimeDuration b) noexcept {
  return TaskTimeDuration(I64(U64(a.count()) + U64(b.count())));
}
TaskTimeDuration minus(TaskTimeDuration a, TaskTimeDuration b) noexcept {
  return TaskTimeDuration(I64(U64(a.count()) - U64(b.count())));
}

// A random whole percentage, 0 to 100, scaled as rand_r's range allows.
constexpr unsigned int jitterStepDivisor = 21474836u;

double scaledOffset(unsigned int step, unsigned char percentage, double delay) noexcept {
  return step * (percentage * delay) / 10000.0;
}

// step * (percentage * delay) / 10000 in signed 64 bits. The products wrap
// as the machine's multiply does (computed unsigned, so the wrap is defined);
// the division truncates toward zero.
TaskTimeDuration scaledOffset(unsigned int step, unsigned char percentage, TaskTimeDuration delay) noexcept {
  const U64 product = U64(step) * (U64(percentage) * U64(delay.count()));
  return TaskTimeDuration(I64(product) / 10000);
}
} // namespace

// --- life -----------------------------------------------------------------------------

TimerTask::TimerTask(Ptr<TaskScheduler> scheduler, TaskPriority priority, const String& name)
    : TaskImpl(std::move(scheduler), priority, name) {}

TimerTask::TimerTask(TaskScheduler* scheduler, TaskPriority priority, const String& name)
    : TaskImpl(Ptr<TaskScheduler>(scheduler), priority, name) {}

TimerTask::~TimerTask() noexcept {
  // The wheel links the event by a plain pointer: it must be gone from the
  // wheel before the TimerWheelEvent part is destroyed.
  stopTimerTask();
}

const std::shared_ptr<TimerWheel>& TimerTask::timerWheel() const {
  return taskScheduler_->taskSchedulerRoot()->timerWheel();
}

// --- virtual operations -------------------------------------------------------------------

bool TimerTask::taskScheduled() const {
  taskScheduler_->sanityCheckCurrentRunningThread();
  return onRunQueue() || timerRunning_;
}

void TimerTask::scheduleTask() {
  TaskImpl::scheduleTask();
  const TaskTimeStamp now = taskClockNow();
  if (timerRunning_) {
    delTimeout(timerWheel());
    timerRunningIs(false, now);
  }
}

void TimerTask::taskRunFromTest() {
  if (timerRunning_) {
    delTimeout(timerWheel());
    timerRunningIs(false, taskClockNow());
  }
  TaskImpl::taskRunFromTest();
}

TaskStat::TaskStatus TimerTask::taskStatus() const {
  TaskStat::TaskStatus status = TaskImpl::taskStatus();
  status.taskTimerIs(true);
  status.taskTimerRunningIs(timerRunning_);
  return status;
}

void TimerTask::timeout() {
  // The wheel has already unlinked the event; only the task's side is left.
  TaskImpl::scheduleTask();
  const TaskTimeStamp now = taskClockNow();
  timerRunningIs(false, now);
  taskBusyReevaluate(now);
}

// --- the timer ----------------------------------------------------------------------------

void TimerTask::timerRunningIs(bool running, const TaskTimeStamp& now) {
  if (running == timerRunning_)
    return;
  timerRunning_ = running;
  if (running)
    taskScheduler_->timerRunningInc(now);
  else
    taskScheduler_->timerRunningDec(now);
}

bool TimerTask::doStartTimer(double seconds, bool force, const TaskTimeStamp& now) {
  if (timerRunning_ && !force && !(seconds < remainingTimeout()))
    return false;
  // On a running timer this moves the same event: one wheel operation.
  setTimeout(timerWheel(), seconds);
  timerRunningIs(true, now);
  return true;
}

template <typename Delay>
void TimerTask::scheduleTaskDelayedPrivate(Delay delay, bool force) {
  if (isZero(delay)) {
    scheduleTask();
    return;
  }
  const TaskTimeStamp now = taskClockNow();
  if (onRunQueue()) {
    if (!force) {
      KESTO_TRACE(Debug::taskScheduler, 8, className, "Already on runQueue {}", *this);
      return;
    }
    unscheduleTaskPrivate(now);
  }
  if (doStartTimer(toSeconds(delay), force, now)) {
    KESTO_TRACE(Debug::taskScheduler, 8, className, "Timer started {} delay {}", *this, delay);
    taskHistoryInsert(now, TaskSchedulerEventType::timerStart);
    taskBusyReevaluate(now);
    return;
  }
  KESTO_TRACE(Debug::taskScheduler, 8, className, "Timer already running {} expire {}", *this, expirationTime());
  if (!timerRunning_) [[unlikely]]
    failTimerNotRunning();
}

void TimerTask::failTimerNotRunning() const {
  fmassert(Debug::taskScheduler, className, __FILE__, "scheduleTaskDelayedPrivate", __LINE__, "Task: {}", *this);
}

// --- scheduling -------------------------------------------------------------------------------

template <typename Delay>
void TimerTask::_scheduleTaskDelay(Delay delay) {
  taskScheduler_->sanityCheckCurrentRunningThread();
  refuseDelayNotANumber(*this, delay, __func__);
  if (isEndless(delay)) {
    stopTimerTask();
    return;
  }
  scheduleTaskDelayedPrivate(delay, true);
}

template <typename Delay>
void TimerTask::_scheduleTaskLowestDelay(Delay delay) {
  taskScheduler_->sanityCheckCurrentRunningThread();
  refuseDelayNotANumber(*this, delay, __func__);
  // Unlike scheduleTaskDelay, an endless delay cannot mean "stop" here: a
  // lowest-delay request never postpones what is already due.
  KESTO_ASSERT_H(Debug::taskScheduler, !isEndless(delay), className, "delayIntoFuture: {}", delay);
  scheduleTaskDelayedPrivate(delay, false);
}

template <typename Delay>
Delay TimerTask::jitterOffset(Delay delay, unsigned char maxJitterPercentage) {
  KESTO_ASSERT_H(Debug::taskScheduler, maxJitterPercentage <= 100, className, "maxJitterPercentage: {} > 100",
                 char(maxJitterPercentage));
  const unsigned int r = unsigned(rand_r(taskScheduler_->taskSchedulerRoot()->jitterSeed()));
  const unsigned int step = r / jitterStepDivisor;
  const Delay offset = scaledOffset(step, maxJitterPercentage, delay);
  // Written so that an offset that is not a number fails too: with a delay
  // beyond the double's range over 100, a step of 0 makes 0 * inf.
  KESTO_ASSERT_H(Debug::taskScheduler, offset <= delay, className, "offset( {} ) > delayIntoFuture( {} )", offset,
                 delay);
  return offset;
}

template <typename Delay>
void TimerTask::_scheduleTaskJitterUp(Delay delay, unsigned char maxJitterPercentage) {
  taskScheduler_->sanityCheckCurrentRunningThread();
  refuseDelayNotANumber(*this, delay, __func__);
  if (isEndless(delay)) {
    stopTimerTask();
    return;
  }
  const Delay offset = jitterOffset(delay, maxJitterPercentage);
  const Delay total = plus(delay, offset);
  KESTO_TRACE(Debug::taskScheduler, 9, className, "Timer jitterUp {} delay {} + {} = {}", *this, delay, offset,
              total);
  scheduleTaskDelayedPrivate(total, true);
}

template <typename Delay>
void TimerTask::_scheduleTaskJitterDown(Delay delay, unsigned char maxJitterPercentage) {
  taskScheduler_->sanityCheckCurrentRunningThread();
  refuseDelayNotANumber(*this, delay, __func__);
  if (isEndless(delay)) {
    stopTimerTask();
    return;
  }
  const Delay offset = jitterOffset(delay, maxJitterPercentage);
  const Delay total = minus(delay, offset);
  KESTO_TRACE(Debug::taskScheduler, 9, className, "Timer jitterDown {} delay {} - {} = {}", *this, delay, offset,
              total);
  scheduleTaskDelayedPrivate(total, true);
}

void TimerTask::scheduleTaskDelay(double seconds) { _scheduleTaskDelay(seconds); }
void TimerTask::scheduleTaskDelay(TaskTimeDuration delay) { _scheduleTaskDelay(delay); }
void TimerTask::scheduleTaskLowestDelay(double seconds) { _scheduleTaskLowestDelay(seconds); }
void TimerTask::scheduleTaskLowestDelay(TaskTimeDuration delay) { _scheduleTaskLowestDelay(delay); }

void TimerTask::scheduleTaskJitterUp(double seconds, unsigned char maxJitterPercentage) {
  _scheduleTaskJitterUp(seconds, maxJitterPercentage);
}
void TimerTask::scheduleTaskJitterUp(TaskTimeDuration delay, unsigned char maxJitterPercentage) {
  _scheduleTaskJitterUp(delay, maxJitterPercentage);
}
void TimerTask::scheduleTaskJitterDown(double seconds, unsigned char maxJitterPercentage) {
  _scheduleTaskJitterDown(seconds, maxJitterPercentage);
}
void TimerTask::scheduleTaskJitterDown(TaskTimeDuration delay, unsigned char maxJitterPercentage) {
  _scheduleTaskJitterDown(delay, maxJitterPercentage);
}

void TimerTask::stopTimerTask() {
  taskScheduler_->sanityCheckCurrentRunningThread();
  const TaskTimeStamp now = taskClockNow();
  if (!timerRunning_) {
    KESTO_TRACE(Debug::taskScheduler, 9, className, "Timer stopped {}, was not running", *this);
  } else {
    KESTO_TRACE(Debug::taskScheduler, 9, className, "Timer stopped {}, was running", *this);
    taskHistoryInsert(now, TaskSchedulerEventType::timerStop);
    delTimeout(timerWheel());
    timerRunningIs(false, now);
  }
  if (onRunQueue())
    unscheduleTaskPrivate(now);
  taskBusyReevaluate(now);
}

// --- reading --------------------------------------------------------------------------------------

double TimerTask::timerRemaining() const { return remainingTimeout(); }

double TimerTask::currentExpirationTime() const {
  taskScheduler_->sanityCheckCurrentRunningThread();
  if (onRunQueue())
    return Kesto::time();
  if (timerRunning_)
    return expirationTime();
  return infinity;
}

} // namespace Kesto
