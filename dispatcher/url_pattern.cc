#include "dispatcher/url_pattern.h"

#include <pcre2.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <utility>

#include "base/logging.h"
#include "dispatcher/unicode.h"

namespace dispatcher {

namespace {

// Whole-string match with the options that bring the library closest to the
// ECMAScript grammar. UTF mode stays locked out: subjects are raw bytes.
constexpr uint32_t kCompileOptions = PCRE2_ANCHORED | PCRE2_ENDANCHORED | PCRE2_ALT_BSUX |
                                     PCRE2_MATCH_UNSET_BACKREF | PCRE2_DOLLAR_ENDONLY |
                                     PCRE2_NEVER_UTF | PCRE2_NEVER_UCP;
constexpr uint32_t kMatchOptions = PCRE2_ANCHORED | PCRE2_ENDANCHORED;

// Backtracking budget: a base for short URLs plus a share per subject byte,
// so that a long URL against an ordinary pattern completes, while a
// catastrophic pattern gives up in a fraction of a second.
uint32_t g_match_limit_base = 1000000;
uint32_t g_match_limit_per_byte = 4;
constexpr uint32_t kMatchLimitMax = 20000000;
// Nested backtracking frames; in KiB for the heap.
constexpr uint32_t kDepthLimit = 1000000;
constexpr uint32_t kHeapLimitKiB = 256 * 1024;

// Longer plain patterns still go to the library, so that one too large for
// its compiled form is invalid there as everywhere else.
constexpr size_t kMaxPlainPatternLength = 2048;

struct CodeDeleter {
  void operator()(pcre2_code* code) const { pcre2_code_free(code); }
};
struct CompileContextDeleter {
  void operator()(pcre2_compile_context* context) const { pcre2_compile_context_free(context); }
};
struct MatchContextDeleter {
  void operator()(pcre2_match_context* context) const { pcre2_match_context_free(context); }
};
struct MatchDataDeleter {
  void operator()(pcre2_match_data* data) const { pcre2_match_data_free(data); }
};
using CodePtr = std::unique_ptr<pcre2_code, CodeDeleter>;

std::string ErrorMessage(int error_code) {
  PCRE2_UCHAR buffer[256];
  int length = pcre2_get_error_message(error_code, buffer, sizeof(buffer));
  if (length < 0) return "unknown error " + std::to_string(error_code);
  return std::string(reinterpret_cast<const char*>(buffer), static_cast<size_t>(length));
}

// Compiles the lowered translation; null with *check filled when invalid.
CodePtr Compile(const std::string& pattern, PatternCheck* check) {
  std::string expression = TranslateUrlPattern(pattern);
  LowerAsciiInPlace(expression);
  std::unique_ptr<pcre2_compile_context, CompileContextDeleter> context(
      pcre2_compile_context_create(nullptr));
  if (context) {
    // "." must not match CR or LF, as in ECMAScript.
    pcre2_set_newline(context.get(), PCRE2_NEWLINE_ANYCRLF);
  }
  int error_code = 0;
  PCRE2_SIZE error_offset = 0;
  CodePtr code(pcre2_compile(reinterpret_cast<PCRE2_SPTR>(expression.data()), expression.size(),
                             kCompileOptions, &error_code, &error_offset, context.get()));
  if (!code && check) {
    check->valid = false;
    check->error = ErrorMessage(error_code);
    check->offset = error_offset;
  }
  return code;
}

}  // namespace

std::string TranslateUrlPattern(const std::string& pattern) {
  std::string result;
  result.reserve(pattern.size() + pattern.size() / 2 + 8);
  for (size_t i = 0; i < pattern.size(); ++i) {
    char c = pattern[i];
    if (c == '.') {
      // The byte before a dot in the rewritten text is "*" only when the
      // original had a star there.
      if (i > 0 && pattern[i - 1] == '*') {
        result += "[./]?";
      } else {
        result += "\\.";
      }
    } else if (c == '*') {
      result += "(.*)";
    } else {
      result += c;
    }
  }
  return result;
}

PatternCheck CheckUrlPattern(const std::string& pattern) {
  PatternCheck check;
  if (internal::IsPlainUrlPattern(pattern)) return check;
  Compile(pattern, &check);
  return check;
}

MatchResult TryMatchUrlPattern(const std::string& subject, const std::string& pattern,
                               PatternCheck* check) {
  return internal::MatchLoweredSubject(internal::LoweredSubject(subject), pattern, check);
}

bool MatchUrlPattern(const std::string& subject, const std::string& pattern) {
  PatternCheck check;
  MatchResult result = TryMatchUrlPattern(subject, pattern, &check);
  if (result == MatchResult::kInvalidPattern) internal::AbortOnInvalidPattern(pattern, check);
  return result == MatchResult::kMatch;
}

namespace internal {

LoweredSubject::LoweredSubject(std::string subject) : text_(std::move(subject)) {
  LowerAsciiInPlace(text_);
  has_line_break_ = std::memchr(text_.data(), '\n', text_.size()) != nullptr ||
                    std::memchr(text_.data(), '\r', text_.size()) != nullptr;
}

bool IsPlainUrlPattern(const std::string& pattern) {
  if (pattern.size() > kMaxPlainPatternLength) return false;
  for (char c : pattern) {
    switch (c) {
      case '\\': case '^': case '$': case '[': case ']': case '|':
      case '(': case ')': case '?': case '+': case '{': case '}':
        return false;
      default:
        break;
    }
  }
  return true;
}

std::optional<bool> PlainPatternMatch(const LoweredSubject& subject, const std::string& pattern) {
  if (!IsPlainUrlPattern(pattern)) return std::nullopt;
  std::string lowered = pattern;
  LowerAsciiInPlace(lowered);
  std::string_view text = subject.text();
  size_t first_star = lowered.find('*');
  // Without a star the expression is the pattern's own bytes, dots literal.
  if (first_star == std::string::npos) return text == lowered;
  if (subject.has_line_break()) return std::nullopt;

  // The literal runs between stars. A dot right behind a star became
  // "[./]?", which adds nothing to what the star before it matches.
  std::string_view rest(lowered);
  std::string_view head = rest.substr(0, first_star);
  size_t last_star = rest.rfind('*');
  std::string_view tail = rest.substr(last_star + 1);
  if (!tail.empty() && tail[0] == '.') tail.remove_prefix(1);
  if (head.size() + tail.size() > text.size()) return false;
  if (text.compare(0, head.size(), head) != 0) return false;
  if (text.compare(text.size() - tail.size(), tail.size(), tail) != 0) return false;

  // Middle runs, leftmost first, between head and tail.
  size_t position = head.size();
  size_t end = text.size() - tail.size();
  // From behind the first star up to and including the last one.
  std::string_view middle = rest.substr(first_star + 1, last_star - first_star);
  while (!middle.empty()) {
    size_t star = middle.find('*');
    std::string_view run = middle.substr(0, star);
    middle.remove_prefix(star + 1);
    if (!run.empty() && run[0] == '.') run.remove_prefix(1);
    if (run.empty()) continue;
    if (end - position < run.size()) return false;
    const void* found = memmem(text.data() + position, end - position, run.data(), run.size());
    if (!found) return false;
    position = static_cast<size_t>(static_cast<const char*>(found) - text.data()) + run.size();
  }
  return true;
}

MatchResult ExpressionMatch(const LoweredSubject& subject, const std::string& pattern,
                            PatternCheck* check) {
  PatternCheck local_check;
  CodePtr code = Compile(pattern, check ? check : &local_check);
  if (!code) return MatchResult::kInvalidPattern;

  const std::string& text = subject.text();
  std::unique_ptr<pcre2_match_context, MatchContextDeleter> context(
      pcre2_match_context_create(nullptr));
  if (context) {
    uint64_t limit =
        g_match_limit_base + static_cast<uint64_t>(g_match_limit_per_byte) * text.size();
    if (limit > kMatchLimitMax) limit = kMatchLimitMax;
    pcre2_set_match_limit(context.get(), static_cast<uint32_t>(limit));
    pcre2_set_depth_limit(context.get(), kDepthLimit);
    pcre2_set_heap_limit(context.get(), kHeapLimitKiB);
  }
  // Only whether it matches counts; a short vector is enough.
  std::unique_ptr<pcre2_match_data, MatchDataDeleter> data(pcre2_match_data_create(1, nullptr));
  int rc = data ? pcre2_match(code.get(), reinterpret_cast<PCRE2_SPTR>(text.data()), text.size(),
                              0, kMatchOptions, data.get(), context.get())
                : PCRE2_ERROR_NOMEMORY;
  if (rc >= 0) return MatchResult::kMatch;
  if (rc == PCRE2_ERROR_NOMATCH) return MatchResult::kNoMatch;
  // Limits or memory: the safe answer is the work browser.
  LOG(ERROR) << "Pattern matching gave up, treating URL as a work URL. Pattern : " << pattern;
  return MatchResult::kMatch;
}

MatchResult MatchLoweredSubject(const LoweredSubject& subject, const std::string& pattern,
                                PatternCheck* check) {
  if (check) *check = PatternCheck();
  std::optional<bool> plain = PlainPatternMatch(subject, pattern);
  if (plain) return *plain ? MatchResult::kMatch : MatchResult::kNoMatch;
  return ExpressionMatch(subject, pattern, check);
}

void SetBacktrackingBudgetForTesting(uint32_t base, uint32_t per_byte) {
  g_match_limit_base = base;
  g_match_limit_per_byte = per_byte;
}

[[noreturn]] void AbortOnInvalidPattern(const std::string& pattern, const PatternCheck& check) {
  // No error path exists for a broken policy pattern: the process ends here.
  std::fprintf(stderr, "Invalid URL pattern \"%.*s\": %s at offset %zu\n",
               static_cast<int>(pattern.size()), pattern.data(),
               check.error.c_str(), check.offset);
  std::fflush(stderr);
  std::abort();
}

}  // namespace internal

}  // namespace dispatcher
