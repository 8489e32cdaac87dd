#include "Debug/TraceFile.h"
#include <Kesto/Debug/DebugControl.h>
#include <Kesto/Debug/DebugHandler.h>

#include <cstdlib>
#include <cstring>
#include <memory>

namespace Kesto::Platform {

namespace {

using Applier = void (*)(const String&, const String&);

// Splits "name/levels,name/levels,..." in place and hands each item on. A
// trailing comma adds no item; an empty item elsewhere is passed on as an
// empty name with no levels.
void applySpec(const char* spec, Applier apply) {
  std::unique_ptr<char, decltype(&std::free)> copy(strdup(spec), &std::free);
  char* position = copy.get();
  while (*position) {
    char* item = position;
    char* comma = std::strchr(item, ',');
    if (comma) {
      *comma = '\0';
      position = comma + 1;
    } else {
      position = item + std::strlen(item);
    }
    const char* levels = "";
    if (char* slash = std::strchr(item, '/')) {
      *slash = '\0';
      levels = slash + 1;
    }
    apply(String(item), String(levels));
  }
}

} // namespace

void setupKestoDebug(const char* spec) {
  Debug::Impl::applyTraceFile();
  if (!spec)
    spec = std::getenv("TRACE");
  if (spec)
    applySpec(spec, &Ixo::DebugControl::set);
}

void clearKestoDebug(const char* spec) {
  if (spec)
    applySpec(spec, &Ixo::DebugControl::clear);
}

String kestoDebugMapText() {
  String text = Ixo::DebugControl::allText();
  text += Ixo::DebugHandler::allText().view();
  return text;
}

void dumpKestoDebugMap() {
  Ixo::DebugControl::printAll();
  Ixo::DebugHandler::printAll();
}

} // namespace Kesto::Platform
