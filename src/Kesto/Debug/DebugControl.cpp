#include <Kesto/Debug/DebugControl.h>
#include <Kesto/Debug/Loco.h>
#include <Kesto/Debug/Trace.h>

#include <fmt/format.h>

#include <cstdio>
#include <iterator>

namespace Kesto::Ixo {

DebugControl::SpecificMap* DebugControl::debugsMap_ = nullptr;
DebugControl::WildcardMap* DebugControl::wildCardDebugsMap_ = nullptr;

namespace {

// True when `prefix` is empty or begins `name`. A prefix longer than the name
// never matches.
bool beginsWith(const String& name, const String& prefix) noexcept {
  return prefix.empty() || name.view().substr(0, prefix.size()) == prefix.view();
}

unsigned short orMask(unsigned short a, unsigned short b) noexcept { return static_cast<unsigned short>(a | b); }
unsigned short withoutMask(unsigned short a, unsigned short b) noexcept {
  return static_cast<unsigned short>(a & ~b);
}

// ORs `mask` into the control of that name, or makes it. A new control
// starts from what the name already had through the wildcard that applies.
template <typename Map>
DebugControl* addToControl(Map& map, const String& name, unsigned short mask, bool wildcard) {
  auto found = map.find(name);
  if (found != map.end()) {
    found->second->levels = orMask(found->second->levels, mask);
    return found->second;
  }
  DebugControl* broader = DebugControl::findWildcard(name);
  return new DebugControl(name, orMask(mask, broader ? broader->levels : 0), wildcard);
}

// One item of a trace specification, parsed.
struct SpecItem {
  SpecItem(const String& spec, const String& levelsText)
      : name(DebugControl::parseName(spec, wildcard)), mask(DebugControl::parseLevels(levelsText)) {}
  bool wildcard = false;
  String name;
  unsigned short mask;
};

} // namespace

DebugControl::DebugControl(const String& controlName, unsigned short controlLevels, bool isWildcard)
    : name(controlName.dedup()), levels(controlLevels), wildcard(isWildcard) {
  KESTO_ASSERT(Platform::Loco::owns_loco(), "Ixo::DebugControl", "no loco");
  initialize();
  if (wildcard)
    (*wildCardDebugsMap_)[name] = this;
  else
    (*debugsMap_)[name] = this;
}

DebugControl::~DebugControl() noexcept(false) {
  KESTO_ASSERT(Platform::Loco::owns_loco(), "Ixo::DebugControl", "no loco");
  // A later control of the same name may have taken the entry over; that one
  // is left in place.
  if (wildcard) {
    auto it = wildCardDebugsMap_->find(name);
    if (it != wildCardDebugsMap_->end() && it->second == this)
      wildCardDebugsMap_->erase(it);
  } else {
    auto it = debugsMap_->find(name);
    if (it != debugsMap_->end() && it->second == this)
      debugsMap_->erase(it);
  }
}

void DebugControl::initialize() {
  KESTO_ASSERT(Platform::Loco::owns_loco(), "Ixo::DebugControl", "no loco");
  if (!debugsMap_)
    debugsMap_ = new SpecificMap;
  if (!wildCardDebugsMap_)
    wildCardDebugsMap_ = new WildcardMap;
  DebugHandler::initialize();
}

String DebugControl::parseName(const String& spec, bool& isWildcard) {
  if (!spec.empty() && spec[spec.size() - 1] == '*') {
    isWildcard = true;
    return spec.substr(0, spec.size() - 1);
  }
  isWildcard = false;
  return spec;
}

unsigned short DebugControl::parseLevels(const String& text) {
  unsigned short mask = 0;
  for (char c : text.view()) {
    if (c >= '0' && c <= '9')
      mask = orMask(mask, static_cast<unsigned short>(1u << (c - '0')));
    else if (c == '*')
      mask = orMask(mask, allSpecLevels);
  }
  return mask;
}

DebugControl* DebugControl::findWildcard(String controlName) {
  KESTO_ASSERT(Platform::Loco::owns_loco(), "Ixo::DebugControl", "no loco");
  // Descending order: the first match is the longest matching prefix.
  for (const auto& [prefix, control] : *wildCardDebugsMap_)
    if (beginsWith(controlName, prefix))
      return control;
  return nullptr;
}

void DebugControl::set(const String& spec, const String& levelsText) {
  // Parsed outside the lock.
  const SpecItem item(spec, levelsText);
  Platform::Loco::Guard guard;
  initialize();

  if (!item.wildcard) {
    DebugControl* control = addToControl(*debugsMap_, item.name, item.mask, false);
    auto [first, last] = DebugHandler::handlerMap_->equal_range(item.name);
    for (auto it = first; it != last; ++it)
      if (!it->second->independent_)
        Platform::storeLevels(&it->second->levels, orMask(it->second->levels, control->levels));
    return;
  }

  const unsigned short all = addToControl(*wildCardDebugsMap_, item.name, item.mask, true)->levels;
  for (auto& [prefix, narrower] : *wildCardDebugsMap_)
    if (beginsWith(prefix, item.name))
      narrower->levels = orMask(narrower->levels, all);
  for (auto& [specificName, specific] : *debugsMap_)
    if (beginsWith(specificName, item.name))
      specific->levels = orMask(specific->levels, all);
  for (auto& [handlerName, handler] : *DebugHandler::handlerMap_)
    if (!handler->independent_ && beginsWith(handlerName, item.name))
      Platform::storeLevels(&handler->levels, orMask(handler->levels, all));
}

void DebugControl::clear(const String& spec, const String& levelsText) {
  // Parsed outside the lock.
  const SpecItem item(spec, levelsText);
  Platform::Loco::Guard guard;
  initialize();

  if (!item.wildcard) {
    auto found = debugsMap_->find(item.name);
    if (found != debugsMap_->end()) {
      DebugControl* control = found->second;
      control->levels = withoutMask(control->levels, item.mask);
      // A control at 0 under a wildcard stays: it keeps this name's handlers,
      // present and future, from inheriting the wildcard.
      if (control->levels == 0 && !findWildcard(item.name))
        delete control;
    } else if (DebugControl* broader = findWildcard(item.name)) {
      // No control is made here: a handler takes the reduced levels and is
      // kept by the registry alone, so that a handler made later under this
      // name still inherits the wildcard in full.
      new DebugHandler(item.name, withoutMask(broader->levels, item.mask), false);
    }
    auto [first, last] = DebugHandler::handlerMap_->equal_range(item.name);
    for (auto it = first; it != last; ++it)
      if (!it->second->independent_)
        Platform::storeLevels(&it->second->levels, withoutMask(it->second->levels, item.mask));
    return;
  }

  for (auto& [prefix, narrower] : *wildCardDebugsMap_)
    if (beginsWith(prefix, item.name))
      narrower->levels = withoutMask(narrower->levels, item.mask);

  // A wildcard at 0 still matters when it shadows a broader wildcard that has
  // levels; otherwise it goes.
  for (auto it = wildCardDebugsMap_->begin(); it != wildCardDebugsMap_->end();) {
    DebugControl* candidate = it->second;
    ++it;
    if (candidate->levels != 0)
      continue;
    bool shadows = false;
    for (auto broad = wildCardDebugsMap_->rbegin(); broad->second != candidate; ++broad) {
      if (beginsWith(candidate->name, broad->first) && broad->second->levels != 0) {
        shadows = true;
        break;
      }
    }
    if (!shadows)
      delete candidate;
  }

  for (auto it = debugsMap_->begin(); it != debugsMap_->end();) {
    DebugControl* specific = it->second;
    ++it;
    if (!beginsWith(specific->name, item.name))
      continue;
    specific->levels = withoutMask(specific->levels, item.mask);
    if (specific->levels == 0 && !findWildcard(specific->name))
      delete specific;
  }

  for (auto& [handlerName, handler] : *DebugHandler::handlerMap_)
    if (!handler->independent_ && beginsWith(handlerName, item.name))
      Platform::storeLevels(&handler->levels, withoutMask(handler->levels, item.mask));
}

Ptr<Platform::DebugHandler> DebugControl::get(const String& spec, bool) {
  bool isWildcard = false;
  const String handlerName = parseName(spec, isWildcard);
  Platform::Loco::Guard guard;
  initialize();
  if (isWildcard) {
    fmt::print(stderr, "Kesto::Debug - Warning - Wild card specifier ignored getting handler for {} using {}\n",
               spec, handlerName);
    std::fflush(stderr);
  }
  unsigned short handlerLevels = 0;
  auto found = debugsMap_->find(handlerName);
  if (found != debugsMap_->end())
    handlerLevels = found->second->levels;
  else if (DebugControl* broader = findWildcard(handlerName))
    handlerLevels = broader->levels;
  return Ptr<Platform::DebugHandler>(new DebugHandler(handlerName, handlerLevels, false));
}

String DebugControl::displayString() {
  String result(fmt::format("{}{}/", name, wildcard ? "*" : ""));
  if (levels == allSpecLevels) {
    result += '*';
  } else {
    for (int level = 0; level <= 9; ++level)
      if (levels & (1u << level))
        result += static_cast<char>('0' + level);
  }
  return result;
}

String DebugControl::allText() {
  Platform::Loco::Guard guard;
  initialize();
  fmt::memory_buffer out;
  fmt::format_to(std::back_inserter(out), "Specific:\n");
  for (const auto& [controlName, control] : *debugsMap_)
    fmt::format_to(std::back_inserter(out), "    {}\n", control->displayString());
  fmt::format_to(std::back_inserter(out), "Wildcard:\n");
  for (const auto& [controlName, control] : *wildCardDebugsMap_)
    fmt::format_to(std::back_inserter(out), "    {}\n", control->displayString());
  return String(std::string_view(out.data(), out.size()));
}

void DebugControl::printAll() {
  const String text = allText();
  std::fwrite(text.data(), 1, text.size(), stdout);
  std::fflush(stdout);
}

} // namespace Kesto::Ixo
