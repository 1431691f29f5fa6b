#include "dispatcher/classifier.h"

#include <cstdio>
#include <cstdlib>
#include <utility>

#include "base/logging.h"
#include "dispatcher/unicode.h"
#include "dispatcher/url.h"
#include "dispatcher/url_pattern.h"

namespace dispatcher {

namespace {

bool IsWebScheme(std::string_view scheme) {
  std::string lowered(scheme);
  LowerAsciiInPlace(lowered);
  return lowered == "http" || lowered == "https" || lowered == "ws" || lowered == "wss";
}

// The catch-all pattern would make every URL a work URL; it is never used.
constexpr std::string_view kCatchAllPattern = "*/*";

}  // namespace

Classification ClassifyUrl(const std::optional<PolicyRules>& rules, std::string_view url,
                           InvalidPatternHandling invalid_patterns) {
  Classification result;
  if (!rules || rules->empty()) {
    LOG(ERROR) << "No policy doc URLs found. Re-directing to Corvane.";
    result.is_work = true;
    result.reason = ClassificationReason::kNoPolicy;
    return result;
  }

  UrlParts parts = SplitUrl(url);
  if (!parts.scheme || !IsWebScheme(*parts.scheme)) {
    result.is_work = false;
    result.reason = ClassificationReason::kScheme;
    return result;
  }

  std::optional<std::string> rest = UrlWithoutSchemeAndPort(url);
  if (!rest || rest->empty()) {
    if (invalid_patterns == InvalidPatternHandling::kReport) {
      result.reason = ClassificationReason::kSchemeOnly;
      return result;
    }
    // A web scheme and a colon alone leave nothing to match: by design the
    // process ends here rather than guess.
    std::fprintf(stderr, "URL has nothing behind its scheme: %.*s\n",
                 static_cast<int>(url.size()), url.data());
    std::fflush(stderr);
    std::abort();
  }
  std::string subject = LowercaseUrlText(*rest);
  if (subject.size() >= 3 && subject[0] == '/' && subject[1] == '/') subject.erase(0, 2);
  if (subject.empty() || subject.back() != '/') subject += '/';
  internal::LoweredSubject lowered(std::move(subject));

  for (const PolicyRule& rule : *rules) {
    if (!rule.has_patterns) continue;
    for (const PolicyPattern& pattern : rule.patterns) {
      if (!pattern.is_string || pattern.text == kCatchAllPattern) continue;
      LOG(INFO) << "Pattern : " << pattern.text;
      PatternCheck check;
      MatchResult match = internal::MatchLoweredSubject(lowered, pattern.text, &check);
      if (match == MatchResult::kNoMatch) continue;
      result.is_work = true;
      result.subject = lowered.TakeText();
      result.pattern = pattern.text;
      if (match == MatchResult::kMatch) {
        result.reason = ClassificationReason::kMatched;
        return result;
      }
      if (invalid_patterns == InvalidPatternHandling::kAbort) {
        // Policy patterns are trusted; a broken one has no error path.
        internal::AbortOnInvalidPattern(pattern.text, check);
      }
      result.reason = ClassificationReason::kInvalidPattern;
      result.error = check.error;
      result.error_offset = check.offset;
      return result;
    }
  }
  result.is_work = false;
  result.reason = ClassificationReason::kNoMatch;
  result.subject = lowered.TakeText();
  return result;
}

}  // namespace dispatcher
