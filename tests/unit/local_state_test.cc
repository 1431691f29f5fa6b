// The Local State reader: each step's line, what each shape of document yields, and what ends the read early.
#include "dispatcher/local_state.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <tuple>
#include <vector>

#include "tests/support/temp_dir.h"
#include "tests/unit/log_capture.h"

namespace dispatcher {
namespace {

using corvane_test::Error;
using corvane_test::Info;
using corvane_test::Line;

const Line kNoKelPrefs = Error("Local State has no kel_prefs."), kNoPolicy = Error("Local State has no policy data.");
const Line kNoBrowserUrls = Error("No Browser URLs found inside Local State");
const Line kPolicyRead = Info("Successfully parsed Policy Doc URLs.");
const Line kNoBrowser = Error("Local State has no non-work browser details stored.");
const Line kNoBrowserPath = Error("No path for non-work browser found in local state.");
const Line kBrowserRead = Info("Successfully stored path for non-work browser");

class LocalStateTest : public ::testing::Test {
 protected:
  LocalStatePolicy Read(const std::string& json) {  // written where the work browser keeps it
    EXPECT_TRUE(corvane_test::WriteFile(path_, json));
    log_.Clear();
    return ReadLocalStatePolicy(base::FilePath(path_));
  }
  std::vector<Line> Parsed(std::vector<Line> rest) const {  // the lines of a file that parsed, then `rest`
    std::vector<Line> all = {Info("Local State Path " + path_), Info("Local State is readable."),
                             Info("Read local state data."), Info("Successfully parsed Local State.")};
    all.insert(all.end(), rest.begin(), rest.end());
    return all;
  }

  corvane_test::TempDir dir_;
  std::string path_ = dir_.Child("Local State");
  corvane_test::LogCapture log_;
};

// The same document in spellings that the platform's reader reads alike: as the work browser writes it, after a byte
// order mark, with numbers beyond 64 bits or a double's range, and behind 100 MB of other browser state.
TEST_F(LocalStateTest, ReadsRulesPatternsAndBrowserFromAFullDocument) {
  std::string profiles = R"("profiles": [)";
  while (profiles.size() < (100 << 20))
    profiles += R"({"name": "P", "avatar": ")" + std::string(180, 'a') + R"(", "t": 1.25, "f": [true, null, 42]}, )";
  std::vector<std::tuple<std::string, const char*, const char*>> spellings = {
      {"{", "42", "1"}, {"\xEF\xBB\xBF{", "1e400", "-99999999999999999999"},
      {"{", "123456789012345678901234567890", "-1E+400"}, {"{" + profiles + "{}],", "7", "0"}};
  // The file is read a window at a time: every token of the document in turn across the end of the first window.
  for (size_t shift = 0; shift < 600; ++shift)
    spellings.push_back({"{" + std::string(kLocalStateWindowBytes - shift, ' '), "-0.5e-7", "1"});
  for (const auto& [start, number, other] : spellings) {
    LocalStatePolicy policy = Read(start + R"(
      "browser": {"browserPathForNonWorkLinks": "file:///usr/share/applications/other.desktop", "v": "1"},
      "profile": {"info_cache": {"Default": {"name": "Person 1", "n": )" + other + R"(}}},
      "kel_prefs": {"unrelated": [)" + other + R"(, {"x": null}], "policy": {"other": true, "browser_urls": [
          {"patterns": ["*.corp.test/*", )" + number + R"(, "corp.test/*"], "name": "intranét 😀"},
          {"name": "rule without patterns"}, "a rule that is no object", {"patterns": ["x/*", 1],
          "patterns": "not an array"}, {"patterns": []}, {"patterns": 0, "patterns": ["\u00e9xample.test/*", null,
          "a\u0000b\uD83D\ude00\u20AF", "c\\.d\"1e400"]}]}}})");
    SCOPED_TRACE(std::to_string(start.size()) + number);
    EXPECT_EQ(log_.lines(), Parsed({kPolicyRead, kBrowserRead}));
    EXPECT_EQ(policy.status, LocalStateStatus::kParsed);
    ASSERT_TRUE(policy.policy_urls);
    std::vector<std::string> read;
    for (PolicyRules::Rule rule : *policy.policy_urls) {
      read.push_back(rule.has_patterns ? "rule:" : "skipped rule");
      for (PolicyRules::Pattern pattern : rule.patterns)
        read.emplace_back(pattern.is_string ? pattern.text : "(skipped)");
    }
    EXPECT_EQ(read, (std::vector<std::string>{"rule:", "*.corp.test/*", "(skipped)", "corp.test/*", "skipped rule",
                                              "skipped rule", "skipped rule", "rule:", "rule:", "\xc3\xa9xample.test/*",
                                              "(skipped)", std::string("a\0b\xF0\x9F\x98\x80\xE2\x82\xAF", 10),
                                              "c\\.d\"1e400"}));
    EXPECT_EQ(policy.non_work_browser_url, "file:///usr/share/applications/other.desktop");
  }
}

TEST_F(LocalStateTest, FilesThatCannotBeReadOrParsedStopEarlyWithTheirLine) {
  EXPECT_EQ(ReadLocalStatePolicy(base::FilePath()).status, LocalStateStatus::kNotReadable);
  EXPECT_EQ(log_.lines(), (std::vector<Line>{Info("Local State Path "), Error("Local State is not readable.")}));
  // A directory, and a file beyond the size that is read at all (sparse: it costs nothing).
  std::string huge = dir_.Child("huge");
  ASSERT_TRUE(corvane_test::WriteFile(huge, "{}") && truncate(huge.c_str(), kMaxLocalStateBytes + 1) == 0);
  ASSERT_TRUE(corvane_test::MakeDirectories(dir_.Child("folder")));
  for (const std::string& path : {dir_.Child("folder"), huge}) {
    log_.Clear();
    EXPECT_EQ(ReadLocalStatePolicy(base::FilePath(path)).status, LocalStateStatus::kReadFailed);
    EXPECT_EQ(log_.lines(), (std::vector<Line>{Info("Local State Path " + path), Info("Local State is readable."),
                                               Error("Failed to read Local State data.")}));
  }

  const std::string prefix = "Failed to parse Local State data. Error : ";
  for (const std::string& json : std::vector<std::string>{
           "", " \n\t ", R"({"kel_prefs": {},})", R"({"kel_prefs": )", "{} {}", "{'kel_prefs': {}}",
           "{\"a\": \"\xc3\"}", std::string(R"({"browser": {"browserPathForNonWorkLinks": ")") + "\xff\xfe\"}}", "42",
           R"("kel_prefs")", "true", "null", "[\"a\tb\"]", R"(["\ud800\u0041"])",
           std::string(1025, '[') + std::string(1025, ']'),
           // Beside numbers beyond range, which are fine, the malformed ones still fail.
           R"({"a": [1e400, 01]})", R"({"a": 1e400, "b": 1.})", R"({"a": "\"1e400", "b": -})",
           R"({"a": 1e400, "b": 12x})", "{\"a\": 1e400, \"b\": \"\xff\"}", "\xEF\xBB\xBF", "\xEF\xBB\xBF\xEF\xBB\xBF{}",
           "\xEF\xBB{}", "{\"a\": \"" + std::string(kLocalStateWindowBytes - 8, 'x') + "\xC3"}) {
    SCOPED_TRACE(json.substr(0, 100));
    EXPECT_EQ(Read(json).status, LocalStateStatus::kParseFailed);
    std::vector<Line> lines = log_.lines();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[2], Info("Read local state data."));
    EXPECT_EQ(lines[3].severity, logging::LOG_ERROR);
    ASSERT_EQ(lines[3].message.rfind(prefix, 0), 0u) << lines[3].message;
    std::string description = lines[3].message.substr(prefix.size());  // readable
    EXPECT_GE(description.size(), 10u);
    EXPECT_TRUE(std::all_of(description.begin(), description.end(), [](char c) { return c >= 0x20 && c < 0x7f; }));
  }
  // A FIFO without a writer reads as empty, at once.
  ASSERT_EQ(mkfifo(dir_.Child("fifo").c_str(), 0600), 0);
  EXPECT_EQ(ReadLocalStatePolicy(base::FilePath(dir_.Child("fifo"))).status, LocalStateStatus::kParseFailed);
  Read("17");
  EXPECT_NE(log_.lines()[3].message.find("not an object or an array"), std::string::npos);
  // A pipe that holds a document (a shell's "<(...)") is read whole.
  int ends[2];
  const std::string json = R"({"browser": {"browserPathForNonWorkLinks": "file:///b"}})";
  ASSERT_TRUE(pipe(ends) == 0 && write(ends[1], json.data(), json.size()) == static_cast<ssize_t>(json.size()));
  close(ends[1]);
  EXPECT_EQ(ReadLocalStatePolicy(base::FilePath("/proc/self/fd/" + std::to_string(ends[0]))).non_work_browser_url,
            "file:///b");
  close(ends[0]);
}

TEST_F(LocalStateTest, EachMissingOrMistypedLevelLogsItsOwnLineAndTheRestIsStillRead) {
  const std::optional<std::string> none;
  std::vector<std::tuple<std::string, std::vector<Line>, std::optional<std::string>>> cases = {
      {"{}", {kNoKelPrefs, kNoBrowser}, none},
      {R"([{"kel_prefs": {"policy": {"browser_urls": []}}}, {"browser": {}}])", {kNoKelPrefs, kNoBrowser}, none},
      {R"({"browser": {"browserPathForNonWorkLinks": "file:///opt/b"}})", {kNoKelPrefs, kBrowserRead}, "file:///opt/b"},
      {R"({"kel_prefs": {"Policy": {"browser_urls": []}}})", {kNoPolicy, kNoBrowser}, none},
      {R"({"kel_prefs": {"policy": {"browser_url": []}}})", {kNoBrowserUrls, kNoBrowser}, none},
      {R"({"kel_prefs": {"policy": {"browser_urls": []}, "browser": {"browserPathForNonWorkLinks": "file:///b"}}})",
       {kPolicyRead, kNoBrowser}, none},
      {R"({"browser": {"browserPathForNonWorkLink": "x"}})", {kNoKelPrefs, kNoBrowserPath}, none},
      // Repeated keys take their last value; keys are compared unescaped.
      {R"({"kel_prefs": 1, "browser": {"browserPathForNonWorkLinks": "file:///first"}, "kel\u005fprefs":
          {"pol\u0069cy": {"browser_urls": []}}, "\u0062rowser": {"browserPathForNonWorkLinks": "file:\/\/\/last"}})",
       {kPolicyRead, kBrowserRead}, "file:///last"},
      {R"({"x": )" + std::string(1023, '[') + std::string(1023, ']') + R"(, "kel_prefs": {"policy": {"browser_urls":
          [{"patterns": ["a/*"]}], "browser_urls": []}}})", {kPolicyRead, kNoBrowser}, none},
  };
  // A level of another JSON type, null included, counts as missing.
  for (const std::string value : {"null", "true", "0", "\"text\"", "[]", "[{}]", "{}"}) {
    if (value != "{}") {
      cases.push_back({R"({"kel_prefs": )" + value + "}", {kNoKelPrefs, kNoBrowser}, none});
      cases.push_back({R"({"kel_prefs": {"policy": )" + value + "}}", {kNoPolicy, kNoBrowser}, none});
      cases.push_back({R"({"browser": )" + value + "}", {kNoKelPrefs, kNoBrowser}, none});
    }
    std::string urls = R"({"kel_prefs": {"policy": {"browser_urls": )";
    std::string path = R"({"browser": {"browserPathForNonWorkLinks": )";
    if (value[0] != '[') cases.push_back({urls + value + "}}}", {kNoBrowserUrls, kNoBrowser}, none});
    if (value[0] != '"') cases.push_back({path + value + "}}", {kNoKelPrefs, kNoBrowserPath}, none});
  }
  // Only a well-formed URL is kept as the non-work browser, but its line stands anyway.
  for (const auto& [text, kept] : std::vector<std::pair<std::string, bool>>{  // as written in JSON
           {"https://intra.corp.test/a/b?x=1#top", true}, {"file:///opt/My%20Browser/run", true},
           {"/usr/bin/firefox", true}, {"relative/path", true}, {"x-custom+scheme.v1:opaque", true},
           {"http://[::1]:8080/", true}, {"http://u:p@h/!$&'()*+,;=-._~", true}, {"#fragment?/", true}, {"", false},
           {"/opt/My Browser/run", false}, {"file:///a%2", false}, {"file:///a%zz", false}, {"http://h/<p>", false},
           {R"(http://h/a\\b)", false}, {"http://h/\xC3\xA9", false}, {R"(http://h/\u0000)", false},
           {"http://h/#a#b", false}, {"1http://h/", false}, {"ht_tp://h/", false}, {":no-scheme", false}}) {
    std::optional<std::string> url = kept ? std::optional(text) : none;
    cases.push_back({R"({"browser": {"browserPathForNonWorkLinks": ")" + text + "\"}}", {kNoKelPrefs, kBrowserRead},
                     url});
  }
  for (const auto& [json, lines, browser] : cases) {
    SCOPED_TRACE(json.substr(0, 200));
    LocalStatePolicy policy = Read(json);
    EXPECT_EQ(log_.lines(), Parsed(lines));
    EXPECT_EQ(policy.policy_urls.has_value(), lines[0] == kPolicyRead);
    EXPECT_TRUE(!policy.policy_urls || policy.policy_urls->empty());
    EXPECT_EQ(policy.non_work_browser_url, browser);
  }
}

}  // namespace
}  // namespace dispatcher
