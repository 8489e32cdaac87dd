// Where trace lines go: the file named by TRACEFILE when it is open,
// standard error otherwise. Both the name and the stream are guarded by the
// Loco; the state is made at first use and never destroyed, so a trace from
// a static destructor late in process exit still finds it.
#pragma once

#include <ostream>

namespace Kesto::Debug::Impl {

// Reads TRACEFILE and opens, keeps, switches or closes the trace file.
// Takes the Loco.
void applyTraceFile();

// The stream a line is written to. Requires the Loco.
std::ostream& traceTarget();

// True when trace lines go to a file. Takes the Loco.
bool traceFileOpen();

} // namespace Kesto::Debug::Impl
