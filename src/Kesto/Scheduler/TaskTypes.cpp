#include <Kesto/Scheduler/TaskTypes.h>
#include <Kesto/Debug/Trace.h>

namespace Kesto {

namespace Impl {
TaskClockFn taskClockFn = nullptr;
} // namespace Impl

void taskClockFnIs(Impl::TaskClockFn fn) noexcept { Impl::taskClockFn = fn; }

TaskTimeDuration time2Duration(Time t) {
  // -0.0 >= 0 holds, so a negative zero passes, as it should: it is no time.
  KESTO_ASSERT(t >= 0, "Kesto", "{}", "t >= 0 && \"time2Duration() negative Time input\"");
  return TaskTimeDuration(static_cast<TaskTimeDuration::rep>(t * 1e9));
}

String TaskKey::toStrep() const { return String(fmt::format("@{}", DisplayPointer(object_))); }

} // namespace Kesto
