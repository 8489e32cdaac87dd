#include <Kesto/Scheduler/TaskPriority.h>
#include <Kesto/Debug/Trace.h>

namespace Kesto {

const char* TaskPriority::toStrep() const {
  switch (value_) {
  case critical: return "critical";
  case absolute: return "absolute";
  case high: return "high";
  case normal: return "normal";
  case low: return "low";
  case scavenge: return "scavenge";
  case oneBeyondLast: return "oneBeyondLast";
  }
  KESTO_FAIL("TaskPriority", "unexpected priority value {}", unsigned(value_));
}

char TaskPriority::oneChar() const {
  switch (value_) {
  case critical: return 'C';
  case absolute: return 'A';
  case high: return 'H';
  case normal: return 'N';
  case low: return 'L';
  case scavenge: return 'S';
  case oneBeyondLast: return '-';
  }
  KESTO_FAIL("TaskPriority", "unexpected priority {}", unsigned(value_));
}

String TaskPriority::oneCharString() const {
  char c = oneChar();
  return String(std::string_view(&c, 1));
}

const char* TaskGroupPriorityEnforcement::toStrep() const {
  switch (value_) {
  case sameAsGroupPriority: return "sameAsGroupPriority";
  case onlyAllowRegularPriorities: return "onlyAllowRegularPriorities";
  case allowAny: return "allowAny";
  }
  KESTO_FAIL("TaskGroupPriorityEnforcement", "unexpected priority value {}", unsigned(value_));
}

} // namespace Kesto
