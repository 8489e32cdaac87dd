// SigpipeBlock: SIGPIPE blocked in the calling thread's mask for as long as
// one holder wants it, consumed when pending, and the mask restored after
// the last holder.
//
// Why blocking and not ignoring: a report is written with plain write(), so
// a reader that went away raises SIGPIPE in the writing thread. Ignoring the
// signal process-wide would change a disposition the application owns, for
// every thread, for good. Blocking it in the one thread that writes reports
// makes that write fail with EPIPE, which the show pipeline handles, and
// leaves every other thread and the disposition alone. A thread-directed
// SIGPIPE stays pending while blocked (standard signals do not queue, so at
// most one), and release() takes it with a zero-time sigtimedwait so that
// nothing is delivered when the mask is restored.
//
// Holders: each running endpoint and each report it started. The count is
// per thread (the mask is per thread); acquire and release on the same
// thread. If SIGPIPE was already blocked at the first acquire, the mask is
// left blocked at the end, as it was found.
#pragma once

namespace Kesto::Impl {

class SigpipeBlock {
public:
  // Blocks SIGPIPE in this thread's mask at the first holder.
  static void acquire();
  // Consumes a pending SIGPIPE; at the last holder restores the mask.
  static void release();
  // Consumes a pending SIGPIPE of this thread without releasing; true if
  // there was one.
  static bool consumePending();
  // Holders on this thread.
  static unsigned holders();
};

} // namespace Kesto::Impl
