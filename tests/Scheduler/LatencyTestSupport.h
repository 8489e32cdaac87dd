// What the latency culprit tests share: a culprit from its parts, and its
// printing in a failed expectation.
#pragma once

#include <Kesto/Scheduler/LatencyCulprits.h>

#include <ostream>

namespace Kesto {
inline void PrintTo(const LatencyCulprit& c, std::ostream* os) {
  *os << "{" << c.identifier.view() << ", " << c.runTime.count() << "ns, " << c.runs << " runs}";
}
} // namespace Kesto

namespace KestoTest {

inline Kesto::LatencyCulprit culprit(const char* identifier, Kesto::TaskTimeDuration runTime, Kesto::U32 runs) {
  return Kesto::LatencyCulprit{Kesto::String(identifier), runTime, runs};
}

} // namespace KestoTest
