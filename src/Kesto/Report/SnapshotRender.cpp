// The report entry points of TaskScheduler: they live with the reports so
// that the scheduler's own source needs nothing of the renderers.
#include <Kesto/Report/SnapshotShow.h>
#include <Kesto/Report/SnapshotShowText.h>
#include <Kesto/Scheduler/TaskScheduler.h>
#include <Kesto/Scheduler/TaskSchedulerRoot.h>

#include "Report/SnapshotShowJson.h"

#include <fcntl.h>

namespace Kesto {

namespace {

// Failures of fcntl are not looked at: a descriptor that refuses is one the
// first write will report on.
void makeNonBlocking(int fd) {
  const int flags = ::fcntl(fd, F_GETFL);
  if (flags != -1 && !(flags & O_NONBLOCK))
    ::fcntl(fd, F_SETFL, flags | O_NONBLOCK);
}

} // namespace

void TaskScheduler::snapshotShowStart(int fd, const SnapshotShowMaker& make, std::function<void()> onComplete) {
  makeNonBlocking(fd);
  rootScheduler()->sanityCheckCurrentRunningThread();
  Ptr<TaskScheduler> self(this);
  auto complete = [self, onComplete = std::move(onComplete)](SnapshotShow* show) {
    Ptr<SnapshotShow> keep(show); // the set may hold the last reference
    self->snapshotShows_.erase(keep);
    onComplete();
  };
  snapshotShows_.insert(Ptr<SnapshotShow>(make(std::move(complete))));
}

void TaskScheduler::snapshotRenderTextAsync(int fd, SnapshotVector snapshots, bool hierarchical,
                                            bool showTaskAddresses, std::function<void()> onComplete) {
  snapshotShowStart(
      fd,
      [&](std::function<void(SnapshotShow*)> complete) {
        return new SnapshotShowText(this, fd, std::move(snapshots), hierarchical, showTaskAddresses,
                                    std::move(complete));
      },
      std::move(onComplete));
}

void TaskScheduler::snapshotRenderTextAsync(int fd, SnapshotVector snapshots, bool hierarchical,
                                            bool showTaskAddresses) {
  snapshotRenderTextAsync(fd, std::move(snapshots), hierarchical, showTaskAddresses, [] {});
}

void TaskScheduler::snapshotRenderTextAsync(int fd, Ptr<TaskSchedulerSnapshot const> snapshot, bool hierarchical,
                                            bool showTaskAddresses) {
  snapshotRenderTextAsync(fd, SnapshotVector{std::move(snapshot)}, hierarchical, showTaskAddresses, [] {});
}

void TaskScheduler::snapshotRenderJsonAsync(int fd, SnapshotVector snapshots, std::function<void()> onComplete) {
  snapshotShowStart(
      fd,
      [&](std::function<void(SnapshotShow*)> complete) {
        return new SnapshotShowJson(this, fd, std::move(snapshots), std::move(complete));
      },
      std::move(onComplete));
}

void TaskScheduler::snapshotRenderJsonAsync(int fd, SnapshotVector snapshots) {
  snapshotRenderJsonAsync(fd, std::move(snapshots), [] {});
}

void TaskScheduler::snapshotRenderJsonAsync(int fd, Ptr<TaskSchedulerSnapshot const> snapshot) {
  snapshotRenderJsonAsync(fd, SnapshotVector{std::move(snapshot)}, [] {});
}

String TaskScheduler::statsRenderTextToString(bool includeNoRunTasks, bool includeCompletedTasks,
                                              bool includeHistory, String taskNameRegex, bool hierarchical,
                                              bool showTaskAddresses) const {
  Ptr<TaskSchedulerSnapshot const> s = snapshot(String(), includeNoRunTasks, includeCompletedTasks, includeHistory,
                                                std::move(taskNameRegex), displayOrderNotSpecified);
  Ptr<SnapshotShow> show(new SnapshotShowText(std::move(s), hierarchical, showTaskAddresses));
  return show->renderToStringWithoutYielding();
}

String TaskScheduler::statsRenderJsonToString(bool includeNoRunTasks, bool includeCompletedTasks,
                                              bool includeHistory, String taskNameRegex) const {
  Ptr<TaskSchedulerSnapshot const> s = snapshot(String(), includeNoRunTasks, includeCompletedTasks, includeHistory,
                                                std::move(taskNameRegex), displayOrderNotSpecified);
  Ptr<SnapshotShow> show(new SnapshotShowJson(std::move(s)));
  return show->renderToStringWithoutYielding();
}

} // namespace Kesto
