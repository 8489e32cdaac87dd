// TaskNameRegex: the task name filter of a scheduler report.
//
// An operator narrows a report to the tasks whose names match a regular
// expression ("show agent task scheduler match REGEX"). One object lives on
// the stack of a snapshot: it is asked about every task name and about the
// identifier of every task-level history event. Many tasks share a name and
// the history repeats a few identifiers thousands of times, while the
// standard library's engine costs microseconds per run against tens of
// nanoseconds for a hash look-up; so each distinct string goes through the
// engine once and its one-byte outcome is cached.
//
// Matching is whole-string (std::regex_match, not regex_search) and case
// sensitive: "foo" does not select "foobar", ".*foo.*" does. The grammar is
// ECMAScript with default flags.
//
// match<N> hides the first N characters from the engine. N = 0 is for task
// names, N = 2 for history identifiers ("N foo": priority letter and a
// blank). Each N has its own cache, keyed by the whole string.
//
// Limits: the standard engine recurses per term and per character, so an
// expression of more than 1,024 bytes is refused as too complex and a name
// of more than 4,096 bytes matches nothing (a 64 KiB one overflowed the
// stack).
//
// States: built once from an expression, valid or not, and never recompiled;
// the caches only grow. An invalid expression matches nothing, and its
// compile error is written once to standard error at construction.
//
// Thread: the scheduler's thread; the caches are not locked. Allocation: the
// caches allocate per distinct string; the engine allocates per run.
#pragma once

#include <Kesto/Common/Export.h>

#include <Kesto/Core/String.h>
#include <Kesto/Core/Types.h>

#include <regex>
#include <tuple>
#include <unordered_map>

namespace Kesto {

class KESTO_EXPORT TaskNameRegex {
public:
  // The cached outcome for one string. A fresh map entry reads `unknown`;
  // any value beyond `notMatched` is corruption.
  enum class Match : U8 { unknown = 0, matched = 1, notMatched = 2 };
  using MatchCache = std::unordered_map<String, Match>;

  // The standard engine recurses per term of an expression and per
  // character of a name; these bounds keep both far inside a thread's stack.
  // A longer expression is invalid ("too complex"); a longer name matches
  // nothing.
  static constexpr U32 maxExpressionLength = 1024;
  static constexpr U32 maxNameLength = 4096;

  explicit TaskNameRegex(const String& expression);

  // Compiles `expression` (ECMAScript, global locale). On a compile error
  // writes the operator's line to standard error and gives an empty
  // expression, the engine's text and false. Errors other than a regex error
  // (out of memory) pass through.
  static std::tuple<std::regex, String, bool> initFromExpression(const String& expression);

  // Whether `name`, without its first N characters, matches the whole
  // expression. False for an invalid expression and for a name shorter than
  // N. Fills the cache of N.
  template <unsigned N>
  bool match(const String& name) const;

  bool valid = false;
  String error;
  String expression;
  std::regex regex;
  mutable MatchCache nameMatches;
  mutable MatchCache identifierMatches;

  // Times the engine ran, over both caches: one per distinct string at most.
  U64 engineRunCount() const noexcept { return engineRuns_; }

private:
  mutable U64 engineRuns_ = 0;

  template <unsigned N>
  MatchCache& cacheFor() const;
};

extern template KESTO_EXPORT bool TaskNameRegex::match<0>(const String&) const;
extern template KESTO_EXPORT bool TaskNameRegex::match<2>(const String&) const;

} // namespace Kesto
