// The shape of a hash table, as the tables of the family report it.
//
// A plain value: copied freely, compared field by field, and written in
// messages as "TableStats( buckets:.., longestChain:.., occupiedSlots:.. )".
// No owner, no lock, no allocation, no failure.
#pragma once

#include <Kesto/Common/Export.h>

#include <fmt/format.h>

#include <cstdint>

namespace Kesto {

struct KESTO_EXPORT TableStats {
  std::uint64_t buckets = 0;
  // Entries in the fullest bucket: what a lookup costs at worst.
  std::uint64_t longestChain = 0;
  // Buckets that hold at least one entry.
  std::uint64_t occupiedSlots = 0;

  friend bool operator==(const TableStats& a, const TableStats& b) noexcept {
    return a.buckets == b.buckets && a.longestChain == b.longestChain && a.occupiedSlots == b.occupiedSlots;
  }
};

} // namespace Kesto

template <>
struct fmt::formatter<Kesto::TableStats> : fmt::formatter<fmt::string_view> {
  auto format(const Kesto::TableStats& s, fmt::format_context& ctx) const {
    return fmt::format_to(ctx.out(), "TableStats( buckets:{}, longestChain:{}, occupiedSlots:{} )", s.buckets,
                          s.longestChain, s.occupiedSlots);
  }
};
