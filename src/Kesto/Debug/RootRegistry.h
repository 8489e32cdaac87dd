// The roots of the process, for readers that may not allocate or lock.
//
// The crash-time dump runs inside a fatal-signal handler and must name the
// running task of every root of the faulting thread; the roots' own lists
// are per thread and behind Ptr, which such a handler cannot walk. So every
// root enters itself here at construction and leaves at destruction: a fixed
// table of 256 slots of atomic pointers, claimed by compare-and-swap, read
// by a plain walk. 256 is far above the few roots an agent has (one per
// thread, a handful of non-shared ones); a root beyond that is missing from
// dumps, and the number of such roots is counted.
//
// Thread: any. Entry and exit take one compare-and-swap; reading takes none.
#pragma once

#include <Kesto/Core/Types.h>

#include <atomic>
#include <pthread.h>

namespace Kesto {
class TaskSchedulerRoot;
}

namespace Kesto::Debug::Impl {

struct RootRegistrySlot {
  std::atomic<TaskSchedulerRoot*> root{nullptr};
  // The thread that made the root, which is the thread it belongs to.
  std::atomic<pthread_t> owner{0};
};

inline constexpr unsigned rootRegistryCapacity = 256;

// A slot being claimed: neither empty nor a root yet. Readers skip it.
inline TaskSchedulerRoot* const rootRegistryClaimed = reinterpret_cast<TaskSchedulerRoot*>(alignof(void*));

// The slots, for a walk; a null root is an empty slot, rootRegistryClaimed
// one being filled.
RootRegistrySlot* rootRegistrySlots() noexcept;
// Roots that found no free slot since the start of the process.
U32 rootRegistryOverflow() noexcept;

void rootRegistryAdd(TaskSchedulerRoot* root) noexcept;
void rootRegistryRemove(TaskSchedulerRoot* root) noexcept;

} // namespace Kesto::Debug::Impl
