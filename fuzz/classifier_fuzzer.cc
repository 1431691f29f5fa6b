// Classification of arbitrary URLs against arbitrary policies: never crashes
// (report mode stands in for the two designed aborts), logs one
// "Pattern : " line per pattern tried, and decides as the single-pattern
// matcher does on the subjects it reports. The reading of web URLs is stable:
// the serialisation of a URL reads as itself, without a copy, and as itself
// when the parser has to copy it.
//
// Input: the URL, then patterns, each behind a NUL byte; a pattern that
// starts with byte 0x01 opens a new rule (the byte is dropped), one that
// starts with 0x02 stands for a value that is not a string.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "base/logging.h"
#include "dispatcher/classifier.h"
#include "dispatcher/url.h"
#include "dispatcher/unicode.h"
#include "dispatcher/url_pattern.h"
#include "dispatcher/web_url.h"

namespace {

std::vector<std::string>* g_patterns_logged = nullptr;

bool CaptureLine(int severity, const char*, int, size_t message_start, const std::string& line) {
  if (!g_patterns_logged) return true;  // the replay's lines
  std::string message = line.substr(message_start);
  if (!message.empty() && message.back() == '\n') message.pop_back();
  constexpr std::string_view kPrefix = "Pattern : ";
  if (severity == logging::LOG_INFO && message.compare(0, kPrefix.size(), kPrefix) == 0) {
    g_patterns_logged->push_back(message.substr(kPrefix.size()));
  }
  return true;
}

[[noreturn]] void Fail(const char* what, std::string_view url) {
  std::fprintf(stderr, "%s\nurl (%zu bytes): %.*s\n", what, url.size(),
               static_cast<int>(url.size()), url.data());
  std::abort();
}

// A pattern as its line shows it: control bytes as %XX.
std::string AsLogged(std::string_view text) {
  std::string logged;
  for (char c : text) {
    unsigned char byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7f) {
      char escape[4];
      std::snprintf(escape, sizeof(escape), "%%%02X", byte);
      logged += escape;
    } else {
      logged += c;
    }
  }
  return logged;
}

bool IsWebScheme(std::string_view scheme) {
  std::string lowered(scheme);
  for (char& c : lowered) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + ('a' - 'A'));
  }
  return lowered == "http" || lowered == "https" || lowered == "ws" || lowered == "wss";
}

std::string Reassemble(const dispatcher::UrlParts& parts) {
  std::string url;
  if (parts.scheme) url += std::string(*parts.scheme) + ":";
  if (parts.authority) url += "//" + std::string(*parts.authority);
  url += parts.path;
  if (parts.query) url += "?" + std::string(*parts.query);
  if (parts.fragment) url += "#" + std::string(*parts.fragment);
  return url;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // A small backtracking budget keeps catastrophic patterns cheap.
  dispatcher::internal::SetMatchLimitsForTesting(20000, 2000);
  std::string_view input(reinterpret_cast<const char*>(data), size);
  std::vector<std::string_view> pieces;
  size_t start = 0;
  while (true) {
    size_t nul = input.find('\0', start);
    pieces.push_back(input.substr(start, nul == std::string_view::npos ? nul : nul - start));
    if (nul == std::string_view::npos) break;
    start = nul + 1;
  }
  std::string_view url = pieces[0];

  dispatcher::UrlParts parts = dispatcher::SplitUrl(url);
  if (Reassemble(parts) != url) Fail("SplitUrl does not reassemble", url);
  dispatcher::IsWellFormedUrl(url);
  std::optional<std::string> rest = dispatcher::UrlWithoutSchemeAndPort(url);
  if (rest && rest->size() > url.size()) Fail("removing scheme and port grew the URL", url);

  const dispatcher::WebUrl web = dispatcher::ParseWebUrl(url);
  if (web.status() == dispatcher::WebUrlStatus::kParsed) {
    std::string href = web.Href();
    dispatcher::WebUrl again = dispatcher::ParseWebUrl(href);
    if (again.Href() != href || !again.is_input()) Fail("the serialisation does not read as itself", url);
    // A third slash makes the parser write instead of mirror: the same reading.
    std::string slashed = href;
    slashed.insert(href.find(':') + 1, "/");
    if (dispatcher::ParseWebUrl(slashed).Href() != href) Fail("the serialisation reads otherwise when copied", url);
    for (char c : href) {
      if (static_cast<unsigned char>(c) <= 0x20 || static_cast<unsigned char>(c) >= 0x7F) {
        Fail("the serialisation holds a byte it must not", url);
      }
    }
  }

  dispatcher::PolicyRules rules;
  for (size_t i = 1; i < pieces.size(); ++i) {
    std::string_view text = pieces[i];
    if (rules.empty() || (!text.empty() && text[0] == '\x01')) {
      rules.AddRule();
      rules.SetPatterns(true);
      if (!text.empty() && text[0] == '\x01') text.remove_prefix(1);
    }
    bool is_string = text.empty() || text[0] != '\x02';
    std::string* pattern = rules.AddPattern(is_string);
    if (is_string) pattern->append(text);
  }

  // Browsers may see a web URL where the text does not start with a web
  // scheme (" https:"); a URL they reject is classified as written.
  bool written_web = parts.scheme && IsWebScheme(*parts.scheme);
  bool is_web = web.status() != dispatcher::WebUrlStatus::kNotWeb &&
             (written_web || web.status() != dispatcher::WebUrlStatus::kRejected);
  // Where the dispatcher ends the process by design, the report mode says so.
  bool scheme_only = written_web && (!rest || rest->empty());

  std::vector<std::string> logged;
  g_patterns_logged = &logged;
  logging::SetMinimumLogLevel(-1);
  logging::SetLogMessageHandler(&CaptureLine);
  std::optional<dispatcher::PolicyRules> policy;
  if (!rules.empty()) policy = rules;
  dispatcher::Classification result =
      dispatcher::ClassifyUrl(policy, url, dispatcher::InvalidPatternHandling::kReport);
  g_patterns_logged = nullptr;

  using Reason = dispatcher::ClassificationReason;
  if (rules.empty()) {
    if (result.reason != Reason::kNoPolicy || !result.is_work) Fail("no policy must be work", url);
    return 0;
  }
  if (!is_web) {
    if (result.reason != Reason::kScheme || result.is_work || !logged.empty()) {
      Fail("a non-web URL must be non-work without a line", url);
    }
    return 0;
  }
  if (scheme_only) {
    if (result.reason != Reason::kSchemeOnly || !result.is_work || !logged.empty()) {
      Fail("a web scheme and a colon alone must be reported", url);
    }
    return 0;
  }
  // The subjects the patterns are matched against: the reported one, the URL
  // as written, and the one that matched (the host in Unicode, say).
  std::vector<std::string> subjects;
  if (!result.subject.empty()) subjects.push_back(result.subject);
  if (written_web) {
    std::string written = dispatcher::LowercaseUrlText(*rest);
    if (written.size() >= 3 && written.compare(0, 2, "//") == 0) written.erase(0, 2);
    if (written.back() != '/') written += '/';
    subjects.push_back(written);
  }
  if (!result.matched_subject.empty()) subjects.push_back(result.matched_subject);
  for (const std::string& subject : subjects) {
    if (subject.back() != '/') Fail("subject must end in /", url);
  }
  bool unreadable = web.status() == dispatcher::WebUrlStatus::kHostUnreadable;
  if (subjects.empty() && !unreadable) Fail("a web URL without a subject", url);

  // Replay: every logged pattern but the deciding one must not match.
  std::vector<std::string> expected;
  bool decided = false;
  for (dispatcher::PolicyRules::Rule rule : rules) {
    for (dispatcher::PolicyRules::Pattern pattern : rule.patterns) {
      if (decided || !pattern.is_string || pattern.text == "*/*" || subjects.empty()) continue;
      std::string text(pattern.text);
      expected.push_back(AsLogged(text));
      dispatcher::MatchResult match = dispatcher::MatchResult::kNoMatch;
      for (size_t i = 0; i < subjects.size() && match == dispatcher::MatchResult::kNoMatch; ++i) {
        match = dispatcher::TryMatchUrlPattern(subjects[i], text, nullptr);
      }
      if (match != dispatcher::MatchResult::kNoMatch) {
        decided = true;
        Reason reason = match == dispatcher::MatchResult::kMatch ? Reason::kMatched
                                                                 : Reason::kInvalidPattern;
        if (result.reason != reason || result.pattern != pattern.text || !result.is_work) {
          Fail("classification disagrees with the matcher", url);
        }
      }
    }
  }
  Reason no_match = unreadable ? Reason::kHostUnreadable : Reason::kNoMatch;
  if (!decided && (result.reason != no_match || result.is_work != unreadable)) {
    Fail("no pattern matched, yet the URL was classified otherwise", url);
  }
  if (logged != expected) Fail("logged patterns differ from those tried", url);
  return 0;
}
