// The table of roots read by the crash-time dump.
#include "Debug/RootRegistry.h"

namespace Kesto::Debug::Impl {

namespace {
RootRegistrySlot slots[rootRegistryCapacity];
std::atomic<U32> overflow{0};
} // namespace

RootRegistrySlot* rootRegistrySlots() noexcept { return slots; }

U32 rootRegistryOverflow() noexcept { return overflow.load(std::memory_order_relaxed); }

void rootRegistryAdd(TaskSchedulerRoot* root) noexcept {
  for (RootRegistrySlot& slot : slots) {
    TaskSchedulerRoot* expected = nullptr;
    // Claimed with a marker first, so that two threads never both write the
    // owner of one slot; the owner is written before the root is published,
    // so a reader that sees the root sees its owner.
    if (slot.root.compare_exchange_strong(expected, rootRegistryClaimed, std::memory_order_acquire)) {
      slot.owner.store(pthread_self(), std::memory_order_relaxed);
      slot.root.store(root, std::memory_order_release);
      return;
    }
  }
  overflow.fetch_add(1, std::memory_order_relaxed);
}

void rootRegistryRemove(TaskSchedulerRoot* root) noexcept {
  for (RootRegistrySlot& slot : slots) {
    TaskSchedulerRoot* expected = root;
    if (slot.root.compare_exchange_strong(expected, nullptr, std::memory_order_acq_rel))
      return;
  }
}

} // namespace Kesto::Debug::Impl
