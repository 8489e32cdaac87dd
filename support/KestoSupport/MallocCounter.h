// Counts the calling thread's heap allocations, for tests and benchmarks
// whose loops must not allocate, and fails a chosen one for tests of what
// code does when the heap runs out.
//
// The support library interposes malloc, calloc, realloc, posix_memalign,
// aligned_alloc and memalign (operator new reaches malloc too) in every
// program that links it and reads the counter. The count is per thread, so
// what a test framework or benchmark runner does on its own threads is not
// charged to the loop being measured.
//
// Under the sanitizers the sanitizer runtime owns malloc: nothing is
// interposed, mallocCountingWorks() is false, and the count stays zero.
#pragma once

namespace KestoSupport {

// Allocations made by the calling thread since it started.
unsigned long mallocCalls() noexcept;

// Whether allocations are counted at all in this build.
bool mallocCountingWorks() noexcept;

// Makes the n-th allocation of the calling thread from now on fail, as on
// an exhausted heap (null, ENOMEM; operator new then throws bad_alloc).
// One shot; 0 cancels. Does nothing where mallocCountingWorks() is false.
void failNthMalloc(unsigned long n) noexcept;

} // namespace KestoSupport
