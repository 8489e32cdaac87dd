// The operator's view of latency events. Times of day are left out on
// purpose: events carry steady-clock stamps, which mean nothing to a reader,
// and what an operator asks is "how long ago", so each event shows the age
// of its scheduling and of its run at the moment of the answer. Durations
// are milliseconds with three decimals (microseconds), right-aligned, so the
// culprits of a block read as one column.
#include <Kesto/Scheduler/LatencyCulprits.h>
#include <Kesto/Scheduler/TaskSchedulerRoot.h>

#include <fmt/format.h>

#include <chrono>
#include <iterator>
#include <string>

namespace Kesto {

namespace {

std::string milliseconds(TaskTimeDuration d) {
  return fmt::format("{:.3f}ms", std::chrono::duration<double, std::milli>(d).count());
}

std::string seconds(TaskTimeDuration d) {
  return fmt::format("{:.3f}s", std::chrono::duration<double>(d).count());
}

void renderEvent(std::string& out, const LatencyEvent& event, TaskTimeStamp now) {
  auto to = std::back_inserter(out);
  fmt::format_to(to, "latency {} {} in {}: scheduled {} ago, ran {} ago; history {} the window\n",
                 milliseconds(event.latency), event.identifier, event.schedulerName,
                 seconds(now - event.scheduledAt), seconds(now - event.runStart),
                 event.historyCoversWindow ? "covers" : "does not cover");
  for (const LatencyCulprit& c : event.culpritList())
    fmt::format_to(to, "  {:>12}  {:>5} {:<4}  {}\n", milliseconds(c.runTime), c.runs, c.runs == 1 ? "run" : "runs",
                   c.identifier);
  if (event.culpritsLeftOut != 0)
    fmt::format_to(to, "  {:>12}  {:10}  {} more task{}\n", milliseconds(event.culpritsLeftOutTime), "",
                   event.culpritsLeftOut, event.culpritsLeftOut == 1 ? "" : "s");
  fmt::format_to(to, "  {:>12}  {:10}  outside any run\n", milliseconds(event.outsideRuns()), "");
}

} // namespace

String latencyEventsRenderText(const TaskSchedulerRoot& root, U32 newest) {
  return latencyEventsRenderText(root, newest, taskClockNow());
}

String latencyEventsRenderText(const TaskSchedulerRoot& root, U32 newest, TaskTimeStamp now) {
  const TaskDurationMs threshold = root.latencyCulpritsThreshold();
  if (threshold.count() == 0)
    return String("latency culprits are off\n");
  const std::vector<LatencyEvent> events = root.latencyEvents(newest);
  const U64 seen = root.latencyEventCount();
  std::string out = fmt::format("latency culprits of {}: threshold {}ms, {} event{} since turned on", root.schedulerName(),
                                threshold.count(), seen, seen == 1 ? "" : "s");
  if (events.empty())
    return String(out + "\nno latency events\n");
  fmt::format_to(std::back_inserter(out), ", {} shown, newest first\n", events.size());
  for (const LatencyEvent& event : events) {
    out += '\n';
    renderEvent(out, event, now);
  }
  return String(out);
}

} // namespace Kesto
