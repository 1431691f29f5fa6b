// Work-URL classification: scheme filter, the subject, and the first policy
// pattern that matches the whole subject.
#ifndef DISPATCHER_CLASSIFIER_H_
#define DISPATCHER_CLASSIFIER_H_

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "dispatcher/policy.h"

namespace dispatcher {

enum class ClassificationReason {
  kNoPolicy,        // no rules (absent or empty): work, with its ERROR line
  kScheme,          // not http, https, ws or wss: non-work, no log line
  kMatched,         // a pattern matched (or the matcher gave up on it): work
  kNoMatch,         // no pattern matched: non-work
  kInvalidPattern,  // only with InvalidPatternHandling::kReport
  kSchemeOnly,      // a web scheme and a colon alone; only with kReport
  kHostUnreadable,  // no pattern matched, and the host could not be read as a
                    // browser reads it: work, with its ERROR line
};

// The dispatcher ends the process on a pattern that is not a valid
// expression, and on a URL that is a web scheme and a colon alone; the
// administrator's tool reports both instead.
enum class InvalidPatternHandling { kAbort, kReport };

struct Classification {
  bool is_work = true;
  ClassificationReason reason = ClassificationReason::kNoPolicy;
  // The normalised string the patterns are matched against: the URL as the
  // browser reads it, or as written when the browser would reject it (empty
  // for kNoPolicy and kScheme).
  std::string subject;
  // When the deciding pattern matched another spelling of the subject (its
  // host in Unicode, or the URL as written): that spelling.
  std::string matched_subject;
  // The deciding pattern as written in Local State (kMatched,
  // kInvalidPattern).
  std::string pattern;
  // kInvalidPattern: what is wrong with the pattern and the offset in the
  // translated expression.
  std::string error;
  size_t error_offset = 0;
};

// Classifies URLs against one set of rules, logging as the dispatcher does
// ("No policy doc URLs found. ..." and one "Pattern : ..." per pattern tried).
// A web URL is read as the browser reads it (web_url.h); a pattern decides
// when it matches the subject so read, the same with its host's "xn--"
// labels in Unicode, or the subject of the URL as written.
// Each pattern is translated, checked and compiled when the first URL
// reaches it, and kept for later URLs (in a huge policy, only the first
// ones); a pattern behind the first match is not even checked, and takes no
// memory beyond the policy's own. Ends the process for a URL that is only an
// allowed scheme and a colon (unless kReport). Not for use by two threads at
// once.
class UrlClassifier {
 public:
  explicit UrlClassifier(std::optional<PolicyRules> rules);
  ~UrlClassifier();
  UrlClassifier(UrlClassifier&&) noexcept;
  UrlClassifier& operator=(UrlClassifier&&) noexcept;

  const std::optional<PolicyRules>& rules() const;
  Classification Classify(std::string_view url, InvalidPatternHandling invalid_patterns);

 private:
  struct State;
  std::unique_ptr<State> state_;
};

// One URL against a copy of the rules, with nothing kept.
Classification ClassifyUrl(const std::optional<PolicyRules>& rules, std::string_view url,
                           InvalidPatternHandling invalid_patterns);

}  // namespace dispatcher

#endif  // DISPATCHER_CLASSIFIER_H_
