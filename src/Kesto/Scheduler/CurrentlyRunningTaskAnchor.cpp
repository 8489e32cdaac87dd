// The currently-running anchor and the process-wide bookkeeping of running
// critical tasks.
#include <Kesto/Debug/DebugHandler.h>
#include <Kesto/Scheduler/TaskScheduler.h>
#include <Kesto/Debug/Trace.h>

#include <mutex>

namespace Kesto {

void (*assertNotRunningCriticalTaskFn)() = nullptr;

namespace {
constexpr const char* className = "TaskScheduler";

// The count and the exported pointer are shared by all threads; the flag is
// per thread, since a thread runs at most one critical task at a time.
std::mutex& criticalMutex() {
  static std::mutex m;
  return m;
}
unsigned criticalCount = 0;
thread_local bool runningCritical = false;

// The bookkeeping's own checks report as "file:function:line: name=value",
// through the scheduler's handler.
template <typename Value>
[[noreturn, gnu::cold, gnu::noinline]] void failBookkeeping(const char* function, int line, const char* name,
                                                            const Value& value) {
  Platform::DebugStream stream;
  stream << name << '=' << value;
  debugAndAssert(*Debug::taskScheduler, stream, __FILE__, function, line);
}

void runningIs(bool running) {
  std::lock_guard<std::mutex> guard(criticalMutex());
  if (running) {
    if (runningCritical) [[unlikely]]
      failBookkeeping(__func__, __LINE__, "running", runningCritical);
    runningCritical = true;
    ++criticalCount;
    assertNotRunningCriticalTaskFn = &doAssertNotRunningCriticalTask;
    return;
  }
  if (!runningCritical) [[unlikely]]
    failBookkeeping(__func__, __LINE__, "running", runningCritical);
  const unsigned was = criticalCount--;
  runningCritical = false;
  if (was == 1) {
    if (assertNotRunningCriticalTaskFn != &doAssertNotRunningCriticalTask) [[unlikely]]
      failBookkeeping(__func__, __LINE__, "assertNotRunningCriticalTaskFn",
                      reinterpret_cast<const void*>(assertNotRunningCriticalTaskFn));
    assertNotRunningCriticalTaskFn = nullptr;
  }
}
} // namespace

void doAssertNotRunningCriticalTask() {
  KESTO_ASSERT(!runningCritical, className, "Disallowed operation while in running critical task");
}

unsigned runningCriticalTaskCount() {
  std::lock_guard<std::mutex> guard(criticalMutex());
  return criticalCount;
}

TaskScheduler::CurrentlyRunningTaskAnchor::CurrentlyRunningTaskAnchor(TaskScheduler& scheduler, TaskImpl& task)
    : scheduler_(scheduler), task_(&task) {
  KESTO_ASSERT(!scheduler_.currentlyRunningTask_, className, "currentlyRunningTask_ is not NULL {}",
               DisplayPointer(scheduler_.currentlyRunningTask_.get()));
  // The reference keeps the task alive to the end of its own run, even if
  // taskExecute() drops the last outside reference.
  scheduler_.currentlyRunningTask_ = Ptr<TaskImpl>(task_);
  if (task_->taskPriority() == TaskPriority::critical)
    runningIs(true);
}

TaskScheduler::CurrentlyRunningTaskAnchor::~CurrentlyRunningTaskAnchor() noexcept(false) {
  KESTO_ASSERT(scheduler_.currentlyRunningTask_.get() == task_, className, "currentlyRunningTask_ != task_ {} != {}",
               DisplayPointer(scheduler_.currentlyRunningTask_.get()), DisplayPointer(task_));
  if (task_->taskPriority() == TaskPriority::critical)
    runningIs(false);
  // Cleared before the release, so that a task destroyed here finds no
  // running task on its scheduler.
  Ptr<TaskImpl> release = std::move(scheduler_.currentlyRunningTask_);
  scheduler_.currentlyRunningTask_ = nullptr;
}

} // namespace Kesto
