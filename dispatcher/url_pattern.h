// URL patterns: "*" for any run of characters, "." for a literal dot, "*."
// for an optional dot or slash; every other expression operator keeps its
// meaning. A pattern must match the whole subject.
#ifndef DISPATCHER_URL_PATTERN_H_
#define DISPATCHER_URL_PATTERN_H_

#include <string>

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

}  // namespace dispatcher

#endif  // DISPATCHER_URL_PATTERN_H_
