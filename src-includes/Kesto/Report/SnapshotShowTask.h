// SnapshotShowTask: moves a report's bytes to a non-blocking descriptor in
// slices of its quantum.
//
// The task knows its show only through five functions (moreOutput, produce,
// finish, abandon, written), so it is built without knowing a renderer. It
// runs as the write task of a FileDescriptorTask of priority normal: each
// run formats until the quantum is spent or the renderer's buffer holds at
// least 768 bytes, writes them with one write(), and either reschedules
// itself or sleeps on the descriptor's writable event when the reader is
// behind. Neither the scheduler nor other tasks ever wait for the reader.
//
// Write rule: nothing under 768 bytes is written before the end of the
// report; a 100-byte task line would otherwise cost one system call each.
// The bytes written are a view of the renderer's buffer, never a copy, and
// formatting never runs while a write of that buffer is pending.
//
//   from      event                                      to
//   idle      >= 768 bytes handed over, or forced         working
//   working   all of data_ written                       idle
//   working   partial write or EINTR                     working
//   working   EAGAIN                                     blocked
//   working   any other failure                          error
//   blocked   attemptWrite on the next run               working
//
// `error` has no way out: the show ends. Destroying the task (when the show
// drops it) stops the watch and closes the descriptor, once, whatever the
// outcome.
//
// Thread: the scheduler's thread.
#pragma once

#include <Kesto/Common/Export.h>

#include <Kesto/Core/Types.h>
#include <Kesto/Scheduler/FileDescriptorTask.h>

#include <fmt/format.h>

#include <functional>
#include <string_view>

namespace Kesto {

class KESTO_EXPORT SnapshotShowTask : public FileDescriptorTask {
public:
  enum class State : U32 {
    idle = 0,
    working = 1,
    blocked = 2,
    error = 3,
  };

  // Priority normal, named "TaskSchedulerShow-fd:<fd>", stats name
  // "TaskSchedulerShow" so that all finished shows fold into one record.
  // Watches `fd` with both watches off.
  SnapshotShowTask(TaskScheduler* scheduler, int fd);
  ~SnapshotShowTask() override;

  // Never registered for: an assertion.
  void taskExecuteReadable() override;
  // doWork(), with a standard exception turned into a last message and the
  // end of the show.
  void taskExecuteWritable() override;

  void doWork();
  void attemptWrite();
  // Hands `data` over for writing if it is at least 768 bytes or `force`;
  // true if the caller must stop (write pending or quantum spent).
  bool attemptWriteAndCheckYield(std::string_view data, bool force);
  void handleReschedulingAndExit();

  State state() const noexcept { return state_; }
  std::string_view pendingData() const noexcept { return data_; }
  int fd() const noexcept { return fd_; }

  std::function<bool()> moreOutput;
  std::function<void()> produce;
  std::function<void()> finish;
  std::function<void()> abandon;
  std::function<void()> written;

  static void* operator new(std::size_t size) { return ::operator new(size); }
  static void operator delete(void* p) noexcept { ::operator delete(p); }

private:
  std::string_view data_;
  State state_ = State::idle;
  // The descriptor, kept for messages and for the one close().
  int fd_;
};

// "idle", "working", "blocked", "error" for traces and assertions.
KESTO_EXPORT const char* formatSnapshotShowTaskState(SnapshotShowTask::State state);

} // namespace Kesto

template <>
struct fmt::formatter<Kesto::SnapshotShowTask::State> : fmt::formatter<fmt::string_view> {
  auto format(Kesto::SnapshotShowTask::State s, fmt::format_context& ctx) const {
    return fmt::formatter<fmt::string_view>::format(Kesto::formatSnapshotShowTaskState(s), ctx);
  }
};
