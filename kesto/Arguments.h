// The arguments of one kesto command: options in GNU style (--name,
// --name VALUE, --name=VALUE, anywhere among the operands; "--" ends them)
// and the operands in order. Anything not declared by the command is a
// usage error, so a mistyped option never passes for an operand.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace Kesto::Cmd {

class Arguments {
public:
  // `flags` take no value, `valued` take one. --help and -h are always
  // understood and set help().
  Arguments(std::string_view command, const std::vector<std::string>& args,
            const std::vector<std::string_view>& flags, const std::vector<std::string_view>& valued);

  bool help() const noexcept { return help_; }
  bool flag(std::string_view name) const { return flags_.count(std::string(name)) != 0; }
  // The value of the last occurrence of a valued option.
  std::optional<std::string> value(std::string_view name) const;
  const std::vector<std::string>& operands() const noexcept { return operands_; }

  // A usage error unless there are between `least` and `most` operands.
  void expectOperands(std::size_t least, std::size_t most, std::string_view what) const;

  // A number of seconds, positive and finite; a usage error otherwise.
  static double parseSeconds(std::string_view option, const std::string& text);
  // A whole number of 1 or more; a usage error otherwise.
  static unsigned long long parseCount(std::string_view option, const std::string& text);

private:
  std::string command_;
  bool help_ = false;
  std::set<std::string> flags_;
  std::map<std::string, std::string> values_;
  std::vector<std::string> operands_;
};

} // namespace Kesto::Cmd
