// The TRACE language and the controls behind it against a small model.
//
// The input is a program of steps: setupKestoDebug / clearKestoDebug of a
// text (over a small alphabet so that names share prefixes, or raw bytes),
// getDebugHandler of a name, release of a held handler, enabledIs on one, an
// independent handler. After every step the specific controls, the wildcard
// controls and the mask of every registered handler must equal the model's.
//
// The model keeps the rules in their plainest form: controls in two ordered
// maps, the applying wildcard found as the longest prefix by a linear search,
// a zero wildcard kept only when a strictly shorter prefix with levels
// exists. Handlers are compared in registration order per name, which is the
// order of the real multimap.
//
// Every run starts from no controls and ends by removing what it made, so
// that runs do not see each other; the library's own seven handlers take
// part with whatever masks they had.
#include "FuzzInput.h"

#include <Kesto/Debug/DebugControl.h>
#include <Kesto/Debug/DebugHandler.h>
#include <Kesto/Debug/Loco.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <string_view>
#include <vector>

using KestoFuzz::FuzzInput;
using Kesto::Ixo::DebugControl;
namespace Ixo = Kesto::Ixo;
namespace Platform = Kesto::Platform;

namespace {

struct ModelHandler {
  std::string name;
  unsigned short levels;
  bool independent;
  Ixo::DebugHandler* real; // Identity, to compare in registration order.
};

struct Model {
  std::map<std::string, unsigned short> specific;
  std::map<std::string, unsigned short> wildcards;
  std::vector<ModelHandler> handlers;

  static bool begins(std::string_view name, std::string_view prefix) {
    return name.substr(0, prefix.size()) == prefix && name.size() >= prefix.size();
  }

  // Longest wildcard prefix of `name`, or null.
  const unsigned short* wildcardFor(std::string_view name) const {
    const unsigned short* best = nullptr;
    std::size_t bestLength = 0;
    for (const auto& [prefix, levels] : wildcards)
      if (begins(name, prefix) && (!best || prefix.size() >= bestLength)) {
        best = &levels;
        bestLength = prefix.size();
      }
    return best;
  }

  static std::string parseName(std::string_view text, bool& wildcard) {
    wildcard = !text.empty() && text.back() == '*';
    return std::string(wildcard ? text.substr(0, text.size() - 1) : text);
  }

  static unsigned short parseLevels(std::string_view text) {
    unsigned mask = 0;
    for (char c : text) {
      if (c >= '0' && c <= '9')
        mask |= 1u << (c - '0');
      else if (c == '*')
        mask |= 1023u;
    }
    return static_cast<unsigned short>(mask);
  }

  void set(std::string_view nameText, std::string_view levelsText) {
    bool wildcard;
    const std::string name = parseName(nameText, wildcard);
    const unsigned short mask = parseLevels(levelsText);
    if (!wildcard) {
      auto it = specific.find(name);
      if (it != specific.end()) {
        it->second |= mask;
      } else {
        const unsigned short* broader = wildcardFor(name);
        it = specific.emplace(name, static_cast<unsigned short>(mask | (broader ? *broader : 0))).first;
      }
      for (ModelHandler& h : handlers)
        if (!h.independent && h.name == name)
          h.levels |= it->second;
      return;
    }
    auto it = wildcards.find(name);
    if (it != wildcards.end()) {
      it->second |= mask;
    } else {
      const unsigned short* broader = wildcardFor(name);
      it = wildcards.emplace(name, static_cast<unsigned short>(mask | (broader ? *broader : 0))).first;
    }
    const unsigned short all = it->second;
    for (auto& [prefix, levels] : wildcards)
      if (begins(prefix, name))
        levels |= all;
    for (auto& [specificName, levels] : specific)
      if (begins(specificName, name))
        levels |= all;
    for (ModelHandler& h : handlers)
      if (!h.independent && begins(h.name, name))
        h.levels |= all;
  }

  // A handler that clear() registers joins the model with no identity; the
  // caller finds it in the registry afterwards.
  void clear(std::string_view nameText, std::string_view levelsText) {
    bool wildcard;
    const std::string name = parseName(nameText, wildcard);
    const unsigned short keep = static_cast<unsigned short>(~parseLevels(levelsText));
    if (!wildcard) {
      auto it = specific.find(name);
      if (it != specific.end()) {
        it->second &= keep;
        if (it->second == 0 && !wildcardFor(name))
          specific.erase(it);
      } else if (const unsigned short* broader = wildcardFor(name)) {
        handlers.push_back({name, static_cast<unsigned short>(*broader & keep), false, nullptr});
      }
      for (ModelHandler& h : handlers)
        if (!h.independent && h.name == name)
          h.levels &= keep;
      return;
    }
    for (auto& [prefix, levels] : wildcards)
      if (begins(prefix, name))
        levels &= keep;
    // A zero wildcard stays only while a strictly shorter prefix of it has
    // levels; zero ones never keep another, so the order does not matter.
    std::vector<std::string> gone;
    for (const auto& [prefix, levels] : wildcards) {
      if (levels != 0)
        continue;
      bool shadows = false;
      for (const auto& [broad, broadLevels] : wildcards)
        if (broad.size() < prefix.size() && begins(prefix, broad) && broadLevels != 0)
          shadows = true;
      if (!shadows)
        gone.push_back(prefix);
    }
    for (const std::string& prefix : gone)
      wildcards.erase(prefix);
    for (auto it = specific.begin(); it != specific.end();) {
      if (begins(it->first, name)) {
        it->second &= keep;
        if (it->second == 0 && !wildcardFor(it->first)) {
          it = specific.erase(it);
          continue;
        }
      }
      ++it;
    }
    for (ModelHandler& h : handlers)
      if (!h.independent && begins(h.name, name))
        h.levels &= keep;
  }

  unsigned short levelsForNew(const std::string& name) const {
    auto it = specific.find(name);
    if (it != specific.end())
      return it->second;
    const unsigned short* broader = wildcardFor(name);
    return broader ? *broader : 0;
  }
};

// Items of a TRACE text, split as setupKestoDebug does.
template <typename Fn>
void forEachItem(std::string_view text, Fn&& fn) {
  std::size_t position = 0;
  while (position < text.size()) {
    const std::size_t comma = text.find(',', position);
    const std::string_view item =
        text.substr(position, comma == std::string_view::npos ? std::string_view::npos : comma - position);
    position = comma == std::string_view::npos ? text.size() : comma + 1;
    const std::size_t slash = item.find('/');
    if (slash == std::string_view::npos)
      fn(item, std::string_view());
    else
      fn(item.substr(0, slash), item.substr(slash + 1));
  }
}

// Names and TRACE texts over few characters, so that prefixes, stars and
// separators meet often.
std::string textOf(FuzzInput& in, bool traceText) {
  static constexpr char alphabet[] = "ab*/,0123456789K";
  const bool raw = in.byte() & 1;
  std::string_view bytes = in.text(40);
  std::string out;
  for (char c : bytes) {
    if (c == '\0')
      continue; // The text is a C string.
    if (!raw)
      c = alphabet[static_cast<unsigned char>(c) % 16];
    if (!traceText && (c == ',' || c == '/'))
      c = 'b';
    out += c;
  }
  return out;
}

void compare(const Model& model) {
  Platform::Loco::Guard guard;
  // Controls.
  KESTO_FUZZ_CHECK(DebugControl::debugsMap_->size() == model.specific.size());
  for (const auto& [name, levels] : model.specific) {
    auto it = DebugControl::debugsMap_->find(Kesto::String(name));
    KESTO_FUZZ_CHECK(it != DebugControl::debugsMap_->end());
    KESTO_FUZZ_CHECK(it->second->levels == levels);
    KESTO_FUZZ_CHECK(!it->second->wildcard);
  }
  KESTO_FUZZ_CHECK(DebugControl::wildCardDebugsMap_->size() == model.wildcards.size());
  auto real = DebugControl::wildCardDebugsMap_->begin();
  for (auto it = model.wildcards.rbegin(); it != model.wildcards.rend(); ++it, ++real) {
    KESTO_FUZZ_CHECK(real->first.view() == it->first);
    KESTO_FUZZ_CHECK(real->second->levels == it->second);
    KESTO_FUZZ_CHECK(real->second->wildcard);
  }
  // Handlers: the real multimap is in name order and, within a name, in the
  // order of registration, which is the model's vector order.
  KESTO_FUZZ_CHECK(Ixo::DebugHandler::handlerMap_->size() == model.handlers.size());
  std::multimap<std::string, const ModelHandler*> ordered;
  for (const ModelHandler& h : model.handlers)
    ordered.emplace(h.name, &h);
  auto handler = Ixo::DebugHandler::handlerMap_->begin();
  for (const auto& [name, h] : ordered) {
    KESTO_FUZZ_CHECK(handler->second == h->real);
    KESTO_FUZZ_CHECK(handler->first.view() == name);
    KESTO_FUZZ_CHECK(handler->second->levels == h->levels);
    KESTO_FUZZ_CHECK(handler->second->levelsPtr == &handler->second->levels);
    ++handler;
  }
}

void deleteAllControls() {
  std::vector<DebugControl*> all;
  for (auto& [name, control] : *DebugControl::debugsMap_)
    all.push_back(control);
  for (auto& [name, control] : *DebugControl::wildCardDebugsMap_)
    all.push_back(control);
  for (DebugControl* control : all)
    delete control;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // TRACEFILE stays unset: setupKestoDebug then only keeps standard error.
  unsetenv("TRACEFILE");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  FuzzInput in(data, size);
  Model model;
  std::vector<Kesto::Ptr<Platform::DebugHandler>> held;
  std::vector<Ixo::DebugHandler*> made; // Independent handlers and clear()'s own.
  {
    Platform::Loco::Guard guard;
    DebugControl::initialize();
    deleteAllControls();
    for (auto& [name, handler] : *Ixo::DebugHandler::handlerMap_)
      model.handlers.push_back({std::string(name.view()), handler->levels, handler->independent_, handler});
  }
  compare(model);

  unsigned steps = 0;
  while (!in.empty() && steps++ < 64) {
    switch (in.byte() % 7) {
    case 0:
    case 1: {
      const std::string text = textOf(in, true);
      Platform::setupKestoDebug(text.c_str());
      forEachItem(text, [&](std::string_view name, std::string_view levels) { model.set(name, levels); });
      break;
    }
    case 2: {
      const std::string text = textOf(in, true);
      // A handler that clear() registers is in the model at once, with no
      // identity yet, so that the later items of the same text apply to it.
      forEachItem(text, [&](std::string_view name, std::string_view levels) { model.clear(name, levels); });
      std::multimap<Kesto::String, Ixo::DebugHandler*> before;
      {
        Platform::Loco::Guard guard;
        before = *Ixo::DebugHandler::handlerMap_;
      }
      Platform::clearKestoDebug(text.c_str());
      Platform::Loco::Guard guard;
      // Identities: within a name the multimap appends, so the new entries
      // are the last of each equal range, in the order they were made.
      std::map<std::string, std::size_t> taken;
      for (ModelHandler& h : model.handlers) {
        if (h.real)
          continue;
        auto [first, last] = Ixo::DebugHandler::handlerMap_->equal_range(Kesto::String(h.name));
        auto it = first;
        for (std::size_t skip = before.count(Kesto::String(h.name)) + taken[h.name]++; skip && it != last; --skip)
          ++it;
        KESTO_FUZZ_CHECK(it != last);
        h.real = it->second;
        made.push_back(it->second);
      }
      break;
    }
    case 3: {
      if (held.size() >= 16)
        break;
      const std::string text = textOf(in, false);
      bool wildcard;
      const std::string name = Model::parseName(text, wildcard);
      held.push_back(Platform::getDebugHandler(Kesto::String(text)));
      auto* real = static_cast<Ixo::DebugHandler*>(held.back().get());
      KESTO_FUZZ_CHECK(real->name.view() == name);
      model.handlers.push_back({name, model.levelsForNew(name), false, real});
      break;
    }
    case 4: {
      if (held.empty())
        break;
      const std::size_t i = in.byte() % held.size();
      Platform::DebugHandler* real = held[i].get();
      held.erase(held.begin() + static_cast<std::ptrdiff_t>(i));
      for (auto it = model.handlers.begin(); it != model.handlers.end(); ++it)
        if (it->real == real) {
          model.handlers.erase(it);
          break;
        }
      break;
    }
    case 5: {
      if (held.empty())
        break;
      Platform::DebugHandler* real = held[in.byte() % held.size()].get();
      const unsigned short level = in.byte();
      const bool enabled = in.byte() & 1;
      real->enabledIs(level, enabled);
      for (ModelHandler& h : model.handlers)
        if (h.real == real) {
          const unsigned bit = (level & 31) < 16 ? 1u << (level & 31) : 0u;
          h.levels = static_cast<unsigned short>(enabled ? (h.levels | bit) : (h.levels & ~bit));
        }
      break;
    }
    case 6: {
      if (made.size() >= 16)
        break;
      const std::string name = textOf(in, false);
      const unsigned short levels = in.number<unsigned short>();
      Platform::Loco::Guard guard;
      auto* real = new Ixo::DebugHandler(Kesto::String(name), levels, true);
      made.push_back(real);
      model.handlers.push_back({name, levels, true, real});
      break;
    }
    }
    compare(model);
  }

  held.clear();
  for (Ixo::DebugHandler* handler : made)
    Platform::destroyDebugHandler(handler);
  Platform::Loco::Guard guard;
  deleteAllControls();
  return 0;
}
