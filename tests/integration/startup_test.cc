// Start-up and shutdown of the real dispatcher binary in a temporary home:
// the log file's place, format and expiry, and the end of the process.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <regex>
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
using corvane_test::ReadFile;
using corvane_test::RunProcess;
using corvane_test::TempDir;

constexpr char kBanner[] = "--------------------Corvane Dispatcher Initialized.-----------------------";
constexpr int64_t kHour = 3600;

const std::regex kLine(R"(\[\d{4}/\d{6}\.\d{6}:(INFO|ERROR):[A-Za-z_]+\.cc\(\d+\)\] (.*))");

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// The message part of each line; fails the test on a line of another form.
std::vector<std::string> Messages(const std::string& text) {
  std::vector<std::string> messages;
  for (const std::string& line : Lines(text)) {
    std::smatch m;
    EXPECT_TRUE(std::regex_match(line, m, kLine)) << "not a log line: " << line;
    messages.push_back(m[2]);
  }
  return messages;
}

class DispatcherStartupTest : public ::testing::Test {
 protected:
  void SetUp() override {
    config_ = home_.Child(".config");
    logs_ = config_ + "/Halvard/Corvane/logs";
    log_file_ = logs_ + "/CorvaneDispatcher_debug.log";
    ASSERT_TRUE(MakeDirectories(home_.Child(".local/share/applications")));
    ASSERT_TRUE(MakeDirectories(home_.Child("data-dirs")));
  }

  ProcessOptions Options() const {
    ProcessOptions options;
    options.clear_environment = true;
    options.env = {{"HOME", home_.path()},
                   {"XDG_CONFIG_HOME", config_},
                   {"XDG_DATA_HOME", home_.Child(".local/share")},
                   {"XDG_DATA_DIRS", home_.Child("data-dirs")},
                   {"PATH", "/usr/local/bin:/usr/bin:/bin"},
                   {"LANG", "C.UTF-8"},
                   {"ASAN_OPTIONS", "verify_asan_link_order=0"}};
    options.timeout_seconds = 30;
    return options;
  }

  ProcessOptions WithClockAhead(int64_t seconds) const {
    ProcessOptions options = Options();
    options.env["LD_PRELOAD"] = CORVANE_FAKE_CLOCK_LIBRARY;
    options.env["CORVANE_FAKE_CLOCK_OFFSET_SECONDS"] = std::to_string(seconds);
    return options;
  }

  static ProcessResult Run(const ProcessOptions& options, std::vector<std::string> args = {}) {
    std::vector<std::string> argv = {CORVANE_DISPATCHER_BINARY};
    argv.insert(argv.end(), args.begin(), args.end());
    return RunProcess(argv, options);
  }

  std::string LocalStatePath() const { return config_ + "/Halvard/Corvane/Local State"; }

  TempDir home_;
  std::string config_, logs_, log_file_;
};

TEST_F(DispatcherStartupTest, EmptyDeliveryLogsTheWholeLifeAndEndsByItself) {
  ASSERT_TRUE(MakeDirectories(logs_));
  ProcessResult result = Run(Options());
  ASSERT_TRUE(result.exited) << result.err;
  EXPECT_EQ(result.exit_code, 0);
  // The termination task waits two seconds before it ends the process.
  EXPECT_GE(result.seconds, 2.0);
  EXPECT_LT(result.seconds, 8.0);

  std::string file = ReadFile(log_file_);
  std::vector<std::string> expected = {
      kBanner,
      "Dispatcher Application is launching.",
      "Local State Path " + LocalStatePath(),
      "Local State is not readable.",
      "Corvane Dispatcher received urls - [  ]",
      "Terminated Dispatcher Application.",
  };
  EXPECT_EQ(Messages(file), expected);
  // Standard error carries exactly the same lines, and nothing else.
  EXPECT_EQ(result.err, file);
  EXPECT_NE(file.find(":ERROR:"), std::string::npos);
  EXPECT_EQ(result.out, "");

  struct stat st;
  ASSERT_EQ(stat(log_file_.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
}

TEST_F(DispatcherStartupTest, LaterRunsAppendToTheSameFile) {
  ASSERT_TRUE(MakeDirectories(logs_));
  ASSERT_EQ(Run(Options()).exit_code, 0);
  ASSERT_EQ(Run(Options()).exit_code, 0);
  std::vector<std::string> messages = Messages(ReadFile(log_file_));
  ASSERT_EQ(messages.size(), 12u);
  EXPECT_EQ(messages[0], kBanner);
  EXPECT_EQ(messages[6], kBanner);
}

TEST_F(DispatcherStartupTest, NoLogsFolderMeansNoFileAndNoError) {
  ProcessResult result = Run(Options());
  ASSERT_TRUE(result.exited);
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_FALSE(corvane_test::FileExists(logs_)) << "start-up creates no folder";
  std::vector<std::string> messages = Messages(result.err);
  ASSERT_FALSE(messages.empty());
  EXPECT_EQ(messages.front(), kBanner);
  EXPECT_EQ(messages.back(), "Terminated Dispatcher Application.");
  // The one ERROR is about Local State, none about the log.
  EXPECT_EQ(result.err.find("log path"), std::string::npos);
}

TEST_F(DispatcherStartupTest, FileOf97HoursIsReplacedAndStartsWithTheBanner) {
  ASSERT_TRUE(MakeDirectories(logs_));
  ASSERT_TRUE(corvane_test::WriteFile(log_file_, "an old line\n", 0600));
  ProcessResult result = Run(WithClockAhead(97 * kHour));
  ASSERT_TRUE(result.exited) << result.err;
  EXPECT_EQ(result.exit_code, 0);
  std::string file = ReadFile(log_file_);
  EXPECT_EQ(file.find("an old line"), std::string::npos);
  std::vector<std::string> messages = Messages(file);
  ASSERT_FALSE(messages.empty());
  EXPECT_EQ(messages.front(), kBanner);
  EXPECT_EQ(result.err.find("deletion"), std::string::npos);
}

TEST_F(DispatcherStartupTest, FileOf96HoursAnd59MinutesIsKept) {
  ASSERT_TRUE(MakeDirectories(logs_));
  ASSERT_TRUE(corvane_test::WriteFile(log_file_, "an old line\n", 0600));
  ProcessResult result = Run(WithClockAhead(96 * kHour + 59 * 60));
  ASSERT_TRUE(result.exited) << result.err;
  std::string file = ReadFile(log_file_);
  ASSERT_EQ(file.rfind("an old line\n", 0), 0u) << "kept and appended to";
  EXPECT_NE(file.find(kBanner), std::string::npos);
}

TEST_F(DispatcherStartupTest, CreationTimeInTheFutureKeepsTheFile) {
  ASSERT_TRUE(MakeDirectories(logs_));
  ASSERT_TRUE(corvane_test::WriteFile(log_file_, "an old line\n", 0600));
  ProcessResult result = Run(WithClockAhead(-200 * kHour));
  ASSERT_TRUE(result.exited) << result.err;
  EXPECT_EQ(ReadFile(log_file_).rfind("an old line\n", 0), 0u);
}

TEST_F(DispatcherStartupTest, ExpiredFileThatCannotBeDeletedGetsTheErrorThenTheBanner) {
  if (!corvane_test::RunningAsRoot()) GTEST_SKIP() << "needs root to hand the folder to another user";
  ASSERT_TRUE(MakeDirectories(logs_));
  // The unprivileged user may write the file but not the folder that holds it.
  ASSERT_TRUE(corvane_test::WriteFile(log_file_, "an old line\n", 0666));
  ASSERT_EQ(chmod(log_file_.c_str(), 0666), 0);
  std::vector<std::string> argv = corvane_test::AsUnprivilegedUser();
  argv.push_back(CORVANE_DISPATCHER_BINARY);
  ProcessResult result = RunProcess(argv, WithClockAhead(97 * kHour));
  ASSERT_TRUE(result.exited) << result.err;
  EXPECT_EQ(result.exit_code, 0);
  std::string file = ReadFile(log_file_);
  ASSERT_EQ(file.rfind("an old line\n", 0), 0u);
  std::vector<std::string> messages = Messages(file.substr(strlen("an old line\n")));
  ASSERT_GE(messages.size(), 2u);
  EXPECT_EQ(messages[0], "Log file deletion after expiry failed!");
  EXPECT_EQ(messages[1], kBanner);
  EXPECT_NE(result.err.find("Log file deletion after expiry failed!"), std::string::npos);
}

TEST_F(DispatcherStartupTest, ArgumentsThatAreNeitherUrlsNorPathsAreRefused) {
  ASSERT_TRUE(MakeDirectories(logs_));
  ProcessResult result = Run(Options(), {"--help", "-x", "not a url"});
  ASSERT_TRUE(result.exited) << result.err;
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(result.out, "");
  std::vector<std::string> messages = Messages(ReadFile(log_file_));
  int refused = 0;
  for (const auto& m : messages) refused += m.rfind("Refused a command-line argument", 0) == 0;
  EXPECT_EQ(refused, 3);
  EXPECT_NE(std::find(messages.begin(), messages.end(), "Corvane Dispatcher received urls - [  ]"),
            messages.end());
}

}  // namespace
