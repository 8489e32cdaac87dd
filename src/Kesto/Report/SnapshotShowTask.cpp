#include <Kesto/Report/SnapshotShowTask.h>

#include <Kesto/Debug/Trace.h>
#include <Kesto/Scheduler/TaskScheduler.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <unistd.h>

namespace Kesto {

namespace {

constexpr const char* className = "SnapshotShowTask";

// Under this, bytes wait in the renderer's buffer for more: about seven
// task lines, so a report costs one write() per several lines, not per line.
constexpr std::size_t smallWriteLimit = 768;

String showTaskName(int fd) { return String(fmt::format("{}-fd:{}", "TaskSchedulerShow", fd)); }

} // namespace

const char* formatSnapshotShowTaskState(SnapshotShowTask::State state) {
  switch (state) {
  case SnapshotShowTask::State::idle:
    return "idle";
  case SnapshotShowTask::State::working:
    return "working";
  case SnapshotShowTask::State::blocked:
    return "blocked";
  case SnapshotShowTask::State::error:
    return "error";
  }
  KESTO_FAIL(className, "unknown:{}", U32(state));
}

SnapshotShowTask::SnapshotShowTask(TaskScheduler* scheduler, int fd)
    : FileDescriptorTask(scheduler, TaskPriority::normal, showTaskName(fd)), fd_(fd) {
  taskStatsNameIs("TaskSchedulerShow");
  taskWatchFdIs(fd);
  taskWatchReadableIs(false);
  taskWatchWritableIs(false);
}

SnapshotShowTask::~SnapshotShowTask() {
  taskWatchWritableIs(false);
  taskWatchFdDel();
  ::close(fd_);
}

void SnapshotShowTask::taskExecuteReadable() { KESTO_FAIL(className, "We never register for readable events"); }

void SnapshotShowTask::taskExecuteWritable() {
  try {
    doWork();
  } catch (const std::exception& e) {
    abandon();
    const std::string message = fmt::format("\n% An error was encountered: {}", e.what());
    data_ = message;
    attemptWrite(); // best effort; from idle this is refused by its assertion
    data_ = {};
    finish();
  }
}

void SnapshotShowTask::doWork() {
  switch (state_) {
  case State::error:
    KESTO_TRACE(Debug::taskScheduler, 3, className, "No work to do for fd {} state {}", fd_, state_);
    return;
  case State::working:
  case State::blocked:
    KESTO_TRACE(Debug::taskScheduler, 3, className, "Resuming write for fd {}", fd_);
    attemptWrite();
    if (state_ != State::idle) {
      KESTO_TRACE(Debug::taskScheduler, 3, className, "Resumed write not yet complete for fd {}", fd_);
      handleReschedulingAndExit();
      return;
    }
    break;
  case State::idle:
    break;
  default:
    KESTO_FAIL(className, "fd {}", fd_);
  }
  KESTO_ASSERT(data_.empty(), className, "fd {}", fd_);
  if (moreOutput()) {
    produce();
    if (state_ != State::idle) {
      KESTO_TRACE(Debug::taskScheduler, 3, className, "Write incomplete for fd {}", fd_);
      handleReschedulingAndExit();
      return;
    }
    if (moreOutput()) {
      KESTO_TRACE(Debug::taskScheduler, 3, className, "Continuing formatting for fd {}", fd_);
      scheduleTaskWritable();
      return;
    }
  }
  KESTO_TRACE(Debug::taskScheduler, 3, className, "Completed output for fd {}", fd_);
  finish();
}

void SnapshotShowTask::attemptWrite() {
  switch (state_) {
  case State::idle:
    KESTO_ASSERT(data_.empty(), className, " fd {}", fd_);
    return;
  case State::blocked:
    state_ = State::working;
    break;
  case State::working:
    break;
  default:
    KESTO_FAIL(className, "fd {} state {}", fd_, state_);
  }
  taskWorkPendingWritableIs(0);
  KESTO_ASSERT(!data_.empty(), className, "fd {} remaining {}", fd_, 0);
  const ssize_t n = ::write(fd_, data_.data(), data_.size());
  if (n > 0) {
    KESTO_TRACE(Debug::taskScheduler, 3, className, "Writen to fd {} wrote {} bytes of {} remaining", fd_, n,
                data_.size());
    taskWorkCountWritableInc(static_cast<unsigned long>(n)); // a show's work count is its bytes
    data_.remove_prefix(static_cast<std::size_t>(n));
    if (data_.empty()) {
      state_ = State::idle;
      written();
    }
    return;
  }
  const int err = errno;
  KESTO_ASSERT(n != 0, className, "fd {} size {} wrote zero bytes, errno {} {}", fd_, data_.size(), err,
               std::strerror(err));
  KESTO_TRACE(Debug::taskScheduler, 3, className, "Writing to fd {} got {} {}", fd_, err, std::strerror(err));
  switch (err) {
  case EAGAIN:
    state_ = State::blocked;
    taskWorkPendingWritableIs(1);
    break;
  case EINTR:
    break; // tried again on the next turn
  case EBADF:
  case EPIPE:
  case ECONNRESET:
    state_ = State::error;
    break;
  default:
    KESTO_TRACE(Debug::taskScheduler, 2, className, "Writing to fd {} failed {} {}", fd_, err, std::strerror(err));
    state_ = State::error;
    break;
  }
}

bool SnapshotShowTask::attemptWriteAndCheckYield(std::string_view data, bool force) {
  KESTO_ASSERT(state_ == State::idle, className, "fd {} state {}", fd_, state_);
  KESTO_ASSERT(data_.empty(), className, "Still have {} bytes to write to fd {}", data_.size(), fd_);
  if (!data.empty()) {
    if (data.size() < smallWriteLimit && !force) {
      KESTO_TRACE(Debug::taskScheduler, 3, className, "Defer small write of {} for fd {}", data.size(), fd_);
    } else {
      KESTO_TRACE(Debug::taskScheduler, 3, className, "New formatted data of {} bytes", data.size());
      data_ = data;
      state_ = State::working;
      attemptWrite();
      if (state_ != State::idle) {
        KESTO_TRACE(Debug::taskScheduler, 3, className, "Yield because not idle for fd {} state {}", fd_, state_);
        return true;
      }
      KESTO_ASSERT(data_.empty(), className, "data_.empty()");
    }
  }
  if (taskShouldYield()) {
    KESTO_TRACE(Debug::taskScheduler, 3, className, "Yield because out of time for fd {}", fd_);
    return true;
  }
  return false;
}

void SnapshotShowTask::handleReschedulingAndExit() {
  switch (state_) {
  case State::blocked:
    taskWatchWritableIs(true); // sleep until the reader makes room
    return;
  case State::working:
    scheduleTaskWritable();
    return;
  case State::error:
    KESTO_TRACE(Debug::taskScheduler, 3, className, "Exiting after error for fd {}", fd_);
    finish();
    return;
  case State::idle:
    break;
  }
  KESTO_FAIL(className, "unexpected idle state for fd {}", fd_);
}

} // namespace Kesto
