// The rule of the scheduler's high-water marks.
//
// A mark keeps the greatest value it has been shown: a task's longest run and
// longest wait on a run queue, a scheduler's longest slip between two passes,
// and the sum of two statistics records, whose marks keep the greater of the
// two. It is on the run path, so it is inline and costs one compare.
//
// The work marks of a task are not of this kind: they start with no value
// and keep only the low 32 bits of one (TaskImpl.cpp, TaskStat.cpp).
#pragma once

namespace Kesto {

// Raises `mark` to `value` if `value` is greater.
template <typename T>
constexpr void raiseHighWaterMark(T& mark, const T& value) noexcept {
  if (value > mark)
    mark = value;
}

} // namespace Kesto
