#include <Kesto/Util/Counters.h>

namespace Kesto {

namespace {
// Where counters with neither a plugin nor storage of their own go: every
// such counter shares it, so the caller can always increment through the
// result and what accumulates here means nothing.
unsigned long scratchCounter = 0;
} // namespace

Counters::Counters(const char* name) : plugin_(Platform::loadPlugin(pluginName)) {
  if (plugin_ && name)
    static_cast<CountersPlugin*>(plugin_)->counters(name);
}

unsigned long* Counters::counter(const char* name, unsigned long* storage) const {
  if (plugin_)
    return static_cast<CountersPlugin*>(plugin_)->counter(name, storage);
  return storage ? storage : &scratchCounter;
}

} // namespace Kesto
