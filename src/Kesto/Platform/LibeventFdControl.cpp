#include <Kesto/Platform/LibeventControls.h>
#include "Platform/LibeventBase.h"
#include <Kesto/Debug/Trace.h>

#include <fcntl.h>

// glibc's reporter behind assert(); <assert.h> declares it only without
// NDEBUG, and these checks must not depend on NDEBUG.
extern "C" [[noreturn]] void __assert_fail(const char* assertion, const char* file, unsigned int line,
                                           const char* function) noexcept;

// Checks that stay in released builds and end the process the way assert()
// does: a descriptor that cannot be watched is a broken caller, not a
// condition to recover from.
#define KESTO_HARD_ASSERT(expr) \
  ((expr) ? void(0) : __assert_fail(#expr, __FILE__, __LINE__, __PRETTY_FUNCTION__))

namespace Kesto {

using Platform::Impl::eventOnLiveBase;

namespace {

// A read watch stays armed once added; a write watch is one-shot.
constexpr short readBits(bool edgeTriggered) noexcept {
  return edgeTriggered ? EV_READ | EV_PERSIST | EV_ET : EV_READ | EV_PERSIST;
}
constexpr short writeBits(bool edgeTriggered) noexcept { return edgeTriggered ? EV_WRITE | EV_ET : EV_WRITE; }
static_assert(readBits(false) == 0x12 && readBits(true) == 0x32);
static_assert(writeBits(false) == 0x04 && writeBits(true) == 0x24);

// The descriptor given to the handler is the control's own (through its
// virtual getFd()), not the one libevent passes.
void handleFdRead(evutil_socket_t, short, void* self) {
  auto* control = static_cast<LibeventFdControl*>(self);
  Platform::FdEventHandler* handler = control->fdHandler();
  try {
    try {
      handler->readFdEvent(control->getFd());
    } catch (...) {
      if (!handler->handleFdException(control->getFd()))
        throw;
    }
    Platform::Impl::afterHandler();
  } catch (...) {
    Platform::Impl::handlerThrew(std::current_exception());
  }
}

void handleFdWrite(evutil_socket_t, short, void* self) {
  auto* control = static_cast<LibeventFdControl*>(self);
  Platform::FdEventHandler* handler = control->fdHandler();
  try {
    try {
      handler->writeFdEvent(control->getFd());
    } catch (...) {
      if (!handler->handleFdException(control->getFd()))
        throw;
    }
    Platform::Impl::afterHandler();
  } catch (...) {
    Platform::Impl::handlerThrew(std::current_exception());
  }
}

} // namespace

LibeventFdControl::LibeventFdControl(Platform::FdEventHandler* handler) : FdControl(handler) {
  if (!ev_base)
    leInit();
  event_assign(&readEvent_, ev_base, -1, 0, nullptr, nullptr);
  eventPrioritySet(&readEvent_, Platform::eventPriorityDefault);
  event_assign(&writeEvent_, ev_base, -1, 0, nullptr, nullptr);
  eventPrioritySet(&writeEvent_, Platform::eventPriorityDefault);
}

LibeventFdControl::~LibeventFdControl() { LibeventFdControl::delFd(); }

void LibeventFdControl::_setRead() {
  event_assign(&readEvent_, ev_base, fd_, readBits(edgeTriggered_), handleFdRead, this);
  eventPrioritySet(&readEvent_, Platform::eventPriorityDefault);
  event_add(&readEvent_, nullptr);
}

void LibeventFdControl::_setWrite() {
  event_assign(&writeEvent_, ev_base, fd_, writeBits(edgeTriggered_), handleFdWrite, this);
  eventPrioritySet(&writeEvent_, Platform::eventPriorityDefault);
  event_add(&writeEvent_, nullptr);
}

// No comparison with the old value: setting the current value re-arms, which
// is how a one-shot write watch is armed again.
void LibeventFdControl::setReads(bool on) {
  reads_ = on;
  if (fd_ < 0)
    return;
  event_del(&readEvent_);
  if (reads_)
    _setRead();
  else
    readEvent_.ev_fd = -1;
}

void LibeventFdControl::setWrites(bool on) {
  writes_ = on;
  if (fd_ < 0)
    return;
  event_del(&writeEvent_);
  if (writes_)
    _setWrite();
  else
    writeEvent_.ev_fd = -1;
}

void LibeventFdControl::setEdgeTriggered(bool on) {
  if (on == edgeTriggered_)
    return;
  edgeTriggered_ = on;
  // Re-creates both events with the new bits.
  setReads(reads_);
  setWrites(writes_);
}

void LibeventFdControl::setFd(int fd) {
  fd_ = fd;
  const int flags = fcntl(fd, F_GETFL);
  KESTO_HARD_ASSERT(flags >= 0);
  const int result = fcntl(fd, F_SETFL, flags | O_NONBLOCK);
  KESTO_HARD_ASSERT(result == 0);
  if (reads_) {
    event_del(&readEvent_);
    _setRead();
  }
  if (writes_) {
    event_del(&writeEvent_);
    _setWrite();
  }
}

void LibeventFdControl::clearEvents() {
  if (eventOnLiveBase(&readEvent_))
    event_del(&readEvent_);
  if (eventOnLiveBase(&writeEvent_))
    event_del(&writeEvent_);
  readEvent_.ev_fd = -1;
  writeEvent_.ev_fd = -1;
}

void LibeventFdControl::delFd() {
  clearEvents();
  fd_ = -1;
}

int LibeventFdControl::getFd() const { return fd_; }

bool LibeventFdControl::readPending() const noexcept {
  return eventOnLiveBase(&readEvent_) && event_pending(&readEvent_, EV_READ, nullptr);
}

bool LibeventFdControl::writePending() const noexcept {
  return eventOnLiveBase(&writeEvent_) && event_pending(&writeEvent_, EV_WRITE, nullptr);
}

Ptr<Platform::FdControl> getLeFdControl(Platform::FdEventHandler* handler) {
  return Ptr<Platform::FdControl>(new LibeventFdControl(handler));
}

} // namespace Kesto
