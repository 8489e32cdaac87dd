#include <Kesto/EventKesto.h>

#include <gtest/gtest.h>

namespace MemTrack = Kesto::MemTrack;

namespace {

class CountingTracker final : public MemTrack::Tracker {
public:
  void allocated(const void*, std::size_t, const char*) override { ++calls; }
  void released(const void*) override { ++calls; }
  int calls = 0;
};

} // namespace

TEST(MemTrack, HooksDoNothingEvenWithATrackerInstalled) {
  CountingTracker tracker;
  MemTrack::Impl::trackerIs(&tracker);
  int object = 0;
  MemTrack::Impl::alloc(&object, sizeof object);
  MemTrack::Impl::alloc(&object, sizeof object, "int");
  MemTrack::Impl::dealloc(&object);
  MemTrack::Impl::trackerIs(nullptr);
  // Tracking is switched off in this library: the tracker is never called.
  EXPECT_EQ(tracker.calls, 0);
}

TEST(MemTrack, HooksAcceptAnyAddress) {
  MemTrack::Impl::alloc(nullptr, 0);
  MemTrack::Impl::alloc(nullptr, 0, nullptr);
  MemTrack::Impl::dealloc(nullptr);
  SUCCEED();
}
