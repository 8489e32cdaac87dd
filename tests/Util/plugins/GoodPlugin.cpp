// libGoodPlugin.so: registers itself under the name it is loaded by, from a
// static initialiser, as a plugin library does. It also tells the loader
// whether the registration ran under the Loco, and which object it was.
#include <Kesto/Debug/Loco.h>
#include <Kesto/Util/Plugin.h>

namespace {

class GoodPlugin final : public Kesto::Platform::Plugin {
public:
  const char* name() const override { return "GoodPlugin"; }
};

GoodPlugin plugin;
bool registeredUnderLoco = false;

struct Registration {
  Registration() {
    registeredUnderLoco = Kesto::Platform::Loco::owns_loco();
    Kesto::Platform::registerPlugin(&plugin);
  }
} registration;

} // namespace

extern "C" const void* goodPluginObject() { return &plugin; }
extern "C" bool goodPluginRegisteredUnderLoco() { return registeredUnderLoco; }
