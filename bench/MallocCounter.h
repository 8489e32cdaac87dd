// Counts the calling thread's heap allocations, for benchmarks whose loops
// must not allocate.
//
// Interposes malloc, calloc and realloc (operator new reaches malloc too).
// The count is per thread, so that what the benchmark framework does on its
// own threads is not charged to the loop being measured. Include it in
// exactly one file of a benchmark program: it defines the interposers.
#pragma once

#include <cstddef>

namespace KestoBench {
inline thread_local unsigned long mallocCalls = 0;
} // namespace KestoBench

extern "C" {
void* __libc_malloc(std::size_t);
void* __libc_calloc(std::size_t, std::size_t);
void* __libc_realloc(void*, std::size_t);

void* malloc(std::size_t n) {
  ++KestoBench::mallocCalls;
  return __libc_malloc(n);
}
void* calloc(std::size_t count, std::size_t n) {
  ++KestoBench::mallocCalls;
  return __libc_calloc(count, n);
}
void* realloc(void* p, std::size_t n) {
  ++KestoBench::mallocCalls;
  return __libc_realloc(p, n);
}
}
