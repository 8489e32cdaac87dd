// Plugins: shared libraries found by name that hand the process an object.
//
// A plugin library defines one object that implements Platform::Plugin (or
// an interface of a plugin family derived from it) and registers it from a
// static initialiser with registerPlugin(). loadPlugin("Name") opens
// "libName.so" on the dynamic linker's search path, which runs that
// initialiser, and returns what was registered under "Name". A library is
// opened once and never closed: its object stays valid until process exit.
//
// Owner: the library that defines a plugin object owns it; the process-wide
// plugin table only points at it and is never destroyed, so a plugin may be
// looked up from any static destructor.
// Threads: any. The table is read and written under Platform::Loco, which
// loadPlugin holds across dlopen; the registration from inside dlopen takes
// it again on the same thread. A plugin's static initialiser must therefore
// not wait for another thread that needs the Loco.
// Allocation: a table entry per registered plugin.
// Failures: a library that can't be opened gives null and a level 0 trace
// of the "KestoPlugin" handler, and the next call tries again. Registering
// a name twice, or a library that registers under another name than the one
// it was loaded by, are programming errors and assert.
#pragma once

#include <Kesto/Common/Export.h>

namespace Kesto::Platform {

// What a plugin library implements. Callers of a plugin family reach its
// operations through the family's interface, by their slot in the virtual
// table: name() is the first slot, the family's operations follow, and there
// is deliberately no virtual destructor in between. The table never deletes
// a plugin, so the destructor is protected and not virtual.
class KESTO_EXPORT Plugin {
public:
  // The name the plugin registers under; the library file is "lib{name}.so".
  virtual const char* name() const = 0;

protected:
  Plugin() = default;
  Plugin(const Plugin&) = default;
  Plugin& operator=(const Plugin&) = default;
  ~Plugin() = default;
};

// Adds `plugin` to the table under plugin->name(). Normally called from a
// static initialiser of the plugin library while loadPlugin is in dlopen.
KESTO_EXPORT void registerPlugin(Plugin* plugin);

// The plugin registered under `name`, opening "lib{name}.so" first if it
// isn't registered yet; null if the library can't be opened.
KESTO_EXPORT Plugin* loadPlugin(const char* name);

} // namespace Kesto::Platform
