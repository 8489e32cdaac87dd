#include "Commands.h"

#include "AgentClient.h"
#include "AgentDirectory.h"
#include "Arguments.h"
#include "Usage.h"
#include "Watch.h"

#include <Kesto/Core/Exception.h>

#include <fmt/chrono.h>

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <exception>

namespace Kesto::Cmd {

namespace {

void printUsage(std::string_view command) { std::fputs(usageText(command), stdout); }

// Prints the command's help if it was asked for; --help wins over whatever
// else stands on the line.
bool answeredHelp(const Arguments& arguments, std::string_view command) {
  if (arguments.help())
    printUsage(command);
  return arguments.help();
}

void writeOut(const std::string& text) {
  std::fwrite(text.data(), 1, text.size(), stdout);
  std::fflush(stdout);
}

// The flags shared by show and watch, each passed on as the word of its name.
const std::vector<std::string_view> reportFlags{"flat", "addresses", "no-history", "no-completed", "all"};

std::vector<std::string_view> with(std::vector<std::string_view> flags, std::string_view more) {
  flags.push_back(more);
  return flags;
}

// "show agent task scheduler ..." for the options given.
std::string showCommand(const Arguments& arguments, bool json) {
  std::string command = "show agent task scheduler";
  if (const auto regex = arguments.value("match")) {
    // The endpoint splits its line at blanks: an expression is one word.
    if (regex->empty())
      usageError("--match needs a regular expression");
    if (regex->find_first_of(" \t\r\n") != std::string::npos)
      usageError("--match: the expression cannot hold a blank, tab or newline; write \\s or \\x20 instead");
    command += " match " + *regex;
  }
  if (json)
    command += " json";
  for (std::string_view option : reportFlags)
    if (arguments.flag(option)) {
      command += ' ';
      command += option;
    }
  return command;
}

std::optional<std::string> agentOperand(const Arguments& arguments) {
  if (arguments.operands().empty())
    return std::nullopt;
  return arguments.operands().front();
}

std::string startedText(const AgentEntry& agent) {
  const auto started = processStartedAt(agent.startTicks);
  return started ? fmt::format("{:%Y-%m-%d %H:%M:%S}", fmt::localtime(*started)) : "-";
}

} // namespace

int runList(const std::vector<std::string>& args) {
  const Arguments arguments("list", args, {}, {});
  if (answeredHelp(arguments, "list"))
    return exitSuccess;
  arguments.expectOperands(0, 0, "");
  const std::vector<AgentEntry> agents = listAgents();
  std::size_t pidWidth = 3, nameWidth = 4, titleWidth = 5;
  for (const AgentEntry& agent : agents) {
    pidWidth = std::max(pidWidth, fmt::formatted_size("{}", agent.pid));
    nameWidth = std::max(nameWidth, agent.name.size());
    titleWidth = std::max(titleWidth, std::max<std::size_t>(agent.title.size(), 1));
  }
  std::string text = fmt::format("{:<{}}  {:<{}}  {:<{}}  {}\n", "PID", pidWidth, "NAME", nameWidth, "TITLE",
                                 titleWidth, "STARTED");
  for (const AgentEntry& agent : agents)
    text += fmt::format("{:<{}}  {:<{}}  {:<{}}  {}\n", agent.pid, pidWidth, agent.name, nameWidth,
                        agent.title.empty() ? "-" : agent.title, titleWidth, startedText(agent));
  writeOut(text);
  return exitSuccess;
}

int runShow(const std::vector<std::string>& args) {
  const Arguments arguments("show", args, with(reportFlags, "json"), {"match"});
  if (answeredHelp(arguments, "show"))
    return exitSuccess;
  arguments.expectOperands(0, 1, "");
  const std::string command = showCommand(arguments, arguments.flag("json"));
  const std::vector<AgentEntry> agents = listAgents();
  writeOut(askAgent(selectAgent(agents, agentOperand(arguments)), command));
  return exitSuccess;
}

int runWatch(const std::vector<std::string>& args) {
  const Arguments arguments("watch", args, reportFlags, {"interval", "count", "match"});
  if (answeredHelp(arguments, "watch"))
    return exitSuccess;
  arguments.expectOperands(0, 1, "");
  WatchSettings settings;
  if (const auto interval = arguments.value("interval"))
    settings.interval = Arguments::parseSeconds("interval", *interval);
  if (const auto count = arguments.value("count"))
    settings.count = Arguments::parseCount("count", *count);
  settings.command = showCommand(arguments, false);
  const std::vector<AgentEntry> agents = listAgents();
  return watchAgent(selectAgent(agents, agentOperand(arguments)), settings, stdout, ::isatty(STDOUT_FILENO) == 1);
}

int runTrace(const std::vector<std::string>& args) {
  const Arguments arguments("trace", args, {"clear"}, {});
  if (answeredHelp(arguments, "trace"))
    return exitSuccess;
  arguments.expectOperands(2, 2, arguments.operands().empty() ? "AGENT and LEVELS" : "LEVELS");
  const std::string& levels = arguments.operands()[1];
  if (levels.empty() || levels.find_first_of("\r\n") != std::string::npos)
    usageError("trace: LEVELS must be one line of handler/levels, such as TaskScheduler/8");
  const std::vector<AgentEntry> agents = listAgents();
  const AgentEntry& agent = selectAgent(agents, arguments.operands()[0]);
  writeOut(askAgent(agent, (arguments.flag("clear") ? "trace clear " : "trace ") + levels));
  return exitSuccess;
}

int runReset(const std::vector<std::string>& args) {
  const Arguments arguments("reset", args, {}, {});
  if (answeredHelp(arguments, "reset"))
    return exitSuccess;
  arguments.expectOperands(1, 1, "AGENT");
  const std::vector<AgentEntry> agents = listAgents();
  const AgentEntry& agent = selectAgent(agents, arguments.operands()[0]);
  const std::string answer = askAgent(agent, "reset stats");
  if (answer != "stats reset\n")
    agentFailure("{} answered the reset with '{}'", agentLabel(agent), answer.substr(0, answer.find('\n')));
  writeOut(fmt::format("{}: {}", agentLabel(agent), answer));
  return exitSuccess;
}

int runKesto(const std::vector<std::string>& args) {
  try {
    if (args.empty())
      usageError("missing command (try kesto --help)");
    const std::string& command = args.front();
    if (command == "--help" || command == "-h" || command == "help") {
      const std::string topic = command == "help" && args.size() > 1 ? args[1] : "";
      if (!topic.empty() && !isCommand(topic))
        usageError("unknown command '{}' (try kesto --help)", topic);
      printUsage(topic);
      return exitSuccess;
    }
    if (!isCommand(command))
      usageError("unknown command '{}' (try kesto --help)", command);
    const std::vector<std::string> rest(args.begin() + 1, args.end());
    // Agents bind in the default network namespace; so is everything the
    // command looks at and connects to from here on.
    enterDefaultNetworkNamespace();
    if (command == "list")
      return runList(rest);
    if (command == "show")
      return runShow(rest);
    if (command == "watch")
      return runWatch(rest);
    if (command == "trace")
      return runTrace(rest);
    if (command == "latency")
      return runLatency(rest);
    if (command == "timeline")
      return runTimeline(rest);
    return runReset(rest);
  } catch (const Failure& failure) {
    std::fflush(stdout);
    fmt::print(stderr, "kesto: {}\n", failure.what());
    return failure.status();
  } catch (const Exception& exception) {
    // Util::socket's way back to the command's namespace failed, say.
    std::fflush(stdout);
    fmt::print(stderr, "kesto: {}\n", exception.what());
    return exitAgentFailure;
  }
}

} // namespace Kesto::Cmd
