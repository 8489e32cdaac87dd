// The endpoint's "show agent task timeline": the root's timeline as one
// answer. Kept apart from the command dispatch, which only calls it.
#pragma once

#include <Kesto/Core/String.h>

#include <string>

namespace Kesto {

class TaskSchedulerRoot;

namespace Impl {

// A snapshot of `root` with its history and every task (those that never
// ran too, so that their events find their scheduler), rendered as the
// timeline of the agent `agentName`.
std::string agentTimelineAnswer(const TaskSchedulerRoot& root, const String& agentName);

} // namespace Impl
} // namespace Kesto
