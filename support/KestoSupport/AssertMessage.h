// Splitting the text of a failed assertion into its location and its
// message, so that a test can compare the whole message.
//
// An assertion through fmassert reads "path/File.cpp:123: Class::function()
// text"; one through debugAndAssert reads "path/File.cpp:function:123: text".
// The line numbers move with every edit of the file, so tests compare what
// follows them.
#pragma once

#include <Kesto/Core/Exception.h>
#include <Kesto/Debug/Trace.h>

#include <gtest/gtest.h>

#include <cctype>
#include <string>
#include <string_view>

namespace KestoTest {

// The index just past "path/File.cpp:<middle><digits>: " at the start of
// `what` (the path has no colon and ends in .cpp or .h), or npos.
inline std::size_t afterAssertLocation(std::string_view what, std::string_view middle) {
  const std::size_t colon = what.find(':');
  if (colon == std::string_view::npos)
    return std::string_view::npos;
  const std::string_view path = what.substr(0, colon);
  const auto endsWith = [&](std::string_view tail) {
    return path.size() > tail.size() && path.substr(path.size() - tail.size()) == tail;
  };
  if (!endsWith(".cpp") && !endsWith(".h"))
    return std::string_view::npos;
  std::size_t i = colon + 1;
  if (what.substr(i, middle.size()) != middle)
    return std::string_view::npos;
  i += middle.size();
  const std::size_t digits = i;
  while (i < what.size() && std::isdigit(static_cast<unsigned char>(what[i])))
    ++i;
  if (i == digits || what.substr(i, 2) != ": ")
    return std::string_view::npos;
  return i + 2;
}

// What follows "file:line: " in an fmassert text: "Class::function() text".
inline std::string assertMessage(const std::string& what) {
  const std::size_t start = afterAssertLocation(what, "");
  if (start == std::string_view::npos) {
    ADD_FAILURE() << "no location in: " << what;
    return what;
  }
  return what.substr(start);
}

// What follows "file:function:line: " in a debugAndAssert text, checking
// that `function` raised it.
inline std::string debugAssertMessage(const std::string& what, const std::string& function) {
  const std::size_t start = afterAssertLocation(what, function + ":");
  if (start == std::string_view::npos) {
    ADD_FAILURE() << "no location of " << function << " in: " << what;
    return what;
  }
  return what.substr(start);
}

// Makes failed assertions throw quietly for the life of the object.
class QuietAsserts {
public:
  QuietAsserts() : throwOnFail_(Kesto::throwOnAssertFail()), forceTrace_(Kesto::forceTraceOnAssert()) {
    Kesto::throwOnAssertFailIs(true);
    Kesto::forceTraceOnAssertIs(false);
  }
  ~QuietAsserts() {
    Kesto::throwOnAssertFailIs(throwOnFail_);
    Kesto::forceTraceOnAssertIs(forceTrace_);
  }
  QuietAsserts(const QuietAsserts&) = delete;
  QuietAsserts& operator=(const QuietAsserts&) = delete;

private:
  bool throwOnFail_;
  bool forceTrace_;
};

// The whole text of the AssertException that `fn` raises, or "" with a test
// failure if none is raised.
template <typename Fn>
std::string assertText(Fn&& fn) {
  QuietAsserts quiet;
  try {
    fn();
  } catch (const Kesto::AssertException& e) {
    return std::string(e.what());
  }
  ADD_FAILURE() << "no AssertException was raised";
  return std::string();
}

} // namespace KestoTest
