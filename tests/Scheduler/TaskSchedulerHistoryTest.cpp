#include "SchedulerTestSupport.h"

#include <Kesto/Scheduler/TaskSchedulerHistory.h>

using namespace KestoTest;
using Event = TaskSchedulerHistory::Event;
using Type = TaskSchedulerEventType;

namespace {
TaskTimeStamp at(int i) { return TaskTimeStamp(std::chrono::milliseconds(i)); }

void fill(TaskSchedulerHistory& h, int n, int from = 0) {
  for (int i = from; i < from + n; ++i)
    h.insert(Event(at(i), Type::schedule, String("e")));
}
} // namespace

TEST(TaskSchedulerHistory, AllEventTypesHaveTheirTexts) {
  const char* texts[] = {"schedule",
                         "unschedule",
                         "run start",
                         "run end",
                         "timerStart",
                         "timerStop",
                         "suspendOn",
                         "suspendOff",
                         "scheduleSus",
                         "frcYieldOn",
                         "frcYieldOff",
                         "idle",
                         "busy",
                         "create",
                         "delete",
                         "fdReadable",
                         "fdWritable",
                         "schedulerBusy",
                         "schedulerIdle",
                         "schedulerHasRunnableTasks",
                         "schedulerHasNoRunnableTasks",
                         "schedulerSuspended",
                         "schedulerUnsuspended",
                         "schedulerRunIgnoredWhileSuspended",
                         "schedulerVirtualTimeOn",
                         "schedulerVirtualTimeOff",
                         "schedulerTestYieldRatioOn",
                         "schedulerTestYieldRatioOff",
                         "schedulerRunCriticalStart",
                         "schedulerRunCriticalEnd"};
  static_assert(sizeof(texts) / sizeof(texts[0]) == TaskSchedulerEventType::count);
  for (unsigned i = 0; i < TaskSchedulerEventType::count; ++i)
    EXPECT_STREQ(TaskSchedulerEventType(i).eventTypeDisplay(), texts[i]) << i;
  EXPECT_EQ(fmt::format("{}", TaskSchedulerEventType(Type::runEnd)), "run end");
}

TEST(TaskSchedulerHistory, UnknownEventTypeFails) {
  EXPECT_NE(assertText([] { TaskSchedulerEventType(30u).eventTypeDisplay(); }).find("unexpected eventType 30"),
            std::string::npos);
}

TEST(TaskSchedulerHistory, NewestFirstAndOldestFallsOff) {
  TaskSchedulerHistory h(100);
  fill(h, 101);
  EXPECT_EQ(h.historyEventCount(), 100u);
  EXPECT_EQ(h.historyEntryCount(), 100u);
  EXPECT_EQ(h[0].timestamp, at(100));
  EXPECT_EQ(h[99].timestamp, at(1));
  for (const Event& e : h)
    EXPECT_NE(e.timestamp, at(0));
}

TEST(TaskSchedulerHistory, ShrinkingKeepsTheNewestInOrder) {
  TaskSchedulerHistory h(100);
  fill(h, 50);
  h.historyEntryCountIs(10);
  EXPECT_EQ(h.historyEntryCount(), 10u);
  EXPECT_EQ(h.historyEventCount(), 10u);
  for (unsigned i = 0; i < 10; ++i)
    EXPECT_EQ(h[i].timestamp, at(49 - int(i)));
  h.historyEntryCountIs(20);
  EXPECT_EQ(h.historyEventCount(), 10u);
  fill(h, 1, 50);
  EXPECT_EQ(h[0].timestamp, at(50));
  EXPECT_EQ(h[1].timestamp, at(49));
}

TEST(TaskSchedulerHistory, CapacityZeroRecordsNothing) {
  TaskSchedulerHistory h(100);
  fill(h, 5);
  h.historyEntryCountIs(0);
  EXPECT_EQ(h.historyEventCount(), 0u);
  fill(h, 5);
  EXPECT_EQ(h.historyEventCount(), 0u);
  EXPECT_EQ(h.historyEntryCount(), 0u);
}

TEST(TaskSchedulerHistory, ClearKeepsCapacity) {
  TaskSchedulerHistory h(100);
  fill(h, 30);
  h.clearHistory();
  EXPECT_EQ(h.historyEventCount(), 0u);
  fill(h, 1);
  EXPECT_EQ(h.historyEntryCount(), 100u);
  EXPECT_EQ(h.historyEventCount(), 1u);
}

TEST(TaskSchedulerHistory, ClearWithOwnerIsTheSame) {
  auto s = TestScheduler::rootIs("owner");
  s->historyEvent(Type::schedulerBusy);
  s->taskSchedulerHistory()->clearHistory(s.get());
  EXPECT_EQ(s->taskSchedulerHistory()->historyEventCount(), 0u);
}

TEST(TaskSchedulerHistory, TaskEventCarriesPriorityLetterAndName) {
  auto s = TestScheduler::rootIs();
  auto t = taskIs(s, TaskPriority::normal, "a rather long task name, not short");
  Event e(at(1), Type::schedule, static_cast<const _TaskBase*>(t.get()));
  EXPECT_EQ(e.eventIdentifier(), "N a rather long task name, not short");
  EXPECT_TRUE(e.identifier.isDedup());
  EXPECT_STREQ(e.eventTypeDisplay(), "schedule");
}

TEST(TaskSchedulerHistory, SchedulerEventCarriesSchedulerName) {
  auto s = TestScheduler::rootIs("sched");
  Event e(at(1), Type::schedulerIdle, static_cast<const TaskScheduler*>(s.get()));
  EXPECT_EQ(e.eventIdentifier(), "sched");
  // A task-only type from a scheduler is not checked.
  Event e2(at(1), Type::schedule, static_cast<const TaskScheduler*>(s.get()));
  EXPECT_EQ(e2.eventIdentifier(), "sched");
}

TEST(TaskSchedulerHistory, TaskEventOfSchedulerTypeFails) {
  auto s = TestScheduler::rootIs();
  auto t = taskIs(s, TaskPriority::normal, "t");
  const _TaskBase* task = t.get();
  EXPECT_NE(assertText([&] { Event(at(1), Type::schedulerBusy, task); }).find("EventType: 17"), std::string::npos);
  EXPECT_NE(assertText([&] { Event(at(1), Type::schedulerRunCriticalEnd, task); }).find("EventType: 29"),
            std::string::npos);
  EXPECT_NE(assertText([&] { Event(at(1), TaskSchedulerEventType(31u), task); }).find("unexpected eventType=31"),
            std::string::npos);
  // The last task type passes.
  Event ok(at(1), Type::fdWritable, task);
  EXPECT_EQ(ok.eventIdentifier(), "N t");
}

TEST(TaskSchedulerHistory, IdentifierMustBeShortOrDeduplicated) {
  String ordinary(std::string(40, 'x'));
  ASSERT_TRUE(ordinary.isOrdinary());
  Event e(at(1), Type::busy, ordinary);
  std::string text = assertText([&] { e.eventIdentifier(); });
  EXPECT_NE(text.find("EventType: busy identifier " + std::string(40, 'x') +
                      " is neither short string optimized nor deduped"),
            std::string::npos);
  Event shortOne(at(1), Type::busy, String("short"));
  EXPECT_EQ(shortOne.eventIdentifier(), "short");
}

TEST(TaskSchedulerHistory, PriorityChangeShowsOldLetterOnOlderEvents) {
  auto s = TestScheduler::rootIs();
  auto t = taskIs(s, TaskPriority::normal, "mover");
  t->scheduleTask();
  t->taskPriorityIs(TaskPriority::low);
  auto& h = *s->taskSchedulerHistory();
  // Newest first: the last schedule shows the new letter, the first the old.
  bool sawNew = false, sawOld = false;
  for (const Event& e : h) {
    if (e.eventType == Type::schedule) {
      if (!sawNew) {
        EXPECT_EQ(e.identifier, "L mover");
        sawNew = true;
      } else {
        EXPECT_EQ(e.identifier, "N mover");
        sawOld = true;
      }
    }
  }
  EXPECT_TRUE(sawNew);
  EXPECT_TRUE(sawOld);
  EXPECT_EQ(h[h.historyEventCount() - 1].eventType, Type::create);
  EXPECT_EQ(h[h.historyEventCount() - 1].identifier, "N mover");
  t->unscheduleTask();
}
