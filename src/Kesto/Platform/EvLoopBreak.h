// A scoped bound on one dispatch of the loop.
//
// An ordinary timer event at eventPriorityDefault that breaks the loop when
// it fires, after whatever else became due in the same pass. It lives on the
// stack of the loop function for one dispatch; its destructor removes it from
// the base, so an exception passing through the dispatch leaves no event
// behind pointing into a dead stack frame. A timeout of 1e15 seconds or more
// (or +infinity) is no bound: the event is not added, and the loop runs for
// as long as it has anything to wait for.
#pragma once

#include <event2/event_struct.h>

namespace Kesto {

class EvLoopBreak {
public:
  explicit EvLoopBreak(double timeout);
  ~EvLoopBreak();
  EvLoopBreak(const EvLoopBreak&) = delete;
  EvLoopBreak& operator=(const EvLoopBreak&) = delete;

  static void handleBaseLoopBreak(int fd, short what, void* self);

private:
  struct event event_;
};

} // namespace Kesto
