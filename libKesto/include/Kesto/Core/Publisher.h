// Operations deferred to the end of the current event.
//
// Code running inside an event handler sometimes must not do a thing right
// away (drop the object whose handler is running, say, or notify observers
// that might re-enter it). It queues the thing with Publisher::deferOp, and
// the event backend calls Publisher::runDeferredOps() after every event
// handler that returned normally.
//
// The queue is per thread: an operation runs on the thread that deferred it,
// and only there. runDeferredOps() runs queued operations in the order they
// were queued, each once, until the queue is empty; an operation that defers
// another gets it run in the same call, after everything queued before it.
// (So an operation that always defers another keeps the call from
// returning.) If an operation throws, it is dropped, the exception leaves
// runDeferredOps(), and the operations behind it wait for the next call.
// A call made from inside a running operation returns at once: the outer
// call goes on with the queue. Operations still queued when their thread ends
// are destroyed without running.
//
// Cost: deferOp allocates (the queue and the operation's captures).
// runDeferredOps() with nothing queued is one thread-local load and a branch,
// inline, since the backend calls it after every event.
#pragma once

#include <Kesto/Core/Export.h>

#include <cstddef>
#include <functional>

namespace Kesto {

namespace Detail {
struct DeferredOps;
// Non-null exactly while the thread has operations queued. Initial-exec TLS,
// so that reading it from another library is a plain load off the thread
// pointer, without a call.
extern KESTO_CORE_EXPORT __thread DeferredOps* deferredOpsPending __attribute__((tls_model("initial-exec")));
} // namespace Detail

class KESTO_CORE_EXPORT Publisher {
public:
  using Op = std::function<void()>;

  // Queues `op` (non-empty) on the calling thread.
  static void deferOp(Op op);

  static void runDeferredOps() {
    if (Detail::deferredOpsPending) [[unlikely]]
      runDeferredOpsQueued();
  }

  // Number of operations queued on the calling thread.
  static std::size_t deferredOpCount() noexcept;

private:
  static void runDeferredOpsQueued();
};

} // namespace Kesto
