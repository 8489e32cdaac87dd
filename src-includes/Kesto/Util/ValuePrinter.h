// Printers of values of a named type, for code that knows a value only by
// its type name, its size and its address (a generic dump of a record).
//
// A printer looks its type up in the IntrospectionMap at every call, so a
// function registered after the printer was made is used from then on. A
// type with no function, or whose function gives an empty text, prints as
// the hexadecimal dump of its bytes.
//
// Owner: the caller holds the printer through its shared_ptr; the printer
// and its control block are one allocation from the slab allocator.
// Threads: a printer holds no mutable state; each print takes
// Platform::Loco for the lookup only, and calls the function without it.
// Allocation: the result text, and the printer at getValuePrinter.
// Failures: none of its own; a registered function's exceptions pass
// through.
#pragma once

#include <Kesto/Common/Export.h>

#include <Kesto/Core/String.h>

#include <memory>

namespace Kesto::Platform {

class KESTO_EXPORT ValuePrinter {
public:
  ValuePrinter(const String& typeName, int size);
  virtual ~ValuePrinter();
  ValuePrinter(const ValuePrinter&) = delete;
  ValuePrinter& operator=(const ValuePrinter&) = delete;

  // The registered function's text, or else the bytes of the value in
  // hexadecimal.
  virtual String toString(const void* value);
  // The registered function's text; empty when there is none.
  String customToString(const void* value) const;

  // The IntrospectionMap key.
  String typeName;
  // Bytes of a value, for the hexadecimal fallback.
  int size;
};

// A new printer on every call.
KESTO_EXPORT std::shared_ptr<ValuePrinter> getValuePrinter(const String& typeName, int size);

} // namespace Kesto::Platform
