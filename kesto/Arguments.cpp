#include "Arguments.h"

#include "Usage.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>

namespace Kesto::Cmd {

namespace {

bool declared(const std::vector<std::string_view>& names, std::string_view name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

} // namespace

Arguments::Arguments(std::string_view command, const std::vector<std::string>& args,
                     const std::vector<std::string_view>& flags, const std::vector<std::string_view>& valued)
    : command_(command) {
  bool optionsEnded = false;
  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string& arg = args[i];
    if (optionsEnded || arg.size() < 2 || arg[0] != '-') {
      operands_.push_back(arg); // "-" alone is an operand too
      continue;
    }
    if (arg == "--") {
      optionsEnded = true;
      continue;
    }
    if (arg == "-h" || arg == "--help") {
      help_ = true;
      continue;
    }
    if (arg[1] != '-')
      usageError("{}: unknown option {} (try kesto {} --help)", command_, arg, command_);
    const std::size_t equals = arg.find('=');
    const std::string name = arg.substr(2, equals == std::string::npos ? std::string::npos : equals - 2);
    if (declared(flags, name)) {
      if (equals != std::string::npos)
        usageError("{}: option --{} takes no value", command_, name);
      flags_.insert(name);
    } else if (declared(valued, name)) {
      if (equals != std::string::npos) {
        values_[name] = arg.substr(equals + 1);
      } else {
        if (i + 1 == args.size())
          usageError("{}: option --{} needs a value", command_, name);
        values_[name] = args[++i];
      }
    } else {
      usageError("{}: unknown option --{} (try kesto {} --help)", command_, name, command_);
    }
  }
}

std::optional<std::string> Arguments::value(std::string_view name) const {
  const auto it = values_.find(std::string(name));
  if (it == values_.end())
    return std::nullopt;
  return it->second;
}

void Arguments::expectOperands(std::size_t least, std::size_t most, std::string_view what) const {
  if (operands_.size() < least)
    usageError("{}: missing {} (try kesto {} --help)", command_, what, command_);
  if (operands_.size() > most)
    usageError("{}: unexpected argument '{}' (try kesto {} --help)", command_, operands_[most], command_);
}

double Arguments::parseSeconds(std::string_view option, const std::string& text) {
  char* end = nullptr;
  const double value = std::strtod(text.c_str(), &end);
  if (text.empty() || end != text.c_str() + text.size() || !std::isfinite(value) || value <= 0.0)
    usageError("--{} needs a positive number of seconds, not '{}'", option, text);
  return value;
}

unsigned long long Arguments::parseCount(std::string_view option, const std::string& text) {
  unsigned long long value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || error != std::errc() || end != text.data() + text.size() || value == 0)
    usageError("--{} needs a whole number of 1 or more, not '{}'", option, text);
  return value;
}

} // namespace Kesto::Cmd
