// corvane-dispatcher-policy: lets an administrator see what the dispatcher
// makes of a Local State file and of given URLs, without launching anything.
// Every answer comes from the dispatcher's own reader and classifier; this
// file only parses options and prints.

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/files/file_path.h"
#include "base/logging.h"
#include "dispatcher/classifier.h"
#include "dispatcher/local_state.h"
#include "dispatcher/policy.h"
#include "dispatcher/unicode.h"
#include "dispatcher/url.h"
#include "dispatcher/url_pattern.h"

namespace {

constexpr char kToolName[] = "corvane-dispatcher-policy";

constexpr char kUsage[] =
    "Usage: corvane-dispatcher-policy COMMAND [OPTIONS]\n"
    "\n"
    "Shows what the Corvane Dispatcher makes of its Local State policy.\n"
    "\n"
    "Commands:\n"
    "  explain [--local-state PATH] [--json] [URL ...]\n"
    "      Classify each URL (or each line of standard input when no URL is\n"
    "      given) as the dispatcher would, without opening anything.\n"
    "  check [--local-state PATH]\n"
    "      Read Local State as the dispatcher does, show its log lines and the\n"
    "      status of every rule and pattern.\n"
    "\n"
    "Run 'corvane-dispatcher-policy COMMAND --help' for the details of a command.\n";

constexpr char kExplainUsage[] =
    "Usage: corvane-dispatcher-policy explain [--local-state PATH] [--json] [--] [URL ...]\n"
    "\n"
    "Classifies each URL as the dispatcher would and prints one line per URL:\n"
    "  DECISION<TAB>PATTERN<TAB>URL\n"
    "DECISION is 'work' or 'non-work' ('abort' when the dispatcher would end on\n"
    "this URL); PATTERN is the deciding pattern as written in Local State, or '-'.\n"
    "Without URL arguments the lines of standard input are classified (a\n"
    "trailing carriage return is dropped, empty lines are skipped).\n"
    "\n"
    "Options:\n"
    "  --local-state PATH  the Local State file (default: the dispatcher's own)\n"
    "  --json              one JSON object per URL with the keys url, decision,\n"
    "                      reason, pattern and subject (and error and offset for\n"
    "                      an invalid pattern); reason is one of 'no policy',\n"
    "                      'scheme', 'matched', 'no match', 'invalid pattern',\n"
    "                      'scheme only', 'unreadable host'. The subject is the\n"
    "                      URL as the browser reads it, normalised; when the\n"
    "                      pattern matched it with the host in Unicode or the\n"
    "                      URL as written instead, matched_subject shows that.\n"
    "                      Bytes that are not UTF-8 are written as U+FFFD.\n"
    "  --help              this text\n"
    "\n"
    "Exit status: 0 when every URL was classified, 1 when the dispatcher would end\n"
    "on one of them (an invalid pattern, or a URL that is only a scheme and a\n"
    "colon), 2 for a usage error.\n";

constexpr char kCheckUsage[] =
    "Usage: corvane-dispatcher-policy check [--local-state PATH]\n"
    "\n"
    "Reads Local State exactly as the dispatcher does at launch, prints the lines\n"
    "the dispatcher would log for it, then every rule and pattern with its\n"
    "status: ok, skipped (no patterns), skipped (not a string), reserved */*, or\n"
    "invalid expression with the reason and its offset in the translation.\n"
    "\n"
    "Options:\n"
    "  --local-state PATH  the Local State file (default: the dispatcher's own)\n"
    "  --help              this text\n"
    "\n"
    "Exit status: 0 when the dispatcher would run with this policy, 1 when the\n"
    "file cannot be used or a pattern would end the dispatcher, 2 for a usage\n"
    "error.\n";

constexpr int kExitOk = 0;
constexpr int kExitProblem = 1;
constexpr int kExitUsage = 2;

// ---------------------------------------------------------------------------
// Output helpers.

void Write(FILE* stream, std::string_view text) { fwrite(text.data(), 1, text.size(), stream); }

void Print(std::string_view text) { Write(stdout, text); }

void Complain(std::string_view text) {
  std::string line = std::string(kToolName) + ": ";
  line.append(text);
  line.push_back('\n');
  Write(stderr, line);
}

// A JSON string literal. Valid UTF-8 passes through; each byte that is not
// part of a valid sequence becomes U+FFFD, so the output is always valid JSON
// (the plain output keeps the exact bytes).
void AppendJsonString(std::string* out, std::string_view text) {
  out->push_back('"');
  for (size_t i = 0; i < text.size();) {
    size_t length = dispatcher::Utf8SequenceLength(text, i);
    if (length == 0) {
      out->append("\\ufffd");
      ++i;
      continue;
    }
    if (length > 1) {
      out->append(text.substr(i, length));
      i += length;
      continue;
    }
    unsigned char c = static_cast<unsigned char>(text[i++]);
    switch (c) {
      case '"': out->append("\\\""); break;
      case '\\': out->append("\\\\"); break;
      case '\b': out->append("\\b"); break;
      case '\f': out->append("\\f"); break;
      case '\n': out->append("\\n"); break;
      case '\r': out->append("\\r"); break;
      case '\t': out->append("\\t"); break;
      default:
        if (c < 0x20 || c == 0x7f) {
          char escape[8];
          snprintf(escape, sizeof(escape), "\\u%04x", c);
          out->append(escape);
        } else {
          out->push_back(static_cast<char>(c));
        }
    }
  }
  out->push_back('"');
}

std::string JsonString(std::string_view text) {
  std::string out;
  AppendJsonString(&out, text);
  return out;
}

// ---------------------------------------------------------------------------
// The core's log lines: captured for `check`, never shown as they are.

struct CapturedLine {
  int severity;
  std::string message;
};

std::vector<CapturedLine>* g_captured_lines = nullptr;

bool CaptureLogLine(int severity, const char*, int, size_t message_start, const std::string& line) {
  if (g_captured_lines) {
    std::string message = line.substr(message_start < line.size() ? message_start : line.size());
    if (!message.empty() && message.back() == '\n') message.pop_back();
    g_captured_lines->push_back({severity, std::move(message)});
  }
  return true;
}

// ---------------------------------------------------------------------------
// Options.

struct Options {
  std::optional<std::string> local_state;
  bool json = false;
  bool help = false;
  std::vector<std::string> arguments;
};

// Parses argv[first..]; false with *error set for a usage error.
bool ParseOptions(int argc, char** argv, int first, bool accepts_json, Options* options,
                  std::string* error) {
  bool options_ended = false;
  for (int i = first; i < argc; ++i) {
    std::string_view arg = argv[i];
    if (options_ended || arg.size() < 2 || arg[0] != '-') {
      options->arguments.emplace_back(arg);
      continue;
    }
    if (arg == "--") {
      options_ended = true;
    } else if (arg == "--help" || arg == "-h") {
      options->help = true;
    } else if (arg == "--json" && accepts_json) {
      options->json = true;
    } else if (arg == "--local-state") {
      if (i + 1 >= argc) {
        *error = "option --local-state needs a path";
        return false;
      }
      options->local_state = argv[++i];
    } else if (arg.rfind("--local-state=", 0) == 0) {
      options->local_state = std::string(arg.substr(strlen("--local-state=")));
    } else {
      *error = "unknown option '" + std::string(arg) + "'";
      return false;
    }
  }
  return true;
}

int UsageError(const std::string& error, const char* usage) {
  Complain(error);
  Write(stderr, "\n");
  Write(stderr, usage);
  return kExitUsage;
}

base::FilePath ChosenLocalState(const Options& options) {
  return options.local_state ? base::FilePath(*options.local_state) : dispatcher::LocalStatePath();
}

// Reads the policy through the dispatcher's reader, keeping its log lines.
dispatcher::LocalStatePolicy ReadPolicy(const base::FilePath& path,
                                        std::vector<CapturedLine>* lines) {
  g_captured_lines = lines;
  dispatcher::LocalStatePolicy policy = dispatcher::ReadLocalStatePolicy(path);
  g_captured_lines = nullptr;
  return policy;
}

// ---------------------------------------------------------------------------
// explain

struct Explanation {
  std::string decision;  // work, non-work, abort
  std::string reason;
  std::optional<std::string> pattern;
  std::optional<std::string> subject;
  std::string matched_subject;
  std::optional<std::string> error;
  size_t offset = 0;
};

Explanation Explain(dispatcher::UrlClassifier& classifier, const std::string& url) {
  Explanation result;
  dispatcher::Classification c =
      classifier.Classify(url, dispatcher::InvalidPatternHandling::kReport);
  switch (c.reason) {
    case dispatcher::ClassificationReason::kNoPolicy:
      result.reason = "no policy";
      break;
    case dispatcher::ClassificationReason::kScheme:
      result.reason = "scheme";
      break;
    case dispatcher::ClassificationReason::kMatched:
      result.reason = "matched";
      result.pattern = c.pattern;
      break;
    case dispatcher::ClassificationReason::kNoMatch:
      result.reason = "no match";
      break;
    case dispatcher::ClassificationReason::kInvalidPattern:
      result.reason = "invalid pattern";
      result.pattern = c.pattern;
      result.error = c.error;
      result.offset = c.error_offset;
      break;
    case dispatcher::ClassificationReason::kSchemeOnly:
      result.reason = "scheme only";
      break;
    case dispatcher::ClassificationReason::kHostUnreadable:
      result.reason = "unreadable host";
      break;
  }
  if (c.reason == dispatcher::ClassificationReason::kInvalidPattern ||
      c.reason == dispatcher::ClassificationReason::kSchemeOnly) {
    result.decision = "abort";
  } else {
    result.decision = c.is_work ? "work" : "non-work";
  }
  if (c.reason != dispatcher::ClassificationReason::kNoPolicy &&
      c.reason != dispatcher::ClassificationReason::kScheme &&
      c.reason != dispatcher::ClassificationReason::kSchemeOnly) {
    result.subject = c.subject;
    result.matched_subject = c.matched_subject;
  }
  return result;
}

bool ReadStandardInput(std::string* data) {
  char buffer[65536];
  for (;;) {
    ssize_t got = read(STDIN_FILENO, buffer, sizeof(buffer));
    if (got < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    if (got == 0) return true;
    data->append(buffer, static_cast<size_t>(got));
  }
}

std::vector<std::string> SplitLines(const std::string& data) {
  std::vector<std::string> lines;
  size_t start = 0;
  while (start < data.size()) {
    size_t end = data.find('\n', start);
    if (end == std::string::npos) end = data.size();
    std::string line = data.substr(start, end - start);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (!line.empty()) lines.push_back(std::move(line));
    start = end + 1;
  }
  return lines;
}

int RunExplain(const Options& options) {
  std::vector<std::string> urls = options.arguments;
  if (urls.empty()) {
    std::string data;
    if (!ReadStandardInput(&data)) {
      Complain(std::string("cannot read standard input: ") + strerror(errno));
      return kExitProblem;
    }
    urls = SplitLines(data);
  }

  base::FilePath path = ChosenLocalState(options);
  std::vector<CapturedLine> lines;
  dispatcher::LocalStatePolicy policy = ReadPolicy(path, &lines);
  if (policy.status != dispatcher::LocalStateStatus::kParsed) {
    std::string why = lines.empty() ? std::string() : lines.back().message;
    Complain("Local State '" + path.value() + "' cannot be used (" + why +
             "); the dispatcher treats every URL as a work URL");
  }

  // The classifier's "Pattern : " lines are not shown: do not even format
  // them. Patterns are prepared once, for all the URLs, as the dispatcher
  // does.
  logging::SetMinimumLogLevel(logging::LOG_WARNING);
  dispatcher::UrlClassifier classifier(std::move(policy.policy_urls));
  int status = kExitOk;
  for (const std::string& url : urls) {
    Explanation e = Explain(classifier, url);
    std::string out;
    if (options.json) {
      out = "{\"url\":" + JsonString(url) + ",\"decision\":" + JsonString(e.decision) +
            ",\"reason\":" + JsonString(e.reason) +
            ",\"pattern\":" + (e.pattern ? JsonString(*e.pattern) : "null") +
            ",\"subject\":" + (e.subject ? JsonString(*e.subject) : "null");
      if (!e.matched_subject.empty()) out += ",\"matched_subject\":" + JsonString(e.matched_subject);
      if (e.error) {
        out += ",\"error\":" + JsonString(*e.error) + ",\"offset\":" + std::to_string(e.offset);
      }
      out += "}\n";
    } else {
      out = e.decision + "\t" + (e.pattern ? *e.pattern : "-") + "\t" + url + "\n";
    }
    Print(out);

    if (e.reason == "scheme only") {
      status = kExitProblem;
      Complain("URL " + JsonString(url) +
               " is only a scheme and a colon; the dispatcher would end on it");
    } else if (e.error) {
      status = kExitProblem;
      Complain("pattern " + JsonString(*e.pattern) + " is not a valid expression: " + *e.error +
               " (offset " + std::to_string(e.offset) + " in " +
               JsonString(dispatcher::TranslateUrlPattern(*e.pattern)) +
               "); the dispatcher would end on it");
    }
  }
  return status;
}

// ---------------------------------------------------------------------------
// check

int RunCheck(const Options& options) {
  base::FilePath path = ChosenLocalState(options);
  std::vector<CapturedLine> lines;
  dispatcher::LocalStatePolicy policy = ReadPolicy(path, &lines);

  std::string out = "The dispatcher would log:\n";
  for (const CapturedLine& line : lines) {
    out += "  " + logging::SeverityName(line.severity) + ": " + line.message + "\n";
  }
  out += "\n";

  if (policy.status != dispatcher::LocalStateStatus::kParsed) {
    out += "Local State cannot be used: every URL opens in the work browser.\n";
    Print(out);
    return kExitProblem;
  }

  int invalid = 0;
  if (!policy.policy_urls) {
    out += "policy: none (every URL opens in the work browser)\n";
  } else if (policy.policy_urls->empty()) {
    out += "policy: empty (every URL opens in the work browser)\n";
  } else {
    out += "policy: " + std::to_string(policy.policy_urls->size()) + " rule(s)\n";
    size_t rule_number = 0;
    for (dispatcher::PolicyRules::Rule rule : *policy.policy_urls) {
      ++rule_number;
      std::string rule_name = "rule " + std::to_string(rule_number);
      if (!rule.has_patterns) {
        out += rule_name + ": skipped (no patterns)\n";
        continue;
      }
      out += rule_name + ": " + std::to_string(rule.patterns.size()) + " pattern(s)\n";
      size_t pattern_number = 0;
      for (dispatcher::PolicyRules::Pattern pattern : rule.patterns) {
        ++pattern_number;
        out += rule_name + " pattern " + std::to_string(pattern_number) + ": ";
        if (!pattern.is_string) {
          out += "skipped (not a string)\n";
          continue;
        }
        if (pattern.text == "*/*") {
          out += "reserved */* " + JsonString(pattern.text) + " (never matched)\n";
          continue;
        }
        std::string text(pattern.text);
        std::string expression = JsonString(dispatcher::TranslateUrlPattern(text));
        dispatcher::PatternCheck check = dispatcher::CheckUrlPattern(text);
        if (check.valid) {
          out += "ok " + JsonString(pattern.text) + " -> " + expression + "\n";
        } else {
          ++invalid;
          out += "invalid expression " + JsonString(pattern.text) + " -> " + expression + ": " +
                 check.error + " at offset " + std::to_string(check.offset) + "\n";
        }
      }
    }
  }

  if (policy.non_work_browser_url) {
    out += "non-work browser: " + *policy.non_work_browser_url + "\n";
  } else {
    out += "non-work browser: none (other URLs open in the work browser)\n";
  }

  if (invalid > 0) {
    out += "\n" + std::to_string(invalid) +
           " invalid pattern(s): the dispatcher would end when it reaches one.\n";
    Print(out);
    return kExitProblem;
  }
  out += "\nThe dispatcher would run with this policy.\n";
  Print(out);
  return kExitOk;
}

}  // namespace

int main(int argc, char** argv) {
  // The core logs every step; the tool shows only its own output.
  logging::SetMinimumLogLevel(-1);
  logging::SetLogMessageHandler(&CaptureLogLine);

  if (argc < 2) return UsageError("no command given", kUsage);
  std::string_view command = argv[1];
  if (command == "--help" || command == "-h" || command == "help") {
    Print(kUsage);
    return kExitOk;
  }

  bool is_explain = command == "explain";
  if (!is_explain && command != "check") {
    return UsageError("unknown command '" + std::string(command) + "'", kUsage);
  }
  const char* usage = is_explain ? kExplainUsage : kCheckUsage;

  Options options;
  std::string error;
  if (!ParseOptions(argc, argv, 2, is_explain, &options, &error)) return UsageError(error, usage);
  if (options.help) {
    Print(usage);
    return kExitOk;
  }
  if (is_explain) return RunExplain(options);
  if (!options.arguments.empty()) {
    return UsageError("check takes no arguments ('" + options.arguments.front() + "')", usage);
  }
  return RunCheck(options);
}
