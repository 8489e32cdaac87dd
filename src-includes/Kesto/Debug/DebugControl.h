// The concrete trace handler and the controls that set handler masks.
//
// A control is a named record of levels that outlives handlers: it is what a
// TRACE item leaves behind, so that a handler created later under that name
// starts with the right mask. A specific control names one handler name; a
// wildcard control names a prefix (the text before its trailing `*`).
//
// The maps are kept in descending name order for wildcards: of two prefixes
// where one begins the other, the longer sorts first, so a walk from the
// start meets the most specific wildcard first and the empty prefix last.
//
// Ownership: handlers are counted (Ptr) and taken from the slab allocator;
// controls are plain `new` objects, owned by their map until clear() deletes
// them. The three maps are made on first use and never destroyed, so that
// handlers can be created in static initialisers of any library and destroyed
// at any point of process exit.
//
// Threads: every map, every control and every handler's `levels` are changed
// under Platform::Loco; call sites read the mask through loadLevels() without it.
#pragma once

#include <Kesto/Common/Export.h>

#include <Kesto/Core/String.h>
#include <Kesto/Debug/DebugHandler.h>

#include <functional>
#include <map>
#include <unordered_map>

namespace Kesto::Ixo {

class KESTO_EXPORT DebugHandler : public Platform::DebugHandler {
public:
  using HandlerMap = std::multimap<String, DebugHandler*, std::less<String>>;

  // Must be called with the Loco held (getDebugHandler does so).
  DebugHandler(const String& name, unsigned short levels, bool independent);
  ~DebugHandler() override;

  void enabledIs(unsigned short level, bool enabled) override;
  void dump(Platform::DebugStream& stream, unsigned short level, const char* file, const char* function,
            int line) const override;

  // "name/levels", with `+` behind the name of an independent handler.
  String displayString() const;

  // Makes handlerMap_ if needed. Requires the Loco.
  static void initialize();
  // "Handlers:" and every handler in name order, one "    name/levels" line
  // each: the text printAll() writes.
  static String allText();
  // allText() on standard output.
  static void printAll();

  static void* operator new(std::size_t size);
  static void operator delete(void* p) noexcept;

  // Every live handler, several under one name when several were made.
  static HandlerMap* handlerMap_;
};

class KESTO_EXPORT DebugControl {
public:
  using SpecificMap = std::unordered_map<String, DebugControl*>;
  using WildcardMap = std::map<String, DebugControl*, std::greater<String>>;

  // Registers itself in the map of its kind. Requires the Loco.
  DebugControl(const String& name, unsigned short levels, bool wildcard);
  // Removes itself from its map. Requires the Loco; asserting from here is a
  // programming error report, so the destructor may throw.
  ~DebugControl() noexcept(false);
  DebugControl(const DebugControl&) = delete;
  DebugControl& operator=(const DebugControl&) = delete;

  // ORs the levels of `levels` into the control(s) and handler(s) of `name`.
  static void set(const String& name, const String& levels);
  // Takes the levels of `levels` away from the control(s) and handler(s).
  static void clear(const String& name, const String& levels);
  // A new handler named `name` with the levels its controls give it.
  static Ptr<Platform::DebugHandler> get(const String& name, bool flag);
  // The longest wildcard whose prefix begins `name`, or null. Requires the
  // Loco.
  static DebugControl* findWildcard(String name);
  // `name` without a trailing `*`; `wildcard` tells whether it had one.
  static String parseName(const String& spec, bool& wildcard);
  // The mask of a level list: digits set their bit, `*` sets 0 to 9,
  // anything else is skipped.
  static unsigned short parseLevels(const String& levels);
  // Makes the control maps (and the handler map) if needed. Requires the
  // Loco.
  static void initialize();
  // "Specific:", the specific controls, "Wildcard:", the wildcards, one
  // "    name/levels" line each: the text printAll() writes.
  static String allText();
  // allText() on standard output.
  static void printAll();

  // "name/levels", with `*` behind the name of a wildcard.
  String displayString();

  String name;
  unsigned short levels;
  bool wildcard;

  static SpecificMap* debugsMap_;
  static WildcardMap* wildCardDebugsMap_;

  // Fields of a trace line's prefix, set by setTraceFormat.
  static bool showDate_;
  static bool showTime_;
  static bool showPid_;
  static bool showTid_;
  static bool showHandleName_;
  static bool showLevel_;
  static bool showLineInfo_;
  static bool showFuncName_;
};

// A mask value with every level the specification language can reach.
inline constexpr unsigned short allSpecLevels = 1023;

} // namespace Kesto::Ixo
