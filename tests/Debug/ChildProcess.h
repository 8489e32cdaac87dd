// Runs the helper program of the diagnostics tests in a child process with a
// chosen environment; the machinery is the support library's.
#pragma once

#include <KestoSupport/ChildProcess.h>

namespace KestoTest {

// `env` adds or replaces variables; a variable mapped to nullptr is removed.
// TRACE, TRACEFORMAT and TRACEFILE of the test's own environment never reach
// the child unless given here.
inline ChildResult runChild(const std::vector<std::string>& args,
                            const std::map<std::string, const char*>& env = {},
                            std::chrono::seconds timeLimit = childTimeLimit) {
  return runProgram(KESTO_TRACE_CHILD, args, env, timeLimit);
}

} // namespace KestoTest
