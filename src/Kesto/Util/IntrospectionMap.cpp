#include <Kesto/Util/IntrospectionMap.h>

#include <Kesto/Debug/Loco.h>

#include <unordered_map>

namespace Kesto {

namespace {

using FunctionMap = std::unordered_map<String, IntrospectionMap::ToString>;

// Never destroyed, so that values can be printed from static destructors.
// Requires the Loco.
FunctionMap& functionMap() {
  static FunctionMap* const map = new FunctionMap;
  return *map;
}

} // namespace

void IntrospectionMap::insert(const String& typeName, ToString function) {
  Platform::Loco::Guard guard;
  functionMap().insert_or_assign(typeName, function);
}

IntrospectionMap::ToString IntrospectionMap::lookup(const String& typeName) {
  Platform::Loco::Guard guard;
  const FunctionMap& map = functionMap();
  const auto it = map.find(typeName);
  return it == map.end() ? nullptr : it->second;
}

} // namespace Kesto
