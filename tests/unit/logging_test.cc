// The logging facility. Tests of standard error, the file and the facility's
// initial state run the statements in a child process (death-test style).
#include "base/logging.h"

#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <regex>
#include <string>
#include <tuple>
#include <vector>

#include "gtest/gtest.h"
#include "tests/support/temp_dir.h"
#include "tests/unit/log_capture.h"

namespace {

class CapturingTest : public ::testing::Test {
 protected:
  corvane_test::LogCapture log_;
};

const std::regex kPrefix(R"(\[\d{4}/\d{6}\.\d{6}(:[^\n]*\n))");

TEST_F(CapturingTest, LineIsTimestampSeverityBaseNameLineAndMessage) {
  const std::tuple<const char*, int, int, const char*> cases[] = {
      {__FILE__, 67, logging::LOG_INFO, ":INFO:logging_test.cc(67)] m 42\n"},
      {"a/b\\c.txt", 3, logging::LOG_WARNING, ":WARNING:c.txt(3)] m 42\n"},
      {"plain.mm", 1234, logging::LOG_ERROR, ":ERROR:plain.mm(1234)] m 42\n"},
      {"dir/", 5, 4, ":UNKNOWN:(5)] m 42\n"}, {"f", 1, 100, ":UNKNOWN:f(1)] m 42\n"},
      {"f", 1, -1, ":VERBOSE1:f(1)] m 42\n"}, {"f", 1, -12, ":VERBOSE12:f(1)] m 42\n"},
  };
  for (const auto& [file, line, severity, rest] : cases) {
    logging::LogMessage(file, line, severity).stream() << "m " << 42;
  }
  std::vector<corvane_test::Line> lines = log_.lines();
  ASSERT_EQ(lines.size(), std::size(cases));
  for (size_t i = 0; i < lines.size(); ++i) {
    std::smatch m;
    ASSERT_TRUE(std::regex_match(lines[i].full, m, kPrefix)) << lines[i].full;
    EXPECT_EQ(m[1], std::get<3>(cases[i]));
  }
}

TEST_F(CapturingTest, TimestampIsLocalTimeWithZeroPadding) {
  // A zone in which it is five o'clock now, so the padding shows.
  time_t now = time(nullptr);
  struct tm utc;
  gmtime_r(&now, &utc);
  std::string saved = getenv("TZ") ? getenv("TZ") : "";
  setenv("TZ", ("ZZZ" + std::to_string((utc.tm_hour - 5 + 36) % 24 - 12)).c_str(), 1);  // west-positive
  tzset();
  LOG(INFO) << "x";
  saved.empty() ? unsetenv("TZ") : setenv("TZ", saved.c_str(), 1);
  tzset();
  ASSERT_EQ(log_.lines().size(), 1u);
  EXPECT_EQ(log_.lines()[0].full.substr(6, 2), "05") << log_.lines()[0].full;
}

TEST_F(CapturingTest, LevelsFilterWithoutEvaluatingTheMessageAndErrnoIsTheCallers) {
  int evaluated = 0;
  errno = EACCES;
  VLOG(1) << "errno " << errno << ", " << ++evaluated;  // a statement starts with errno cleared
  EXPECT_EQ(errno, EACCES);
  VLOG(2) << ++evaluated;
  logging::SetMinimumLogLevel(7);
  EXPECT_EQ(logging::GetMinimumLogLevel(), logging::LOG_FATAL);
  LOG(ERROR) << ++evaluated;
  EXPECT_EQ(evaluated, 1);
  ASSERT_EQ(log_.lines().size(), 1u);
  EXPECT_NE(log_.lines()[0].full.find(":VERBOSE1:logging_test.cc("), std::string::npos);
  EXPECT_EQ(log_.lines()[0].message, "errno 0, 1");
}

TEST(LoggingStartTest, BeforeInitialisationOnlyWarningsAndAboveReachStderr) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // a fresh process, untouched by other tests
  EXPECT_EXIT(
      {
        LOG(INFO) << "info-before-init";
        LOG(WARNING) << "warning-before-init";
        exit(0);
      },
      ::testing::ExitedWithCode(0), "^\\[[0-9/.]+:WARNING:logging_test.cc\\([0-9]+\\)\\] warning-before-init\n$");
}

// Each case runs in a child forked where the statements run, so that their
// standard error is what the test sees.
class LoggingProcessTest : public ::testing::Test {
 protected:
  void SetUp() override {
    GTEST_FLAG_SET(death_test_style, "fast");
    logging::SetMinimumLogLevel(-1);  // inherited by the child
  }
  corvane_test::TempDir dir_;
  std::string path_ = dir_.Child("test.log");
};

TEST_F(LoggingProcessTest, DestinationsAndTheLogFilesLifeCycle) {
  std::string folder = dir_.Child("missing");
  std::string late = folder + "/late.log";
  std::string old = dir_.Child("old.log");
  ASSERT_TRUE(corvane_test::WriteFile(old, "old contents\n"));
  EXPECT_EXIT(
      {
        // Without the file bit nothing touches the file system, not even the default file.
        if (chdir(dir_.path().c_str()) != 0) exit(4);
        for (logging::LoggingDestination destinations : {logging::LOG_NONE, logging::kLogToStderr}) {
          if (!logging::InitializeLogging({destinations, ""})) exit(3);
          LOG(INFO) << "info without file";
          LOG(ERROR) << "error without file";
        }
        // File only: errors go to standard error as well. A file that can't be
        // opened yet is skipped until its folder appears.
        if (logging::InitializeLogging({logging::kLogToFile, late.c_str()})) exit(3);
        LOG(ERROR) << "error while missing";
        if (!corvane_test::MakeDirectories(folder)) exit(4);
        LOG(INFO) << "after created";
        logging::InitializeLogging({logging::kLogToFile, late.c_str()});
        LOG(INFO) << "appended";
        // Re-initialising reopens by name: a deleted file starts anew.
        logging::InitializeLogging({logging::kLogToFile, path_.c_str()});
        LOG(INFO) << "first";
        unlink(path_.c_str());
        LOG(INFO) << "lost with the deleted file";
        logging::InitializeLogging({logging::kLogToFile, path_.c_str()});
        LOG(INFO) << "second";
        logging::InitializeLogging({logging::kLogToFile, old.c_str(), 0, logging::DELETE_OLD_LOG_FILE});
        LOG(INFO) << "fresh";
        _exit(0);  // skips the leak check of a heap inherited from the parent
      },
      ::testing::ExitedWithCode(0),
      "^[^\n]*:ERROR:[^\n]*\\] error without file\n[^\n]*:INFO:[^\n]*\\] info without file\n"
      "[^\n]*\\] error without file\n[^\n]*\\] error while missing\n$");
  EXPECT_FALSE(corvane_test::FileExists(dir_.Child("debug.log")));
  const std::regex line("\\[[^\n]*\\] ");
  EXPECT_EQ(std::regex_replace(corvane_test::ReadFile(late), line, ""), "after created\nappended\n");
  EXPECT_EQ(std::regex_replace(corvane_test::ReadFile(path_), line, ""), "second\n");
  EXPECT_EQ(std::regex_replace(corvane_test::ReadFile(old), line, ""), "fresh\n");
}

TEST_F(LoggingProcessTest, StderrThatIsAClosedPipeEndsNeitherTheProcessNorTheFile) {
  EXPECT_EXIT(
      {
        signal(SIGPIPE, SIG_DFL);
        int ends[2];
        if (pipe(ends) != 0 || dup2(ends[1], STDERR_FILENO) < 0) _exit(4);
        close(ends[0]);
        close(ends[1]);
        logging::InitializeLogging({logging::kLogToFile | logging::kLogToStderr, path_.c_str()});
        LOG(ERROR) << "into a closed pipe";
        LOG(INFO) << "still here";
        _exit(0);  // a SIGPIPE left pending would have struck when unblocked
      },
      ::testing::ExitedWithCode(0), "");
  const std::regex line("\\[[^\n]*\\] ");
  EXPECT_EQ(std::regex_replace(corvane_test::ReadFile(path_), line, ""), "into a closed pipe\nstill here\n");
}

TEST_F(LoggingProcessTest, FatalWritesTheLineThenTrapsAndANullPathIsAnAssertion) {
  EXPECT_DEATH(
      {
        logging::InitializeLogging({logging::kLogToFile | logging::kLogToStderr, path_.c_str()});
        LOG(FATAL) << "the end";
      },
      ":FATAL:logging_test.cc\\([0-9]+\\)\\] the end\n");
  EXPECT_NE(corvane_test::ReadFile(path_).find(":FATAL:"), std::string::npos);
  EXPECT_DEATH(logging::InitializeLogging({logging::kLogToFile, nullptr}), "assertion .* failed");
}

}  // namespace
