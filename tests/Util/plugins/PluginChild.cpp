// Helper of the plugin tests: loads plugins by name in a process of its own,
// started with LD_LIBRARY_PATH naming the folder of the test plugins, and
// writes what it finds on standard output, one fact a line. Trace lines go
// to standard error; the test reads both as one stream, in order.
//
//   util_plugin_child load <name>...           loadPlugin of each name
//   util_plugin_child retry <name> <lib> <dir> loadPlugin of <name>, then
//                                              <lib> appears in <dir> as
//                                              lib<name>.so, loadPlugin again
//   util_plugin_child counters                 two Counters and their counters
#include <Kesto/EventKesto.h>

#include <dlfcn.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

namespace {

void load(const char* name) {
  try {
    Kesto::Platform::Plugin* plugin = Kesto::Platform::loadPlugin(name);
    std::printf("load %s: %s\n", name, plugin ? plugin->name() : "null");
    // GoodPlugin's own accessors, found once its library is loaded.
    if (std::strcmp(name, "GoodPlugin") != 0)
      return;
    if (auto object = reinterpret_cast<const void* (*)()>(dlsym(RTLD_DEFAULT, "goodPluginObject")))
      std::printf("load %s: the library's object: %s\n", name, plugin == object() ? "yes" : "no");
    if (auto underLoco = reinterpret_cast<bool (*)()>(dlsym(RTLD_DEFAULT, "goodPluginRegisteredUnderLoco")))
      std::printf("load %s: registered under the Loco: %s\n", name, underLoco() ? "yes" : "no");
  } catch (const Kesto::AssertException& e) {
    std::printf("load %s: assert: %s\n", name, e.what());
  }
}

int counters() {
  Kesto::Counters first("alpha");
  Kesto::Counters second("beta");
  std::printf("one plugin: %s\n", first.plugin() && first.plugin() == second.plugin() ? "yes" : "no");
  unsigned long own = 0;
  unsigned long* a = first.counter("hits", &own);
  unsigned long* b = second.counter("hits", nullptr);
  std::printf("the plugin's word: %s\n", a != &own ? "yes" : "no");
  std::printf("one word for hits: %s\n", a == b ? "yes" : "no");
  ++*a;
  ++*b;
  std::printf("hits: %lu\n", *a);
  return 0;
}

} // namespace

int main(int argc, char** argv) {
  // Unbuffered, so that results and trace lines keep their order.
  std::setvbuf(stdout, nullptr, _IONBF, 0);
  const char* mode = argc > 1 ? argv[1] : "";
  if (std::strcmp(mode, "load") == 0) {
    for (int i = 2; i < argc; ++i)
      load(argv[i]);
    return 0;
  }
  if (std::strcmp(mode, "retry") == 0 && argc == 5) {
    load(argv[2]);
    const std::string link = std::string(argv[4]) + "/lib" + argv[2] + ".so";
    if (::symlink(argv[3], link.c_str()) != 0) {
      std::perror("symlink");
      return 1;
    }
    load(argv[2]);
    return 0;
  }
  if (std::strcmp(mode, "counters") == 0)
    return counters();
  std::fprintf(stderr, "unknown mode %s\n", mode);
  return 2;
}
