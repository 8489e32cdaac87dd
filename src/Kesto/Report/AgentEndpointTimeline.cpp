#include "Report/AgentEndpointTimeline.h"

#include <Kesto/Report/SnapshotTimeline.h>
#include <Kesto/Scheduler/TaskSchedulerRoot.h>

namespace Kesto::Impl {

std::string agentTimelineAnswer(const TaskSchedulerRoot& root, const String& agentName) {
  // The copy is taken here, inside the client's run, in one go, and costs
  // what a default "show" costs: tasks that never ran are left out, as they
  // have no runs to draw (their few events go by nesting). The ring is small
  // (100 events, 20 us to render), so the document is rendered at once too
  // and leaves through the same writer as any short answer.
  const Ptr<TaskSchedulerSnapshot const> snapshot =
      root.snapshot(String(), false, true, true, String(), TaskScheduler::displayOrderNotSpecified);
  SnapshotTimelineOptions options;
  options.processName = agentName;
  std::string document = snapshotTimelineToString(snapshot, options);
  document += '\n';
  return document;
}

} // namespace Kesto::Impl
