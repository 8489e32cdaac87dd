// The libevent controls: timer, deferred callback and descriptor watch, each
// embedding its libevent event(s) so that arming allocates nothing.
//
// Made by the Platform:: factories (or the getLe... ones here) on the thread
// that will use them: arming uses the calling thread's base. Timer and
// callback controls come from the slab allocator, descriptor controls from
// the ordinary heap. After leFree() the disarming operations and destructors
// are safe and leave libevent alone; arming needs a base again.
//
// Events: timers and callbacks are plain timer events (no descriptor, no
// bits). A read watch is persistent (EV_READ|EV_PERSIST, plus EV_ET when
// edge-triggered); a write watch is one-shot (EV_WRITE, plus EV_ET): after it
// has fired it stays off although the write interest stays true, and
// setWrites(true) arms it again. Every descriptor event is at
// eventPriorityDefault.
//
// After each handler that did not throw, Publisher::runDeferredOps() of the
// core library runs. An exception is offered to the handler's
// handle...Exception() first (see Kesto/Platform/PlatformHandlers.h).
#pragma once

#include <Kesto/Common/Export.h>

#include <Kesto/Platform/Libevent.h>
#include <Kesto/Platform/Platform.h>

#include <event2/event_struct.h>

#include <cstddef>

namespace Kesto {

class KESTO_EXPORT LibeventTimerControl : public Platform::TimerControl {
public:
  LibeventTimerControl(Platform::TimeoutHandler* handler, Platform::EventPriority priority);
  ~LibeventTimerControl() override;

  // Seconds are split into whole seconds and microseconds, both truncated.
  // A delay of 1e15 seconds or more (+infinity and NaN too) never expires:
  // the timer is left disarmed. A negative delay is due at once.
  void setTimeout(double seconds) override;
  void delTimeout() override;
  // Counted on Kesto::time() from the arming: never more than the delay
  // given, less the time gone by since (virtual time included); 0.0 once
  // due; +infinity when not armed. The few microseconds by which the timer
  // is lengthened so that it never fires early do not show.
  double remainingTimeout() const override;

  // Delivers one expiry to the handler; called from libevent.
  void handler();

  Platform::EventPriority priority() const noexcept { return priority_; }
  bool pending() const noexcept;

  static void* operator new(std::size_t size);
  static void operator delete(void* p) noexcept;

protected:
  // The idle event is assigned as an arming would assign it.
  bool alreadyAssigned() const noexcept;

  Platform::EventPriority priority_;
  struct event event_;
  // The last positive delay asked for and Kesto::time() at its arming, for
  // remainingTimeout(). A zero or negative delay sets delay_ to 0.0 only,
  // and reads no clock: the deferred callback's path.
  double delay_ = 0.0;
  double armedAt_ = 0.0;
};

class KESTO_EXPORT LibeventCallbackControl final : public Platform::CallbackControl {
public:
  explicit LibeventCallbackControl(Platform::CallbackHandler* handler);
  ~LibeventCallbackControl() override;

  void requestCallback() override;
  void cancelCallback() override;
  bool pendingCallback() const override;

  static void* operator new(std::size_t size);
  static void operator delete(void* p) noexcept;

  // A deferred callback is a zero-delay timer whose handler is this object.
  class Backend : public Platform::TimeoutHandler, public LibeventTimerControl {
  public:
    Backend();
    void timeout() override;

  private:
    LibeventCallbackControl* owner() noexcept;
  };

private:
  friend class Backend;
  Backend backend_;
};

class KESTO_EXPORT LibeventFdControl final : public Platform::FdControl {
public:
  explicit LibeventFdControl(Platform::FdEventHandler* handler);
  ~LibeventFdControl() override;

  void setReads(bool on) override;
  void setWrites(bool on) override;
  void setEdgeTriggered(bool on) override;
  // Makes the descriptor non-blocking; a descriptor that is not open ends
  // the process with a failed assertion.
  void setFd(int fd) override;
  void delFd() override;
  int getFd() const override;
  // Removes both registrations; the descriptor and the interest stay.
  void clearEvents() override;

  Platform::FdEventHandler* fdHandler() const noexcept { return handler_; }
  bool reads() const noexcept { return reads_; }
  bool writes() const noexcept { return writes_; }
  bool edgeTriggered() const noexcept { return edgeTriggered_; }
  // Whether the read or write event is currently registered with the base.
  bool readPending() const noexcept;
  bool writePending() const noexcept;

private:
  void _setRead();
  void _setWrite();

  bool edgeTriggered_ = false;
  int fd_ = -1;
  bool reads_ = true;
  bool writes_ = false;
  struct event readEvent_;
  struct event writeEvent_;
};

KESTO_EXPORT Ptr<Platform::TimerControl> getLeTimerControl(Platform::TimeoutHandler* handler);
KESTO_EXPORT Ptr<Platform::TimerControl> getLeTimerControl(Platform::TimeoutHandler* handler, Platform::EventPriority priority);
KESTO_EXPORT Ptr<Platform::CallbackControl> getLeCallbackControl(Platform::CallbackHandler* handler);
KESTO_EXPORT Ptr<Platform::FdControl> getLeFdControl(Platform::FdEventHandler* handler);

} // namespace Kesto
