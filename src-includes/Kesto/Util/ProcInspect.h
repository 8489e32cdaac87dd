// Questions about processes answered from /proc: what a process is called,
// when it started, how it was started, which process holds a unix socket
// or a FileLock, and the dynamic type behind a virtual table pointer seen in
// another process. For supervision and diagnostics.
//
// The functions keep no state and may be called from any thread. Processes
// come and go while /proc is read: a process that went away is an expected
// failure, an empty or zero result with a trace (class text "Kesto::Util")
// to the handler given, or to Debug::kestoUtil for the forms without one. A
// /proc whose files do not look as the kernel writes them is an assertion.
// Every file and directory opened is closed before the function returns,
// on every path.
//
// The walks over /proc (readSocketPid, readLockPid) read every process's
// descriptor table, so they cost in proportion to the descriptors open in
// the system: for diagnostics, not for a hot path.
#pragma once

#include <Kesto/Common/Export.h>

#include <Kesto/Core/PidMappings.h>
#include <Kesto/Core/String.h>
#include <Kesto/Debug/DebugHandler.h>

#include <fmt/format.h>

namespace Kesto::Util {

// The kernel's name of the process, the "Name:" line of /proc/{pid}/status
// without the blanks, tabs and newlines around it: at most 15 characters, the
// program or what prctl(PR_SET_NAME) set, never the command line. pid 0 is
// the calling process. "" when the file does not open (a level 5 trace when
// `quiet`, level 1 otherwise), when it has no such line, or when the name is
// empty (level 1 both).
KESTO_EXPORT String readProcTitle(Platform::DebugHandler& handler, int pid, bool quiet);
KESTO_EXPORT String readProcTitle(int pid, bool quiet);

// The start time of the process, field 22 of /proc/{pid}/stat, as the text
// of its decimal number of clock ticks since boot. pid 0 is the calling
// process. "" after a level 5 trace when the file does not open or cannot be
// read; a line without the field asserts. The command name in the file may
// hold blanks and parentheses: the fields are counted from its last ')'.
KESTO_EXPORT String readProcStartTime(Platform::DebugHandler& handler, int pid);
KESTO_EXPORT String readProcStartTime(int pid);

// The program as it was started: the first argument of /proc/{pid}/cmdline,
// and only that (the reading stops at the first NUL). "" for a process that
// is gone and for a kernel thread, which has no command line.
KESTO_EXPORT String readPidCmdline(Platform::DebugHandler& handler, int pid);

// The pid of a process that has the unix socket open whose line in
// /proc/net/unix contains `socketName` (a plain substring search; an abstract
// name stands there with '@' in front, and the path of the line must not hold
// a blank); 0 when no line matches or no process holds the socket. Of several
// holders, the first in /proc's directory order.
KESTO_EXPORT U32 readSocketPid(Platform::DebugHandler& handler, const String& socketName);

// The pid of the process that holds a POSIX or open-file-description lock
// (a FileLock) on the file `lockPath`, which is compared with the targets of
// the descriptor links in /proc as text, so give it as the kernel would
// write it: absolute and without "." or "..". A process that merely has the
// file open is not the holder. 0 when nobody holds a lock on it.
KESTO_EXPORT U32 readLockPid(Platform::DebugHandler& handler, const String& lockPath);

// The mangled name of the dynamic type of an object of process `otherPid`
// whose virtual table pointer there is `vptr`. The library that holds the
// table in the other process is loaded into this one (and stays loaded),
// and the type information is read here at the same place. Null, with the
// reason in `error`, when the pointer lies in no mapping, too near the edge
// of one, in a file that does not load, or leads to a type information
// record outside the library. The name lives as long as the process.
KESTO_EXPORT const char* typenameFromVptr(int otherPid, const void* vptr, String& error);

// Lets a core file of this process include its file-backed shared mappings
// (bit 3 of /proc/self/coredump_filter), leaving the other bits as they are.
// A filter that does not open is traced to Debug::kestoUtil at level 1.
KESTO_EXPORT void includeShmemInCore();

} // namespace Kesto::Util

// One line of a maps file as trace and error texts show it.
template <>
struct fmt::formatter<Kesto::MappingInfo> : fmt::formatter<fmt::string_view> {
  auto format(const Kesto::MappingInfo& m, fmt::format_context& ctx) const {
    return fmt::format_to(ctx.out(),
                          "MappingInfo {{ start:{:#x} end:{:#x} perms:{} offset:{:#x} major:{:#x} minor:{:#x} "
                          "inode:{:#x} path:{} }}",
                          m.start, m.end, m.perms, m.offset, m.major, m.minor, m.inode, m.path);
  }
};
