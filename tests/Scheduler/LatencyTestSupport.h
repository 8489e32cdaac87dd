// What the latency culprit tests share: a culprit from its parts, lists of
// them to compare in one expectation, and their printing when one fails.
#pragma once

#include <Kesto/Scheduler/LatencyCulprits.h>

#include <initializer_list>
#include <ostream>
#include <vector>

namespace Kesto {
inline void PrintTo(const LatencyCulprit& c, std::ostream* os) {
  *os << "{" << c.identifier.view() << ", " << c.runTime.count() << "ns, " << c.runs << " runs}";
}
} // namespace Kesto

namespace KestoTest {

inline Kesto::LatencyCulprit culprit(const char* identifier, Kesto::TaskTimeDuration runTime, Kesto::U32 runs) {
  return Kesto::LatencyCulprit{Kesto::String(identifier), runTime, runs};
}

// A list of culprits to compare with culpritsOf() in one expectation.
inline std::vector<Kesto::LatencyCulprit> culprits(std::initializer_list<Kesto::LatencyCulprit> list) { return list; }

// The culprits an event names, in its order.
inline std::vector<Kesto::LatencyCulprit> culpritsOf(const Kesto::LatencyEvent& event) {
  return {event.culpritList().begin(), event.culpritList().end()};
}

} // namespace KestoTest
