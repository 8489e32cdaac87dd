// What the scheduler tests share beyond the test doubles: catching the text
// of a failed assertion.
#pragma once

#include <KestoSupport/TestScheduler.h>

#include <Kesto/Core/Exception.h>
#include <Kesto/Debug/Trace.h>

#include <gtest/gtest.h>

#include <string>

namespace KestoTest {

// Makes failed assertions throw quietly for the life of the object.
class QuietAsserts {
public:
  QuietAsserts() : throwOnFail_(throwOnAssertFail()), forceTrace_(forceTraceOnAssert()) {
    throwOnAssertFailIs(true);
    forceTraceOnAssertIs(false);
  }
  ~QuietAsserts() {
    throwOnAssertFailIs(throwOnFail_);
    forceTraceOnAssertIs(forceTrace_);
  }

private:
  bool throwOnFail_;
  bool forceTrace_;
};

// The text of the AssertException that `fn` raises, or "" with a test failure
// if none is raised.
template <typename Fn>
std::string assertText(Fn&& fn) {
  QuietAsserts quiet;
  try {
    fn();
  } catch (const AssertException& e) {
    return std::string(e.what());
  }
  ADD_FAILURE() << "no AssertException was raised";
  return std::string();
}

} // namespace KestoTest
