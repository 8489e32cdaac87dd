// A timeline document read back for tests: parsed with rapidjson, UTF-8
// validated, numbers kept as their text so that times compare exactly
// (a "ts" of "1500.123" is 1,500,123 ns, not a double near it).
#pragma once

#include <rapidjson/document.h>
#include <rapidjson/error/en.h>

#include <fmt/format.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace KestoTest {

// "µs.ns" as the timeline writes a time of `ns` nanoseconds.
inline std::string micros(long long ns) { return fmt::format("{}.{:03}", ns / 1000, ns % 1000); }

struct TimelineEvent {
  std::string name, cat, ph, ts, dur, cname;
  unsigned tid = 0;
  std::map<std::string, std::string> args; // strings and numbers as text; bools as "true"/"false"
};

struct TimelineDocument {
  bool parsed = false;
  std::string error;
  std::string processName;
  unsigned pid = 0;
  std::map<unsigned, std::string> tracks; // tid -> thread_name
  std::vector<TimelineEvent> events;      // everything but "M"
  unsigned metadataCount = 0;
  rapidjson::Document document;

  // The tid of the track of that name; 0 if none.
  unsigned tid(const std::string& track) const {
    for (const auto& [t, n] : tracks)
      if (n == track)
        return t;
    return 0;
  }
  std::vector<TimelineEvent> where(const std::string& ph, const std::string& cat, const std::string& name = "") const {
    std::vector<TimelineEvent> out;
    for (const TimelineEvent& e : events)
      if (e.ph == ph && e.cat == cat && (name.empty() || e.name == name))
        out.push_back(e);
    return out;
  }
  std::string other(const char* key) const {
    const rapidjson::Value& o = document["otherData"];
    if (!o.HasMember(key))
      return "<absent>";
    const rapidjson::Value& v = o[key];
    return v.IsString() ? v.GetString() : v.IsBool() ? (v.GetBool() ? "true" : "false") : "<other>";
  }
};

inline std::string valueText(const rapidjson::Value& v) {
  if (v.IsString())
    return std::string(v.GetString(), v.GetStringLength());
  if (v.IsBool())
    return v.GetBool() ? "true" : "false";
  return "<other>";
}

inline TimelineDocument parseTimeline(const std::string& json) {
  TimelineDocument t;
  constexpr unsigned flags = rapidjson::kParseValidateEncodingFlag | rapidjson::kParseNumbersAsStringsFlag;
  t.document.Parse<flags>(json.c_str(), json.size());
  if (t.document.HasParseError()) {
    t.error = fmt::format("{} at {}", rapidjson::GetParseError_En(t.document.GetParseError()),
                          t.document.GetErrorOffset());
    return t;
  }
  if (!t.document.IsObject() || !t.document.HasMember("traceEvents") || !t.document["traceEvents"].IsArray() ||
      !t.document.HasMember("otherData") || !t.document.HasMember("displayTimeUnit")) {
    t.error = "not a Trace Event Format object";
    return t;
  }
  for (const rapidjson::Value& e : t.document["traceEvents"].GetArray()) {
    TimelineEvent ev;
    ev.name = valueText(e["name"]);
    ev.ph = valueText(e["ph"]);
    ev.tid = unsigned(std::stoul(e["tid"].GetString()));
    t.pid = unsigned(std::stoul(e["pid"].GetString()));
    if (e.HasMember("cat"))
      ev.cat = valueText(e["cat"]);
    if (e.HasMember("ts"))
      ev.ts = e["ts"].GetString();
    if (e.HasMember("dur"))
      ev.dur = e["dur"].GetString();
    if (e.HasMember("cname"))
      ev.cname = valueText(e["cname"]);
    if (e.HasMember("args"))
      for (auto m = e["args"].MemberBegin(); m != e["args"].MemberEnd(); ++m)
        ev.args[m->name.GetString()] = valueText(m->value);
    if (ev.ph == "M") {
      ++t.metadataCount;
      if (ev.name == "process_name")
        t.processName = ev.args["name"];
      else if (ev.name == "thread_name")
        t.tracks[ev.tid] = ev.args["name"];
      continue;
    }
    t.events.push_back(std::move(ev));
  }
  t.parsed = true;
  return t;
}

} // namespace KestoTest
