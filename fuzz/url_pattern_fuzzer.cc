// Pattern matching on arbitrary input: never crashes, and the wildcard fast
// path answers exactly as the expression library does.
//
// Input: the pattern, a NUL byte, then the subject.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>

#include "base/logging.h"
#include "dispatcher/url_pattern.h"

namespace {

bool g_gave_up = false;

bool SwallowLine(int severity, const char*, int, size_t, const std::string&) {
  if (severity >= logging::LOG_ERROR) g_gave_up = true;
  return true;
}

[[noreturn]] void Fail(const char* what, const std::string& pattern, const std::string& subject) {
  std::fprintf(stderr, "%s\npattern (%zu bytes): %s\nsubject (%zu bytes): %s\n", what,
               pattern.size(), pattern.c_str(), subject.size(), subject.c_str());
  std::abort();
}

void CheckOne(const std::string& pattern, const std::string& subject) {
  dispatcher::internal::LoweredSubject lowered(subject);
  g_gave_up = false;
  dispatcher::PatternCheck expression_check;
  dispatcher::MatchResult expression =
      dispatcher::internal::ExpressionMatch(lowered, pattern, &expression_check);
  bool expression_gave_up = g_gave_up;
  std::optional<bool> plain = dispatcher::internal::PlainPatternMatch(lowered, pattern);

  if (plain) {
    // A plain pattern must really be valid, and agree unless the library
    // gave up on it.
    if (expression == dispatcher::MatchResult::kInvalidPattern) {
      Fail(("plain pattern rejected: " + expression_check.error).c_str(), pattern, subject);
    }
    if (!expression_gave_up && *plain != (expression == dispatcher::MatchResult::kMatch)) {
      Fail(*plain ? "fast path matched, expression did not" : "expression matched, fast path did not",
           pattern, subject);
    }
  } else if (dispatcher::internal::IsPlainUrlPattern(pattern) &&
             (!lowered.has_line_break() || pattern.find('*') == std::string::npos)) {
    Fail("fast path declined a plain pattern", pattern, subject);
  }

  dispatcher::PatternCheck check = dispatcher::CheckUrlPattern(pattern);
  if (check.valid != (expression != dispatcher::MatchResult::kInvalidPattern)) {
    Fail("CheckUrlPattern disagrees with the matcher", pattern, subject);
  }
  // Giving up costs the whole backtracking budget; once is enough.
  if (expression_gave_up) return;
  dispatcher::MatchResult public_result = dispatcher::TryMatchUrlPattern(subject, pattern, nullptr);
  if (public_result != expression) {
    Fail("TryMatchUrlPattern disagrees with the expression library", pattern, subject);
  }
}

// Random bytes rarely avoid every operator; the same pattern with its
// operators replaced exercises the fast path as well.
std::string WithoutOperators(std::string pattern) {
  for (char& c : pattern) {
    if (std::strchr("\\^$[]|()?+{}", c) != nullptr && c != '\0') c = 'a';
  }
  return pattern;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // Catastrophic patterns are common in random input; a small budget lets
  // them give up quickly. Agreement is only checked where the library did not.
  dispatcher::internal::SetBacktrackingBudgetForTesting(20000, 4);
  logging::SetLogMessageHandler(&SwallowLine);
  const char* bytes = reinterpret_cast<const char*>(data);
  const void* nul = std::memchr(bytes, '\0', size);
  size_t pattern_size = nul ? static_cast<size_t>(static_cast<const char*>(nul) - bytes) : size;
  std::string pattern(bytes, pattern_size);
  std::string subject = nul ? std::string(bytes + pattern_size + 1, size - pattern_size - 1) : "";
  CheckOne(pattern, subject);
  std::string plain_pattern = WithoutOperators(pattern);
  if (plain_pattern != pattern) CheckOne(plain_pattern, subject);
  logging::SetLogMessageHandler(nullptr);
  return 0;
}
