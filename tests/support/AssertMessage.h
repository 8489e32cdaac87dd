// Splitting the text of a failed assertion into its location and its
// message, so that a test can compare the whole message.
//
// An assertion through fmassert reads "path/File.cpp:123: Class::function()
// text"; one through debugAndAssert reads "path/File.cpp:function:123: text".
// The line numbers move with every edit of the file, so tests compare what
// follows them.
#pragma once

#include <gtest/gtest.h>

#include <regex>
#include <string>

namespace KestoTest {

// What follows "file:line: " in an fmassert text: "Class::function() text".
inline std::string assertMessage(const std::string& what) {
  static const std::regex location(R"(^[^:]+\.(cpp|h):[0-9]+: )");
  std::smatch match;
  if (!std::regex_search(what, match, location)) {
    ADD_FAILURE() << "no location in: " << what;
    return what;
  }
  return what.substr(std::size_t(match.length(0)));
}

// What follows "file:function:line: " in a debugAndAssert text, checking
// that `function` raised it.
inline std::string debugAssertMessage(const std::string& what, const std::string& function) {
  const std::regex location("^[^:]+\\.(cpp|h):" + function + ":[0-9]+: ");
  std::smatch match;
  if (!std::regex_search(what, match, location)) {
    ADD_FAILURE() << "no location of " << function << " in: " << what;
    return what;
  }
  return what.substr(std::size_t(match.length(0)));
}

} // namespace KestoTest
