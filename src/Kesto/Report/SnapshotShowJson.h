// The JSON renderer: rapidjson's Writer straight into a GenericStringBuffer
// that the show drains piece by piece while the document is still open. The
// writer's state (open levels, comma logic) is apart from the buffer, so a
// document may be delivered in any number of pieces.
//
// Values: durations in seconds as doubles in rapidjson's shortest form
// ("0.0" at least; maxDecimalPlaces left at 324, so nothing is rounded);
// timestamps as unsigned nanoseconds; names through the writer's default
// escaping (quote, backslash and control characters escaped, bytes of 0x80
// and more passed through unvalidated).
#pragma once

#include <Kesto/Report/SnapshotShow.h>

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

namespace Kesto {

class SnapshotShowJson : public SnapshotShow {
public:
  using Buffer = rapidjson::GenericStringBuffer<rapidjson::UTF8<>, rapidjson::CrtAllocator>;
  using Writer = rapidjson::Writer<Buffer, rapidjson::UTF8<>, rapidjson::UTF8<>, rapidjson::CrtAllocator>;
  // Room for a screenful before the buffer first grows (by half of itself).
  static constexpr std::size_t initialCapacity = 1024;

  // Both forms open the document: {"schedulers":{
  explicit SnapshotShowJson(Ptr<TaskSchedulerSnapshot const> snapshot);
  SnapshotShowJson(TaskScheduler* scheduler, int fd, Snapshots snapshots,
                   std::function<void(SnapshotShow*)> onComplete);
  ~SnapshotShowJson() override;

  void schedulerBegin(const SchedulerDisplayContext& ctx) override;
  void schedulerEnd(const SchedulerDisplayContext& ctx) override;
  void taskBlockBegin(const SchedulerDisplayContext& ctx, bool completed) override;
  void taskBlockEnd(const SchedulerDisplayContext& ctx, U32 skipped) override;
  void taskDisplay(const SchedulerDisplayContext& ctx, const TaskStat& stat, bool completed) override;
  void subSchedulerBlockBegin(const SchedulerDisplayContext& ctx) override;
  void subSchedulerBlockEnd(const SchedulerDisplayContext& ctx) override;
  void historyBegin(const SchedulerDisplayContext& ctx) override;
  void historyEnd(const SchedulerDisplayContext& ctx) override;
  void historyEventDisplay(const SchedulerDisplayContext& ctx, const TaskSchedulerHistory::Event& event) override;
  // Closes "schedulers" and the document.
  void finished() override;
  std::string_view getData() override;
  void dataHasBeenWritten() override { buffer.Clear(); }

private:
  void openDocument();
  void string(const String& s) { writer.String(s.c_str()); }
  void key(const char* k) { writer.Key(k); }

  Buffer buffer;
  Writer writer;
};

} // namespace Kesto
