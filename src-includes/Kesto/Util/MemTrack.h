// Entry points of memory tracking, switched off in this library.
//
// Allocators of the family call these hooks on every allocation and release
// of the objects they track. A tracking build would forward them to the
// installed Tracker; this library keeps the entry points, so that code built
// against a tracking build still links and runs, and does nothing in them:
// tracking costs a call and no more.
//
// Owner: nothing is kept; a Tracker handed to trackerIs is not stored.
// Threads: any. Allocation: none. Failures: none; the hooks never throw.
#pragma once

#include <Kesto/Common/Export.h>

#include <cstddef>

namespace Kesto::MemTrack {

// What a tracking build reports allocations to.
class KESTO_EXPORT Tracker {
public:
  virtual void allocated(const void* address, std::size_t size, const char* typeName) = 0;
  virtual void released(const void* address) = 0;

protected:
  ~Tracker() = default;
};

namespace Impl {
// An allocation of `size` bytes at `address`, of an unnamed or a named type.
KESTO_EXPORT void alloc(const void* address, std::size_t size) noexcept;
KESTO_EXPORT void alloc(const void* address, std::size_t size, const char* typeName) noexcept;
// The release of the allocation at `address`.
KESTO_EXPORT void dealloc(const void* address) noexcept;
// Installs the tracker (null: none). Ignored here.
KESTO_EXPORT void trackerIs(Tracker* tracker) noexcept;
} // namespace Impl

} // namespace Kesto::MemTrack
