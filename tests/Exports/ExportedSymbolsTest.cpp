// Every library of the family exports exactly its interface: each symbol in
// its dynamic symbol table must be named by its public headers. A symbol of a
// class, function or variable declared only in a library's private headers
// or sources (an Impl:: helper, a private class, an anonymous namespace)
// fails the test with its name.
//
// The dynamic table is read from the built library with `nm -D -C`; the
// names the interface allows are the identifiers of the library's public
// headers. Within a demangled symbol every component qualified by one of the
// library's namespaces must be such an identifier.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

struct Symbol {
  char kind;
  std::string name;
};

std::vector<Symbol> dynamicSymbols(const std::string& library) {
  const std::string command = "nm -D -C --defined-only '" + library + "' 2>&1";
  FILE* pipe = popen(command.c_str(), "r");
  if (!pipe)
    return {};
  std::vector<Symbol> symbols;
  char buffer[8192];
  while (fgets(buffer, sizeof buffer, pipe)) {
    std::string line(buffer);
    if (!line.empty() && line.back() == '\n')
      line.pop_back();
    // "0000000000012340 T name" or "                 w name"
    if (line.size() < 20 || line[16] != ' ' || line[18] != ' ')
      continue;
    std::string name = line.substr(19);
    // AddressSanitizer gives each exported variable a companion symbol of
    // its own ("__odr_asan." and the variable's mangled name); the variable
    // itself is checked.
    if (name.rfind("__odr_asan", 0) == 0)
      continue;
    symbols.push_back({line[17], std::move(name)});
  }
  pclose(pipe);
  return symbols;
}

std::set<std::string> headerIdentifiers(const std::vector<std::string>& roots) {
  std::set<std::string> identifiers;
  const std::regex identifier("[A-Za-z_][A-Za-z_0-9]*");
  for (const std::string& root : roots)
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
      if (!entry.is_regular_file() || entry.path().extension() != ".h")
        continue;
      std::ifstream in(entry.path());
      std::stringstream text;
      text << in.rdbuf();
      const std::string s = text.str();
      for (auto it = std::sregex_iterator(s.begin(), s.end(), identifier); it != std::sregex_iterator(); ++it)
        identifiers.insert(it->str());
    }
  return identifiers;
}

// Why `symbol` is not part of the interface, or "" if it is. Every name
// qualified by one of `namespaces` ("Kesto::", ...) is looked up, and so is a
// symbol outside every namespace (a C function or variable).
std::string internalReason(const std::string& symbol, const std::set<std::string>& allowed,
                           const std::vector<std::string>& namespaces) {
  if (symbol.find("(anonymous namespace)") != std::string::npos)
    return "in an anonymous namespace";
  // What names an entity: the symbol without the special-name prefixes.
  static const char* prefixes[] = {"vtable for ",        "typeinfo name for ",     "typeinfo for ",
                                   "VTT for ",           "guard variable for ",    "TLS init function for ",
                                   "TLS wrapper function for ", "non-virtual thunk to ", "virtual thunk to ",
                                   "covariant return thunk to "};
  std::string body = symbol;
  for (bool again = true; again;) {
    again = false;
    for (const char* prefix : prefixes)
      if (body.rfind(prefix, 0) == 0) {
        body = body.substr(std::string(prefix).size());
        again = true;
      }
  }
  bool qualified = false;
  for (const std::string& ns : namespaces) {
    for (std::size_t at = body.find(ns); at != std::string::npos; at = body.find(ns, at + 1)) {
      if (at > 0 && (std::isalnum(static_cast<unsigned char>(body[at - 1])) || body[at - 1] == '_'))
        continue;
      qualified = true;
      // Walk A::B::c after the namespace.
      std::size_t pos = at + ns.size();
      while (pos < body.size()) {
        std::size_t end = pos;
        while (end < body.size() && (std::isalnum(static_cast<unsigned char>(body[end])) || body[end] == '_' ||
                                     body[end] == '~'))
          ++end;
        std::string component = body.substr(pos, end - pos);
        if (component.rfind("operator", 0) == 0 || component.empty())
          break;
        if (component[0] == '~')
          component = component.substr(1);
        if (!allowed.count(component))
          return "'" + component + "' is not named by a public header";
        // Skip template arguments, then continue after "::".
        if (end < body.size() && body[end] == '<') {
          int depth = 0;
          for (; end < body.size(); ++end) {
            if (body[end] == '<')
              ++depth;
            else if (body[end] == '>' && --depth == 0) {
              ++end;
              break;
            }
          }
        }
        if (body.compare(end, 2, "::") != 0)
          break;
        pos = end + 2;
      }
    }
  }
  if (!qualified && body.find("::") == std::string::npos) {
    // A C symbol: its whole name up to an argument list.
    const std::string name = body.substr(0, body.find('('));
    if (!allowed.count(name))
      return "'" + name + "' is not named by a public header";
  }
  return "";
}

struct Library {
  const char* file;
  std::vector<std::string> headerRoots;
  std::vector<std::string> namespaces;
};

std::vector<std::string> internalSymbols(const Library& library, std::size_t* count) {
  const std::vector<Symbol> symbols = dynamicSymbols(library.file);
  *count = symbols.size();
  const std::set<std::string> allowed = headerIdentifiers(library.headerRoots);
  std::vector<std::string> internal;
  for (const Symbol& symbol : symbols) {
    const std::string reason = internalReason(symbol.name, allowed, library.namespaces);
    if (!reason.empty())
      internal.push_back(symbol.name + "  (" + reason + ")");
  }
  return internal;
}

void expectOnlyInterface(const Library& library) {
  std::size_t count = 0;
  const std::vector<std::string> internal = internalSymbols(library, &count);
  EXPECT_GT(count, 0u) << "no dynamic symbols read from " << library.file;
  std::string list;
  for (const std::string& s : internal)
    list += "  " + s + "\n";
  EXPECT_TRUE(internal.empty()) << library.file << " exports " << internal.size() << " internal symbols of "
                                << count << ":\n"
                                << list;
  std::printf("%s: %zu dynamic symbols\n", fs::path(library.file).filename().c_str(), count);
}

const std::vector<std::string> kestoNamespaces = {"Kesto::", "ZuSlab::", "ZuFmt::", "ZuIntrusive::"};

TEST(ExportedSymbols, TheCheckFlagsWhatPublicHeadersDoNotName) {
  const std::set<std::string> allowed = {"Kesto", "Platform", "Impl", "doEventLoop", "TaskScheduler", "String",
                                         "event_base_get_first_timeout"};
  EXPECT_EQ(internalReason("Kesto::Platform::doEventLoop(double)", allowed, kestoNamespaces), "");
  EXPECT_EQ(internalReason("vtable for Kesto::TaskScheduler", allowed, kestoNamespaces), "");
  EXPECT_EQ(internalReason("event_base_get_first_timeout", allowed, kestoNamespaces), "");
  EXPECT_EQ(internalReason("std::vector<Kesto::String, std::allocator<Kesto::String> >::~vector()", allowed,
                           kestoNamespaces),
            "");
  EXPECT_NE(internalReason("Kesto::Platform::Impl::secondsToTimeval(double)", allowed, kestoNamespaces), "");
  EXPECT_NE(internalReason("typeinfo for Kesto::EvLoopBreak", allowed, kestoNamespaces), "");
  EXPECT_NE(internalReason("Kesto::(anonymous namespace)::helper()", allowed, kestoNamespaces), "");
  EXPECT_NE(internalReason("std::vector<Kesto::Hidden*, std::allocator<Kesto::Hidden*> >::push_back()", allowed,
                           kestoNamespaces),
            "");
  EXPECT_NE(internalReason("some_c_helper", allowed, kestoNamespaces), "");
}

TEST(ExportedSymbols, EventKestoExportsOnlyItsInterface) {
  expectOnlyInterface({KESTO_LIB_EVENTKESTO, {KESTO_INCLUDE_EVENTKESTO, KESTO_INCLUDE_CORE}, kestoNamespaces});
}

TEST(ExportedSymbols, CoreExportsOnlyItsInterface) {
  expectOnlyInterface({KESTO_LIB_CORE, {KESTO_INCLUDE_CORE}, kestoNamespaces});
}

TEST(ExportedSymbols, SlabAllocatorExportsOnlyItsInterface) {
  expectOnlyInterface({KESTO_LIB_ZUSLAB, {KESTO_INCLUDE_ZUSLAB}, kestoNamespaces});
}

TEST(ExportedSymbols, TimeoutsExportsOnlyItsInterface) {
  expectOnlyInterface({KESTO_LIB_TIMEOUTS, {KESTO_INCLUDE_TIMEOUTS}, kestoNamespaces});
}

TEST(ExportedSymbols, NetnsExportsOnlyItsInterface) {
  expectOnlyInterface({KESTO_LIB_NETNS, {KESTO_INCLUDE_NETNS}, kestoNamespaces});
}

// The variables a program may use directly stay exported under their names.
TEST(ExportedSymbols, ExportedVariablesKeepTheirNames) {
  std::set<std::string> names;
  for (const Symbol& s : dynamicSymbols(KESTO_LIB_EVENTKESTO))
    names.insert(s.name);
  for (const char* name : {"Kesto::ev_base", "Kesto::mainThread", "Kesto::fastForward",
                           "Kesto::assertNotRunningCriticalTaskFn", "Kesto::auxThreadCount",
                           "Kesto::TaskSchedulerRoot::historyEntryCountDefault", "platformLibPresenceFlag"})
    EXPECT_TRUE(names.count(name)) << name << " is not exported";
}

} // namespace
