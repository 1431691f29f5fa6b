#include "dispatcher/classifier.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <memory>
#include <utility>

#include "base/logging.h"
#include "dispatcher/unicode.h"
#include "dispatcher/url.h"
#include "dispatcher/url_pattern.h"
#include "dispatcher/web_url.h"

namespace dispatcher {

namespace {

bool IsWebScheme(std::string_view scheme) {
  std::string lowered(scheme);
  LowerAsciiInPlace(lowered);
  return lowered == "http" || lowered == "https" || lowered == "ws" || lowered == "wss";
}

// The catch-all pattern would make every URL a work URL; it is never used.
constexpr std::string_view kCatchAllPattern = "*/*";

// The URL without scheme and port, lower-cased, without its leading "//" and
// ending in "/"; nullopt when nothing is left behind the scheme. A browser's
// reading is ASCII, which needs no look for other text.
std::optional<std::string> SubjectOf(std::string_view url, bool ascii) {
  std::optional<std::string> rest = UrlWithoutSchemeAndPort(url);
  if (!rest || rest->empty()) return std::nullopt;
  std::string subject;
  if (ascii) {
    subject = std::move(*rest);
    LowerAsciiInPlace(subject);
  } else {
    subject = LowercaseUrlText(*rest);
  }
  if (subject.size() >= 3 && subject[0] == '/' && subject[1] == '/') subject.erase(0, 2);
  if (subject.empty() || subject.back() != '/') subject += '/';
  return subject;
}

// Up to three spellings of the subject, distinct, the browser's reading
// first.
class Candidates {
 public:
  void Add(std::string subject) {
    for (size_t i = 0; i < count_; ++i) {
      if (subjects_[i]->text() == subject) return;
    }
    subjects_[count_++].emplace(std::move(subject));
  }
  size_t size() const { return count_; }
  const internal::LoweredSubject& operator[](size_t i) const { return *subjects_[i]; }
  std::string Take(size_t i) { return count_ > i ? subjects_[i]->TakeText() : std::string(); }

 private:
  std::optional<internal::LoweredSubject> subjects_[3];
  size_t count_ = 0;
};

// Where the host of a URL the standard accepts ends in its subject, and
// whether it ends in a dot that matching ignores (a domain with a single
// trailing dot is the same domain); a host that is a dot alone keeps it.
struct HostInSubject {
  size_t begin, end;
  bool trailing_dot;
};

HostInSubject FindHost(const WebUrl& web) {
  HostInSubject host{web.host_begin() - web.authority_begin(), web.host_end() - web.authority_begin(), false};
  host.trailing_dot = host.end - host.begin > 1 && web.text()[web.host_end() - 1] == '.';
  return host;
}

// At least this many patterns are kept prepared: every policy but huge ones.
constexpr size_t kKeptPatternsAtLeast = 16384;

}  // namespace

// The policy and the patterns kept prepared, the first ones tried: a URL's
// walk starts at the first pattern, so those reached form a prefix, and
// nothing is prepared for patterns no URL reached. Beyond what takes half
// the policy's own memory (and kKeptPatternsAtLeast), a pattern is prepared
// for each URL that reaches it, so that a URL that reaches every pattern of a
// huge policy leaves the memory within about one and a half times the
// policy's. Held apart from the classifier, so that the prepared patterns'
// views of the policy's text stay valid when the classifier moves.
struct UrlClassifier::State {
  std::optional<PolicyRules> rules;
  // A deque grows without moving what it holds or keeping spare room.
  std::deque<internal::PreparedUrlPattern> kept;
  size_t kept_end = 0;  // the first of the policy's patterns behind those kept
  size_t keep_limit = 0;
  internal::MatchScratch scratch;

  explicit State(std::optional<PolicyRules> policy) : rules(std::move(policy)) {
    // Patterns with operators take more than this; they are few.
    if (rules) {
      keep_limit = std::max(kKeptPatternsAtLeast, rules->memory_bytes() / 2 / sizeof(internal::PreparedUrlPattern));
    }
  }

  // One URL's way through the patterns.
  struct Walk {
    // Where it is among those kept: valid, as nothing is added to them
    // before it is past them.
    std::deque<internal::PreparedUrlPattern>::const_iterator kept;
    bool beyond_kept = false;
    size_t next = 0;  // beyond those kept: the policy's next pattern
    std::optional<internal::PreparedUrlPattern> loose;
  };

  Walk StartWalk() const {
    Walk walk;
    walk.kept = kept.begin();
    return walk;
  }

  // The walk's next pattern in the order they are tried; null behind the
  // last.
  const internal::PreparedUrlPattern* Next(Walk& walk) {
    if (!walk.beyond_kept) {
      if (walk.kept != kept.end()) return &*walk.kept++;
      walk.beyond_kept = true;
      walk.next = kept_end;
    }
    PolicyRules::Patterns all = rules->patterns();
    while (walk.next < all.size()) {
      PolicyRules::Pattern pattern = all[walk.next++];
      if (!pattern.is_string || pattern.text == kCatchAllPattern) continue;
      if (kept.size() == keep_limit) return &walk.loose.emplace(pattern.text);
      kept_end = walk.next;
      return &kept.emplace_back(pattern.text);
    }
    return nullptr;
  }
};

UrlClassifier::UrlClassifier(std::optional<PolicyRules> rules)
    : state_(std::make_unique<State>(std::move(rules))) {}

UrlClassifier::~UrlClassifier() = default;
UrlClassifier::UrlClassifier(UrlClassifier&&) noexcept = default;
UrlClassifier& UrlClassifier::operator=(UrlClassifier&&) noexcept = default;

const std::optional<PolicyRules>& UrlClassifier::rules() const { return state_->rules; }

Classification UrlClassifier::Classify(std::string_view url,
                                       InvalidPatternHandling invalid_patterns) {
  Classification result;
  if (!state_->rules || state_->rules->empty()) {
    LOG(ERROR) << "No policy doc URLs found. Re-directing to Corvane.";
    result.is_work = true;
    result.reason = ClassificationReason::kNoPolicy;
    return result;
  }

  const WebUrl web = ParseWebUrl(url);
  if (web.status() == WebUrlStatus::kNotWeb) {
    // Where the browser sees another scheme, so does the URL as written.
    result.is_work = false;
    result.reason = ClassificationReason::kScheme;
    return result;
  }
  Candidates candidates;
  if (web.status() == WebUrlStatus::kParsed) {
    // The subject of the browser's reading is built as from the URL as
    // written: for a canonical URL (the common case) it is the same string.
    HostInSubject host = FindHost(web);
    std::string read = *SubjectOf(web.is_input() ? url : web.text(), true);
    std::string written;
    if (host.trailing_dot) {
      if (web.is_input()) written = read;
      read.erase(--host.end, 1);
    }
    // A host with "xn--" labels may be named in Unicode by a pattern (no
    // domain name is longer than this; decoding takes quadratic time).
    std::string_view name = std::string_view(read).substr(host.begin, host.end - host.begin);
    std::string unicode;
    if (name.size() <= 4096 && name.find("xn--") != std::string_view::npos) {
      unicode = read.substr(0, host.begin) + DecodeDomainLabels(name) + read.substr(host.end);
    }
    candidates.Add(std::move(read));
    if (!unicode.empty()) candidates.Add(std::move(unicode));
    if (!written.empty()) candidates.Add(std::move(written));
  }
  if (!web.is_input()) {
    // The URL as written, so that no URL matches fewer patterns than it did
    // before it was read as the browser reads it; it is all there is when the
    // standard rejects the URL.
    UrlParts parts = SplitUrl(url);
    bool written_web = parts.scheme && IsWebScheme(*parts.scheme);
    if (!written_web && web.status() == WebUrlStatus::kRejected) {
      result.is_work = false;
      result.reason = ClassificationReason::kScheme;
      return result;
    }
    std::optional<std::string> written;
    if (written_web) written = SubjectOf(url, false);
    if (written_web && !written) {
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
    if (written) candidates.Add(std::move(*written));
  }

  State::Walk walk = state_->StartWalk();
  while (candidates.size() > 0) {
    const internal::PreparedUrlPattern* reached = state_->Next(walk);
    if (!reached) break;
    const internal::PreparedUrlPattern& pattern = *reached;
    LOG(INFO) << "Pattern : " << pattern.pattern();
    MatchResult match = MatchResult::kNoMatch;
    size_t matched = 0;
    for (; matched < candidates.size() && match == MatchResult::kNoMatch; ++matched) {
      match = pattern.Match(candidates[matched], state_->scratch);
    }
    if (match == MatchResult::kNoMatch) continue;
    result.is_work = true;
    if (matched > 1) result.matched_subject = candidates.Take(matched - 1);
    result.subject = candidates.Take(0);
    result.pattern = std::string(pattern.pattern());
    if (match == MatchResult::kMatch) {
      result.reason = ClassificationReason::kMatched;
      return result;
    }
    if (invalid_patterns == InvalidPatternHandling::kAbort) {
      // Policy patterns are trusted; a broken one has no error path.
      internal::AbortOnInvalidPattern(std::string(pattern.pattern()), pattern.check());
    }
    result.reason = ClassificationReason::kInvalidPattern;
    result.error = pattern.check().error;
    result.error_offset = pattern.check().offset;
    return result;
  }
  result.subject = candidates.Take(0);
  if (web.status() == WebUrlStatus::kHostUnreadable) {
    // The platform's mapping of domain names is stricter than browsers are:
    // never send such a URL to the non-work browser on a guess.
    LOG(ERROR) << "Could not read the URL's host as a browser would, treating URL as a work URL.";
    result.is_work = true;
    result.reason = ClassificationReason::kHostUnreadable;
    return result;
  }
  result.is_work = false;
  result.reason = ClassificationReason::kNoMatch;
  return result;
}

Classification ClassifyUrl(const std::optional<PolicyRules>& rules, std::string_view url,
                           InvalidPatternHandling invalid_patterns) {
  return UrlClassifier(rules).Classify(url, invalid_patterns);
}

}  // namespace dispatcher
