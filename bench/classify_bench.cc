// Cost of classifying one URL: against many plain wildcard patterns (the
// common policy), against a few patterns with expression operators, with URLs
// from 100 bytes to 2 MB, and for a pattern the expression library gives up
// on.
//
// Logging: the minimum level stays at the facility's default (WARNING), so
// the "Pattern : " INFO lines are not even formatted, except in
// BM_ClassifyWithPatternLines, which opens INFO and installs a handler that
// swallows every line: it shows what formatting one line per pattern adds.
// Every benchmark installs that handler, so the ERROR line of a matcher that
// gives up never reaches standard error.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <optional>
#include <string>

#include "base/logging.h"
#include "dispatcher/classifier.h"
#include "dispatcher/policy.h"

namespace {

using dispatcher::Classification;
using dispatcher::ClassifyUrl;
using dispatcher::InvalidPatternHandling;
using dispatcher::PolicyPattern;
using dispatcher::PolicyRule;
using dispatcher::PolicyRules;

bool SwallowLine(int, const char*, int, size_t, const std::string&) { return true; }

// Three common shapes, none of which matches the benchmark URL: a domain with
// subdomains (searched across the whole subject), an exact host, and a host
// with a path.
PolicyRules PlainPatterns(int count) {
  PolicyRule rule;
  rule.has_patterns = true;
  for (int i = 0; i < count; ++i) {
    std::string n = std::to_string(i);
    std::string text;
    switch (i % 3) {
      case 0: text = "*.corp" + n + ".test/*"; break;
      case 1: text = "intra" + n + ".corp.test/*"; break;
      default: text = "*.corp.test/app" + n + "/*"; break;
    }
    rule.patterns.push_back(PolicyPattern{true, text});
  }
  return PolicyRules{rule};
}

PolicyRules OperatorPatterns() {
  PolicyRule rule;
  rule.has_patterns = true;
  for (const char* text : {"(intra|extra).corp.test/(app|web)/*", "^[a-z]+\\d?.corp.test/$",
                           "*.corp.test/portal/(v1|v2)/*", "corp.test/[^?]*[?]id=\\d+/",
                           "*.(internal|staging).corp.test/*"}) {
    rule.patterns.push_back(PolicyPattern{true, text});
  }
  return PolicyRules{rule};
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

void Classify(benchmark::State& state, const PolicyRules& rules, const std::string& url) {
  logging::SetLogMessageHandler(&SwallowLine);
  std::optional<PolicyRules> policy(rules);
  for (auto _ : state) {
    Classification result = ClassifyUrl(policy, url, InvalidPatternHandling::kAbort);
    benchmark::DoNotOptimize(result.is_work);
    if (result.is_work) state.SkipWithError("the benchmark URL must not match");
  }
  logging::SetLogMessageHandler(nullptr);
}

void BM_ClassifyPlainPatterns(benchmark::State& state) {
  int patterns = static_cast<int>(state.range(0));
  int64_t size = state.range(1);
  std::string url = UrlOfSize(size);
  Classify(state, PlainPatterns(patterns), url);
  state.SetBytesProcessed(state.iterations() * size);
  state.counters["patterns"] = patterns;
  state.counters["per_pattern"] =
      benchmark::Counter(patterns, benchmark::Counter::kIsIterationInvariantRate |
                                       benchmark::Counter::kInvert);
  state.SetLabel(std::to_string(patterns) + " plain patterns, URL " + SizeName(size));
}
BENCHMARK(BM_ClassifyPlainPatterns)
    ->ArgsProduct({{10, 100, 1000, 10000}, {100, 10000, 100000, 2000000}})
    ->Unit(benchmark::kMicrosecond);

void BM_ClassifyOperatorPatterns(benchmark::State& state) {
  int64_t size = state.range(0);
  std::string url = UrlOfSize(size);
  PolicyRules rules = OperatorPatterns();
  Classify(state, rules, url);
  state.SetBytesProcessed(state.iterations() * size);
  state.counters["patterns"] = static_cast<double>(rules[0].patterns.size());
  state.SetLabel(std::to_string(rules[0].patterns.size()) + " operator patterns, URL " +
                 SizeName(size));
}
BENCHMARK(BM_ClassifyOperatorPatterns)
    ->Arg(100)
    ->Arg(10000)
    ->Arg(100000)
    ->Arg(2000000)
    ->Unit(benchmark::kMicrosecond);

void BM_ClassifyWithPatternLines(benchmark::State& state) {
  int patterns = static_cast<int>(state.range(0));
  std::string url = UrlOfSize(100);
  int saved_level = logging::GetMinimumLogLevel();
  logging::SetMinimumLogLevel(-1);
  Classify(state, PlainPatterns(patterns), url);
  logging::SetMinimumLogLevel(saved_level);
  state.counters["per_pattern"] =
      benchmark::Counter(patterns, benchmark::Counter::kIsIterationInvariantRate |
                                       benchmark::Counter::kInvert);
  state.SetLabel(std::to_string(patterns) + " plain patterns, URL 100B, INFO lines formatted");
}
BENCHMARK(BM_ClassifyWithPatternLines)->Arg(10)->Arg(10000)->Unit(benchmark::kMicrosecond);

// The time the backtracking limits allow before the matcher gives up (and the
// URL counts as a work URL).
void BM_MatcherGivesUp(benchmark::State& state) {
  int64_t size = state.range(0);
  std::string url = "https://" + std::string(static_cast<size_t>(size), 'a') + "c/";
  PolicyRule rule;
  rule.has_patterns = true;
  rule.patterns.push_back(PolicyPattern{true, "(a|aa)+/"});
  std::optional<PolicyRules> policy(PolicyRules{rule});
  logging::SetLogMessageHandler(&SwallowLine);
  for (auto _ : state) {
    Classification result = ClassifyUrl(policy, url, InvalidPatternHandling::kAbort);
    benchmark::DoNotOptimize(result.is_work);
  }
  logging::SetLogMessageHandler(nullptr);
  state.SetLabel("(a|aa)+/ against " + SizeName(size) + " of a");
}
BENCHMARK(BM_MatcherGivesUp)->Arg(64)->Arg(100000)->Arg(2000000)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
