// The memory mappings of a process, read from /proc/{pid}/maps.
//
// PidMappings::populate(pid) reads the file once and returns the lines as
// MappingInfo values in address order (the kernel's order); pid 0 means the
// calling process. A process that is gone or whose maps cannot be read gives
// an empty MappingInfos: the caller decides whether that is an error. The
// result is a snapshot owned by the caller; mappings made or removed later
// are not in it. Reading allocates; lookups do not (they return a copy, which
// allocates only for a path longer than a short String).
//
// A MappingInfo whose start is 0 means "no mapping": that is what the lookups
// return when nothing matches.
#pragma once

#include <Kesto/Core/Export.h>

#include <Kesto/Core/String.h>

#include <sys/mman.h>

#include <string_view>
#include <vector>

namespace Kesto {

struct KESTO_CORE_EXPORT MappingInfo {
  unsigned long start = 0; // first address
  unsigned long end = 0;   // one past the last address
  String perms;            // as the kernel writes it: "r-xp", "rw-s", ...
  unsigned long offset = 0; // offset in the file of `start`
  unsigned int major = 0;   // device of the file
  unsigned int minor = 0;
  unsigned long inode = 0;
  String path; // file, "[heap]"-style name, or empty for anonymous memory

  bool found() const noexcept { return start != 0; }
  bool contains(const void* address) const noexcept {
    const auto a = reinterpret_cast<unsigned long>(address);
    return a >= start && a < end;
  }
  // The protection as PROT_READ | PROT_WRITE | PROT_EXEC bits.
  unsigned int flags() const noexcept;

  // Parses one line of a maps file; false (and `out` unspecified) when the
  // line is not one.
  static bool parse(std::string_view line, MappingInfo& out);
};

class KESTO_CORE_EXPORT MappingInfos {
public:
  // For find(path, offset, flags): accept any protection.
  static constexpr unsigned int anyFlags = ~0u;

  MappingInfos() = default;
  explicit MappingInfos(std::vector<MappingInfo> mappings) : mappings_(std::move(mappings)) {}

  // The mapping that holds `address`, or one with start 0.
  MappingInfo find(const void* address) const;

  // The mapping of the file `path` that starts at file offset `offset` and
  // whose protection, as PROT_READ/PROT_WRITE/PROT_EXEC bits (see
  // MappingInfo::flags()), equals `flags` exactly; `anyFlags` accepts any.
  // The shared/private column of the permissions plays no part. The first
  // such mapping in address order, or one with start 0.
  MappingInfo find(const String& path, unsigned long offset, unsigned int flags) const;

  std::size_t size() const noexcept { return mappings_.size(); }
  bool empty() const noexcept { return mappings_.empty(); }
  const MappingInfo& operator[](std::size_t i) const noexcept { return mappings_[i]; }
  auto begin() const noexcept { return mappings_.begin(); }
  auto end() const noexcept { return mappings_.end(); }

private:
  std::vector<MappingInfo> mappings_; // ascending start, not overlapping
};

struct KESTO_CORE_EXPORT PidMappings {
  // The mappings of process `pid` (0: the caller); empty when unreadable.
  static MappingInfos populate(int pid);
  // The same from the text of a maps file; lines that do not parse are
  // skipped, and so are mappings that start at 0, are empty or overlap one
  // that starts below them, none of which the kernel writes.
  static MappingInfos parse(std::string_view text);
};

} // namespace Kesto
