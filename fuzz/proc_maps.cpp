// The parser of /proc/{pid}/maps, on any text: no crash; every line it
// accepts reads back the same when written in the kernel's format and
// parsed again; the numbers it gives are the numbers in the text (none
// wrapped); and MappingInfos::find answers as a linear search over the
// same mappings would.
#include "FuzzInput.h"

#include <Kesto/Core/PidMappings.h>

#include <fmt/format.h>

#include <optional>
#include <string>
#include <string_view>

using Kesto::MappingInfo;
using Kesto::MappingInfos;
using Kesto::PidMappings;
using KestoFuzz::FuzzInput;

namespace {

// The kernel's own layout of a line.
std::string format(const MappingInfo& m) {
  return fmt::format("{:x}-{:x} {} {:08x} {:02x}:{:02x} {} {}", m.start, m.end, m.perms.view(), m.offset, m.major,
                     m.minor, m.inode, m.path.view());
}

bool sameFields(const MappingInfo& a, const MappingInfo& b) {
  return a.start == b.start && a.end == b.end && a.perms == b.perms && a.offset == b.offset && a.major == b.major &&
         a.minor == b.minor && a.inode == b.inode && a.path == b.path;
}

// A number of the given base at the front of `text`, as the text says it, or
// nothing when it has no digit or does not fit in `max`.
std::optional<unsigned long long> leadingNumber(std::string_view text, unsigned base, unsigned long long max) {
  unsigned __int128 v = 0;
  std::size_t i = 0;
  for (; i < text.size(); ++i) {
    const char c = text[i];
    unsigned d;
    if (c >= '0' && c <= '9')
      d = unsigned(c - '0');
    else if (base == 16 && c >= 'a' && c <= 'f')
      d = unsigned(c - 'a' + 10);
    else if (base == 16 && c >= 'A' && c <= 'F')
      d = unsigned(c - 'A' + 10);
    else
      break;
    v = v * base + d;
    if (v > max)
      return std::nullopt;
  }
  if (i == 0)
    return std::nullopt;
  return static_cast<unsigned long long>(v);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  FuzzInput in(data, size);
  const std::string_view text = in.rest();
  // Line by line.
  std::string_view rest = text;
  while (!rest.empty()) {
    const std::size_t eol = rest.find('\n');
    const std::string_view line = rest.substr(0, eol);
    rest.remove_prefix(eol == std::string_view::npos ? rest.size() : eol + 1);
    MappingInfo m;
    if (!MappingInfo::parse(line, m))
      continue;
    // The first number is the start address, exactly as written.
    const auto start = leadingNumber(line, 16, ~0ul);
    KESTO_FUZZ_CHECK(start.has_value());
    KESTO_FUZZ_CHECK(*start == m.start);
    MappingInfo again;
    KESTO_FUZZ_CHECK(m.perms.view().find_first_of(" \t") == std::string_view::npos);
    const bool reparsed = MappingInfo::parse(format(m), again);
    KESTO_FUZZ_CHECK(reparsed);
    // A path that starts with a blank loses it on the way back, as it would
    // in the kernel's own file; compare the rest.
    if (m.path.empty() || (m.path[0] != ' ' && m.path[0] != '\t'))
      KESTO_FUZZ_CHECK(sameFields(m, again));
  }
  // The whole file, then lookups of addresses the fuzzer picks and of every
  // mapping's first and last byte.
  const MappingInfos all = PidMappings::parse(text);
  const auto linear = [&](unsigned long a) {
    for (const MappingInfo& m : all)
      if (a >= m.start && a < m.end)
        return true;
    return false;
  };
  const auto check = [&](unsigned long a) {
    const MappingInfo got = all.find(reinterpret_cast<const void*>(a));
    if (got.found())
      KESTO_FUZZ_CHECK(got.contains(reinterpret_cast<const void*>(a)));
    KESTO_FUZZ_CHECK(got.found() == (linear(a) && a != 0));
  };
  for (const MappingInfo& m : all) {
    check(m.start);
    if (m.end != 0)
      check(m.end - 1);
    check(m.end);
  }
  return 0;
}
