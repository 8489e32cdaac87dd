// Kesto::Allocator: the standard allocator of the family's containers and
// tasks, drawing on the slab allocator.
//
// Container nodes (map, list and hash nodes) are small and of one size per
// container, which is what slabs serve best. Arrays too large for a class
// (hash buckets of a big table) fall through to malloc inside
// slabAllocOrStdMalloc. UseSlab = false selects malloc for the same type, and
// Tag lets two containers of one element type have distinct allocator types
// without any difference in behaviour.
//
// The allocator is stateless: all instances compare equal, so memory from one
// may be freed by any other, on any thread.
#pragma once

#include <ZuSlab/ZuSlab.h>

#include <cstddef>
#include <cstdlib>
#include <limits>
#include <new>
#include <type_traits>

namespace Kesto {

template <typename T, bool UseSlab = true, typename Tag = void>
class Allocator {
 public:
  using value_type = T;
  using size_type = std::size_t;
  using difference_type = std::ptrdiff_t;
  using propagate_on_container_move_assignment = std::true_type;
  using is_always_equal = std::true_type;

  template <typename U>
  struct rebind {
    using other = Allocator<U, UseSlab, Tag>;
  };

  constexpr Allocator() noexcept = default;
  template <typename U>
  constexpr Allocator(const Allocator<U, UseSlab, Tag>&) noexcept {}

  [[nodiscard]] T* allocate(std::size_t n) {
    if (n > std::numeric_limits<std::size_t>::max() / sizeof(T)) throwBadArrayLength();
    const std::size_t bytes = n * sizeof(T);
    if constexpr (alignof(T) > kBlockAlignment) {
      // Neither slabs nor malloc promise more than 16; such types are rare.
      return static_cast<T*>(::operator new(bytes, std::align_val_t(alignof(T))));
    } else if constexpr (UseSlab) {
      return static_cast<T*>(ZuSlab::slabAllocOrStdMalloc(bytes));
    } else {
      void* p = std::malloc(bytes ? bytes : 1);
      if (!p) throwBadAlloc();
      return static_cast<T*>(p);
    }
  }

  void deallocate(T* p, std::size_t) noexcept {
    if constexpr (alignof(T) > kBlockAlignment) {
      ::operator delete(p, std::align_val_t(alignof(T)));
    } else if constexpr (UseSlab) {
      ZuSlab::slabFreeOrStdFree(p);
    } else {
      std::free(p);
    }
  }

  template <typename U>
  friend constexpr bool operator==(const Allocator&, const Allocator<U, UseSlab, Tag>&) noexcept {
    return true;
  }

 private:
  static constexpr std::size_t kBlockAlignment = 16;

  [[noreturn, gnu::noinline, gnu::cold]] static void throwBadArrayLength() {
    throw std::bad_array_new_length();
  }
  [[noreturn, gnu::noinline, gnu::cold]] static void throwBadAlloc() { throw std::bad_alloc(); }
};

} // namespace Kesto
