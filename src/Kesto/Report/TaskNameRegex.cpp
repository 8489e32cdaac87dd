#include <Kesto/Report/TaskNameRegex.h>

#include <Kesto/Debug/Trace.h>
#include <Kesto/Scheduler/TaskScheduler.h>

#include <fmt/format.h>

#include <cstdio>

namespace Kesto {

namespace {
constexpr const char* className = "TaskNameRegex";
constexpr auto grammar = std::regex_constants::ECMAScript;
} // namespace

TaskNameRegex::TaskNameRegex(const String& expr) : expression(expr) {
  std::tie(regex, error, valid) = initFromExpression(expression);
}

std::tuple<std::regex, String, bool> TaskNameRegex::initFromExpression(const String& expr) {
  try {
    // The standard library's compiler recurses once per term: a 64 KiB
    // expression overflowed the 8 MiB stack of the main thread. Anything
    // longer than an operator would type is refused as too complex, with
    // the engine's own words for that.
    if (expr.size() > maxExpressionLength)
      throw std::regex_error(std::regex_constants::error_complexity);
    return {std::regex(expr.begin(), expr.end(), grammar), String(), true};
  } catch (const std::regex_error& e) {
    // One line for the operator, whole or not at all: the report that follows
    // says the same, but a log of standard error is often all there is.
    fmt::print(stderr,
               "'show agent task scheduler match REGEX' supplied with invalid regular expression '{}' raised "
               "exception: {}\n",
               expr.view(), e.what());
    std::fflush(stderr);
    // A default-constructed expression carries the ECMAScript flag already
    // and, unlike a compiled empty one, matches nothing.
    static_assert(grammar == std::regex_constants::ECMAScript);
    return {std::regex(), String(e.what()), false};
  }
}

template <>
TaskNameRegex::MatchCache& TaskNameRegex::cacheFor<0>() const {
  return nameMatches;
}

template <>
TaskNameRegex::MatchCache& TaskNameRegex::cacheFor<2>() const {
  return identifierMatches;
}

template <unsigned N>
bool TaskNameRegex::match(const String& name) const {
  if (!valid)
    return false;
  Match& cached = cacheFor<N>()[name];
  switch (cached) {
  case Match::matched:
    return true;
  case Match::notMatched:
    return false;
  case Match::unknown:
    break;
  default:
    KESTO_FAIL(className, "unexpected regexMatch");
  }
  // The engine's matcher recurses once per character: a 64 KiB name
  // overflowed the 8 MiB stack. No filter selects a name longer than that
  // limit, so a task cannot crash the report by its name.
  if (name.size() > maxNameLength) {
    cached = Match::notMatched;
    return false;
  }
  const char* first = name.begin() + std::min<U32>(N, name.size());
  ++engineRuns_;
  const bool matched = std::regex_match(first, name.end(), regex);
  cached = matched ? Match::matched : Match::notMatched;
  return matched;
}

template KESTO_EXPORT bool TaskNameRegex::match<0>(const String&) const;
template KESTO_EXPORT bool TaskNameRegex::match<2>(const String&) const;

// The scheduler's entry for callers that want to test an expression before
// asking for a report; it goes through the same compile and the same line
// on standard error.
std::optional<String> TaskScheduler::validateTaskNameRegex(const String& expression) {
  auto [compiled, error, valid] = TaskNameRegex::initFromExpression(expression);
  if (valid)
    return std::nullopt;
  return error;
}

} // namespace Kesto
