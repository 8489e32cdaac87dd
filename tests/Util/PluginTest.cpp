// The plugin table and the loader. Loading by name needs the plugins'
// folder on the dynamic linker's search path, which is fixed when a process
// starts: those tests run the helper program in a child process. What needs
// no library file (registration, a name already registered, a missing
// library) runs here.
#include "PluginTestSupport.h"
#include "UtilTestSupport.h"

#include <Kesto/EventKesto.h>
#include <KestoSupport/AssertMessage.h>

#include <gtest/gtest.h>

#include <string>

using Kesto::Platform::loadPlugin;
using Kesto::Platform::Plugin;
using Kesto::Platform::registerPlugin;
using KestoTest::assertMessage;
using KestoTest::runPluginChild;
using KestoTest::TraceCapture;

namespace {

// Each test registers names of its own: the table is process-wide and keeps
// what it is given.
class NamedPlugin final : public Plugin {
public:
  explicit NamedPlugin(const char* name) : name_(name) {}
  const char* name() const override { return name_; }

private:
  const char* name_;
};

// The message of the assertion `body` raises (its line is still written:
// an assertion is meant to be seen).
template <typename Body>
std::string assertionOf(Body&& body) {
  try {
    body();
  } catch (const Kesto::AssertException& e) {
    return assertMessage(e.what());
  }
  return "<no assertion>";
}

std::string pluginLine(unsigned level, const char* function, const std::string& text) {
  return "KestoPlugin " + std::to_string(level) + " Kesto::Platform::" + function + "() " + text;
}

} // namespace

TEST(Plugin, RegisteredPluginIsReturnedWithoutOpeningALibrary) {
  static NamedPlugin plugin("ZqRegisteredHere");
  TraceCapture trace({2, 3}, *Kesto::Debug::kestoPlugin);
  registerPlugin(&plugin);
  // No libZqRegisteredHere.so exists: the table alone answers.
  EXPECT_EQ(loadPlugin("ZqRegisteredHere"), &plugin);
  EXPECT_EQ(loadPlugin("ZqRegisteredHere"), &plugin);
  EXPECT_EQ(trace.lines(), (std::vector<std::string>{
                               pluginLine(2, "registerPlugin", "adding plugin ZqRegisteredHere"),
                               pluginLine(3, "loadPlugin", "ZqRegisteredHere already loaded"),
                               pluginLine(3, "loadPlugin", "ZqRegisteredHere already loaded"),
                           }));
}

TEST(Plugin, SecondRegistrationOfANameAssertsAndKeepsTheFirst) {
  static NamedPlugin first("ZqTwice");
  static NamedPlugin second("ZqTwice");
  registerPlugin(&first);
  EXPECT_EQ(assertionOf([] { registerPlugin(&second); }),
            "Kesto::Platform::registerPlugin() Plugin ZqTwice already registered");
  EXPECT_EQ(assertionOf([] { registerPlugin(&first); }),
            "Kesto::Platform::registerPlugin() Plugin ZqTwice already registered");
  EXPECT_EQ(loadPlugin("ZqTwice"), &first);
}

TEST(Plugin, NullPluginOrNameAsserts) {
  static NamedPlugin nameless(nullptr);
  EXPECT_EQ(assertionOf([] { registerPlugin(nullptr); }),
            "Kesto::Platform::registerPlugin() registerPlugin of a null plugin");
  EXPECT_EQ(assertionOf([] { registerPlugin(&nameless); }),
            fmt::format("Kesto::Platform::registerPlugin() plugin at {} has a null name",
                        Kesto::DisplayPointer(&nameless)));
  EXPECT_EQ(assertionOf([] { loadPlugin(nullptr); }), "Kesto::Platform::loadPlugin() loadPlugin of a null name");
}

TEST(Plugin, MissingLibraryGivesNullAndTheNextCallTriesAgain) {
  TraceCapture trace({0}, *Kesto::Debug::kestoPlugin);
  EXPECT_EQ(loadPlugin("ZqNoSuchPlugin"), nullptr);
  EXPECT_EQ(loadPlugin("ZqNoSuchPlugin"), nullptr);
  // Each call opened the library anew, and failed anew.
  const std::string failure = pluginLine(0, "loadPlugin",
                                         "Failed to load plugin libZqNoSuchPlugin.so: libZqNoSuchPlugin.so: cannot "
                                         "open shared object file: No such file or directory");
  EXPECT_EQ(trace.lines(), (std::vector<std::string>{failure, failure}));
}

TEST(Plugin, LibraryIsFoundByNameAndRegistersInsideTheLoad) {
  const KestoTest::PluginChildResult child = runPluginChild({"load", "GoodPlugin", "GoodPlugin"});
  ASSERT_EQ(child.exitCode, 0) << child.output;
  const std::size_t adding = child.lineAt(pluginLine(2, "registerPlugin", "adding plugin GoodPlugin"));
  const std::size_t loaded = child.lineAt(pluginLine(2, "loadPlugin", "Yay!  Plugin GoodPlugin loaded"));
  const std::size_t again = child.lineAt(pluginLine(3, "loadPlugin", "GoodPlugin already loaded"));
  ASSERT_NE(adding, std::string::npos) << child.output;
  ASSERT_NE(loaded, std::string::npos) << child.output;
  ASSERT_NE(again, std::string::npos) << child.output;
  EXPECT_LT(adding, loaded);
  EXPECT_LT(loaded, again);
  EXPECT_TRUE(child.hasLine("load GoodPlugin: GoodPlugin")) << child.output;
  EXPECT_TRUE(child.hasLine("load GoodPlugin: the library's object: yes")) << child.output;
  // The static initialiser ran inside dlopen, with loadPlugin holding the
  // Loco.
  EXPECT_TRUE(child.hasLine("load GoodPlugin: registered under the Loco: yes")) << child.output;
  EXPECT_EQ(child.output.find("Failed to load"), std::string::npos) << child.output;
}

TEST(Plugin, LibraryRegisteringUnderAnotherNameAsserts) {
  const KestoTest::PluginChildResult child = runPluginChild({"load", "WrongNamePlugin"});
  ASSERT_EQ(child.exitCode, 0) << child.output;
  EXPECT_TRUE(child.hasLine(pluginLine(2, "registerPlugin", "adding plugin MisnamedPlugin"))) << child.output;
  const std::string what = child.afterPrefix("load WrongNamePlugin: assert: ");
  ASSERT_FALSE(what.empty()) << child.output;
  EXPECT_EQ(assertMessage(what), "Kesto::Platform::loadPlugin() Phooey -- plugin WrongNamePlugin failed to register");
  EXPECT_EQ(child.output.find("Yay!"), std::string::npos) << child.output;
}

TEST(Plugin, LibraryThatAppearsLaterIsLoadedByTheNextCall) {
  // The child's search path is an empty folder, into which the child puts
  // the library between its two calls.
  KestoTest::ScratchDir dir;
  const KestoTest::PluginChildResult child =
      runPluginChild({"retry", "GoodPlugin", KESTO_UTIL_GOOD_PLUGIN, dir.path()}, dir.path());
  ASSERT_EQ(child.exitCode, 0) << child.output;
  const std::size_t missing = child.lineAt("load GoodPlugin: null");
  const std::size_t found = child.lineAt("load GoodPlugin: GoodPlugin");
  ASSERT_NE(missing, std::string::npos) << child.output;
  ASSERT_NE(found, std::string::npos) << child.output;
  EXPECT_LT(missing, found);
  EXPECT_NE(child.output.find(pluginLine(0, "loadPlugin", "Failed to load plugin libGoodPlugin.so: ")),
            std::string::npos)
      << child.output;
  EXPECT_TRUE(child.hasLine(pluginLine(2, "loadPlugin", "Yay!  Plugin GoodPlugin loaded"))) << child.output;
}
