// Process-wide switch between plain and atomic reference counting.
//
// A single-threaded agent should pay for no locked instruction, so reference
// counts change with plain arithmetic until the process declares that
// counted objects cross threads, by threadSafePointersIs(true). Set it before
// the second thread starts sharing objects; it is never turned off safely
// while objects are shared.
#pragma once

#include <Kesto/Core/Export.h>

namespace Kesto {

struct KESTO_CORE_EXPORT ThreadControl {
  // Read on every count change; plain bool so that the test is one load.
  static bool tsp_;

  // Sets tsp_ and tells the hook installed by Impl::threadSafePointerIsFnIs.
  static void threadSafePointersIs(bool enabled);
};

} // namespace Kesto
