// The task name filter: compile, the operator's line on standard error,
// whole-string matching, the hidden prefix of history identifiers and the
// two caches that keep the engine off the hot path of a report.
#include <Kesto/Core/Exception.h>
#include <Kesto/Report/TaskNameRegex.h>
#include <Kesto/Scheduler/TaskScheduler.h>

#include <KestoSupport/AssertMessage.h>

#include <gtest/gtest.h>

#include <string>

using namespace Kesto;
using Match = TaskNameRegex::Match;

namespace {

const std::string invalidLinePrefix =
    "'show agent task scheduler match REGEX' supplied with invalid regular expression '";

// The engine's own text for an expression, as the standard library gives it.
std::string engineError(const char* expression) {
  try {
    std::regex r(expression, std::regex_constants::ECMAScript);
  } catch (const std::regex_error& e) {
    return e.what();
  }
  return {};
}

} // namespace

TEST(TaskNameRegex, ValidExpressionCompilesWithoutError) {
  testing::internal::CaptureStderr();
  TaskNameRegex r("Bgp.*");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_TRUE(r.valid);
  EXPECT_EQ(r.error, "");
  EXPECT_EQ(r.expression, "Bgp.*");
  EXPECT_EQ(r.regex.flags(), std::regex_constants::ECMAScript);
}

TEST(TaskNameRegex, EmptyExpressionIsValidAndMatchesOnlyTheEmptyName) {
  TaskNameRegex r("");
  EXPECT_TRUE(r.valid);
  EXPECT_EQ(r.error, "");
  EXPECT_TRUE(r.match<0>(""));
  EXPECT_FALSE(r.match<0>("anything"));
}

TEST(TaskNameRegex, InvalidExpressionWritesOneLineAndCarriesTheEngineText) {
  const std::string expected = engineError("(");
  ASSERT_FALSE(expected.empty());
  testing::internal::CaptureStderr();
  TaskNameRegex r("(");
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(err, invalidLinePrefix + "(' raised exception: " + expected + "\n");
  EXPECT_FALSE(r.valid);
  EXPECT_EQ(r.error.str(), expected);
  EXPECT_EQ(r.expression, "(");
  // The stand-in expression keeps the grammar flag and matches nothing.
  EXPECT_EQ(r.regex.flags(), std::regex_constants::ECMAScript);
  EXPECT_EQ(r.regex.mark_count(), 0u);
}

TEST(TaskNameRegex, InvalidExpressionMatchesNothingAndCachesNothing) {
  testing::internal::CaptureStderr();
  TaskNameRegex r("[a-");
  testing::internal::GetCapturedStderr();
  ASSERT_FALSE(r.valid);
  EXPECT_FALSE(r.match<0>("a"));
  EXPECT_FALSE(r.match<2>("N a"));
  EXPECT_TRUE(r.nameMatches.empty());
  EXPECT_TRUE(r.identifierMatches.empty());
}

TEST(TaskNameRegex, InitFromExpressionGivesTheTriple) {
  testing::internal::CaptureStderr();
  auto [good, goodError, goodValid] = TaskNameRegex::initFromExpression("a|b");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_TRUE(goodValid);
  EXPECT_EQ(goodError, "");
  EXPECT_TRUE(std::regex_match("b", good));

  testing::internal::CaptureStderr();
  auto [bad, badError, badValid] = TaskNameRegex::initFromExpression("a{2,1}");
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            invalidLinePrefix + "a{2,1}' raised exception: " + engineError("a{2,1}") + "\n");
  EXPECT_FALSE(badValid);
  EXPECT_EQ(badError.str(), engineError("a{2,1}"));
  EXPECT_EQ(bad.flags(), std::regex_constants::ECMAScript);
}

TEST(TaskNameRegex, MatchingIsWholeStringNotSearch) {
  TaskNameRegex r("foo");
  EXPECT_TRUE(r.match<0>("foo"));
  EXPECT_FALSE(r.match<0>("foobar"));
  EXPECT_FALSE(r.match<0>("barfoo"));
  TaskNameRegex substring(".*foo.*");
  EXPECT_TRUE(substring.match<0>("foobar"));
  EXPECT_TRUE(substring.match<0>("barfoo"));
}

TEST(TaskNameRegex, MatchingIsCaseSensitive) {
  TaskNameRegex r("Keepalive");
  EXPECT_TRUE(r.match<0>("Keepalive"));
  EXPECT_FALSE(r.match<0>("keepalive"));
}

TEST(TaskNameRegex, HistoryIdentifierIsTestedWithoutItsPriorityLetter) {
  TaskNameRegex r(".*N.*");
  // "N foo" is a normal-priority task called foo: the letter is not part of
  // the name and must not make it match.
  EXPECT_FALSE(r.match<2>("N foo"));
  EXPECT_TRUE(r.match<2>("H Nexthop"));
  // The same expression over the whole string would have matched.
  EXPECT_TRUE(r.match<0>("N foo"));
}

TEST(TaskNameRegex, IdentifierShorterThanItsPrefixIsTestedAsEmpty) {
  TaskNameRegex empty("");
  EXPECT_TRUE(empty.match<2>("N"));
  TaskNameRegex any(".+");
  EXPECT_FALSE(any.match<2>("N"));
}

TEST(TaskNameRegex, SameTextFillsTwoIndependentCacheEntries) {
  TaskNameRegex r("N foo");
  EXPECT_TRUE(r.match<0>("N foo"));
  EXPECT_FALSE(r.match<2>("N foo"));
  ASSERT_EQ(r.nameMatches.size(), 1u);
  ASSERT_EQ(r.identifierMatches.size(), 1u);
  EXPECT_EQ(r.nameMatches.at("N foo"), Match::matched);
  EXPECT_EQ(r.identifierMatches.at("N foo"), Match::notMatched);
}

TEST(TaskNameRegex, CachedOutcomeIsUsedInsteadOfTheEngine) {
  TaskNameRegex r("Rib.*");
  EXPECT_TRUE(r.match<0>("RibOut"));
  EXPECT_EQ(r.nameMatches.at("RibOut"), Match::matched);
  // Turn the cached outcome round: a second task of the same name must get
  // the cached answer, which the engine would never give. So two tasks of
  // one name cost one engine run.
  EXPECT_EQ(r.engineRunCount(), 1u);
  r.nameMatches.at("RibOut") = Match::notMatched;
  EXPECT_FALSE(r.match<0>("RibOut"));
  r.identifierMatches["L Other"] = Match::matched;
  EXPECT_TRUE(r.match<2>("L Other"));
  EXPECT_EQ(r.nameMatches.size(), 1u);
  EXPECT_EQ(r.engineRunCount(), 1u);
}

TEST(TaskNameRegex, UnknownEntryIsRunThroughTheEngine) {
  TaskNameRegex r("a+");
  r.nameMatches["aaa"] = Match::unknown;
  EXPECT_TRUE(r.match<0>("aaa"));
  EXPECT_EQ(r.nameMatches.at("aaa"), Match::matched);
}

TEST(TaskNameRegex, CorruptCacheEntryFailsTheAssertion) {
  TaskNameRegex r("a+");
  r.nameMatches["aaa"] = static_cast<Match>(3);
  EXPECT_EQ(KestoTest::assertMessage(KestoTest::assertText([&] { r.match<0>("aaa"); })),
            "TaskNameRegex::match() unexpected regexMatch");
  EXPECT_EQ(r.nameMatches.at("aaa"), static_cast<Match>(3));
}

TEST(TaskNameRegex, ValidateGivesNothingForAValidExpression) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(TaskScheduler::validateTaskNameRegex("Bgp[0-9]+"), std::nullopt);
  EXPECT_EQ(TaskScheduler::validateTaskNameRegex(""), std::nullopt);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(TaskNameRegex, ValidateGivesTheEngineTextAndWritesTheSameLine) {
  testing::internal::CaptureStderr();
  const std::optional<String> error = TaskScheduler::validateTaskNameRegex("(");
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            invalidLinePrefix + "(' raised exception: " + engineError("(") + "\n");
  ASSERT_TRUE(error.has_value());
  EXPECT_EQ(error->str(), engineError("("));
}

TEST(TaskNameRegex, ExpressionBeyondTheLimitIsRefusedAsTooComplex) {
  const std::string tooLong(TaskNameRegex::maxExpressionLength + 1, 'x');
  const std::string complexity = std::regex_error(std::regex_constants::error_complexity).what();
  testing::internal::CaptureStderr();
  TaskNameRegex r{String(tooLong)};
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            invalidLinePrefix + tooLong + "' raised exception: " + complexity + "\n");
  EXPECT_FALSE(r.valid);
  EXPECT_EQ(r.error.str(), complexity);
  // 64 KiB of open parentheses used to overflow the stack in the compiler.
  testing::internal::CaptureStderr();
  TaskNameRegex nested{String(std::string(64 * 1024, '('))};
  testing::internal::GetCapturedStderr();
  EXPECT_FALSE(nested.valid);
  // At the limit the expression compiles.
  TaskNameRegex atLimit{String(std::string(TaskNameRegex::maxExpressionLength, 'x'))};
  EXPECT_TRUE(atLimit.valid);
  EXPECT_TRUE(atLimit.match<0>(String(std::string(TaskNameRegex::maxExpressionLength, 'x'))));
}

TEST(TaskNameRegex, NameBeyondTheLimitMatchesNothingInsteadOfOverflowingTheStack) {
  TaskNameRegex any(".*");
  const String atLimit(std::string(TaskNameRegex::maxNameLength, 'g'));
  const String beyond(std::string(64 * 1024, 'g'));
  EXPECT_TRUE(any.match<0>(atLimit));
  EXPECT_FALSE(any.match<0>(beyond));
  EXPECT_FALSE(any.match<2>(beyond));
  EXPECT_EQ(any.nameMatches.at(beyond), Match::notMatched);
  EXPECT_EQ(any.engineRunCount(), 1u);
}
