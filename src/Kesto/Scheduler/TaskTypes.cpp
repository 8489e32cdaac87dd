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
  // 2^63 ns is 292 years: a longer time, an infinite one included, would not
  // fit, and the conversion of such a double to an integer is undefined (on
  // x86-64 it gives the most negative value). It is the longest duration.
  const double ns = t * 1e9;
  if (ns >= 9223372036854775808.0)
    return TaskTimeDuration::max();
  return TaskTimeDuration(static_cast<TaskTimeDuration::rep>(ns));
}

String TaskKey::toStrep() const { return String(fmt::format("@{}", DisplayPointer(object_))); }

} // namespace Kesto
