// URL patterns: "*" for any run of characters, "." for a literal dot, "*."
// for an optional dot or slash; every other expression operator keeps its
// meaning. A pattern must match the whole subject.
//
// Matching is case-insensitive for ASCII only: pattern (after translation)
// and subject are lowered byte by byte, so an upper-case escape such as "\W"
// acts as "\w". A "." or "*" in the expression never matches CR or LF.
#ifndef DISPATCHER_URL_PATTERN_H_
#define DISPATCHER_URL_PATTERN_H_

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace dispatcher {

// The expression a pattern stands for, before lower-casing.
std::string TranslateUrlPattern(const std::string& pattern);

struct PatternCheck {
  bool valid = true;
  std::string error;  // the expression library's message
  size_t offset = 0;  // in the translated expression
};

// Whether the translated pattern compiles.
PatternCheck CheckUrlPattern(const std::string& pattern);

enum class MatchResult { kMatch, kNoMatch, kInvalidPattern };

// Matches without ending the process; an invalid pattern is a result, *check
// (optional) receives the details. A match that the expression library gives
// up on (its limits) counts as a match, with one ERROR line naming the
// pattern.
MatchResult TryMatchUrlPattern(const std::string& subject, const std::string& pattern,
                               PatternCheck* check);

// True when the whole subject matches; ends the process (abort) on a pattern
// that is not a valid expression.
bool MatchUrlPattern(const std::string& subject, const std::string& pattern);

namespace internal {

// A subject lowered once and matched against many patterns, so that each
// pattern costs no copy of a long URL.
class LoweredSubject {
 public:
  // Lowers ASCII letters of `subject` in place.
  explicit LoweredSubject(std::string subject);
  const std::string& text() const { return text_; }
  // Hands the text over; the subject is empty afterwards.
  std::string TakeText() { return std::move(text_); }
  bool has_line_break() const { return has_line_break_; }

 private:
  std::string text_;
  bool has_line_break_ = false;
};

// TryMatchUrlPattern on a prepared subject.
MatchResult MatchLoweredSubject(const LoweredSubject& subject, const std::string& pattern,
                                PatternCheck* check);

// Whether the pattern holds no expression operator, so that it translates to
// literals, "\.", "(.*)" and "[./]?" only and is short enough to be sure to
// compile.
bool IsPlainUrlPattern(const std::string& pattern);

// The wildcard matcher used for plain patterns: nullopt when the pattern is
// not plain or the subject holds CR or LF (which "(.*)" does not match).
std::optional<bool> PlainPatternMatch(const LoweredSubject& subject, const std::string& pattern);

// Always the expression library: what PlainPatternMatch must agree with.
MatchResult ExpressionMatch(const LoweredSubject& subject, const std::string& pattern,
                            PatternCheck* check);

// Replaces the backtracking budget (calls of the library's matcher: a base
// plus a share per subject byte); fuzzers lower it to spend their time on
// more inputs. Not for use while another thread matches.
void SetBacktrackingBudgetForTesting(uint32_t base, uint32_t per_byte);

// Ends the process for a pattern that is not a valid expression, naming it
// and the library's message on standard error.
[[noreturn]] void AbortOnInvalidPattern(const std::string& pattern, const PatternCheck& check);

}  // namespace internal

}  // namespace dispatcher

#endif  // DISPATCHER_URL_PATTERN_H_
