// The policy tool as a real process on real Local State files, including what would end the dispatcher.
#include "gtest/gtest.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

namespace corvane_test {
namespace {

class PolicyToolTest : public ::testing::Test {
 protected:
  // Writes `json` as Local State unless it is empty. No input may crash or hang the tool.
  ProcessResult Run(const std::string& json, Strings args, const std::string& input = "", Strings argv = {}) {
    EXPECT_TRUE(json.empty() || WriteFile(local_state_, json));
    args.insert(args.begin(), CORVANE_POLICY_TOOL_BINARY);
    argv.insert(argv.end(), args.begin(), args.end());
    ProcessResult result = RunProcess(argv, {{}, false, input});
    EXPECT_TRUE(result.exited) << "signal " << result.signal << ": " << result.err;
    return result;
  }

  TempDir dir_;
  const std::string local_state_ = dir_.Child("Local State");
};

TEST_F(PolicyToolTest, HelpGoesToStandardOutputAndUsageErrorsExitTwo) {
  for (const auto& [args, code] : std::vector<std::pair<Strings, int>>{
           {{"--help"}, 0}, {{"check", "--local-state", "/x", "-h"}, 0}, {{}, 2}, {{"run"}, 2}, {{"explain", "-x"}, 2},
           {{"check", "--json"}, 2}, {{"check", "https://a/"}, 2}, {{"explain", "--local-state"}, 2}}) {
    ProcessResult r = Run("", args);
    EXPECT_EQ(r.exit_code, code) << ::testing::PrintToString(args);
    EXPECT_NE((code ? r.err : r.out).find("Usage: corvane-dispatcher-policy"), std::string::npos);
    EXPECT_EQ(code ? r.out : r.err, "");
  }
}

TEST_F(PolicyToolTest, ExplainDecidesInTheDispatchersOrderForArgumentsOrStandardInputAsTextOrJson) {
  // A rule without patterns, a pattern that is no string and the reserved "*/*" are skipped; the first match wins.
  ProcessResult r = Run(R"({"kel_prefs": {"policy": {"browser_urls": [{"name": "none"},
      {"patterns": ["*/*", 7, "*.one.test/*", "*.corp.test/*"]}, {"patterns": ["*/app/*"]}]}}})",
                        {"explain", "--local-state", local_state_, "--", "https://Intra.CORP.test:8443/app/",
                         "HTTPS://www.one.test", "https://xcorp.test/", "https://corp.test.other/",
                         "wss://other.test/app/x", "https://other.test/application/\xff", "mailto:x@corp.test",
                         "-https://a.corp.test/"});
  EXPECT_EQ(r.exit_code, 0);
  EXPECT_EQ(r.out + r.err,
            "work\t*.corp.test/*\thttps://Intra.CORP.test:8443/app/\nwork\t*.one.test/*\tHTTPS://www.one.test\n"
            "work\t*.corp.test/*\thttps://xcorp.test/\nnon-work\t-\thttps://corp.test.other/\n"
            "work\t*/app/*\twss://other.test/app/x\nnon-work\t-\thttps://other.test/application/\xff\n"
            "non-work\t-\tmailto:x@corp.test\nnon-work\t-\t-https://a.corp.test/\n");
  r = Run("", {"explain", "--local-state", local_state_}, "https://a.corp.test/\r\n\nhttps://other.test/x");
  EXPECT_EQ(r.out, "work\t*.corp.test/*\thttps://a.corp.test/\nnon-work\t-\thttps://other.test/x\n");
  // The subject is the URL as browsers read it; a pattern that matched only the URL as written says so.
  r = Run("", {"explain", "--json", "--local-state", local_state_, "https://a.corp.test/\"q\\\t\x01\x7f\xc3\xa9\xff",
               "mailto:x", "https://other.test/app/.."});
  EXPECT_EQ(r.out, R"({"url":"https://a.corp.test/\"q\\\t\u0001\u007f)" "\xc3\xa9" R"(\ufffd","decision":"work",)"
                   R"("reason":"matched","pattern":"*.corp.test/*",)"
                   R"("subject":"a.corp.test/%22q/%01%7f%c3%a9%ef%bf%bd/"})" "\n"
                   R"({"url":"mailto:x","decision":"non-work","reason":"scheme","pattern":null,"subject":null})" "\n"
                   R"({"url":"https://other.test/app/..","decision":"work","reason":"matched","pattern":"*/app/*",)"
                   R"("subject":"other.test/","matched_subject":"other.test/app/../"})" "\n");
}

TEST_F(PolicyToolTest, WhatWouldEndTheDispatcherIsReportedWithExitOne) {
  auto r = Run(R"({"kel_prefs":{"policy":{"browser_urls":[{"patterns":["*.one.test/*", "a(b/*", "*.corp.test/*"]}]}}})",
               {"explain", "--local-state", local_state_, "https://www.one.test/", "https://www.corp.test/",
                "mailto:x@corp.test", "https:", "WS:"});
  EXPECT_EQ(r.exit_code, 1);
  // The first pattern decides before the broken one is reached; a mailto URL never reaches it.
  EXPECT_EQ(r.out, "work\t*.one.test/*\thttps://www.one.test/\nabort\ta(b/*\thttps://www.corp.test/\n"
                   "non-work\t-\tmailto:x@corp.test\nabort\t-\thttps:\nabort\t-\tWS:\n");
  EXPECT_NE(r.err.find("\"a(b/*\" is not a valid expression: '(' without its ')' (offset 1 in \"a(b/(.*)\")"),
            std::string::npos) << r.err;
  EXPECT_NE(r.err.find("only a scheme and a colon"), std::string::npos) << r.err;
  for (auto [url, code] : {std::pair("http://a.corp.test", 1), {"https:", 1}, {"ftp:", 0}, {"https://a.one.test", 0}})
    EXPECT_EQ(Run("", {"explain", "--local-state", local_state_, url}).exit_code, code) << url;
  EXPECT_EQ(Run("{}", {"explain", "--local-state", local_state_, "https:"}).out, "work\t-\thttps:\n");  // no policy
  // Standard input that cannot be read (a folder) is no empty list of URLs.
  r = Run("", {"explain"}, "", {"/bin/sh", "-c", "exec \"$@\" < /", "sh"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("cannot read standard input: Is a directory"), std::string::npos) << r.err;
}

TEST_F(PolicyToolTest, CheckShowsWhatTheDispatcherWouldDoAndExitsOneIfItCannotRunAsPlanned) {
  const std::string listing = R"({"browser": {"browserPathForNonWorkLinks": "file:///o"}, "kel_prefs":
      {"policy": {"browser_urls": [{"patterns": ["*.corp.test/*", 12, "*/*"]}, {"name": "none"}]}}})";
  for (const auto& [json, code, part] : std::vector<std::tuple<std::string, int, std::string>>{
           {listing, 0, "\n\npolicy: 2 rule(s)\nrule 1: 3 pattern(s)\n"
                        "rule 1 pattern 1: ok \"*.corp.test/*\" -> \"(.*)[./]?corp\\\\.test/(.*)\"\n"
                        "rule 1 pattern 2: skipped (not a string)\n"
                        "rule 1 pattern 3: reserved */* \"*/*\" (never matched)\nrule 2: skipped (no patterns)\n"
                        "non-work browser: file:///o\n\nThe dispatcher would run with this policy.\n"},
           {"[1,", 1, "\n\nLocal State cannot be used: every URL opens in the work browser.\n"},
           // Valid for PCRE2, not in the ECMAScript grammar.
           {R"({"kel_prefs": {"policy": {"browser_urls": [{"patterns": ["corp.test/{1"]}]}}})", 1,
            "rule 1 pattern 1: invalid expression \"corp.test/{1\" -> \"corp\\\\.test/{1\": a repetition "
            "count is {n}, {n,} or {n,m} at offset 13\nnon-work browser: none (other URLs open in the work "
            "browser)\n\n1 invalid pattern(s): the dispatcher would end when it reaches one.\n"}}) {
    ProcessResult r = Run(json, {"check", "--local-state", local_state_});
    EXPECT_EQ(r.exit_code, code) << json;
    EXPECT_NE(r.out.find(part), std::string::npos) << r.out;
  }
}

TEST_F(PolicyToolTest, UnreadableLocalStateIsNoPolicy) {
  // Root reads any file whatever its mode.
  ASSERT_TRUE(WriteFile(local_state_, "{}", RunningAsRoot() ? 0600 : 0));
  Strings user = RunningAsRoot() ? AsUnprivilegedUser() : Strings{};
  ProcessResult r = Run("", {"check", "--local-state", local_state_}, "", user);
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_EQ(r.out, "The dispatcher would log:\n  INFO: Local State Path " + local_state_ +
                       "\n  ERROR: Local State is not readable.\n\n"
                       "Local State cannot be used: every URL opens in the work browser.\n");
  r = Run("", {"explain", "--json", "--local-state", local_state_, "mailto:x"}, "", user);
  EXPECT_EQ(r.exit_code, 0);
  EXPECT_EQ(r.out, R"({"url":"mailto:x","decision":"work","reason":"no policy","pattern":null,"subject":null})" "\n");
  EXPECT_NE(r.err.find("Local State is not readable."), std::string::npos) << r.err;  // a note, on stderr only
}

}  // namespace
}  // namespace corvane_test
