// The task name filter: any expression, any names, in any order and with
// repeats. No crash and no hang; the cached answer for a string equals the
// engine's answer on that string (whole-string match, the first N bytes
// hidden), and an invalid expression matches nothing.
#include "FuzzInput.h"

#include <Kesto/Report/TaskNameRegex.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <optional>
#include <regex>
#include <string>
#include <vector>

using Kesto::String;
using Kesto::TaskNameRegex;
using KestoFuzz::FuzzInput;

namespace {

// Standard error goes to /dev/null for the life of the object: the line for
// an invalid expression would flood the fuzzer's log, which is also there.
class QuietStderr {
public:
  QuietStderr() : saved_(::dup(2)) {
    const int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    ::dup2(null, 2);
    ::close(null);
  }
  ~QuietStderr() {
    std::fflush(stderr);
    ::dup2(saved_, 2);
    ::close(saved_);
  }

private:
  int saved_;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  FuzzInput in(data, size);
  // Short expressions and names: the standard library's engine backtracks
  // exponentially on nested quantifiers ("(a*)*b" over 16 a's runs for
  // seconds). That cost is the engine's and is documented for operators;
  // what is fuzzed here is the filter around it.
  const std::string expression(in.text(8));
  // Stacked quantifiers ("a*****") make the engine's backtracking explode
  // even over a 7-byte name; they are left out so that the fuzzer explores
  // the filter rather than the engine's known worst case.
  for (std::size_t i = 1; i < expression.size(); ++i)
    if (std::strchr("*+?}", expression[i - 1]) && std::strchr("*+?{", expression[i]))
      return 0;
  std::regex reference;
  bool valid = true;
  try {
    reference = std::regex(expression, std::regex_constants::ECMAScript);
  } catch (const std::regex_error&) {
    valid = false;
  }
  std::optional<QuietStderr> quiet;
  if (!valid)
    quiet.emplace();
  TaskNameRegex filter{String(expression)};
  quiet.reset();
  KESTO_FUZZ_CHECK(filter.valid == valid);
  KESTO_FUZZ_CHECK(filter.error.empty() == valid);
  std::vector<std::string> names;
  while (!in.empty() && names.size() < 32) {
    const uint8_t op = in.byte();
    std::string name = (op & 1) && !names.empty() ? names[op % names.size()] : std::string(in.text(10));
    names.push_back(name);
    const String s(name);
    bool expected0 = false;
    bool expected2 = false;
    if (valid) {
      expected0 = std::regex_match(name, reference);
      expected2 = std::regex_match(name.begin() + std::min<std::size_t>(2, name.size()), name.end(), reference);
    }
    KESTO_FUZZ_CHECK(filter.match<0>(s) == expected0);
    KESTO_FUZZ_CHECK(filter.match<2>(s) == expected2);
    // Asked again, the cache answers the same.
    KESTO_FUZZ_CHECK(filter.match<0>(s) == expected0);
    KESTO_FUZZ_CHECK(filter.match<2>(s) == expected2);
  }
  KESTO_FUZZ_CHECK(filter.engineRunCount() <= 2 * names.size());
  return 0;
}
