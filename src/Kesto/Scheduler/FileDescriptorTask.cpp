#include <Kesto/Scheduler/FileDescriptorTask.h>
#include <Kesto/Platform/Platform.h>
#include <Kesto/Scheduler/TaskScheduler.h>
#include <Kesto/Debug/Trace.h>

#include <ZuSlab/ZuSlab.h>

namespace Kesto {

namespace {
constexpr const char* className = "FileDescriptorTask";

// "<owner's name><suffix>" as a task name, and the stats name to go with it:
// a stats name the owner was given is carried over, with the same suffix.
String withSuffix(const String& base, const String& suffix) {
  String name = base;
  name.addRight(suffix.view());
  return name;
}

const String& readSuffix() {
  static const String suffix(":read");
  return suffix;
}

const String& writeSuffix() {
  static const String suffix(":write");
  return suffix;
}
} // namespace

// --- ReadWriteTaskBase --------------------------------------------------------

FileDescriptorTask::ReadWriteTaskBase::ReadWriteTaskBase(FileDescriptorTask* owner, TaskPriority priority,
                                                         const String& suffix)
    : Task(owner->taskScheduler_, priority, withSuffix(owner->taskName(), suffix)), owner_(owner) {
  if (owner->taskStatsName().view() != owner->taskName().view())
    taskStatsNameIs(withSuffix(owner->taskStatsName(), suffix));
}

void* FileDescriptorTask::ReadWriteTaskBase::operator new(std::size_t size) {
  return ZuSlab::slabAllocOrStdMalloc(size);
}

void FileDescriptorTask::ReadWriteTaskBase::operator delete(void* p) noexcept { ZuSlab::slabFreeOrStdFree(p); }

void FileDescriptorTask::ReadWriteTaskBase::handleTaskBusy() {
  if (owner_)
    owner_->ownerBusyReevaluate();
}

void FileDescriptorTask::ReadWriteTaskBase::testYieldRatioStepIs(unsigned char ratio) {
  if (ratio == taskTestYieldRatio_)
    return;
  taskTestYieldRatio_ = ratio;
  taskHistoryInsert(taskClockNow(), ratio ? TaskSchedulerEventType::frcYieldOn : TaskSchedulerEventType::frcYieldOff);
  taskShouldYieldModeReevaluate();
}

// --- ReadTask / WriteTask ---------------------------------------------------------

FileDescriptorTask::ReadTask::ReadTask(FileDescriptorTask* owner)
    : ReadWriteTaskBase(owner, owner->taskPriority(), readSuffix()) {}

void FileDescriptorTask::ReadTask::handleResetStats() {
  if (owner_)
    owner_->handleResetStats();
}

void FileDescriptorTask::ReadTask::taskExecute() {
  FileDescriptorTask* owner = owner_;
  if (!owner)
    return;
  // User code may drop the last outside reference to the owner.
  Ptr<FileDescriptorTask> hold(owner);
  owner->_taskExecuteReadable(*this);
}

FileDescriptorTask::WriteTask::WriteTask(FileDescriptorTask* owner)
    : ReadWriteTaskBase(owner, owner->taskPriority(), writeSuffix()) {}

void FileDescriptorTask::WriteTask::taskExecute() {
  FileDescriptorTask* owner = owner_;
  if (!owner)
    return;
  Ptr<FileDescriptorTask> hold(owner);
  owner->_taskExecuteWritable(*this);
}

// --- construction -------------------------------------------------------------------

FileDescriptorTask::FileDescriptorTask(Ptr<TaskScheduler> scheduler, TaskPriority priority, const String& name)
    : _TaskBase(std::move(scheduler), priority, name) {
  fdControl_ = Platform::getFdControl(static_cast<Platform::FdEventHandler*>(this));
  readTask_ = Ptr<ReadTask>(new ReadTask(this));
  taskWatchReadableIs(true);
  taskWatchWritableIs(false);
}

FileDescriptorTask::FileDescriptorTask(TaskScheduler* scheduler, TaskPriority priority, const String& name)
    : FileDescriptorTask(Ptr<TaskScheduler>(scheduler), priority, name) {}

FileDescriptorTask::~FileDescriptorTask() {
  // The tasks may outlive the owner (something else may hold them); they
  // must not reach back into it.
  readTask_->owner_ = nullptr;
  if (writeTask_)
    writeTask_->owner_ = nullptr;
  writeTask_ = nullptr;
  readTask_ = nullptr;
  // The control's destructor removes the libevent events.
  fdControl_ = nullptr;
}

void FileDescriptorTask::checkCreateWriteTask() {
  if (writeTask_)
    return;
  writeTask_ = Ptr<WriteTask>(new WriteTask(this));
  WriteTask& w = *writeTask_;
  const ReadTask& r = *readTask_;
  // A forced yield on every call makes the quantum meaningless; the write
  // task keeps its default then.
  if (r.taskTestYieldRatio() != 1)
    w.taskQuantumIs(r.taskQuantum());
  w.taskSuspendedIs(r.taskSuspended());
  w.testYieldRatioStepIs(r.taskTestYieldRatio());
}

// --- virtual operations -----------------------------------------------------------------

void FileDescriptorTask::taskStatsNameIs(String name) {
  taskStatsName_ = name.dedup();
  readTask_->taskStatsNameIs(withSuffix(taskStatsName_, readSuffix()));
  if (writeTask_)
    writeTask_->taskStatsNameIs(withSuffix(taskStatsName_, writeSuffix()));
}

bool FileDescriptorTask::taskScheduled() const {
  taskScheduler_->sanityCheckCurrentRunningThread();
  return readTask_->taskScheduled() || (writeTask_ && writeTask_->taskScheduled());
}

bool FileDescriptorTask::taskShouldYield() const { return executingTask_->taskShouldYield(); }

void FileDescriptorTask::taskWorkCountInc(unsigned long n) { executingTask_->taskWorkCountInc(n); }

void FileDescriptorTask::taskWorkPendingIs(unsigned int n) { executingTask_->taskWorkPendingIs(n); }

void FileDescriptorTask::readFdEvent(int fd) {
  KESTO_ASSERT(taskWatchReadable_, className, "readFdEvent() called with taskWatchReadable off");
  KESTO_ASSERT(fd == fdControl_->getFd(), className, "Notified about {} watching {}", fd, fdControl_->getFd());
  taskHistoryInsert(taskClockNow(), TaskSchedulerEventType::fdReadable);
  readTask_->scheduleTask();
}

void FileDescriptorTask::writeFdEvent(int fd) {
  KESTO_ASSERT(taskWatchWritable_, className, "writeFdEvent() called with taskWatchWritable off");
  KESTO_ASSERT(fd == fdControl_->getFd(), className, "Notified about {} watching {}", fd, fdControl_->getFd());
  taskHistoryInsert(taskClockNow(), TaskSchedulerEventType::fdWritable);
  checkCreateWriteTask();
  writeTask_->scheduleTask();
}

// --- runs -------------------------------------------------------------------------------

void FileDescriptorTask::_taskExecuteReadable(ReadTask& task) {
  KESTO_ASSERT(taskWatchReadable_, className, "ReadTask should only run if taskWatchReadable");
  KESTO_ASSERT(!executingTask_, className, "Executing task already set");
  executingTask_ = &task;
  taskExecuteReadable();
  // Not reached when the user's code throws: the next run then fails above,
  // so an interrupted run cannot go unnoticed.
  executingTask_ = nullptr;
}

void FileDescriptorTask::_taskExecuteWritable(WriteTask& task) {
  // One-shot: cleared before the user's code, which asks again if it has
  // more to write.
  taskWatchWritableIs(false);
  KESTO_ASSERT(!executingTask_, className, "Executing task already set");
  executingTask_ = &task;
  taskExecuteWritable();
  executingTask_ = nullptr;
}

void FileDescriptorTask::ownerBusyReevaluate() {
  const bool busy = taskScheduled();
  if (busy == taskBusy_)
    return;
  taskBusy_ = busy;
  taskHistoryInsert(taskClockNow(), busy ? TaskSchedulerEventType::busy : TaskSchedulerEventType::idle);
  handleTaskBusy();
}

// --- watching -----------------------------------------------------------------------------

void FileDescriptorTask::taskWatchFdIs(int fd) {
  if (fd == fdControl_->getFd())
    return;
  readTask_->unscheduleTask();
  if (writeTask_)
    writeTask_->unscheduleTask();
  fdControl_->setFd(fd);
}

int FileDescriptorTask::taskWatchFd() const { return fdControl_->getFd(); }

void FileDescriptorTask::taskWatchFdDel() {
  readTask_->unscheduleTask();
  if (writeTask_)
    writeTask_->unscheduleTask();
  fdControl_->delFd();
}

void FileDescriptorTask::taskWatchReadableIs(bool on) {
  if (on == taskWatchReadable_)
    return;
  taskWatchReadable_ = on;
  fdControl_->setReads(on);
  if (!on)
    readTask_->unscheduleTask();
}

void FileDescriptorTask::taskWatchWritableIs(bool on) {
  if (on == taskWatchWritable_)
    return;
  checkCreateWriteTask();
  taskWatchWritable_ = on;
  fdControl_->setWrites(on);
  if (!on)
    writeTask_->unscheduleTask();
}

void FileDescriptorTask::edgeTriggeredIs(bool on) { fdControl_->setEdgeTriggered(on); }

void FileDescriptorTask::scheduleTaskReadable() { readTask_->scheduleTask(); }

void FileDescriptorTask::scheduleTaskWritable() {
  checkCreateWriteTask();
  writeTask_->scheduleTask();
}

bool FileDescriptorTask::taskScheduledReadable() const {
  taskScheduler_->sanityCheckCurrentRunningThread();
  return readTask_->taskScheduled();
}

bool FileDescriptorTask::taskScheduledWritable() const {
  taskScheduler_->sanityCheckCurrentRunningThread();
  return writeTask_ && writeTask_->taskScheduled();
}

// --- settings -------------------------------------------------------------------------------

void FileDescriptorTask::taskQuantumIs(TaskDurationMs quantum) {
  readTask_->taskQuantumIs(quantum);
  if (writeTask_)
    writeTask_->taskQuantumIs(quantum);
}

void FileDescriptorTask::taskPriorityIs(TaskPriority priority) {
  readTask_->taskPriorityIs(priority);
  if (writeTask_)
    writeTask_->taskPriorityIs(priority);
}

void FileDescriptorTask::taskSuspendedIs(bool suspended) {
  readTask_->taskSuspendedIs(suspended);
  if (writeTask_)
    writeTask_->taskSuspendedIs(suspended);
}

void FileDescriptorTask::taskForceYieldInTestIs(bool force) { taskTestYieldRatioIs(force ? 1 : 0); }

void FileDescriptorTask::taskTestYieldRatioIs(unsigned char ratio) {
  readTask_->testYieldRatioStepIs(ratio);
  if (writeTask_)
    writeTask_->testYieldRatioStepIs(ratio);
}

// --- work counters of the write side ----------------------------------------------------------

void FileDescriptorTask::failNoWriteTask() const {
  KESTO_FAIL(className, "WriteTask not created by taskWatchWritableIs( true )");
}

void FileDescriptorTask::taskWorkCountWritableInc(unsigned long n) {
  if (!writeTask_) [[unlikely]]
    failNoWriteTask();
  writeTask_->taskWorkCountInc(n);
}

void FileDescriptorTask::taskWorkPendingWritableIs(unsigned int n) {
  if (!writeTask_) [[unlikely]]
    failNoWriteTask();
  writeTask_->taskWorkPendingIs(n);
}

} // namespace Kesto
