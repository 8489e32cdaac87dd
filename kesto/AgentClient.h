// One request to an agent's endpoint: connect to its abstract address,
// write one command line, shut down the writing side, read the answer to
// its end. The endpoint writes the whole answer and closes, so the end of
// the answer is the end of the stream and no framing is needed.
//
// A request never hangs: the connection, each write and each read give up
// after answerTimeout without progress. A signal whose handler has set
// stopRequested ends a request at once with Interrupted.
#pragma once

#include "AgentDirectory.h"

#include <csignal>
#include <string>
#include <string_view>

namespace Kesto::Cmd {

// The demo agent's whole report (18 KB of text, 35 KB of JSON) comes back in
// 3 to 4 ms (median of 21 requests, on 2 cores at a load average of 20),
// and a report is written by a task that yields at each quantum, so bytes
// keep coming even from a busy agent. Ten seconds without a single byte
// means the agent is stopped or stuck, and the operator is better told so
// than left waiting.
inline constexpr double answerTimeout = 10.0;

// Set by a signal handler to end the request under way (watch's SIGINT).
extern volatile std::sig_atomic_t stopRequested;

struct Interrupted {};

// The agent's whole answer to `command` (one line, without its '\n').
// Failure 1 when the agent cannot be reached, goes silent or answers with
// an error line ("error: ..."), which becomes the failure's message.
std::string askAgent(const AgentEntry& agent, std::string_view command);

} // namespace Kesto::Cmd
