// The root's invariant check that needs a broken state to fire: a nested run
// that leaves a running task behind. The whole message is compared after the
// location.
#include "RootTestSupport.h"

#include <KestoSupport/AssertMessage.h>
#include <KestoSupport/TaskSchedulerTestAccess.h>

#include <fmt/format.h>

using namespace KestoTest;

TEST(TaskSchedulerRoot, NestedRunLeavingATaskBehindFailsWithBothTasks) {
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  Ptr<TestTask> outer = rootTaskIs(r, TaskPriority::normal, "outer");
  Ptr<TestTask> stray = rootTaskIs(r, TaskPriority::normal, "stray");
  TaskSchedulerTestAccess::currentlyRunningTaskIs(*r, outer);
  const std::string what = assertText([&] {
    TaskSchedulerRoot::PreserveCurrentlyRunningTaskAnchor anchor(*r);
    TaskSchedulerTestAccess::currentlyRunningTaskIs(*r, stray);
  });
  EXPECT_EQ(fmt::format("TaskSchedulerRoot::~PreserveCurrentlyRunningTaskAnchor() currentlyRunningTask_ is not NULL "
                        "{} preserved {}",
                        DisplayPointer(stray.get()), DisplayPointer(outer.get())),
            assertMessage(what));
  // The failed close did not put the preserved task back over the stray one.
  EXPECT_EQ(stray.get(), r->currentlyRunningTask().get());
  TaskSchedulerTestAccess::currentlyRunningTaskIs(*r, nullptr);
}
