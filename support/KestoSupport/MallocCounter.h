// Counts the calling thread's heap allocations, for tests and benchmarks
// whose loops must not allocate.
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

} // namespace KestoSupport
