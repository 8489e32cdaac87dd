// A recursive mutex that knows its owner.
//
// The owner test is what the trace registries assert on ("no loco"), so it is
// exact for the calling thread: owner_ is only ever set to the caller's own
// id while it holds the mutex, and a thread can never see its own id there
// unless it is the holder.
#pragma once

#include <Kesto/Core/Export.h>

#include <Kesto/Core/Types.h>

#include <atomic>
#include <mutex>
#include <thread>

namespace Kesto::Locking {

class KESTO_CORE_EXPORT RecursiveLock {
public:
  RecursiveLock() = default;
  RecursiveLock(const RecursiveLock&) = delete;
  RecursiveLock& operator=(const RecursiveLock&) = delete;

  void lock() {
    mutex_.lock();
    if (depth_++ == 0)
      owner_.store(std::this_thread::get_id(), std::memory_order_relaxed);
  }
  bool try_lock() {
    if (!mutex_.try_lock())
      return false;
    if (depth_++ == 0)
      owner_.store(std::this_thread::get_id(), std::memory_order_relaxed);
    return true;
  }
  void unlock() {
    if (--depth_ == 0)
      owner_.store(std::thread::id(), std::memory_order_relaxed);
    mutex_.unlock();
  }

  // True when the calling thread holds the lock.
  bool ownedByCaller() const noexcept {
    return owner_.load(std::memory_order_relaxed) == std::this_thread::get_id();
  }
  // Nesting depth of the holder; only meaningful to the holder.
  U32 depth() const noexcept { return depth_; }

  class Guard {
  public:
    explicit Guard(RecursiveLock& lock) : lock_(lock) { lock_.lock(); }
    ~Guard() { lock_.unlock(); }
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;

  private:
    RecursiveLock& lock_;
  };

private:
  std::recursive_mutex mutex_;
  std::atomic<std::thread::id> owner_{};
  U32 depth_ = 0;
};

} // namespace Kesto::Locking
