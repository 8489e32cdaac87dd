// libRecordingHeapChecker.so: the two entry points by which a slab
// allocator reports to a heap checker, recording what they are told. The
// tests load it into the global scope of a process, as a preloaded heap
// checker would be, so that the library's look-up finds it.
#include <cstddef>

namespace {
std::size_t allocations = 0;
std::size_t frees = 0;
} // namespace

extern "C" void HeapChecker_RecordClientAlloc(void*, std::size_t) { ++allocations; }
extern "C" void HeapChecker_RecordClientFree(void*) { ++frees; }
extern "C" std::size_t recordingHeapCheckerAllocations() { return allocations; }
extern "C" std::size_t recordingHeapCheckerFrees() { return frees; }
