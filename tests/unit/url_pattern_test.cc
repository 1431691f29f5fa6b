#include "dispatcher/url_pattern.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

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

TEST(UrlPatternTest, MatchesTheWholeSubject) {
  struct Case {
    std::string pattern, subject;
    bool matches;
  };
  const std::vector<Case> cases = {
      {"*.corp.test/*", "corp.test/", true}, {"*.corp.test/*", "a.b.corp.test/x/y?q=1/", true},
      {"*.corp.test/*", "xcorp.test/", true}, {"*.corp.test/*", "corp.test.other/", false},
      {"corp.test/*", "corp.test/any/path/", true}, {"corp.test/*", "intra.corp.test/", false},
      {"corp.test/*", "user@corp.test/", false}, {"corp.test/*", "corpxtest/", false},
      {"corp.test", "corp.test/", false}, {"corp.test/", "corp.test/x/", false},
      {"*/app/*", "corp.test/app/x/", true}, {"*/app/*", "corp.test/application/", false},
      // ASCII case only: the classifier lowers the rest of the URL itself.
      {"*.corp.TEST/app/*", "Intra.CORP.test/App/", true}, {"\xC3\x89" "cole.test/*", "\xC3\xA9" "cole.test/", false},
      // Every other operator keeps its meaning.
      {"corp.test/(app|web)/*", "corp.test/web/x/", true}, {"corp.test/(app|web)/*", "corp.test/mail/x/", false},
      {"^corp.test/$", "corp.test/", true}, {"ab+c/", "abbbc/", true}, {"ab?c/", "ac/", true},
      {"[a-c]x/", "dx/", false}, {"a{2}/", "aaa/", false}, {"(a)\\1/", "ab/", false},
      {"(?:(a)|b)\\1/", "b/", true},  // an unset group matches empty
      {"\\u0061/", "a/", true}, {"corp\\d/", "corp7/", true},
      // The expression is lowered too: "\W" acts as "\w", "\D" as "\d".
      {"corp\\Wtest/", "corpxtest/", true}, {"corp\\Wtest/", "corp-test/", false},
      {"corp\\D/", "corp7/", true}, {"\\U0061/", "a/", true},
      // Stars and dots never take a line break; "$" is only the very end.
      {"a*b/", "a\nb/", false}, {"a*b/", "a\rb/", false}, {"a[^x]b/", "a\nb/", true},
      {"x\na*b/", "x\na-b/", true}, {"a/$", "a/\n", false},
      // A pattern the matcher would give up on elsewhere answers normally.
      {"(a|aa)+/", "aaaa/", true}, {"(a|aa)+/", "aaac/", false},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(MatchUrlPattern(c.subject, c.pattern), c.matches) << c.pattern << " vs " << c.subject;
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

TEST(UrlPatternTest, WildcardFastPathAgreesWithTheExpressionLibrary) {
  const char* patterns[] = {
      "*",       "**",  "*.*", "*..*", "a*a",  "*a*a*", "*ab*ab*", "*.corp.test/*", "corp.test",
      "*/",      ".*",  "*.",  "a**b", "ab*",  "*ab",   "x.y",     "*.x*.",         "*/*",
      "*.a.*.b*", "",   "*/app/*",     "a*b*c*d/",    "*aa*aa/", "*.a*",
  };
  const char* subjects[] = {
      "",      "/",      "a",          "aa",          "aaa/",             "abab/", "abxab/",
      "ab/",   "corp.test/", "xcorp.test/", "corp.test.other/", ".a.b/", "a.b/", "x/y/",
      ".",     "..",     "abcd/",      "aaaa/",       "a.x.b/",           "x.y",   "xzy",
      "a\nb/", "a.b\r/", "AB/",
  };
  for (const char* pattern : patterns) {
    for (const char* subject : subjects) {
      internal::LoweredSubject lowered(subject);
      MatchResult expression = internal::ExpressionMatch(lowered, pattern, nullptr);
      std::optional<bool> plain = internal::PlainPatternMatch(lowered, pattern);
      if (!plain) {
        // Only a line break in the subject sends a starred pattern to the library.
        EXPECT_TRUE(lowered.has_line_break()) << pattern << " vs " << subject;
        continue;
      }
      EXPECT_EQ(*plain, expression == MatchResult::kMatch) << pattern << " vs " << subject;
    }
  }
}

TEST(UrlPatternTest, CheckCountsTheOffsetInTheExpressionAndAgreesWithTheMatcher) {
  EXPECT_EQ(CheckUrlPattern(".*[").offset, 7u);  // behind "\.(.*)["
  // Too large once compiled: invalid for the fast path as well.
  std::string huge;
  while (huge.size() < 8000) huge += "*.";
  EXPECT_FALSE(CheckUrlPattern(huge).valid);
  EXPECT_EQ(TryMatchUrlPattern("a/", huge, nullptr), MatchResult::kInvalidPattern);
}

}  // namespace
}  // namespace dispatcher
