// Capture and print the calling thread's stack.
//
// Capturing is cheap (frame addresses only); resolving names is done when the
// text is asked for, since most captured stacks are never printed.
#pragma once

#include <Kesto/Core/Export.h>

#include <Kesto/Core/String.h>

namespace Kesto {

class KESTO_CORE_EXPORT Backtrace {
public:
  // With `capture` true the caller's stack is taken at once; otherwise the
  // object is empty until capture() is called.
  explicit Backtrace(bool capture = true) noexcept;

  void capture() noexcept;
  int frameCount() const noexcept { return frameCount_; }

  // One line per frame, "#N address symbol", with demangled C++ names.
  String pretty() const;

  static String prettyFrames(void* const* frames, int count);

  // How much the process prints on fatal paths: 0 nothing, 1 a backtrace.
  // Starts at 1.
  static int verbosity() noexcept;
  static void verbosityIs(int level) noexcept;

private:
  static constexpr int maxFrames = 64;
  void* frames_[maxFrames];
  int frameCount_ = 0;
};

} // namespace Kesto
