// kesto watch: the agent's text report again and again, like top.
//
// On a terminal (standard output is a tty) every report replaces the last:
// the cursor is hidden for the whole run, and before each report the
// screen is cleared and the cursor sent home ("\x1b[H\x1b[2J"), so the
// report stands at the top of the window. The cursor comes back at the end,
// however the loop ends: after --count reports, on SIGINT, SIGTERM or SIGHUP,
// or on a failure. Elsewhere (a pipe, a file) nothing but text is written:
// each report is preceded by a header line, and from the second on by a
// blank line, so that the reports of a log can be told apart.
//
// Reports start on a fixed grid of the interval (start + k * interval), so
// a slow answer does not make the rhythm drift; an answer that takes longer
// than an interval is followed by the next report at once.
#pragma once

#include "AgentDirectory.h"

#include <cstdio>
#include <optional>
#include <string>

namespace Kesto::Cmd {

struct WatchSettings {
  double interval = 2.0;                     // seconds between report starts
  std::optional<unsigned long long> count;   // reports to show; none: until stopped
  std::string command;                       // the show command line to send
};

// Shows the reports on `out` until the count is reached or a signal stops
// the loop; returns the exit status (0; a failure throws).
int watchAgent(const AgentEntry& agent, const WatchSettings& settings, std::FILE* out, bool terminal);

} // namespace Kesto::Cmd
