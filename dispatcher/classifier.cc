#include "dispatcher/classifier.h"

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <utility>
#include <vector>

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

// The patterns in the order they are tried, each prepared when first
// reached.
struct UrlClassifier::Prepared {
  std::vector<const std::string*> texts;
  std::vector<std::optional<internal::PreparedUrlPattern>> patterns;
  internal::MatchScratch scratch;

  explicit Prepared(const PolicyRules& rules) {
    size_t count = 0;
    for (const PolicyRule& rule : rules) count += rule.patterns.size();
    texts.reserve(count);
    for (const PolicyRule& rule : rules) {
      if (!rule.has_patterns) continue;
      for (const PolicyPattern& pattern : rule.patterns) {
        if (pattern.is_string && pattern.text != kCatchAllPattern) texts.push_back(&pattern.text);
      }
    }
    patterns.resize(texts.size());
  }

  const internal::PreparedUrlPattern& At(size_t i) {
    if (!patterns[i]) patterns[i].emplace(*texts[i]);
    return *patterns[i];
  }
};

UrlClassifier::UrlClassifier(std::optional<PolicyRules> rules) : rules_(std::move(rules)) {
  if (rules_) prepared_ = std::make_unique<Prepared>(*rules_);
}

UrlClassifier::~UrlClassifier() = default;
UrlClassifier::UrlClassifier(UrlClassifier&&) noexcept = default;
UrlClassifier& UrlClassifier::operator=(UrlClassifier&&) noexcept = default;

Classification UrlClassifier::Classify(std::string_view url,
                                       InvalidPatternHandling invalid_patterns) {
  Classification result;
  if (!rules_ || rules_->empty()) {
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

  for (size_t i = 0; i < prepared_->texts.size(); ++i) {
    LOG(INFO) << "Pattern : " << *prepared_->texts[i];
    const internal::PreparedUrlPattern& pattern = prepared_->At(i);
    MatchResult match = pattern.Match(lowered, prepared_->scratch);
    if (match == MatchResult::kNoMatch) continue;
    result.is_work = true;
    result.subject = lowered.TakeText();
    result.pattern = std::string(pattern.pattern());
    if (match == MatchResult::kMatch) {
      result.reason = ClassificationReason::kMatched;
      return result;
    }
    if (invalid_patterns == InvalidPatternHandling::kAbort) {
      // Policy patterns are trusted; a broken one has no error path.
      internal::AbortOnInvalidPattern(*prepared_->texts[i], pattern.check());
    }
    result.reason = ClassificationReason::kInvalidPattern;
    result.error = pattern.check().error;
    result.error_offset = pattern.check().offset;
    return result;
  }
  result.is_work = false;
  result.reason = ClassificationReason::kNoMatch;
  result.subject = lowered.TakeText();
  return result;
}

Classification ClassifyUrl(const std::optional<PolicyRules>& rules, std::string_view url,
                           InvalidPatternHandling invalid_patterns) {
  return UrlClassifier(rules).Classify(url, invalid_patterns);
}

}  // namespace dispatcher
