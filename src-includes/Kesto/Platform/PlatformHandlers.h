// The three handler classes of the event platform, implemented by the user.
//
// A handler is what a control calls: a timer control calls timeout(), a
// callback control callback(), a descriptor control readFdEvent() and
// writeFdEvent(). Handlers have no data and no base class; a control holds a
// plain pointer to its handler, which must outlive the control.
//
// Exceptions: when one of the event operations throws, the control calls the
// matching handle...Exception() of the same object from inside the catch, so
// std::current_exception() and `throw;` work there. True means the exception
// is dealt with and dropped; false (the default) means it is rethrown and
// travels up through the event loop to its caller. The libevent controls
// consult all three; the task-backed controls consult handleFdException only.
#pragma once

#include <Kesto/Common/Export.h>

namespace Kesto::Platform {

class KESTO_EXPORT TimeoutHandler {
public:
  virtual ~TimeoutHandler() = default;
  virtual void timeout() = 0;
  virtual bool handleTimeoutException() { return false; }
};

class KESTO_EXPORT CallbackHandler {
public:
  virtual ~CallbackHandler() = default;
  virtual void callback() = 0;
  virtual bool handleCallbackException() { return false; }
};

class KESTO_EXPORT FdEventHandler {
public:
  virtual ~FdEventHandler() = default;
  virtual void readFdEvent(int fd) = 0;
  virtual void writeFdEvent(int fd) = 0;
  virtual bool handleFdException(int fd) {
    (void)fd;
    return false;
  }
};

} // namespace Kesto::Platform
