#include "dispatcher/url_pattern.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "tests/unit/dialect_table.h"

namespace dispatcher {
namespace {

TEST(UrlPatternTest, TranslatesDotsAndStarsByteForByte) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"*.corp.test/*", "(.*)[./]?corp\\.test/(.*)"}, {"corp.test/*", "corp\\.test/(.*)"},
      {"corp.test", "corp\\.test"}, {"*/app/*", "(.*)/app/(.*)"}, {"", ""}, {".*", "\\.(.*)"},
      {"*..", "(.*)[./]?\\."}, {"**.", "(.*)(.*)[./]?"},
      // A backslash of the pattern stays and the dot behind it gets its own.
      {"a\\.b", "a\\\\.b"}, {"^A+(b|C)?[d-f]{2}$", "^A+(b|C)?[d-f]{2}$"},
  };
  for (const auto& [pattern, expression] : cases) {
    EXPECT_EQ(TranslateUrlPattern(pattern), expression) << pattern;
  }
}

// Each row's answer is what the C++ library's std::regex (ECMAScript, whole
// match) gives for the lowered translation and the lowered subject.
TEST(UrlPatternTest, AnswersAsTheEcmaScriptGrammarOfTheCppLibrary) {
  for (const corvane_test::DialectRow& row : corvane_test::kDialectTable) {
    PatternCheck check;
    MatchResult result = TryMatchUrlPattern(row.subject, row.pattern, &check);
    MatchResult expected = row.answer == corvane_test::kInvalid ? MatchResult::kInvalidPattern
                           : row.answer == corvane_test::kMatch ? MatchResult::kMatch
                                                                : MatchResult::kNoMatch;
    EXPECT_EQ(result, expected) << row.pattern << " vs " << row.subject << ": " << check.error;
    EXPECT_EQ(check.valid, row.answer != corvane_test::kInvalid) << row.pattern;
  }
}

TEST(UrlPatternTest, LowersExactlyTheAsciiCapitalsOfEveryByteAtEveryOffset) {
  std::string all;
  for (int round = 0; round < 9; ++round) {
    all += std::string(static_cast<size_t>(round), '-');
    for (int b = 0; b < 256; ++b) all += static_cast<char>(b);
  }
  std::string expected = all;
  for (char& c : expected) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + ('a' - 'A'));
  }
  EXPECT_EQ(internal::LoweredSubject(all).text(), expected);
}

TEST(UrlPatternTest, WildcardMatcherAgreesWithTheExpressionLibrary) {
  // Plain patterns, and patterns whose operators only spell stars again.
  const char* wildcards[] = {
      "*",       "**",  "*.*", "*..*", "a*a",  "*a*a*", "*ab*ab*", "*.corp.test/*", "corp.test",
      "*/",      ".*",  "*.",  "a**b", "ab*",  "*ab",   "x.y",     "*.x*.",         "*/*",
      "*.a.*.b*", "",   "*/app/*",     "a*b*c*d*/",   "*aa*aa/", "*.a*",         "ab*?*", "a*b?",
      "^*.a*$",  "(*)+a", "(a*)b",     "*[.]x?*",     "\\/*",
  };
  const char* others[] = {"a*b+", "(a|b)*", "a.?", "*\\b*", "(*)\\1"};
  const char* subjects[] = {
      "",      "/",      "a",          "aa",          "aaa/",             "abab/", "abxab/",
      "ab/",   "corp.test/", "xcorp.test/", "corp.test.other/", ".a.b/", "a.b/", "x/y/",
      ".",     "..",     "abcd/",      "aaaa/",       "a.x.b/",           "x.y",   "xzy",
      "a\nb/", "a.b\r/", "AB/",        "axb",         "./",
  };
  internal::MatchScratch scratch;
  for (const char* pattern : wildcards) {
    internal::PreparedUrlPattern prepared(pattern);
    ASSERT_TRUE(prepared.is_wildcard()) << pattern;
    EXPECT_TRUE(prepared.ExpressionCompiles()) << pattern;
    for (const char* subject : subjects) {
      internal::LoweredSubject lowered(subject);
      EXPECT_EQ(prepared.Match(lowered, scratch), prepared.MatchExpression(lowered, scratch))
          << pattern << " vs " << subject;
    }
  }
  for (const char* pattern : others) {
    EXPECT_FALSE(internal::PreparedUrlPattern(pattern).is_wildcard()) << pattern;
  }
}

TEST(UrlPatternTest, CheckNamesTheProblemAndItsOffsetInTheTranslation) {
  std::string deep;
  for (int i = 0; i < 201; ++i) deep += "(";  // one deeper than allowed
  std::string huge;  // valid, but too large for the expression library
  while (huge.size() < 8000) huge += "*.";
  const std::vector<std::tuple<std::string, std::string, size_t>> cases = {
      {".*[", "'[' without its ']'", 6},  // "\.(.*)["
      {"(?<=a)", "'(?' must be followed by ':', '=' or '!'", 1},
      {"a{2,1}", "repetition {n,m} with m smaller than n", 1},
      {"(a)\\2", "back-reference \\2 to a group not opened before it (1 there)", 3},
      {"[[:word:]]", "unknown character class name", 3}, {"a[[=a]", "missing '=]' for '[='", 2},
      {"a]", "']' outside a character class must be escaped", 1},
      {"\\4294967290", "back-reference number too large", 0},
      // Limits of our own, where the C++ library accepts more.
      {"a{70000}", "repetition counts above 65535 are not supported", 1},
      {deep, "groups nested more than 200 deep", 200},
  };
  for (const auto& [pattern, error, offset] : cases) {
    PatternCheck check = CheckUrlPattern(pattern);
    EXPECT_FALSE(check.valid) << pattern;
    EXPECT_EQ(check.error, error) << pattern;
    EXPECT_EQ(check.offset, offset) << pattern;
  }
  // Also when short: a counted repetition of a star's group is copied for each count.
  for (const std::string& large : {huge, std::string("a*{0,30000}/")}) {
    PatternCheck check = CheckUrlPattern(large);
    EXPECT_FALSE(check.valid) << large.substr(0, 20);
    EXPECT_EQ(check.error.rfind("too large for the expression library: ", 0), 0u) << check.error;
    EXPECT_EQ(TryMatchUrlPattern("a/", large, nullptr), MatchResult::kInvalidPattern);
  }
}

}  // namespace
}  // namespace dispatcher
