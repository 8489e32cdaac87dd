// kesto's help, usage errors and exit statuses, checked on the program:
// help on standard output with status 0, a usage error as one line on
// standard error with status 2, an agent that cannot be reached with 1.
#include "CommandTestSupport.h"

#include <gtest/gtest.h>

#include <climits>

using namespace KestoTest;

namespace {

// One line on standard error, nothing on standard output, and the status.
void expectFailureLine(const ChildResult& result, int status, const std::string& part) {
  EXPECT_TRUE(result.exitedWith(status)) << "status " << result.status << "\n" << result.err;
  EXPECT_EQ(result.out, "");
  const std::vector<std::string> lines = linesOf(result.err);
  ASSERT_EQ(lines.size(), 1u) << result.err;
  EXPECT_EQ(lines[0].rfind("kesto: ", 0), 0u) << lines[0];
  EXPECT_NE(lines[0].find(part), std::string::npos) << lines[0];
}

const std::vector<std::string> commands{"list", "show", "watch", "trace", "reset", "latency", "timeline"};

TEST(KestoUsage, NoCommandIsAUsageError) { expectFailureLine(runKesto({}), 2, "missing command"); }

TEST(KestoUsage, UnknownCommandIsAUsageError) {
  expectFailureLine(runKesto({"frobnicate"}), 2, "unknown command 'frobnicate'");
  expectFailureLine(runKesto({"help", "frobnicate"}), 2, "unknown command 'frobnicate'");
}

TEST(KestoUsage, HelpListsEveryCommand) {
  for (const std::vector<std::string>& args : {std::vector<std::string>{"--help"}, {"-h"}, {"help"}}) {
    const ChildResult result = runKesto(args);
    EXPECT_TRUE(result.exitedWith(0));
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.out.rfind("usage: kesto COMMAND", 0), 0u) << result.out;
    for (const std::string& command : commands)
      EXPECT_NE(result.out.find("\n  " + command), std::string::npos) << command;
  }
}

TEST(KestoUsage, EveryCommandHasHelpThatNeedsNoAgent) {
  for (const std::string& command : commands) {
    // --help wins over everything else on the line, even a missing operand
    // or an agent that does not exist.
    for (const std::vector<std::string>& args : {std::vector<std::string>{command, "--help"},
                                                 {command, "no-such-agent", "-h"},
                                                 {"help", command}}) {
      const ChildResult result = runKesto(args);
      EXPECT_TRUE(result.exitedWith(0)) << command;
      EXPECT_EQ(result.err, "") << command;
      EXPECT_EQ(result.out.rfind("usage: kesto " + command, 0), 0u) << result.out;
    }
  }
}

TEST(KestoUsage, UnknownOptionIsAUsageErrorOfEveryCommand) {
  for (const std::string& command : commands)
    expectFailureLine(runKesto({command, "--bogus"}), 2, command + ": unknown option --bogus");
}

TEST(KestoUsage, OperandsAreCounted) {
  expectFailureLine(runKesto({"list", "extra"}), 2, "unexpected argument 'extra'");
  expectFailureLine(runKesto({"show", "a", "b"}), 2, "unexpected argument 'b'");
  expectFailureLine(runKesto({"trace"}), 2, "missing AGENT and LEVELS");
  expectFailureLine(runKesto({"trace", "agent"}), 2, "missing LEVELS");
  expectFailureLine(runKesto({"reset"}), 2, "missing AGENT");
  expectFailureLine(runKesto({"latency", "a", "b"}), 2, "unexpected argument 'b'");
}

TEST(KestoUsage, BadIntervalOrCountIsAUsageError) {
  expectFailureLine(runKesto({"watch", "--interval", "0"}), 2, "--interval needs a positive number");
  expectFailureLine(runKesto({"watch", "--interval=-1"}), 2, "--interval needs a positive number");
  expectFailureLine(runKesto({"watch", "--count", "0"}), 2, "--count needs a whole number");
  expectFailureLine(runKesto({"watch", "--count"}), 2, "--count needs a value");
  expectFailureLine(runKesto({"latency", "agent", "--count", "0"}), 2, "--count needs a whole number");
  expectFailureLine(runKesto({"latency", "agent", "--count=x"}), 2, "--count needs a whole number");
}

TEST(KestoUsage, ExpressionWithABlankIsAUsageError) {
  // The endpoint reads its line as words: such an expression would arrive cut.
  expectFailureLine(runKesto({"show", "--match", "a b"}), 2, "cannot hold a blank");
  expectFailureLine(runKesto({"show", "--match="}), 2, "--match needs a regular expression");
}

TEST(KestoUsage, AgentThatDoesNotRunCannotBeReached) {
  const std::string pid = std::to_string(INT_MAX);
  for (const char* command : {"show", "watch", "reset", "latency", "timeline"})
    expectFailureLine(runKesto({command, pid}), 1, "no agent '" + pid + "' is running");
  expectFailureLine(runKesto({"trace", pid, "KestoUtil/5"}), 1, "no agent '" + pid + "' is running");
}

} // namespace
