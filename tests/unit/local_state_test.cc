#include "dispatcher/local_state.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "base/logging.h"
#include "tests/support/temp_dir.h"

namespace dispatcher {
namespace {

using corvane_test::TempDir;
using corvane_test::WriteFile;

struct Line {
  int severity;
  std::string message;
  bool operator==(const Line& other) const = default;
};

void PrintTo(const Line& line, std::ostream* out) {
  *out << logging::SeverityName(line.severity) << " \"" << line.message << "\"";
}

std::vector<Line>* g_lines = nullptr;

bool CaptureLine(int severity, const char*, int, size_t message_start, const std::string& str) {
  std::string message = str.substr(message_start);
  if (!message.empty() && message.back() == '\n') message.pop_back();
  g_lines->push_back({severity, std::move(message)});
  return true;
}

Line Info(std::string text) { return {logging::LOG_INFO, std::move(text)}; }
Line Error(std::string text) { return {logging::LOG_ERROR, std::move(text)}; }

constexpr char kParseErrorPrefix[] = "Failed to parse Local State data. Error : ";

class LocalStateTest : public ::testing::Test {
 protected:
  void SetUp() override {
    g_lines = &lines_;
    logging::SetMinimumLogLevel(-1);
    logging::SetLogMessageHandler(&CaptureLine);
  }
  void TearDown() override {
    logging::SetLogMessageHandler(nullptr);
    g_lines = nullptr;
  }

  // Writes the document to a file named as the work browser names it and
  // reads it back through the dispatcher's reader.
  LocalStatePolicy ReadDocument(const std::string& json) {
    path_ = dir_.Child("Local State");
    EXPECT_TRUE(WriteFile(path_, json));
    return ReadLocalStatePolicy(base::FilePath(path_));
  }

  // The lines every successfully parsed file starts with.
  std::vector<Line> ParsedPrefix() const {
    return {Info("Local State Path " + path_), Info("Local State is readable."),
            Info("Read local state data."), Info("Successfully parsed Local State.")};
  }

  std::vector<Line> Parsed(std::vector<Line> rest) const {
    std::vector<Line> all = ParsedPrefix();
    all.insert(all.end(), rest.begin(), rest.end());
    return all;
  }

  // For a file that does not parse: the four lines up to the parse error,
  // whose description must be readable text after the fixed prefix.
  void ExpectParseFailure(const LocalStatePolicy& policy) {
    EXPECT_EQ(policy.status, LocalStateStatus::kParseFailed);
    EXPECT_FALSE(policy.policy_urls.has_value());
    EXPECT_FALSE(policy.non_work_browser_url.has_value());
    ASSERT_EQ(lines_.size(), 4u);
    EXPECT_EQ(lines_[0], Info("Local State Path " + path_));
    EXPECT_EQ(lines_[1], Info("Local State is readable."));
    EXPECT_EQ(lines_[2], Info("Read local state data."));
    EXPECT_EQ(lines_[3].severity, logging::LOG_ERROR);
    const std::string& text = lines_[3].message;
    ASSERT_EQ(text.rfind(kParseErrorPrefix, 0), 0u) << text;
    std::string description = text.substr(sizeof(kParseErrorPrefix) - 1);
    EXPECT_GE(description.size(), 10u) << text;
    for (char c : description) EXPECT_TRUE(c >= 0x20 && c < 0x7f) << text;
  }

  TempDir dir_;
  std::string path_;
  std::vector<Line> lines_;
};

constexpr char kFullDocument[] = R"({
  "browser": {"browserPathForNonWorkLinks": "file:///usr/share/applications/other.desktop",
              "last_known_version": "1.2.3"},
  "profile": {"info_cache": {"Default": {"name": "Person 1"}}, "count": 1},
  "kel_prefs": {
    "unrelated": [1, 2, {"x": null}],
    "policy": {
      "other_policy": true,
      "browser_urls": [
        {"patterns": ["*.corp.test/*", 42, "corp.test/*"], "name": "intranet"},
        {"name": "rule without patterns"},
        "a rule that is no object",
        {"patterns": "not an array"},
        {"patterns": []},
        {"patterns": ["*/app/*", null, "\u00e9xample.test/*"]}
      ]
    }
  }
})";

TEST_F(LocalStateTest, ReadsRulesPatternsAndBrowserFromAFullDocument) {
  LocalStatePolicy policy = ReadDocument(kFullDocument);

  EXPECT_EQ(lines_, Parsed({Info("Successfully parsed Policy Doc URLs."),
                            Info("Successfully stored path for non-work browser")}));
  EXPECT_EQ(policy.status, LocalStateStatus::kParsed);

  ASSERT_TRUE(policy.policy_urls.has_value());
  const PolicyRules& rules = *policy.policy_urls;
  ASSERT_EQ(rules.size(), 6u);

  ASSERT_TRUE(rules[0].has_patterns);
  ASSERT_EQ(rules[0].patterns.size(), 3u);
  EXPECT_TRUE(rules[0].patterns[0].is_string);
  EXPECT_EQ(rules[0].patterns[0].text, "*.corp.test/*");
  EXPECT_FALSE(rules[0].patterns[1].is_string);
  EXPECT_TRUE(rules[0].patterns[2].is_string);
  EXPECT_EQ(rules[0].patterns[2].text, "corp.test/*");

  EXPECT_FALSE(rules[1].has_patterns);
  EXPECT_FALSE(rules[2].has_patterns);
  EXPECT_FALSE(rules[3].has_patterns);
  EXPECT_TRUE(rules[4].has_patterns);
  EXPECT_TRUE(rules[4].patterns.empty());

  ASSERT_TRUE(rules[5].has_patterns);
  ASSERT_EQ(rules[5].patterns.size(), 3u);
  EXPECT_EQ(rules[5].patterns[0].text, "*/app/*");
  EXPECT_FALSE(rules[5].patterns[1].is_string);
  // JSON escapes arrive decoded, as UTF-8.
  EXPECT_EQ(rules[5].patterns[2].text, "\xc3\xa9xample.test/*");

  ASSERT_TRUE(policy.non_work_browser_url.has_value());
  EXPECT_EQ(*policy.non_work_browser_url, "file:///usr/share/applications/other.desktop");
}

TEST_F(LocalStateTest, MissingFileStopsAfterTheReadabilityTest) {
  path_ = dir_.Child("no such folder/Local State");
  LocalStatePolicy policy = ReadLocalStatePolicy(base::FilePath(path_));
  EXPECT_EQ(lines_, (std::vector<Line>{Info("Local State Path " + path_),
                                       Error("Local State is not readable.")}));
  EXPECT_EQ(policy.status, LocalStateStatus::kNotReadable);
  EXPECT_FALSE(policy.policy_urls.has_value());
  EXPECT_FALSE(policy.non_work_browser_url.has_value());
}

TEST_F(LocalStateTest, EmptyPathIsNotReadable) {
  LocalStatePolicy policy = ReadLocalStatePolicy(base::FilePath());
  EXPECT_EQ(lines_, (std::vector<Line>{Info("Local State Path "),
                                       Error("Local State is not readable.")}));
  EXPECT_FALSE(policy.policy_urls.has_value());
}

TEST_F(LocalStateTest, DirectoryInPlaceOfTheFileFailsTheRead) {
  path_ = dir_.Child("Local State");
  ASSERT_TRUE(corvane_test::MakeDirectories(path_));
  LocalStatePolicy policy = ReadLocalStatePolicy(base::FilePath(path_));
  EXPECT_EQ(lines_, (std::vector<Line>{Info("Local State Path " + path_),
                                       Info("Local State is readable."),
                                       Error("Failed to read Local State data.")}));
  EXPECT_EQ(policy.status, LocalStateStatus::kReadFailed);
  EXPECT_FALSE(policy.policy_urls.has_value());
  EXPECT_FALSE(policy.non_work_browser_url.has_value());
}

TEST_F(LocalStateTest, DocumentsThatDoNotParse) {
  const std::vector<std::pair<const char*, std::string>> cases = {
      {"empty file", ""},
      {"only white space", " \n\t "},
      {"trailing comma", R"({"kel_prefs": {"policy": {"browser_urls": []}},})"},
      {"unterminated object", R"({"kel_prefs": {"policy": )"},
      {"two documents", R"({} {})"},
      {"single quotes", R"({'kel_prefs': {}})"},
      {"invalid UTF-8 in a string",
       std::string(R"({"browser": {"browserPathForNonWorkLinks": "file:///b)") + "\xff\xfe" +
           R"("}})"},
      {"truncated UTF-8 sequence", std::string("{\"a\": \"\xc3\"}")},
      {"top-level number", "42"},
      {"top-level string", R"("kel_prefs")"},
      {"top-level true", "true"},
      {"top-level false", "false"},
      {"top-level null", "null"},
  };
  for (const auto& [name, json] : cases) {
    SCOPED_TRACE(name);
    lines_.clear();
    ExpectParseFailure(ReadDocument(json));
  }
}

TEST_F(LocalStateTest, ScalarTopLevelIsDescribedAsSuch) {
  ReadDocument("17");
  ASSERT_EQ(lines_.size(), 4u);
  EXPECT_NE(lines_[3].message.find("not an object or an array"), std::string::npos)
      << lines_[3].message;
}

TEST_F(LocalStateTest, ArrayTopLevelHasNoneOfTheKeys) {
  LocalStatePolicy policy = ReadDocument(
      R"([{"kel_prefs": {"policy": {"browser_urls": []}}}, {"browser": {}}])");
  EXPECT_EQ(lines_, Parsed({Error("Local State has no kel_prefs."),
                            Error("Local State has no non-work browser details stored.")}));
  EXPECT_EQ(policy.status, LocalStateStatus::kParsed);
  EXPECT_FALSE(policy.policy_urls.has_value());
  EXPECT_FALSE(policy.non_work_browser_url.has_value());
}

TEST_F(LocalStateTest, EmptyObjectMissesBothSections) {
  LocalStatePolicy policy = ReadDocument("{}");
  EXPECT_EQ(lines_, Parsed({Error("Local State has no kel_prefs."),
                            Error("Local State has no non-work browser details stored.")}));
  EXPECT_FALSE(policy.policy_urls.has_value());
}

TEST_F(LocalStateTest, BrowserIsStillReadWithoutKelPrefs) {
  LocalStatePolicy policy =
      ReadDocument(R"({"browser": {"browserPathForNonWorkLinks": "file:///opt/other/browser"}})");
  EXPECT_EQ(lines_, Parsed({Error("Local State has no kel_prefs."),
                            Info("Successfully stored path for non-work browser")}));
  EXPECT_FALSE(policy.policy_urls.has_value());
  ASSERT_TRUE(policy.non_work_browser_url.has_value());
  EXPECT_EQ(*policy.non_work_browser_url, "file:///opt/other/browser");
}

TEST_F(LocalStateTest, EachMissingPolicyLevelLogsItsOwnLine) {
  struct Case {
    const char* json;
    Line line;
  };
  const std::vector<Case> cases = {
      {R"({"kel_prefs": {}})", Error("Local State has no policy data.")},
      {R"({"kel_prefs": {"Policy": {"browser_urls": []}}})",
       Error("Local State has no policy data.")},
      {R"({"kel_prefs": {"policy": {}}})", Error("No Browser URLs found inside Local State")},
      {R"({"kel_prefs": {"policy": {"browser_url": []}}})",
       Error("No Browser URLs found inside Local State")},
      {R"({"kel_prefs": {"policy": {"browser_urls": []}}})",
       Info("Successfully parsed Policy Doc URLs.")},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.json);
    lines_.clear();
    LocalStatePolicy policy = ReadDocument(c.json);
    EXPECT_EQ(lines_,
              Parsed({c.line, Error("Local State has no non-work browser details stored.")}));
    EXPECT_EQ(policy.policy_urls.has_value(), c.line.severity == logging::LOG_INFO);
  }
}

TEST_F(LocalStateTest, EmptyBrowserUrlsIsStoredAsAnEmptyList) {
  LocalStatePolicy policy = ReadDocument(R"({"kel_prefs": {"policy": {"browser_urls": []}}})");
  ASSERT_TRUE(policy.policy_urls.has_value());
  EXPECT_TRUE(policy.policy_urls->empty());
}

// A level of another JSON type, null included, is treated as missing and
// logged with the missing key's line.
TEST_F(LocalStateTest, WrongTypesAtEveryLevelCountAsMissing) {
  const std::vector<std::string> wrong_values = {"null", "true", "0", "\"text\"", "[]",
                                                 "[{}]", "{}"};
  for (const std::string& value : wrong_values) {
    SCOPED_TRACE(value);
    if (value != "{}") {
      lines_.clear();
      LocalStatePolicy policy = ReadDocument(R"({"kel_prefs": )" + value + "}");
      EXPECT_EQ(lines_, Parsed({Error("Local State has no kel_prefs."),
                                Error("Local State has no non-work browser details stored.")}));
      EXPECT_FALSE(policy.policy_urls.has_value());

      lines_.clear();
      policy = ReadDocument(R"({"kel_prefs": {"policy": )" + value + "}}");
      EXPECT_EQ(lines_, Parsed({Error("Local State has no policy data."),
                                Error("Local State has no non-work browser details stored.")}));
      EXPECT_FALSE(policy.policy_urls.has_value());

      lines_.clear();
      policy = ReadDocument(R"({"browser": )" + value + "}");
      EXPECT_EQ(lines_, Parsed({Error("Local State has no kel_prefs."),
                                Error("Local State has no non-work browser details stored.")}));
      EXPECT_FALSE(policy.non_work_browser_url.has_value());
    }
    if (value != "[]" && value != "[{}]") {
      lines_.clear();
      LocalStatePolicy policy =
          ReadDocument(R"({"kel_prefs": {"policy": {"browser_urls": )" + value + "}}}");
      EXPECT_EQ(lines_, Parsed({Error("No Browser URLs found inside Local State"),
                                Error("Local State has no non-work browser details stored.")}));
      EXPECT_FALSE(policy.policy_urls.has_value());
    }
    if (value != "\"text\"") {
      lines_.clear();
      LocalStatePolicy policy =
          ReadDocument(R"({"browser": {"browserPathForNonWorkLinks": )" + value + "}}");
      EXPECT_EQ(lines_, Parsed({Error("Local State has no kel_prefs."),
                                Error("No path for non-work browser found in local state.")}));
      EXPECT_FALSE(policy.non_work_browser_url.has_value());
    }
  }
}

TEST_F(LocalStateTest, BrowserNestedInKelPrefsIsNotFound) {
  LocalStatePolicy policy = ReadDocument(R"({"kel_prefs": {
      "policy": {"browser_urls": [{"patterns": ["corp.test/*"]}]},
      "browser": {"browserPathForNonWorkLinks": "file:///opt/other"}}})");
  EXPECT_EQ(lines_, Parsed({Info("Successfully parsed Policy Doc URLs."),
                            Error("Local State has no non-work browser details stored.")}));
  EXPECT_FALSE(policy.non_work_browser_url.has_value());
  ASSERT_TRUE(policy.policy_urls.has_value());
  EXPECT_EQ(policy.policy_urls->size(), 1u);
}

TEST_F(LocalStateTest, BrowserWithoutPathLogsTheMissingPath) {
  LocalStatePolicy policy = ReadDocument(R"({"browser": {"browserPathForNonWorkLink": "x"}})");
  EXPECT_EQ(lines_, Parsed({Error("Local State has no kel_prefs."),
                            Error("No path for non-work browser found in local state.")}));
  EXPECT_FALSE(policy.non_work_browser_url.has_value());
}

// The success line stands even when the string is not a URL; only the
// location stays empty.
TEST_F(LocalStateTest, BrowserPathThatIsNoUrlLogsSuccessButStoresNothing) {
  const std::vector<std::string> not_urls = {"", "file:///opt/other browser",
                                             "file:///opt/%zz"};
  for (const std::string& text : not_urls) {
    SCOPED_TRACE(text);
    lines_.clear();
    LocalStatePolicy policy =
        ReadDocument(R"({"browser": {"browserPathForNonWorkLinks": ")" + text + "\"}}");
    EXPECT_EQ(lines_, Parsed({Error("Local State has no kel_prefs."),
                              Info("Successfully stored path for non-work browser")}));
    EXPECT_FALSE(policy.non_work_browser_url.has_value());
  }
}

TEST_F(LocalStateTest, RepeatedKeysTakeTheirLastValue) {
  LocalStatePolicy policy = ReadDocument(R"({
      "kel_prefs": {"policy": {"browser_urls": [{"patterns": ["first/*"]}]}},
      "browser": {"browserPathForNonWorkLinks": "file:///first"},
      "kel_prefs": {"policy": {"browser_urls": [{"patterns": ["last/*"]}]}},
      "browser": {"browserPathForNonWorkLinks": "file:///last"}})");
  ASSERT_TRUE(policy.policy_urls.has_value());
  ASSERT_EQ(policy.policy_urls->size(), 1u);
  ASSERT_EQ((*policy.policy_urls)[0].patterns.size(), 1u);
  EXPECT_EQ((*policy.policy_urls)[0].patterns[0].text, "last/*");
  ASSERT_TRUE(policy.non_work_browser_url.has_value());
  EXPECT_EQ(*policy.non_work_browser_url, "file:///last");
}

TEST_F(LocalStateTest, KeysAreComparedAfterUnescaping) {
  LocalStatePolicy policy = ReadDocument(
      R"({"kel\u005fprefs": {"pol\u0069cy": {"browser_urls": [{"patterns": ["a/*"]}]}},
          "\u0062rowser": {"browserPathForNonWorkLinks": "file:\/\/\/opt\/b"}})");
  EXPECT_EQ(lines_, Parsed({Info("Successfully parsed Policy Doc URLs."),
                            Info("Successfully stored path for non-work browser")}));
  ASSERT_TRUE(policy.non_work_browser_url.has_value());
  EXPECT_EQ(*policy.non_work_browser_url, "file:///opt/b");
}

TEST_F(LocalStateTest, PatternsKeepEmbeddedNulAndEscapes) {
  LocalStatePolicy policy = ReadDocument(
      R"({"kel_prefs": {"policy": {"browser_urls": [{"patterns": ["a\u0000b", "c\\.d\"e"]}]}}})");
  ASSERT_TRUE(policy.policy_urls.has_value());
  const auto& patterns = (*policy.policy_urls)[0].patterns;
  ASSERT_EQ(patterns.size(), 2u);
  EXPECT_EQ(patterns[0].text, std::string("a\0b", 3));
  EXPECT_EQ(patterns[1].text, "c\\.d\"e");
}

TEST_F(LocalStateTest, DeeplyNestedUnrelatedDataDoesNotDisturbTheReader) {
  std::string deep;
  for (int i = 0; i < 500; ++i) deep += "[";
  for (int i = 0; i < 500; ++i) deep += "]";
  LocalStatePolicy policy = ReadDocument(R"({"unrelated": )" + deep +
                                         R"(, "kel_prefs": {"policy": {"browser_urls": [
                                              {"patterns": ["corp.test/*"]}]}}})");
  ASSERT_TRUE(policy.policy_urls.has_value());
  EXPECT_EQ(policy.policy_urls->size(), 1u);
}

TEST_F(LocalStateTest, ReadsTheFileAgainOnEveryCall) {
  ReadDocument(R"({"kel_prefs": {"policy": {"browser_urls": [{"patterns": ["one/*"]}]}}})");
  LocalStatePolicy policy =
      ReadDocument(R"({"kel_prefs": {"policy": {"browser_urls": [{"patterns": ["two/*"]}]}}})");
  ASSERT_TRUE(policy.policy_urls.has_value());
  EXPECT_EQ((*policy.policy_urls)[0].patterns[0].text, "two/*");
}

}  // namespace
}  // namespace dispatcher
