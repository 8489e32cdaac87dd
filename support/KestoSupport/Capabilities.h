// Whether the test process holds a capability, read from the CapEff line
// of /proc/self/status: tests that need one (making namespaces, say) skip
// with the reason where it is missing.
#pragma once

#include <fstream>
#include <string>

namespace KestoTest {

inline constexpr unsigned capSysAdmin = 21; // CAP_SYS_ADMIN

inline bool hasEffectiveCapability(unsigned capability) {
  std::ifstream status("/proc/self/status");
  std::string line;
  unsigned long long effective = 0;
  while (std::getline(status, line))
    if (line.rfind("CapEff:", 0) == 0)
      effective = std::stoull(line.substr(7), nullptr, 16);
  return (effective >> capability) & 1u;
}

} // namespace KestoTest
