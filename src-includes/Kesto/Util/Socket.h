// Local sockets in a system of several network namespaces, and a few small
// operations on system limits and the dynamic linker.
//
// Provides: socket(), which makes every socket in the system's default
//   network namespace (the one named DEFAULT_NS under /run/netns) whatever
//   namespace the calling thread is in, so that agents started in another
//   namespace still meet on the same abstract addresses; abstract
//   AF_UNIX addresses and a bound SOCK_SEQPACKET socket on one; send buffer
//   sizing within /proc/sys/net/core/wmem_max; the canary line for the
//   system log; symbol look-up in the global scope; and the hooks through
//   which an allocator finds a preloaded heap checker.
// Owner: the caller owns every descriptor handed out. Nothing here keeps a
//   descriptor or a handle beyond its call, except the process handle of
//   dlopen(nullptr), which lives as long as the process anyway.
// Thread: any thread. socket() moves the calling thread alone into the
//   default namespace and back, so the thread must not do anything else
//   that depends on its namespace meanwhile (it cannot: the call is
//   synchronous); other threads are not disturbed. The cached send buffer
//   limit and the resolve error text take no lock (see there).
// Allocation: trace texts and the resolve error text only.
// Failure policy: a socket that cannot be made is -1 with a trace at level
//   2; a thread that cannot return to its namespace is a RuntimeException,
//   since nothing it does afterwards would be where it belongs; a bind that
//   fails is a RuntimeException; misuse (a negative descriptor, a size of 0,
//   a failed setsockopt on a valid request) is an assertion. Traces carry
//   the class text "Kesto::Util".
#pragma once

#include <Kesto/Common/Export.h>

#include <Kesto/Core/String.h>
#include <Kesto/Debug/DebugHandler.h>

namespace Kesto::Util {

// A socket made in the default network namespace, or -1 (errno has been
// used by the traces then). If the calling thread's namespace cannot be
// looked at (no namespaces, no right to look), the socket is made where the
// thread stands; so it is too when the default namespace cannot be entered,
// as on a system that names no namespaces. Any other failure to open the
// way back (EMFILE, say) is -1 with no socket made and no trace.
// Throws RuntimeException if the thread cannot return to its namespace or
// the descriptor of the way back cannot be closed.
KESTO_EXPORT int socket(Platform::DebugHandler& handler, int domain, int type, int protocol);

// Fills the sockaddr_un at `address` (110 bytes, all of them written) with
// the abstract address of `name`: AF_UNIX, a leading NUL, then at most 107
// bytes of the name, no trailing NUL. Returns the length to pass to bind()
// or connect(): the bytes of the name used plus 3. Two names that agree in
// their first 107 bytes are the same address.
KESTO_EXPORT unsigned int createSockaddr(Platform::DebugHandler& handler, void* address, const String& name);

// A SOCK_SEQPACKET socket of the default namespace bound to the abstract
// address of `name`, with SO_REUSEADDR; not listening yet. A socket that
// cannot be made or configured asserts; a failed bind (the address is taken)
// closes the socket and throws RuntimeException.
KESTO_EXPORT int createAndBindSocket(Platform::DebugHandler& handler, const String& name);

// SO_SNDBUF of `sd` to `size` bytes (the kernel doubles it and caps it at
// twice SYSTEM_MAX_SEND_BUFFER_SIZE()). Returns 0. A negative `sd`, a
// `size` of 0 or below, or a failed setsockopt asserts, the first two
// before any system call.
KESTO_EXPORT int setSocketSendBufferSize(int sd, int size);

// The largest send buffer a process may ask for, from
// /proc/sys/net/core/wmem_max, or 8388608 where that file does not exist.
// Read once and kept; racing first callers read the same value. A text
// that is not a number asserts.
KESTO_EXPORT unsigned int SYSTEM_MAX_SEND_BUFFER_SIZE();

// "CANARY: pid:{} tid:{} {handler name} {message}", traced at level 1 with
// no class or function prefix and sent to syslog (LOG_LOCAL5|LOG_DEBUG)
// whatever the handler's levels: a mark that must stand out in the
// system's log although it is no error.
KESTO_EXPORT void emitCanaryLog(Platform::DebugHandler& handler, const String& message);

// The address of `symbol` in the global scope of the process, or null;
// a failed look-up is traced at level 1 and its text kept for
// resolveSymError(). dlopen(nullptr) failing asserts.
KESTO_EXPORT void* resolveSym(Platform::DebugHandler& handler, const char* symbol);

// The text of the calling thread's last failed resolveSym(), or null if
// there was none since the last call; the text stays valid until the
// thread's next call of this function.
KESTO_EXPORT const char* resolveSymError();

} // namespace Kesto::Util

// A slab allocator reports its blocks to a heap checker preloaded into the
// process, with no link-time dependency on it: these find the checker's
// entry points when HEAPCHECK or HEAP_CHECK_KESTO_ENABLED_DONT_DELETE is in
// the environment, and are null otherwise (or when no checker is loaded).
namespace Kesto::HeapChecker {
KESTO_EXPORT void* resolveAllocSym(Platform::DebugHandler& handler);
KESTO_EXPORT void* resolveFreeSym(Platform::DebugHandler& handler);
} // namespace Kesto::HeapChecker
