// The report's filter and title given what an operator's command line might
// carry: an expression of 64 KiB, embedded NUL bytes, bytes that are not
// text. The snapshot either filters by it or carries the engine's error;
// the scheduler is never harmed.
#include <Kesto/Platform/Platform.h>
#include <Kesto/Report/TaskNameRegex.h>
#include <Kesto/Report/TaskSchedulerSnapshot.h>
#include <Kesto/Scheduler/TaskSchedulerRoot.h>

#include <KestoSupport/TestScheduler.h>

#include <gtest/gtest.h>

#include <string>

using namespace Kesto;
using namespace KestoTest;

namespace {

const TaskSchedulerSnapshotImpl& impl(const Ptr<TaskSchedulerSnapshot const>& s) {
  return dynamic_cast<const TaskSchedulerSnapshotImpl&>(*s);
}

} // namespace

TEST(HostileFilter, LongNulAndBinaryExpressionsFilterOrCarryTheError) {
  Ptr<TaskSchedulerRoot> root = TaskSchedulerRoot::TaskSchedulerRootIs("hostile");
  const std::string nulName("a\0b", 3);
  Ptr<TestTask> plain(new TestTask(root, TaskPriority::normal, "plain"));
  Ptr<TestTask> withNul(new TestTask(root, TaskPriority::normal, String(nulName)));
  const std::string longLiteral(64 * 1024, 'x');
  const std::string binary("\xff\xfe\x80", 3);
  for (const std::string& expression : {longLiteral, nulName, binary, std::string(64 * 1024, '(')}) {
    testing::internal::CaptureStderr();
    const Ptr<TaskSchedulerSnapshot const> kept =
        root->snapshot("", true, true, true, String(expression), TaskScheduler::displayOrderNotSpecified);
    const std::string err = testing::internal::GetCapturedStderr();
    const TaskSchedulerSnapshotImpl& s = impl(kept);
    EXPECT_EQ(s.taskNameRegex.view(), expression);
    if (s.taskNameRegexError.empty()) {
      EXPECT_EQ(err, "");
      // A literal matches only itself, NUL byte and all.
      for (const TaskStat& t : s.tasks)
        EXPECT_EQ(t.taskName().view(), expression);
    } else {
      EXPECT_TRUE(s.tasks.empty());
      EXPECT_NE(err.find("supplied with invalid regular expression"), std::string::npos);
    }
  }
  // A task named by 64 KiB is matched by no filter, and harms nothing.
  Ptr<TestTask> huge(new TestTask(root, TaskPriority::normal, String(std::string(64 * 1024, 'h'))));
  const Ptr<TaskSchedulerSnapshot const> any =
      root->snapshot("", true, false, false, ".*", TaskScheduler::displayOrderNotSpecified);
  EXPECT_EQ(impl(any).tasks.size(), 2u);
  // The task whose name holds a NUL byte is found by exactly that name.
  const Ptr<TaskSchedulerSnapshot const> byNul =
      root->snapshot("", true, false, false, String(nulName), TaskScheduler::displayOrderNotSpecified);
  ASSERT_EQ(impl(byNul).tasks.size(), 1u);
  EXPECT_EQ(impl(byNul).tasks[0].taskName().view(), nulName);
  // The scheduler goes on as before.
  plain->scheduleTask();
  Platform::doEventLoop();
  EXPECT_EQ(1u, plain->runs);
}

TEST(HostileFilter, VeryLongTitleIsCarriedWhole) {
  Ptr<TaskSchedulerRoot> root = TaskSchedulerRoot::TaskSchedulerRootIs("title");
  const std::string title(64 * 1024, 't');
  const Ptr<TaskSchedulerSnapshot const> kept =
      root->snapshot(String(title), false, false, false, "", TaskScheduler::displayOrderNotSpecified);
  EXPECT_EQ(impl(kept).schedulerName.view(), title);
}
