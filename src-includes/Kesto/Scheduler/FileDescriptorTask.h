// FileDescriptorTask: the scheduler's view of one file descriptor.
//
//   class Echo : public Kesto::FileDescriptorTask {
//   public:
//     Echo(Kesto::Ptr<Kesto::TaskScheduler> s, int fd)
//         : FileDescriptorTask(std::move(s), Kesto::TaskPriority::normal, "echo") { taskWatchFdIs(fd); }
//     void taskExecuteReadable() override { /* read until EAGAIN or taskShouldYield() */ }
//     void taskExecuteWritable() override { /* write; taskWatchWritableIs(true) if more is left */ }
//     static void operator delete(void* p) { ::operator delete(p); }
//   };
//
// Readiness never runs user code from inside the event loop's handler: the
// handler only puts a task on the run queue, and taskExecuteReadable() or
// taskExecuteWritable() runs when the scheduler reaches that task, at its
// priority and within its quantum. Reading and writing are two tasks of the
// scheduler, a ReadTask named "<name>:read" and a WriteTask named
// "<name>:write", queued, counted and reported apart. The object itself is a
// task in name only: it is never on a run queue and is not registered with
// the scheduler; reports show its two tasks.
//
// The two directions differ on purpose. The read watch is persistent: while
// the descriptor stays readable (level-triggered) the event fires again and
// queues the read task again. The write watch is one-shot: the flag is
// cleared before each run of the write task, and a task with more to write
// asks again with taskWatchWritableIs(true) from inside taskExecuteWritable().
// With edgeTriggeredIs(true) a run that leaves data behind gets no further
// event until the descriptor changes; such a task calls scheduleTaskReadable()
// itself. Work counters are gauges for reports and never schedule anything.
//
// Ownership: the object lives by the Ptrs of its users. It owns its libevent
// descriptor control (whose handler it is), its read task (made in the
// constructor, never null) and its write task (made at the first need: the
// first taskWatchWritableIs(true), scheduleTaskWritable() or write event, so
// a read-only descriptor pays for none). Each task holds a plain pointer back
// to the owner, cleared by the owner's destructor: a task that something else
// still holds runs as a no-op once the owner is gone. During a run the task
// holds a Ptr to the owner, so user code may drop the last outside reference.
// A concrete class brings its own operator delete (see _TaskBase).
//
// Allocation: construction (control, read task, names) and the first need of
// the write task allocate; the readiness path, from the descriptor event to
// the run queue and the run, allocates nothing. The two tasks come from the
// slab allocator.
//
// Failures: misuse ends in assertions (AssertException). An exception out of
// taskExecuteReadable() or taskExecuteWritable() travels on to the caller of
// the event loop and leaves the executing task set: the next run of either
// task of the object fails with "Executing task already set".
//
// Thread: the thread of the scheduler's root. taskScheduled(),
// taskScheduledReadable() and taskScheduledWritable() check it, as do the
// task operations they forward to.
#pragma once

#include <Kesto/Common/Export.h>

#include <Kesto/Platform/PlatformControls.h>
#include <Kesto/Platform/PlatformHandlers.h>
#include <Kesto/Scheduler/Task.h>
#include <Kesto/Scheduler/TaskBase.h>

#include <cstddef>

namespace Kesto {

class KESTO_EXPORT FileDescriptorTask : public _TaskBase, private Platform::FdEventHandler {
public:
  // A real task of the scheduler serving one direction of its owner.
  class ReadWriteTaskBase : public Task {
  public:
    FileDescriptorTask* owner() const noexcept { return owner_; }

    // Reports the owner busy or idle when this task's busy state changes.
    void handleTaskBusy() override;

    // The work statistics of this direction.
    U64 taskWorkCountTotal() const noexcept { return taskWorkCountTotal_; }
    float taskWorkCountDecayAvg() const noexcept { return taskWorkCountDecayAvg_; }
    U32 taskWorkCountHighWaterMark() const noexcept { return taskWorkCountHighWaterMark_; }
    U32 taskWorkPending() const noexcept { return taskWorkPending_; }
    U32 taskWorkPendingHighWaterMark() const noexcept { return taskWorkPendingHighWaterMark_; }
    unsigned char taskTestYieldRatio() const noexcept { return taskTestYieldRatio_; }

    // Stores a test yield ratio that differs from the current one, records
    // frcYieldOn or frcYieldOff and re-evaluates the yield mode; an unchanged
    // ratio does nothing.
    void testYieldRatioStepIs(unsigned char ratio);

    static void* operator new(std::size_t size);
    static void operator delete(void* p) noexcept;

  protected:
    ReadWriteTaskBase(FileDescriptorTask* owner, TaskPriority priority, const String& suffix);

  private:
    friend class FileDescriptorTask;
    FileDescriptorTask* owner_;
  };

  class ReadTask : public ReadWriteTaskBase {
  public:
    explicit ReadTask(FileDescriptorTask* owner);
    // Statistics resets reach the owner once, through the read task.
    void handleResetStats() override;
    void taskExecute() override;
  };

  class WriteTask : public ReadWriteTaskBase {
  public:
    explicit WriteTask(FileDescriptorTask* owner);
    void taskExecute() override;
  };

  FileDescriptorTask(Ptr<TaskScheduler> scheduler, TaskPriority priority, const String& name);
  // Takes a reference on `scheduler` for the length of the call.
  FileDescriptorTask(TaskScheduler* scheduler, TaskPriority priority, const String& name);

  // --- virtual operations, in slot order ----------------------------------
  // The owner's stats name, and "<name>:read" / "<name>:write" for the tasks.
  void taskStatsNameIs(String name) override;
  // Read task or write task on the run queue.
  bool taskScheduled() const override;
  // The next three forward to the task whose run is under way; call them
  // only from inside taskExecuteReadable() or taskExecuteWritable().
  bool taskShouldYield() const override;
  void taskWorkCountInc(unsigned long n) override;
  void taskWorkPendingIs(unsigned int n) override;
  ~FileDescriptorTask() override;
  virtual void taskExecuteReadable() = 0;
  virtual void taskExecuteWritable() = 0;
  // Called by the descriptor control: queue the read or write task.
  void readFdEvent(int fd) override;
  void writeFdEvent(int fd) override;

  // --- watching -------------------------------------------------------------
  // Watches `fd` (made non-blocking) with the current watch flags; a queued
  // run for an earlier descriptor is withdrawn. The same descriptor again
  // does nothing.
  void taskWatchFdIs(int fd);
  // The watched descriptor, or -1.
  int taskWatchFd() const;
  // Stops watching and withdraws queued runs; the watch flags stay.
  void taskWatchFdDel();
  void taskWatchReadableIs(bool on);
  void taskWatchWritableIs(bool on);
  bool taskWatchReadable() const noexcept { return taskWatchReadable_; }
  bool taskWatchWritable() const noexcept { return taskWatchWritable_; }
  void edgeTriggeredIs(bool on);
  // Runs the read task without a readiness event.
  void scheduleTaskReadable();
  // Runs the write task without a readiness event, making it first if needed.
  void scheduleTaskWritable();
  bool taskScheduledReadable() const;
  bool taskScheduledWritable() const;
  // Makes the write task if it does not exist yet, with the priority given at
  // construction and the read task's quantum, suspension and test ratio.
  void checkCreateWriteTask();

  // --- the two tasks ----------------------------------------------------------
  const Ptr<ReadTask>& readTask() const noexcept { return readTask_; }
  // Null until the first need for it.
  const Ptr<WriteTask>& writeTask() const noexcept { return writeTask_; }
  const Ptr<Platform::FdControl>& fdControl() const noexcept { return fdControl_; }
  // The task inside taskExecuteReadable() or taskExecuteWritable(), or null.
  ReadWriteTaskBase* executingTask() const noexcept { return executingTask_; }

  // --- settings, to both tasks ----------------------------------------------
  void taskQuantumIs(TaskDurationMs quantum);
  // The tasks change priority; the owner keeps the one given at construction,
  // which a write task made later gets.
  void taskPriorityIs(TaskPriority priority);
  void taskSuspendedIs(bool suspended);
  void taskForceYieldInTestIs(bool force);
  void taskTestYieldRatioIs(unsigned char ratio);
  // Of the read task.
  TaskDurationMs taskQuantum() const noexcept { return readTask_->taskQuantum(); }
  bool taskSuspended() const noexcept { return readTask_->taskSuspended(); }
  bool taskForceYieldInTest() const noexcept { return readTask_->taskTestYieldRatio() == 1; }
  unsigned char taskTestYieldRatio() const noexcept { return readTask_->taskTestYieldRatio(); }

  // --- run counts -------------------------------------------------------------
  U64 taskRunCount() const noexcept { return taskRunCountReadable() + taskRunCountWritable(); }
  U64 taskRunCountReadable() const noexcept { return readTask_->taskRunCount(); }
  bool taskCurrentlyRunningReadable() const noexcept { return readTask_->taskCurrentlyRunning(); }
  U64 taskRunCountWritable() const noexcept { return writeTask_ ? writeTask_->taskRunCount() : 0; }
  bool taskCurrentlyRunningWritable() const noexcept { return writeTask_ && writeTask_->taskCurrentlyRunning(); }

  // --- work statistics per direction ------------------------------------------
  void taskWorkCountReadableInc(unsigned long n) { readTask_->taskWorkCountInc(n); }
  U64 taskWorkCountReadableTotal() const noexcept { return readTask_->taskWorkCountTotal(); }
  float taskWorkCountReadableDecayAvg() const noexcept { return readTask_->taskWorkCountDecayAvg(); }
  U32 taskWorkCountReadableHighWaterMark() const noexcept { return readTask_->taskWorkCountHighWaterMark(); }
  void taskWorkPendingReadableIs(unsigned int n) { readTask_->taskWorkPendingIs(n); }
  U32 taskWorkPendingReadable() const noexcept { return readTask_->taskWorkPending(); }
  U32 taskWorkPendingReadableHighWaterMark() const noexcept { return readTask_->taskWorkPendingHighWaterMark(); }

  // Zero while the write task does not exist.
  U64 taskWorkCountWritableTotal() const noexcept { return writeTask_ ? writeTask_->taskWorkCountTotal() : 0; }
  float taskWorkCountWritableDecayAvg() const noexcept {
    return writeTask_ ? writeTask_->taskWorkCountDecayAvg() : 0.0f;
  }
  U32 taskWorkCountWritableHighWaterMark() const noexcept {
    return writeTask_ ? writeTask_->taskWorkCountHighWaterMark() : 0;
  }
  U32 taskWorkPendingWritable() const noexcept { return writeTask_ ? writeTask_->taskWorkPending() : 0; }
  U32 taskWorkPendingWritableHighWaterMark() const noexcept {
    return writeTask_ ? writeTask_->taskWorkPendingHighWaterMark() : 0;
  }
  // The write task must exist.
  void taskWorkCountWritableInc(unsigned long n);
  void taskWorkPendingWritableIs(unsigned int n);

private:
  // The bodies of the two tasks' runs, named so in assertions.
  void _taskExecuteReadable(ReadTask& task);
  void _taskExecuteWritable(WriteTask& task);
  // Compares taskScheduled() with the last seen busy state and reports a
  // change on the owner.
  void ownerBusyReevaluate();
  [[noreturn, gnu::cold]] void failNoWriteTask() const;

  bool taskWatchReadable_ = false;
  bool taskWatchWritable_ = false;
  Ptr<Platform::FdControl> fdControl_;
  Ptr<ReadTask> readTask_;
  Ptr<WriteTask> writeTask_;
  ReadWriteTaskBase* executingTask_ = nullptr;
};

} // namespace Kesto
