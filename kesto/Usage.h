// What the kesto command says about itself, and how it fails.
//
// Exit status: 0 on success, 1 when an agent answered with an error line or
// could not be reached (none running, gone, refused, silent), 2 on a usage
// error (unknown command or option, bad value, an agent that cannot be told
// apart from others). Every failure is one line on standard error, made by
// throwing Failure and printing it once in main(): nothing below main()
// writes to standard error or exits by itself.
#pragma once

#include <fmt/format.h>

#include <stdexcept>
#include <string>
#include <string_view>

namespace Kesto::Cmd {

inline constexpr int exitSuccess = 0;
inline constexpr int exitAgentFailure = 1;
inline constexpr int exitUsage = 2;

// A failure of the command: its exit status and its one line (without the
// "kesto: " in front and without a newline).
class Failure : public std::runtime_error {
public:
  Failure(int status, std::string message) : std::runtime_error(std::move(message)), status_(status) {}
  int status() const noexcept { return status_; }

private:
  int status_;
};

template <typename... Args>
[[noreturn]] void usageError(fmt::format_string<Args...> format, Args&&... args) {
  throw Failure(exitUsage, fmt::format(format, std::forward<Args>(args)...));
}

template <typename... Args>
[[noreturn]] void agentFailure(fmt::format_string<Args...> format, Args&&... args) {
  throw Failure(exitAgentFailure, fmt::format(format, std::forward<Args>(args)...));
}

// The text of `kesto COMMAND --help`, or of `kesto --help` for an empty
// command; null for a command that does not exist.
const char* usageText(std::string_view command);

// The commands, for the dispatcher and the help text: list, show, watch,
// trace, reset, latency, timeline.
bool isCommand(std::string_view command);

} // namespace Kesto::Cmd
