// libWrongNamePlugin.so: loaded as "WrongNamePlugin", it registers as
// "MisnamedPlugin", so the loader finds nothing under the name it opened.
#include <Kesto/Util/Plugin.h>

namespace {

class MisnamedPlugin final : public Kesto::Platform::Plugin {
public:
  const char* name() const override { return "MisnamedPlugin"; }
};

MisnamedPlugin plugin;

struct Registration {
  Registration() { Kesto::Platform::registerPlugin(&plugin); }
} registration;

} // namespace
