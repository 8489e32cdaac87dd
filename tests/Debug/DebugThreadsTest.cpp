// The trace facility used from several threads at once: what the Loco
// guards (the debug tables, the trace file, the format flags) and what call
// sites read without it (a handler's mask). These run in every build and,
// under ThreadSanitizer (`make test SANITIZE=thread`), must show no race.
#include "ChildProcess.h"
#include "TraceState.h"

#include <Kesto/EventKesto.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <fmt/format.h>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

using Kesto::Ptr;
using Kesto::String;
using Kesto::Platform::DebugHandler;
using KestoTest::readWholeFile;
using KestoTest::TempPath;
using KestoTest::TraceFormatScope;

namespace {

class DebugThreads : public KestoTest::CleanTraceControls {};

// Starts `count` threads on `body(index)` at the same moment and joins them.
template <typename Body>
void together(int count, Body body) {
  std::atomic<int> ready{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < count; ++i)
    threads.emplace_back([&, i] {
      ready.fetch_add(1);
      while (ready.load() < count) {
      }
      body(i);
    });
  for (std::thread& t : threads)
    t.join();
}

// Points TRACEFILE at a fresh file for one test and puts standard error back
// afterwards.
class TraceFileScope {
public:
  TraceFileScope() : path_("threads-trace") {
    ::setenv("TRACEFILE", path_.path().c_str(), 1);
    Kesto::Platform::setupKestoDebug("");
  }
  ~TraceFileScope() {
    ::unsetenv("TRACEFILE");
    Kesto::Platform::setupKestoDebug("");
  }
  const std::string& path() const { return path_.path(); }

private:
  TempPath path_;
};

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);)
    lines.push_back(line);
  return lines;
}

} // namespace

TEST_F(DebugThreads, ControlsAndHandlersMadeOnFourThreadsEndAsInAnyOneOrder) {
  // Each thread sets, reads and clears names of its own, and all of them
  // widen one shared wildcard and take handlers under it. Whatever the
  // interleaving, a handler under the wildcard ends with the wildcard's
  // levels: made before a set, the set ORs them in; made after, it inherits.
  constexpr int threads = 4, rounds = 200;
  std::vector<std::vector<Ptr<DebugHandler>>> shared(threads);
  std::atomic<int> wrongOwn{0};
  together(threads, [&](int t) {
    for (int k = 0; k < rounds; ++k) {
      const std::string own = fmt::format("ThreadsOwn{}x{}", t, k % 8);
      Kesto::Platform::setupKestoDebug(fmt::format("{}/3", own).c_str());
      Ptr<DebugHandler> h = Kesto::Platform::getDebugHandler(String(own));
      if (!KESTO_ENABLED(h, 3))
        wrongOwn.fetch_add(1);
      Kesto::Platform::clearKestoDebug(fmt::format("{}/3", own).c_str());
      if (KESTO_ENABLED(h, 3))
        wrongOwn.fetch_add(1);
      Kesto::Platform::setupKestoDebug(fmt::format("ThreadsShared*/{}", t).c_str());
      if (k % 20 == 0)
        shared[t].push_back(Kesto::Platform::getDebugHandler(String(fmt::format("ThreadsShared{}", k))));
    }
  });
  EXPECT_EQ(0, wrongOwn.load());
  for (const auto& handlers : shared)
    for (const Ptr<DebugHandler>& h : handlers)
      EXPECT_EQ(0b1111, h->levels & 0b1111) << h->name.str();
  EXPECT_EQ(0b1111, controlLevels("ThreadsShared", true));
  for (int t = 0; t < threads; ++t)
    for (int k = 0; k < 8; ++k)
      EXPECT_EQ(-1, controlLevels(fmt::format("ThreadsOwn{}x{}", t, k).c_str(), false));
}

TEST_F(DebugThreads, LinesOfFourThreadsComeWholeIntoTheTraceFile) {
  TraceFormatScope format("handle,level");
  TraceFileScope file;
  constexpr int threads = 4, lines = 300;
  const std::string payload(200, 'x');
  Ptr<DebugHandler> handler = Kesto::Platform::getDebugHandler(String("ThreadsWriter"));
  together(threads, [&](int t) {
    for (int i = 0; i < lines; ++i)
      Kesto::Platform::dumpDebugMsg(fmt::format("t{} n{} {}", t, i, payload), 1, *handler, "f.cpp", "fn", 1);
  });
  const std::vector<std::string> got = linesOf(readWholeFile(file.path()));
  ASSERT_EQ(std::size_t(threads * lines), got.size());
  std::set<std::string> distinct;
  for (const std::string& line : got) {
    // A line written by halves from two threads would fail both checks.
    EXPECT_EQ(0u, line.find("ThreadsWriter 1 t")) << line;
    EXPECT_EQ(payload, line.substr(line.size() - payload.size())) << line;
    distinct.insert(line);
  }
  EXPECT_EQ(std::size_t(threads * lines), distinct.size());
}

TEST_F(DebugThreads, ACallSiteReadsTheMaskWhileAnotherThreadChangesIt) {
  // A call site tests its bit without the Loco while set() and clear() change
  // the mask under it: the reader sees either value, never a torn one, and
  // the last change wins.
  Ptr<DebugHandler> handler = Kesto::Platform::getDebugHandler(String("ThreadsMask"));
  constexpr int rounds = 20000;
  std::atomic<bool> done{false};
  std::atomic<long> seenOn{0};
  std::thread reader([&] {
    while (!done.load(std::memory_order_relaxed))
      if (KESTO_ENABLED(handler, 4))
        seenOn.fetch_add(1, std::memory_order_relaxed);
  });
  for (int i = 0; i < rounds; ++i) {
    Kesto::Platform::setupKestoDebug("ThreadsMask/4");
    Kesto::Platform::clearKestoDebug("ThreadsMask/4");
  }
  Kesto::Platform::setupKestoDebug("ThreadsMask/4");
  done.store(true);
  reader.join();
  EXPECT_TRUE(KESTO_ENABLED(handler, 4));
  EXPECT_EQ(1u << 4, handler->levels);
}

TEST_F(DebugThreads, ALineIsWrittenWhileAnotherThreadChangesTheFormat) {
  // The flags are set under the Loco and read without it while a line's
  // prefix is built: every line has either the one prefix or the other.
  TraceFormatScope format("level");
  TraceFileScope file;
  Ptr<DebugHandler> handler = Kesto::Platform::getDebugHandler(String("ThreadsFormat"));
  constexpr int lines = 2000;
  std::atomic<bool> done{false};
  std::thread changer([&] {
    for (int i = 0; !done.load(std::memory_order_relaxed); ++i)
      Kesto::Platform::setTraceFormat(i % 2 ? "level" : "handle,level");
  });
  for (int i = 0; i < lines; ++i)
    Kesto::Platform::dumpDebugMsg("text", 7, *handler, "f.cpp", "fn", 1);
  done.store(true);
  changer.join();
  const std::vector<std::string> got = linesOf(readWholeFile(file.path()));
  ASSERT_EQ(std::size_t(lines), got.size());
  for (const std::string& line : got)
    EXPECT_TRUE(line == "7 text" || line == "ThreadsFormat 7 text") << line;
}
