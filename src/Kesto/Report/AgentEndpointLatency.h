// The endpoint's "show agent task latency [N]": the latest latency events of
// the endpoint's root, rendered by latencyEventsRenderText. Kept apart from
// the endpoint's dispatch so that the command is one branch there.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace Kesto {
class TaskSchedulerRoot;
}

namespace Kesto::Impl {

// The whole answer to a line whose first four words are "show agent task
// latency": the text, or one "error: ..." line for a count that is not a
// whole number from 1 to 4294967295 or for words beyond it.
std::string latencyCommandAnswer(const TaskSchedulerRoot& root, const std::vector<std::string_view>& words);

} // namespace Kesto::Impl
