// Named trace handlers and the objects that hold them.
//
// A handler is a name and a 16-bit mask of enabled levels. Call sites read
// the mask through levelsPtr, without a lock, and test one bit before they
// format anything; the controls fed by TRACE and setupKestoDebug() keep every
// handler's mask up to date eagerly, so no look-up happens on a trace.
#pragma once

#include <Kesto/Common/Export.h>

#include <Kesto/Core/Ptr.h>
#include <Kesto/Core/String.h>

#include <sstream>

namespace Kesto::Platform {

// A handler's mask is changed under the Loco by set(), clear() and
// enabledIs(), and read by call sites on any thread without it. Both sides go
// through relaxed atomic accesses: on x86-64 these are the same single 16-bit
// load and store as plain ones, and they make the intended race a defined
// one, which ThreadSanitizer also accepts. A reader may see a mask one update
// old, never a torn one.
inline unsigned short loadLevels(const unsigned short* mask) noexcept { return __atomic_load_n(mask, __ATOMIC_RELAXED); }
inline void storeLevels(unsigned short* mask, unsigned short value) noexcept {
  __atomic_store_n(mask, value, __ATOMIC_RELAXED);
}

// A string stream for composing a message; floating point precision 12.
class KESTO_EXPORT DebugStream : public std::stringstream {
public:
  DebugStream() { precision(12); }
};

class KESTO_EXPORT DebugHandler : public RefCount<HTCnt> {
public:
  explicit DebugHandler(const String& handlerName, unsigned short initialLevels = 0,
                        unsigned short* levelsPointer = nullptr, bool independent = false)
      : levels(initialLevels), levelsPtr(levelsPointer ? levelsPointer : &levels), name(handlerName),
        independent_(independent) {}
  virtual ~DebugHandler() = default;

  // Sets or clears bit `level & 31` of `levels`.
  virtual void enabledIs(unsigned short level, bool enabled) = 0;
  // Writes the stream's text as one trace line of `level`, whatever the mask.
  virtual void dump(DebugStream& stream, unsigned short level, const char* file, const char* function,
                    int line) const = 0;

  bool enabled(unsigned short level) const noexcept { return (loadLevels(levelsPtr) >> level) & 1u; }

  unsigned short levels;
  unsigned short* levelsPtr;
  String name;
  bool independent_;
};

// The handler of the given name, new on every call and controlled like every
// handler of that name. A trailing `*` is warned about and dropped.
KESTO_EXPORT Ptr<DebugHandler> getDebugHandler(const String& name, bool flag = false);

// Applies TRACEFILE, then `spec` (or TRACE when null) with set semantics.
KESTO_EXPORT void setupKestoDebug(const char* spec);
// Takes the levels of `spec` away; null does nothing.
KESTO_EXPORT void clearKestoDebug(const char* spec);
// Every control and handler, as dumpKestoDebugMap() prints them; the
// answer of the agent endpoint's trace commands.
KESTO_EXPORT String kestoDebugMapText();
// Prints every control and handler on standard output.
KESTO_EXPORT void dumpKestoDebugMap();
KESTO_EXPORT void destroyDebugHandler(DebugHandler* handler);

} // namespace Kesto::Platform

namespace Kesto {

// What an object that traces holds: one counted handler.
class KESTO_EXPORT Debuggable {
public:
  Debuggable() = default;
  Debuggable(const Debuggable&) = default;
  Debuggable(Debuggable&&) noexcept = default;
  Debuggable(const Ptr<Platform::DebugHandler>& handler) : debugHandler_(handler) {}
  Debuggable(Ptr<Platform::DebugHandler>&& handler) noexcept : debugHandler_(std::move(handler)) {}
  Debuggable(Platform::DebugHandler& handler) : debugHandler_(&handler) {}
  Debuggable(const String& name, bool flag) : debugHandler_(Platform::getDebugHandler(name, flag)) {}
  Debuggable& operator=(const Debuggable&) = default;
  Debuggable& operator=(Debuggable&&) noexcept = default;

  const Ptr<Platform::DebugHandler>& debugHandler() const noexcept { return debugHandler_; }

private:
  Ptr<Platform::DebugHandler> debugHandler_;
};

} // namespace Kesto
