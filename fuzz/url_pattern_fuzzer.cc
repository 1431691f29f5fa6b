// Pattern matching on arbitrary input: never crashes, every valid pattern
// compiles, and the shortcuts (the wildcard matcher for patterns without
// operators and the others it recognises, the literal prefix) answer exactly
// as the expression library does.
//
// Input: the pattern, a NUL byte, then the subject.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
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
  using dispatcher::MatchResult;
  dispatcher::internal::PreparedUrlPattern prepared(pattern);
  dispatcher::internal::LoweredSubject lowered(subject);
  dispatcher::internal::MatchScratch scratch;
  bool plain = dispatcher::internal::IsPlainUrlPattern(pattern);
  if (plain && !prepared.is_wildcard()) Fail("plain pattern not matched as a wildcard", pattern, subject);
  if (!prepared.check().valid) {
    if (prepared.Match(lowered, scratch) != MatchResult::kInvalidPattern) {
      Fail("an invalid pattern matched", pattern, subject);
    }
    return;
  }

  // A valid pattern compiles (wildcards and short expressions are judged
  // valid without compiling), and the wildcard matcher and the literal
  // prefix agree with the expression library unless it gave up.
  if (!prepared.ExpressionCompiles()) Fail("a valid pattern does not compile", pattern, subject);
  g_gave_up = false;
  MatchResult result = prepared.Match(lowered, scratch);
  bool gave_up = g_gave_up;
  g_gave_up = false;
  MatchResult expression = prepared.MatchExpression(lowered, scratch);
  if (!gave_up && !g_gave_up && result != expression) {
    Fail(result == MatchResult::kMatch ? "the prepared pattern matched, the expression did not"
                                       : "the expression matched, the prepared pattern did not",
         pattern, subject);
  }
  // Giving up costs the whole budget; once is enough.
  if (gave_up) return;
  if (dispatcher::TryMatchUrlPattern(subject, pattern, nullptr) != result) {
    Fail("TryMatchUrlPattern disagrees with the prepared pattern", pattern, subject);
  }
}

// Random bytes rarely avoid every operator; the same pattern with its
// operators replaced exercises the wildcard matcher as well.
std::string WithoutOperators(std::string pattern) {
  for (char& c : pattern) {
    if (std::strchr("\\^$[]|()?+{}", c) != nullptr && c != '\0') c = 'a';
  }
  return pattern;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // Catastrophic patterns are common in random input; low limits let them
  // give up quickly. Agreement is only checked where the library did not.
  dispatcher::internal::SetMatchLimitsForTesting(20000, 2000);
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
