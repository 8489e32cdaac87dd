// The timeline of a snapshot in the Trace Event Format.
//
// Two walks: the tree of schedulers gives the tracks and the tables that
// place a task name on a track; the ring, oldest event first, pairs each
// "run start" with its "run end" on a stack of open runs (runs nest: a
// group's tasks run inside its parent task's run, critical tasks inside the
// run that called runCriticalPriorityTasks()). Runs are paired by task name
// without the priority letter, since a task that changes its priority while
// it runs ends under another letter than it started with.
#include <Kesto/Report/SnapshotTimeline.h>

#include <Kesto/Debug/Trace.h>

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <fmt/format.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace Kesto {

namespace {

constexpr const char* className = "SnapshotTimeline";

using Buffer = rapidjson::GenericStringBuffer<rapidjson::UTF8<>, rapidjson::CrtAllocator>;
using Writer = rapidjson::Writer<Buffer, rapidjson::UTF8<>, rapidjson::UTF8<>, rapidjson::CrtAllocator>;

// The prefix of a group's parent task's name.
constexpr std::string_view groupTaskPrefix = "TaskGroup;";
// A name known in two schedulers places nothing by itself.
constexpr int ambiguous = -1;

// Length of the valid UTF-8 sequence at `p` (at most `n` bytes), or 0.
std::size_t utf8SequenceLength(const unsigned char* p, std::size_t n) noexcept {
  const unsigned char c = p[0];
  if (c < 0x80)
    return 1;
  auto cont = [&](std::size_t i, unsigned char lo = 0x80, unsigned char hi = 0xBF) {
    return i < n && p[i] >= lo && p[i] <= hi;
  };
  if (c >= 0xC2 && c <= 0xDF)
    return cont(1) ? 2 : 0;
  if (c == 0xE0)
    return cont(1, 0xA0) && cont(2) ? 3 : 0;
  if ((c >= 0xE1 && c <= 0xEC) || c == 0xEE || c == 0xEF)
    return cont(1) && cont(2) ? 3 : 0;
  if (c == 0xED) // not the surrogates U+D800..U+DFFF
    return cont(1, 0x80, 0x9F) && cont(2) ? 3 : 0;
  if (c == 0xF0)
    return cont(1, 0x90) && cont(2) && cont(3) ? 4 : 0;
  if (c >= 0xF1 && c <= 0xF3)
    return cont(1) && cont(2) && cont(3) ? 4 : 0;
  if (c == 0xF4) // nothing beyond U+10FFFF
    return cont(1, 0x80, 0x8F) && cont(2) && cont(3) ? 4 : 0;
  return 0;
}

// The time from `from` to `to` in microseconds with three decimals:
// nanoseconds written exactly, where a double of a long-running agent's
// stamps would round. The difference is taken on 64 unsigned bits, where
// it always fits: two stamps of a corrupt or hand-made ring may lie at
// opposite ends of the range, 2^64 - 1 ns apart, which no I64 holds.
void writeMicros(Writer& w, I64 from, I64 to) {
  char text[32];
  const bool negative = to < from;
  const U64 magnitude = negative ? U64(from) - U64(to) : U64(to) - U64(from);
  const auto end = fmt::format_to_n(text, sizeof text, "{}{}.{:03}", negative ? "-" : "", magnitude / 1000,
                                    magnitude % 1000);
  w.RawValue(text, end.size, rapidjson::kNumberType);
}

I64 nanos(TaskTimeStamp t) noexcept { return t.time_since_epoch().count(); }

// A task event's identifier without its priority letter and blank.
std::string_view nameOf(const String& identifier) noexcept {
  std::string_view id = identifier.view();
  return id.size() >= 2 && id[1] == ' ' ? id.substr(2) : id;
}

struct Track {
  U32 tid;
  std::string name;
};

struct OpenRun {
  std::string_view name;
  const String* identifier;
  I64 start;
  int track;
  // The group whose tasks run inside this run, or -1.
  int groupTrack;
};

class TimelineWriter {
public:
  TimelineWriter(const TaskSchedulerSnapshotImpl& snapshot, const SnapshotTimelineOptions& options)
      : s_(snapshot), pid_(options.processId ? options.processId : U32(::getpid())),
        processName_(options.processName.empty() ? snapshot.schedulerName : options.processName),
        buffer_(nullptr, 4096), w_(buffer_) {}

  std::string render() {
    addScheduler(s_, nullptr);
    const TaskSchedulerSnapshotImpl::History* history = s_.history.get();
    if (history)
      addGoneGroups(*history);
    computeOrigin(history);

    w_.StartObject();
    key("traceEvents");
    w_.StartArray();
    metadata();
    if (history && !history->events.empty())
      events(*history);
    stalls();
    w_.EndArray();
    key("displayTimeUnit");
    w_.String("ms");
    key("otherData");
    otherData(history);
    w_.EndObject();
    return std::string(buffer_.GetString(), buffer_.GetSize());
  }

private:
  // --- tracks -----------------------------------------------------------------
  int addTrack(std::string name) {
    tracks_.push_back(Track{U32(tracks_.size() + 1), std::move(name)});
    return int(tracks_.size() - 1);
  }

  static void note(std::unordered_map<std::string_view, int>& table, std::string_view name, int track) {
    auto [it, inserted] = table.emplace(name, track);
    if (!inserted && it->second != track)
      it->second = ambiguous;
  }

  void addScheduler(const TaskSchedulerSnapshotImpl& s, std::string_view* groupTaskName) {
    const int track = addTrack(std::string(s.schedulerName.view()));
    note(schedulerTracks_, s.schedulerName.view(), track);
    if (groupTaskName)
      note(groupTracks_, *groupTaskName, track);
    for (const TaskStat& t : s.tasks) {
      note(taskTracks_, t.taskName().view(), track);
      taskKeys_.emplace(t.taskKey().object(), std::make_pair(t.taskName().view(), track));
    }
    for (const TaskStat& t : s.completedTasks)
      note(taskTracks_, t.taskName().view(), track);
    for (const auto& [key, nested] : s.subSchedulers) {
      // The parent task is named "TaskGroup;" and the group's name; the
      // names live in groupNames_, a deque, whose elements never move.
      groupNames_.push_back(std::string(groupTaskPrefix) + std::string(nested.schedulerName.view()));
      std::string_view name = groupNames_.back();
      addScheduler(nested, &name);
    }
  }

  // A group whose parent task runs in the ring but which the tree doesn't
  // hold any more (deleted since) gets a track of its own.
  void addGoneGroups(const TaskSchedulerSnapshotImpl::History& history) {
    for (const TaskSchedulerHistory::Event& e : history.events) {
      if (e.eventType != TaskSchedulerEventType::runStart)
        continue;
      const std::string_view name = nameOf(e.identifier);
      if (name.substr(0, groupTaskPrefix.size()) != groupTaskPrefix || groupTracks_.count(name))
        continue;
      const int track = addTrack(std::string(name.substr(groupTaskPrefix.size())) + " (gone)");
      groupTracks_.emplace(name, track);
    }
  }

  // --- time ---------------------------------------------------------------------
  void computeOrigin(const TaskSchedulerSnapshotImpl::History* history) {
    bool any = false;
    if (history && !history->events.empty()) {
      ringStart_ = nanos(history->events.back().timestamp);
      ringEnd_ = nanos(history->events.front().timestamp);
      // The steady clock makes the oldest event the earliest, but a ring
      // stamped by a clock that was set back (a test's manual clock, a
      // copy from elsewhere) is not ordered: take the least stamp, so that
      // no "ts" is negative, which viewers draw before the process began.
      origin_ = ringStart_;
      for (const TaskSchedulerHistory::Event& e : history->events)
        origin_ = std::min(origin_, nanos(e.timestamp));
      any = true;
    }
    for (const StallWatchdog::Stall& stall : s_.stalls) {
      const I64 start = nanos(stall.runStart);
      if (!any || start < origin_)
        origin_ = start;
      any = true;
    }
  }

  // --- values -------------------------------------------------------------------
  void key(const char* k) { w_.Key(k); }

  void string(std::string_view text) {
    // An empty String may have no storage at all: never hand the writer a
    // null pointer.
    if (text.empty()) {
      w_.String("", 0);
      return;
    }
    const auto* p = reinterpret_cast<const unsigned char*>(text.data());
    std::size_t i = 0;
    while (i < text.size()) {
      const std::size_t n = utf8SequenceLength(p + i, text.size() - i);
      if (n == 0)
        break;
      i += n;
    }
    if (i == text.size()) {
      w_.String(text.data(), rapidjson::SizeType(text.size()));
      return;
    }
    // Each byte that starts no valid sequence becomes U+FFFD.
    scratch_.assign(text.data(), i);
    while (i < text.size()) {
      const std::size_t n = utf8SequenceLength(p + i, text.size() - i);
      if (n == 0) {
        scratch_ += "\xEF\xBF\xBD";
        ++i;
      } else {
        scratch_.append(text.data() + i, n);
        i += n;
      }
    }
    w_.String(scratch_.data(), rapidjson::SizeType(scratch_.size()));
  }

  void common(const char* ph, int track) {
    key("ph");
    w_.String(ph);
    key("pid");
    w_.Uint(pid_);
    key("tid");
    w_.Uint(track < 0 ? 0 : tracks_[std::size_t(track)].tid);
  }

  // {"name":NAME,"ph":"M","pid":..,"tid":..,"args":{ARG: ...}}, the
  // argument's value written by `value`.
  template <typename Value>
  void metadataEvent(const char* name, int track, const char* arg, Value&& value) {
    w_.StartObject();
    key("name");
    w_.String(name);
    common("M", track);
    key("args");
    w_.StartObject();
    key(arg);
    value();
    w_.EndObject();
    w_.EndObject();
  }

  void metadata() {
    metadataEvent("process_name", -1, "name", [&] { string(processName_.view()); });
    for (std::size_t i = 0; i < tracks_.size(); ++i) {
      metadataEvent("thread_name", int(i), "name", [&] { string(tracks_[i].name); });
      metadataEvent("thread_sort_index", int(i), "sort_index", [&] { w_.Uint(tracks_[i].tid); });
    }
  }

  // --- placing ------------------------------------------------------------------
  static int lookup(const std::unordered_map<std::string_view, int>& table, std::string_view name) {
    auto it = table.find(name);
    return it == table.end() ? ambiguous : it->second;
  }

  // Inside a group's parent run: that group; elsewhere the root.
  int byNesting() const {
    if (!open_.empty() && open_.back().groupTrack >= 0)
      return open_.back().groupTrack;
    return 0;
  }

  int taskTrack(std::string_view name) const {
    const int known = lookup(taskTracks_, name);
    return known >= 0 ? known : byNesting();
  }

  // --- events -------------------------------------------------------------------
  void run(const OpenRun& r, I64 end, const char* clipped) {
    w_.StartObject();
    key("name");
    string(r.name);
    key("cat");
    w_.String("run");
    common("X", r.track);
    key("ts");
    writeMicros(w_, origin_, r.start);
    key("dur");
    writeMicros(w_, r.start, end > r.start ? end : r.start);
    key("args");
    w_.StartObject();
    key("task");
    string(r.identifier->view());
    if (clipped) {
      key("clipped");
      w_.String(clipped);
    }
    w_.EndObject();
    w_.EndObject();
    ++runs_;
  }

  static const char* categoryOf(TaskSchedulerEventType type) {
    switch (type) {
    case TaskSchedulerEventType::schedule:
    case TaskSchedulerEventType::unschedule:
    case TaskSchedulerEventType::scheduleSus:
      return "schedule";
    case TaskSchedulerEventType::timerStart:
    case TaskSchedulerEventType::timerStop:
      return "timer";
    case TaskSchedulerEventType::suspendOn:
    case TaskSchedulerEventType::suspendOff:
      return "suspend";
    case TaskSchedulerEventType::frcYieldOn:
    case TaskSchedulerEventType::frcYieldOff:
      return "yield";
    case TaskSchedulerEventType::idle:
    case TaskSchedulerEventType::busy:
      return "state";
    case TaskSchedulerEventType::create:
    case TaskSchedulerEventType::destroy:
      return "lifecycle";
    case TaskSchedulerEventType::fdReadable:
    case TaskSchedulerEventType::fdWritable:
      return "descriptor";
    default:
      return "scheduler";
    }
  }

  void instant(const TaskSchedulerHistory::Event& e, int track, bool schedulerEvent) {
    w_.StartObject();
    key("name");
    w_.String(e.eventTypeDisplay());
    key("cat");
    w_.String(categoryOf(e.eventType));
    common("i", track);
    key("s");
    w_.String("t");
    key("ts");
    writeMicros(w_, origin_, nanos(e.timestamp));
    key("args");
    w_.StartObject();
    key(schedulerEvent ? "scheduler" : "task");
    string(e.identifier.view());
    w_.EndObject();
    w_.EndObject();
    ++instants_;
  }

  void events(const TaskSchedulerSnapshotImpl::History& history) {
    for (auto it = history.events.rbegin(); it != history.events.rend(); ++it) {
      const TaskSchedulerHistory::Event& e = *it;
      const I64 at = nanos(e.timestamp);
      if (e.eventType == TaskSchedulerEventType::runStart) {
        const std::string_view name = nameOf(e.identifier);
        const int group = lookup(groupTracks_, name);
        open_.push_back(OpenRun{name, &e.identifier, at, taskTrack(name), group});
      } else if (e.eventType == TaskSchedulerEventType::runEnd) {
        runEnd(e, at);
      } else if (e.eventType.value() >= TaskSchedulerEventType::firstSchedulerEvent) {
        const int known = lookup(schedulerTracks_, e.identifier.view());
        instant(e, known >= 0 ? known : byNesting(), true);
      } else {
        instant(e, taskTrack(nameOf(e.identifier)), false);
      }
    }
    // Runs still going at the newest event: the task that took the
    // snapshot, or one a critical run interrupted.
    while (!open_.empty()) {
      run(open_.back(), ringEnd_, "end");
      open_.pop_back();
    }
  }

  void runEnd(const TaskSchedulerHistory::Event& e, I64 at) {
    const std::string_view name = nameOf(e.identifier);
    std::size_t depth = open_.size();
    while (depth > 0 && open_[depth - 1].name != name)
      --depth;
    if (depth == 0) {
      // Its start fell off the ring: it ran from before the oldest event.
      run(OpenRun{name, &e.identifier, ringStart_, taskTrack(name), -1}, at, "start");
      return;
    }
    // Runs opened inside it and never ended can't be: close them here.
    while (open_.size() > depth) {
      run(open_.back(), at, "end");
      open_.pop_back();
    }
    run(open_.back(), at, nullptr);
    open_.pop_back();
  }

  int stallTrack(const StallWatchdog::Stall& stall) const {
    // The task that stalled, if the tree still holds it under that address
    // and name (names are kept to 63 bytes, so a prefix).
    if (auto it = taskKeys_.find(stall.task.object()); it != taskKeys_.end() &&
                                                        it->second.first.substr(0, stall.taskName.size()) ==
                                                            stall.taskName.view())
      return it->second.second;
    const int known = lookup(schedulerTracks_, stall.schedulerName.view());
    return known >= 0 ? known : 0;
  }

  void stalls() {
    for (const StallWatchdog::Stall& stall : s_.stalls) {
      const I64 start = nanos(stall.runStart);
      w_.StartObject();
      key("name");
      scratch2_ = "stall: ";
      scratch2_ += stall.taskName.view();
      string(scratch2_);
      key("cat");
      w_.String("stall");
      common("X", stallTrack(stall));
      key("ts");
      writeMicros(w_, origin_, start);
      key("dur");
      writeMicros(w_, 0, stall.elapsed.count() > 0 ? stall.elapsed.count() : 0);
      // A colour name of the viewers' palette: the red of a bad frame.
      key("cname");
      w_.String("terrible");
      key("args");
      w_.StartObject();
      key("task");
      string(stall.taskName.view());
      key("scheduler");
      string(stall.schedulerName.view());
      key("priority");
      w_.String(stall.priority.isValid() ? stall.priority.toStrep() : "?");
      key("elapsedMs");
      w_.Double(double(stall.elapsed.count()) / 1e6);
      key("reported");
      w_.Bool(stall.reported);
      w_.EndObject();
      w_.EndObject();
    }
  }

  void otherData(const TaskSchedulerSnapshotImpl::History* history) {
    w_.StartObject();
    key("schedulerName");
    string(s_.schedulerName.view());
    key("clock");
    w_.String("steady clock, nanoseconds");
    key("originNs");
    w_.Int64(origin_);
    key("history");
    w_.Bool(history != nullptr);
    if (history) {
      key("historyEntryCount");
      w_.Uint(history->historyEntryCount);
      key("historyEventCount");
      w_.Uint(history->historyEventCount);
      key("eventsShown");
      w_.Uint(U32(history->events.size()));
    }
    key("runs");
    w_.Uint(runs_);
    key("instants");
    w_.Uint(instants_);
    key("stalls");
    w_.Uint(U32(s_.stalls.size()));
    if (!s_.taskNameRegex.empty()) {
      key("taskNameRegex");
      string(s_.taskNameRegex.view());
    }
    if (!s_.taskNameRegexError.empty()) {
      key("taskNameRegexError");
      string(s_.taskNameRegexError.view());
    }
    if (!s_.generalError.empty()) {
      key("generalError");
      string(s_.generalError.view());
    }
    w_.EndObject();
  }

  const TaskSchedulerSnapshotImpl& s_;
  U32 pid_;
  String processName_;
  Buffer buffer_;
  Writer w_;
  std::string scratch_;
  std::string scratch2_;

  std::vector<Track> tracks_;
  // Owns the "TaskGroup;NAME" texts the tables point into.
  std::deque<std::string> groupNames_;
  std::unordered_map<std::string_view, int> taskTracks_;
  std::unordered_map<std::string_view, int> groupTracks_;
  std::unordered_map<std::string_view, int> schedulerTracks_;
  std::unordered_map<const void*, std::pair<std::string_view, int>> taskKeys_;

  std::vector<OpenRun> open_;
  I64 origin_ = 0;
  I64 ringStart_ = 0;
  I64 ringEnd_ = 0;
  U32 runs_ = 0;
  U32 instants_ = 0;
};

} // namespace

std::string snapshotTimelineToString(const Ptr<TaskSchedulerSnapshot const>& snapshot,
                                     const SnapshotTimelineOptions& options) {
  KESTO_ASSERT(snapshot, className, "no snapshot to draw a timeline of");
  const auto& impl = static_cast<const TaskSchedulerSnapshotImpl&>(*snapshot);
  return TimelineWriter(impl, options).render();
}

void snapshotTimelineToFile(const Ptr<TaskSchedulerSnapshot const>& snapshot, const String& path,
                            const SnapshotTimelineOptions& options) {
  const std::string document = snapshotTimelineToString(snapshot, options);
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0)
    KESTO_THROW(Debug::taskScheduler, className, "timeline {}: {}", path.view(), std::strerror(errno));
  std::size_t done = 0;
  while (done < document.size()) {
    const ssize_t n = ::write(fd, document.data() + done, document.size() - done);
    if (n < 0 && errno == EINTR)
      continue;
    if (n <= 0) {
      const int error = n < 0 ? errno : EIO;
      ::close(fd);
      KESTO_THROW(Debug::taskScheduler, className, "timeline {}: {}", path.view(), std::strerror(error));
    }
    done += std::size_t(n);
  }
  if (::close(fd) != 0)
    KESTO_THROW(Debug::taskScheduler, className, "timeline {}: {}", path.view(), std::strerror(errno));
}

} // namespace Kesto
