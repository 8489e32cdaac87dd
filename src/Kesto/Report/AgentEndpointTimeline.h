// The endpoint's "show agent task timeline": the root's timeline as one
// answer. Kept apart from the command dispatch, which only calls it.
#pragma once

#include <Kesto/Core/String.h>

#include <string>

namespace Kesto {

class TaskSchedulerRoot;

namespace Impl {

// A snapshot of `root` with its history (tasks that never ran left out, as
// in a default show), rendered as the timeline of the agent `agentName`.
std::string agentTimelineAnswer(const TaskSchedulerRoot& root, const String& agentName);

} // namespace Impl
} // namespace Kesto
