// The endpoint's abstract address and its parser, shared by the agent and by
// the command that looks for agents in /proc/net/unix.
#include <Kesto/Report/AgentEndpoint.h>

#include "Report/AgentEndpointName.h"

#include <fmt/format.h>

#include <limits>

namespace Kesto {

namespace {

constexpr std::string_view addressPrefix = "kesto-agent/";

} // namespace

const char* Impl::agentEndpointNameProblem(std::string_view name) {
  if (name.empty())
    return "is empty";
  if (name.size() > AgentEndpoint::maxNameLength)
    return "is longer than 64 bytes";
  if (name.find('/') != std::string_view::npos)
    return "holds a '/'";
  if (name.find('\0') != std::string_view::npos)
    return "holds a NUL byte";
  return nullptr;
}

String agentEndpointAddress(const String& name, pid_t pid) {
  return String(fmt::format("{}{}/{}", addressPrefix, name.view(), pid));
}

bool parseAgentEndpointAddress(std::string_view address, String& name, pid_t& pid) {
  if (address.substr(0, addressPrefix.size()) != addressPrefix)
    return false;
  address.remove_prefix(addressPrefix.size());
  const std::size_t slash = address.rfind('/');
  if (slash == std::string_view::npos)
    return false;
  const std::string_view namePart = address.substr(0, slash);
  const std::string_view pidPart = address.substr(slash + 1);
  if (Impl::agentEndpointNameProblem(namePart))
    return false;
  // Decimal, no sign, no leading zero, above 0 and within pid_t: the form
  // fmt writes for a live process.
  if (pidPart.empty() || pidPart.front() == '0')
    return false;
  unsigned long long value = 0;
  for (char c : pidPart) {
    if (c < '0' || c > '9')
      return false;
    value = value * 10 + unsigned(c - '0');
    if (value > static_cast<unsigned long long>(std::numeric_limits<pid_t>::max()))
      return false;
  }
  name = String(namePart);
  pid = static_cast<pid_t>(value);
  return true;
}

} // namespace Kesto
