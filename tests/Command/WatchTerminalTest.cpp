// kesto watch on a terminal: the test runs it in a pane of a private tmux
// server and reads the pane twice, as the screen shows it (capture-pane)
// and as the bytes the command wrote (pipe-pane). Skipped only where tmux
// is not installed.
//
// tmux tells nobody when it has drawn what a program wrote, so after the
// pane's shell has signalled its end (wait-for) the test waits for the last
// line to appear, checking every 20 ms.
#include "CommandTestSupport.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

using namespace KestoTest;

namespace {

std::string findTmux() {
  const char* path = std::getenv("PATH");
  std::istringstream dirs(path ? path : "/usr/bin:/bin");
  for (std::string dir; std::getline(dirs, dir, ':');) {
    const std::string candidate = dir + "/tmux";
    if (::access(candidate.c_str(), X_OK) == 0)
      return candidate;
  }
  return "";
}

// A tmux server of the test's own, on a socket of its own: nothing of the
// user's sessions is touched, and the destructor ends it all.
class TmuxServer {
public:
  explicit TmuxServer(std::string tmux)
      : tmux_(std::move(tmux)), socket_(fmt::format("kesto-test-{}-{}", ::getpid(), next())) {}
  ~TmuxServer() { run({"kill-server"}); }

  ChildResult run(std::vector<std::string> args) const {
    args.insert(args.begin(), {"-L", socket_});
    return runProgram(tmux_, args, {{"TMUX", nullptr}});
  }
  // The shell command that runs tmux against this server from inside a pane.
  std::string inPane(const std::string& args) const { return fmt::format("'{}' -L '{}' {}", tmux_, socket_, args); }

  std::string screen(const std::string& pane) const { return run({"capture-pane", "-p", "-t", pane}).out; }

private:
  static int next() {
    static int n = 0;
    return ++n;
  }
  std::string tmux_;
  std::string socket_;
};

struct PaneRun {
  std::string screen; // as the terminal shows it at the end
  std::string bytes;  // all the command wrote to the terminal
  std::string cursorVisible;
};

class KestoWatchTerminal : public ::testing::Test {
protected:
  void SetUp() override {
    tmux_ = findTmux();
    if (tmux_.empty())
      GTEST_SKIP() << "tmux is not installed";
    ASSERT_TRUE(agent_.ready());
  }

  // Runs `kesto watch ARGS` in a 120x60 pane; `whileRunning` acts on the
  // running pane (sends keys, say) before the test waits for the end.
  PaneRun runInPane(const std::string& watchArgs,
                    const std::function<void(const TmuxServer&)>& whileRunning = {}) {
    TmuxServer server(tmux_);
    TempPath raw("pane");
    // The shell traps SIGINT so that a ^C ends the command, not the shell
    // that reports its status; `exec cat` keeps the pane open to be read.
    const std::string script = fmt::format(
        "trap : INT; {}; '{}' watch {} {}; echo \"kesto exited $?\"; {}; exec cat", server.inPane("wait-for start"),
        KESTO_COMMAND, agent_.pidText(), watchArgs, server.inPane("wait-for -S done"));
    EXPECT_TRUE(server.run({"new-session", "-d", "-s", "w", "-x", "120", "-y", "60", "sh", "-c", script})
                    .exitedWith(0));
    EXPECT_TRUE(server.run({"pipe-pane", "-o", "-t", "w", fmt::format("cat >> '{}'", raw.path())}).exitedWith(0));
    EXPECT_TRUE(server.run({"wait-for", "-S", "start"}).exitedWith(0));
    if (whileRunning)
      whileRunning(server);
    EXPECT_TRUE(server.run({"wait-for", "done"}).exitedWith(0));
    PaneRun run;
    EXPECT_TRUE(eventually([&] { return server.screen("w").find("kesto exited") != std::string::npos; }));
    EXPECT_TRUE(eventually([&] { return readWholeFile(raw.path()).find("kesto exited") != std::string::npos; }));
    run.screen = server.screen("w");
    run.bytes = readWholeFile(raw.path());
    run.cursorVisible = server.run({"display-message", "-p", "-t", "w", "#{cursor_flag}"}).out;
    return run;
  }

  std::string tmux_;
  DemoAgent agent_;
};

constexpr const char* hideCursor = "\x1b[?25l";
constexpr const char* showCursor = "\x1b[?25h";
constexpr const char* homeAndClear = "\x1b[H\x1b[2J";

void expectCursorHiddenAroundTheReports(const PaneRun& run, std::size_t reports) {
  EXPECT_EQ(countOf(run.bytes, homeAndClear), reports);
  const std::size_t hidden = run.bytes.find(hideCursor);
  const std::size_t firstClear = run.bytes.find(homeAndClear);
  const std::size_t shown = run.bytes.rfind(showCursor);
  ASSERT_NE(hidden, std::string::npos);
  ASSERT_NE(shown, std::string::npos);
  EXPECT_LT(hidden, firstClear);
  EXPECT_GT(shown, run.bytes.rfind(homeAndClear));
  EXPECT_EQ(run.cursorVisible, "1\n");
}

TEST_F(KestoWatchTerminal, EachReportReplacesTheLastAndTheCursorComesBack) {
  const PaneRun run = runInPane("--count 2 --interval 0.2 --match '^feed$' --no-history");
  expectCursorHiddenAroundTheReports(run, 2);
  // The screen holds the second report alone, from its top line on.
  const std::vector<std::string> lines = linesOf(run.screen);
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines[0].rfind("kesto watch: " + agent_.label() + ", every 0.2 s, report 2 at ", 0), 0u) << run.screen;
  EXPECT_EQ(run.screen.find("report 1 at"), std::string::npos) << run.screen;
  EXPECT_EQ(countOf(run.screen, "TaskScheduler stats for main"), 1u) << run.screen;
  EXPECT_NE(run.screen.find("kesto exited 0"), std::string::npos) << run.screen;
}

TEST_F(KestoWatchTerminal, InterruptRestoresTheCursorAndEndsWithSuccess) {
  const PaneRun run = runInPane("--interval 0.2 --match '^feed$' --no-history", [](const TmuxServer& server) {
    EXPECT_TRUE(eventually([&] { return server.screen("w").find("report 2 at") != std::string::npos; }));
    EXPECT_TRUE(server.run({"send-keys", "-t", "w", "C-c"}).exitedWith(0));
  });
  expectCursorHiddenAroundTheReports(run, countOf(run.bytes, homeAndClear));
  EXPECT_GE(countOf(run.bytes, homeAndClear), 2u);
  EXPECT_NE(run.screen.find("kesto exited 0"), std::string::npos) << run.screen;
}

} // namespace
