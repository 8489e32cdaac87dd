// What a group's priority enforcement lets its tasks use, at registration and
// at a change of priority, with the whole text of each refusal.
#include "GroupTestSupport.h"

#include <KestoSupport/AssertMessage.h>
#include <KestoSupport/TraceCapture.h>

#include <fmt/format.h>

using namespace KestoTest;

namespace {

using Enforcement = TaskGroupPriorityEnforcement;

// The table of allowed priorities, written out for every pair.
bool allowedByTable(Enforcement e, TaskPriority group, TaskPriority p) {
  switch (e) {
  case Enforcement::sameAsGroupPriority:
    return p == group && p != TaskPriority::critical;
  case Enforcement::onlyAllowRegularPriorities:
    return p == TaskPriority::high || p == TaskPriority::normal || p == TaskPriority::low;
  case Enforcement::allowAny:
    return p != TaskPriority::critical;
  }
  return false;
}

std::string refusal(Enforcement e, TaskPriority p, TaskPriority group) {
  return fmt::format("TaskGroup::validateTaskPriority() priorityEnforcement={} taskPriority={} taskGroupPriority={}",
                     e, p, group);
}

const Enforcement enforcements[] = {Enforcement::sameAsGroupPriority, Enforcement::onlyAllowRegularPriorities,
                                    Enforcement::allowAny};

} // namespace

TEST(TaskGroupPriority, EnforcementMatrixAtRegistration) {
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  for (Enforcement e : enforcements) {
    // Group priorities absolute to scavenge; critical groups have their own test.
    for (unsigned gp = TaskPriority::absolute; gp <= TaskPriority::scavenge; ++gp) {
      Ptr<TaskGroup> g = groupIs(fmt::format("g{}{}", unsigned(e.value()), gp), r, TaskPriority(gp), e);
      for (unsigned tp = TaskPriority::absolute; tp <= TaskPriority::scavenge; ++tp) {
        SCOPED_TRACE(fmt::format("{} group {} task {}", e, TaskPriority(gp), TaskPriority(tp)));
        if (allowedByTable(e, TaskPriority(gp), TaskPriority(tp))) {
          Ptr<TestTask> t = rootTaskIs(g, TaskPriority(tp), "allowed");
          EXPECT_EQ(1u, g->tasksPerPriority(TaskPriority(tp)));
        } else {
          EXPECT_EQ(refusal(e, TaskPriority(tp), TaskPriority(gp)),
                    assertMessage(assertText([&] { rootTaskIs(g, TaskPriority(tp), "refused"); })));
          EXPECT_EQ(0u, g->registeredTaskCount());
          EXPECT_EQ(0u, g->tasksPerPriority(TaskPriority(tp)));
        }
      }
    }
  }
  EXPECT_EQ(0u, r->taskGroupCount());
}

TEST(TaskGroupPriority, EnforcementMatrixAtAChangeOfPriority) {
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  for (Enforcement e : enforcements) {
    Ptr<TaskGroup> g = groupIs(fmt::format("change{}", unsigned(e.value())), r, TaskPriority::normal, e);
    Ptr<TestTask> t = rootTaskIs(g, TaskPriority::normal, "mover");
    t->scheduleTask();
    for (unsigned tp = TaskPriority::absolute; tp <= TaskPriority::scavenge; ++tp) {
      SCOPED_TRACE(fmt::format("{} to {}", e, TaskPriority(tp)));
      if (allowedByTable(e, TaskPriority::normal, TaskPriority(tp))) {
        t->taskPriorityIs(TaskPriority(tp));
        EXPECT_EQ(TaskPriority(tp), t->taskPriority());
        EXPECT_TRUE(t->onRunQueue());
        t->taskPriorityIs(TaskPriority::normal);
      } else {
        EXPECT_EQ(refusal(e, TaskPriority(tp), TaskPriority::normal),
                  assertMessage(assertText([&] { t->taskPriorityIs(TaskPriority(tp)); })));
        // Refused before anything moved.
        EXPECT_EQ(TaskPriority::normal, t->taskPriority());
        EXPECT_TRUE(t->onRunQueue());
        EXPECT_EQ(1u, g->runnableTaskCount(TaskPriority::normal));
      }
    }
    t->unscheduleTask();
  }
}

TEST(TaskGroupPriority, AbsoluteGroupWithSameAsGroupPriorityRefusesANormalTaskAtConstruction) {
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  Ptr<TaskGroup> g = groupIs("abs", r, TaskPriority::absolute, Enforcement::sameAsGroupPriority);
  EXPECT_EQ("TaskGroup::validateTaskPriority() priorityEnforcement=sameAsGroupPriority taskPriority=normal "
            "taskGroupPriority=absolute",
            assertMessage(assertText([&] { rootTaskIs(g, TaskPriority::normal, "normalTask"); })));
  EXPECT_EQ(0u, g->registeredTaskCount());
  EXPECT_FALSE(g->taskForTest("normalTask"));
  // Its own priority is accepted.
  Ptr<TestTask> t = rootTaskIs(g, TaskPriority::absolute, "absoluteTask");
  EXPECT_EQ(1u, g->tasksPerPriority(TaskPriority::absolute));
}

TEST(TaskGroupPriority, CriticalTaskIsRefusedByEveryEnforcement) {
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  for (Enforcement e : enforcements) {
    Ptr<TaskGroup> g = groupIs(fmt::format("crit{}", unsigned(e.value())), r, TaskPriority::normal, e);
    // The name would pass the root's authorisation: only the group refuses.
    EXPECT_EQ(refusal(e, TaskPriority::critical, TaskPriority::normal),
              assertMessage(assertText([&] { rootTaskIs(g, TaskPriority::critical, "criticalTest"); })));
    EXPECT_EQ(0u, g->registeredTaskCount());
  }
  // A group that is itself critical (its parent task's name is authorised)
  // still refuses a critical task under sameAsGroupPriority.
  Ptr<TaskGroup> critical = groupIs("criticalTestGroup", r, TaskPriority::critical, Enforcement::sameAsGroupPriority);
  EXPECT_EQ(refusal(Enforcement::sameAsGroupPriority, TaskPriority::critical, TaskPriority::critical),
            assertMessage(assertText([&] { rootTaskIs(critical, TaskPriority::critical, "criticalTest"); })));
  EXPECT_EQ(0u, critical->registeredTaskCount());
}

TEST(TaskGroupPriority, CriticalTaskOnAGroupFailsAtConstruction) {
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  Ptr<TaskGroup> g = groupIs("g", r, TaskPriority::normal, Enforcement::allowAny);
  std::string text;
  {
    QuietAsserts quiet;
    try {
      Ptr<TestTask> never = rootTaskIs(g, TaskPriority::critical, "criticalTest");
      ADD_FAILURE() << "constructed";
    } catch (const AssertException& e) {
      text = e.what();
    }
  }
  EXPECT_EQ(refusal(Enforcement::allowAny, TaskPriority::critical, TaskPriority::normal), assertMessage(text));
  EXPECT_EQ(0u, g->tasksPerPriority(TaskPriority::critical));
  // Only the parent task is registered anywhere.
  EXPECT_EQ(1u, r->totalRegisteredTaskCount());
}

TEST(TaskGroupPriority, SchedulersOwnCriticalChecksComeFirstWhereTheyAreReached) {
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  Ptr<TaskGroup> g = groupIs("g", r);
  // A change of priority meets the task's own rule before the group's.
  Ptr<TestTask> t = rootTaskIs(g, TaskPriority::normal, "promotedTest");
  EXPECT_EQ("Task::taskPriorityIs() priority != TaskPriority::critical",
            assertMessage(assertText([&] { t->taskPriorityIs(TaskPriority::critical); })));
  // Registration past the enforcement meets the scheduler's root-only rule.
  Ptr<TestTask> rootCritical = rootTaskIs(r, TaskPriority::critical, "criticalTest");
  EXPECT_EQ(fmt::format("TaskScheduler::taskRegister() Critical priority task {} can only be registered against root "
                        "scheduler, not g:",
                        shown(*rootCritical)),
            assertMessage(assertText([&] { g->TaskScheduler::taskRegister(rootCritical.get()); })));
  // The refused registration added nothing to the group.
  EXPECT_EQ(1u, g->registeredTaskCount());
}

TEST(TaskGroupPriority, PriorityBeyondScavengeFailsTheEnforcement) {
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  Ptr<TaskGroup> g = groupIs("g", r, TaskPriority::normal, Enforcement::allowAny);
  EXPECT_EQ("TaskGroup::validateTaskPriority() priorityEnforcement=allowAny taskPriority=invalidPriority=9 "
            "taskGroupPriority=normal",
            assertMessage(assertText([&] { g->validateTaskPriority(TaskPriority(9u)); })));
}

TEST(TaskGroupPriority, ParentTaskOfANestedGroupPassesItsParentGroupsEnforcement) {
  Ptr<CountingRoot> r = CountingRoot::rootIs();
  Ptr<TaskGroup> regular = groupIs("regular", r, TaskPriority::normal, Enforcement::onlyAllowRegularPriorities);
  Ptr<TaskGroup> ok = groupIs("lowInner", regular, TaskPriority::low);
  EXPECT_EQ(1u, regular->tasksPerPriority(TaskPriority::low));
  EXPECT_EQ(refusal(Enforcement::onlyAllowRegularPriorities, TaskPriority::scavenge, TaskPriority::normal),
            assertMessage(assertText([&] { groupIs("scavengeInner", regular, TaskPriority::scavenge); })));
  EXPECT_EQ(2u, r->taskGroupCount());
}
