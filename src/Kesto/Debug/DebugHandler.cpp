#include <Kesto/Debug/DebugControl.h>
#include <Kesto/Debug/Loco.h>
#include <Kesto/Debug/Trace.h>

#include <ZuSlab/ZuSlab.h>

#include <fmt/format.h>

#include <cstdio>
#include <iterator>

namespace Kesto::Ixo {

static_assert(sizeof(unsigned short) == 2, "a handler's mask is 16 bits wide");

DebugHandler::HandlerMap* DebugHandler::handlerMap_ = nullptr;

DebugHandler::DebugHandler(const String& name, unsigned short levels, bool independent)
    : Platform::DebugHandler(name.dedup(), levels, nullptr, independent) {
  KESTO_ASSERT(Platform::Loco::owns_loco(), "Ixo::DebugHandler", "no loco");
  initialize();
  handlerMap_->emplace(this->name, this);
}

DebugHandler::~DebugHandler() {
  Platform::Loco::Guard guard;
  if (!handlerMap_)
    return;
  auto [first, last] = handlerMap_->equal_range(name);
  for (auto it = first; it != last; ++it) {
    if (it->second == this) {
      handlerMap_->erase(it);
      return;
    }
  }
}

void* DebugHandler::operator new(std::size_t size) { return ZuSlab::slabAllocOrStdMalloc(size); }

void DebugHandler::operator delete(void* p) noexcept { ZuSlab::slabFreeOrStdFree(p); }

void DebugHandler::enabledIs(unsigned short level, bool enabled) {
  KESTO_ASSERT(levelsPtr == &levels, "Ixo::DebugHandler",
               "Cannot use this with a non-null levelsPtr passed to constructor");
  // The mask is 16 bits: levels 16 to 31 fall off the end either way.
  const unsigned bit = 1u << (level & 31);
  // Under the Loco, like set() and clear(), so that a concurrent change of
  // the same mask is not lost; call sites read it without.
  Platform::Loco::Guard guard;
  Platform::storeLevels(&levels, static_cast<unsigned short>(enabled ? (levels | bit) : (levels & ~bit)));
}

void DebugHandler::dump(Platform::DebugStream& stream, unsigned short level, const char* file,
                        const char* function, int line) const {
  const std::string text = stream.str();
  Platform::dumpDebugMsg(text, level, *this, file, function, line);
}

String DebugHandler::displayString() const {
  String result(fmt::format("{}{}/", name, independent_ ? "+" : ""));
  if (levels == allSpecLevels) {
    result += '*';
  } else {
    const unsigned short shown = Platform::loadLevels(levelsPtr);
    for (int level = 0; level <= 9; ++level)
      if (shown & (1u << level))
        result += static_cast<char>('0' + level);
  }
  return result;
}

void DebugHandler::initialize() {
  KESTO_ASSERT(Platform::Loco::owns_loco(), "Ixo::DebugHandler", "no loco");
  if (!handlerMap_)
    handlerMap_ = new HandlerMap;
}

String DebugHandler::allText() {
  Platform::Loco::Guard guard;
  initialize();
  fmt::memory_buffer out;
  fmt::format_to(std::back_inserter(out), "Handlers:\n");
  for (const auto& [name, handler] : *handlerMap_)
    fmt::format_to(std::back_inserter(out), "    {}\n", handler->displayString());
  return String(std::string_view(out.data(), out.size()));
}

void DebugHandler::printAll() {
  const String text = allText();
  std::fwrite(text.data(), 1, text.size(), stdout);
  std::fflush(stdout);
}

} // namespace Kesto::Ixo

namespace Kesto::Platform {

Ptr<DebugHandler> getDebugHandler(const String& name, bool flag) { return Ixo::DebugControl::get(name, flag); }

void destroyDebugHandler(DebugHandler* handler) {
  Loco::Guard guard;
  if (handler)
    delete handler;
}

} // namespace Kesto::Platform
