// Cost of classifying URLs: against many plain wildcard patterns (the common
// policy), against a few patterns with expression operators, with URLs from
// 100 bytes to 2 MB; what a 10,000-pattern policy adds to one URL in
// `corvane-dispatcher-policy explain`; what the dispatcher's "Pattern : "
// lines cost against the floor of writing them; and how long the expression
// library works before it gives up on a pattern; and what reading a URL as
// browsers read it costs, for a canonical URL and for one written otherwise.
//
// Figures on the 2-core development machine (minimum of 10 runs; a write
// system call costs about 1.4 us there):
//   BM_ExplainOneUrl/10000/0 (half "*?*")           0.81 ms  (goal: <= 5 ms)
//   BM_ExplainOneUrl/10000/1 (half alternations)    4.3 ms
//   BM_DispatcherPatternLines/10000/1 (fresh)       34.8 ms  against
//   BM_WriteFloor/10000                             30.6 ms  (1.14x; goal: <= 1.2x)
//   BM_MatcherGivesUp/0 (x+x+)+y/, step limit       46 ms    (goal: some 50 ms)
//   BM_MatcherGivesUp/1 (a|aa)+/, step limit        41 ms
//   BM_MatcherGivesUp/2 (a)+/ on 2 MB, depth limit  0.9 ms of matching, 60-70 ms
//                                                   when its 7 MB are fresh memory
//   BM_ClassifyPlainPatterns/10/100                 0.63 us  (0.47 us before URLs were read as
//   BM_ClassifyPlainPatterns/10/2000000             1.7 ms   browsers read them: 2.3 ms)
//   BM_ClassifyRespelledUrl/100                     1.3 us
//   BM_ClassifyRespelledUrl/2000000                 12 ms
//
// Logging: unless a case says otherwise the minimum level stays at the
// facility's default (WARNING), so the "Pattern : " INFO lines are not even
// formatted, and a handler swallows every line that is (the ERROR line of a
// matcher that gives up).
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "base/logging.h"
#include "dispatcher/classifier.h"
#include "dispatcher/policy.h"
#include "dispatcher/url_pattern.h"

namespace {

using dispatcher::Classification;
using dispatcher::InvalidPatternHandling;
using dispatcher::PolicyPattern;
using dispatcher::PolicyRule;
using dispatcher::PolicyRules;
using dispatcher::UrlClassifier;

bool SwallowLine(int, const char*, int, size_t, const std::string&) { return true; }

PolicyRules OneRule(const std::vector<std::string>& patterns) {
  PolicyRule rule;
  rule.has_patterns = true;
  for (const std::string& text : patterns) rule.patterns.push_back(PolicyPattern{true, text});
  return PolicyRules{rule};
}

// Three common shapes, none of which matches the benchmark URLs: a domain
// with subdomains (searched across the whole subject), an exact host, and a
// host with a path.
std::vector<std::string> PlainPatterns(int count) {
  std::vector<std::string> patterns;
  for (int i = 0; i < count; ++i) {
    std::string n = std::to_string(i);
    switch (i % 3) {
      case 0: patterns.push_back("*.corp" + n + ".test/*"); break;
      case 1: patterns.push_back("intra" + n + ".corp.test/*"); break;
      default: patterns.push_back("*.corp.test/app" + n + "/*"); break;
    }
  }
  return patterns;
}

// Half plain wildcards, half with an operator: "*?*" (a star after all) or
// an alternation that needs the expression library.
std::vector<std::string> MixedPatterns(int count, bool alternation) {
  std::vector<std::string> patterns;
  for (int i = 0; i < count; ++i) {
    std::string n = std::to_string(i);
    if (i % 2 == 0) {
      patterns.push_back("*.corp" + n + ".test/*");
    } else {
      patterns.push_back(alternation ? "corp" + n + ".test/(app|web)/*" : "corp" + n + ".test/app/*?*");
    }
  }
  return patterns;
}

std::vector<std::string> OperatorPatterns() {
  return {"(intra|extra).corp.test/(app|web)/*", "^[a-z]+\\d?.corp.test/$",
          "*.corp.test/portal/(v1|v2)/*", "corp.test/[^?]*[?]id=\\d+/",
          "*.(internal|staging).corp.test/*"};
}

// "https://www.example.test/" plus a path and a query, `size` bytes in all.
std::string UrlOfSize(int64_t size) {
  std::string url = "https://www.Example.test/docs/";
  std::string filler = "section/Item-42/";
  while (static_cast<int64_t>(url.size()) < size - 8) url += filler;
  url.resize(static_cast<size_t>(size - 8));
  url += "?page=1";
  url += 'x';
  return url;
}

std::string SizeName(int64_t size) {
  if (size >= 1000000) return std::to_string(size / 1000000) + "MB";
  if (size >= 1000) return std::to_string(size / 1000) + "kB";
  return std::to_string(size) + "B";
}

void ClassifyNonWork(benchmark::State& state, UrlClassifier& classifier, const std::string& url) {
  Classification result = classifier.Classify(url, InvalidPatternHandling::kAbort);
  benchmark::DoNotOptimize(result.is_work);
  if (result.is_work) state.SkipWithError("the benchmark URL must not match");
}

// One prepared classifier, as the dispatcher keeps it: the cost of each
// further URL.
void Classify(benchmark::State& state, const PolicyRules& rules, const std::string& url) {
  logging::SetLogMessageHandler(&SwallowLine);
  UrlClassifier classifier(rules);
  ClassifyNonWork(state, classifier, url);  // prepares every pattern
  for (auto _ : state) ClassifyNonWork(state, classifier, url);
  logging::SetLogMessageHandler(nullptr);
}

void BM_ClassifyPlainPatterns(benchmark::State& state) {
  int patterns = static_cast<int>(state.range(0));
  int64_t size = state.range(1);
  Classify(state, OneRule(PlainPatterns(patterns)), UrlOfSize(size));
  state.SetBytesProcessed(state.iterations() * size);
  state.counters["per_pattern"] =
      benchmark::Counter(patterns, benchmark::Counter::kIsIterationInvariantRate |
                                       benchmark::Counter::kInvert);
  state.SetLabel(std::to_string(patterns) + " plain patterns, URL " + SizeName(size));
}
BENCHMARK(BM_ClassifyPlainPatterns)
    ->ArgsProduct({{10, 10000}, {100, 10000, 2000000}})
    ->Unit(benchmark::kMicrosecond);

void BM_ClassifyOperatorPatterns(benchmark::State& state) {
  int64_t size = state.range(0);
  Classify(state, OneRule(OperatorPatterns()), UrlOfSize(size));
  state.SetBytesProcessed(state.iterations() * size);
  state.SetLabel(std::to_string(OperatorPatterns().size()) + " operator patterns, URL " +
                 SizeName(size));
}
BENCHMARK(BM_ClassifyOperatorPatterns)->Arg(100)->Arg(10000)->Arg(2000000)->Unit(benchmark::kMicrosecond);

// A URL that browsers read otherwise than it is written (backslashes for
// slashes, a tab in the host): its reading is written out, and the patterns
// are matched against two subjects, the reading and the URL as written.
void BM_ClassifyRespelledUrl(benchmark::State& state) {
  int64_t size = state.range(0);
  std::string url = UrlOfSize(size);
  for (char& c : url) c = c == '/' ? '\\' : c;
  url.insert(12, "\t");
  Classify(state, OneRule(PlainPatterns(10)), url);
  state.SetBytesProcessed(state.iterations() * size);
  state.SetLabel("10 plain patterns, URL " + SizeName(size) + " with backslashes and a tab");
}
BENCHMARK(BM_ClassifyRespelledUrl)->Arg(100)->Arg(10000)->Arg(2000000)->Unit(benchmark::kMicrosecond);

// `explain` with one URL: a fresh classifier, so each pattern is checked
// (and compiled, where it needs the expression library) before it is
// matched. Against a policy of one plain pattern, for the difference.
void BM_ExplainOneUrl(benchmark::State& state) {
  int patterns = static_cast<int>(state.range(0));
  bool alternation = state.range(1) != 0;
  PolicyRules rules = OneRule(MixedPatterns(patterns, alternation));
  std::string url = UrlOfSize(100);
  logging::SetLogMessageHandler(&SwallowLine);
  for (auto _ : state) {
    // The tool hands the policy it read to the classifier.
    state.PauseTiming();
    std::optional<PolicyRules> copy(rules);
    state.ResumeTiming();
    UrlClassifier classifier(std::move(copy));
    ClassifyNonWork(state, classifier, url);
  }
  logging::SetLogMessageHandler(nullptr);
  state.SetLabel(std::to_string(patterns) + " patterns, half " +
                 (alternation ? "corpN.test/(app|web)/*" : "corpN.test/app/*?*"));
}
BENCHMARK(BM_ExplainOneUrl)->ArgsProduct({{1, 10000}, {0, 1}})->Unit(benchmark::kMillisecond);

// The dispatcher's way: every "Pattern : " line to a real log file and to a
// standard error that leads to /dev/null, against the floor of writing the
// same lines with two write calls each.
class PatternLines {
 public:
  PatternLines() {
    path_ = "/tmp/classify_bench_XXXXXX";
    int fd = mkstemp(path_.data());
    if (fd >= 0) close(fd);
    saved_stderr_ = dup(STDERR_FILENO);
    int null = open("/dev/null", O_WRONLY);
    dup2(null, STDERR_FILENO);
    close(null);
  }
  ~PatternLines() {
    dup2(saved_stderr_, STDERR_FILENO);
    close(saved_stderr_);
    unlink(path_.c_str());
  }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
  int saved_stderr_ = -1;
};

// Fresh: the dispatcher's one URL per process, patterns prepared as they are
// reached; kept: a classifier that has seen a URL before.
void BM_DispatcherPatternLines(benchmark::State& state) {
  int patterns = static_cast<int>(state.range(0));
  bool fresh = state.range(1) != 0;
  PatternLines lines;
  logging::LogSettings settings;
  settings.destinations = logging::kLogToFile | logging::kLogToStderr;
  settings.log_file_path = lines.path().c_str();
  logging::InitializeLogging(settings);
  int saved_level = logging::GetMinimumLogLevel();
  logging::SetMinimumLogLevel(-1);
  PolicyRules rules = OneRule(PlainPatterns(patterns));
  UrlClassifier kept(rules);
  std::string url = UrlOfSize(100);
  if (!fresh) ClassifyNonWork(state, kept, url);
  for (auto _ : state) {
    if (fresh) {
      state.PauseTiming();
      std::optional<PolicyRules> copy(rules);
      state.ResumeTiming();
      UrlClassifier classifier(std::move(copy));
      ClassifyNonWork(state, classifier, url);
    } else {
      ClassifyNonWork(state, kept, url);
    }
  }
  logging::SetMinimumLogLevel(saved_level);
  logging::LogSettings none;
  none.destinations = logging::kLogToStderr;
  logging::InitializeLogging(none);
  state.counters["per_line"] =
      benchmark::Counter(patterns, benchmark::Counter::kIsIterationInvariantRate |
                                       benchmark::Counter::kInvert);
  state.SetLabel(std::to_string(patterns) + " plain patterns, a line each to file and /dev/null, " +
                 (fresh ? "fresh classifier" : "patterns prepared before"));
}
BENCHMARK(BM_DispatcherPatternLines)->ArgsProduct({{10000}, {1, 0}})->Unit(benchmark::kMillisecond);

void BM_WriteFloor(benchmark::State& state) {
  int patterns = static_cast<int>(state.range(0));
  PatternLines lines;
  int fd = open(lines.path().c_str(), O_WRONLY | O_APPEND);
  std::vector<std::string> texts;
  for (const std::string& pattern : PlainPatterns(patterns)) {
    texts.push_back("[0101/120000.000000:INFO:classifier.cc(123)] Pattern : " + pattern + "\n");
  }
  for (auto _ : state) {
    for (const std::string& text : texts) {
      benchmark::DoNotOptimize(write(STDERR_FILENO, text.data(), text.size()));
      benchmark::DoNotOptimize(write(fd, text.data(), text.size()));
    }
  }
  close(fd);
  state.counters["per_line"] =
      benchmark::Counter(patterns, benchmark::Counter::kIsIterationInvariantRate |
                                       benchmark::Counter::kInvert);
  state.SetLabel(std::to_string(patterns) + " lines, two write calls each");
}
BENCHMARK(BM_WriteFloor)->Arg(10000)->Unit(benchmark::kMillisecond);

// The time the expression library works before it gives up on a pattern
// (and the URL counts as a work URL): catastrophic backtracking runs into the
// step limit, deep repetition over a long subject into the depth limit.
void BM_MatcherGivesUp(benchmark::State& state) {
  struct Case {
    const char* pattern;
    std::string subject;
  };
  const Case cases[] = {
      {"(x+x+)+y/", std::string(40, 'x') + "/"},
      {"(a|aa)+/", std::string(64, 'a') + "c/"},
      {"(a)+/", std::string(2000000, 'a') + "c/"},
  };
  const Case& c = cases[state.range(0)];
  dispatcher::internal::PreparedUrlPattern pattern(c.pattern);
  dispatcher::internal::LoweredSubject subject(c.subject);
  dispatcher::internal::MatchScratch scratch;
  logging::SetLogMessageHandler(&SwallowLine);
  for (auto _ : state) {
    dispatcher::MatchResult result = pattern.Match(subject, scratch);
    if (result != dispatcher::MatchResult::kMatch) state.SkipWithError("the matcher must give up");
  }
  logging::SetLogMessageHandler(nullptr);
  state.SetLabel(std::string(c.pattern) + " against " + SizeName(static_cast<int64_t>(c.subject.size())));
}
BENCHMARK(BM_MatcherGivesUp)->DenseRange(0, 2)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
