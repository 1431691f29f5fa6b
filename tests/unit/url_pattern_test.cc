#include "dispatcher/url_pattern.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "base/logging.h"

namespace dispatcher {
namespace {

std::vector<std::pair<int, std::string>>* g_lines = nullptr;

bool CaptureLine(int severity, const char*, int, size_t message_start, const std::string& line) {
  std::string message = line.substr(message_start);
  if (!message.empty() && message.back() == '\n') message.pop_back();
  g_lines->emplace_back(severity, message);
  return true;
}

class CapturedLog {
 public:
  CapturedLog() : saved_level_(logging::GetMinimumLogLevel()) {
    g_lines = &lines_;
    logging::SetMinimumLogLevel(-1);
    logging::SetLogMessageHandler(&CaptureLine);
  }
  ~CapturedLog() {
    logging::SetLogMessageHandler(nullptr);
    logging::SetMinimumLogLevel(saved_level_);
    g_lines = nullptr;
  }
  const std::vector<std::pair<int, std::string>>& lines() const { return lines_; }

 private:
  int saved_level_;
  std::vector<std::pair<int, std::string>> lines_;
};

TEST(TranslateUrlPatternTest, TranslatesDotsAndStarsByteForByte) {
  EXPECT_EQ(TranslateUrlPattern("*.corp.test/*"), "(.*)[./]?corp\\.test/(.*)");
  EXPECT_EQ(TranslateUrlPattern("corp.test/*"), "corp\\.test/(.*)");
  EXPECT_EQ(TranslateUrlPattern("corp.test"), "corp\\.test");
  EXPECT_EQ(TranslateUrlPattern("*/app/*"), "(.*)/app/(.*)");
  EXPECT_EQ(TranslateUrlPattern(""), "");
  EXPECT_EQ(TranslateUrlPattern("."), "\\.");
  EXPECT_EQ(TranslateUrlPattern(".*"), "\\.(.*)");
  EXPECT_EQ(TranslateUrlPattern("*.."), "(.*)[./]?\\.");
  EXPECT_EQ(TranslateUrlPattern("**."), "(.*)(.*)[./]?");
  // A backslash of the pattern stays and the dot behind it gets its own.
  EXPECT_EQ(TranslateUrlPattern("a\\.b"), "a\\\\.b");
  // Everything else is kept as written, case included.
  EXPECT_EQ(TranslateUrlPattern("^A+(b|C)?[d-f]{2}$"), "^A+(b|C)?[d-f]{2}$");
}

struct TableCase {
  const char* pattern;
  const char* subject;
  bool matches;
};

TEST(MatchUrlPatternTest, TranslationTableExamples) {
  const TableCase cases[] = {
      {"*.corp.test/*", "corp.test/", true},
      {"*.corp.test/*", "intra.corp.test/", true},
      {"*.corp.test/*", "a.b.corp.test/x/y?q=1/", true},
      {"*.corp.test/*", "xcorp.test/", true},
      {"*.corp.test/*", "corp.test.other/", false},
      {"corp.test/*", "corp.test/", true},
      {"corp.test/*", "corp.test/any/path/", true},
      {"corp.test/*", "intra.corp.test/", false},
      {"corp.test/*", "user@corp.test/", false},
      {"corp.test", "corp.test/", false},
      {"corp.test", "corp.test", true},
      {"*/app/*", "corp.test/app/x/", true},
      {"*/app/*", "corp.test/application/", false},
      // A literal dot is not "any character".
      {"corp.test/*", "corpxtest/", false},
      // The whole subject must match, not a part of it.
      {"corp.test/", "corp.test/x/", false},
      {"intra.corp.test/", "intra.corp.test/", true},
  };
  for (const TableCase& c : cases) {
    EXPECT_EQ(MatchUrlPattern(c.subject, c.pattern), c.matches)
        << c.pattern << " vs " << c.subject;
  }
}

TEST(MatchUrlPatternTest, IgnoresAsciiCaseOfPatternAndSubject) {
  EXPECT_TRUE(MatchUrlPattern("Intra.CORP.test/App/", "*.corp.TEST/app/*"));
  EXPECT_TRUE(MatchUrlPattern("intra.corp.test/app/", "*.CORP.test/APP/*"));
  // Only ASCII is lowered here: the classifier lowers the URL beforehand.
  EXPECT_FALSE(MatchUrlPattern("\xC3\xA9" "cole.test/", "\xC3\x89" "cole.test/*"));
  EXPECT_TRUE(MatchUrlPattern("\xC3\xA9" "cole.test/", "\xC3\xA9" "cole.test/*"));
}

TEST(MatchUrlPatternTest, LowersExactlyTheAsciiCapitalsOfEveryByteValue) {
  // Every byte value at every offset within eight-byte words.
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
  EXPECT_TRUE(internal::LoweredSubject(all).has_line_break());
  EXPECT_FALSE(internal::LoweredSubject("ABC/def").has_line_break());
}

TEST(MatchUrlPatternTest, ExpressionOperatorsKeepTheirMeaning) {
  const TableCase cases[] = {
      {"corp.test/(app|web)/*", "corp.test/web/x/", true},
      {"corp.test/(app|web)/*", "corp.test/mail/x/", false},
      {"^corp.test/$", "corp.test/", true},
      {"ab+c/", "abbbc/", true},
      {"ab+c/", "ac/", false},
      {"ab?c/", "ac/", true},
      {"[a-c]x/", "bx/", true},
      {"[a-c]x/", "dx/", false},
      {"a{2}/", "aa/", true},
      {"a{2}/", "aaa/", false},
      {"a{2,}/", "aaaa/", true},
      {"(a)\\1/", "aa/", true},
      {"(a)\\1/", "ab/", false},
      // An unset group's back-reference matches the empty string.
      {"(?:(a)|b)\\1/", "b/", true},
      // \u with four hex digits is a character.
      {"\\u0061/", "a/", true},
      {"\\x61/", "a/", true},
      {"corp\\d/", "corp7/", true},
      {"corp\\s/", "corp /", true},
  };
  for (const TableCase& c : cases) {
    EXPECT_EQ(MatchUrlPattern(c.subject, c.pattern), c.matches)
        << c.pattern << " vs " << c.subject;
  }
}

TEST(MatchUrlPatternTest, UpperCaseEscapesActAsLowerCase) {
  // "\W" is lowered to "\w" together with the rest of the expression.
  EXPECT_TRUE(MatchUrlPattern("corpxtest/", "corp\\Wtest/"));
  EXPECT_FALSE(MatchUrlPattern("corp-test/", "corp\\Wtest/"));
  EXPECT_TRUE(MatchUrlPattern("corp7/", "corp\\D/"));
  EXPECT_FALSE(MatchUrlPattern("corpx/", "corp\\D/"));
  EXPECT_TRUE(MatchUrlPattern("a/", "\\U0061/"));
}

TEST(MatchUrlPatternTest, StarsAndDotsNeverMatchLineBreaks) {
  EXPECT_TRUE(MatchUrlPattern("a-b/", "a*b/"));
  EXPECT_FALSE(MatchUrlPattern("a\nb/", "a*b/"));
  EXPECT_FALSE(MatchUrlPattern("a\rb/", "a*b/"));
  // A negated class is no dot: it takes line breaks.
  EXPECT_TRUE(MatchUrlPattern("a\nb/", "a[^x]b/"));
  // A line break written in the pattern itself matches one.
  EXPECT_TRUE(MatchUrlPattern("a\nb/", "a\nb/"));
  EXPECT_TRUE(MatchUrlPattern("x\na-b/", "x\na*b/"));
  EXPECT_FALSE(MatchUrlPattern("x\na\nb/", "x\na*b/"));
  // "$" is only the very end, never before a final line break.
  EXPECT_FALSE(MatchUrlPattern("a/\n", "a/$"));
}

TEST(MatchUrlPatternTest, WildcardAndExpressionMatchersAgree) {
  const char* patterns[] = {
      "*",         "**",         "*.*",         "*..*",        "a*a",          "*a*a*",
      "*ab*ab*",   "*.corp.test/*", "corp.test",  "*/",          ".*",           "*.",
      "a**b",      "*.a.*.b*",   "ab*",         "*ab",         "x.y",          "*.x*.",
      "*/*",       "",           "*/app/*",     "a*b*c*d/",    "*aa*aa/",      "*.a*",
  };
  const char* subjects[] = {
      "",         "/",          "a",            "aa",           "aaa/",           "abab/",
      "abxab/",   "ab/",        "corp.test/",   "xcorp.test/",  "corp.test.other/", ".a.b/",
      "a.b/",     "x/y/",       ".",            "..",           "abcd/",           "aaaa/",
      "a.x.b/",   "x.y",        "xzy",          "a\nb/",        "a.b\r/",          "AB/",
  };
  for (const char* pattern : patterns) {
    for (const char* subject : subjects) {
      internal::LoweredSubject lowered(subject);
      MatchResult expression = internal::ExpressionMatch(lowered, pattern, nullptr);
      std::optional<bool> plain = internal::PlainPatternMatch(lowered, pattern);
      if (!plain) {
        // Only a line break in the subject makes a starred pattern fall back.
        EXPECT_TRUE(lowered.has_line_break()) << pattern << " vs " << subject;
        continue;
      }
      EXPECT_EQ(*plain, expression == MatchResult::kMatch) << pattern << " vs " << subject;
      EXPECT_EQ(TryMatchUrlPattern(subject, pattern, nullptr), expression)
          << pattern << " vs " << subject;
    }
  }
}

TEST(MatchUrlPatternTest, OnlyPatternsWithoutOperatorsArePlain) {
  EXPECT_TRUE(internal::IsPlainUrlPattern("*.corp.test/*"));
  EXPECT_TRUE(internal::IsPlainUrlPattern("https-corp.test/a=b&c;d,e%20f#g:*"));
  for (const char* pattern : {"a\\.", "^a", "a$", "[a]", "a]", "a|b", "(a", "a)", "a?", "a+",
                              "a{1}", "a}"}) {
    EXPECT_FALSE(internal::IsPlainUrlPattern(pattern)) << pattern;
  }
}

TEST(MatchUrlPatternTest, TwoMegabyteSubjects) {
  std::string path(2 * 1024 * 1024, 'a');
  std::string subject = "intra.corp.test/" + path + "/";
  EXPECT_TRUE(MatchUrlPattern(subject, "*.corp.test/*"));
  EXPECT_TRUE(MatchUrlPattern(subject, "intra.corp.test/*a/"));
  EXPECT_FALSE(MatchUrlPattern(subject, "*.other.test/*"));
  EXPECT_FALSE(MatchUrlPattern(subject, "*/b*"));
  // Through the expression library: an operator in the pattern.
  EXPECT_TRUE(MatchUrlPattern(subject, "(intra|extra)*.corp.test/*"));
  EXPECT_FALSE(MatchUrlPattern(subject, "(intra|extra)*.corp.test/*b/"));
  // A line break sends even a plain pattern to the expression library.
  std::string broken = subject + "\n/";
  EXPECT_FALSE(MatchUrlPattern(broken, "*.corp.test/*"));
  EXPECT_TRUE(MatchUrlPattern(broken, "*.corp.test/*\n/"));
}

TEST(CheckUrlPatternTest, ReportsTheLibraryMessageAndOffset) {
  PatternCheck check = CheckUrlPattern("(");
  EXPECT_FALSE(check.valid);
  EXPECT_EQ(check.error, "missing closing parenthesis");
  EXPECT_EQ(check.offset, 1u);

  // The offset counts in the translated expression: "\.(.*)[" is 7 bytes.
  check = CheckUrlPattern(".*[");
  EXPECT_FALSE(check.valid);
  EXPECT_EQ(check.offset, 7u);

  check = CheckUrlPattern("a{2,1}/");
  EXPECT_FALSE(check.valid);
  EXPECT_FALSE(check.error.empty());

  EXPECT_TRUE(CheckUrlPattern("*.corp.test/*").valid);
  EXPECT_TRUE(CheckUrlPattern("corp.test/(app|web)/*").valid);
  EXPECT_TRUE(CheckUrlPattern("").valid);
}

TEST(CheckUrlPatternTest, OversizedPlainPatternIsInvalidEverywhere) {
  // Long enough that the compiled expression exceeds the library's limit.
  std::string pattern;
  while (pattern.size() < 8000) pattern += "*.";
  PatternCheck check = CheckUrlPattern(pattern);
  EXPECT_FALSE(check.valid);
  PatternCheck match_check;
  EXPECT_EQ(TryMatchUrlPattern("a/", pattern, &match_check), MatchResult::kInvalidPattern);
  EXPECT_EQ(match_check.error, check.error);
}

TEST(TryMatchUrlPatternTest, InvalidPatternIsAResult) {
  PatternCheck check;
  EXPECT_EQ(TryMatchUrlPattern("corp.test/", "corp.test/(", &check), MatchResult::kInvalidPattern);
  EXPECT_FALSE(check.valid);
  EXPECT_EQ(check.error, "missing closing parenthesis");
  EXPECT_EQ(TryMatchUrlPattern("corp.test/", "corp.test/[", nullptr),
            MatchResult::kInvalidPattern);
  // A check reused for a good pattern is reset.
  EXPECT_EQ(TryMatchUrlPattern("corp.test/", "corp.test/*", &check), MatchResult::kMatch);
  EXPECT_TRUE(check.valid);
  EXPECT_TRUE(check.error.empty());
}

TEST(TryMatchUrlPatternTest, GivingUpCountsAsAMatchWithOneErrorLine) {
  CapturedLog log;
  // Exponential backtracking: the library's limits end it.
  std::string subject = std::string(64, 'a') + "c/";
  const std::string pattern = "(a|aa)+/";
  EXPECT_EQ(TryMatchUrlPattern(subject, pattern, nullptr), MatchResult::kMatch);
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(log.lines()[0].first, logging::LOG_ERROR);
  EXPECT_EQ(log.lines()[0].second,
            "Pattern matching gave up, treating URL as a work URL. Pattern : (a|aa)+/");
  // The same pattern is answered normally where it has no trouble.
  EXPECT_EQ(TryMatchUrlPattern("aaaa/", pattern, nullptr), MatchResult::kMatch);
  EXPECT_EQ(TryMatchUrlPattern("aaac/", pattern, nullptr), MatchResult::kNoMatch);
  EXPECT_EQ(log.lines().size(), 1u);
}

TEST(TryMatchUrlPatternTest, DeepRepetitionOverLongSubjectGivesUp) {
  CapturedLog log;
  std::string subject(2 * 1024 * 1024, 'a');
  subject += "c/";
  EXPECT_EQ(TryMatchUrlPattern(subject, "(a)+/", nullptr), MatchResult::kMatch);
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(log.lines()[0].first, logging::LOG_ERROR);
}

TEST(MatchUrlPatternDeathTest, InvalidPatternEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(MatchUrlPattern("corp.test/", "("), "Invalid URL pattern \"\\(\"");
  EXPECT_DEATH(MatchUrlPattern("corp.test/", "*.corp.test/[a-"), "missing terminating ]");
}

}  // namespace
}  // namespace dispatcher
