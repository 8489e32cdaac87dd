#include <Kesto/Core/Exception.h>
#include <Kesto/Core/Publisher.h>

#include <deque>
#include <utility>

namespace Kesto {

namespace Detail {

struct DeferredOps {
  // Clears the pending mark before the queue goes at thread exit, so that
  // nothing run during the rest of the exit reads a destroyed queue.
  ~DeferredOps() { deferredOpsPending = nullptr; }

  std::deque<Publisher::Op> queue;
  bool running = false;
};

__thread DeferredOps* deferredOpsPending __attribute__((tls_model("initial-exec"))) = nullptr;

} // namespace Detail

namespace {

Detail::DeferredOps& threadOps() {
  // Destroyed at thread exit, with whatever is still queued.
  thread_local Detail::DeferredOps ops;
  return ops;
}

} // namespace

void Publisher::deferOp(Op op) {
  if (!op)
    AssertException::throwException("Publisher::deferOp given an empty operation");
  Detail::DeferredOps& ops = threadOps();
  ops.queue.push_back(std::move(op));
  Detail::deferredOpsPending = &ops;
}

std::size_t Publisher::deferredOpCount() noexcept {
  Detail::DeferredOps* ops = Detail::deferredOpsPending;
  return ops ? ops->queue.size() : 0;
}

void Publisher::runDeferredOpsQueued() {
  Detail::DeferredOps& ops = *Detail::deferredOpsPending;
  if (ops.running)
    return;
  ops.running = true;
  struct Finish {
    Detail::DeferredOps& ops;
    ~Finish() {
      ops.running = false;
      if (ops.queue.empty())
        Detail::deferredOpsPending = nullptr;
    }
  } finish{ops};
  while (!ops.queue.empty()) {
    Publisher::Op op = std::move(ops.queue.front());
    ops.queue.pop_front();
    op();
  }
}

} // namespace Kesto
