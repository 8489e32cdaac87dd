// Named counters that work with or without the counters plugin.
//
// A program counts through the pointer counter() hands it. When the
// "TallyCountersPlugin" library can be loaded, the plugin decides where each
// counter lives (and so can publish it); without it the counters are the
// caller's own storage, or one shared scratch word, and nothing is
// published. Either way the caller can always increment through the result,
// so counting code never tests for the plugin.
//
// Owner: a Counters object points at the plugin and owns nothing; the plugin
// lives until process exit.
// Threads: construction loads the plugin under Platform::Loco and may run
// from any thread; counter() takes no lock. The scratch word is shared by
// every caller without a plugin or storage, so what it counts is noise.
// Allocation: none here; the plugin may allocate.
// Failures: a missing plugin is no error, only the level 0 trace of
// loadPlugin.
#pragma once

#include <Kesto/Common/Export.h>
#include <Kesto/Util/Plugin.h>

namespace Kesto {

// The interface the counters plugin implements. The slots follow name():
// the counter set of a Counters object, then one counter of it.
class KESTO_EXPORT CountersPlugin : public Platform::Plugin {
public:
  // A Counters object named `name` was made.
  virtual void counters(const char* name) = 0;
  // Where the counter `name` lives; `storage` is the caller's offer, and may
  // be null.
  virtual unsigned long* counter(const char* name, unsigned long* storage) = 0;

protected:
  ~CountersPlugin() = default;
};

class KESTO_EXPORT Counters {
public:
  // The library file is "lib" + pluginName + ".so".
  static constexpr const char* pluginName = "TallyCountersPlugin";

  // Loads the plugin (once per process) and, with a plugin and a name, tells
  // it of this counter set.
  explicit Counters(const char* name);

  // Where to count `name`: the plugin's answer, or else `storage`, or else
  // the shared scratch word. Never null.
  unsigned long* counter(const char* name, unsigned long* storage) const;

  // The plugin, or null when it couldn't be loaded.
  Platform::Plugin* plugin() const noexcept { return plugin_; }

private:
  Platform::Plugin* plugin_;
};

} // namespace Kesto
