#include <Kesto/Util/ValuePrinter.h>

#include <Kesto/Util/IntrospectionMap.h>
#include <Kesto/Util/TextEncoding.h>

#include <ZuSlab/Allocator.h>

namespace Kesto::Platform {

ValuePrinter::ValuePrinter(const String& typeName, int size) : typeName(typeName), size(size) {}

ValuePrinter::~ValuePrinter() = default;

String ValuePrinter::toString(const void* value) {
  String text = customToString(value);
  if (text.empty())
    return dumpHex(value, size);
  return text;
}

String ValuePrinter::customToString(const void* value) const {
  // Looked up at each call, so that a function registered after this printer
  // was made is used.
  const IntrospectionMap::ToString function = IntrospectionMap::lookup(typeName);
  return function ? function(value) : String();
}

std::shared_ptr<ValuePrinter> getValuePrinter(const String& typeName, int size) {
  return std::allocate_shared<ValuePrinter>(Allocator<ValuePrinter>(), typeName, size);
}

} // namespace Kesto::Platform
