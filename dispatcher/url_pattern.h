// URL patterns: "*" for any run of characters, "." for a literal dot, "*."
// for an optional dot or slash; every other character keeps its meaning in
// the ECMAScript grammar of the C++ standard library's <regex> (see
// ecmascript_regex.h). A pattern must match the whole subject.
//
// Matching is case-insensitive for ASCII only: pattern (after translation)
// and subject are lowered byte by byte, so an upper-case escape such as "\W"
// acts as "\w". A "." or "*" in the expression never matches CR or LF.
#ifndef DISPATCHER_URL_PATTERN_H_
#define DISPATCHER_URL_PATTERN_H_

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace dispatcher {

// The expression a pattern stands for, before lower-casing.
std::string TranslateUrlPattern(const std::string& pattern);

struct PatternCheck {
  bool valid = true;
  std::string error;  // what is wrong, in words
  size_t offset = 0;  // in the translated expression
};

// Whether the lowered translation is a valid expression.
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

// What matching needs besides the pattern: the expression library's match
// context (limits, callouts) and match data, kept for the next match. Not
// shared between threads.
class MatchScratch {
 public:
  MatchScratch();
  ~MatchScratch();
  MatchScratch(const MatchScratch&) = delete;
  MatchScratch& operator=(const MatchScratch&) = delete;

 private:
  friend class PreparedUrlPattern;
  struct Data;
  std::unique_ptr<Data> data_;
};

// A pattern translated and checked once, then matched against any number of
// subjects. Patterns that amount to literal runs around stars are matched by
// a wildcard matcher; the others by the expression library, compiled once,
// when the first subject starts as their matches must.
class PreparedUrlPattern {
 public:
  // `pattern` must outlive the prepared pattern.
  explicit PreparedUrlPattern(std::string_view pattern);
  ~PreparedUrlPattern();
  PreparedUrlPattern(PreparedUrlPattern&&) noexcept;
  PreparedUrlPattern& operator=(PreparedUrlPattern&&) noexcept;

  std::string_view pattern() const { return pattern_; }
  const PatternCheck& check() const;
  // Valid and matched without the expression library (unless the subject
  // holds CR or LF).
  bool is_wildcard() const { return run_count_ > 0; }

  // kInvalidPattern when the pattern is not valid.
  MatchResult Match(const LoweredSubject& subject, MatchScratch& scratch) const;
  // Always the expression library: what the wildcard matcher must agree with.
  MatchResult MatchExpression(const LoweredSubject& subject, MatchScratch& scratch) const;
  // Whether the library compiles the expression (a wildcard pattern is valid
  // without compiling it).
  bool ExpressionCompiles() const { return check().valid && Compile(nullptr); }

 private:
  // Literal runs around the stars (one more than there are stars): parts of
  // the pattern itself, or of Extra::runs_text when they are not (upper-case
  // letters, or a pattern with operators).
  struct Run {
    uint32_t offset;
    uint32_t length;
  };
  // What only some patterns need: kept apart so that the many plain ones stay
  // small.
  struct Extra;
  Extra& extra() const;
  void AddRun(Run run);
  void SetRuns(const std::vector<std::string>& runs);
  const Run* runs() const;
  // Compiles the expression once; false with *error (optional) set when the
  // library refuses it.
  bool Compile(std::string* error) const;

  std::string_view pattern_;
  // Most patterns have a few stars: their runs need no allocation.
  static constexpr uint32_t kInlineRuns = 4;
  Run inline_runs_[kInlineRuns];
  uint32_t run_count_ = 0;
  bool runs_in_pattern_ = false;
  bool has_star_ = false;
  // Filled in lazily, also while matching.
  mutable std::unique_ptr<Extra> extra_;
};

// Whether the pattern holds no expression operator but "?" or "+" (possibly
// followed by "?") right behind a star, so that it translates to literals,
// "\.", "(.*)" repeated or optional, and "[./]?" only, and is short enough to
// be sure to compile.
bool IsPlainUrlPattern(std::string_view pattern);

// Replaces the limits after which the expression library gives up (the
// number of backtracking steps and the depth of nested backtracking); fuzzers
// lower them to spend their time on more inputs. Not for use while another
// thread matches.
void SetMatchLimitsForTesting(uint32_t match_limit, uint32_t depth_limit);

// Ends the process for a pattern that is not a valid expression, naming it
// and the reason on standard error.
[[noreturn]] void AbortOnInvalidPattern(const std::string& pattern, const PatternCheck& check);

}  // namespace internal

}  // namespace dispatcher

#endif  // DISPATCHER_URL_PATTERN_H_
