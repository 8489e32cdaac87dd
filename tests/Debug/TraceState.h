// Test helpers that keep the process-wide trace state of one test from
// leaking into the next.
//
// CleanTraceControls saves every control and every handler's mask, removes
// all controls so that a test starts as a process does before TRACE is read,
// and puts everything back afterwards. Handlers made by the test are gone by
// then; handlers left behind on purpose by clear() stay registered, as they
// would in a real process.
#pragma once

#include <Kesto/EventKesto.h>

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

namespace KestoTest {

struct SavedControl {
  Kesto::String name;
  unsigned short levels;
  bool wildcard;
};

inline void deleteAllControls() {
  using Kesto::Ixo::DebugControl;
  std::vector<DebugControl*> all;
  for (auto& [name, control] : *DebugControl::debugsMap_)
    all.push_back(control);
  for (auto& [name, control] : *DebugControl::wildCardDebugsMap_)
    all.push_back(control);
  for (DebugControl* control : all)
    delete control;
}

class CleanTraceControls : public ::testing::Test {
protected:
  void SetUp() override {
    using Kesto::Ixo::DebugControl;
    Kesto::Platform::Loco::Guard guard;
    DebugControl::initialize();
    for (auto& [name, control] : *DebugControl::debugsMap_)
      savedControls_.push_back({control->name, control->levels, false});
    for (auto& [name, control] : *DebugControl::wildCardDebugsMap_)
      savedControls_.push_back({control->name, control->levels, true});
    for (auto& [name, handler] : *Kesto::Ixo::DebugHandler::handlerMap_)
      savedHandlers_[handler] = handler->levels;
    deleteAllControls();
  }

  void TearDown() override {
    using Kesto::Ixo::DebugControl;
    Kesto::Platform::Loco::Guard guard;
    deleteAllControls();
    for (const SavedControl& saved : savedControls_)
      new DebugControl(saved.name, saved.levels, saved.wildcard);
    for (auto& [name, handler] : *Kesto::Ixo::DebugHandler::handlerMap_) {
      auto it = savedHandlers_.find(handler);
      if (it != savedHandlers_.end())
        handler->levels = it->second;
    }
  }

  // Levels of the control of that exact kind and name, or -1 if none.
  static int controlLevels(const char* name, bool wildcard) {
    using Kesto::Ixo::DebugControl;
    Kesto::Platform::Loco::Guard guard;
    if (wildcard) {
      auto it = DebugControl::wildCardDebugsMap_->find(Kesto::String(name));
      return it == DebugControl::wildCardDebugsMap_->end() ? -1 : it->second->levels;
    }
    auto it = DebugControl::debugsMap_->find(Kesto::String(name));
    return it == DebugControl::debugsMap_->end() ? -1 : it->second->levels;
  }

  static std::size_t handlerCount(const char* name) {
    Kesto::Platform::Loco::Guard guard;
    return Kesto::Ixo::DebugHandler::handlerMap_->count(Kesto::String(name));
  }

private:
  std::vector<SavedControl> savedControls_;
  std::map<Kesto::Ixo::DebugHandler*, unsigned short> savedHandlers_;
};

// Restores the two assertion switches of the process.
class AssertSwitches {
public:
  AssertSwitches() : throwOnFail_(Kesto::throwOnAssertFail()), force_(Kesto::forceTraceOnAssert()) {}
  ~AssertSwitches() {
    Kesto::throwOnAssertFailIs(throwOnFail_);
    Kesto::forceTraceOnAssertIs(force_);
  }
  // Assertions throw and write nothing.
  void silence() {
    Kesto::throwOnAssertFailIs(true);
    Kesto::forceTraceOnAssertIs(false);
  }

private:
  bool throwOnFail_;
  bool force_;
};

// Runs `body` and returns the text of the AssertException it throws, or
// "<no exception>".
template <typename Body>
std::string assertionText(Body&& body) {
  try {
    body();
  } catch (const Kesto::AssertException& e) {
    return e.what();
  }
  return "<no exception>";
}

// Keeps the trace format of the process and gives a test a known one.
class TraceFormatScope {
public:
  explicit TraceFormatScope(const char* format) {
    using Kesto::Ixo::DebugControl;
    saved_[0] = DebugControl::showDate_;
    saved_[1] = DebugControl::showTime_;
    saved_[2] = DebugControl::showPid_;
    saved_[3] = DebugControl::showTid_;
    saved_[4] = DebugControl::showHandleName_;
    saved_[5] = DebugControl::showLevel_;
    saved_[6] = DebugControl::showLineInfo_;
    saved_[7] = DebugControl::showFuncName_;
    Kesto::Platform::setTraceFormat(format);
  }
  ~TraceFormatScope() {
    using Kesto::Ixo::DebugControl;
    Kesto::Platform::Loco::Guard guard;
    DebugControl::showDate_ = saved_[0];
    DebugControl::showTime_ = saved_[1];
    DebugControl::showPid_ = saved_[2];
    DebugControl::showTid_ = saved_[3];
    DebugControl::showHandleName_ = saved_[4];
    DebugControl::showLevel_ = saved_[5];
    DebugControl::showLineInfo_ = saved_[6];
    DebugControl::showFuncName_ = saved_[7];
  }

private:
  bool saved_[8];
};

template <typename Body>
std::string stderrOf(Body&& body) {
  testing::internal::CaptureStderr();
  body();
  return testing::internal::GetCapturedStderr();
}

template <typename Body>
std::string stdoutOf(Body&& body) {
  testing::internal::CaptureStdout();
  body();
  return testing::internal::GetCapturedStdout();
}

} // namespace KestoTest
