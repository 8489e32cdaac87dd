#include <Kesto/Util/Plugin.h>

#include <Kesto/Core/String.h>
#include <Kesto/Debug/Loco.h>
#include <Kesto/Debug/Trace.h>

#include <dlfcn.h>

#include <string>
#include <unordered_map>

namespace Kesto::Platform {

namespace {

constexpr const char* className = "Kesto::Platform";

using PluginTable = std::unordered_map<String, Plugin*>;

// Made at first use and never destroyed: plugins register from static
// initialisers and may be looked up from static destructors, of any library.
// Requires the Loco.
PluginTable& pluginTable() {
  static PluginTable* const table = new PluginTable;
  return *table;
}

Plugin* registered(const String& name) {
  const PluginTable& table = pluginTable();
  const auto it = table.find(name);
  return it == table.end() ? nullptr : it->second;
}

} // namespace

void registerPlugin(Plugin* plugin) {
  KESTO_ASSERT_H(Debug::kestoPlugin, plugin, className, "registerPlugin of a null plugin");
  const char* const nameText = plugin->name();
  KESTO_ASSERT_H(Debug::kestoPlugin, nameText, className, "plugin at {} has a null name", DisplayPointer(plugin));
  const String name(nameText);
  // Recursive: loadPlugin holds it while dlopen runs the initialiser that
  // calls this.
  Loco::Guard guard;
  KESTO_ASSERT_H(Debug::kestoPlugin, !registered(name), className, "Plugin {} already registered", name);
  KESTO_TRACE(Debug::kestoPlugin, 2, className, "adding plugin {}", name);
  pluginTable().emplace(name, plugin);
}

Plugin* loadPlugin(const char* nameText) {
  KESTO_ASSERT_H(Debug::kestoPlugin, nameText, className, "loadPlugin of a null name");
  const String name(nameText);
  // Held across dlopen, so that a second thread loading the same library
  // waits for this registration rather than opening it once more and
  // finding nothing registered.
  Loco::Guard guard;
  if (Plugin* plugin = registered(name)) {
    KESTO_TRACE(Debug::kestoPlugin, 3, className, "{} already loaded", name);
    return plugin;
  }
  const std::string fileName = fmt::format("lib{}.so", name);
  // Never closed: the plugin object lives in the library, and the table
  // keeps pointing at it.
  if (!dlopen(fileName.c_str(), RTLD_NOW | RTLD_GLOBAL)) {
    const char* const reason = dlerror();
    KESTO_TRACE(Debug::kestoPlugin, 0, className, "Failed to load plugin {}: {}", fileName,
                reason ? reason : "unknown error");
    return nullptr;
  }
  Plugin* const plugin = registered(name);
  KESTO_ASSERT_H(Debug::kestoPlugin, plugin, className, "Phooey -- plugin {} failed to register", name);
  KESTO_TRACE(Debug::kestoPlugin, 2, className, "Yay!  Plugin {} loaded", name);
  return plugin;
}

} // namespace Kesto::Platform
