// Named namespaces: entering a namespace by the name `ip netns` gives it.
//
// Provides: setnsByName(), which moves the calling thread into the namespace
//   that a name under /run/netns stands for; netnsGetTracebuffer(), the text
//   of the calling thread's last failure; DEFAULT_NS, the name under which
//   the system's default network namespace is registered.
// Owner: nothing is kept open: the descriptor of the namespace file lives
//   for the call only.
// Thread: setns() moves the calling thread alone, so any thread may call;
//   the failure text is per thread. DEFAULT_NS is read without a lock: set
//   it before threads use it, if at all.
// Allocation: none.
// Failure policy: -1 with errno from the failed call and a failure text for
//   netnsGetTracebuffer(); the thread then stays where it was. Nothing
//   throws and nothing is written anywhere.
//
// A name is a file /run/netns/<name> that holds a namespace, as made by
// `ip netns add <name>` (a new network namespace) or `ip netns attach <name>
// <pid>` (one that exists, such as the system's default); nothing else is
// looked at, so on a system that names no namespaces every call fails.
#pragma once

#include <KestoNetns/Export.h>

#ifdef __cplusplus
extern "C" {
#endif

// The directory of the named namespaces: "/run/netns".
extern KESTO_NETNS_EXPORT const char NETNS_RUN_DIR[];

// The name of the system's default network namespace, "default" unless the
// process points it elsewhere before it uses it.
extern KESTO_NETNS_EXPORT const char* DEFAULT_NS;

// Moves the calling thread into the namespace named `name`. `nstype` is
// what setns() takes: CLONE_NEWNET (0x40000000) for a network namespace,
// another CLONE_NEW* flag, or 0 for whatever the file holds. 0 on success.
// A name that is empty, null, ".", ".." or holds a "/" fails with EINVAL.
KESTO_NETNS_EXPORT int setnsByName(const char* name, int nstype);

// The text of the calling thread's last failure of setnsByName(), or "" if
// it has had none. Valid until the thread's next call.
KESTO_NETNS_EXPORT const char* netnsGetTracebuffer(void);

#ifdef __cplusplus
}
#endif
