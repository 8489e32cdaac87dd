// The utilities with RLIMIT_NOFILE lowered to 20 and every slot below it
// taken: each helper that needs a descriptor fails the way it fails for any
// open error (a false or empty result and its trace, an exception where the
// caller must see it, -1 with no trace for the socket's namespace look-up),
// what needs no descriptor still works, and nothing is left open.
//
// One forked child per case. The child counts its descriptors by asking each
// number (listing /proc/self/fd would itself need a descriptor) before and
// after the call, and reports by its exit status: bit N set means check N
// failed.
#include "UtilTestSupport.h"

#include <KestoSupport/DescriptorExhaustion.h>

#include <sys/socket.h>

#include <functional>
#include <string>
#include <vector>

using namespace KestoTest;
using namespace Kesto;

namespace {

struct Case {
  const char* name;
  // Runs with no descriptor left; true when its result is the documented
  // one.
  std::function<bool(Platform::DebugHandler&, const ScratchDir&)> run;
  // A line the trace must hold afterwards ("" for none), and whether the
  // trace must be empty instead.
  std::function<std::string(const ScratchDir&)> traceLine;
  bool silent = false;
};

const std::string tooMany = "Too many open files";

std::string utilTrace(unsigned level, const char* function, const std::string& text) {
  return utilLine("UtilTest", level, function, text);
}

// A line of a class that traces to the handler it was given.
std::string classTrace(const char* className, unsigned level, const char* function, const std::string& text) {
  return "UtilTest " + std::to_string(level) + " " + className + "::" + function + "() " + text;
}

const std::vector<Case>& cases() {
  static const std::vector<Case> all = {
      {"fileRead",
       [](Platform::DebugHandler& h, const ScratchDir& d) { return Util::fileRead(h, (d / "data").c_str(), true).empty(); },
       [](const ScratchDir& d) { return utilTrace(5, "fileRead", "unable to open file " + d / "data"); }},
      {"fileWrite",
       [](Platform::DebugHandler& h, const ScratchDir& d) {
         return runtimeText([&] { Util::fileWrite(h, (d / "new").c_str(), "payload", false); }) == "payload";
       },
       [](const ScratchDir& d) { return utilTrace(0, "fileWrite", "unable to open " + d / "new" + " reason:" + tooMany); }},
      {"fileWriteIgnoringFailure",
       [](Platform::DebugHandler& h, const ScratchDir& d) {
         return runtimeText([&] { Util::fileWrite(h, (d / "new").c_str(), "payload", true); }) == "<no exception>";
       },
       [](const ScratchDir& d) { return utilTrace(0, "fileWrite", "unable to open " + d / "new" + " reason:" + tooMany); }},
      {"touch",
       [](Platform::DebugHandler& h, const ScratchDir& d) { return !Util::touch(h, (d / "new").c_str()); },
       [](const ScratchDir& d) { return utilTrace(0, "touch", "unable to open " + d / "new" + " reason: " + tooMany); }},
      {"helpersWithoutADescriptor",
       [](Platform::DebugHandler& h, const ScratchDir& d) {
         return Util::fileExists(h, (d / "data").c_str()) && Util::fileSize(h, (d / "data").c_str()) == 4 &&
                Util::fileRemove(h, (d / "gone").c_str()) && !Util::getCwd(h).empty();
       },
       [](const ScratchDir&) { return std::string(); }},
      {"socket",
       [](Platform::DebugHandler& h, const ScratchDir&) {
         errno = 0;
         return Util::socket(h, AF_UNIX, SOCK_SEQPACKET, 0) == -1 && errno == EMFILE;
       },
       [](const ScratchDir&) { return std::string(); }, true},
      {"dirNode",
       [](Platform::DebugHandler& h, const ScratchDir& d) {
         DirNode node(h, d.path(), nullptr);
         return !node.isOpen();
       },
       [](const ScratchDir& d) { return classTrace("DirNode", 1, "openDir", "failed to open " + d.path() + " errno: 24"); }},
      {"fileLock",
       [](Platform::DebugHandler& h, const ScratchDir& d) {
         FileLock lock(h, d / "locks", "app.lock");
         // Not held, so there is nothing to release; the lock's descriptor,
         // had one been opened, would be closed with the object.
         return !lock.lock(false);
       },
       [](const ScratchDir& d) {
         return classTrace("FileLock", 1, "lock", "error: could not open lock file:" + d / "locks/app.lock" + " " + tooMany);
       }},
  };
  return all;
}

class DescriptorExhaustion : public ::testing::TestWithParam<std::size_t> {};

} // namespace

TEST_P(DescriptorExhaustion, FailsAsForAnyOpenErrorAndLeavesNothingOpen) {
  if (!descriptorExhaustionIsTestable)
    GTEST_SKIP() << descriptorExhaustionSkipReason;
  const Case& c = cases()[GetParam()];
  ScratchDir dir;
  writeFile(dir / "data", "text");
  ASSERT_EQ(0, ::mkdir((dir / "locks").c_str(), 0700));
  writeFile(dir / "locks/app.lock", "");
  const Ptr<Platform::DebugHandler> handler = testHandler();
  const int status = statusOfChild([&] {
    int failed = 0;
    std::string traced;
    {
      TraceCapture trace({0, 1, 5}, *handler);
      std::vector<int> fillers;
      if (!exhaustDescriptorsAt(20, fillers))
        return 1;
      const int before = descriptorCount();
      if (!c.run(*handler, dir))
        failed |= 2;
      if (descriptorCount() != before)
        failed |= 4;
      // Still full: the call neither opened nor freed a slot for good.
      if (!stillOutOfDescriptors())
        failed |= 8;
      liftDescriptorLimit();
      traced = trace.text();
    }
    const std::string want = c.traceLine(dir);
    if (!want.empty() && traced.find(want) == std::string::npos)
      failed |= 16;
    if (c.silent && !traced.empty())
      failed |= 32;
    return failed;
  });
  EXPECT_TRUE(exitedWith(status, 0)) << c.name << ": "
                                     << (WIFEXITED(status) ? "failed checks (bits) " + std::to_string(WEXITSTATUS(status))
                                                           : "status " + std::to_string(status));
  EXPECT_FALSE(std::filesystem::exists(dir / "new")) << c.name;
}

INSTANTIATE_TEST_SUITE_P(EachHelper, DescriptorExhaustion, ::testing::Range<std::size_t>(0, 8),
                         [](const ::testing::TestParamInfo<std::size_t>& info) {
                           return std::string(cases()[info.param].name);
                         });
