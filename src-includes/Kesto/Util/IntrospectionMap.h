// Functions that turn a value of a named type into text, by type name.
//
// A component that owns a type registers its printer once; code that holds
// only a type name and an address (a generic dump, a ValuePrinter) looks it
// up. Registering a name again replaces its function, so the latest owner
// wins.
//
// Owner: the process-wide map, made at first use and never destroyed, so
// that lookups work from static destructors. Functions are plain pointers.
// Threads: any; the map is read and written under Platform::Loco.
// Allocation: one entry per type name on insert; lookups allocate nothing
// beyond the key the caller built.
// Failures: none; an unknown name gives null.
#pragma once

#include <Kesto/Common/Export.h>

#include <Kesto/Core/String.h>

namespace Kesto {

class KESTO_EXPORT IntrospectionMap {
public:
  using ToString = String (*)(const void* value);

  IntrospectionMap() = delete;

  // Stores `function` under `typeName`, replacing what was there.
  static void insert(const String& typeName, ToString function);
  // The function stored under `typeName`, or null.
  static ToString lookup(const String& typeName);
};

} // namespace Kesto
