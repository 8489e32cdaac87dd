// Intrusive reference counting: RefCount<HTCnt> and Ptr<T>.
//
// The count lives in the object (32 bits, first field of RefCount), so a Ptr
// is one pointer wide and making a Ptr from a raw pointer never allocates.
// HTCnt changes the count atomically only while ThreadControl::tsp_ is set.
// The last Ptr to go deletes the object through `delete`, so a class with a
// virtual destructor and its own operator delete controls its deallocation.
//
// Threads: with tsp_ set, different Ptr objects that share one target may be
// copied and dropped on different threads at once; one Ptr object itself is
// not to be written by one thread while another reads it. With tsp_ clear,
// a counted object belongs to one thread at a time. Nothing here allocates
// except ptrIs, which makes the object.
#pragma once

#include <Kesto/Core/Export.h>

#include <Kesto/Core/ThreadControl.h>
#include <Kesto/Core/Types.h>

#include <cstddef>
#include <functional>
#include <type_traits>
#include <utility>

namespace Kesto {

[[noreturn]] KESTO_CORE_EXPORT void emitAssertNonNullPtr();

// Count policy: plain or atomic according to ThreadControl::tsp_.
struct KESTO_CORE_EXPORT HTCnt {
  static void incCount(U32& count) noexcept {
    if (ThreadControl::tsp_)
      __atomic_add_fetch(&count, 1, __ATOMIC_RELAXED);
    else
      ++count;
  }
  // Returns the new value.
  static U32 decCount(U32& count) noexcept {
    if (ThreadControl::tsp_)
      return __atomic_sub_fetch(&count, 1, __ATOMIC_ACQ_REL);
    return --count;
  }
};

template <typename Cnt = HTCnt>
class RefCount {
public:
  using CountPolicy = Cnt;

  RefCount() noexcept = default;
  // A copy is a new object: it starts with no references.
  RefCount(const RefCount&) noexcept {}
  RefCount& operator=(const RefCount&) noexcept { return *this; }

  U32 refCount() const noexcept { return __atomic_load_n(&refCount_, __ATOMIC_RELAXED); }
  void incRef() const noexcept { Cnt::incCount(refCount_); }
  // Returns the new count; the caller deletes at zero.
  U32 decRef() const noexcept { return Cnt::decCount(refCount_); }

protected:
  ~RefCount() = default;

private:
  mutable U32 refCount_ = 0;
};

template <typename T>
class Ptr {
public:
  using element_type = T;

  constexpr Ptr() noexcept = default;
  constexpr Ptr(std::nullptr_t) noexcept {}
  // Takes a counted reference on `p`; the object's count is intrusive, so a
  // raw pointer to a live counted object may be turned into a Ptr any time.
  explicit Ptr(T* p) noexcept : p_(p) { acquire(); }
  Ptr(const Ptr& other) noexcept : p_(other.p_) { acquire(); }
  Ptr(Ptr&& other) noexcept : p_(std::exchange(other.p_, nullptr)) {}
  template <typename U, typename = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  Ptr(const Ptr<U>& other) noexcept : p_(other.get()) { acquire(); }
  template <typename U, typename = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  Ptr(Ptr<U>&& other) noexcept : p_(other.release()) {}
  ~Ptr() { releaseRef(p_); }

  Ptr& operator=(const Ptr& other) noexcept {
    if (p_ != other.p_) {
      T* old = p_;
      p_ = other.p_;
      acquire();
      releaseRef(old);
    }
    return *this;
  }
  Ptr& operator=(Ptr&& other) noexcept {
    if (this != &other) {
      T* old = std::exchange(p_, std::exchange(other.p_, nullptr));
      releaseRef(old);
    }
    return *this;
  }
  Ptr& operator=(std::nullptr_t) noexcept {
    reset();
    return *this;
  }

  void reset() noexcept { releaseRef(std::exchange(p_, nullptr)); }
  void swap(Ptr& other) noexcept { std::swap(p_, other.p_); }
  friend void swap(Ptr& a, Ptr& b) noexcept { a.swap(b); }

  // Gives up ownership of the reference without changing the count.
  [[nodiscard]] T* release() noexcept { return std::exchange(p_, nullptr); }

  T* get() const noexcept { return p_; }
  T* operator->() const {
    if (!p_) [[unlikely]]
      emitAssertNonNullPtr();
    return p_;
  }
  T& operator*() const {
    if (!p_) [[unlikely]]
      emitAssertNonNullPtr();
    return *p_;
  }
  explicit operator bool() const noexcept { return p_ != nullptr; }

  friend bool operator==(const Ptr& a, const Ptr& b) noexcept { return a.p_ == b.p_; }
  friend bool operator==(const Ptr& a, std::nullptr_t) noexcept { return a.p_ == nullptr; }
  friend bool operator==(const Ptr& a, const T* b) noexcept { return a.p_ == b; }
  friend auto operator<=>(const Ptr& a, const Ptr& b) noexcept { return a.p_ <=> b.p_; }

private:
  void acquire() const noexcept {
    if (p_)
      p_->incRef();
  }
  static void releaseRef(T* p) noexcept {
    if (p && p->decRef() == 0)
      delete p;
  }

  T* p_ = nullptr;
};

namespace Detail {
struct PtrLayoutProbe : RefCount<HTCnt> {};
static_assert(sizeof(Ptr<PtrLayoutProbe>) == sizeof(void*), "a Ptr is one pointer wide");
static_assert(sizeof(RefCount<HTCnt>) == sizeof(U32), "the count is the only field of RefCount");
} // namespace Detail

// Makes an object and its first Ptr.
template <typename T, typename... Args>
Ptr<T> ptrIs(Args&&... args) {
  return Ptr<T>(new T(std::forward<Args>(args)...));
}

template <typename T, typename U>
Ptr<T> ptrCast(const Ptr<U>& p) noexcept {
  return Ptr<T>(static_cast<T*>(p.get()));
}

template <typename T, typename U>
Ptr<T> ptrDynamicCast(const Ptr<U>& p) noexcept {
  return Ptr<T>(dynamic_cast<T*>(p.get()));
}

} // namespace Kesto

template <typename T>
struct std::hash<Kesto::Ptr<T>> {
  std::size_t operator()(const Kesto::Ptr<T>& p) const noexcept { return std::hash<T*>()(p.get()); }
};
