// The logging facility: line format, level filtering, destinations, the log
// file's life cycle and errno. Tests that depend on the facility's initial
// state or on standard error run in a fresh child process (death-test style).
#include "base/logging.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <regex>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "tests/support/temp_dir.h"

namespace {

using corvane_test::FileExists;
using corvane_test::MakeDirectories;
using corvane_test::ReadFile;
using corvane_test::TempDir;

struct CapturedLine {
  int severity;
  std::string line;
  std::string message;
};
std::vector<CapturedLine>* g_captured = nullptr;

bool Capture(int severity, const char*, int, size_t message_start, const std::string& line) {
  g_captured->push_back({severity, line, line.substr(message_start)});
  return true;
}

// Captures every line instead of writing it anywhere.
class CapturingTest : public ::testing::Test {
 protected:
  void SetUp() override {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    g_captured = &lines_;
    logging::SetLogMessageHandler(&Capture);
    logging::SetMinimumLogLevel(-1);
  }
  void TearDown() override {
    logging::SetLogMessageHandler(nullptr);
    g_captured = nullptr;
  }
  std::vector<CapturedLine> lines_;
};

const std::regex kLinePattern(R"(\[(\d{2})(\d{2})/(\d{2})(\d{2})(\d{2})\.(\d{6}):([A-Z0-9]+):([^:()]+)\((\d+)\)\] (.*)\n)");

TEST_F(CapturingTest, LineHasTimestampSeverityBaseNameLineAndMessage) {
  logging::LogMessage(__FILE__, 67, logging::LOG_INFO).stream() << "hello " << 42;
  ASSERT_EQ(lines_.size(), 1u);
  std::smatch m;
  ASSERT_TRUE(std::regex_match(lines_[0].line, m, kLinePattern)) << lines_[0].line;
  EXPECT_EQ(m[7], "INFO");
  EXPECT_EQ(m[8], "logging_test.cc");
  EXPECT_EQ(m[9], "67");
  EXPECT_EQ(m[10], "hello 42");
  EXPECT_EQ(lines_[0].message, "hello 42\n");
}

TEST_F(CapturingTest, TimestampIsLocalTimeWithZeroPadding) {
  // A zone in which the hour is single-digit right now, so padding shows.
  time_t now = time(nullptr);
  struct tm utc;
  gmtime_r(&now, &utc);
  int offset = utc.tm_hour - 5;  // POSIX TZ offsets are west-positive
  if (offset > 12) offset -= 24;
  if (offset < -12) offset += 24;
  std::string zone = "ZZZ" + std::to_string(offset);
  const char* old_tz = getenv("TZ");
  std::string saved = old_tz ? old_tz : "";
  setenv("TZ", zone.c_str(), 1);
  tzset();

  time_t before = time(nullptr);
  LOG(INFO) << "x";
  struct tm local;
  localtime_r(&before, &local);

  if (old_tz)
    setenv("TZ", saved.c_str(), 1);
  else
    unsetenv("TZ");
  tzset();

  ASSERT_EQ(lines_.size(), 1u);
  std::smatch m;
  ASSERT_TRUE(std::regex_match(lines_[0].line, m, kLinePattern)) << lines_[0].line;
  char expected_date[32];
  snprintf(expected_date, sizeof(expected_date), "%02d%02d", local.tm_mon + 1, local.tm_mday);
  EXPECT_EQ(m[1].str() + m[2].str(), expected_date);
  EXPECT_EQ(m[3], "05") << lines_[0].line;
}

TEST_F(CapturingTest, SeverityNames) {
  logging::LogMessage("f.cc", 1, 4).stream() << "a";
  logging::LogMessage("f.cc", 1, 100).stream() << "b";
  logging::LogMessage("f.cc", 1, -1).stream() << "c";
  logging::LogMessage("f.cc", 1, -12).stream() << "d";
  logging::LogMessage("f.cc", 1, logging::LOG_WARNING).stream() << "e";
  logging::LogMessage("f.cc", 1, logging::LOG_ERROR).stream() << "f";
  ASSERT_EQ(lines_.size(), 6u);
  std::vector<std::string> names;
  for (const auto& l : lines_) {
    std::smatch m;
    ASSERT_TRUE(std::regex_match(l.line, m, kLinePattern)) << l.line;
    names.push_back(m[7]);
  }
  EXPECT_EQ(names, (std::vector<std::string>{"UNKNOWN", "UNKNOWN", "VERBOSE1", "VERBOSE12",
                                             "WARNING", "ERROR"}));
}

TEST_F(CapturingTest, SourceFileIsReducedToItsBaseName) {
  logging::LogMessage("a/b\\c.txt", 3, logging::LOG_INFO).stream() << "m";
  logging::LogMessage("plain.mm", 1234, logging::LOG_INFO).stream() << "m";
  logging::LogMessage("dir/", 5, logging::LOG_INFO).stream() << "m";
  ASSERT_EQ(lines_.size(), 3u);
  EXPECT_NE(lines_[0].line.find(":INFO:c.txt(3)] m\n"), std::string::npos) << lines_[0].line;
  EXPECT_NE(lines_[1].line.find(":INFO:plain.mm(1234)] m\n"), std::string::npos) << lines_[1].line;
  EXPECT_NE(lines_[2].line.find(":INFO:(5)] m\n"), std::string::npos) << lines_[2].line;
}

TEST_F(CapturingTest, MinimumLevelFiltersAndSkipsArguments) {
  int evaluated = 0;
  auto count = [&] { return ++evaluated; };
  logging::SetMinimumLogLevel(-1);
  VLOG(1) << "verbose one " << count();
  VLOG(2) << "verbose two " << count();
  EXPECT_EQ(evaluated, 1);
  logging::SetMinimumLogLevel(7);  // stored as min(7, FATAL)
  EXPECT_EQ(logging::GetMinimumLogLevel(), logging::LOG_FATAL);
  LOG(ERROR) << "dropped " << count();
  EXPECT_EQ(evaluated, 1);
  EXPECT_TRUE(logging::ShouldLog(logging::LOG_FATAL));
  EXPECT_FALSE(logging::ShouldLog(logging::LOG_ERROR));
  logging::SetMinimumLogLevel(-1);
  ASSERT_EQ(lines_.size(), 1u);
  EXPECT_EQ(lines_[0].message, "verbose one 1\n");
}

TEST_F(CapturingTest, ErrnoIsTheCallersAfterAStatement) {
  errno = EACCES;
  LOG(INFO) << "a statement starts with errno cleared: " << errno;
  EXPECT_EQ(errno, EACCES);
  errno = 0;
  logging::LogMessage("f", 1, logging::LOG_ERROR).stream() << (errno = ENOENT);
  EXPECT_EQ(errno, 0);
  ASSERT_EQ(lines_.size(), 2u);
  EXPECT_EQ(lines_[0].message, "a statement starts with errno cleared: 0\n");
}

// Standard error and the file, each in a child process forked where the
// statement runs (so that it writes where this test looks).
class LoggingProcessTest : public ::testing::Test {
 protected:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "fast"); }
  TempDir dir_;
};

TEST_F(LoggingProcessTest, BeforeInitialisationOnlyWarningsAndAboveReachStderr) {
  // A fresh process: the facility's initial values, untouched by other tests.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        LOG(INFO) << "info-before-init";
        LOG(WARNING) << "warning-before-init";
        exit(0);
      },
      ::testing::ExitedWithCode(0), "^\\[[0-9/.]+:WARNING:logging_test.cc\\([0-9]+\\)\\] warning-before-init\n$");
}

TEST_F(LoggingProcessTest, FileOnlyDestinationStillSendsErrorsToStderr) {
  std::string path = dir_.Child("only-file.log");
  EXPECT_EXIT(
      {
        logging::LogSettings settings;
        settings.destinations = logging::kLogToFile;
        settings.log_file_path = path.c_str();
        if (!logging::InitializeLogging(settings)) exit(3);
        logging::SetMinimumLogLevel(-1);
        LOG(INFO) << "info-to-file";
        LOG(ERROR) << "error-everywhere";
        exit(0);
      },
      ::testing::ExitedWithCode(0), "^\\[[0-9/.]+:ERROR:[^\n]*\\] error-everywhere\n$");
  std::string contents = ReadFile(path);
  EXPECT_NE(contents.find("] info-to-file\n"), std::string::npos);
  EXPECT_NE(contents.find("] error-everywhere\n"), std::string::npos);
}

TEST_F(LoggingProcessTest, FileAndStderrWriteEachLineOnceToEach) {
  std::string path = dir_.Child("both.log");
  EXPECT_EXIT(
      {
        logging::LogSettings settings;
        settings.destinations = logging::kLogToFile | logging::kLogToStderr;
        settings.log_file_path = path.c_str();
        logging::InitializeLogging(settings);
        logging::SetMinimumLogLevel(-1);
        LOG(INFO) << "one";
        LOG(ERROR) << "two";
        exit(0);
      },
      ::testing::ExitedWithCode(0), "^\\[[^\n]*\\] one\n\\[[^\n]*\\] two\n$");
  std::string contents = ReadFile(path);
  std::regex two_lines("\\[[^\n]*:INFO:[^\n]*\\] one\n\\[[^\n]*:ERROR:[^\n]*\\] two\n");
  EXPECT_TRUE(std::regex_match(contents, two_lines)) << contents;
  struct stat st;
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u) << "log lines can carry tokens";
}

TEST_F(LoggingProcessTest, NoFileDestinationNeverTouchesTheFileSystem) {
  std::string cwd = dir_.path();
  EXPECT_EXIT(
      {
        if (chdir(cwd.c_str()) != 0) exit(4);
        for (logging::LoggingDestination d : {logging::LOG_NONE, logging::kLogToStderr}) {
          logging::LogSettings settings;
          settings.destinations = d;
          if (!logging::InitializeLogging(settings)) exit(3);
          logging::SetMinimumLogLevel(-1);
          LOG(INFO) << "no file";
          LOG(ERROR) << "no file either";
        }
        exit(0);
      },
      ::testing::ExitedWithCode(0), "");
  EXPECT_FALSE(FileExists(dir_.Child("debug.log")));
}

TEST_F(LoggingProcessTest, ReinitialisingAfterDeletionStartsANewFile) {
  std::string path = dir_.Child("re.log");
  EXPECT_EXIT(
      {
        logging::LogSettings settings;
        settings.destinations = logging::kLogToFile;
        settings.log_file_path = path.c_str();
        logging::InitializeLogging(settings);
        logging::SetMinimumLogLevel(-1);
        LOG(INFO) << "first";
        unlink(path.c_str());
        LOG(INFO) << "lost with the deleted file";
        logging::InitializeLogging(settings);
        LOG(INFO) << "second";
        logging::InitializeLogging(settings);  // append keeps what is there
        LOG(INFO) << "third";
        exit(0);
      },
      ::testing::ExitedWithCode(0), "");
  std::string contents = ReadFile(path);
  EXPECT_EQ(contents.find("first"), std::string::npos) << contents;
  EXPECT_EQ(contents.find("lost"), std::string::npos) << contents;
  size_t second = contents.find("] second\n");
  ASSERT_NE(second, std::string::npos) << contents;
  EXPECT_NE(contents.find("] third\n", second), std::string::npos) << contents;
}

TEST_F(LoggingProcessTest, DeleteOldFileHandlingStartsEmpty) {
  std::string path = dir_.Child("old.log");
  ASSERT_TRUE(corvane_test::WriteFile(path, "old contents\n"));
  EXPECT_EXIT(
      {
        logging::LogSettings settings;
        settings.destinations = logging::kLogToFile;
        settings.log_file_path = path.c_str();
        settings.old_file_handling = logging::DELETE_OLD_LOG_FILE;
        logging::InitializeLogging(settings);
        logging::SetMinimumLogLevel(-1);
        LOG(INFO) << "new";
        exit(0);
      },
      ::testing::ExitedWithCode(0), "");
  std::string contents = ReadFile(path);
  EXPECT_EQ(contents.find("old contents"), std::string::npos);
  EXPECT_NE(contents.find("] new\n"), std::string::npos);
}

TEST_F(LoggingProcessTest, UnopenableLogFileFallsBackToStderrUntilTheCauseIsGone) {
  std::string folder = dir_.Child("missing/logs");
  std::string path = folder + "/late.log";
  EXPECT_EXIT(
      {
        logging::LogSettings settings;
        settings.destinations = logging::kLogToFile | logging::kLogToStderr;
        settings.log_file_path = path.c_str();
        if (logging::InitializeLogging(settings)) exit(3);  // must report the failure
        logging::SetMinimumLogLevel(-1);
        LOG(INFO) << "while-missing";
        if (!MakeDirectories(folder)) exit(4);
        LOG(INFO) << "after-created";
        exit(0);
      },
      ::testing::ExitedWithCode(0), "\\] while-missing\n[^\n]*\\] after-created\n$");
  std::string contents = ReadFile(path);
  EXPECT_EQ(contents.find("while-missing"), std::string::npos) << contents;
  EXPECT_NE(contents.find("] after-created\n"), std::string::npos) << contents;
}

TEST_F(LoggingProcessTest, FatalWritesTheLineThenTraps) {
  std::string path = dir_.Child("fatal.log");
  EXPECT_DEATH(
      {
        logging::LogSettings settings;
        settings.destinations = logging::kLogToFile | logging::kLogToStderr;
        settings.log_file_path = path.c_str();
        logging::InitializeLogging(settings);
        LOG(FATAL) << "the end";
      },
      ":FATAL:logging_test.cc\\([0-9]+\\)\\] the end\n");
  EXPECT_NE(ReadFile(path).find(":FATAL:"), std::string::npos);
}

TEST_F(LoggingProcessTest, NullPathWithFileDestinationIsAnAssertion) {
  EXPECT_DEATH(
      {
        logging::LogSettings settings;
        settings.destinations = logging::kLogToFile;
        settings.log_file_path = nullptr;
        logging::InitializeLogging(settings);
      },
      "assertion .* failed");
}

}  // namespace
