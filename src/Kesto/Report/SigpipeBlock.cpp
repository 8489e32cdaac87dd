#include "Report/SigpipeBlock.h"

#include <Kesto/Core/Exception.h>
#include <Kesto/Debug/Trace.h>

#include <cerrno>
#include <csignal>
#include <ctime>
#include <pthread.h>

namespace Kesto::Impl {

namespace {

thread_local unsigned holderCount = 0;
// Whether SIGPIPE was blocked before the first holder came.
thread_local bool blockedBefore = false;

sigset_t sigpipeSet() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGPIPE);
  return set;
}

} // namespace

void SigpipeBlock::acquire() {
  if (holderCount++ != 0)
    return;
  const sigset_t set = sigpipeSet();
  sigset_t previous;
  // pthread_sigmask fails only for an invalid `how`.
  pthread_sigmask(SIG_BLOCK, &set, &previous);
  blockedBefore = sigismember(&previous, SIGPIPE) == 1;
}

bool SigpipeBlock::consumePending() {
  const sigset_t set = sigpipeSet();
  const timespec zero{0, 0};
  bool any = false;
  // At most one is pending for the thread and one for the process.
  while (sigtimedwait(&set, nullptr, &zero) == SIGPIPE)
    any = true;
  return any;
}

void SigpipeBlock::release() {
  KESTO_ASSERT(holderCount != 0, "Kesto::SigpipeBlock", "release without acquire");
  consumePending();
  if (--holderCount != 0 || blockedBefore)
    return;
  const sigset_t set = sigpipeSet();
  pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

unsigned SigpipeBlock::holders() { return holderCount; }

} // namespace Kesto::Impl
