// The administrator's tool run as a real process against real Local State
// files: exit codes, output formats, and the inputs that would end the
// dispatcher but must never end the tool.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

namespace {

using corvane_test::MakeDirectories;
using corvane_test::ProcessOptions;
using corvane_test::ProcessResult;
using corvane_test::RunProcess;
using corvane_test::TempDir;
using corvane_test::WriteFile;

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

bool Contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

std::string Policy(const std::vector<std::string>& patterns) {
  std::string json = R"({"kel_prefs": {"policy": {"browser_urls": [{"patterns": [)";
  for (size_t i = 0; i < patterns.size(); ++i) {
    if (i > 0) json += ", ";
    json += "\"" + patterns[i] + "\"";
  }
  return json + "]}]}}}";
}

class PolicyToolTest : public ::testing::Test {
 protected:
  // Runs the tool; a run that did not end by exit (signal, time limit) fails
  // the test, since no input may crash or hang the tool.
  ProcessResult Run(std::vector<std::string> args, const ProcessOptions& options = {}) {
    args.insert(args.begin(), CORVANE_POLICY_TOOL_BINARY);
    ProcessResult result = RunProcess(args, options);
    EXPECT_TRUE(result.started);
    EXPECT_TRUE(result.exited) << "signal " << result.signal << " timed out " << result.timed_out
                               << "\nstderr: " << result.err;
    return result;
  }

  std::string WriteLocalState(const std::string& json) {
    std::string path = dir_.Child("Local State");
    EXPECT_TRUE(WriteFile(path, json));
    return path;
  }

  ProcessResult Explain(const std::string& json, std::vector<std::string> urls) {
    std::vector<std::string> args = {"explain", "--local-state", WriteLocalState(json)};
    args.insert(args.end(), urls.begin(), urls.end());
    return Run(args);
  }

  TempDir dir_;
};

TEST_F(PolicyToolTest, HelpAndUsageErrors) {
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{"--help"}, {"explain", "--help"}, {"check", "--help"},
        {"check", "--local-state", "/x", "-h"}}) {
    ProcessResult r = Run(args);
    EXPECT_EQ(r.exit_code, 0) << args[0];
    EXPECT_TRUE(Contains(r.out, "Usage: corvane-dispatcher-policy")) << r.out;
    EXPECT_EQ(r.err, "");
  }
  EXPECT_TRUE(Contains(Run({"explain", "--help"}).out, "--json"));

  for (const std::vector<std::string>& args :
       {std::vector<std::string>{}, {"frobnicate"}, {"--json"}, {"explain", "--frob"},
        {"check", "--frob"}, {"check", "--json"}, {"check", "https://corp.test/"},
        {"explain", "--local-state"}, {"check", "--local-state"}}) {
    ProcessResult r = Run(args);
    EXPECT_EQ(r.exit_code, 2) << (args.empty() ? "(none)" : args.back());
    EXPECT_TRUE(Contains(r.err, "Usage: corvane-dispatcher-policy")) << r.err;
    EXPECT_EQ(r.out, "");
  }
}

// Every example of the pattern language's translation table, through the
// tool's classification of a URL whose subject is the one in the table.
TEST_F(PolicyToolTest, ExplainAgreesWithTheTranslationExamples) {
  struct Example {
    const char* pattern;
    const char* url;
    const char* subject;
    bool matches;
  };
  const std::vector<Example> examples = {
      {"*.corp.test/*", "https://corp.test/", "corp.test/", true},
      {"*.corp.test/*", "https://intra.corp.test", "intra.corp.test/", true},
      {"*.corp.test/*", "https://a.b.corp.test/x/y?q=1", "a.b.corp.test/x/y?q=1/", true},
      {"*.corp.test/*", "https://xcorp.test/", "xcorp.test/", true},
      {"*.corp.test/*", "https://corp.test.other/", "corp.test.other/", false},
      {"corp.test/*", "https://corp.test/", "corp.test/", true},
      {"corp.test/*", "http://corp.test/any/path/", "corp.test/any/path/", true},
      {"corp.test/*", "https://intra.corp.test/", "intra.corp.test/", false},
      {"corp.test/*", "https://user@corp.test/", "user@corp.test/", false},
      {"corp.test", "https://corp.test/", "corp.test/", false},
      {"corp.test", "https://corp.test", "corp.test/", false},
      {"*/app/*", "wss://corp.test/app/x/", "corp.test/app/x/", true},
      {"*/app/*", "https://corp.test/application/", "corp.test/application/", false},
  };
  for (const Example& e : examples) {
    SCOPED_TRACE(std::string(e.pattern) + " " + e.url);
    ProcessResult plain = Explain(Policy({e.pattern}), {e.url});
    EXPECT_EQ(plain.exit_code, 0);
    std::string expected = e.matches ? std::string("work\t") + e.pattern + "\t" + e.url + "\n"
                                     : std::string("non-work\t-\t") + e.url + "\n";
    EXPECT_EQ(plain.out, expected);

    ProcessResult json = Run({"explain", "--json", "--local-state", dir_.Child("Local State"),
                              e.url});
    EXPECT_EQ(json.exit_code, 0);
    std::string pattern = e.matches ? std::string("\"") + e.pattern + "\"" : "null";
    EXPECT_EQ(json.out, std::string("{\"url\":\"") + e.url + "\",\"decision\":\"" +
                            (e.matches ? "work" : "non-work") + "\",\"reason\":\"" +
                            (e.matches ? "matched" : "no match") + "\",\"pattern\":" + pattern +
                            ",\"subject\":\"" + e.subject + "\"}\n");
  }
}

TEST_F(PolicyToolTest, ExplainFollowsTheDispatchersOrderOfDecisions) {
  std::string json = R"({"kel_prefs": {"policy": {"browser_urls": [
      {"name": "no patterns"},
      {"patterns": ["*/*", 7, "*.first.test/*", "*.corp.test/*"]},
      {"patterns": ["*.corp.test/*"]}]}}})";
  ProcessResult r = Explain(json, {"https://Intra.CORP.test:8443/Path", "mailto:x@corp.test",
                                   "ftp://corp.test/", "https://elsewhere.test/",
                                   "HTTPS://www.first.test/"});
  EXPECT_EQ(r.exit_code, 0);
  EXPECT_EQ(Lines(r.out), (std::vector<std::string>{
                              "work\t*.corp.test/*\thttps://Intra.CORP.test:8443/Path",
                              "non-work\t-\tmailto:x@corp.test",
                              "non-work\t-\tftp://corp.test/",
                              "non-work\t-\thttps://elsewhere.test/",
                              "work\t*.first.test/*\tHTTPS://www.first.test/",
                          }));
  EXPECT_EQ(r.err, "");
}

TEST_F(PolicyToolTest, ExplainWithoutPolicyMakesEveryUrlWork) {
  for (const char* json : {"{}", R"({"kel_prefs": {"policy": {"browser_urls": []}}})",
                           R"({"kel_prefs": {"policy": {"browser_urls": [{"x": 1}]}}})"}) {
    SCOPED_TRACE(json);
    ProcessResult r = Explain(json, {"mailto:a@b.test", "https://x.test/"});
    bool has_rules = Contains(json, "\"x\"");
    EXPECT_EQ(r.exit_code, 0);
    if (has_rules) {
      // A rule without patterns is still policy: nothing can match.
      EXPECT_EQ(r.out, "non-work\t-\tmailto:a@b.test\nnon-work\t-\thttps://x.test/\n");
    } else {
      EXPECT_EQ(r.out, "work\t-\tmailto:a@b.test\nwork\t-\thttps://x.test/\n");
    }
  }

  // A file that cannot be used gives no policy, with a note on stderr only.
  ProcessResult missing =
      Run({"explain", "--json", "--local-state", dir_.Child("missing"), "https://x.test/"});
  EXPECT_EQ(missing.exit_code, 0);
  EXPECT_EQ(missing.out,
            "{\"url\":\"https://x.test/\",\"decision\":\"work\",\"reason\":\"no policy\","
            "\"pattern\":null,\"subject\":null}\n");
  EXPECT_TRUE(Contains(missing.err, "Local State is not readable.")) << missing.err;
}

TEST_F(PolicyToolTest, ExplainReadsStandardInputWhenGivenNoUrls) {
  std::string path = WriteLocalState(Policy({"*.corp.test/*"}));
  ProcessOptions options;
  options.stdin_data =
      "https://a.corp.test/\r\n\nhttps://other.test/x\nmailto:someone@corp.test\n\n"
      "https://b.corp.test";
  ProcessResult r = Run({"explain", "--local-state", path}, options);
  EXPECT_EQ(r.exit_code, 0);
  EXPECT_EQ(Lines(r.out), (std::vector<std::string>{
                              "work\t*.corp.test/*\thttps://a.corp.test/",
                              "non-work\t-\thttps://other.test/x",
                              "non-work\t-\tmailto:someone@corp.test",
                              "work\t*.corp.test/*\thttps://b.corp.test",
                          }));

  options.stdin_data = "";
  ProcessResult empty = Run({"explain", "--local-state", path}, options);
  EXPECT_EQ(empty.exit_code, 0);
  EXPECT_EQ(empty.out, "");

  // "--" lets a URL-like argument that starts with a dash through.
  ProcessResult dashed = Run({"explain", "--local-state", path, "--", "-https://a.corp.test/"});
  EXPECT_EQ(dashed.exit_code, 0);
  EXPECT_EQ(dashed.out, "non-work\t-\t-https://a.corp.test/\n");
}

TEST_F(PolicyToolTest, JsonOutputEscapesEveryString) {
  std::string path = WriteLocalState(Policy({"*.corp.test/*"}));
  const std::string url_with_specials = "https://a.corp.test/q\"uote\\back\tslash\x01\x7f";
  const std::string url_with_utf8 = "https://b.corp.test/caf\xc3\xa9/";
  const std::string url_with_bad_bytes = "https://c.corp.test/\xff\xc3/";
  const std::string url_with_newline = "https://d.corp.test/a\nb";
  ProcessResult r = Run({"explain", "--json", "--local-state", path, url_with_specials,
                         url_with_utf8, url_with_bad_bytes, url_with_newline});
  EXPECT_EQ(r.exit_code, 0);
  std::vector<std::string> lines = Lines(r.out);
  ASSERT_EQ(lines.size(), 4u) << r.out;
  EXPECT_EQ(lines[0],
            R"({"url":"https://a.corp.test/q\"uote\\back\tslash\u0001\u007f","decision":"work",)"
            R"("reason":"matched","pattern":"*.corp.test/*",)"
            R"("subject":"a.corp.test/q\"uote\\back\tslash\u0001\u007f/"})");
  EXPECT_EQ(lines[1], "{\"url\":\"https://b.corp.test/caf\xc3\xa9/\",\"decision\":\"work\","
                      "\"reason\":\"matched\",\"pattern\":\"*.corp.test/*\","
                      "\"subject\":\"b.corp.test/caf\xc3\xa9/\"}");
  EXPECT_EQ(lines[2], R"({"url":"https://c.corp.test/\ufffd\ufffd/","decision":"work",)"
                      R"("reason":"matched","pattern":"*.corp.test/*",)"
                      R"("subject":"c.corp.test/\ufffd\ufffd/"})");
  // As in ECMAScript, "." matches no line terminator.
  EXPECT_EQ(lines[3], R"({"url":"https://d.corp.test/a\nb","decision":"non-work",)"
                      R"("reason":"no match","pattern":null,"subject":"d.corp.test/a\nb/"})");

  // The plain form keeps the URL's bytes as given.
  ProcessResult plain = Run({"explain", "--local-state", path, url_with_bad_bytes});
  EXPECT_EQ(plain.out, "work\t*.corp.test/*\t" + url_with_bad_bytes + "\n");
}

TEST_F(PolicyToolTest, InvalidPatternIsReportedNotFatal) {
  std::string json = Policy({"*.first.test/*", "a(b/*", "*.corp.test/*"});
  ProcessResult r = Explain(json, {"https://www.first.test/", "https://www.corp.test/",
                                   "mailto:x@corp.test"});
  EXPECT_EQ(r.exit_code, 1);
  // The first pattern decides before the broken one is reached; the second
  // URL reaches it; a mailto URL never does.
  EXPECT_EQ(Lines(r.out), (std::vector<std::string>{
                              "work\t*.first.test/*\thttps://www.first.test/",
                              "abort\ta(b/*\thttps://www.corp.test/",
                              "non-work\t-\tmailto:x@corp.test",
                          }));
  EXPECT_TRUE(Contains(r.err, "a(b/*")) << r.err;
  EXPECT_TRUE(Contains(r.err, "offset")) << r.err;

  ProcessResult first_only = Explain(json, {"https://www.first.test/"});
  EXPECT_EQ(first_only.exit_code, 0);

  ProcessResult as_json =
      Run({"explain", "--json", "--local-state", dir_.Child("Local State"), "https://x.test/"});
  EXPECT_EQ(as_json.exit_code, 1);
  EXPECT_TRUE(Contains(as_json.out, R"("decision":"abort","reason":"invalid pattern",)"
                                    R"("pattern":"a(b/*","subject":"x.test/","error":")"))
      << as_json.out;
  EXPECT_TRUE(Contains(as_json.out, R"(","offset":8})")) << as_json.out;

  for (const char* broken : {"[", "*(", "corp.test/\\\\", "x{2,1}/*", "(?<n>a)\\\\k<m>"}) {
    SCOPED_TRACE(broken);
    ProcessResult b = Explain(Policy({broken}), {"https://corp.test/"});
    EXPECT_EQ(b.exit_code, 1);
    EXPECT_TRUE(Contains(b.out, "abort\t")) << b.out;
  }
}

TEST_F(PolicyToolTest, SchemeAndColonAloneIsReportedNotFatal) {
  std::string json = Policy({"*.corp.test/*"});
  ProcessResult r = Explain(json, {"https:", "HTTPS:", "ws:", "https://a.corp.test/"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_EQ(Lines(r.out), (std::vector<std::string>{
                              "abort\t-\thttps:",
                              "abort\t-\tHTTPS:",
                              "abort\t-\tws:",
                              "work\t*.corp.test/*\thttps://a.corp.test/",
                          }));
  EXPECT_TRUE(Contains(r.err, "only a scheme and a colon")) << r.err;

  // Other schemes stop at the scheme test, and without policy nothing is
  // built from the URL at all.
  EXPECT_EQ(Explain(json, {"mailto:", "ftp:"}).exit_code, 0);
  ProcessResult no_policy = Explain("{}", {"https:"});
  EXPECT_EQ(no_policy.exit_code, 0);
  EXPECT_EQ(no_policy.out, "work\t-\thttps:\n");

  ProcessResult as_json =
      Run({"explain", "--json", "--local-state", dir_.Child("Local State"), "wss:"});
  EXPECT_EQ(as_json.exit_code, 0);  // "{}" was written last: no policy
  EXPECT_TRUE(Contains(as_json.out, R"("reason":"no policy")")) << as_json.out;
  WriteLocalState(json);
  as_json = Run({"explain", "--json", "--local-state", dir_.Child("Local State"), "wss:"});
  EXPECT_EQ(as_json.exit_code, 1);
  EXPECT_EQ(as_json.out, R"({"url":"wss:","decision":"abort","reason":"scheme only",)"
                         R"("pattern":null,"subject":null})"
                         "\n");
}

TEST_F(PolicyToolTest, CheckListsLogLinesRulesAndPatterns) {
  std::string path = WriteLocalState(R"({
      "browser": {"browserPathForNonWorkLinks": "file:///usr/bin/other-browser"},
      "kel_prefs": {"policy": {"browser_urls": [
          {"patterns": ["*.corp.test/*", 12, "*/*"]},
          {"name": "none"},
          {"patterns": ["*/app/*"]}]}}})");
  ProcessResult r = Run({"check", "--local-state", path});
  EXPECT_EQ(r.exit_code, 0) << r.out;
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(Lines(r.out), (std::vector<std::string>{
                              "The dispatcher would log:",
                              "  INFO: Local State Path " + path,
                              "  INFO: Local State is readable.",
                              "  INFO: Read local state data.",
                              "  INFO: Successfully parsed Local State.",
                              "  INFO: Successfully parsed Policy Doc URLs.",
                              "  INFO: Successfully stored path for non-work browser",
                              "",
                              "policy: 3 rule(s)",
                              "rule 1: 3 pattern(s)",
                              R"x(rule 1 pattern 1: ok "*.corp.test/*" -> "(.*)[./]?corp\\.test/(.*)")x",
                              "rule 1 pattern 2: skipped (not a string)",
                              R"x(rule 1 pattern 3: reserved */* "*/*" (never matched))x",
                              "rule 2: skipped (no patterns)",
                              "rule 3: 1 pattern(s)",
                              R"x(rule 3 pattern 1: ok "*/app/*" -> "(.*)/app/(.*)")x",
                              "non-work browser: file:///usr/bin/other-browser",
                              "",
                              "The dispatcher would run with this policy.",
                          }));
}

TEST_F(PolicyToolTest, CheckExitStatusFollowsWhatTheDispatcherWouldDo) {
  struct Case {
    std::string json;
    int exit_code;
    std::string expected_line;
  };
  const std::vector<Case> cases = {
      {"{}", 0, "  ERROR: Local State has no kel_prefs."},
      {"{}", 0, "policy: none (every URL opens in the work browser)"},
      {R"({"kel_prefs": {"policy": {"browser_urls": []}}})", 0,
       "policy: empty (every URL opens in the work browser)"},
      {R"({"kel_prefs": {"policy": null}})", 0, "  ERROR: Local State has no policy data."},
      {R"({"browser": {"browserPathForNonWorkLinks": "not a url"}})", 0,
       "non-work browser: none (other URLs open in the work browser)"},
      {"", 1, "Local State cannot be used: every URL opens in the work browser."},
      {"[1,", 1, "Local State cannot be used: every URL opens in the work browser."},
      {"\"just a string\"", 1, "Local State cannot be used: every URL opens in the work browser."},
      {Policy({"ok/*", "x)/*"}), 1,
       "1 invalid pattern(s): the dispatcher would end when it reaches one."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.json);
    ProcessResult r = Run({"check", "--local-state", WriteLocalState(c.json)});
    EXPECT_EQ(r.exit_code, c.exit_code) << r.out;
    std::vector<std::string> lines = Lines(r.out);
    EXPECT_NE(std::find(lines.begin(), lines.end(), c.expected_line), lines.end()) << r.out;
  }

  ProcessResult invalid = Run({"check", "--local-state", WriteLocalState(Policy({"x)/*"}))});
  EXPECT_TRUE(Contains(invalid.out,
                       R"x(rule 1 pattern 1: invalid expression "x)/*" -> "x)/(.*)": )x"))
      << invalid.out;
  EXPECT_TRUE(Contains(invalid.out, " at offset 1\n")) << invalid.out;

  std::string folder = dir_.Child("folder");
  ASSERT_TRUE(MakeDirectories(folder));
  ProcessResult directory = Run({"check", "--local-state", folder});
  EXPECT_EQ(directory.exit_code, 1);
  EXPECT_TRUE(Contains(directory.out, "  ERROR: Failed to read Local State data.\n"))
      << directory.out;

  ProcessResult missing = Run({"check", "--local-state", dir_.Child("missing")});
  EXPECT_EQ(missing.exit_code, 1);
  EXPECT_TRUE(Contains(missing.out, "  ERROR: Local State is not readable.\n")) << missing.out;
}

// Root reads every file whatever its mode, so the tool runs as an
// unprivileged user against a file only root may read.
TEST_F(PolicyToolTest, CheckReportsAnUnreadableLocalState) {
  std::string path = WriteLocalState(Policy({"*.corp.test/*"}));
  std::vector<std::string> prefix;
  if (corvane_test::RunningAsRoot()) {
    prefix = corvane_test::AsUnprivilegedUser();
    ASSERT_EQ(chmod(dir_.path().c_str(), 0755), 0);
  }
  std::vector<std::string> check = prefix;
  check.insert(check.end(), {CORVANE_POLICY_TOOL_BINARY, "check", "--local-state", path});

  // The same user can read a world-readable copy: the drop itself works.
  ASSERT_EQ(chmod(path.c_str(), 0644), 0);
  ProcessResult readable = RunProcess(check);
  ASSERT_TRUE(readable.exited) << readable.err;
  EXPECT_EQ(readable.exit_code, 0) << readable.out << readable.err;

  ASSERT_EQ(chmod(path.c_str(), corvane_test::RunningAsRoot() ? 0600 : 0000), 0);
  ProcessResult r = RunProcess(check);
  ASSERT_TRUE(r.exited) << r.err;
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_EQ(Lines(r.out), (std::vector<std::string>{
                              "The dispatcher would log:",
                              "  INFO: Local State Path " + path,
                              "  ERROR: Local State is not readable.",
                              "",
                              "Local State cannot be used: every URL opens in the work browser.",
                          }));

  std::vector<std::string> explain = prefix;
  explain.insert(explain.end(), {CORVANE_POLICY_TOOL_BINARY, "explain", "--local-state", path,
                                 "mailto:x@corp.test"});
  ProcessResult e = RunProcess(explain);
  ASSERT_TRUE(e.exited) << e.err;
  EXPECT_EQ(e.exit_code, 0);
  EXPECT_EQ(e.out, "work\t-\tmailto:x@corp.test\n");
}

// Without --local-state the tool reads the file the dispatcher reads: under
// the configuration folder of the user's desktop.
TEST_F(PolicyToolTest, DefaultLocalStateIsTheDispatchersOwn) {
  std::string config = dir_.Child("config");
  std::string local_state = config + "/Halvard/Corvane/Local State";
  ASSERT_TRUE(MakeDirectories(config + "/Halvard/Corvane"));
  ASSERT_TRUE(WriteFile(local_state, Policy({"*.corp.test/*"})));

  ProcessOptions options;
  options.env["XDG_CONFIG_HOME"] = config;
  ProcessResult r = Run({"check"}, options);
  EXPECT_EQ(r.exit_code, 0) << r.out;
  EXPECT_TRUE(Contains(r.out, "  INFO: Local State Path " + local_state + "\n")) << r.out;

  ProcessResult e = Run({"explain", "https://a.corp.test/"}, options);
  EXPECT_EQ(e.out, "work\t*.corp.test/*\thttps://a.corp.test/\n");

  // No XDG_CONFIG_HOME: the home folder's .config.
  std::string home = dir_.Child("home");
  ASSERT_TRUE(MakeDirectories(home + "/.config/Halvard/Corvane"));
  ASSERT_TRUE(WriteFile(home + "/.config/Halvard/Corvane/Local State", "{}"));
  ProcessOptions home_only;
  home_only.env["XDG_CONFIG_HOME"] = std::nullopt;
  home_only.env["HOME"] = home;
  ProcessResult h = Run({"check"}, home_only);
  EXPECT_EQ(h.exit_code, 0) << h.out;
  EXPECT_TRUE(Contains(h.out, "  INFO: Local State Path " + home +
                                  "/.config/Halvard/Corvane/Local State\n"))
      << h.out;
}

}  // namespace
