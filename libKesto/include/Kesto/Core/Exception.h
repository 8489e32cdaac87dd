// Exception classes of the family.
//
// Three kinds of failure exist: programming errors are assertions that throw
// AssertException, run-time errors a caller must see throw RuntimeException,
// and expected failures are plain results. Both exception classes derive from
// Exception, which carries its message and the backtrace of the throw site, so
// that nothing upstream has to capture one again.
#pragma once

#include <Kesto/Core/Export.h>

#include <Kesto/Core/String.h>

#include <exception>

namespace Kesto {

class KESTO_CORE_EXPORT Exception : public std::exception {
public:
  explicit Exception(const String& message);
  ~Exception() override;

  const char* what() const noexcept override { return message_.data(); }
  const String& message() const noexcept { return message_; }

  // The throw site's stack, resolved to text on demand.
  String backtrace() const;

  [[noreturn]] static void throwException(const String& message);

private:
  static constexpr int maxFrames = 48;
  String message_;
  void* frames_[maxFrames];
  int frameCount_;
};

class KESTO_CORE_EXPORT AssertException : public Exception {
public:
  using Exception::Exception;
  [[noreturn]] static void throwException(const String& message);
};

class KESTO_CORE_EXPORT RuntimeException : public Exception {
public:
  using Exception::Exception;
  [[noreturn]] static void throwException(const String& message);
};

// Whether failed assertions are raised for a caller that will report them
// itself. When false (the default) an assertion is also traced before it is
// thrown, so that it is seen even if nobody catches it.
KESTO_CORE_EXPORT bool throwOnAssertFail() noexcept;
KESTO_CORE_EXPORT void throwOnAssertFailIs(bool enabled) noexcept;

// Called when a null Ptr is used. Reports the misuse on standard error with a
// backtrace and throws AssertException.
[[noreturn]] KESTO_CORE_EXPORT void emitAssertNonNullPtr();

} // namespace Kesto
