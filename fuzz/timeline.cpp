// The timeline of random snapshots, parsed back with rapidjson and checked
// against the ring it was drawn from.
//
// A snapshot is plain data, so the target builds it directly: a root with
// groups nested up to four deep, task lists whose names are any bytes
// (quotes, control bytes, NULs, invalid UTF-8), a history ring of events of
// every type whose stamps go up, stay equal, go down or jump to the ends of
// the range, identifiers with any priority letter (or none) naming the
// tree's tasks, its groups' parent tasks, its schedulers or nothing known,
// and stalls with random addresses and times. Runs come nested, unbalanced,
// ended before the ring starts and never ended.
//
// The checks: the document is valid JSON and valid UTF-8 (rapidjson with
// encoding validation), an object with traceEvents, displayTimeUnit and
// otherData; every event is "M", "X" or "i", carries pid and a tid that a
// thread_name event names; every "X" and "i" has a ts that is not
// negative (it counts from the earliest stamp), every "X" a dur that is not
// negative; otherData's runs, instants, stalls and eventsShown are the
// counts of those events in the document; and the runs are what a plain
// pairing of the ring gives: each "run start" is one run; a "run end" that
// finds an open run of its name (letter left out) closes it and every run
// opened after it, and one that finds none is one more run, clipped at the
// start. Every event of the ring is shown once:
// instants + 2 x whole runs + clipped runs = eventsShown.
#include "FuzzInput.h"

#include <Kesto/Report/SnapshotTimeline.h>
#include <Kesto/Report/TaskSchedulerSnapshot.h>
#include <Kesto/Scheduler/TaskSchedulerHistory.h>

#include <rapidjson/document.h>

#include <cstring>
#include <limits>
#include <set>
#include <string>
#include <string_view>
#include <vector>

using KestoFuzz::FuzzInput;
using namespace Kesto;
using Snapshot = TaskSchedulerSnapshotImpl;
using Value = rapidjson::Value;

namespace {

constexpr unsigned maxDepth = 4;
constexpr std::string_view groupPrefix = "TaskGroup;";

// Every name the tree holds, for the ring to refer to.
struct Names {
  std::vector<std::string> tasks;
  std::vector<std::string> schedulers;
};

// A name of up to 14 bytes, or one of three hostile ones: long enough for
// every kind of byte sequence, short enough for dozens in one input.
std::string randomName(FuzzInput& in) {
  const uint8_t kind = in.byte() % 8;
  switch (kind) {
  case 0:
    return "\"q\\\n\x01"; // quotes, backslash, control bytes
  case 1:
    return std::string("a\0b\xff\xc3", 5); // NUL, stray byte, cut sequence
  case 2:
    return "\xed\xa0\x80\xf4\x90\x80\x80"; // a surrogate, beyond U+10FFFF
  default:
    return std::string(in.text(14));
  }
}

TaskStat task(const std::string& name, FuzzInput& in) {
  TaskStat t;
  t.taskNameIs(String(name));
  t.taskKeyIs(TaskKey(reinterpret_cast<const void*>(std::uintptr_t(in.byte() % 8) * 0x100)));
  t.taskPriorityIs(TaskPriority(in.byte() % 6));
  return t;
}

Snapshot randomScheduler(FuzzInput& in, unsigned depth, Names& names) {
  Snapshot s;
  s.schedulerName = String(randomName(in));
  names.schedulers.emplace_back(s.schedulerName.view());
  s.isRootScheduler = depth == 0;
  const uint8_t shape = in.byte();
  for (unsigned n = shape % 5, i = 0; i < n; ++i) {
    const std::string name = randomName(in);
    names.tasks.push_back(name);
    s.tasks.push_back(task(name, in));
  }
  for (unsigned n = (shape >> 3) % 3, i = 0; i < n; ++i) {
    const std::string name = randomName(in);
    names.tasks.push_back(name);
    s.completedTasks.push_back(task(name, in));
  }
  if (depth < maxDepth)
    for (unsigned n = (shape >> 5) % 3, i = 0; i < n; ++i) {
      Snapshot nested = randomScheduler(in, depth + 1, names);
      const std::string parent = std::string(groupPrefix) + std::string(nested.schedulerName.view());
      names.tasks.push_back(parent);
      s.tasks.push_back(task(parent, in));
      s.subSchedulers.emplace_back(String(parent + "-@0x1"), std::move(nested));
    }
  return s;
}

// Steps wrap around the range on purpose: a stamp just past the largest is
// the smallest, and the renderer must cope with both next to each other.
I64 step(I64 from, I64 by) { return I64(U64(from) + U64(by)); }

I64 randomStamp(FuzzInput& in, I64 previous) {
  switch (in.byte() % 8) {
  case 0:
    return previous; // equal
  case 1:
    return step(previous, -I64(in.byte())); // going back
  case 2:
    return std::numeric_limits<I64>::max();
  case 3:
    return std::numeric_limits<I64>::min();
  case 4:
    return in.number<I64>();
  default:
    return step(previous, I64(in.number<uint16_t>())); // the usual case
  }
}

std::string randomIdentifier(FuzzInput& in, const Names& names, bool schedulerEvent) {
  const uint8_t kind = in.byte();
  std::string name;
  if (schedulerEvent && kind % 4 != 0 && !names.schedulers.empty())
    name = names.schedulers[in.byte() % names.schedulers.size()];
  else if (kind % 4 != 0 && !names.tasks.empty())
    name = names.tasks[in.byte() % names.tasks.size()];
  else if (kind % 8 == 4)
    name = std::string(groupPrefix) + std::string(in.text(6)); // a group the tree doesn't hold
  else
    name = randomName(in);
  if (schedulerEvent)
    return name;
  switch ((kind >> 2) % 8) {
  case 0:
    return name; // no letter at all
  case 1:
    return std::string(1, char(in.byte())) + " " + name; // any byte as the letter
  default:
    return std::string(1, "CAHNLS"[in.byte() % 6]) + " " + name;
  }
}

void randomHistory(FuzzInput& in, Snapshot& s, const Names& names) {
  s.history = Ptr<Snapshot::History>(new Snapshot::History(100, in.number<U32>()));
  std::vector<TaskSchedulerHistory::Event> oldestFirst;
  I64 stamp = in.byte() % 2 ? I64(in.number<U32>()) : in.number<I64>();
  for (unsigned n = in.byte() % 48, i = 0; i < n; ++i) {
    stamp = randomStamp(in, stamp);
    // Run starts and ends half of the time, so that runs nest and pair.
    const uint8_t pick = in.byte();
    const unsigned type = pick % 2 ? TaskSchedulerEventType::runStart + (pick >> 1) % 2
                                   : (pick >> 1) % TaskSchedulerEventType::count;
    const bool schedulerEvent = type >= TaskSchedulerEventType::firstSchedulerEvent;
    oldestFirst.emplace_back(TaskTimeStamp(TaskTimeDuration(stamp)), TaskSchedulerEventType(type),
                             String(randomIdentifier(in, names, schedulerEvent)));
  }
  s.history->events.assign(oldestFirst.rbegin(), oldestFirst.rend());
}

void randomStalls(FuzzInput& in, Snapshot& s, const Names& names) {
  for (unsigned n = in.byte() % 4, i = 0; i < n; ++i) {
    StallWatchdog::Stall stall;
    const uint8_t kind = in.byte();
    stall.taskName = String(kind % 2 && !names.tasks.empty() ? names.tasks[in.byte() % names.tasks.size()]
                                                             : randomName(in));
    stall.schedulerName = String(kind % 4 < 2 && !names.schedulers.empty()
                                     ? names.schedulers[in.byte() % names.schedulers.size()]
                                     : randomName(in));
    stall.priority = TaskPriority(in.byte() % 7);
    stall.task = TaskKey(reinterpret_cast<const void*>(std::uintptr_t(in.byte() % 8) * 0x100));
    stall.runStart = TaskTimeStamp(TaskTimeDuration(randomStamp(in, 0)));
    stall.elapsed = TaskTimeDuration(randomStamp(in, 0));
    stall.reported = kind & 8;
    s.stalls.push_back(stall);
  }
}

// A run's name as the timeline pairs it: the identifier without its
// priority letter and blank.
std::string_view pairingName(const String& identifier) {
  const std::string_view id = identifier.view();
  return id.size() >= 2 && id[1] == ' ' ? id.substr(2) : id;
}

struct Expected {
  unsigned runs = 0;
  unsigned clippedAtStart = 0;
  unsigned instants = 0;
};

// Oldest first: a start opens a run; an end closes the most recent open run
// of its name and every run opened after it, or, with none open, is a run
// whose start fell off the ring.
Expected pairRing(const Snapshot::History& history) {
  Expected x;
  std::vector<std::string_view> open;
  for (auto it = history.events.rbegin(); it != history.events.rend(); ++it) {
    if (it->eventType == TaskSchedulerEventType::runStart) {
      ++x.runs;
      open.push_back(pairingName(it->identifier));
    } else if (it->eventType == TaskSchedulerEventType::runEnd) {
      const std::string_view name = pairingName(it->identifier);
      std::size_t i = open.size();
      while (i > 0 && open[i - 1] != name)
        --i;
      if (i == 0) {
        ++x.runs;
        ++x.clippedAtStart;
      } else {
        open.resize(i - 1);
      }
    } else {
      ++x.instants;
    }
  }
  return x;
}

bool isString(const Value& o, const char* key) { return o.IsObject() && o.HasMember(key) && o[key].IsString(); }

bool isNumberText(const Value& o, const char* key) {
  // Numbers are read as their text, so a time keeps every digit.
  return isString(o, key) && o[key].GetStringLength() > 0;
}

bool stringIs(const Value& v, std::string_view want) {
  return v.IsString() && std::string_view(v.GetString(), v.GetStringLength()) == want;
}

U64 unsignedOf(const Value& o, const char* key) {
  KESTO_FUZZ_CHECK(isNumberText(o, key));
  const char* text = o[key].GetString();
  KESTO_FUZZ_CHECK(text[0] >= '0' && text[0] <= '9');
  return std::strtoull(text, nullptr, 10);
}

void check(const std::string& json, const Snapshot& s) {
  rapidjson::Document d;
  constexpr unsigned flags = rapidjson::kParseValidateEncodingFlag | rapidjson::kParseNumbersAsStringsFlag;
  d.Parse<flags>(json.data(), json.size());
  KESTO_FUZZ_CHECK(!d.HasParseError());
  KESTO_FUZZ_CHECK(d.IsObject() && d.MemberCount() == 3);
  KESTO_FUZZ_CHECK(d.HasMember("traceEvents") && d["traceEvents"].IsArray());
  KESTO_FUZZ_CHECK(d.HasMember("displayTimeUnit") && stringIs(d["displayTimeUnit"], "ms"));
  KESTO_FUZZ_CHECK(d.HasMember("otherData") && d["otherData"].IsObject());

  std::set<U64> named;    // tids with a thread_name
  std::set<U64> used;     // tids of every other event
  U64 pid = 0;
  bool first = true;
  unsigned runs = 0, clippedAtStart = 0, clipped = 0, instants = 0, stalls = 0;
  for (const Value& e : d["traceEvents"].GetArray()) {
    KESTO_FUZZ_CHECK(e.IsObject() && isString(e, "ph") && isString(e, "name"));
    const U64 p = unsignedOf(e, "pid");
    KESTO_FUZZ_CHECK(first || p == pid);
    pid = p;
    first = false;
    const U64 tid = unsignedOf(e, "tid");
    const std::string_view ph(e["ph"].GetString(), e["ph"].GetStringLength());
    KESTO_FUZZ_CHECK(ph == "M" || ph == "X" || ph == "i");
    if (ph == "M") {
      KESTO_FUZZ_CHECK(e.HasMember("args") && e["args"].IsObject());
      if (stringIs(e["name"], "thread_name")) {
        KESTO_FUZZ_CHECK(isString(e["args"], "name"));
        KESTO_FUZZ_CHECK(named.insert(tid).second);
      }
      continue;
    }
    used.insert(tid);
    KESTO_FUZZ_CHECK(isNumberText(e, "ts") && isString(e, "cat"));
    // Counted from the earliest stamp of the document: never before it.
    KESTO_FUZZ_CHECK(e["ts"].GetString()[0] != '-');
    if (ph == "i") {
      ++instants;
      continue;
    }
    // "X": a run or a stall, never of negative length.
    KESTO_FUZZ_CHECK(isNumberText(e, "dur"));
    const char* dur = e["dur"].GetString();
    KESTO_FUZZ_CHECK(dur[0] >= '0' && dur[0] <= '9');
    if (stringIs(e["cat"], "stall")) {
      ++stalls;
      continue;
    }
    KESTO_FUZZ_CHECK(stringIs(e["cat"], "run"));
    ++runs;
    const Value& args = e["args"];
    KESTO_FUZZ_CHECK(isString(args, "task"));
    if (args.HasMember("clipped")) {
      ++clipped;
      KESTO_FUZZ_CHECK(stringIs(args["clipped"], "start") || stringIs(args["clipped"], "end"));
      clippedAtStart += stringIs(args["clipped"], "start");
    }
  }
  for (U64 tid : used)
    KESTO_FUZZ_CHECK(named.count(tid));

  const Value& other = d["otherData"];
  KESTO_FUZZ_CHECK(unsignedOf(other, "runs") == runs);
  KESTO_FUZZ_CHECK(unsignedOf(other, "instants") == instants);
  KESTO_FUZZ_CHECK(unsignedOf(other, "stalls") == stalls);
  KESTO_FUZZ_CHECK(stalls == s.stalls.size());
  KESTO_FUZZ_CHECK(other.HasMember("history") && other["history"].IsBool());
  KESTO_FUZZ_CHECK(other["history"].GetBool() == bool(s.history));
  if (!s.history) {
    KESTO_FUZZ_CHECK(!other.HasMember("eventsShown"));
    KESTO_FUZZ_CHECK(runs == 0 && instants == 0);
    return;
  }
  const U64 shown = unsignedOf(other, "eventsShown");
  KESTO_FUZZ_CHECK(shown == s.history->events.size());
  // Every event of the ring once: an instant, or one end of a run.
  KESTO_FUZZ_CHECK(instants + 2 * (runs - clipped) + clipped == shown);
  const Expected x = pairRing(*s.history);
  KESTO_FUZZ_CHECK(runs == x.runs);
  KESTO_FUZZ_CHECK(clippedAtStart == x.clippedAtStart);
  KESTO_FUZZ_CHECK(instants == x.instants);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  FuzzInput in(data, size);
  const uint8_t shape = in.byte();
  Names names;
  Snapshot built = randomScheduler(in, 0, names);
  if (shape % 8 != 0)
    randomHistory(in, built, names);
  randomStalls(in, built, names);
  Ptr<TaskSchedulerSnapshot const> snapshot(new Snapshot(std::move(built)));
  const Snapshot& s = static_cast<const Snapshot&>(*snapshot);
  SnapshotTimelineOptions options;
  options.processName = String(shape & 8 ? randomName(in) : std::string());
  options.processId = shape & 16 ? in.number<U32>() : 0;
  check(snapshotTimelineToString(snapshot, options), s);
  return 0;
}
