// The three control classes of the event platform, implemented by a backend.
//
// Code above the platform holds only Ptr<TimerControl>, Ptr<FdControl> and
// Ptr<CallbackControl>, made by the factories of Kesto/Platform/Platform.h, so the
// same code runs on bare libevent, on a task of a scheduler or on a timer
// wheel; the factory overload alone chooses.
//
// Ownership: a control is reference counted and holds a plain, non-owning
// pointer to its handler; the handler must outlive the control.
// Threads: a control belongs to the thread that made it and nothing in it is
// locked.
//
// Meaning of the operations, common to every implementation:
//  - setTimeout(s) arms a one-shot timer that calls timeout() s seconds from
//    now, replacing one already armed: at most one expiry per control.
//  - delTimeout() disarms; on an unarmed timer it does nothing.
//  - remainingTimeout() is the seconds until expiry, 0.0 once the expiry has
//    passed but was not yet delivered, +infinity when nothing is armed.
//  - requestCallback() asks for one callback() from the event loop, never from
//    inside requestCallback(); requests made before delivery collapse into one.
//  - cancelCallback() withdraws a request; pendingCallback() tells whether one
//    is outstanding.
//  - setFd(fd) binds a descriptor and applies the current read and write
//    interest to it; delFd() removes every registration and forgets the
//    descriptor (getFd() gives -1 after it); clearEvents() removes the
//    registrations, and what it does to the descriptor depends on the backend.
//  - setReads/setWrites set the interest, remembered while no descriptor is
//    bound; setEdgeTriggered switches from level-triggered (the default).
//  - statsNameIs names the control in statistics; only task-backed controls
//    have any, so by default it does nothing.
#pragma once

#include <Kesto/Common/Export.h>

#include <Kesto/Core/Ptr.h>
#include <Kesto/Core/String.h>
#include <Kesto/Platform/PlatformHandlers.h>

namespace Kesto::Platform {

class KESTO_EXPORT TimerControl : public RefCount<HTCnt> {
public:
  explicit TimerControl(TimeoutHandler* handler) noexcept : handler_(handler) {}
  TimerControl(const TimerControl&) = delete;
  TimerControl& operator=(const TimerControl&) = delete;
  virtual ~TimerControl() = default;

  virtual void setTimeout(double seconds) = 0;
  virtual void delTimeout() = 0;
  virtual double remainingTimeout() const = 0;
  virtual void statsNameIs(String name) { (void)name; }


protected:
  TimeoutHandler* handler_;
};

class KESTO_EXPORT CallbackControl : public RefCount<HTCnt> {
public:
  explicit CallbackControl(CallbackHandler* handler) noexcept : handler_(handler) {}
  CallbackControl(const CallbackControl&) = delete;
  CallbackControl& operator=(const CallbackControl&) = delete;
  virtual ~CallbackControl() = default;

  virtual void requestCallback() = 0;
  virtual void cancelCallback() = 0;
  virtual bool pendingCallback() const = 0;
  virtual void statsNameIs(String name) { (void)name; }


protected:
  CallbackHandler* handler_;
};

class KESTO_EXPORT FdControl : public RefCount<HTCnt> {
public:
  explicit FdControl(FdEventHandler* handler) noexcept : handler_(handler) {}
  FdControl(const FdControl&) = delete;
  FdControl& operator=(const FdControl&) = delete;
  virtual ~FdControl() = default;

  virtual void setReads(bool on) = 0;
  virtual void setWrites(bool on) = 0;
  virtual void setEdgeTriggered(bool on) = 0;
  virtual void setFd(int fd) = 0;
  virtual void delFd() = 0;
  virtual int getFd() const = 0;
  virtual void statsNameIs(String name) { (void)name; }
  virtual void clearEvents() = 0;


protected:
  FdEventHandler* handler_;
};

} // namespace Kesto::Platform
