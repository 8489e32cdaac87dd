#include <Kesto/Util/MemTrack.h>

// Memory tracking is switched off in this library: the hooks keep callers
// built for a tracking build linking, and cost them a call.
namespace Kesto::MemTrack::Impl {

void alloc(const void*, std::size_t) noexcept {}

void alloc(const void*, std::size_t, const char*) noexcept {}

void dealloc(const void*) noexcept {}

void trackerIs(Tracker*) noexcept {}

} // namespace Kesto::MemTrack::Impl
