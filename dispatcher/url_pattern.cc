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
#include "dispatcher/ecmascript_regex.h"
#include "dispatcher/unicode.h"

namespace dispatcher {

namespace {

// Whole-subject match on bytes. The translated expressions spell out every
// class and anchor, so no option changes their meaning; start-of-match
// optimisations stay off because PCRE2 10.42 misjudges the first or required
// byte behind a lookahead (it finds no match of "(?=a)[ab]?a" in "a").
constexpr uint32_t kCompileOptions = PCRE2_ANCHORED | PCRE2_ENDANCHORED | PCRE2_NEVER_UTF |
                                     PCRE2_NEVER_UCP | PCRE2_NEVER_BACKSLASH_C |
                                     PCRE2_NO_START_OPTIMIZE;
// Room for the groups the translation adds around the pattern's own.
constexpr uint32_t kParensNestLimit = 1000;

// When the expression library gives up on a pattern (see the README): the
// number of backtracking steps, and how deeply backtracking points may nest
// (each holds memory). Both are set so that giving up takes some 50 ms of
// work, and the memory is bounded as well; BM_MatcherGivesUp in
// bench/classify_bench.cc measures it.
uint32_t g_match_limit = 4000000;
uint32_t g_depth_limit = 50000;
constexpr uint32_t kHeapLimitKiB = 64 * 1024;

// Longer plain patterns are checked like any other, so that one too large
// for the library's compiled form is invalid there as everywhere else.
constexpr size_t kMaxPlainPatternLength = 2048;
// An expression whose compiled form is bound to stay below this many code
// units always compiles (the library takes up to 65536).
constexpr uint64_t kMaxUncheckedCompiledSize = 50000;

// Shared by every compilation, which only reads it; never freed.
pcre2_compile_context* CompileContext() {
  static pcre2_compile_context* const context = [] {
    pcre2_compile_context* created = pcre2_compile_context_create(nullptr);
    if (created) {
      pcre2_set_parens_nest_limit(created, kParensNestLimit);
      pcre2_set_newline(created, PCRE2_NEWLINE_ANYCRLF);
    }
    return created;
  }();
  return context;
}

std::string ErrorMessage(int error_code) {
  PCRE2_UCHAR buffer[256];
  int length = pcre2_get_error_message(error_code, buffer, sizeof(buffer));
  if (length < 0) return "unknown error " + std::to_string(error_code);
  return std::string(reinterpret_cast<const char*>(buffer), static_cast<size_t>(length));
}

std::string LoweredTranslation(const std::string& pattern) {
  std::string expression = TranslateUrlPattern(pattern);
  LowerAsciiInPlace(expression);
  return expression;
}

// The wildcard matcher: the first run at the start, the last at the end, the
// runs between in order, leftmost first.
template <typename Run>
bool MatchRuns(std::string_view text, const char* base, const Run* runs, size_t count) {
  auto view = [base](const Run& run) { return std::string_view(base + run.offset, run.length); };
  if (count == 1) return text == view(runs[0]);
  std::string_view head = view(runs[0]);
  std::string_view tail = view(runs[count - 1]);
  if (head.size() + tail.size() > text.size()) return false;
  if (text.compare(0, head.size(), head) != 0) return false;
  if (text.compare(text.size() - tail.size(), tail.size(), tail) != 0) return false;
  size_t position = head.size();
  size_t end = text.size() - tail.size();
  for (size_t i = 1; i + 1 < count; ++i) {
    std::string_view run = view(runs[i]);
    if (run.empty()) continue;
    if (end - position < run.size()) return false;
    const void* found = memmem(text.data() + position, end - position, run.data(), run.size());
    if (!found) return false;
    position = static_cast<size_t>(static_cast<const char*>(found) - text.data()) + run.size();
  }
  return true;
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
  return internal::PreparedUrlPattern(pattern).check();
}

MatchResult TryMatchUrlPattern(const std::string& subject, const std::string& pattern,
                               PatternCheck* check) {
  internal::PreparedUrlPattern prepared(pattern);
  if (check) *check = prepared.check();
  internal::MatchScratch scratch;
  return prepared.Match(internal::LoweredSubject(subject), scratch);
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

struct MatchScratch::Data {
  pcre2_match_context* context = nullptr;
  pcre2_match_data* match_data = nullptr;
  uint32_t match_limit = 0;
  uint32_t depth_limit = 0;
  ~Data() {
    pcre2_match_data_free(match_data);
    pcre2_match_context_free(context);
  }
};

MatchScratch::MatchScratch() : data_(std::make_unique<Data>()) {}
MatchScratch::~MatchScratch() = default;

struct PreparedUrlPattern::Extra {
  PatternCheck check;
  std::vector<Run> runs;  // all of them, when there are more than fit inline
  std::string runs_text;
  // What every match starts with (known for patterns that are compiled only
  // when a subject starts with it).
  std::string literal_prefix;
  // The expression for PCRE2, compiled when first needed.
  std::string expression;
  pcre2_code* code = nullptr;
  ~Extra() { pcre2_code_free(code); }
};

PreparedUrlPattern::PreparedUrlPattern(std::string_view pattern) : pattern_(pattern) {
  if (IsPlainUrlPattern(pattern_)) {
    // Literal runs between the stars. A dot right behind a star became
    // "[./]?", and a "?" or "+" behind one repeats "(.*)": neither adds
    // anything to what the star matches.
    size_t stars = 0;
    bool upper = false;
    for (char c : pattern_) {
      stars += c == '*';
      upper |= c >= 'A' && c <= 'Z';
    }
    if (upper) {
      extra().runs_text = pattern_;
      LowerAsciiInPlace(extra_->runs_text);
    }
    runs_in_pattern_ = !upper;
    has_star_ = stars > 0;
    Run run = {0, 0};
    for (size_t i = 0; i < pattern_.size(); ++i) {
      char c = pattern_[i];
      if (c == '*') {
        AddRun(run);
        run = {static_cast<uint32_t>(i + 1), 0};
      } else if (run.length == 0 && (c == '?' || c == '+' || (c == '.' && i > 0 && pattern_[i - 1] == '*'))) {
        run.offset = static_cast<uint32_t>(i + 1);
      } else {
        ++run.length;
      }
    }
    AddRun(run);
    return;
  }
  std::string expression = LoweredTranslation(std::string(pattern_));
  EcmaScriptRegex regex = TranslateEcmaScript(expression, false);
  Extra& more = extra();
  if (!regex.valid) {
    more.check.valid = false;
    more.check.error = regex.error;
    more.check.offset = regex.offset;
    return;
  }
  if (regex.compiled_size_bound <= kMaxUncheckedCompiledSize) {
    // Sure to compile: a wildcard never needs to, and an expression waits
    // until a subject starts as a match must.
    if (regex.is_wildcard) {
      SetRuns(regex.wildcard_runs);
    } else {
      more.literal_prefix = std::move(regex.literal_prefix);
    }
    return;
  }
  // Possibly too large for the library: compiled now to know.
  std::string error;
  if (!Compile(&error)) {
    more.check.valid = false;
    more.check.error = "too large for the expression library: " + error;
    return;
  }
  if (regex.is_wildcard) SetRuns(regex.wildcard_runs);
}

PreparedUrlPattern::~PreparedUrlPattern() = default;
PreparedUrlPattern::PreparedUrlPattern(PreparedUrlPattern&&) noexcept = default;
PreparedUrlPattern& PreparedUrlPattern::operator=(PreparedUrlPattern&&) noexcept = default;

const PatternCheck& PreparedUrlPattern::check() const {
  static const PatternCheck kValid;
  return extra_ ? extra_->check : kValid;
}

PreparedUrlPattern::Extra& PreparedUrlPattern::extra() const {
  if (!extra_) extra_ = std::make_unique<Extra>();
  return *extra_;
}

const PreparedUrlPattern::Run* PreparedUrlPattern::runs() const {
  return run_count_ <= kInlineRuns ? inline_runs_ : extra_->runs.data();
}

void PreparedUrlPattern::AddRun(Run run) {
  if (run_count_ < kInlineRuns) inline_runs_[run_count_] = run;
  if (run_count_ == kInlineRuns) extra().runs.assign(inline_runs_, inline_runs_ + kInlineRuns);
  if (run_count_ >= kInlineRuns) extra_->runs.push_back(run);
  ++run_count_;
}

void PreparedUrlPattern::SetRuns(const std::vector<std::string>& runs) {
  std::string text;
  for (const std::string& run : runs) {
    AddRun({static_cast<uint32_t>(text.size()), static_cast<uint32_t>(run.size())});
    text += run;
  }
  extra().runs_text = std::move(text);
  runs_in_pattern_ = false;
  has_star_ = runs.size() > 1;
}

bool PreparedUrlPattern::Compile(std::string* error) const {
  // A plain pattern has no Extra until it needs the library (a subject with
  // a line break); the pattern and its translation are known to be valid.
  Extra& more = extra();
  if (more.code) return true;
  // Written for PCRE2 only now.
  if (more.expression.empty()) {
    EcmaScriptRegex regex = TranslateEcmaScript(LoweredTranslation(std::string(pattern_)), true);
    if (!regex.valid) {
      if (error) *error = regex.error;
      return false;
    }
    more.expression = std::move(regex.pcre2);
  }
  int error_code = 0;
  PCRE2_SIZE error_offset = 0;
  more.code = pcre2_compile(reinterpret_cast<PCRE2_SPTR>(more.expression.data()),
                            more.expression.size(), kCompileOptions, &error_code, &error_offset,
                            CompileContext());
  if (!more.code) {
    if (error) *error = ErrorMessage(error_code);
    return false;
  }
  return true;
}

MatchResult PreparedUrlPattern::Match(const LoweredSubject& subject, MatchScratch& scratch) const {
  if (!check().valid) return MatchResult::kInvalidPattern;
  if (run_count_ > 0 && !(has_star_ && subject.has_line_break())) {
    const char* base = runs_in_pattern_ ? pattern_.data() : extra_->runs_text.data();
    return MatchRuns(subject.text(), base, runs(), run_count_) ? MatchResult::kMatch
                                                                : MatchResult::kNoMatch;
  }
  // Most patterns name a host: a subject that does not start with it needs
  // no expression library, and the pattern is not even compiled.
  if (extra_ && subject.text().compare(0, extra_->literal_prefix.size(), extra_->literal_prefix) != 0) {
    return MatchResult::kNoMatch;
  }
  return MatchExpression(subject, scratch);
}

MatchResult PreparedUrlPattern::MatchExpression(const LoweredSubject& subject,
                                                MatchScratch& scratch) const {
  if (!check().valid) return MatchResult::kInvalidPattern;
  MatchScratch::Data& data = *scratch.data_;
  if (!data.context) {
    data.context = pcre2_match_context_create(nullptr);
    if (data.context) {
      pcre2_set_callout(data.context, &EcmaScriptCallout, nullptr);
      pcre2_set_heap_limit(data.context, kHeapLimitKiB);
    }
  }
  if (data.context && (data.match_limit != g_match_limit || data.depth_limit != g_depth_limit)) {
    pcre2_set_match_limit(data.context, g_match_limit);
    pcre2_set_depth_limit(data.context, g_depth_limit);
    data.match_limit = g_match_limit;
    data.depth_limit = g_depth_limit;
  }
  // Only whether it matches counts; a short vector is enough.
  if (!data.match_data) data.match_data = pcre2_match_data_create(1, nullptr);
  const std::string& text = subject.text();
  int rc = Compile(nullptr) && data.context && data.match_data
               ? pcre2_match(extra_->code, reinterpret_cast<PCRE2_SPTR>(text.data()), text.size(),
                             0, 0, data.match_data, data.context)
               : PCRE2_ERROR_NOMEMORY;
  if (rc >= 0) return MatchResult::kMatch;
  if (rc == PCRE2_ERROR_NOMATCH) return MatchResult::kNoMatch;
  // The match data keeps the memory the library used; it may be a lot now.
  pcre2_match_data_free(data.match_data);
  data.match_data = nullptr;
  // Limits or memory: the safe answer is the work browser.
  LOG(ERROR) << "Pattern matching gave up, treating URL as a work URL. Pattern : " << pattern_;
  return MatchResult::kMatch;
}

bool IsPlainUrlPattern(std::string_view pattern) {
  if (pattern.size() > kMaxPlainPatternLength) return false;
  for (size_t i = 0; i < pattern.size(); ++i) {
    switch (pattern[i]) {
      case '\\': case '^': case '$': case '[': case ']': case '|':
      case '(': case ')': case '{': case '}':
        return false;
      case '?':
      case '+':
        // Only as "*?", "*+", "*??" or "*+?".
        if (i > 0 && pattern[i - 1] == '*') break;
        if (pattern[i] == '?' && i > 1 && pattern[i - 2] == '*' &&
            (pattern[i - 1] == '?' || pattern[i - 1] == '+')) {
          break;
        }
        return false;
      default:
        break;
    }
  }
  return true;
}

void SetMatchLimitsForTesting(uint32_t match_limit, uint32_t depth_limit) {
  g_match_limit = match_limit;
  g_depth_limit = depth_limit;
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
