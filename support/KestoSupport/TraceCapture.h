// Capture of trace lines for tests, shared by every test folder that checks
// what a unit writes through its debug handler.
//
// TraceCapture turns on the levels a test wants of one handler (by default
// "TaskScheduler"), sets the line prefix to handler name and level, and
// captures standard error, where trace lines go without TRACEFILE. At the
// end it puts back the levels it turned on and the prefix it found. A line
// then reads
//
//   TaskScheduler 8 Task::scheduleTask() Scheduled root:normal:t@0x...
//
// so a test can compare whole lines with traceLine(): handler, level, the
// class label and function of the call site, and the text.
//
// Not reentrant: GoogleTest captures one stream at a time.
#pragma once

#include <Kesto/Debug/DebugControl.h>
#include <Kesto/Debug/Loco.h>
#include <Kesto/Debug/Trace.h>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <array>
#include <initializer_list>
#include <string>
#include <vector>

namespace KestoTest {

class TraceCapture {
public:
  explicit TraceCapture(std::initializer_list<unsigned short> levels = {8, 9},
                        Kesto::Platform::DebugHandler& handler = *Kesto::Debug::taskScheduler)
      : handler_(handler) {
    using Kesto::Ixo::DebugControl;
    savedFormat_ = {DebugControl::showDate_,     DebugControl::showTime_,       DebugControl::showPid_,
                    DebugControl::showTid_,      DebugControl::showHandleName_, DebugControl::showLevel_,
                    DebugControl::showLineInfo_, DebugControl::showFuncName_};
    Kesto::Platform::setTraceFormat("handle,level");
    for (unsigned short level : levels) {
      if (!handler_.enabled(level)) {
        handler_.enabledIs(level, true);
        turnedOn_.push_back(level);
      }
    }
    testing::internal::CaptureStderr();
    capturing_ = true;
  }
  ~TraceCapture() { text(); }
  TraceCapture(const TraceCapture&) = delete;
  TraceCapture& operator=(const TraceCapture&) = delete;

  // Everything written so far; ends the capture and puts the levels and the
  // prefix back.
  const std::string& text() {
    if (capturing_) {
      text_ = testing::internal::GetCapturedStderr();
      capturing_ = false;
      for (unsigned short level : turnedOn_)
        handler_.enabledIs(level, false);
      using Kesto::Ixo::DebugControl;
      Kesto::Platform::Loco::Guard guard;
      bool* flags[] = {&DebugControl::showDate_,     &DebugControl::showTime_,       &DebugControl::showPid_,
                       &DebugControl::showTid_,      &DebugControl::showHandleName_, &DebugControl::showLevel_,
                       &DebugControl::showLineInfo_, &DebugControl::showFuncName_};
      for (std::size_t i = 0; i < savedFormat_.size(); ++i)
        *flags[i] = savedFormat_[i];
    }
    return text_;
  }

  // All lines, without their newlines.
  std::vector<std::string> lines() { return linesWith(std::string()); }

  // The lines that contain `part`.
  std::vector<std::string> linesWith(const std::string& part) {
    std::vector<std::string> found;
    const std::string& all = text();
    std::size_t start = 0;
    while (start < all.size()) {
      std::size_t end = all.find('\n', start);
      if (end == std::string::npos)
        end = all.size();
      std::string line = all.substr(start, end - start);
      if (line.find(part) != std::string::npos)
        found.push_back(std::move(line));
      start = end + 1;
    }
    return found;
  }

  // The one line that contains `part`; a test failure and "" unless there
  // is exactly one.
  std::string onlyLineWith(const std::string& part) {
    std::vector<std::string> found = linesWith(part);
    if (found.size() != 1) {
      ADD_FAILURE() << found.size() << " lines with \"" << part << "\" in:\n" << text();
      return std::string();
    }
    return found[0];
  }

private:
  Kesto::Platform::DebugHandler& handler_;
  std::array<bool, 8> savedFormat_;
  std::vector<unsigned short> turnedOn_;
  bool capturing_ = false;
  std::string text_;
};

// The lines that `fn` writes with `levels` of the "TaskScheduler" handler
// turned on.
template <typename Fn>
std::vector<std::string> traceLinesOf(std::initializer_list<unsigned short> levels, Fn&& fn) {
  TraceCapture trace(levels);
  fn();
  return trace.lines();
}

// A whole line of the "TaskScheduler" handler as a TraceCapture sees it:
// handler, level, the call site's class label and function, the text.
inline std::string traceLine(unsigned level, const char* className, const char* function,
                             const std::string& message) {
  return fmt::format("TaskScheduler {} {}::{}() {}", level, className, function, message);
}

// The display form of a task or scheduler in traces and messages.
template <typename T>
std::string shown(const T& object) {
  return fmt::format("{}", object);
}

inline bool endsWith(const std::string& text, const std::string& tail) {
  return text.size() >= tail.size() && text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

} // namespace KestoTest
