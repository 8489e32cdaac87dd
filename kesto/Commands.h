// The commands of kesto, each given its arguments behind the command's
// name; each returns the exit status or throws Failure.
#pragma once

#include <string>
#include <vector>

namespace Kesto::Cmd {

int runList(const std::vector<std::string>& args);
int runShow(const std::vector<std::string>& args);
int runWatch(const std::vector<std::string>& args);
int runTrace(const std::vector<std::string>& args);
int runReset(const std::vector<std::string>& args);
// In Latency.cpp.
int runLatency(const std::vector<std::string>& args);
// In Timeline.cpp.
int runTimeline(const std::vector<std::string>& args);

// The whole command line behind the program's name: dispatches to the
// command, handles --help, and turns every failure into its line on
// standard error and its exit status.
int runKesto(const std::vector<std::string>& args);

} // namespace Kesto::Cmd
